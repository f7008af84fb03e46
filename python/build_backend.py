"""A build backend for the talvern package that needs only the standard
library: it writes the wheel (and the source archive) itself, so that
building never has to download a packaging tool."""

import base64
import hashlib
import os
import tarfile
import zipfile

NAME = "talvern"
VERSION = "0.1.0"
HERE = os.path.dirname(os.path.abspath(__file__))
DIST_INFO = f"{NAME}-{VERSION}.dist-info"
METADATA = f"""Metadata-Version: 2.1
Name: {NAME}
Version: {VERSION}
Summary: Archives of files and directory trees, over the talvern library
Requires-Python: >=3.8
"""
WHEEL = """Wheel-Version: 1.0
Generator: talvern build_backend
Root-Is-Purelib: true
Tag: py3-none-any
"""


def _package_files():
    """The package's files, as (path on disk, path in the wheel)."""
    root = os.path.join(HERE, NAME)
    for folder, dirs, files in os.walk(root):
        dirs[:] = sorted(d for d in dirs if d != "__pycache__")
        for name in sorted(files):
            if name.endswith((".pyc", ".pyo")):
                continue
            path = os.path.join(folder, name)
            yield path, os.path.relpath(path, HERE).replace(os.sep, "/")


def _record_line(arcname, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{arcname},sha256={digest},{len(data)}"


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    filename = f"{NAME}-{VERSION}-py3-none-any.whl"
    records = []
    with zipfile.ZipFile(os.path.join(wheel_directory, filename), "w",
                         zipfile.ZIP_DEFLATED) as wheel:
        def put(arcname, data):
            wheel.writestr(arcname, data)
            records.append(_record_line(arcname, data))

        for path, arcname in _package_files():
            with open(path, "rb") as f:
                put(arcname, f.read())
        put(f"{DIST_INFO}/METADATA", METADATA.encode())
        put(f"{DIST_INFO}/WHEEL", WHEEL.encode())
        records.append(f"{DIST_INFO}/RECORD,,")
        wheel.writestr(f"{DIST_INFO}/RECORD", "\n".join(records) + "\n")
    return filename


def build_sdist(sdist_directory, config_settings=None):
    base = f"{NAME}-{VERSION}"
    filename = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, filename), "w:gz") as sdist:
        for name in ("pyproject.toml", "build_backend.py"):
            sdist.add(os.path.join(HERE, name), f"{base}/{name}")
        for path, arcname in _package_files():
            sdist.add(path, f"{base}/{arcname}")
        info = tarfile.TarInfo(f"{base}/PKG-INFO")
        data = METADATA.encode()
        info.size = len(data)
        import io
        sdist.addfile(info, io.BytesIO(data))
    return filename
