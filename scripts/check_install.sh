#!/usr/bin/env bash
# Builds and runs a small application against a build tree and against what that installs into an empty folder, each with
# CMake and with pkg-config, and the installed tools.
#   scripts/check_install.sh BUILD-FOLDER
source "$(dirname "$0")/common.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cmake --install "$1" --prefix "$folder/first" >/dev/null
mv "$folder/first" "$folder/installed"  # it can be moved

for way in cmake pkg-config; do
  scripts/build_consumer.sh $way "$1"
  scripts/build_consumer.sh $way "$folder/installed" "an installation"
done

qelnk=$folder/installed/bin/qelnk
if [ -x "$1/bin/qelnk" ]; then
  "$qelnk" --version
  "$qelnk" demo >/dev/null
  echo "the installed qelnk runs its demonstration"
fi
