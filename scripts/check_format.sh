#!/usr/bin/env bash
# Checks that our sources are formatted; with --fix formats them.
source "$(dirname "$0")/common.sh"
mapfile -t files < <(find include platform encoding messaging legacy netutil daemon tools tests bench examples fuzz soak -name '*.h' -o -name '*.cpp' -o -name '*.c' | sort)
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run -Werror "${files[@]}"
  echo "${#files[@]} files are formatted"
fi
