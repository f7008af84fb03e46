// The archive object's compression members: method mapping and the drivers
// that compress or expand one file into another for an archive entry.
#include <talvern/archive.h>

#include "engine/block.h"
#include "engine/code_format1.h"

#include <memory>
#include <new>

namespace {

constexpr DWORD DriverFileFlags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN;
constexpr DWORD StoredPiece = 4096;

// The two files of one driver call, closed on every path; closing them is
// part of the result.
class DriverFiles {
public:
  DriverFiles() = default;
  DriverFiles(const DriverFiles&) = delete;
  DriverFiles& operator=(const DriverFiles&) = delete;
  ~DriverFiles() {
    if (source_ != INVALID_HANDLE_VALUE) CloseHandle(source_);
    if (target_ != INVALID_HANDLE_VALUE) CloseHandle(target_);
  }

  // Opens the source for reading, creates the target and takes the source's
  // size. A failure stores its code; the target may then exist (empty).
  bool Open(DWORD& error, const WCHAR* target, const WCHAR* source) {
    source_ = CreateFileW(source, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                          DriverFileFlags, nullptr);
    if (source_ == INVALID_HANDLE_VALUE) {
      error = GetLastError();
      return false;
    }
    target_ = CreateFileW(target, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                          DriverFileFlags, nullptr);
    if (target_ == INVALID_HANDLE_VALUE) {
      error = GetLastError();
      return false;
    }
    // A low half of 0xFFFFFFFF is a valid size; only the last error tells.
    DWORD high = 0;
    SetLastError(NO_ERROR);
    const DWORD low = GetFileSize(source_, &high);
    if (low == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
      error = GetLastError();
      return false;
    }
    sourceSize_ = static_cast<std::uint64_t>(high) << 32 | low;
    return true;
  }

  // Closes both files; a failure to close decides the result only when
  // nothing failed before.
  bool Close(DWORD& error, bool ok) {
    if (source_ != INVALID_HANDLE_VALUE) {
      const BOOL closed = CloseHandle(source_);
      source_ = INVALID_HANDLE_VALUE;
      if (!closed && ok) {
        error = GetLastError();
        ok = false;
      }
    }
    if (target_ != INVALID_HANDLE_VALUE) {
      const BOOL closed = CloseHandle(target_);
      target_ = INVALID_HANDLE_VALUE;
      if (!closed && ok) {
        error = GetLastError();
        ok = false;
      }
    }
    return ok;
  }

  HANDLE Source() const { return source_; }
  HANDLE Target() const { return target_; }
  std::uint64_t SourceSize() const { return sourceSize_; }

private:
  HANDLE source_ = INVALID_HANDLE_VALUE;
  HANDLE target_ = INVALID_HANDLE_VALUE;
  std::uint64_t sourceSize_ = 0;
};

// Method 0: the source copied unchanged in pieces of 4096 bytes. The CRC is
// that of the bytes read; the count that of the bytes written.
bool CopyStored(DWORD& error, const DriverFiles& files, DWORD& crc, CArchiveSize& count) {
  std::unique_ptr<BYTE[]> piece(new (std::nothrow) BYTE[StoredPiece]);
  if (!piece) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  CFileCRC source;
  source.SetFile(files.Source(), files.SourceSize());
  CFileIO target;
  target.SetFile(files.Target());
  const BOOL ok = talvern::engine::CopyStream(source, target, piece.get(), StoredPiece, error);
  crc = source.Crc;
  count = target.Position;
  return ok != FALSE;
}

std::uint64_t OriginalSize(const CArchiveEntry& entry) {
  return static_cast<std::uint64_t>(entry.FindData.nFileSizeHigh) << 32 |
         entry.FindData.nFileSizeLow;
}

} // namespace

DWORD CArchiveFile::GetCompressType(DWORD requested) const {
  switch (requested) {
  case 0:
    return 0;
  case 1:
    return 1;
  case 0xFFFF:
    return 1;
  default:
    return 0;
  }
}

int CArchiveFile::CheckExpandType(DWORD method) const { return method == 0 || method == 1; }

int CArchiveFile::ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2,
                               const WCHAR* arg3, const CArchiveEntry& entry,
                               const CArchiveSize& size, const WCHAR* target, const WCHAR* source,
                               DWORD method, DWORD& crc) {
  DriverFiles files;
  bool ok = files.Open(error, target, source);
  DWORD sum = 0;
  CArchiveSize count(0);
  if (ok) {
    if (method == talvern::engine::MethodFormat1) {
      CEncodeDecode1 engine;
      engine.Create(talvern::engine::DriverDicBits, talvern::engine::DriverMaxMatch);
      engine.Host = this;
      engine.NotifyArg1 = arg1;
      engine.NotifyArg2 = arg2;
      engine.NotifyArg3 = arg3;
      engine.NotifyEntry = &entry;
      engine.NotifySize = &size;
      engine.NotifyCount = &count;
      engine.Compressing = 1;
      // The host hears of the start (its answer counts from the first read).
      engine.ReadNotify(0);
      engine.WriteNotify(0);
      CFileBit bits;
      bits.SetFile(files.Target());
      if (!bits.Allocate()) {
        error = ERROR_OUTOFMEMORY;
        ok = false;
      } else {
        const CArchiveSize limit(files.SourceSize());
        CFileNotifyCRC stream(files.Source(), &limit);
        stream.Target = &engine;
        ok = engine.Encode(&stream, &bits, &error) != FALSE;
        sum = stream.Crc;
        bits.Finish();
      }
    } else if (method == talvern::engine::MethodStored) {
      ok = CopyStored(error, files, sum, count);
    } else {
      error = ERROR_INVALID_DATATYPE;
      ok = false;
    }
  }
  if (!files.Close(error, ok)) return FALSE;
  if (count.GetValue() != OriginalSize(entry)) {
    error = ERROR_WRITE_FAULT; // the source changed size since it was examined
    return FALSE;
  }
  crc = sum;
  return TRUE;
}

int CArchiveFile::ExecExpand(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                             const CArchiveEntry& entry, const CArchiveSize& size,
                             const WCHAR* target, const WCHAR* source, DWORD method, DWORD crc) {
  DriverFiles files;
  bool ok = files.Open(error, target, source);
  DWORD sum = 0;
  CArchiveSize count(0);
  if (ok) {
    if (method == talvern::engine::MethodFormat1) {
      CEncodeDecode1 engine;
      engine.Create(talvern::engine::DriverDicBits, talvern::engine::DriverMaxMatch);
      engine.Host = this;
      engine.NotifyArg1 = arg1;
      engine.NotifyArg2 = arg2;
      engine.NotifyArg3 = arg3;
      engine.NotifyEntry = &entry;
      engine.NotifySize = &size;
      engine.NotifyCount = &count;
      engine.Compressing = 0;
      engine.ReadNotify(0);
      engine.WriteNotify(0);
      CFileBit bits;
      bits.SetFile(files.Source(), files.SourceSize());
      if (!bits.Allocate()) {
        error = ERROR_OUTOFMEMORY;
        ok = false;
      } else {
        CFileNotifyCRC stream(files.Target(), nullptr);
        stream.Target = &engine;
        ok = engine.Decode(&stream, &bits, &error) != FALSE;
        sum = stream.Crc;
        bits.Finish();
      }
    } else if (method == talvern::engine::MethodStored) {
      ok = CopyStored(error, files, sum, count);
    } else {
      error = ERROR_INVALID_DATATYPE;
      ok = false;
    }
  }
  if (!files.Close(error, ok)) return FALSE;
  if (count.GetValue() != OriginalSize(entry)) {
    error = ERROR_WRITE_FAULT; // more or fewer bytes than the entry holds
    return FALSE;
  }
  if (sum != crc) {
    error = ERROR_CRC;
    return FALSE;
  }
  return TRUE;
}
