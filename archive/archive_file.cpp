// The archive object: construction, file name and size limit, default
// times, state queries and the error latch.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "foundation/paths.h"

#include <new>

// ---- The volume header -------------------------------------------------------

void VolumeHeader::Store(BYTE out[Size]) const {
  std::memcpy(out, Magic, 8);
  out[8] = Marker;
  out[9] = Version;
  volume_io::PutLE16(out + 10, VolumeWord);
  volume_io::PutLE64(out + 12, ArchiveSize);
}

void VolumeHeader::Load(const BYTE in[Size]) {
  std::memcpy(Magic, in, 8);
  Marker = in[8];
  Version = in[9];
  VolumeWord = volume_io::GetLE16(in + 10);
  ArchiveSize = volume_io::GetLE64(in + 12);
}

bool VolumeHeader::IsValid() const {
  // An archive size below the header's own would let the next append write
  // over the header.
  return std::memcmp(Magic, "ArchFile", 8) == 0 && Marker == 0x1A && Version == 0 &&
         ArchiveSize >= Size;
}

DWORD CArchiveFileData::EffectiveLimit() const {
  if (!Limit) return 0;
  const DWORD general = Limit->LowPart;
  const DWORD first = Limit->HighPart;
  const bool onFirstVolume =
      Handle == INVALID_HANDLE_VALUE || (Header.VolumeWord & VolumeHeader::NumberMask) == 0;
  return first != 0 && onFirstVolume ? first : general;
}

// ---- Construction --------------------------------------------------------------

// The state block is small; like the host framework's allocator, a failed
// allocation here throws (std::bad_alloc) rather than leaving a half-built
// object.
CArchiveFile::CArchiveFile() : m_Data(new CArchiveFileData()) {}

CArchiveFile::~CArchiveFile() {
  // Only this class's Close: a derived class is already gone.
  if (m_Data->Handle != INVALID_HANDLE_VALUE) CArchiveFile::Close();
  delete m_Data;
}

int CArchiveFile::IsBusy() const { return (m_Data->Flags & FlagBusy) ? 1 : 0; }

// ---- File name and limit ---------------------------------------------------------

int CArchiveFile::FileName(const WCHAR* path, const CArchiveSize* limit) {
  if (IsOpen()) Close();

  CArchiveFileData& d = *m_Data;
  if (limit != d.Limit.get()) {
    d.Limit.reset();
    if (limit != nullptr && limit->GetValue() != 0) {
      d.Limit.reset(new (std::nothrow) CArchiveSize(*limit));
      if (!d.Limit) return 0;
    }
  }

  if (path == d.ArchiveName.c_str()) return 1;

  // The path may point into the stored name: take a copy before emptying it.
  const CString requested = path != nullptr ? CString(path) : CString();
  d.ArchiveName.clear();
  d.BaseName.clear();
  if (requested.empty()) return 1;

  CString full = BuildFullPath(requested.c_str());
  if (full.empty()) return 0;
  if (d.Limit) {
    RemoveExtension(full);
    d.BaseName = full;
  }
  d.ArchiveName = std::move(full);
  return 1;
}

const WCHAR* CArchiveFile::FileName() const { return m_Data->ArchiveName.c_str(); }

const CArchiveSize* CArchiveFile::LimitSize() const { return m_Data->Limit.get(); }

// ---- Default times ------------------------------------------------------------------

void CArchiveFile::DefaultCreateTime(const FILETIME& time) { m_Data->DefaultCreate = time; }
void CArchiveFile::ClearDefaultCreateTime() { m_Data->DefaultCreate = FILETIME{}; }
const FILETIME& CArchiveFile::DefaultCreateTime() const { return m_Data->DefaultCreate; }

void CArchiveFile::DefaultLastWriteTime(const FILETIME& time) { m_Data->DefaultLastWrite = time; }
void CArchiveFile::ClearDefaultLastWriteTime() { m_Data->DefaultLastWrite = FILETIME{}; }
const FILETIME& CArchiveFile::DefaultLastWriteTime() const { return m_Data->DefaultLastWrite; }

void CArchiveFile::DefaultLastAccessTime(const FILETIME& time) { m_Data->DefaultLastAccess = time; }
void CArchiveFile::ClearDefaultLastAccessTime() { m_Data->DefaultLastAccess = FILETIME{}; }
const FILETIME& CArchiveFile::DefaultLastAccessTime() const { return m_Data->DefaultLastAccess; }

// ---- State ------------------------------------------------------------------------------

int CArchiveFile::IsOpen() const { return m_Data->Handle != INVALID_HANDLE_VALUE ? 1 : 0; }

int CArchiveFile::IsReadable() const { return IsOpen() && (m_Data->Flags & FlagReadable) ? 1 : 0; }

int CArchiveFile::IsWritable() const { return IsOpen() && (m_Data->Flags & FlagWritable) ? 1 : 0; }

int CArchiveFile::IsContinue() const {
  return IsOpen() && (m_Data->Header.VolumeWord & VolumeHeader::ContinueBit) ? 1 : 0;
}

int CArchiveFile::IsError() const { return (m_Data->Flags & FlagError) ? 1 : 0; }

int CArchiveFile::IsAborted() const { return m_Data->ErrorCode == ERROR_CANCELLED ? 1 : 0; }

int CArchiveFile::IsMediaChanged() const { return (m_Data->Flags & FlagMediaChanged) ? 1 : 0; }

DWORD CArchiveFile::GetErrorCode() const { return m_Data->ErrorCode; }

CArchiveSize CArchiveFile::GetArchiveSize() {
  return IsOpen() ? CArchiveSize(m_Data->Header.ArchiveSize) : CArchiveSize();
}

void CArchiveFile::SetErrorCode(DWORD code) {
  if (m_Data->Flags & FlagError) return;
  m_Data->Flags |= FlagError;
  m_Data->ErrorCode = code;
}

void CArchiveFile::ClearError() {
  m_Data->Flags &= ~FlagError;
  m_Data->ErrorCode = ERROR_SUCCESS;
}

void CArchiveFile::SetAbort() {
  ClearError();
  SetErrorCode(ERROR_CANCELLED);
}

void CArchiveFile::SetMediaChanged() { m_Data->Flags |= FlagMediaChanged; }

void CArchiveFile::ClearMediaChanged() { m_Data->Flags &= ~FlagMediaChanged; }

void CArchiveFile::SetCompressThreads(DWORD threads) { m_Data->CompressThreads = threads; }
DWORD CArchiveFile::GetCompressThreads() const { return m_Data->CompressThreads; }
void CArchiveFile::SetDirectTransfer(int direct) { m_Data->DirectTransfer = direct != 0; }
int CArchiveFile::IsDirectTransfer() const { return m_Data->DirectTransfer ? 1 : 0; }
void CArchiveFile::SetFollowLinks(int follow) { m_Data->FollowLinks = follow != 0; }
int CArchiveFile::IsFollowLinks() const { return m_Data->FollowLinks ? 1 : 0; }
void CArchiveFile::SetTestOnly(int testOnly) { m_Data->TestOnly = testOnly != 0; }
int CArchiveFile::IsTestOnly() const { return m_Data->TestOnly ? 1 : 0; }

// ---- Paths --------------------------------------------------------------------------------

CString CArchiveFile::GetFullPath(const WCHAR* path, int* finalComponent) const {
  return BuildFullPath(path, finalComponent);
}

CString CArchiveFile::GetRootPath(const WCHAR* path) const { return BuildRootPath(path); }
