// The common set-up of the extracting tests: a temporary folder holding the
// archive, the target directory and the system's temporary folder.
#pragma once

#include "archive_writer.h"

#include <gtest/gtest.h>

namespace xt {

class ExtractTest : public ::testing::Test {
protected:
  ExtractTest() : temporaries_(tmp.Host("systemp")) {}

  // Writes a one-volume archive at ArchiveHost() and names it.
  void WriteArchive(const std::vector<Item>& items) {
    const auto volumes = BuildVolumes(items);
    test::WriteFile(ArchiveHost(), volumes.at(0));
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

  // Finds the entry named name (folder path + name, "\\"-separated) in the
  // open volume.
  bool FindEntry(const std::string& fullName, CArchiveEntry& entry) {
    CArchiveFindFile* find = archive.FindFirst(entry);
    bool found = false;
    while (find != nullptr) {
      CString full = entry.Path.empty() ? CString() : entry.Path + u'\\';
      full += entry.FindData.cFileName;
      if (full == test::W(fullName)) {
        found = true;
        break;
      }
      if (!archive.FindNext(find, entry)) break;
    }
    if (find != nullptr) archive.FindClose(find);
    return found;
  }

  test::TempDir tmp;
  Recorder archive;
  std::vector<std::vector<std::uint8_t>> volumes;

private:
  ScopedTempFolder temporaries_;
};

inline DWORD Attributes(const std::string& host) {
  return GetFileAttributesW(talvern::HostPathToWindows(host).c_str());
}

inline std::uint64_t LastWrite(const std::string& host) {
  WIN32_FIND_DATAW data{};
  const HANDLE h = FindFirstFileW(talvern::HostPathToWindows(host).c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return 0;
  ::FindClose(h);
  return (static_cast<std::uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
         data.ftLastWriteTime.dwLowDateTime;
}

} // namespace xt
