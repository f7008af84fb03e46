#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a set time each and prints
# what each did: seconds, executions, and whether it found anything.
#
#   scripts/run-fuzz.sh BUILD_DIR SECONDS
#
# The targets start from their seed corpus (fuzz/corpus/<target>) and grow
# a working corpus under BUILD_DIR/fuzz-work/<target>, so the committed
# seeds stay as they are. Anything found is written to
# BUILD_DIR/fuzz-findings/<target>-crash-... and makes the script fail.
set -euo pipefail

build=${1:?usage: run-fuzz.sh BUILD_DIR SECONDS}
seconds=${2:?usage: run-fuzz.sh BUILD_DIR SECONDS}
here=$(cd "$(dirname "$0")/.." && pwd)
seeds="$here/fuzz/corpus"

shopt -s nullglob
targets=("$build"/fuzz/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "no fuzz targets in $build/fuzz (configure with -DTALVERN_BUILD_FUZZ=ON, CXX=clang++)" >&2
  exit 1
fi

mkdir -p "$build/fuzz-work" "$build/fuzz-findings" "$build/fuzz-logs"
failed=0
rows=()
for binary in "${targets[@]}"; do
  name=$(basename "$binary")
  target=${name#fuzz_}
  work="$build/fuzz-work/$target"
  log="$build/fuzz-logs/$target.log"
  mkdir -p "$work"
  echo "== $target: ${seconds}s" >&2
  status=0
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$binary" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
    -artifact_prefix="$build/fuzz-findings/$target-" "$work" "$seeds/$target" >"$log" 2>&1 ||
    status=$?
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  units=$(grep -o 'corp: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*$')
  if [ "$status" -eq 0 ]; then
    result="nothing found"
  else
    result="FOUND SOMETHING (exit $status, see $log)"
    failed=1
  fi
  rows+=("$(printf '%-22s %8s %14s %8s  %s' "$target" "${seconds}s" "${runs:-?}" "${units:-?}" "$result")")
done

printf '%-22s %8s %14s %8s  %s\n' target time executions corpus result
for row in "${rows[@]}"; do echo "$row"; done
exit $failed
