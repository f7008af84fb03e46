"""Loading the talvern shared library and declaring its C interface
(talvern/talvern_c.h) for ctypes."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import sys
from typing import List, Optional

c_u32 = ctypes.c_uint32
c_u64 = ctypes.c_uint64


class Entry(ctypes.Structure):
    """struct talvern_entry."""

    _fields_ = [
        ("path", ctypes.c_char_p),
        ("name", ctypes.c_char_p),
        ("folder", ctypes.c_char_p),
        ("size", c_u64),
        ("packed_size", c_u64),
        ("method", c_u32),
        ("crc", c_u32),
        ("attributes", c_u32),
        ("is_dir", ctypes.c_int),
        ("creation_time", c_u64),
        ("last_access_time", c_u64),
        ("last_write_time", c_u64),
        ("volume", c_u32),
    ]


PROGRESS = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p, c_u64, c_u64,
                            c_u64, c_u64)
OVERWRITE = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p,
                             ctypes.POINTER(Entry))
NEXT_VOLUME = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p, c_u32,
                               ctypes.c_int, ctypes.c_int)


class Callbacks(ctypes.Structure):
    """struct talvern_callbacks."""

    _fields_ = [
        ("size", ctypes.c_size_t),
        ("user", ctypes.c_void_p),
        ("progress", PROGRESS),
        ("overwrite", OVERWRITE),
        ("next_volume", NEXT_VOLUME),
    ]


def _names() -> List[str]:
    """The file names the library has on this system, newest first."""
    if sys.platform == "win32":
        return ["talvern.dll", "libtalvern.dll"]
    if sys.platform == "darwin":
        return ["libtalvern.dylib", "libtalvern.0.dylib"]
    return ["libtalvern.so", "libtalvern.so.0"]


def _candidates() -> List[str]:
    """Where the library is looked for, in order: the file named by the
    environment variable TALVERN_LIBRARY, a copy next to this package, then
    the system's loader."""
    found: List[str] = []
    env = os.environ.get("TALVERN_LIBRARY")
    if env:
        return [env]
    here = os.path.dirname(os.path.abspath(__file__))
    found += [os.path.join(here, n) for n in _names() if os.path.exists(os.path.join(here, n))]
    system = ctypes.util.find_library("talvern")
    if system:
        found.append(system)
    found += _names()
    return found


def load() -> ctypes.CDLL:
    """Loads the library and declares its functions; OSError when it cannot
    be found."""
    errors = []
    for candidate in _candidates():
        try:
            lib = ctypes.CDLL(candidate)
            break
        except OSError as error:
            errors.append(f"{candidate}: {error}")
    else:
        raise OSError("the talvern library was not found (set TALVERN_LIBRARY to its file): "
                      + "; ".join(errors))
    _declare(lib)
    return lib


def _declare(lib: ctypes.CDLL) -> None:
    P = ctypes.POINTER
    archive = ctypes.c_void_p
    strings = P(ctypes.c_char_p)
    table = {
        "talvern_strerror": (ctypes.c_char_p, [c_u32]),
        "talvern_version": (ctypes.c_char_p, []),
        "talvern_free": (None, [ctypes.c_void_p]),
        "talvern_open": (c_u32, [ctypes.c_char_p, P(Callbacks), P(archive)]),
        "talvern_close": (None, [archive]),
        "talvern_set_callbacks": (c_u32, [archive, P(Callbacks)]),
        "talvern_entry_count": (c_u32, [archive, P(ctypes.c_size_t)]),
        "talvern_entry_at": (c_u32, [archive, ctypes.c_size_t, P(P(Entry))]),
        "talvern_find": (c_u32, [archive, ctypes.c_char_p, P(P(Entry))]),
        "talvern_test": (c_u32, [archive]),
        "talvern_extract": (c_u32, [archive, ctypes.c_char_p, strings, ctypes.c_size_t, c_u32]),
        "talvern_read": (c_u32, [archive, ctypes.c_char_p, P(ctypes.c_void_p),
                                 P(ctypes.c_size_t)]),
        "talvern_failed_name": (ctypes.c_char_p, [archive]),
        "talvern_create": (c_u32, [ctypes.c_char_p, ctypes.c_char_p, c_u64, c_u32,
                                   P(Callbacks)]),
        "talvern_create_from_list": (c_u32, [ctypes.c_char_p, strings, ctypes.c_size_t, c_u64,
                                             c_u32, P(Callbacks)]),
        "talvern_add": (c_u32, [ctypes.c_char_p, strings, ctypes.c_size_t, c_u32,
                                P(Callbacks)]),
        "talvern_compress_mem_to_mem": (c_u32, [ctypes.c_char_p, c_u32, ctypes.c_void_p, c_u32,
                                                c_u32, P(c_u32)]),
        "talvern_expand_mem_to_mem": (c_u32, [ctypes.c_char_p, c_u32, ctypes.c_void_p, c_u32,
                                              P(c_u32)]),
    }
    for name, (restype, argtypes) in table.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes


_lib: Optional[ctypes.CDLL] = None


def lib() -> ctypes.CDLL:
    """The library, loaded on first use."""
    global _lib
    if _lib is None:
        _lib = load()
    return _lib
