// One file or directory of an archive.
#pragma once

#include <talvern/export.h>
#include <talvern/size.h>
#include <talvern/win32.h>

// The stored security descriptor of an entry (self-relative form).
struct TALVERN_API CArchiveSecurity {
  DWORD Length = 0;     // bytes in Data; 0 when there is no descriptor
  BYTE* Data = nullptr; // owned array, or null
};

// The in-memory form of one entry record. Fields are public and read
// directly by hosts; copies are deep.
class TALVERN_API CArchiveEntry {
public:
  CArchiveOffset EntryOffset; // position of the record in its volume
  CArchiveOffset DataOffset;  // position of the stored data: EntryOffset + header size
  CArchiveSize DataSize;      // stored-data bytes that follow the record in this volume
  CArchiveSize PackedSize;    // stored-data bytes over all volumes
  DWORD CompressType = 0;     // bits 0-30 method; bit 31: continued in the next volume
  DWORD Crc = 0;              // CRC-32 of the uncompressed contents
  CString Path;               // folder inside the archive, "\\"-separated
  WIN32_FIND_DATAW FindData;  // attributes, times, size and name
  CArchiveSecurity* Security = nullptr; // owned; never null in a live entry unless allocation failed

  CArchiveEntry();
  CArchiveEntry(const CArchiveEntry& other);
  ~CArchiveEntry();
  CArchiveEntry& operator=(const CArchiveEntry& other);

  // Makes the entry exactly like a freshly constructed one.
  void Clear();

private:
  void Init();
  void Term();
  void Copy(const CArchiveEntry& other);
};
