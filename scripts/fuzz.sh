#!/usr/bin/env bash
# Builds the fuzzers and runs one after the other, with its corpus to begin with. Fails where something was found.
#   scripts/fuzz.sh [SECONDS] [TARGET...]     for each of all targets 20 seconds, unless told
source "$(dirname "$0")/common.sh"
seconds=20
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
targets=("$@")
[ $# -gt 0 ] || mapfile -t targets < <(ls fuzz/corpus)
scripts/setup.sh
echo "Building ..."
build fuzz fuzzers

failed=0
printf '%-14s %12s %9s %8s\n' target executions coverage corpus
for target in "${targets[@]}"; do
  corpus=build/fuzz/corpus/$target findings=build/fuzz/findings/$target log=build/fuzz/findings/$target.log
  mkdir -p "$corpus" "$findings"
  options=("-max_total_time=$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "-artifact_prefix=$findings/")
  [ ! -f "fuzz/$target.dict" ] || options+=("-dict=fuzz/$target.dict")
  ended=0
  "build/fuzz/fuzz/fuzz-$target" "${options[@]}" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1 || ended=$?
  awk -v target="$target" '
    / cov: / { for (i = 1; i < NF; i++) { if ($i == "cov:") coverage = $(i + 1); if ($i == "corp:") corpus = $(i + 1) } }
    /number_of_executed_units/ { executions = $2 }
    END { sub("/.*", "", corpus); printf "%-14s %12s %9s %8s\n", target, executions, coverage, corpus }' "$log"
  if [ $ended -ne 0 ]; then
    failed=1
    grep -E 'ERROR: |SUMMARY: |runtime error: |does not hold: |Test unit written to ' "$log" >&2 || tail -n 20 "$log" >&2
    echo "The whole of it is in $log" >&2
  fi
done
exit $failed
