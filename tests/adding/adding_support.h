// Shared pieces of the adding tests: a host that records its hooks and can
// be told how to answer, and readers that take archives apart through the
// entry search and the expansion driver.
#pragma once

#include "support/test_support.h"

#include <functional>
#include <string>
#include <vector>

namespace adding {

// CRC-32 as archives store it: reflected 0xEDB88320, start 0, no final
// inversion.
DWORD Crc32(const std::vector<std::uint8_t>& bytes);

// Flags that leave security capture out, for tests about other things.
constexpr CArchiveFile::CAttrFlags kNoSecurity = CArchiveFile::AttrNoSecurity;

// A host whose hooks write a line to Calls and answer through the matching
// function when one is set, else through the library's own body.
class Host : public CArchiveFile {
public:
  std::vector<std::string> Calls;

  std::function<int()> OnStart;
  std::function<int(const CArchiveEntry&)> OnFile;
  // engine: the call comes from the compression engine (ExecCompress).
  std::function<int(const CArchiveEntry&, std::uint64_t, std::uint64_t, bool engine)> OnProgress;
  std::function<CDiskFullOperation(int first)> OnDiskFull;
  std::function<int(DWORD diskNo)> OnDiskChange;
  std::function<int(DWORD diskNo, int foreign)> OnInvalidDisk;
  std::function<int(DWORD diskNo)> OnFormatNotify;
  std::function<int(DWORD diskNo)> OnDoFormat;
  std::function<void(CArchiveEntry&)> BeforeDoCompress;
  // When not 0, the compression engine is made to fail with this code after
  // it has written the temporary file.
  DWORD FailEngineWith = 0;
  // The temporary file names the engine was given.
  std::vector<std::string> TemporaryFiles;

  // Progress lines are recorded only for DoCompress's own calls unless this
  // is set.
  bool RecordEngineProgress = false;
  int EngineProgressCalls = 0;

  // The calls whose line starts with prefix.
  std::vector<std::string> CallsStartingWith(const std::string& prefix) const;

  using CArchiveFile::DoDiskFull;
  using CArchiveFile::GetTempCompressFile;

protected:
  int CompressStartNotify() override;
  void CompressCompleteNotify(int result) override;
  int CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry) override;
  int CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                     const CArchiveEntry& entry, const CArchiveSize& first,
                     const CArchiveSize& second) override;
  CDiskFullOperation DiskFullNotify(const WCHAR* root, int first) override;
  int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) override;
  int InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreign) override;
  int FormatNotify(const WCHAR* path, DWORD number) override;
  int DoFormat(const WCHAR* path, DWORD diskNo) override;
  int DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch,
                 CAttrFlags attr) override;
  int ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                   const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                   const WCHAR* source, DWORD method, DWORD& crc) override;

private:
  bool inEngine_ = false;
};

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
void SetName(CArchiveEntry& entry, const std::u16string& name);

// The entry's name with its folder, "\\"-joined, for messages and lookups.
std::string FullName(const CArchiveEntry& entry);

// Names of the entries in order.
std::vector<std::string> Names(const std::vector<CArchiveEntry>& entries);

// The names in a host folder (not recursive), sorted.
std::vector<std::string> FolderContents(const std::string& hostDir);

// Points the system's temporary directory (TMPDIR) at a folder for as long
// as it lives, so that a test can see the temporary files an add makes.
class TemporaryFolderOverride {
public:
  explicit TemporaryFolderOverride(const std::string& hostDir);
  ~TemporaryFolderOverride();
  TemporaryFolderOverride(const TemporaryFolderOverride&) = delete;
  TemporaryFolderOverride& operator=(const TemporaryFolderOverride&) = delete;

private:
  bool hadValue_ = false;
  std::string previous_;
};

FILETIME MakeFileTime(std::uint64_t value);
std::uint64_t FileTimeValue(const FILETIME& time);

} // namespace adding
