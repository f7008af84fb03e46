// Walking the records of the open volume. A search handle is only the
// position of the next record, so a walk can be paused, saved, restored or
// moved just behind a known entry, and goes on in whichever volume is open.
#include "archive/archive_data.h"
#include "archive/volume_io.h"

#include <new>

namespace {

constexpr std::uint64_t kFirstRecord = VolumeHeader::Size;

} // namespace

CArchiveFindFile* CArchiveFile::FindCreate() {
  if (!IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  // The caller owns the handle until FindClose.
  CArchiveFindFile* find = new (std::nothrow) CArchiveFindFile();
  if (find == nullptr) SetErrorCode(ERROR_OUTOFMEMORY);
  return find;
}

CArchiveFindFile* CArchiveFile::FindFirst(CArchiveEntry& entry) {
  entry.Clear();
  CArchiveFindFile* find = FindCreate();
  if (find == nullptr) return nullptr;
  if (!FindNext(find, entry)) {
    delete find;
    return nullptr;
  }
  return find;
}

int CArchiveFile::FindNext(CArchiveFindFile* find, CArchiveEntry& entry) {
  entry.Clear();
  if (find == nullptr || !IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  std::uint64_t fileSize = 0;
  if (!volume_io::QuerySize(m_Data->Handle, fileSize)) {
    SetErrorCode(volume_io::LastErrorOr());
    return 0;
  }
  const std::uint64_t archiveSize = m_Data->Header.ArchiveSize;
  if (fileSize < archiveSize) {
    SetErrorCode(ERROR_INVALID_DATATYPE); // the file was cut short
    return 0;
  }
  const std::uint64_t position = find->NextOffset.GetValue();
  if (position >= archiveSize) {
    SetErrorCode(ERROR_HANDLE_EOF);
    return 0;
  }
  CArchiveSize recordSize;
  if (!DoReadEntry(CArchiveOffset(position), CArchiveSize(archiveSize - position), entry,
                   &recordSize))
    return 0;
  // The record lies inside the archive size, so the sum cannot carry.
  find->NextOffset = position + recordSize.GetValue();
  return 1;
}

int CArchiveFile::FindClose(CArchiveFindFile* find) {
  if (find == nullptr) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  delete find;
  return 1;
}

CArchiveOffset CArchiveFile::FindGetPos(CArchiveFindFile* find) {
  if (find == nullptr || !IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return CArchiveOffset(0);
  }
  return find->NextOffset;
}

int CArchiveFile::FindSetPos(CArchiveFindFile* find, const CArchiveOffset* position) {
  if (find == nullptr || !IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  const std::uint64_t p = position != nullptr ? position->GetValue() : 0;
  if (p == 0) {
    find->NextOffset = kFirstRecord;
    return 1;
  }
  if (p < kFirstRecord || p > m_Data->Header.ArchiveSize) {
    SetErrorCode(ERROR_SEEK_ON_DEVICE);
    return 0;
  }
  find->NextOffset = p;
  return 1;
}

int CArchiveFile::FindSetPos(CArchiveFindFile* find, const CArchiveEntry& entry) {
  const std::uint64_t p = entry.DataOffset.GetValue();
  if (p == 0) {
    if (find == nullptr || !IsOpen()) {
      SetErrorCode(ERROR_INVALID_HANDLE);
      return 0;
    }
    find->NextOffset = kFirstRecord;
    return 1;
  }
  // The range is tested before the handle.
  const std::uint64_t q = p + entry.DataSize.GetValue();
  if (p < kFirstRecord || q < p) {
    SetErrorCode(ERROR_SEEK_ON_DEVICE);
    return 0;
  }
  if (find == nullptr || !IsOpen()) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  if (q > m_Data->Header.ArchiveSize) {
    SetErrorCode(ERROR_SEEK_ON_DEVICE);
    return 0;
  }
  find->NextOffset = q;
  return 1;
}
