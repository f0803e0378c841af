#!/usr/bin/env bash
# Compiles each public header alone, as C++20, and those meant for C as C99 too.
source "$(dirname "$0")/common.sh"
failed=0
for header in include/QELNetworkKit/*.h; do
  name=${header#include/}
  echo "#include <$name>" | "${CXX:-c++}" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -Iinclude -x c++ - || failed=1
done
for name in cmp Version Export QELNKKORVALConstants qelNKPing; do
  echo "#include <QELNetworkKit/$name.h>
        typedef int translation_unit_is_not_empty;" | "${CC:-cc}" -std=c99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -Iinclude -x c - || failed=1
done
[ $failed = 0 ] && echo "every public header compiles alone"
exit $failed
