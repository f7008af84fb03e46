// The archive object: error latch and cancellation, file name and limit,
// default times, hook defaults, and host overrides seen from inside the
// library's own operations.
#include "archive/archive_test_util.h"

#include <unistd.h>

using namespace test;

namespace {

TEST(ArchiveObject, ErrorLatchKeepsTheFirstCode) {
  CArchiveFile a;
  EXPECT_FALSE(a.IsError());
  EXPECT_EQ(a.GetErrorCode(), 0u);
  a.SetErrorCode(5);
  a.SetErrorCode(6);
  EXPECT_TRUE(a.IsError());
  EXPECT_EQ(a.GetErrorCode(), 5u);
  a.ClearError();
  EXPECT_FALSE(a.IsError());
  EXPECT_EQ(a.GetErrorCode(), 0u);
  a.SetErrorCode(6);
  EXPECT_EQ(a.GetErrorCode(), 6u);

  // A cancellation replaces whatever was latched.
  a.SetAbort();
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
  EXPECT_TRUE(a.IsAborted());
  EXPECT_TRUE(a.IsError());
  a.SetErrorCode(5);
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
  a.ClearError();
  EXPECT_FALSE(a.IsAborted());

  // The error bit and the media-changed bit are independent.
  a.SetMediaChanged();
  EXPECT_TRUE(a.IsMediaChanged());
  EXPECT_FALSE(a.IsError());
  a.SetErrorCode(1);
  a.ClearMediaChanged();
  EXPECT_FALSE(a.IsMediaChanged());
  EXPECT_TRUE(a.IsError());
}

// The host's getters give what it set; a cleared default reads as none.
TEST(ArchiveObject, DefaultTimesAreKeptUntilCleared) {
  CArchiveFile a;
  a.DefaultCreateTime(FILETIME{1, 2});
  a.DefaultLastWriteTime(FILETIME{3, 4});
  a.DefaultLastAccessTime(FILETIME{5, 6});
  a.ClearDefaultLastWriteTime();
  EXPECT_EQ(a.DefaultCreateTime().dwHighDateTime, 2u);
  EXPECT_EQ(a.DefaultLastWriteTime().dwLowDateTime, 0u);
  EXPECT_EQ(a.DefaultLastAccessTime().dwLowDateTime, 5u);
}

TEST(ArchiveObject, FileNameAndLimits) {
  TempDir dir;
  RecordArchive a;
  const CString name = dir.Win("backup/data.arc");

  // A limit of 0 stores no limit and keeps the extension.
  const CArchiveSize zero(0);
  ASSERT_TRUE(a.FileName(name.c_str(), &zero));
  EXPECT_EQ(a.LimitSize(), nullptr);
  EXPECT_EQ(CString(a.FileName()), name);

  // A limit stores the name without its extension; the copy is the
  // object's own.
  CArchiveSize limit(1457664);
  ASSERT_TRUE(a.FileName(name.c_str(), &limit));
  ASSERT_NE(a.LimitSize(), nullptr);
  EXPECT_NE(a.LimitSize(), &limit);
  EXPECT_EQ(a.LimitSize()->GetValue(), 1457664u);
  EXPECT_EQ(CString(a.FileName()), dir.Win("backup/data"));
  EXPECT_EQ(a.Data().EffectiveLimit(), 1457664u);
  limit = 5;
  EXPECT_EQ(a.LimitSize()->GetValue(), 1457664u);

  // Low half 1 000 000, high half 500 000: the first volume gets the high
  // half, later volumes the low half. A low half of 0 leaves later volumes
  // unlimited.
  CArchiveSize split;
  split.LowPart = 1000000;
  split.HighPart = 500000;
  ASSERT_TRUE(a.FileName(name.c_str(), &split));
  EXPECT_EQ(a.Data().EffectiveLimit(), 500000u);
  split.LowPart = 0;
  ASSERT_TRUE(a.FileName(name.c_str(), &split));
  EXPECT_EQ(a.Data().EffectiveLimit(), 500000u);

  // The stored name handed back changes nothing.
  const WCHAR* own = a.FileName();
  ASSERT_TRUE(a.FileName(own, a.LimitSize()));
  EXPECT_EQ(CString(a.FileName()), dir.Win("backup/data"));
  EXPECT_EQ(a.LimitSize()->HighPart, 500000u);

  // A relative name is made absolute against the current directory.
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.Host().c_str()), 0);
  ASSERT_TRUE(a.FileName(WTEXT("sub\\..\\x.arc"), nullptr));
  EXPECT_EQ(CString(a.FileName()), dir.Win("x.arc"));
  EXPECT_EQ(a.LimitSize(), nullptr);
  ASSERT_EQ(chdir(cwd), 0);

  // No name at all: the opens refuse with 148.
  ASSERT_TRUE(a.FileName(nullptr, nullptr));
  EXPECT_EQ(a.FileName()[0], 0);
  EXPECT_FALSE(a.ReadOpen());
  EXPECT_EQ(a.GetErrorCode(), ERROR_PATH_BUSY);
}

// A host class that exposes the hooks and records the calls the library
// makes to its overridable members.
class SpyArchive : public RecordArchive {
public:
  std::vector<std::string> calls;
  int refuseLoad = 0;

  using CArchiveFile::AlreadyOpenedNotify;
  using CArchiveFile::CompressFileNotify;
  using CArchiveFile::CompressNotify;
  using CArchiveFile::CompressStartNotify;
  using CArchiveFile::DiskChangeNotify;
  using CArchiveFile::DiskFullNotify;
  using CArchiveFile::ExpandFileNotify;
  using CArchiveFile::ExpandNotify;
  using CArchiveFile::ExpandStartNotify;
  using CArchiveFile::FormatNotify;
  using CArchiveFile::GetTempCompressFile;
  using CArchiveFile::InvalidDiskNotify;
  using CArchiveFile::IsFormatMediaSupported;
  using CArchiveFile::MakeBackupFile;
  using CArchiveFile::OverwriteNotify;

  int Close() override {
    calls.push_back("Close");
    return CArchiveFile::Close();
  }
  int Flush() override {
    calls.push_back("Flush");
    return CArchiveFile::Flush();
  }

protected:
  int DoLoadMedia(const WCHAR* root, int forWriting) override {
    calls.push_back("Load " + N(root) + " " + std::to_string(forWriting));
    if (refuseLoad) return 0;
    return CArchiveFile::DoLoadMedia(root, forWriting);
  }
  int DoEjectMedia(const WCHAR* root, int wasWritable) override {
    calls.push_back("Eject " + N(root) + " " + std::to_string(wasWritable));
    return CArchiveFile::DoEjectMedia(root, wasWritable);
  }
};

TEST(ArchiveObject, HookDefaults) {
  SpyArchive a;
  CArchiveEntry e;
  WIN32_FIND_DATAW fd{};
  const CArchiveSize s(1);
  EXPECT_EQ(a.DiskChangeNotify(WTEXT("A:\\"), 1, 0), 0);
  EXPECT_EQ(a.InvalidDiskNotify(WTEXT("A:\\"), 1, 1, 1), 0);
  EXPECT_EQ(a.AlreadyOpenedNotify(WTEXT("A:\\")), 0);
  EXPECT_EQ(a.IsFormatMediaSupported(), 0);
  EXPECT_EQ(a.FormatNotify(WTEXT("A:\\"), 2), 1);
  EXPECT_EQ(a.DiskFullNotify(WTEXT("A:\\"), 1), CArchiveFile::DiskFullChange);
  EXPECT_EQ(a.CompressFileNotify(WTEXT(""), WTEXT(""), WTEXT(""), e), 1);
  EXPECT_EQ(a.CompressNotify(WTEXT(""), WTEXT(""), WTEXT(""), e, s, s), 1);
  EXPECT_EQ(a.CompressStartNotify(), 1);
  EXPECT_EQ(a.OverwriteNotify(WTEXT(""), WTEXT(""), fd, WTEXT(""), e),
            CArchiveFile::OverwriteReplace);
  EXPECT_EQ(a.ExpandFileNotify(WTEXT(""), WTEXT(""), WTEXT(""), e), 1);
  EXPECT_EQ(a.ExpandNotify(WTEXT(""), WTEXT(""), WTEXT(""), e, s, s), 1);
  EXPECT_EQ(a.ExpandStartNotify(), 1);
  EXPECT_FALSE(a.IsError()); // no hook touches the error state
}

// The name members read their input before they empty their result, so a
// string can be turned into its own backup name, or name the prefix of its
// own temporary file.
TEST(ArchiveObject, NameDefaultsTakeTheirResultAsInput) {
  SpyArchive a;
  CString name = WTEXT("C:\\out\\a.txt");
  ASSERT_EQ(a.MakeBackupFile(name.c_str(), name, 1), 1);
  EXPECT_EQ(N(name), "C:\\out\\a.txt.ORG");
  ASSERT_EQ(a.MakeBackupFile(name.c_str(), name, 0), 1);
  EXPECT_EQ(N(name), "C:\\out\\a.txt.ORG.NEW");
  EXPECT_EQ(a.MakeBackupFile(nullptr, name, 1), 0);
  EXPECT_TRUE(name.empty());

  CString temp = WTEXT("TVX");
  ASSERT_NE(a.GetTempCompressFile(temp, 0, temp.c_str()), 0u);
  const CString file = temp.substr(temp.find_last_of(u'\\') + 1);
  EXPECT_EQ(N(file.substr(0, 3)), "TVX") << N(temp);
  EXPECT_TRUE(DeleteFileW(temp.c_str()));
}

TEST(ArchiveObject, OverridesAreCalledFromInside) {
  TempDir dir;
  const std::string root = N(dir.Win("x")).substr(0, 3); // the drive of the folder
  SpyArchive a;
  ASSERT_TRUE(a.FileName(dir.Win("one.arc").c_str(), nullptr));
  EXPECT_TRUE(a.calls.empty()); // nothing open: nothing to close

  ASSERT_TRUE(a.CreateOpen(1, 0));
  EXPECT_EQ(a.calls, (std::vector<std::string>{"Load " + root + " 1", "Flush"}));
  a.calls.clear();

  // FileName closes an open volume through the host's Close, which
  // flushes through the host's Flush, then releases the medium.
  ASSERT_TRUE(a.FileName(dir.Win("one.arc").c_str(), nullptr));
  EXPECT_EQ(a.calls, (std::vector<std::string>{"Close", "Flush", "Eject " + root + " 1"}));
  a.calls.clear();

  // An open on an open volume closes it first, through the override.
  ASSERT_TRUE(a.ReadOpen());
  a.calls.clear();
  ASSERT_TRUE(a.WriteOpen(0, 1));
  EXPECT_EQ(a.calls, (std::vector<std::string>{"Close", "Flush", "Eject " + root + " 0",
                                               "Load " + root + " 1", "Flush"}));
  a.calls.clear();

  ASSERT_TRUE(a.Close());
  EXPECT_EQ(a.calls, (std::vector<std::string>{"Close", "Flush", "Eject " + root + " 1"}));
}

TEST(ArchiveObject, RefusedMediaStopsTheOpenWithoutACode) {
  TempDir dir;
  const std::string root = N(dir.Win("x")).substr(0, 3); // the drive of the folder
  SpyArchive a;
  a.refuseLoad = 1;
  ASSERT_TRUE(a.FileName(dir.Win("sub/new.arc").c_str(), nullptr));
  EXPECT_FALSE(a.CreateOpen(1, 1));
  EXPECT_FALSE(a.IsError());
  EXPECT_FALSE(a.IsOpen());
  EXPECT_EQ(a.calls, (std::vector<std::string>{"Load " + root + " 1"}));
  EXPECT_FALSE(Exists(dir.Host("sub"))); // refused before any folder is made
}

TEST(ArchiveObject, DestructorClosesAndCommits) {
  TempDir dir;
  {
    RecordArchive a;
    ASSERT_TRUE(a.FileName(dir.Win("d.arc").c_str(), nullptr));
    ASSERT_TRUE(a.CreateOpen(1, 0));
    CArchiveEntry e = FileEntry(WTEXT("x"), CString(), 3);
    ASSERT_TRUE(AppendEntry(a, e, AsBytes("abc")));
  }
  RecordArchive b;
  ASSERT_TRUE(b.FileName(dir.Win("d.arc").c_str(), nullptr));
  ASSERT_TRUE(b.ReadOpen());
  EXPECT_EQ(ListEntries(b), std::vector<std::string>{"x"});
}

} // namespace
