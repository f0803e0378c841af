#!/usr/bin/env bash
# Runs a whole studio for so many minutes while its peers are killed, stopped and started again, and fails where anything
# grows, is lost, comes twice or goes wrong without a cause. docs/soak.md says what is checked.
#   scripts/soak.sh MINUTES [SEED] [--plot FILE]     QELNK_PRESET=asan or tsan: with a sanitizer, memory is not judged
source "$(dirname "$0")/common.sh"
minutes=${1:-}
[[ $minutes =~ ^[0-9]+(\.[0-9]+)?$ ]] || { sed -n '2,4s/^# //p' "$0" >&2; exit 64; }
shift
preset=${QELNK_PRESET:-release}
scripts/setup.sh
echo "Building ($preset) ..."
build "$preset" qelnk-soak qelnk orlin-sim orlin-sim-bundle
exec python3 scripts/soak.py "build/$preset" "$minutes" "$@"
