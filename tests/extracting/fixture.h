// The common set-up of the extracting tests: a host that records the hooks
// it receives, and a temporary folder holding the archive, the target
// directory and the system's temporary folder.
#pragma once

#include "support/archive_support.h"

#include <gtest/gtest.h>

namespace xt {

using namespace test;

// An archive object that records the hooks it receives and answers them as
// configured.
class Recorder : public CArchiveFile {
public:
  std::vector<std::string> Calls; // hook names in order, with short details
  int DiskChangeCalls = 0;
  int CancelAtExpandNotify = 0;        // answer 0 to this ExpandNotify call (1-based), 0: never
  std::vector<DWORD> OverwriteAnswers; // answers in turn; the last one repeats; empty: replace
  std::vector<CArchiveSize> Progress;  // second size of every ExpandNotify

  // Counts and records the call, then does the library's work.
  int DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                   int noFirstPrompt) override;

protected:
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

using V = std::vector<std::string>;

class ExtractTest : public ::testing::Test {
protected:
  ExtractTest() : temporaries_(tmp.Host("systemp")) {}

  // Writes a one-volume archive at ArchiveHost() and names it.
  void WriteArchive(const std::vector<Item>& items) {
    WriteFile(ArchiveHost(), BuildVolumes(items).at(0));
    ASSERT_TRUE(archive.FileName(Win(ArchiveHost()).c_str(), nullptr));
  }

  // Writes a numbered set base.000, base.001, ... and names it with a limit.
  void WriteNumberedSet(const std::vector<Item>& items, std::uint64_t limit) {
    volumes = BuildVolumes(items, limit);
    WriteNumberedVolumes(tmp.Host("set"), volumes);
    const CArchiveSize size(static_cast<DWORD>(limit));
    ASSERT_TRUE(archive.FileName(Win(tmp.Host("set.arc")).c_str(), &size));
  }

  std::string ArchiveHost() const { return tmp.Host("archive.arc"); }
  std::string Out(const std::string& relative = "") const {
    return relative.empty() ? tmp.Host("out") : tmp.Host("out/" + relative);
  }
  CString OutWin() const { return Win(Out()); }
  static CString Win(const std::string& host) { return talvern::HostPathToWindows(host); }

  // Files left in the system's temporary folder.
  std::vector<std::string> Temporaries() const { return ListTree(tmp.Host("systemp")); }

  int ExpandAll(CArchiveFile::CSrchFlags srch = {}, CArchiveFile::CAttrFlags attr = {}) {
    return archive.ExpandAll(OutWin().c_str(), srch, attr);
  }

  // Finds the entry named fullName (folder path + name, "\\"-separated) in
  // the open volume.
  bool FindEntry(const std::string& fullName, CArchiveEntry& entry) {
    CArchiveFindFile* find = archive.FindFirst(entry);
    bool found = false;
    while (find != nullptr && !(found = FullName(entry) == fullName))
      if (!archive.FindNext(find, entry)) break;
    if (find != nullptr) archive.FindClose(find);
    return found;
  }

  TempDir tmp;
  Recorder archive;
  std::vector<std::vector<std::uint8_t>> volumes;

private:
  ScopedTemporaryFolder temporaries_;
};

inline DWORD Attributes(const std::string& host) {
  return GetFileAttributesW(talvern::HostPathToWindows(host).c_str());
}

} // namespace xt
