// Adding files and directory trees.
//
// CompressAll makes a new archive from a directory tree; Compress adds one
// item (a file, or a directory with its subtree) to an archive open for
// writing. DoCompressAll walks one directory level, directories first (each
// followed at once by its subtree), then files, so that a directory's record
// always precedes the records of its contents. DoCompress stores one item:
// the engine compresses a file into a temporary file, the smaller of that
// file and the source is copied into the archive in cluster-aligned pieces
// within the volume limit, and a full volume hands over to DoDiskFull, which
// continues the entry on the next volume.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "engine/entry_data.h"
#include "engine/streams.h"
#include "foundation/handles.h"
#include "foundation/paths.h"
#include "operations/item_rules.h"
#include "operations/security.h"
#include "volumes/naming.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

using talvern::engine::ProgressTarget;
using volume_io::LastErrorOr;
using volume_io::QuerySize;
using volume_io::SeekTo;
using volume_io::SkipAhead;
using volume_io::WriteAll;

namespace {

// The copy buffer is the largest multiple of the cluster size that fits here.
constexpr DWORD kMaxCopyBuffer = 262144;
constexpr DWORD kOpenForScan = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN;

std::uint64_t UncompressedSize(const WIN32_FIND_DATAW& data) {
  return (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

bool IsDotName(const WCHAR* name, bool ignoreCase) {
  static const WCHAR kDot[] = {u'.', 0};
  static const WCHAR kDotDot[] = {u'.', u'.', 0};
  if (ignoreCase) return lstrcmpiW(name, kDot) == 0 || lstrcmpiW(name, kDotDot) == 0;
  return lstrcmpW(name, kDot) == 0 || lstrcmpW(name, kDotDot) == 0;
}

HANDLE OpenForScan(const WCHAR* name) {
  return CreateFileW(name, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, kOpenForScan,
                     nullptr);
}

// The engine's output is kept only when it is smaller than the original.
bool IsSmallerThan(const WCHAR* name, std::uint64_t original) {
  ScopedHandle file(OpenForScan(name));
  if (!file.IsValid()) return false;
  std::uint64_t size = 0;
  return QuerySize(file.Get(), size) && size < original;
}

// Bytes that may still be written at position before the volume limit of
// the current volume. The low half of the limit serves every volume, the
// high half (when not 0) the first one; 0 and 0xFFFFFFFF mean no limit.
std::uint64_t RoomBeforeLimit(const CArchiveSize* limit, DWORD diskNo, std::uint64_t position) {
  if (limit == nullptr) return UINT64_MAX;
  DWORD cap = limit->LowPart;
  if (diskNo == 0 && limit->HighPart != 0) cap = limit->HighPart;
  if (cap == 0 || cap == 0xFFFFFFFFu) return UINT64_MAX;
  return position < cap ? cap - position : 0;
}

bool CurrentPosition(HANDLE file, std::uint64_t& position) {
  LONG high = 0;
  SetLastError(ERROR_SUCCESS);
  const DWORD low = SetFilePointer(file, 0, &high, FILE_CURRENT);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS) return false;
  position = (static_cast<std::uint64_t>(static_cast<DWORD>(high)) << 32) | low;
  return true;
}

DWORD WriteSome(HANDLE file, const BYTE* bytes, DWORD count) {
  DWORD written = 0;
  // A failing write counts as a short one: only the count matters.
  WriteFile(file, bytes, count, &written, nullptr);
  return std::min(written, count);
}

// Writes count bytes at the archive's current position and returns how many
// were taken. When the medium takes less, it is nearly full: the rest is
// offered up to the next cluster boundary and then in steps of whole
// clusters whose number halves after every refusal, so that the medium is
// filled to its last usable cluster.
DWORD WriteFillingMedium(HANDLE file, const BYTE* bytes, DWORD count, DWORD cluster) {
  DWORD written = WriteSome(file, bytes, count);
  if (written == count) return written;
  std::uint64_t position = 0;
  if (!CurrentPosition(file, position)) return written;

  DWORD rest = count - written;
  DWORD piece = cluster - static_cast<DWORD>(position % cluster);
  DWORD steps = rest / cluster > 1 ? rest / cluster : 0;
  while (rest > 0) {
    const DWORD wanted = std::min(piece, rest);
    const DWORD got = WriteSome(file, bytes + written, wanted);
    written += got;
    rest -= got;
    if (got == wanted) {
      piece = steps != 0 ? steps * cluster : cluster;
      continue;
    }
    if (steps == 0) break;
    steps /= 2;
    if (steps <= 1) {
      steps = 0;
      piece = cluster;
    } else {
      piece = steps * cluster;
    }
  }
  return written;
}

// Starts compressing the files below base\folder ahead of the walk when the
// host asked for more than one thread.
void StartCompressAhead(CArchiveFileData& d, const CString& base, const CString& folder,
                        DWORD srch) {
  const unsigned workers = talvern::engine::CompressAhead::WorkersFor(d.CompressThreads);
  if (workers > 1)
    d.Ahead = std::make_unique<talvern::engine::CompressAhead>(
        workers, base, folder, srch, d.FollowLinks, &d.Seen, d.DirectTransfer);
}

// Ends the walk's work ahead: stops the workers, then lets go of the files
// kept for copies (which the workers used too) and of the copy buffer.
void EndCompressAhead(CArchiveFileData& d) {
  d.Ahead.reset();
  d.Seen.Clear();
  d.CopyBuffer.reset();
  d.CopyBufferSize = 0;
}

CString JoinFolder(const CString& folder, const WCHAR* name) {
  CString joined = folder;
  if (!joined.empty()) joined += u'\\';
  joined += name;
  return joined;
}

// Reads a whole file of `size` bytes into memory with its CRC: the stored
// method's data, taken as the stored method's driver takes it.
bool ReadWhole(DWORD& error, HANDLE file, std::uint64_t size,
               talvern::engine::CompressedData& out) {
  out.bytes.resize(static_cast<std::size_t>(size));
  CFileCRC stream;
  stream.SetFile(file, size);
  const DWORD got = size != 0 ? stream.Read(out.bytes.data(), static_cast<DWORD>(size)) : 0;
  if (stream.HasError()) {
    error = stream.Error;
    return false;
  }
  out.bytes.resize(got);
  out.crc = stream.Crc;
  out.bytesRead = got;
  return true;
}

// Writes the entry's record, as it reads once all its data is stored, and
// the data behind it in one write at the entry's position: true when all of
// it lies below the volume limit and the medium took it whole. Otherwise
// the record and the data are written as usual, over whatever part of them
// the medium took.
bool WriteEntryAhead(const CArchiveFileData& d, const CArchiveEntry& entry,
                     const std::vector<BYTE>& data, DWORD diskNo) {
  std::vector<BYTE> bytes;
  if (ComposeEntryRecord(entry, data.size(), bytes) != ERROR_SUCCESS) return false;
  const std::uint64_t at = entry.EntryOffset.GetValue();
  const std::uint64_t total = bytes.size() + data.size();
  if (total > 0xFFFFFFFFu || RoomBeforeLimit(d.Limit.get(), diskNo, at) < total) return false;
  try {
    bytes.insert(bytes.end(), data.begin(), data.end());
  } catch (const std::bad_alloc&) {
    return false;
  }
  return SeekTo(d.Handle, at) && WriteAll(d.Handle, bytes.data(), static_cast<DWORD>(bytes.size()));
}

// Records code as the one error of the operation, whatever was latched.
void ReplaceError(CArchiveFile& archive, DWORD code) {
  archive.ClearError();
  archive.SetErrorCode(code);
}

} // namespace

// ---- Whole trees and single items ------------------------------------------------------

int CArchiveFile::CompressAll(const WCHAR* sourcePath, CSrchFlags srch, CAttrFlags attr) {
  CArchiveEntry entry;
  const int noFirstPrompt = (srch & SrchNoFirstPrompt) ? 1 : 0;
  srch &= ~SrchNoFirstPrompt;

  const CString source = PrepareOperationPath(sourcePath);
  const CString root = BuildRootPath(m_Data->ArchiveName.c_str());
  if (source.empty() || root.empty() || IsBusy()) {
    SetErrorCode(ERROR_PATH_BUSY);
    return 0;
  }
  ClearError();

  int result = 0;
  if (!CompressStartNotify()) {
    SetAbort();
  } else {
    entry.Clear();
    result = DoDiskFull(root.c_str(), entry, nullptr, 1, noFirstPrompt);
    if (result && !IsOpen()) {
      // A file of the first volume's name that is not an archive's first
      // volume was found and left alone: nothing can be written.
      ReplaceError(*this, ERROR_FILE_EXISTS);
      result = 0;
    }
    if (result) {
      entry.Clear();
      m_Data->Flags |= FlagBusy;
      StartCompressAhead(*m_Data, source, CString(), srch);
      result = DoCompressAll(root.c_str(), source.c_str(), entry, srch, attr);
      EndCompressAhead(*m_Data);
      m_Data->Flags &= ~FlagBusy;
    }
  }

  // The archive is always left closed; a failed close fails a good result.
  if (IsOpen()) {
    if (result)
      result = Close();
    else
      Close();
  }
  CompressCompleteNotify(result);
  return result;
}

int CArchiveFile::Compress(const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch,
                           CAttrFlags attr) {
  CArchiveFileData& d = *m_Data;
  ClearError();
  int result = 1;
  if (IsBusy()) {
    SetErrorCode(ERROR_PATH_BUSY);
    result = 0;
  }
  if (!CompressStartNotify()) {
    SetAbort();
    result = 0;
  }

  auto add = [&]() -> int {
    if (baseDir == nullptr || !IsOpen() || !(d.Flags & FlagWritable) || IsContinue()) {
      SetErrorCode(ERROR_ACCESS_DENIED);
      return 0;
    }
    if (entry.EntryOffset.GetValue() == 0) entry.EntryOffset = d.Header.ArchiveSize;
    // A host's position must lie between the first record and the end of
    // the archive: anything else would overwrite the header or leave a gap
    // that no reader can walk.
    const std::uint64_t at = entry.EntryOffset.GetValue();
    if (at < VolumeHeader::Size || at > d.Header.ArchiveSize) {
      SetErrorCode(ERROR_SEEK_ON_DEVICE);
      return 0;
    }
    const CString base = PrepareOperationPath(baseDir);
    const CString root = BuildRootPath(d.ArchiveName.c_str());
    if (base.empty() || root.empty()) {
      SetErrorCode(ERROR_PATH_BUSY);
      return 0;
    }

    const CString name = JoinItemPath(base.c_str(), entry.Path, entry.FindData.cFileName);
    ScopedFind find(name.c_str(), entry.FindData);
    if (!find.IsValid()) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    const WIN32_FIND_DATAW& fd = entry.FindData;
    if ((fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && IsDotName(fd.cFileName, true)) return 1;

    // The archive continues at the entry's position: whatever lay at or
    // beyond it is no longer part of the archive.
    d.Header.ArchiveSize = at;
    d.Flags |= FlagHeaderDirty;
    entry.CompressType = GetRequestCompressType(entry, srch, attr);
    d.Flags |= FlagBusy;
    if ((fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
        !(fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && !(srch & SrchNoRecurse))
      StartCompressAhead(d, base, JoinFolder(entry.Path, fd.cFileName), srch);
    const int stored = DoCompress(root.c_str(), base.c_str(), entry, srch, attr);
    EndCompressAhead(d);
    d.Flags &= ~FlagBusy;
    return stored;
  };

  if (result) result = add();
  CompressCompleteNotify(result);
  return result;
}

namespace {

// The volume and file index of what a path leads to, links followed.
bool IdentityOf(const CString& path, std::pair<DWORD, std::uint64_t>& identity) {
  const ScopedHandle item(CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  BY_HANDLE_FILE_INFORMATION information{};
  if (!item.IsValid() || !GetFileInformationByHandle(item.Get(), &information)) return false;
  identity = {information.dwVolumeSerialNumber,
              static_cast<std::uint64_t>(information.nFileIndexHigh) << 32 |
                  information.nFileIndexLow};
  return true;
}

} // namespace

int CArchiveFile::IsLinkToAncestor(const WCHAR* baseDir, const CString& folder,
                                   const CString& source) {
  std::pair<DWORD, std::uint64_t> target, inside;
  if (!IdentityOf(source, target)) return 1;
  CString path = baseDir;
  for (std::size_t at = 0;;) {
    if (IdentityOf(path, inside) && inside == target) return 1;
    if (at >= folder.size()) return 0;
    const std::size_t end = std::min(folder.find(u'\\', at), folder.size());
    path += u'\\';
    path.append(folder, at, end - at);
    at = end + 1;
  }
}

int CArchiveFile::DoCompressAll(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry,
                                CSrchFlags srch, CAttrFlags attr) {
  static const WCHAR kEverything[] = {u'*', u'.', u'*', 0};
  const CString pattern = JoinItemPath(baseDir, entry.Path, kEverything);

  // One pass over the directory: the items of one kind, each selected by
  // its match member and stored by DoCompress with the method it requests.
  // A pattern that matches nothing adds nothing.
  // The folder pass lists folders only, unless it is the only pass: the
  // entry then keeps the last item listed, as a full listing leaves it.
  auto pass = [&](bool directories) -> int {
    ScopedFind find(pattern.c_str(), entry.FindData, directories && !(srch & SrchDirOnly));
    if (!find.IsValid()) return 1;
    do {
      const bool isDirectory = (entry.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      if (isDirectory != directories) continue;
      if (isDirectory && IsDotName(entry.FindData.cFileName, false)) continue;
      const int match = directories ? IsMatchCompressDir(entry, srch, attr)
                                    : IsMatchCompressFile(entry, srch, attr);
      if (!match) continue;
      const DWORD savedType = entry.CompressType;
      entry.CompressType = GetRequestCompressType(entry, srch, attr);
      const int stored = DoCompress(root, baseDir, entry, srch, attr);
      entry.CompressType = savedType;
      if (!stored) return 0;
    } while (find.Next(entry.FindData));
    return 1;
  };

  if (!(srch & SrchExcludeDir) && !pass(true)) return 0;
  if (!(srch & SrchDirOnly) && !pass(false)) return 0;
  return 1;
}

// ---- One item -----------------------------------------------------------------------------

int CArchiveFile::DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry,
                             CSrchFlags srch, CAttrFlags attr) {
  CArchiveFileData& d = *m_Data;
  WIN32_FIND_DATAW& fd = entry.FindData;

  const ItemOptions options = ReadItemOptions(attr);
  const bool isDirectory = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  // A folder reached through a symbolic link is stored but never entered,
  // so that no link can make the walk go round in circles.
  const bool isLinkedFolder = isDirectory && (fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
  // The normal attribute is never stored.
  fd.dwFileAttributes = ApplyAttributeFlags(fd.dwFileAttributes & ~FILE_ATTRIBUTE_NORMAL, attr);
  const ItemTimes times = ResolveItemTimes(fd, options.KeepTimes, d);
  fd.ftCreationTime = times.Creation;
  fd.ftLastAccessTime = times.LastAccess;
  fd.ftLastWriteTime = times.LastWrite;

  const DWORD cluster = VolumeClusterSize(d, root);
  if (cluster == 0 || cluster > kMaxCopyBuffer) {
    SetErrorCode(ERROR_OUTOFMEMORY);
    return 0;
  }
  // The copy buffer lasts from item to item of an operation.
  const DWORD bufferSize = kMaxCopyBuffer - kMaxCopyBuffer % cluster;
  if (d.CopyBufferSize != bufferSize) {
    d.CopyBuffer.reset(new (std::nothrow) BYTE[bufferSize]);
    d.CopyBufferSize = d.CopyBuffer ? bufferSize : 0;
  }
  if (!d.CopyBuffer) {
    SetErrorCode(ERROR_OUTOFMEMORY);
    return 0;
  }
  BYTE* const buffer = d.CopyBuffer.get();

  const CString folder = entry.Path;
  const CString source = JoinItemPath(baseDir, folder, fd.cFileName);
  entry.EntryOffset = d.Header.ArchiveSize;
  entry.DataOffset = 0;
  entry.DataSize = 0;
  entry.PackedSize = 0;
  entry.CompressType =
      GetCompressType(entry.CompressType & ~EntryContinuedBit) & ~EntryContinuedBit;
  entry.Crc = 0;
  if (!options.KeepFolder) entry.Path.clear();

  // The open volume as it was before this item, so that a failed item can
  // be taken out of it again.
  const DWORD startFlags = d.Flags;
  const WORD startVolumeWord = d.Header.VolumeWord;
  bool volumeChanged = false;

  ScopedHandle data;
  ScopedTempFile temp;
  const std::uint64_t originalSize = UncompressedSize(fd);

  auto cancel = [&]() {
    SetAbort();
    return 0;
  };
  auto notifyProgress = [&](std::uint64_t written) {
    return CompressNotify(root, baseDir, folder.c_str(), entry, CArchiveSize(originalSize),
                          CArchiveSize(written));
  };

  // With direct transfer, a file small enough is compressed into memory
  // (or taken as compressed ahead); the data to store is then that memory
  // or the source itself.
  std::vector<BYTE> memory;
  bool inMemory = false;
  auto prepareInMemory = [&]() -> int {
    const CArchiveSize noSize;
    const ProgressTarget hook{this, root, baseDir, folder.c_str(), &entry, &noSize, &d.Arrays};
    talvern::engine::CompressedData compressed;
    std::unique_ptr<talvern::engine::PreparedFile> prepared;
    if (d.Ahead && entry.CompressType != 0 &&
        talvern::engine::CompressAhead::HandsOver(originalSize))
      prepared = d.Ahead->TakeUnchanged(source);
    // Data compressed into a temporary file is small enough here to read.
    if (prepared && prepared->spill.File().IsValid()) {
      std::vector<BYTE>& bytes = prepared->data.bytes;
      const auto packed = static_cast<DWORD>(prepared->data.packed);
      DWORD got = 0;
      bytes.resize(packed);
      if (packed != 0 &&
          (!ReadFile(prepared->spill.File().Get(), bytes.data(), packed, &got, nullptr) ||
           got != packed))
        prepared.reset();
    }
    if (prepared) {
      if (!talvern::engine::ReplayCompressProgress(hook, prepared->data.reads)) return cancel();
      compressed = std::move(prepared->data);
    } else {
      data.Reset(OpenForScan(source.c_str()));
      std::uint64_t size = 0;
      if (!data.IsValid() || !QuerySize(data.Get(), size)) {
        SetErrorCode(LastErrorOr());
        return 0;
      }
      DWORD error = ERROR_SUCCESS;
      const bool done = entry.CompressType != 0
                            ? talvern::engine::CompressSeen(error, data.Get(), size, compressed,
                                                            &d.Seen, &hook, nullptr, true)
                            : ReadWhole(error, data.Get(), size, compressed);
      data.Close();
      if (!done) {
        // A cancellation replaces whatever was latched before it.
        if (error == ERROR_CANCELLED) ClearError();
        SetErrorCode(error);
        return 0;
      }
    }
    if (compressed.bytesRead != originalSize) {
      SetErrorCode(ERROR_WRITE_FAULT);
      return 0;
    }
    entry.Crc = compressed.crc;
    // Data no smaller than the file is not kept: the file is stored as it
    // is, from the bytes read for it when they are at hand.
    if (compressed.original) entry.CompressType = 0;
    if (entry.CompressType == 0 || compressed.bytes.size() < originalSize) {
      memory = std::move(compressed.bytes);
      inMemory = true;
      entry.PackedSize = memory.size();
      return 1;
    }
    entry.CompressType = 0;
    data.Reset(OpenForScan(source.c_str()));
    if (!data.IsValid()) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    entry.PackedSize = originalSize;
    return 1;
  };

  // Compresses a file into the temporary file and opens whichever of the
  // two is smaller as the data to store.
  auto prepareData = [&]() -> int {
    if (d.DirectTransfer && originalSize <= talvern::engine::DirectTransferLimit)
      return prepareInMemory();
    // Only a name the call reports as reserved is deleted afterwards: on
    // failure whatever it put in the name is not the add's.
    CString reserved;
    if (!GetTempCompressFile(reserved, 0, nullptr)) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    temp.Name() = reserved;
    DWORD error = ERROR_SUCCESS;
    if (!ExecCompress(error, root, baseDir, folder.c_str(), entry, CArchiveSize(), temp.c_str(),
                      source.c_str(), entry.CompressType, entry.Crc)) {
      // A cancellation replaces whatever was latched before it.
      if (error == ERROR_CANCELLED) ClearError();
      SetErrorCode(error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE);
      return 0;
    }
    const bool keepCompressed =
        entry.CompressType != 0 && IsSmallerThan(temp.c_str(), originalSize);
    if (!keepCompressed) entry.CompressType = 0;
    data.Reset(OpenForScan(keepCompressed ? temp.c_str() : source.c_str()));
    std::uint64_t packed = 0;
    if (!data.IsValid() || !QuerySize(data.Get(), packed)) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    entry.PackedSize = packed;
    return 1;
  };

  // After DoDiskFull reported a new volume: a file of the next volume's
  // name that is not this archive's was left alone, so nothing is open.
  auto continueOnNewVolume = [&]() -> int {
    if (!IsOpen()) {
      ReplaceError(*this, ERROR_FILE_EXISTS);
      return 0;
    }
    SetMediaChanged();
    volumeChanged = true;
    return 1;
  };

  // Copies the data file behind the record, moving to a new volume
  // whenever the current one takes less than a whole buffer.
  auto copyData = [&]() -> int {
    std::uint64_t position = entry.DataOffset.GetValue(); // P
    std::uint64_t stored = 0;                             // D, over all volumes
    std::uint64_t consumed = 0;                           // R, read from the data file
    if (!SeekTo(d.Handle, position)) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    if (!notifyProgress(stored)) return cancel();

    DWORD request =
        position % cluster ? cluster - static_cast<DWORD>(position % cluster) : bufferSize;
    for (;;) {
      DWORD got = 0;
      const BYTE* piece = buffer;
      if (inMemory) {
        got = static_cast<DWORD>(std::min<std::uint64_t>(request, memory.size() - consumed));
        piece = memory.data() + consumed;
      } else if (!ReadFile(data.Get(), buffer, request, &got, nullptr)) {
        SetErrorCode(LastErrorOr());
        return 0;
      }
      if (got == 0) break;
      request = bufferSize;

      const std::uint64_t room = RoomBeforeLimit(d.Limit.get(), GetDiskNo(), position);
      const DWORD wanted = static_cast<DWORD>(std::min<std::uint64_t>(got, room));
      // A limit that leaves no room for data right behind a record at the
      // start of a later volume leaves none on any further volume either.
      if (room == 0 && GetDiskNo() != 0 && entry.EntryOffset.GetValue() == VolumeHeader::Size &&
          position == entry.DataOffset.GetValue()) {
        SetErrorCode(ERROR_DISK_FULL);
        return 0;
      }
      DWORD written = 0;
      if (wanted != 0 && d.EntryWrittenAhead) {
        if (!SkipAhead(d.Handle, wanted)) {
          SetErrorCode(LastErrorOr());
          return 0;
        }
        written = wanted;
      } else if (wanted != 0) {
        written = WriteFillingMedium(d.Handle, piece, wanted, cluster);
      }

      CArchiveSize dataSize = entry.DataSize;
      if (dataSize.Add(CArchiveSize(written)) || stored + written < stored ||
          position + written < position || consumed + written < consumed) {
        SetErrorCode(ERROR_SEEK_ON_DEVICE);
        return 0;
      }
      entry.DataSize = dataSize;
      stored += written;
      position += written;
      consumed += written;
      if (!notifyProgress(stored)) return cancel();

      if (written < got) {
        d.EntryWrittenAhead = false; // what follows is written on the next volume
        ClearError();
        entry.CompressType |= EntryContinuedBit;
        if (!DoDiskFull(root, entry, baseDir, 0, 0) || !continueOnNewVolume()) return 0;
        position = entry.DataOffset.GetValue();
        request = bufferSize - static_cast<DWORD>(position % bufferSize);
        // The archive goes on right behind the continuation record; the
        // unwritten rest of the buffer is read again.
        if (!SeekTo(d.Handle, position) || (!inMemory && !SeekTo(data.Get(), consumed))) {
          SetErrorCode(LastErrorOr());
          return 0;
        }
      }
    }

    if (!DoWriteEntry(entry, nullptr)) return 0;
    if (!notifyProgress(stored)) return cancel();
    if (stored != entry.PackedSize.GetValue()) {
      SetErrorCode(ERROR_HANDLE_EOF);
      return 0;
    }
    return 1;
  };

  auto store = [&]() -> int {
    if (!CompressFileNotify(root, baseDir, folder.c_str(), entry)) return cancel();
    if (!isDirectory && !prepareData()) return 0;

    // The capture empties the block first; without it the block is emptied
    // here, so that no descriptor of an earlier item travels on.
    if (options.Security) {
      const DWORD code = CaptureSecurity(source.c_str(), entry);
      if (code != ERROR_SUCCESS) {
        SetErrorCode(code);
        return 0;
      }
    } else if (entry.Security != nullptr) {
      delete[] entry.Security->Data;
      entry.Security->Data = nullptr;
      entry.Security->Length = 0;
    }

    // Data held in memory that fits the volume goes out at once with its
    // record; the steps below then only move past it.
    if (inMemory) d.EntryWrittenAhead = WriteEntryAhead(d, entry, memory, GetDiskNo());
    if (!DoWriteEntry(entry, nullptr)) {
      // Typically the record does not fit under the volume limit: it is
      // written at the start of the next volume instead.
      d.EntryWrittenAhead = false;
      ClearError();
      if (!DoDiskFull(root, entry, baseDir, 0, 0) || !continueOnNewVolume()) return 0;
    }
    return isDirectory ? 1 : copyData();
  };

  int result = store();
  if (!result && IsOpen() && (d.Flags & FlagWritable)) {
    // A failed item is taken out of the open volume again: its end goes
    // back to where the item's record begins, so that the next flush keeps
    // only whole entries. On the volume the item started in, the header is
    // as it was before the item (a volume change that failed before closing
    // it may have marked it as continuing).
    d.Header.ArchiveSize = std::min(d.Header.ArchiveSize, entry.EntryOffset.GetValue());
    if (!volumeChanged) {
      d.Header.VolumeWord = startVolumeWord;
      if (!(startFlags & FlagHeaderDirty)) d.Flags &= ~FlagHeaderDirty;
    }
  }
  d.EntryWrittenAhead = false;
  data.Close();
  temp.Remove();
  if (!options.KeepFolder) entry.Path = folder;

  const bool enter =
      !isLinkedFolder || (d.FollowLinks && !IsLinkToAncestor(baseDir, folder, source));
  if (result && isDirectory && !(srch & SrchNoRecurse) && enter) {
    if (!entry.Path.empty()) entry.Path += u'\\';
    entry.Path += fd.cFileName;
    result = DoCompressAll(root, baseDir, entry, srch, attr);
    entry.Path = folder;
  }
  return result;
}
