# What the scripts share; to be sourced.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# All build folders share what the compiler cache holds.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1

# Configures a preset where that has not been done, and builds it, quietly unless it fails: build PRESET [TARGET...]
build() {
  local preset=$1 log
  shift
  log=$(mktemp)
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
