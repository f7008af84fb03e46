// Archive-level helpers shared by the test programs: volumes written byte
// by byte from the format, volumes read back record by record, trees
// compared, and the system's temporary folder pointed elsewhere.
#pragma once

#include "support/test_support.h"

#include <cstdint>
#include <string>
#include <vector>

namespace test {

// CRC-32 as archives store it: reflected 0xEDB88320, start 0, no final
// inversion.
DWORD Crc32(const std::vector<std::uint8_t>& bytes);

FILETIME MakeFileTime(std::uint64_t value);
std::uint64_t FileTimeValue(const FILETIME& time);

// What a search finds for a host path; zeroes when nothing is there.
WIN32_FIND_DATAW Look(const std::string& host);
inline std::uint64_t LastWrite(const std::string& host) {
  return FileTimeValue(Look(host).ftLastWriteTime);
}

// The self-relative descriptor the system gives for a Windows path (owner,
// group, DACL unless told otherwise); empty when it cannot be read.
std::vector<std::uint8_t> DescriptorOf(const CString& path,
                                       DWORD what = OWNER_SECURITY_INFORMATION |
                                                    GROUP_SECURITY_INFORMATION |
                                                    DACL_SECURITY_INFORMATION);

// The volume a one-file archive of "a.txt" holding "hi" gives, all three
// times 0x01DA1B2C3D4E5F60, attributes FILE_ATTRIBUTE_ARCHIVE.
extern const std::vector<std::uint8_t> kWorkedExample;

// Little-endian byte builder for hand-made volumes and records.
class Bytes {
public:
  Bytes& U8(std::uint8_t v) {
    data_.push_back(v);
    return *this;
  }
  Bytes& U16(std::uint16_t v) { return Le(v, 2); }
  Bytes& U32(std::uint32_t v) { return Le(v, 4); }
  Bytes& U64(std::uint64_t v) { return Le(v, 8); }
  Bytes& Ascii(const std::string& s) {
    data_.insert(data_.end(), s.begin(), s.end());
    return *this;
  }
  // A string as records hold it: 16-bit count, then the code units.
  Bytes& Str(const CString& s) {
    U16(static_cast<std::uint16_t>(s.size()));
    for (WCHAR c : s) U16(c);
    return *this;
  }
  Bytes& Raw(const std::vector<std::uint8_t>& v) {
    data_.insert(data_.end(), v.begin(), v.end());
    return *this;
  }
  Bytes& Zeros(size_t n) {
    data_.insert(data_.end(), n, 0);
    return *this;
  }
  // A volume header with the given volume word and archive size.
  Bytes& Header(std::uint64_t archiveSize, std::uint16_t volumeWord = 0, std::uint8_t version = 0) {
    return Ascii("ArchFile").U8(0x1A).U8(version).U16(volumeWord).U64(archiveSize);
  }
  const std::vector<std::uint8_t>& Get() const { return data_; }
  size_t Size() const { return data_.size(); }

private:
  Bytes& Le(std::uint64_t v, int n) {
    for (int i = 0; i < n; ++i) data_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  std::vector<std::uint8_t> data_;
};

// ---- Volumes written from the format ------------------------------------------------------

// A FILETIME value used for all items unless a test sets its own.
constexpr std::uint64_t kTime = 0x01DA1B2C3D4E5F60ull;

struct Item {
  CString Path; // folder inside the archive, "\\"-separated
  CString Name; // the entry's own name
  DWORD Attributes = FILE_ATTRIBUTE_ARCHIVE;
  std::uint64_t Creation = kTime;
  std::uint64_t LastAccess = kTime + 10000000;
  std::uint64_t LastWrite = kTime + 20000000;
  std::vector<std::uint8_t> Contents; // what the file holds
  DWORD Method = 0;                   // 0 stored, 1 compressed, anything else stored as is
  std::vector<std::uint8_t> Security; // stored descriptor bytes
  bool CorruptCrc = false;            // record a CRC that does not match the contents

  bool IsDirectory() const { return (Attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

Item File(const std::string& path, const std::string& name, const std::string& contents,
          DWORD method = 0);
Item File(const std::string& path, const std::string& name,
          const std::vector<std::uint8_t>& contents, DWORD method = 0);
Item Dir(const std::string& path, const std::string& name);

// The volumes of an archive holding items in order. With limit 0 there is
// one volume; otherwise no volume file grows beyond limit bytes: a record
// whose header does not fit starts the next volume, data that does not fit
// is split and continued in the next volume's first record.
std::vector<std::vector<std::uint8_t>> BuildVolumes(const std::vector<Item>& items,
                                                    std::uint64_t limit = 0);

// base.000, base.001, ... (host paths).
std::string NumberedName(const std::string& hostBase, unsigned number);
void WriteNumberedVolumes(const std::string& hostBase,
                          const std::vector<std::vector<std::uint8_t>>& volumes);

// ---- Volumes read back --------------------------------------------------------------------

// One volume as the entry search sees it.
struct Volume {
  DWORD Number = 0;
  bool Continues = false;
  std::uint64_t ArchiveSize = 0;
  std::vector<CArchiveEntry> Entries;
  std::vector<std::uint8_t> Bytes; // the whole volume file

  // The stored data that follows an entry's record in this volume.
  std::vector<std::uint8_t> Data(const CArchiveEntry& entry) const;
};

// Reads a volume file (Windows path) record by record; fails the test when
// the file is not a volume or a record cannot be read.
Volume ReadVolume(const CString& path);

// Expands stored data of an entry through the archive object's driver;
// true with the original bytes in out, false with the driver's error.
bool Expand(const std::vector<std::uint8_t>& stored, const CArchiveEntry& entry,
            std::vector<std::uint8_t>& out, DWORD& error);

// Sets the entry's own name (cFileName).
void SetName(CArchiveEntry& entry, const CString& name);

// The entry's name with its folder, "\\"-joined.
std::string FullName(const CArchiveEntry& entry);
std::vector<std::string> Names(const std::vector<CArchiveEntry>& entries);

// ---- Host trees ---------------------------------------------------------------------------

// Names of everything below a host folder, relative, sorted ("a", "a/b").
std::vector<std::string> ListTree(const std::string& hostDir);
// The names directly in a host folder, sorted.
std::vector<std::string> FolderContents(const std::string& hostDir);

// Compares two host trees: names, kinds and contents, and with metadata
// also attributes and all three times. Returns a description of the first
// difference, empty when equal.
std::string CompareTrees(const std::string& expectedHost, const std::string& actualHost,
                         bool metadata = true);

// Points the system's temporary folder (TMPDIR) at a host folder, created
// if need be, for the lifetime of the object.
class ScopedTemporaryFolder {
public:
  explicit ScopedTemporaryFolder(const std::string& hostDir);
  ~ScopedTemporaryFolder();
  ScopedTemporaryFolder(const ScopedTemporaryFolder&) = delete;
  ScopedTemporaryFolder& operator=(const ScopedTemporaryFolder&) = delete;

private:
  bool hadValue_ = false;
  std::string previous_;
};

// A host whose temporary-file member names `name` and then fails with
// ERROR_ACCESS_DENIED: the named file was never reserved by the library, so
// an add or extract that fails this way must leave it alone.
template <class Base> struct NamesTemporaryThenFails : Base {
  CString name;
  UINT GetTempCompressFile(CString& result, UINT, const WCHAR*) const override {
    result = name;
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
};

} // namespace test
