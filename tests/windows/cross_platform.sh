#!/usr/bin/env bash
# Archives cross platforms: a tree with non-ASCII names, a nested folder and
# a folder time is packed by the Windows tool (under Wine) and unpacked by
# the Linux tool, and packed by the Linux tool as a numbered volume set and
# unpacked by the Windows tool; both copies must equal the tree, times
# included. Exit codes must agree for a missing archive.
# Usage: cross_platform.sh WINDOWS_TOOL LINUX_TOOL (Wine's environment set).
set -euo pipefail
win_tool=$1
linux_tool=$2
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
[ -x "$wine" ] || wine=$(command -v wine)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# Wine's note that Z: has no volume label is not the tool's output.
win() { "$wine" "$win_tool" "$@" 2> >(grep -v 'FS volume label' >&2); }

mkdir -p "tree/sub dir/deeper" outL outW outU
printf 'hello\n' >"tree/données_日本.txt"
head -c 300000 /dev/urandom >"tree/sub dir/random.bin"
printf '%s\n' {1..5000} >"tree/sub dir/deeper/numbers.txt"
touch -d '2020-01-02 03:04:05' "tree/sub dir/deeper" "tree/données_日本.txt"

win create -q win.arc tree
"$linux_tool" test -q win.arc
"$linux_tool" extract -q win.arc outL
diff -r tree outL
[ "$(stat -c %Y "tree/sub dir/deeper")" = "$(stat -c %Y "outL/sub dir/deeper")" ]
echo "packed on Windows, unpacked on Linux: identical"

"$linux_tool" create -q --volume-size 100K set.arc tree
[ -f set.001 ]
win test -q set.000
win extract -q set.000 outW
diff -r tree outW
[ "$(stat -c %Y "tree/données_日本.txt")" = "$(stat -c %Y "outW/données_日本.txt")" ]
echo "packed on Linux as $(ls set.0* | wc -l) volumes, unpacked on Windows: identical"

# A non-ASCII argument reaches the Windows tool intact.
win extract -q set.000 outU "données_日本.txt"
cmp "tree/données_日本.txt" "outU/données_日本.txt"
echo "non-ASCII arguments on Windows: kept"

codes=""
for tool in win "$linux_tool"; do
  set +e
  if [ "$tool" = win ]; then win test missing.arc 2>/dev/null; else "$tool" test missing.arc 2>/dev/null; fi
  codes="$codes $?"
  set -e
done
[ "$codes" = " 2 2" ] || { echo "exit codes for a missing archive differ:$codes" >&2; exit 1; }
echo "exit codes agree"
