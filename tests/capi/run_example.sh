#!/usr/bin/env bash
# Runs the C example on a small tree of corpus files and compares what it
# extracted with what it packed.
set -euo pipefail
example=$1
corpus=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tree/texts"
cp "$corpus/alice29.txt" "$corpus/asyoulik.txt" "$work/tree/texts/"
cp "$corpus/fireworks.jpeg" "$work/tree/"
"$example" "$work/tree" "$work"
diff -r "$work/tree" "$work/out"
cmp "$corpus/alice29.txt" "$work/text-only/alice29.txt"
test ! -e "$work/text-only/fireworks.jpeg"
