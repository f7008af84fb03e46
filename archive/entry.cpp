// CArchiveEntry: deep copies, clearing, and ownership of the security block.
#include <talvern/entry.h>

#include <cstring>
#include <new>

CArchiveEntry::CArchiveEntry() { Init(); }

CArchiveEntry::CArchiveEntry(const CArchiveEntry& other) {
  std::memset(&FindData, 0, sizeof(FindData));
  Security = new (std::nothrow) CArchiveSecurity();
  Copy(other);
}

CArchiveEntry::~CArchiveEntry() { Term(); }

CArchiveEntry& CArchiveEntry::operator=(const CArchiveEntry& other) {
  if (this != &other) Copy(other);
  return *this;
}

void CArchiveEntry::Clear() {
  Term();
  Init();
}

void CArchiveEntry::Init() {
  EntryOffset = 0;
  DataOffset = 0;
  DataSize = 0;
  PackedSize = 0;
  CompressType = 0;
  Crc = 0;
  Path.clear();
  std::memset(&FindData, 0, sizeof(FindData));
  Security = new (std::nothrow) CArchiveSecurity();
}

void CArchiveEntry::Term() {
  if (Security != nullptr) {
    delete[] Security->Data;
    Security->Data = nullptr;
    Security->Length = 0;
    delete Security;
    Security = nullptr;
  }
}

void CArchiveEntry::Copy(const CArchiveEntry& other) {
  Term();
  EntryOffset = other.EntryOffset;
  DataOffset = other.DataOffset;
  DataSize = other.DataSize;
  PackedSize = other.PackedSize;
  CompressType = other.CompressType;
  Crc = other.Crc;
  Path = other.Path;
  std::memcpy(&FindData, &other.FindData, sizeof(FindData));
  if (other.Security != nullptr) {
    Security = new (std::nothrow) CArchiveSecurity();
    if (Security != nullptr && other.Security->Length != 0 && other.Security->Data != nullptr) {
      Security->Data = new (std::nothrow) BYTE[other.Security->Length];
      if (Security->Data != nullptr) {
        std::memcpy(Security->Data, other.Security->Data, other.Security->Length);
        Security->Length = other.Security->Length;
      }
    }
  }
}
