// The archive object's compression members: method mapping and the drivers
// that compress or expand one file into another for an archive entry.
#include <talvern/archive.h>

#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "engine/block.h"
#include "engine/code_format1.h"
#include "engine/compress_ahead.h"
#include "engine/entry_data.h"
#include "engine/lz_parallel.h"
#include "engine/lz_tree.h"
#include "engine/streams.h"
#include "foundation/handles.h"

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <new>
#include <vector>

using talvern::engine::PrepareEngine;
using talvern::engine::ProgressTarget;

namespace {

constexpr DWORD DriverFileFlags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN;
constexpr DWORD StoredPiece = 4096;

// The two files of one driver call, closed on every path; closing them is
// part of the result.
class DriverFiles {
public:
  // Opens the source for reading, creates the target and takes the source's
  // size. A failure stores its code; the target may then exist (empty).
  bool Open(DWORD& error, const WCHAR* target, const WCHAR* source) {
    source_.Reset(CreateFileW(source, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              DriverFileFlags, nullptr));
    if (!source_.IsValid()) {
      error = GetLastError();
      return false;
    }
    target_.Reset(CreateFileW(target, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              DriverFileFlags, nullptr));
    if (!target_.IsValid()) {
      error = GetLastError();
      return false;
    }
    // A low half of 0xFFFFFFFF is a valid size; only the last error tells.
    DWORD high = 0;
    SetLastError(NO_ERROR);
    const DWORD low = GetFileSize(source_.Get(), &high);
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
    for (ScopedHandle* file : {&source_, &target_}) {
      if (!file->Close() && ok) {
        error = GetLastError();
        ok = false;
      }
    }
    return ok;
  }

  HANDLE Source() const { return source_.Get(); }
  HANDLE Target() const { return target_.Get(); }
  std::uint64_t SourceSize() const { return sourceSize_; }

private:
  ScopedHandle source_;
  ScopedHandle target_;
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

// The reads of the source the one engine makes while it compresses `size`
// bytes, in order: a window's worth at the start, then one more each time
// its window slides, which it does every 8192 positions from position
// 7936 on, up to and including the data's last position.
class OneEngineReads {
public:
  explicit OneEngineReads(std::uint64_t size) : size_(size) {}

  // The next read, when all of it lies within the first `available` bytes
  // of the data.
  bool Next(std::uint64_t available, DWORD& count) {
    if (started_ && slide_ > size_) return false;
    const std::uint64_t n = std::min<std::uint64_t>(kWindow, size_ - read_);
    if (read_ + n > available) return false;
    if (started_) slide_ += kWindow;
    started_ = true;
    read_ += n;
    count = static_cast<DWORD>(n);
    return true;
  }

private:
  static constexpr std::uint64_t kWindow = talvern::engine::DriverShape::n;
  std::uint64_t size_;
  std::uint64_t read_ = 0;
  bool started_ = false;
  std::uint64_t slide_ = kWindow - talvern::engine::DriverShape::maxMatch;
};

// Method 1 compression of a large file on `threads` threads: the stream the
// one engine writes, and its progress calls, read for read. The file is read
// on this thread a round of chunks at a time, and the host hears of each of
// the one engine's reads once the bytes it covers have been read.
bool CompressOnThreads(DWORD& error, const ProgressTarget& hook, const DriverFiles& files,
                       unsigned threads, DWORD& sum, CArchiveSize& count) {
  CEncodeDecode1 notifier;
  PrepareEngine(notifier, hook, count, true);
  notifier.Aborted = 0;
  const std::uint64_t size = files.SourceSize();
  OneEngineReads reads(size);
  std::uint64_t done = 0;
  DWORD crc = 0;
  error = ERROR_SUCCESS;
  const auto source = [&](std::uint8_t* buffer, std::size_t want) {
    while (want != 0) {
      const DWORD piece = static_cast<DWORD>(std::min<std::size_t>(want, 1u << 20));
      // A short read: the file is shorter than when it was examined.
      if (!volume_io::ReadAll(files.Source(), buffer, piece, ERROR_WRITE_FAULT)) {
        error = GetLastError();
        return false;
      }
      crc = talvern::engine::Crc32Update(crc, buffer, piece);
      buffer += piece;
      want -= piece;
      done += piece;
    }
    for (DWORD n = 0; reads.Next(done, n);) {
      notifier.ReadNotify(n);
      if (notifier.Aborted) {
        error = ERROR_CANCELLED;
        return false;
      }
    }
    return true;
  };
  const auto sink = [&](const std::uint8_t* bytes, std::size_t n) {
    if (volume_io::WriteAll(files.Target(), bytes, static_cast<DWORD>(n))) return true;
    error = GetLastError();
    return false;
  };
  if (!talvern::engine::CompressParallel(static_cast<std::size_t>(size), source, threads, sink)) {
    if (error == ERROR_SUCCESS) error = ERROR_OUTOFMEMORY;
    return false;
  }
  sum = crc;
  return true;
}

// Method 1 between the two files: compressing reads the source through a
// notifying stream and writes the bit stream; expanding the other way round.
// A large file is compressed on `threads` threads when there are several.
bool RunFormatOne(DWORD& error, const ProgressTarget& hook, const DriverFiles& files,
                  bool compressing, unsigned threads, DWORD& sum, CArchiveSize& count) {
  if (compressing && threads > 1 && files.SourceSize() >= talvern::engine::ParallelThreshold &&
      files.SourceSize() <= SIZE_MAX)
    return CompressOnThreads(error, hook, files, threads, sum, count);
  CEncodeDecode1 engine;
  PrepareEngine(engine, hook, count, compressing);
  CFileBit bits;
  if (compressing)
    bits.SetFile(files.Target());
  else
    bits.SetFile(files.Source(), files.SourceSize());
  if (!bits.Allocate()) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  const CArchiveSize limit(files.SourceSize());
  CFileNotifyCRC stream(compressing ? files.Source() : files.Target(),
                        compressing ? &limit : nullptr);
  stream.Target = &engine;
  const BOOL done =
      compressing ? engine.Encode(&stream, &bits, &error) : engine.Decode(&stream, &bits, &error);
  sum = stream.Crc;
  bits.Finish();
  return done != FALSE;
}

// Opens the files, runs the method and closes the files; true when all of
// it succeeded and the bytes counted match the entry's original size (else
// 29). `sum` receives the CRC of the uncompressed side.
bool RunDriver(DWORD& error, const ProgressTarget& hook, const WCHAR* target, const WCHAR* source,
               DWORD method, bool compressing, DWORD& sum, unsigned threads = 1) {
  DriverFiles files;
  CArchiveSize count(0);
  bool ok = files.Open(error, target, source);
  if (ok) {
    if (method == talvern::engine::MethodFormat1) {
      ok = RunFormatOne(error, hook, files, compressing, threads, sum, count);
    } else if (method == talvern::engine::MethodStored) {
      ok = CopyStored(error, files, sum, count);
    } else {
      error = ERROR_INVALID_DATATYPE;
      ok = false;
    }
  }
  if (!files.Close(error, ok)) return false;
  if (count.GetValue() != OriginalSize(*hook.entry)) {
    // More or fewer bytes than the entry holds: the source changed size
    // since it was examined, or the stored data is damaged.
    error = ERROR_WRITE_FAULT;
    return false;
  }
  return true;
}

// Writes a file compressed ahead into the target as the compressing driver
// would have written it, after telling the host of the compression's
// progress. The checks are the driver's: 29 when the bytes read differ
// from the entry's size.
bool StorePrepared(DWORD& error, const ProgressTarget& hook,
                   const talvern::engine::PreparedFile& prepared, const WCHAR* target, DWORD& crc) {
  ScopedHandle output(CreateFileW(target, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  DriverFileFlags, nullptr));
  if (!output.IsValid()) {
    error = GetLastError();
    return false;
  }
  if (!talvern::engine::ReplayCompressProgress(hook, prepared.data.reads)) {
    output.Close();
    error = ERROR_CANCELLED;
    return false;
  }
  const std::vector<BYTE>& bytes = prepared.data.bytes;
  DWORD written = 0;
  if (prepared.spill.File().IsValid()) {
    // A large file's data, from the temporary file it was compressed into.
    constexpr DWORD kPiece = 65536;
    std::vector<BYTE> piece(kPiece);
    CFileIO from;
    from.SetFile(prepared.spill.File().Get(), prepared.data.packed);
    CFileIO to;
    to.SetFile(output.Get());
    if (!talvern::engine::CopyStream(from, to, piece.data(), kPiece, error)) return false;
  } else if (!bytes.empty() && (!WriteFile(output.Get(), bytes.data(),
                                           static_cast<DWORD>(bytes.size()), &written, nullptr) ||
                                written != bytes.size())) {
    error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_DISK_FULL;
    return false;
  }
  if (!output.Close()) {
    error = GetLastError();
    return false;
  }
  if (prepared.data.bytesRead != OriginalSize(*hook.entry)) {
    error = ERROR_WRITE_FAULT;
    return false;
  }
  crc = prepared.data.crc;
  return true;
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
  const ProgressTarget hook{this, arg1, arg2, arg3, &entry, &size, &m_Data->Arrays};
  if (m_Data->Ahead && method == talvern::engine::MethodFormat1 &&
      talvern::engine::CompressAhead::HandsOver(OriginalSize(entry))) {
    auto prepared = m_Data->Ahead->TakeUnchanged(source);
    if (prepared && !prepared->data.original)
      return StorePrepared(error, hook, *prepared, target, crc) ? TRUE : FALSE;
  }
  DWORD sum = 0;
  const unsigned threads = talvern::engine::CompressAhead::WorkersFor(m_Data->CompressThreads);
  if (!RunDriver(error, hook, target, source, method, true, sum, threads)) return FALSE;
  crc = sum;
  return TRUE;
}

int CArchiveFile::ExecExpand(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                             const CArchiveEntry& entry, const CArchiveSize& size,
                             const WCHAR* target, const WCHAR* source, DWORD method, DWORD crc) {
  const ProgressTarget hook{this, arg1, arg2, arg3, &entry, &size, &m_Data->Arrays};
  DWORD sum = 0;
  if (!RunDriver(error, hook, target, source, method, false, sum)) return FALSE;
  if (sum != crc) {
    error = ERROR_CRC;
    return FALSE;
  }
  return TRUE;
}
