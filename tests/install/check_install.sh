#!/usr/bin/env bash
# Installs the build into a temporary prefix (or, with `deb`, makes the
# .deb package with cpack and unpacks it into a scratch root with dpkg -x),
# runs the installed tool from there (it must find its library by itself,
# without LD_LIBRARY_PATH) and builds a consumer project against it twice:
# through find_package(Talvern) and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
mode=${3:-install}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "$mode" = deb ]; then
  (cd "$work" && cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$work/pkg" >/dev/null)
  deb=$(ls "$work"/pkg/*.deb)
  echo "== $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Depends
  contents=$(dpkg-deb -c "$deb")
  for want in ./usr/bin/talvern ./usr/include/talvern/talvern.h ./usr/include/talvern/talvern_c.h \
      /cmake/Talvern/TalvernConfig.cmake /pkgconfig/talvern.pc /man1/talvern.1 libtalvern.so.0; do
    grep -q -- "$want" <<<"$contents" || { echo "missing from the package: $want"; exit 1; }
  done
  dpkg -x "$deb" "$work/root"
  prefix=$work/root/usr
else
  prefix=$work/prefix
  cmake --install "$build_dir" --prefix "$prefix" >/dev/null
fi
libdir=$(dirname "$(find "$prefix" -name 'libtalvern.so*' | head -n1)")

echo "== installed tool"
tool=$prefix/bin/talvern
env -u LD_LIBRARY_PATH "$tool" --version
mkdir -p "$work/tree/sub" "$work/out"
printf 'one\n' >"$work/tree/a.txt"
head -c 100000 /dev/urandom >"$work/tree/sub/b.bin"
env -u LD_LIBRARY_PATH "$tool" create -q "$work/t.arc" "$work/tree"
env -u LD_LIBRARY_PATH "$tool" extract -q "$work/t.arc" "$work/out"
diff -r "$work/tree" "$work/out"

echo "== find_package(Talvern)"
cmake -S "$source_dir/tests/install/consumer" -B "$work/cmake-build" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-build/consumer"

echo "== pkg-config talvern"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
c++ -o "$work/pc-consumer" "$source_dir/tests/install/consumer/main.cpp" \
  $(pkg-config --cflags --libs talvern)
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"

echo "== C99 consumer of talvern_c.h through pkg-config"
cat > "$work/c-consumer.c" <<'C'
#include <talvern/talvern_c.h>
#include <stdio.h>
int main(void) {
  uint32_t size = 0;
  printf("talvern %s\n", talvern_version());
  return talvern_compress_mem_to_mem("abc", 3, NULL, 0xFFFFFFFFu, 1, &size) == 0 && size > 16 ? 0 : 1;
}
C
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$work/c-consumer" "$work/c-consumer.c" \
  $(pkg-config --cflags-only-I --libs talvern)
LD_LIBRARY_PATH=$libdir "$work/c-consumer"
