// Opening, committing and closing the current volume file.
//
// Records appended to a volume become part of it only when a flush writes
// the header with the new archive size. CommittedSize is the size the file
// had at that moment (or when it was opened). While an error is latched a
// flush cuts the file back to the committed size; a header that changed is
// written, and so committed, before that cut. A volume file created by this
// open whose header was never committed does not survive a failed close; a
// file that existed before is never deleted.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "foundation/paths.h"

using namespace volume_io;

namespace {

using Access = CArchiveFileAccess;

// The steps every open shares: close what is open, let the media layer
// prepare the drive, create the folders a new file needs, and start with a
// clean state. 0 when the open must not go on.
int BeginOpen(CArchiveFile& archive, int forWriting, bool createFolders) {
  CArchiveFileData& d = Access::Data(archive);
  if (archive.IsOpen()) archive.Close();
  if (d.ArchiveName.empty() || archive.IsOpen()) {
    archive.SetErrorCode(ERROR_PATH_BUSY);
    return 0;
  }
  const CString root = BuildRootPath(d.ArchiveName.c_str());
  if (root.empty()) {
    archive.SetErrorCode(LastErrorOr());
    return 0;
  }
  // A refusal carries whatever the media layer latched.
  if (!Access::DoLoadMedia(archive, root.c_str(), forWriting)) return 0;
  if (createFolders && !CreateDirectoryTree(root.c_str(), d.ArchiveName.c_str(), 0)) {
    archive.SetErrorCode(LastErrorOr());
    return 0;
  }
  archive.ClearError();
  d.Flags &= FlagBusy;
  return 1;
}

// Takes over a freshly opened file: the handle, the access flags, a zeroed
// header and the file's size as the committed size.
int AdoptHandle(CArchiveFile& archive, HANDLE file, DWORD flags) {
  CArchiveFileData& d = Access::Data(archive);
  d.Handle = file;
  d.ClusterSize = 0;
  d.ReadAhead.reset();
  d.Flags |= flags;
  d.Header.Zero();
  std::uint64_t size = 0;
  if (!QuerySize(file, size)) {
    d.CommittedSize = 0;
    archive.SetErrorCode(LastErrorOr());
    archive.Close();
    return 0;
  }
  d.CommittedSize = size;
  return 1;
}

// Writes the header of a new, empty volume at offset 0.
bool WriteFreshHeader(HANDLE file) {
  BYTE bytes[VolumeHeader::Size];
  VolumeHeader::Fresh().Store(bytes);
  return SeekTo(file, 0) && WriteAll(file, bytes, VolumeHeader::Size);
}

// Reads and checks the header at offset 0 and keeps it in memory, then
// commits through Flush. Anything but a valid header is 1804.
int LoadHeader(CArchiveFile& archive) {
  CArchiveFileData& d = Access::Data(archive);
  BYTE bytes[VolumeHeader::Size];
  DWORD got = 0;
  if (!SeekTo(d.Handle, 0) || !ReadFile(d.Handle, bytes, VolumeHeader::Size, &got, nullptr)) {
    archive.SetErrorCode(LastErrorOr());
    archive.Close();
    return 0;
  }
  VolumeHeader header{};
  if (got == VolumeHeader::Size) header.Load(bytes);
  if (got != VolumeHeader::Size || !header.IsValid()) {
    archive.SetErrorCode(ERROR_INVALID_DATATYPE);
    archive.Close();
    return 0;
  }
  d.Header = header;
  // Bytes beyond the archive size (an interrupted append) were never part
  // of the volume: the rollback point is the archive's end, so that a
  // rollback cannot turn them into records.
  if (d.CommittedSize > header.ArchiveSize) d.CommittedSize = header.ArchiveSize;
  return archive.Flush();
}

// Write opens always read too: the header is read back and checked. The
// readable argument only decides whether the object reports the volume as
// readable.
constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

} // namespace

int CArchiveFile::ReadOpen() {
  if (!BeginOpen(*this, 0, false)) return 0;
  CArchiveFileData& d = *m_Data;
  const HANDLE file = CreateFileW(d.ArchiveName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    SetErrorCode(LastErrorOr());
    return 0;
  }
  if (!AdoptHandle(*this, file, FlagReadable)) return 0;
  return LoadHeader(*this);
}

int CArchiveFile::WriteOpen(int create, int readable) {
  if (!BeginOpen(*this, 1, create != 0)) return 0;
  CArchiveFileData& d = *m_Data;
  // With create, an existing archive is opened as it is (never truncated);
  // only a missing or empty file gets a fresh header.
  const HANDLE file =
      CreateFileW(d.ArchiveName.c_str(), kReadWrite, 0, nullptr,
                  create ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  const bool existed = create ? GetLastError() == ERROR_ALREADY_EXISTS : true;
  if (file == INVALID_HANDLE_VALUE) {
    SetErrorCode(LastErrorOr());
    return 0;
  }
  if (!AdoptHandle(*this, file, FlagWritable | (readable ? FlagReadable : 0))) return 0;
  d.CreatedByOpen = !existed;
  if (create && (!existed || d.CommittedSize == 0) && !WriteFreshHeader(file)) {
    SetErrorCode(LastErrorOr());
    Close();
    return 0;
  }
  return LoadHeader(*this);
}

int CArchiveFile::CreateOpen(int overwrite, int readable) {
  if (!BeginOpen(*this, 1, true)) return 0;
  CArchiveFileData& d = *m_Data;
  const HANDLE file =
      CreateFileW(d.ArchiveName.c_str(), kReadWrite, 0, nullptr,
                  overwrite ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    SetErrorCode(LastErrorOr());
    return 0;
  }
  if (!AdoptHandle(*this, file, FlagWritable | (readable ? FlagReadable : 0))) return 0;
  d.CreatedByOpen = true;
  if (!WriteFreshHeader(file)) {
    SetErrorCode(LastErrorOr());
    Close();
    return 0;
  }
  // The header on disk is already current: it is not marked dirty.
  d.Header = VolumeHeader::Fresh();
  return Flush();
}

int CArchiveFile::Flush() {
  CArchiveFileData& d = *m_Data;
  if (!IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  if (!(d.Flags & FlagWritable)) {
    d.Flags &= ~FlagHeaderDirty;
    return 1;
  }

  int ok = 1;
  bool headerWritten = false;
  if (d.Flags & FlagHeaderDirty) {
    BYTE bytes[VolumeHeader::Size];
    d.Header.Store(bytes);
    if (!SeekTo(d.Handle, 0) || !WriteAll(d.Handle, bytes, VolumeHeader::Size)) {
      SetErrorCode(LastErrorOr());
      ok = 0;
    } else {
      d.Flags &= ~FlagHeaderDirty;
      headerWritten = true;
    }
  }

  if (!FlushFileBuffers(d.Handle)) {
    SetErrorCode(LastErrorOr());
    ok = 0;
  } else if (ok && headerWritten) {
    // Trim what lies beyond the committed records; a failure here leaves
    // only unreachable bytes behind and is not reported.
    if (SeekTo(d.Handle, d.Header.ArchiveSize) && SetEndOfFile(d.Handle))
      d.CommittedSize = d.Header.ArchiveSize;
  }

  if (!(d.Flags & FlagError)) return ok;

  // An error is latched: cut the file back to the last committed size.
  if (!SeekTo(d.Handle, d.CommittedSize) || !SetEndOfFile(d.Handle)) return 0;
  d.Header.ArchiveSize = d.CommittedSize;
  return ok;
}

int CArchiveFile::Close() {
  CArchiveFileData& d = *m_Data;
  if (!IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  const int ok = Flush();
  FlushFileBuffers(d.Handle);
  if (!CloseHandle(d.Handle)) {
    SetErrorCode(LastErrorOr());
    return 0;
  }

  const int wasWritable = (d.Flags & FlagWritable) ? 1 : 0;
  // A file that existed before the open is never deleted, whatever failed.
  if (wasWritable && (d.Flags & FlagError) && d.CommittedSize == 0 && d.CreatedByOpen)
    DeleteFileW(d.ArchiveName.c_str());

  d.Handle = INVALID_HANDLE_VALUE;
  d.ClusterSize = 0;
  d.ReadAhead.reset();
  d.Flags &= FlagError | FlagBusy;
  d.Header.Zero();
  d.CommittedSize = 0;
  d.CreatedByOpen = false;

  const CString root = BuildRootPath(d.ArchiveName.c_str());
  if (root.empty()) {
    SetErrorCode(LastErrorOr());
    return 0;
  }
  if (ok && !DoEjectMedia(root.c_str(), wasWritable)) return 0;
  return ok;
}
