#!/usr/bin/env bash
# Builds and runs all tests. Arguments go to ctest: scripts/test.sh -R Client
source "$(dirname "$0")/common.sh"
scripts/setup.sh
preset=${QELNK_PRESET:-release}
echo "Building ($preset) ..."
build "$preset"
exec ctest --preset "$preset" -LE checks -j2 "$@"
