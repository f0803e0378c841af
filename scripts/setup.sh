#!/usr/bin/env bash
# Installs what building, testing and the checks need and is not there yet, from Debian's packages.
#   scripts/setup.sh [build|bench]     build: all but what only the benchmarks compare with
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache file
  libzmq3-dev libsimdjson-dev libpugixml-dev libspdlog-dev libfmt-dev libavahi-client-dev libdbus-1-dev libsdbus-c++-dev libnl-route-3-dev libboost-dev libssl-dev libgtest-dev
  avahi-daemon avahi-utils dbus-daemon iproute2 python3-dbusmock
  libglib2.0-dev qtbase5-dev
  clang clang-format clang-tidy libclang-rt-dev
  doxygen groff-base
  python3 python3-zmq python3-msgpack python3-websockets git locales
  chromium-headless-shell
)
if [ "${1:-build}" = bench ]; then
  packages+=(libbenchmark-dev libmsgpack-cxx-dev nlohmann-json3-dev rapidjson-dev cppzmq-dev libczmq-dev)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
update() { "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=300 update -qq; }
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "setup: these packages are missing and only root can install them: ${missing[*]}" >&2
    exit 1
  fi
  echo "Installing: ${missing[*]}"
  install=(env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${missing[@]}")
  # The lists may be old, or not there at all: only then are they fetched.
  "${as_root[@]}" "${install[@]}" >/dev/null 2>&1 || {
    update
    "${as_root[@]}" "${install[@]}" >/dev/null
  }
fi

# Boost.JSON came with Boost 1.75, and the package of a newer Boost cannot be installed beside the default one. It is unpacked
# here instead, for the one benchmark that compares with it.
peers=$(dirname "$0")/../build/peers
if [ "${1:-build}" = bench ] && [ ! -e "$peers/usr/include/boost/json.hpp" ]; then
  echo "Unpacking: libboost1.81-dev"
  mkdir -p "$peers"
  package=$(mktemp -d)
  chmod 755 "$package"
  download() { (cd "$package" && apt-get download -qq libboost1.81-dev 2>/dev/null); }
  download || { update && download; }
  dpkg-deb --fsys-tarfile "$package"/*.deb | tar -x -C "$peers" ./usr/include
  rm -r "$package"
fi
