// Test archives written byte by byte from the volume format, so that the
// extracting side can be tested on exactly the records it must read:
// hostile names, damaged data, unknown methods, split entries and volume
// sets of any shape.
#pragma once

#include "support/test_support.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace xt {

// A FILETIME value used for all test items unless a test sets its own.
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

// CRC-32 as the archive stores it: reflected 0xEDB88320, initial 0, no
// final inversion.
DWORD Crc32(const std::vector<std::uint8_t>& data);

// The stored data of an item: its contents, or for method 1 the
// compressed stream.
std::vector<std::uint8_t> StoredData(const Item& item);

// The volumes of an archive holding items in order. With limit 0 there is
// one volume; otherwise no volume file grows beyond limit bytes: a record
// whose header does not fit starts the next volume, data that does not fit
// is split and continued in the next volume's first record.
std::vector<std::vector<std::uint8_t>> BuildVolumes(const std::vector<Item>& items,
                                                    std::uint64_t limit = 0);

// Writes volumes as base.000, base.001, ... (host paths).
void WriteNumberedVolumes(const std::string& hostBase,
                          const std::vector<std::vector<std::uint8_t>>& volumes);
std::string NumberedName(const std::string& hostBase, unsigned number);

// Compares two host trees: names, kinds, contents, attributes (as the
// library reports them) and all three times. Returns a description of the
// first difference, empty when equal.
std::string CompareTrees(const std::string& expectedHost, const std::string& actualHost);

// The benchmark corpus files (host paths, sorted).
std::vector<std::string> RealFiles();

// Names of everything below a host folder, relative, sorted ("a", "a/b").
std::vector<std::string> ListTree(const std::string& hostDir);

// An archive object that records the hooks it receives and answers them as
// configured.
class Recorder : public CArchiveFile {
public:
  std::vector<std::string> Calls; // hook names in order, with short details
  int DiskChangeCalls = 0;
  int ExpandNotifyCalls = 0;
  int CancelAtExpandNotify = 0; // answer 0 to this ExpandNotify call (1-based), 0: never
  int ExpandFileAnswer = 1;
  int DiskChangeAnswer = 0;
  int InvalidDiskAnswer = 0;
  std::vector<DWORD> OverwriteAnswers; // answers in turn; the last one repeats; empty: replace
  std::vector<CArchiveSize> Progress;  // second size of every ExpandNotify
  // When set, answers DiskChangeNotify (invalid false) and
  // InvalidDiskNotify (invalid true) instead of the fixed answers.
  std::function<int(DWORD diskNo, bool invalid)> OnMedia;
  std::function<void()> OnOverwrite;

  using CArchiveFile::DoCreate;
  // Counts and records the call, then does the library's work.
  int DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                   int noFirstPrompt) override;

protected:
  int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) override;
  int InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreign) override;
  COverwriteOperation OverwriteNotify(const WCHAR* targetDir, const WCHAR* entryPath,
                                      const WIN32_FIND_DATAW& existing, const WCHAR* root,
                                      const CArchiveEntry& entry) override;
  int ExpandFileNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                       const CArchiveEntry& entry) override;
  int ExpandNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                   const CArchiveEntry& entry, const CArchiveSize& first,
                   const CArchiveSize& second) override;
  int ExpandStartNotify() override;
  void ExpandCompleteNotify(int result) override;

private:
  size_t overwriteIndex_ = 0;
};

// Points the system's temporary folder (TMPDIR) at a fresh folder for the
// lifetime of the object, so that tests can see leftover temporary files.
class ScopedTempFolder {
public:
  explicit ScopedTempFolder(const std::string& hostDir);
  ~ScopedTempFolder();
  ScopedTempFolder(const ScopedTempFolder&) = delete;
  ScopedTempFolder& operator=(const ScopedTempFolder&) = delete;

private:
  std::string previous_;
  bool hadPrevious_ = false;
};

} // namespace xt
