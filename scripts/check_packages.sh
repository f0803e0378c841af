#!/usr/bin/env bash
# Builds Debian's packages, installs them into a root of their own, uses them there, and removes them.
source "$(dirname "$0")/common.sh"
fail() { echo "$*" >&2; exit 1; }
scripts/package.sh >/dev/null
version=$(sed -n 's/^project(QELNetworkKit VERSION \([^ ]*\).*/\1/p' CMakeLists.txt)

# What each has to depend on at least; and all of it has to be there for Debian's package manager on this machine.
check_depends() {
  local name=$1 depends others dependency
  depends=$(dpkg-deb -f build/packages/"$name"_"$version"_*.deb Depends)
  for dependency in "${@:2}"; do
    [[ ", $depends," == *", $dependency"[,\ ]* ]] || fail "$name does not depend on $dependency: $depends"
  done
  others=$(sed -E 's/libqelnetworkkit1 \([^)]*\)(, )?//g; s/, $//' <<<"$depends")
  dpkg-checkbuilddeps -d "$others" <(printf 'Source: none\nBuild-Depends:\n') || fail "$name: cannot be installed: $others"
}
library=libqelnetworkkit1
check_depends $library libzmq5 libavahi-client3 libdbus-1-3 libnl-route-3-200 libsdbus-c++1 libsimdjson14 libssl3 libstdc++6 libc6
check_depends libqelnetworkkit-dev "$library (= $version)" libzmq3-dev pkg-config
check_depends qelnetworkkit-tools "$library (= $version)" libssl3 libstdc++6 libc6

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
root=$folder/root
mkdir -p "$root"/{etc,var/lib/dpkg/{info,updates}}
touch "$root/var/lib/dpkg/status"
# What the packages' scripts call: a shell, and what renews the loader's cache.
cp -L --parents /bin/sh /sbin/ldconfig $(ldd /bin/sh | grep -o '/[^ ]*') "$root"
files() { find "$root" -not -path "$root/var*" -not -path "$root/etc*" | sort; }
files >"$folder/before"
as_root=()
[ "$(id -u)" = 0 ] || as_root=(unshare -r)  # for the files' owners alone
packages() {
  "${as_root[@]}" dpkg --root="$root" --force-not-root --force-depends --log="$folder/log" "$@" >"$folder/output" 2>&1 ||
    { cat "$folder/output" >&2; return 1; }
}
export PATH=$PATH:/usr/sbin:/sbin  # where dpkg looks for what belongs to root
in_cache() { ldconfig -r "$root" -p | grep -q 'libQELNetworkKit.so.1 '; }
packages --install build/packages/*.deb
in_cache || fail "the loader does not know the library"
"$root/usr/bin/qelnk" --version
"$root/usr/bin/qelnk" demo >/dev/null || fail "qelnk does not run its demonstration from the packages"
for file in bin/orlin-sim share/man/man1/{qelnk,orlin-sim}.1.gz share/bash-completion/completions/qelnk \
  share/zsh/vendor-completions/_qelnk share/QELNetworkKit/sample.prj; do
  [ -e "$root/usr/$file" ] || [ -e "$root/usr/${file%.gz}" ] || fail "the packages have no $file"
done
for way in cmake pkg-config; do
  scripts/build_consumer.sh $way "$root/usr" "the packages"
done
packages --purge qelnetworkkit-tools libqelnetworkkit-dev $library
! in_cache || fail "the loader still looks for the library"
files | diff "$folder/before" - || fail "the packages leave something behind"
echo "the packages leave nothing behind"
