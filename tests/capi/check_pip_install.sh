#!/usr/bin/env bash
# Installs the Python package with pip, offline (no package index), into a
# folder of its own, then imports the installed copy: once finding the
# library through TALVERN_LIBRARY, once through a copy next to the package.
set -euo pipefail
python=$1
source=$2
library=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$source" "$work/src"
rm -rf "$work/src/tests"
PIP_ROOT_USER_ACTION=ignore "$python" -m pip install --quiet --no-index --no-cache-dir --target "$work/site" "$work/src"
check='import shutil, talvern
assert talvern.expand(talvern.compress(b"abc" * 100)) == b"abc" * 100
assert "talvern" in dict(shutil.get_archive_formats())
print("talvern", talvern.__version__, "over library", talvern.library_version())'
cd "$work"
PYTHONPATH="$work/site" TALVERN_LIBRARY="$library" "$python" -c "$check"
cp "$library" "$work/site/talvern/libtalvern.so"
env -u TALVERN_LIBRARY PYTHONPATH="$work/site" "$python" -c "$check"
