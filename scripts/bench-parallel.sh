#!/bin/sh
# Runs bench_parallel on FILE, or on 200 MB of the system's headers one
# after the other (made once in the build folder).
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
exec "$build/bench/bench_parallel" "$file" "$rounds"
