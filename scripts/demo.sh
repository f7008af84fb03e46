#!/usr/bin/env bash
# The main job on the built-in sample: packs samples/tree into a numbered
# multi-volume archive and into a single archive, lists them, tests them,
# extracts them and shows that the extracted trees are identical to the
# sample, with the figures.
#
# Usage: scripts/demo.sh [BUILD_DIR]   (default: build)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case "$build" in /*) ;; *) build="$here/$build" ;; esac
talvern="$build/tools/talvern"
sample="$here/samples/tree"

if [ ! -x "$talvern" ]; then
  echo "demo: $talvern is not built; run 'make demo' (or 'make build' first)" >&2
  exit 2
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/talvern-demo.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

step() { printf '\n== %s\n' "$*"; }
run() {
  printf '$ talvern %s\n' "$*"
  "$talvern" "$@"
}

files=$(find "$sample" -type f | wc -l)
folders=$(( $(find "$sample" -type d | wc -l) - 1 ))
bytes=$(find "$sample" -type f -printf '%s\n' | awk '{ s += $1 } END { print s + 0 }')
echo "Sample: $sample"
echo "        $files files in $folders folders, $bytes bytes"

start=$(date +%s.%N)

step "Pack the sample into numbered volumes of at most 64K each"
run create --volume-size 64K set.arc "$sample"
ls -l set.0*

step "Pack the sample into one archive"
run create single.arc "$sample"
ls -l single.arc

step "List the single archive"
run list single.arc

step "What the volume set holds (named by any of its volumes)"
run info set.001

step "Test both: every entry expanded to nowhere, sizes and CRCs checked"
run test set.arc
run test single.arc

step "Extract both"
run extract set.000 out-set
run extract single.arc out-single

step "Compare the extracted trees with the sample"
for out in out-set out-single; do
  if diff -r "$sample" "$out" >/dev/null; then
    echo "$out: identical to the sample ($files files, $bytes bytes)"
  else
    echo "$out: DIFFERS from the sample" >&2
    diff -r "$sample" "$out" >&2 || true
    exit 1
  fi
done

end=$(date +%s.%N)
packed=$(stat -c %s single.arc)
volumes=$(ls set.0* | wc -l)
set_bytes=$(cat set.0* | wc -c)
step "Figures"
awk -v f="$files" -v d="$folders" -v b="$bytes" -v p="$packed" -v v="$volumes" \
    -v s="$set_bytes" -v t0="$start" -v t1="$end" 'BEGIN {
  printf "files        %d in %d folders\n", f, d
  printf "original     %d bytes\n", b
  printf "single       %d bytes (%.1f%% of the original)\n", p, 100 * p / b
  printf "volume set   %d volumes, %d bytes\n", v, s
  printf "time         %.2f s for all of the above\n", t1 - t0
}'
