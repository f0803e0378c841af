#!/usr/bin/env bash
# Compiles each public header alone, as C++20, and those meant for C as C99 too. Clang compiles all of one language at once:
# it is there for what it alone complains about.
source "$(dirname "$0")/common.sh"
flags=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only -Iinclude)
failed=0
include() { printf '#include <%s>\n' "${@#include/}"; }
as_cxx() { "$1" -std=c++20 "${flags[@]}" -x c++ - || failed=1; }
as_c() { (cat; echo "typedef int translation_unit_is_not_empty;") | "$1" -std=c99 "${flags[@]}" -x c - || failed=1; }

all=(include/QELNetworkKit/*.h)
c=(include/QELNetworkKit/{cmp,Version,Export,QELNKKORVALConstants,qelNKPing}.h)
for header in "${all[@]}"; do as_cxx "${CXX:-c++}" < <(include "$header"); done
for header in "${c[@]}"; do as_c "${CC:-cc}" < <(include "$header"); done
as_cxx clang++ < <(include "${all[@]}")
as_c clang < <(include "${c[@]}")
[ $failed = 0 ] && echo "every public header compiles alone"
exit $failed
