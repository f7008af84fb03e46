#!/bin/sh
# Runs bench_parallel on FILE, or on 200 MB of the system's headers one
# after the other (made once in the build folder), then times the tool
# packing that file as one entry with -j 1, 2 and 4, in turn, ROUNDS times.
set -e
build=$1
file=$2
rounds=${3:-3}
if [ -z "$file" ]; then
  file=$build/bench-parallel-input
  if [ ! -f "$file" ]; then
    find /usr/include -type f -name '*.h' | sort | xargs cat > "$file.part"
    while [ "$(stat -c %s "$file.part")" -lt 200000000 ]; do cat "$file.part" "$file.part" > "$file.more"; mv "$file.more" "$file.part"; done
    head -c 200000000 "$file.part" > "$file"
    rm -f "$file.part"
  fi
fi
"$build/bench/bench_parallel" "$file" "$rounds"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
echo
echo "talvern create -j N ARCHIVE FILE (one entry), wall seconds and peak RSS:"
for round in $(seq "$rounds"); do
  for j in 1 2 4; do
    rm -f "$scratch/$j.arc"
    /usr/bin/time -f "$j %e %M" -a -o "$scratch/times" \
      "$build/tools/talvern" create -q -j "$j" "$scratch/$j.arc" "$file"
  done
  # The archives are the same but for the archive's creation time.
  for j in 2 4; do
    if [ "$(cmp -l "$scratch/1.arc" "$scratch/$j.arc" | wc -l)" -gt 4 ]; then
      echo "the -j $j archive differs from the -j 1 archive" >&2
      exit 1
    fi
  done
done
sort -k1,1n -k2,2n "$scratch/times" | awk '
  { n[$1]++; v[$1, n[$1]] = $2; if ($3 > m[$1]) m[$1] = $3 }
  END {
    for (j = 1; j <= 4; j *= 2) {
      med = v[j, int((n[j] + 1) / 2)]
      if (j == 1) base = med
      printf "  -j %d  median %.2f s (%.2f-%.2f)  %.2fx  peak RSS %.1f MB\n", j, med, v[j, 1], v[j, n[j]], base / med, m[j] / 1024
    }
  }'
