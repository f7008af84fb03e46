#!/usr/bin/env bash
# Runs the tests of a Windows cross build (make windows) under Wine, without
# a display and without touching the user's own Wine setup: the Wine prefix
# lives in the build folder. Prints how many tests ran, passed and were
# skipped, and stops Wine's server at the end. With a Linux build of the
# tool, archives are also carried from one system to the other.
# Usage: test-windows.sh BUILD [JOBS] [LINUX_TOOL]
set -euo pipefail
build_dir=$(cd "$1" && pwd)
jobs=${2:-2}
linux_tool=${3:-}

export WINEPREFIX=$build_dir/wine-prefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml=" # no Mono or Gecko installers
unset DISPLAY WAYLAND_DISPLAY
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
[ -x "$wine" ] || wine=$(command -v wine)
trap 'wineserver -k 2>/dev/null || true' EXIT

mkdir -p "$WINEPREFIX"
"$wine" wineboot --init >/dev/null 2>&1 || true
wineserver -w

log=$build_dir/test-windows.log
status=0
(cd "$build_dir" && ctest -j"$jobs" --output-on-failure --no-tests=error) | tee "$log" || status=$?
skipped=$(grep -c '(Skipped)' "$log" || true)
echo "test-windows: $(grep -E 'tests passed' "$log" | tail -n1); skipped on Windows: $skipped"
if [ -n "$linux_tool" ]; then
  echo "== archives between Windows and Linux"
  "$(dirname "$0")/../tests/windows/cross_platform.sh" "$build_dir/bin/talvern.exe" "$linux_tool" ||
    status=1
fi
exit $status
