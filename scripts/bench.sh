#!/usr/bin/env bash
# Compares the engine with gzip, zstd and lz4 on every file of the benchmark
# corpus, in one run, on one core, and prints one table: ratio (compressed /
# original), compress MB/s and expand MB/s (MB = 10^6 bytes of original
# data per second of CPU time).
#
#   scripts/bench.sh BUILD_DIR
#
# The engine is measured in process by BUILD_DIR/bench/bench_engine (Google
# Benchmark, one-shot block functions, method 1). The tools are run as
# processes over all files in turn, BENCH_REPEAT passes (default 5) in a
# round; the CPU time of the same passes over empty files is subtracted, so
# that process start-up does not count against them. Every figure is the
# best of three rounds (three repetitions for the engine), which keeps
# other work on the machine out of it as far as possible. Everything runs
# pinned to one CPU when taskset is there. BENCH_CORPUS names another
# corpus folder.
set -euo pipefail

build=${1:?usage: bench.sh BUILD_DIR}
repeat=${BENCH_REPEAT:-5}
here=$(cd "$(dirname "$0")/.." && pwd)
bench="$build/bench/bench_engine"
[ -x "$bench" ] || { echo "no $bench (configure with -DTALVERN_BUILD_BENCH=ON)" >&2; exit 1; }

corpus=${BENCH_CORPUS:-$here/bench/corpus}
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

# CPU seconds (user + system) of one pass of the command over the given
# files: the best of three rounds of $repeat passes, per pass. Usage:
#   pass_seconds SUFFIX COMMAND... -- FILE...
# where SUFFIX is appended to each file name ("" for none).
pass_seconds() {
  local suffix=$1
  shift
  local cmd=()
  while [ "$1" != "--" ]; do
    cmd+=("$1")
    shift
  done
  shift
  local best="" round t
  for round in 1 2 3; do
    t=$(
      (
        for ((i = 0; i < repeat; i++)); do
          for f in "$@"; do "${cmd[@]}" "$f$suffix" >/dev/null; done
        done
        times
      ) | tail -1 | awk -v n="$repeat" '{
          split($1, u, /[ms]/); split($2, s, /[ms]/);
          printf "%.6f\n", (u[1] * 60 + u[2] + s[1] * 60 + s[2]) / n }'
    )
    best=$(awk -v a="$best" -v b="$t" 'BEGIN { print (a == "" || b < a) ? b : a }')
  done
  echo "$best"
}

total_bytes=0
for f in "${files[@]}"; do total_bytes=$((total_bytes + $(stat -c %s "$f"))); done

# ---- The engine -------------------------------------------------------------------
echo "measuring talvern ..." >&2
TALVERN_BENCH_CORPUS="$corpus" "${pin[@]}" "$bench" --benchmark_min_time=0.3s \
  --benchmark_repetitions=3 --benchmark_format=json >"$work/engine.json" 2>/dev/null
# Per file, the best CPU time of the three repetitions; the ratio.
awk '
  /"run_name":/ { name = $2; gsub(/[",]/, "", name) }
  /"run_type":/ { type = $2; gsub(/[",]/, "", type) }
  /"cpu_time":/ { cpu = $2; gsub(/,/, "", cpu) }
  /"time_unit":/ { unit = $2; gsub(/[",]/, "", unit) }
  /"ratio":/ { ratio = $2; gsub(/,/, "", ratio) }
  /^    }/ {
    if (type == "iteration") {
      scale = unit == "ns" ? 1e-9 : unit == "us" ? 1e-6 : unit == "ms" ? 1e-3 : 1
      t = cpu * scale
      if (!(name in best) || t < best[name]) best[name] = t
      if (ratio != "") r[name] = ratio
    }
    name = ""; type = ""; ratio = ""
  }
  END { for (n in best) printf "%s %.9f %s\n", n, best[n], (n in r) ? r[n] : "-" }' \
  "$work/engine.json" >"$work/engine.txt"
engine_ct=$(awk '$1 ~ /^compress\// { s += $2 } END { printf "%.9f", s }' "$work/engine.txt")
engine_et=$(awk '$1 ~ /^expand\// { s += $2 } END { printf "%.9f", s }' "$work/engine.txt")
engine_packed=0
for f in "${files[@]}"; do
  ratio=$(awk -v n="compress/$(basename "$f")" '$1 == n { print $3 }' "$work/engine.txt")
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
  # The same number of runs on an empty file measures what start-up costs.
  empties=()
  for f in "${files[@]}"; do empties+=("$work/empty"); done
  packed=0
  inputs=()
  for f in "${files[@]}"; do
    # shellcheck disable=SC2086
    ${ccmd} "$f" >"$work/$(basename "$f").$suffix"
    packed=$((packed + $(stat -c %s "$work/$(basename "$f").$suffix")))
    inputs+=("$work/$(basename "$f")")
  done
  # shellcheck disable=SC2086
  ${ccmd} "$work/empty" >"$work/empty.$suffix"
  # shellcheck disable=SC2086
  c_all=$(pass_seconds "" "${pin[@]}" ${ccmd} -- "${files[@]}")
  # shellcheck disable=SC2086
  c_base=$(pass_seconds "" "${pin[@]}" ${ccmd} -- "${empties[@]}")
  # shellcheck disable=SC2086
  d_all=$(pass_seconds ".$suffix" "${pin[@]}" ${dcmd} -- "${inputs[@]}")
  # shellcheck disable=SC2086
  d_base=$(pass_seconds ".$suffix" "${pin[@]}" ${dcmd} -- "${empties[@]}")
  ct=$(awk -v c="$c_all" -v b="$c_base" 'BEGIN { t = c - b; if (t < 1e-6) t = 1e-6; print t }')
  et=$(awk -v c="$d_all" -v b="$d_base" 'BEGIN { t = c - b; if (t < 1e-6) t = 1e-6; print t }')
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
