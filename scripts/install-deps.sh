#!/usr/bin/env bash
# Installs what building and testing talvern needs, when it is missing:
# a C++20 compiler, CMake, make, pkg-config, GoogleTest and Google Benchmark
# (and clang for `make release-builds`, clang with its sanitizer runtimes
# for `make fuzz`, MinGW-w64, GoogleTest's sources and Wine for
# `make windows` and `make test-windows`, and gzip, zstd and lz4, python3
# and GNU time for `make bench` and `make bench-tree`).
set -euo pipefail

want_fuzz=0
want_bench=0
want_clang=0
want_windows=0
[ "${1:-}" = "--fuzz" ] && want_fuzz=1
[ "${1:-}" = "--bench" ] && want_bench=1
[ "${1:-}" = "--clang" ] && want_clang=1
[ "${1:-}" = "--windows" ] && want_windows=1

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
command -v pkg-config >/dev/null 2>&1 || missing+=(pkg-config)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -f /usr/include/gmock/gmock.h ] || missing+=(libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
command -v python3 >/dev/null 2>&1 || missing+=(python3)
/usr/bin/python3 -c 'import pytest' >/dev/null 2>&1 || missing+=(python3-pytest)
/usr/bin/python3 -m pip --version >/dev/null 2>&1 || missing+=(python3-pip)
if [ "$want_fuzz" = 1 ] || [ "$want_clang" = 1 ]; then
  command -v clang++ >/dev/null 2>&1 || missing+=(clang)
fi
if [ "$want_fuzz" = 1 ]; then
  ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 ||
    missing+=(libclang-rt-dev)
fi

if [ "$want_windows" = 1 ]; then
  command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1 || missing+=(mingw-w64)
  [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
  [ -x /usr/lib/wine/wine64 ] || command -v wine64 >/dev/null 2>&1 || missing+=(wine64)
  command -v wine >/dev/null 2>&1 || missing+=(wine)
fi

if [ "$want_bench" = 1 ]; then
  for tool in gzip zstd lz4 python3; do command -v $tool >/dev/null 2>&1 || missing+=($tool); done
  [ -x /usr/bin/time ] || missing+=(time)
fi

[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" != 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "need root or sudo to install ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
