#!/usr/bin/env bash
# The demonstration: builds what it needs, then launches, mirrors, drives and quits a (simulated) processing daemon, and
# has legacy peers talk to each other.
source "$(dirname "$0")/common.sh"
scripts/setup.sh
echo "Building the library, qelnk and the simulated daemon ..."
build release qelnk orlin-sim orlin-sim-bundle
exec build/release/bin/qelnk demo
