#!/usr/bin/env bash
# Builds and runs the benchmarks beside their peers, prints their tables and puts them into docs/benchmarks.md.
#   scripts/bench.sh [encoding|request|broadcast|daemon|legacy|network|websocket|startup|scale|all]
# All takes about a quarter of an hour; let the machine do nothing else.
source "$(dirname "$0")/common.sh"
what=${1:-all}
case $what in encoding | request | broadcast | daemon | legacy | network | websocket | startup | scale | all) ;; *) sed -n '2,4s/^# //p' "$0" >&2; exit 2 ;; esac
scripts/setup.sh
scripts/setup.sh bench
echo "Building ..."
build bench
programs=build/bench/bin
results=build/bench/results
rm -rf "$results"
mkdir -p "$results"
read -r load _ </proc/loadavg
if [ "$(printf '%.0f' "${load}e1")" -gt 5 ]; then
  echo "The machine has something else to do (load $load): the figures will be worse than they should be." >&2
fi

micro=(--benchmark_enable_random_interleaving=true --benchmark_repetitions=9 --benchmark_min_time=0.05
       --benchmark_out_format=json)
run() {
  echo "Running $1 ..."
  case $1 in
    encoding_bench | log_bench) "$programs/$1" "${micro[@]}" "--benchmark_out=$results/$1.json" >/dev/null ;;
    *) timeout 600 "$programs/$1" | tee "$results/$1.txt" ;;
  esac
}
wants() { [ "$what" = "$1" ] || [ "$what" = all ]; }
if wants encoding; then run encoding_bench; run heap_bench; fi
if wants request; then run request_bench; run pipeline_bench; run server_bench; fi
if wants broadcast; then run broadcast_bench; fi
if wants daemon; then run daemon_bench; run log_bench; fi
if wants legacy; then run legacy_bench; fi
if wants network; then run network_bench; fi
if wants websocket; then run websocket_bench; fi
if wants startup; then run startup_bench; fi
if wants scale; then run scale_bench; fi
scripts/bench_report.py "$results" docs/benchmarks.md
