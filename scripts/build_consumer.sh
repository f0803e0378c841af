#!/usr/bin/env bash
# Builds and runs the application in tests/consumer with the library of a build tree or an installation.
#   scripts/build_consumer.sh cmake|pkg-config FOLDER
source "$(dirname "$0")/common.sh"
folder=$(realpath "$2")
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
if [ "$1" = cmake ]; then
  { cmake -S tests/consumer -B "$build" -G Ninja -DCMAKE_PREFIX_PATH="$folder" && cmake --build "$build"; } >"$build/log" 2>&1 ||
    { cat "$build/log" >&2; exit 1; }
else
  PKG_CONFIG_PATH=$folder
  if [ ! -f "$folder/qelnetworkkit.pc" ]; then  # installed: neither pkg-config nor the loader knows the place
    PKG_CONFIG_PATH=$(dirname "$(find "$folder" -name qelnetworkkit.pc)")
    export LD_LIBRARY_PATH=$PKG_CONFIG_PATH/..
  fi
  export PKG_CONFIG_PATH
  read -ra flags <<<"$(pkg-config --cflags --libs 'qelnetworkkit >= 1.0')"
  "${CXX:-c++}" -std=c++20 tests/consumer/main.cpp -o "$build/consumer" "${flags[@]}"
fi
# The library of that very folder, not one that the machine has besides.
library=$(ldd "$build/consumer" | sed -n 's/.*libQELNetworkKit.so.1 => \(.*\) (.*/\1/p')
case $(realpath "$library") in
  "$folder"/*) ;;
  *) echo "$1: loaded $library instead of the one below $folder" >&2; exit 1 ;;
esac
"$build/consumer" >/dev/null
echo "an application builds with $1 and runs, from ${3:-a build tree}"
