"""Archives of files and directory trees in the talvern format.

    import talvern

    talvern.create("backup.arc", "projects")
    with talvern.open("backup.arc") as archive:
        for info in archive.entries():
            print(info.path, info.size)
        archive.test()
        archive.extractall("restored")

The package calls the talvern shared library through its C interface. It
looks for the library in the file named by the environment variable
TALVERN_LIBRARY, then next to the package, then through the system's
loader. Importing it registers the format "talvern" with shutil, so that
shutil.make_archive(base, "talvern", root) and shutil.unpack_archive("x.arc")
work.
"""

from __future__ import annotations

import ctypes
import datetime
import os
import shutil
from dataclasses import dataclass
from typing import Any, Callable, Iterable, List, Optional, Sequence, Union

from . import _native

__all__ = [
    "TalvernError",
    "EntryInfo",
    "Archive",
    "open",
    "create",
    "add",
    "compress",
    "expand",
    "library_version",
    "register_shutil_formats",
]

__version__ = "0.1.0"

PathLike = Union[str, "os.PathLike[str]"]
# progress(name, entry_done, entry_total, job_done, job_total); returning
# False cancels the job.
Progress = Callable[[str, int, int, int, int], Optional[bool]]
# overwrite(path, entry) -> "replace" | "skip" | "backup" | "rename" | "cancel"
Overwrite = Callable[[str, "EntryInfo"], str]

ERROR_FILE_NOT_FOUND = 2
ERROR_CRC = 23
ERROR_FILE_EXISTS = 80
ERROR_DIRECTORY = 267
ERROR_CANCELLED = 1223
ERROR_NOT_AN_ARCHIVE = 1804

_OVERWRITE_ANSWERS = {"cancel": 0, "replace": 1, "skip": 2, "backup": 3, "rename": 4}
_STORE = 0x1
_REPLACE = 0x2
_EXTRACT_NAMES = 0x1


class TalvernError(Exception):
    """A failure of the library: `code` is its Win32 error code (23 CRC
    mismatch, 1223 cancelled, 1804 not an archive, ...), `name` the entry
    or file concerned when known."""

    def __init__(self, code: int, name: str = "") -> None:
        self.code = code
        self.name = name
        self.message = _text(_native.lib().talvern_strerror(code))
        where = f"{name}: " if name else ""
        super().__init__(f"{where}{self.message} (error {code})")


def _text(raw: Optional[bytes]) -> str:
    return raw.decode("utf-8", "surrogateescape") if raw else ""


def _path(path: PathLike) -> bytes:
    return os.fsencode(os.fspath(path))


def _name(name: str) -> bytes:
    return name.encode("utf-8", "surrogateescape")


_EPOCH = datetime.datetime(1601, 1, 1, tzinfo=datetime.timezone.utc)


def _time(filetime: int) -> Optional[datetime.datetime]:
    if filetime == 0:
        return None
    return _EPOCH + datetime.timedelta(microseconds=filetime // 10)


@dataclass(frozen=True)
class EntryInfo:
    """One file or folder of an archive. `path` is its folder and name
    with '/' between them; times are UTC, None when not stored."""

    path: str
    name: str
    folder: str
    size: int
    packed_size: int
    method: int  # 0 stored, 1 compressed
    crc: int
    attributes: int  # FILE_ATTRIBUTE_ bits: 0x10 folder, 0x01 read-only, ...
    is_dir: bool
    creation_time: Optional[datetime.datetime]
    last_access_time: Optional[datetime.datetime]
    last_write_time: Optional[datetime.datetime]
    volume: int  # the volume its record is in, from 0

    @classmethod
    def _from(cls, e: _native.Entry) -> "EntryInfo":
        return cls(_text(e.path), _text(e.name), _text(e.folder), e.size, e.packed_size,
                   e.method, e.crc, e.attributes, bool(e.is_dir), _time(e.creation_time),
                   _time(e.last_access_time), _time(e.last_write_time), e.volume)


class _Callbacks:
    """The C callbacks struct over Python callables. An exception raised in
    a callable cancels the job and is raised again when the call returns."""

    def __init__(self, progress: Optional[Progress] = None,
                 overwrite: Optional[Overwrite] = None) -> None:
        self.error: Optional[BaseException] = None
        self.struct = _native.Callbacks()
        self.struct.size = ctypes.sizeof(_native.Callbacks)
        self._progress = progress
        self._overwrite = overwrite
        # The function objects must live as long as the struct is in use.
        self._keep: List[Any] = []
        if progress is not None:
            function = _native.PROGRESS(self._on_progress)
            self._keep.append(function)
            self.struct.progress = function
        if overwrite is not None:
            function = _native.OVERWRITE(self._on_overwrite)
            self._keep.append(function)
            self.struct.overwrite = function

    def _on_progress(self, _user, name, entry_done, entry_total, job_done, job_total) -> int:
        try:
            assert self._progress is not None
            answer = self._progress(_text(name), entry_done, entry_total, job_done, job_total)
            return 0 if answer is False else 1
        except BaseException as error:  # noqa: B902 - handed back to the caller
            self.error = error
            return 0

    def _on_overwrite(self, _user, path, entry) -> int:
        try:
            assert self._overwrite is not None
            answer = self._overwrite(_text(path), EntryInfo._from(entry.contents))
            if answer not in _OVERWRITE_ANSWERS:
                raise ValueError(f"overwrite answer {answer!r} is not one of "
                                 f"{sorted(_OVERWRITE_ANSWERS)}")
            return _OVERWRITE_ANSWERS[answer]
        except BaseException as error:  # noqa: B902
            self.error = error
            return 0

    def pointer(self):
        return ctypes.byref(self.struct)

    def check(self, code: int, name: str = "") -> None:
        """Raises what a callback raised, else a TalvernError for code."""
        if self.error is not None:
            error, self.error = self.error, None
            raise error
        if code != 0:
            raise TalvernError(code, name)


def _strings(items: Sequence[bytes]):
    array = (ctypes.c_char_p * len(items))(*items)
    return array


class Archive:
    """An open archive: its list of entries is read when it is opened. Use
    it as a context manager, or call close()."""

    def __init__(self, path: PathLike, progress: Optional[Progress] = None,
                 overwrite: Optional[Overwrite] = None) -> None:
        self._lib = _native.lib()
        self._handle = ctypes.c_void_p()
        self.path = os.fspath(path)
        code = self._lib.talvern_open(_path(path), None, ctypes.byref(self._handle))
        if code != 0:
            raise TalvernError(code, self.path)
        self._entries = self._read_entries()
        self._callbacks = _Callbacks()
        self.set_callbacks(progress, overwrite)

    def _read_entries(self) -> List[EntryInfo]:
        count = ctypes.c_size_t()
        self._lib.talvern_entry_count(self._handle, ctypes.byref(count))
        entries = []
        for index in range(count.value):
            pointer = ctypes.POINTER(_native.Entry)()
            self._lib.talvern_entry_at(self._handle, index, ctypes.byref(pointer))
            entries.append(EntryInfo._from(pointer.contents))
        return entries

    def set_callbacks(self, progress: Optional[Progress] = None,
                      overwrite: Optional[Overwrite] = None) -> None:
        """Sets the progress and overwrite callables for the jobs to come
        (see create() and extractall())."""
        self._callbacks = _Callbacks(progress, overwrite)
        self._lib.talvern_set_callbacks(self._handle, self._callbacks.pointer())

    def _live(self) -> ctypes.c_void_p:
        if not self._handle:
            raise ValueError("the archive is closed")
        return self._handle

    def _failed(self) -> str:
        return _text(self._lib.talvern_failed_name(self._handle))

    def close(self) -> None:
        if self._handle:
            self._lib.talvern_close(self._handle)
            self._handle = ctypes.c_void_p()

    def __enter__(self) -> "Archive":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:
            pass

    def entries(self) -> List[EntryInfo]:
        """Every entry, in archive order."""
        return list(self._entries)

    def namelist(self) -> List[str]:
        """The paths of the entries, in archive order."""
        return [e.path for e in self._entries]

    def getinfo(self, name: str) -> EntryInfo:
        """The (last) entry of that path; KeyError when there is none."""
        key = name.replace("\\", "/").rstrip("/").upper()
        for entry in reversed(self._entries):
            if entry.path.upper() == key:
                return entry
        raise KeyError(f"there is no entry named {name!r} in the archive")

    def read(self, name: str) -> bytes:
        """The contents of a file entry."""
        self.getinfo(name)  # KeyError for a name the archive does not hold
        data = ctypes.c_void_p()
        size = ctypes.c_size_t()
        code = self._lib.talvern_read(self._live(), _name(name), ctypes.byref(data),
                                      ctypes.byref(size))
        self._callbacks.check(code, self._failed())
        try:
            return ctypes.string_at(data, size.value) if size.value else b""
        finally:
            self._lib.talvern_free(data)

    def extract(self, name: str, path: PathLike = ".") -> str:
        """Extracts one entry (a folder with everything below it) into the
        folder `path`, keeping its folders; returns the path written."""
        self._extract(path, [_name(name)], _EXTRACT_NAMES)
        return os.path.join(os.fspath(path), *self.getinfo(name).path.split("/"))

    def extractall(self, path: PathLike = ".",
                   pattern: Union[None, str, Iterable[str]] = None) -> None:
        """Extracts everything, or the entries matching the pattern (or any
        of several): '*' any run but '/', '**' any run, '?' one character,
        [a-z] sets; a pattern without '/' matches names, one with '/'
        whole paths. A pattern that matches nothing raises TalvernError 2."""
        if pattern is None:
            patterns: List[bytes] = []
        elif isinstance(pattern, str):
            patterns = [_name(pattern)]
        else:
            patterns = [_name(p) for p in pattern]
        self._extract(path, patterns, 0)

    def _extract(self, path: PathLike, select: List[bytes], flags: int) -> None:
        code = self._lib.talvern_extract(self._live(), _path(path),
                                         _strings(select) if select else None, len(select),
                                         flags)
        self._callbacks.check(code, self._failed())

    def test(self) -> None:
        """Decodes every file and checks its size and CRC, writing nothing.
        Raises TalvernError (code 23 or 29, `name` the entry) at the first
        damaged file."""
        code = self._lib.talvern_test(self._live())
        self._callbacks.check(code, self._failed())


def open(path: PathLike, progress: Optional[Progress] = None,  # noqa: A001 - like zipfile
         overwrite: Optional[Overwrite] = None) -> Archive:
    """Opens an archive for reading: one file, or a numbered volume set
    named by its base name ("set" or "set.arc" for set.000, set.001, ...) or
    by any of its volumes."""
    return Archive(path, progress, overwrite)


def create(path: PathLike, tree: Union[PathLike, Sequence[PathLike]],
           volume_size: Optional[int] = None, store: bool = False,
           progress: Optional[Progress] = None, replace: bool = False) -> None:
    """Creates an archive of what the folder `tree` holds, or of the files
    and folders in a list (each at the top under its own name).

    volume_size writes numbered volumes NAME.000, NAME.001, ... of at most
    that many bytes instead of one file; store keeps files uncompressed;
    replace allows replacing an existing archive (else TalvernError 80).
    progress(name, entry_done, entry_total, job_done, job_total) is called
    as the job goes on; returning False cancels it (TalvernError 1223), and
    a cancelled or failed create leaves no archive behind."""
    lib = _native.lib()
    callbacks = _Callbacks(progress)
    flags = (_STORE if store else 0) | (_REPLACE if replace else 0)
    size = volume_size or 0
    if isinstance(tree, (str, bytes, os.PathLike)):
        code = lib.talvern_create(_path(path), _path(tree), size, flags, callbacks.pointer())
    else:
        items = [_path(p) for p in tree]
        code = lib.talvern_create_from_list(_path(path), _strings(items), len(items), size,
                                            flags, callbacks.pointer())
    callbacks.check(code, os.fspath(path))


def add(path: PathLike, items: Sequence[PathLike], store: bool = False,
        progress: Optional[Progress] = None) -> None:
    """Adds files and folders to the end of an existing archive, each at
    the top under its own name."""
    lib = _native.lib()
    callbacks = _Callbacks(progress)
    names = [_path(p) for p in items]
    code = lib.talvern_add(_path(path), _strings(names), len(names), _STORE if store else 0,
                           callbacks.pointer())
    callbacks.check(code, os.fspath(path))


def compress(data: bytes, store: bool = False) -> bytes:
    """One block: a 16-byte header and the data, compressed (or stored)."""
    lib = _native.lib()
    size = ctypes.c_uint32()
    method = 0 if store else 1
    code = lib.talvern_compress_mem_to_mem(data, len(data), None, 0xFFFFFFFF, method,
                                           ctypes.byref(size))
    if code != 0:
        raise TalvernError(code)
    buffer = ctypes.create_string_buffer(size.value)
    code = lib.talvern_compress_mem_to_mem(data, len(data), buffer, size.value, method,
                                           ctypes.byref(size))
    if code != 0:
        raise TalvernError(code)
    return buffer.raw[:size.value]


def expand(block: bytes) -> bytes:
    """The original data of a block made by compress(); TalvernError 13
    for what is no block, 23 for a CRC mismatch."""
    lib = _native.lib()
    size = ctypes.c_uint32()
    code = lib.talvern_expand_mem_to_mem(block, len(block), None, 0xFFFFFFFF,
                                         ctypes.byref(size))
    if code != 0:
        raise TalvernError(code)
    buffer = ctypes.create_string_buffer(max(size.value, 1))
    code = lib.talvern_expand_mem_to_mem(block, len(block), buffer, size.value,
                                         ctypes.byref(size))
    if code != 0:
        raise TalvernError(code)
    return buffer.raw[:size.value]


def library_version() -> str:
    """The version of the loaded talvern library."""
    return _text(_native.lib().talvern_version())


# ---- shutil ---------------------------------------------------------------------------

def _make_archive(base_name: str, base_dir: str, **_options: Any) -> str:
    """shutil's archiver: packs base_dir (relative to the current folder,
    which shutil sets to root_dir) into base_name + ".arc"."""
    archive = base_name + ".arc"
    if _options.get("dry_run"):
        return archive
    if os.path.normpath(base_dir) == os.curdir:
        create(archive, os.curdir, replace=True)
    else:
        create(archive, [base_dir], replace=True)
    return archive


def _unpack_archive(filename: str, extract_dir: str, **_options: Any) -> None:
    with open(filename) as archive:
        archive.extractall(extract_dir)


def register_shutil_formats() -> None:
    """Registers the format "talvern" (extension .arc) with shutil's
    make_archive and unpack_archive. Done on import."""
    if "talvern" in [entry[0] for entry in shutil.get_unpack_formats()]:
        shutil.unregister_unpack_format("talvern")
    shutil.register_archive_format("talvern", _make_archive,
                                   description="talvern archive")
    shutil.register_unpack_format("talvern", [".arc"], _unpack_archive,
                                  description="talvern archive")


register_shutil_formats()
