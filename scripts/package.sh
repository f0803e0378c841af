#!/usr/bin/env bash
# Builds Debian's packages of the library, its development files and the tools.
#   scripts/package.sh      and then: apt-get install ./build/packages/*.deb
source "$(dirname "$0")/common.sh"
scripts/setup.sh
folder=build/packages
log=$(mktemp)
trap 'rm -f "$log"' EXIT
rm -f "$folder"/*.deb
# A build of its own: the folders' names in a package are those of Debian below /usr.
if ! { cmake --preset release -B "$folder" -DCMAKE_INSTALL_PREFIX=/usr -DQELNK_BUILD_TESTS=OFF -DQELNK_BUILD_EXAMPLES=OFF &&
  cmake --build "$folder" && (cd "$folder" && cpack); } >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
ls "$folder"/*.deb
