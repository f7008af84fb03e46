#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace adding {

DWORD Crc32(const std::vector<std::uint8_t>& bytes) {
  DWORD crc = 0;
  for (std::uint8_t b : bytes) {
    crc ^= b;
    for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc;
}

std::vector<std::string> Host::CallsStartingWith(const std::string& prefix) const {
  std::vector<std::string> out;
  for (const auto& c : Calls)
    if (c.rfind(prefix, 0) == 0) out.push_back(c);
  return out;
}

int Host::CompressStartNotify() {
  Calls.push_back("start");
  return OnStart ? OnStart() : CArchiveFile::CompressStartNotify();
}

void Host::CompressCompleteNotify(int result) {
  Calls.push_back("complete:" + std::to_string(result));
  CArchiveFile::CompressCompleteNotify(result);
}

int Host::CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                             const CArchiveEntry& entry) {
  Calls.push_back("file:" + test::N(root) + "|" + test::N(sourceDir) + "|" + test::N(entryPath) +
                  "|" + test::N(entry.FindData.cFileName));
  return OnFile ? OnFile(entry)
                : CArchiveFile::CompressFileNotify(root, sourceDir, entryPath, entry);
}

int Host::CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry, const CArchiveSize& first,
                         const CArchiveSize& second) {
  if (inEngine_) ++EngineProgressCalls;
  if (!inEngine_ || RecordEngineProgress)
    Calls.push_back(std::string(inEngine_ ? "engine:" : "progress:") +
                    std::to_string(first.GetValue()) + "/" + std::to_string(second.GetValue()));
  if (OnProgress) return OnProgress(entry, first.GetValue(), second.GetValue(), inEngine_);
  return CArchiveFile::CompressNotify(root, sourceDir, entryPath, entry, first, second);
}

CArchiveFile::CDiskFullOperation Host::DiskFullNotify(const WCHAR* root, int first) {
  Calls.push_back("diskfull:" + std::to_string(first));
  return OnDiskFull ? OnDiskFull(first) : CArchiveFile::DiskFullNotify(root, first);
}

int Host::DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) {
  Calls.push_back("diskchange:" + std::to_string(diskNo) + "," + std::to_string(forWriting));
  return OnDiskChange ? OnDiskChange(diskNo)
                      : CArchiveFile::DiskChangeNotify(root, diskNo, forWriting);
}

int Host::InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreign) {
  Calls.push_back("invalid:" + std::to_string(diskNo) + "," + std::to_string(forWriting) + "," +
                  std::to_string(foreign));
  return OnInvalidDisk ? OnInvalidDisk(diskNo, foreign)
                       : CArchiveFile::InvalidDiskNotify(root, diskNo, forWriting, foreign);
}

int Host::FormatNotify(const WCHAR* path, DWORD number) {
  Calls.push_back("formatnotify:" + std::to_string(number));
  return OnFormatNotify ? OnFormatNotify(number) : CArchiveFile::FormatNotify(path, number);
}

int Host::DoFormat(const WCHAR* path, DWORD diskNo) {
  Calls.push_back("doformat:" + std::to_string(diskNo));
  return OnDoFormat ? OnDoFormat(diskNo) : CArchiveFile::DoFormat(path, diskNo);
}

int Host::DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch,
                     CAttrFlags attr) {
  if (BeforeDoCompress) BeforeDoCompress(entry);
  return CArchiveFile::DoCompress(root, baseDir, entry, srch, attr);
}

int Host::ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                       const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                       const WCHAR* source, DWORD method, DWORD& crc) {
  TemporaryFiles.push_back(talvern::WindowsPathToHost(target));
  inEngine_ = true;
  const int result =
      CArchiveFile::ExecCompress(error, arg1, arg2, arg3, entry, size, target, source, method, crc);
  inEngine_ = false;
  if (result && FailEngineWith != 0) {
    error = FailEngineWith;
    return 0;
  }
  return result;
}

std::vector<std::uint8_t> Volume::Data(const CArchiveEntry& entry) const {
  const std::uint64_t at = entry.DataOffset.GetValue();
  const std::uint64_t size = entry.DataSize.GetValue();
  if (at > Bytes.size() || size > Bytes.size() - at) {
    ADD_FAILURE() << "data of " << FullName(entry) << " lies outside the volume";
    return {};
  }
  return std::vector<std::uint8_t>(Bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                   Bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
}

Volume ReadVolume(const CString& path) {
  Volume volume;
  CArchiveFile archive;
  EXPECT_EQ(archive.FileName(path.c_str(), nullptr), 1);
  if (!archive.ReadOpen()) {
    ADD_FAILURE() << "cannot open " << test::N(path) << ": error " << archive.GetErrorCode();
    return volume;
  }
  volume.Number = archive.GetDiskNo();
  volume.Continues = archive.IsContinue() != 0;
  volume.ArchiveSize = archive.GetArchiveSize().GetValue();
  CArchiveEntry entry;
  CArchiveFindFile* find = archive.FindFirst(entry);
  if (find != nullptr) {
    do {
      volume.Entries.push_back(entry);
    } while (archive.FindNext(find, entry));
    archive.FindClose(find);
  }
  EXPECT_EQ(archive.GetErrorCode(), ERROR_HANDLE_EOF) << "walk of " << test::N(path);
  archive.Close();
  volume.Bytes = test::ReadFile(talvern::WindowsPathToHost(path.c_str()));
  return volume;
}

namespace {

// Opens the expansion driver to the tests.
class Expander : public CArchiveFile {
public:
  int Run(DWORD& error, const CArchiveEntry& entry, const WCHAR* target, const WCHAR* source) {
    return ExecExpand(error, nullptr, nullptr, nullptr, entry, CArchiveSize(), target, source,
                      entry.CompressType & 0x7FFFFFFFu, entry.Crc);
  }
};

} // namespace

bool Expand(const std::vector<std::uint8_t>& stored, const CArchiveEntry& entry,
            std::vector<std::uint8_t>& out, DWORD& error) {
  test::TempDir dir;
  test::WriteFile(dir.Host("stored"), stored);
  Expander expander;
  error = ERROR_SUCCESS;
  const int ok = expander.Run(error, entry, dir.Win("expanded").c_str(), dir.Win("stored").c_str());
  out = test::ReadFile(dir.Host("expanded"));
  return ok != 0;
}

void SetName(CArchiveEntry& entry, const std::u16string& name) {
  std::fill(std::begin(entry.FindData.cFileName), std::end(entry.FindData.cFileName), u'\0');
  std::copy(name.begin(), name.end(), entry.FindData.cFileName);
}

std::string FullName(const CArchiveEntry& entry) {
  const std::string name = test::N(entry.FindData.cFileName);
  return entry.Path.empty() ? name : test::N(entry.Path) + "\\" + name;
}

std::vector<std::string> Names(const std::vector<CArchiveEntry>& entries) {
  std::vector<std::string> names;
  for (const auto& e : entries) names.push_back(FullName(e));
  return names;
}

std::vector<std::string> FolderContents(const std::string& hostDir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(hostDir, ec))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TemporaryFolderOverride::TemporaryFolderOverride(const std::string& hostDir) {
  const char* previous = std::getenv("TMPDIR");
  hadValue_ = previous != nullptr;
  if (hadValue_) previous_ = previous;
  fs::create_directories(hostDir);
  setenv("TMPDIR", hostDir.c_str(), 1);
}

TemporaryFolderOverride::~TemporaryFolderOverride() {
  if (hadValue_)
    setenv("TMPDIR", previous_.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

FILETIME MakeFileTime(std::uint64_t value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

std::uint64_t FileTimeValue(const FILETIME& time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

} // namespace adding
