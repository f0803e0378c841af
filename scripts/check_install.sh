#!/usr/bin/env bash
# Installs a build into an empty folder, builds a small program against what was installed, and runs it.
#   scripts/check_install.sh BUILD-FOLDER
source "$(dirname "$0")/common.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cmake --install "$1" --prefix "$folder/installed" >/dev/null
cmake -S tests/consumer -B "$folder/build" -G Ninja -DCMAKE_PREFIX_PATH="$folder/installed" >/dev/null
cmake --build "$folder/build" >/dev/null
"$folder/build/consumer"
library=$(find "$folder/installed" -name 'libQELNetworkKit.so')
# Only names of the library's own may be seen from outside: its classes, its namespace and its C functions.
foreign=$(nm -DC --defined-only "$library" | cut -d' ' -f3- |
  grep -vE 'qelnk::|QELN|QELProjectTimecode|ZMQ|MPMessagePack|PQODictionary|^QLGetHandle|^cmp_|^qelNKPing$|^(ntransmitted|nreceived|tmin|tmax|tsum|tsumsq|options|interval|waittime)$|std::' || true)
if [ -n "$foreign" ]; then
  printf 'exported but not ours:\n%s\n' "$foreign" >&2
  exit 1
fi
installed_tool=$folder/installed/bin/qelnk
if [ -x "$installed_tool" ]; then
  "$installed_tool" --version
  "$installed_tool" demo >/dev/null && echo "the installed qelnk runs its demonstration"
fi
