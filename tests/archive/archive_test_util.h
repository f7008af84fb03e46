// Helpers for the archive and volume tests: an archive class that opens up
// the protected record members and counts hook calls, entry builders and
// the append sequence that adding files uses.
#pragma once

#include "archive/archive_data.h"
#include "support/archive_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// An archive object with the protected record and string members public.
class RecordArchive : public CArchiveFile {
public:
  using CArchiveFile::CalcWriteStringSize;
  using CArchiveFile::DoReadEntry;
  using CArchiveFile::DoReadString;
  using CArchiveFile::DoWriteEntry;
  using CArchiveFile::DoWriteString;

  CArchiveFileData& Data() { return CArchiveFileAccess::Data(*this); }
  HANDLE Handle() { return Data().Handle; }
};

// The fixed part of a record, as another writer might produce it.
inline Bytes& FixedPart(Bytes& b, std::uint32_t headerSize, std::uint64_t dataSize,
                        std::uint32_t attributes = 0x20) {
  return b.U32(headerSize)
      .U32(0)
      .U32(0)
      .U32(attributes)
      .U64(0)
      .U64(0)
      .U64(0)
      .U32(static_cast<std::uint32_t>(dataSize))
      .U32(0)
      .U64(dataSize)
      .U64(dataSize);
}

// An entry for a file of the given stored size, method 0.
inline CArchiveEntry FileEntry(const CString& name, const CString& folder = CString(),
                               std::uint64_t size = 0) {
  CArchiveEntry e;
  e.Path = folder;
  e.FindData.dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
  for (size_t i = 0; i < name.size() && i < MAX_PATH - 1; ++i) e.FindData.cFileName[i] = name[i];
  e.FindData.nFileSizeLow = static_cast<DWORD>(size);
  e.FindData.nFileSizeHigh = static_cast<DWORD>(size >> 32);
  e.PackedSize = size;
  return e;
}

// Appends an entry and its stored data at the end of the open volume the
// way adding files does: record, data, record again with the final size.
// The header is left dirty (not flushed).
inline bool AppendEntry(RecordArchive& archive, CArchiveEntry& entry,
                        const std::vector<std::uint8_t>& data) {
  entry.EntryOffset = archive.GetArchiveSize();
  entry.DataSize = 0;
  if (!archive.DoWriteEntry(entry, nullptr)) return false;
  LONG high = static_cast<LONG>(entry.DataOffset.HighPart);
  if (SetFilePointer(archive.Handle(), static_cast<LONG>(entry.DataOffset.LowPart), &high,
                     FILE_BEGIN) == INVALID_SET_FILE_POINTER &&
      GetLastError() != ERROR_SUCCESS)
    return false;
  DWORD put = 0;
  if (!data.empty() && (!::WriteFile(archive.Handle(), data.data(), static_cast<DWORD>(data.size()),
                                     &put, nullptr) ||
                        put != data.size()))
    return false;
  entry.DataSize = data.size();
  return archive.DoWriteEntry(entry, nullptr) != 0;
}

inline std::vector<std::uint8_t> AsBytes(const std::string& s) {
  return std::vector<std::uint8_t>(s.begin(), s.end());
}

// Names of the entries of the open volume, in order, as "folder\name".
inline std::vector<std::string> ListEntries(CArchiveFile& archive) {
  std::vector<std::string> names;
  CArchiveEntry e;
  CArchiveFindFile* find = archive.FindFirst(e);
  for (bool more = find != nullptr; more; more = archive.FindNext(find, e) != 0)
    names.push_back(FullName(e));
  if (find != nullptr) archive.FindClose(find);
  return names;
}

} // namespace test
