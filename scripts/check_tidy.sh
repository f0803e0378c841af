#!/usr/bin/env bash
# Static checks of the library and the tools with the set chosen in .clang-tidy; needs a configured release build.
source "$(dirname "$0")/common.sh"
[ -f build/release/compile_commands.json ] || cmake --preset release >/dev/null
find platform encoding messaging legacy netutil daemon tools soak -name '*.cpp' | sort |
  xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/release --warnings-as-errors='*' 2> >(grep -v 'warnings generated' >&2)
echo "clang-tidy has no findings"
