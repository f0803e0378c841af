#!/usr/bin/env bash
# Builds the examples as a project of their own against an installed library, and runs those that need nobody.
#   scripts/check_examples.sh BUILD-FOLDER
source "$(dirname "$0")/common.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cmake --install "$1" --prefix "$folder/installed" >/dev/null
cmake -S examples -B "$folder/build" -G Ninja -DCMAKE_PREFIX_PATH="$folder/installed" >/dev/null
cmake --build "$folder/build" >/dev/null
for name in request_reply publish_subscribe legacy_peers host_plain host_game host_glib host_qt; do
  timeout 60 "$folder/build/$name" >"$folder/log" 2>&1 || { echo "$name:" >&2; cat "$folder/log" >&2; exit 1; }
done
echo "the examples build and run beside an installed library"
