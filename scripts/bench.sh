#!/usr/bin/env bash
# Compares the engine with gzip, zstd and lz4 on every file of the benchmark
# corpus, in one run, on one core, and prints one table: ratio (compressed /
# original), compress MB/s and expand MB/s (MB = 10^6 bytes of original
# data per second of CPU time).
#
#   scripts/bench.sh BUILD_DIR
#
# The engine is measured in process by BUILD_DIR/bench/bench_engine (Google
# Benchmark, one-shot block functions, method 1, median of three). The tools
# are run as processes, each file BENCH_REPEAT times (default 10); the CPU
# time of the same command on an empty file is subtracted, so that process
# start-up does not count against them. Everything runs pinned to one CPU
# when taskset is there. BENCH_CORPUS names another corpus folder.
set -euo pipefail

build=${1:?usage: bench.sh BUILD_DIR}
repeat=${BENCH_REPEAT:-10}
here=$(cd "$(dirname "$0")/.." && pwd)
bench="$build/bench/bench_engine"
[ -x "$bench" ] || { echo "no $bench (configure with -DTALVERN_BUILD_BENCH=ON)" >&2; exit 1; }

corpus=${BENCH_CORPUS:-}
if [ -z "$corpus" ]; then
  for candidate in "$here/../shared/corpus" "$here/../../shared/corpus"; do
    [ -d "$candidate" ] && { corpus=$(cd "$candidate" && pwd); break; }
  done
fi
[ -d "$corpus" ] || { echo "benchmark corpus not found (set BENCH_CORPUS)" >&2; exit 1; }

pin=()
command -v taskset >/dev/null 2>&1 && pin=(taskset -c 0)

files=()
for f in "$corpus"/*; do
  [ -f "$f" ] && [ "$(basename "$f")" != README.md ] && files+=("$f")
done
[ ${#files[@]} -gt 0 ] || { echo "no files in $corpus" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$work/empty"

# Children's CPU seconds (user + system) of running "$@" $repeat times.
cpu_seconds() {
  (
    for ((i = 0; i < repeat; i++)); do "$@" >/dev/null; done
    times
  ) | tail -1 | awk '{
      split($1, u, /[ms]/); split($2, s, /[ms]/);
      printf "%.6f\n", u[1] * 60 + u[2] + s[1] * 60 + s[2] }'
}

total_bytes=0
for f in "${files[@]}"; do total_bytes=$((total_bytes + $(stat -c %s "$f"))); done

# ---- The engine -------------------------------------------------------------------
echo "measuring talvern ..." >&2
TALVERN_BENCH_CORPUS="$corpus" "${pin[@]}" "$bench" --benchmark_min_time=0.3s \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_format=json >"$work/engine.json" 2>/dev/null
# Per file: seconds per call (CPU) from the medians, and the ratio.
engine=$(awk -v total="$total_bytes" '
  /"name":/ { name = $2; gsub(/[",]/, "", name) }
  /"cpu_time":/ { cpu = $2; gsub(/,/, "", cpu) }
  /"time_unit":/ { unit = $2; gsub(/[",]/, "", unit) }
  /"ratio":/ { ratio = $2; gsub(/,/, "", ratio) }
  /^    }/ {
    if (name ~ /_median$/) {
      scale = unit == "ns" ? 1e-9 : unit == "us" ? 1e-6 : unit == "ms" ? 1e-3 : 1
      if (name ~ /^compress\//) { ct += cpu * scale; r[name] = ratio }
      if (name ~ /^expand\//) et += cpu * scale
    }
    name = ""; ratio = ""
  }
  END { printf "%.6f %.6f\n", ct, et }' "$work/engine.json")
engine_ct=${engine% *}
engine_et=${engine#* }
engine_packed=0
for f in "${files[@]}"; do
  name=$(basename "$f")
  ratio=$(awk -v n="compress/${name}_median" '
    /"name":/ { cur = $2; gsub(/[",]/, "", cur) }
    /"ratio":/ && cur == n { v = $2; gsub(/,/, "", v); print v; exit }' "$work/engine.json")
  engine_packed=$(awk -v a="$engine_packed" -v r="$ratio" -v s="$(stat -c %s "$f")" \
    'BEGIN { printf "%.0f", a + r * s }')
done

# ---- The tools ----------------------------------------------------------------------
# tool name | compress command | expand command | suffix
tools=(
  "gzip -6|gzip -6 -c|gzip -d -c|gz"
  "zstd -3|zstd -3 -q -c|zstd -d -q -c|zst"
  "lz4 -1|lz4 -1 -q -c|lz4 -d -q -c|lz4"
)
declare -A ratio_of compress_of expand_of
for entry in "${tools[@]}"; do
  IFS='|' read -r label ccmd dcmd suffix <<<"$entry"
  tool=${ccmd%% *}
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "$tool not installed: left out" >&2
    continue
  fi
  echo "measuring $label ..." >&2
  # shellcheck disable=SC2086
  ${ccmd} "$work/empty" >"$work/empty.$suffix"
  # shellcheck disable=SC2086
  c_base=$(cpu_seconds "${pin[@]}" ${ccmd} "$work/empty")
  # shellcheck disable=SC2086
  d_base=$(cpu_seconds "${pin[@]}" ${dcmd} "$work/empty.$suffix")
  packed=0 ct=0 et=0
  for f in "${files[@]}"; do
    name=$(basename "$f")
    # shellcheck disable=SC2086
    ${ccmd} "$f" >"$work/$name.$suffix"
    packed=$((packed + $(stat -c %s "$work/$name.$suffix")))
    # shellcheck disable=SC2086
    c=$(cpu_seconds "${pin[@]}" ${ccmd} "$f")
    # shellcheck disable=SC2086
    d=$(cpu_seconds "${pin[@]}" ${dcmd} "$work/$name.$suffix")
    ct=$(awk -v a="$ct" -v c="$c" -v b="$c_base" -v n="$repeat" 'BEGIN {
      t = (c - b) / n; if (t < 1e-6) t = 1e-6; printf "%.6f", a + t }')
    et=$(awk -v a="$et" -v c="$d" -v b="$d_base" -v n="$repeat" 'BEGIN {
      t = (c - b) / n; if (t < 1e-6) t = 1e-6; printf "%.6f", a + t }')
  done
  ratio_of[$label]=$(awk -v p="$packed" -v t="$total_bytes" 'BEGIN { printf "%.3f", p / t }')
  compress_of[$label]=$(awk -v t="$total_bytes" -v s="$ct" 'BEGIN { printf "%.1f", t / s / 1e6 }')
  expand_of[$label]=$(awk -v t="$total_bytes" -v s="$et" 'BEGIN { printf "%.1f", t / s / 1e6 }')
done

t_ratio=$(awk -v p="$engine_packed" -v t="$total_bytes" 'BEGIN { printf "%.3f", p / t }')
t_compress=$(awk -v t="$total_bytes" -v s="$engine_ct" 'BEGIN { printf "%.1f", t / s / 1e6 }')
t_expand=$(awk -v t="$total_bytes" -v s="$engine_et" 'BEGIN { printf "%.1f", t / s / 1e6 }')

echo
echo "Corpus: ${#files[@]} files, $total_bytes bytes ($corpus); one core; CPU time"
printf '%-20s %8s %15s %13s\n' "" ratio "compress MB/s" "expand MB/s"
printf '%-20s %8s %15s %13s\n' "talvern method 1" "$t_ratio" "$t_compress" "$t_expand"
for entry in "${tools[@]}"; do
  label=${entry%%|*}
  [ -n "${ratio_of[$label]:-}" ] || continue
  printf '%-20s %8s %15s %13s\n' "$label" "${ratio_of[$label]}" "${compress_of[$label]}" \
    "${expand_of[$label]}"
done
if [ -n "${compress_of[gzip -6]:-}" ]; then
  printf '%-20s %8s %15s %13s\n' "talvern / gzip" "" \
    "$(awk -v a="$t_compress" -v b="${compress_of[gzip -6]}" 'BEGIN { printf "%.2fx", a / b }')" \
    "$(awk -v a="$t_expand" -v b="${expand_of[gzip -6]}" 'BEGIN { printf "%.2fx", a / b }')"
fi
