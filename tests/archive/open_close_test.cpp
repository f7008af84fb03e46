// Opening, committing, rolling back and closing volumes on a fixed drive,
// and the archive object's error latch.
#include "archive/archive_test_util.h"

using namespace test;

namespace {

// The whole file behind an open handle, read through that handle (the
// archive keeps a volume open for writing unshared: on Windows nobody else
// may read it); the position is kept.
std::vector<std::uint8_t> ReadThrough(HANDLE file) {
  LONG high = 0;
  const DWORD low = SetFilePointer(file, 0, &high, FILE_CURRENT);
  LONG zero = 0;
  SetFilePointer(file, 0, &zero, FILE_BEGIN);
  std::vector<std::uint8_t> bytes;
  BYTE piece[4096];
  DWORD got = 0;
  while (::ReadFile(file, piece, sizeof piece, &got, nullptr) && got != 0)
    bytes.insert(bytes.end(), piece, piece + got);
  SetFilePointer(file, static_cast<LONG>(low), &high, FILE_BEGIN);
  return bytes;
}

class OpenCloseTest : public ::testing::Test {
protected:
  TempDir dir;
  RecordArchive a;
  std::string host = dir.Host("v.arc");

  void Name(const std::string& relative = "v.arc") {
    ASSERT_TRUE(a.FileName(dir.Win(relative).c_str(), nullptr));
  }

  // A committed volume holding the named entries, one byte of data each.
  void MakeVolume(const std::vector<std::string>& names) {
    Name();
    ASSERT_TRUE(a.CreateOpen(1, 1));
    for (const std::string& n : names) {
      CArchiveEntry e = FileEntry(W(n), CString(), 1);
      ASSERT_TRUE(AppendEntry(a, e, AsBytes("#")));
    }
    ASSERT_TRUE(a.Close());
  }
};

TEST_F(OpenCloseTest, ReadOpenRejections) {
  struct Case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    DWORD code;
  };
  std::vector<std::uint8_t> nineteen = Bytes().Header(20).Get();
  nineteen.pop_back();
  std::vector<std::uint8_t> badMagic = Bytes().Header(20).Get();
  badMagic[0] = 'a';
  std::vector<std::uint8_t> badMarker = Bytes().Header(20).Get();
  badMarker[8] = 0x1B;
  const std::vector<Case> cases = {
      {"19 bytes", nineteen, ERROR_INVALID_DATATYPE},
      {"empty file", {}, ERROR_INVALID_DATATYPE},
      {"version 1", Bytes().Header(20, 0, 1).Get(), ERROR_INVALID_DATATYPE},
      {"magic", badMagic, ERROR_INVALID_DATATYPE},
      {"marker", badMarker, ERROR_INVALID_DATATYPE},
      {"archive size inside the header", Bytes().Header(19).Get(), ERROR_INVALID_DATATYPE},
  };
  Name();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(host, c.bytes);
    a.ClearError();
    EXPECT_FALSE(a.ReadOpen());
    EXPECT_EQ(a.GetErrorCode(), c.code);
    EXPECT_FALSE(a.IsOpen());
    EXPECT_EQ(ReadFile(host), c.bytes); // a reader never changes the file
  }

  a.ClearError();
  Name("missing.arc");
  EXPECT_FALSE(a.ReadOpen());
  EXPECT_EQ(a.GetErrorCode(), ERROR_FILE_NOT_FOUND);
  Name("nowhere/x.arc");
  EXPECT_FALSE(a.ReadOpen());
  EXPECT_EQ(a.GetErrorCode(), ERROR_PATH_NOT_FOUND);
  EXPECT_FALSE(Exists(dir.Host("nowhere")));
}

TEST_F(OpenCloseTest, UncommittedNewVolumeIsDeletedOnAFailedClose) {
  Name();
  ASSERT_TRUE(a.CreateOpen(1, 1));
  a.SetErrorCode(ERROR_WRITE_FAULT); // an operation failed before any commit
  EXPECT_TRUE(a.Close());
  EXPECT_FALSE(Exists(host));
  EXPECT_TRUE(a.IsError()); // the latch survives the close
  EXPECT_EQ(a.GetErrorCode(), ERROR_WRITE_FAULT);

  // The same volume closed without an error stays.
  a.ClearError();
  ASSERT_TRUE(a.CreateOpen(1, 1));
  ASSERT_TRUE(a.Close());
  EXPECT_TRUE(Exists(host));

  // A volume that existed before the open is never deleted.
  ASSERT_TRUE(a.WriteOpen(0, 1));
  a.SetErrorCode(ERROR_WRITE_FAULT);
  a.Close();
  EXPECT_EQ(ReadFile(host), Bytes().Header(20).Get());
}

// Whatever fails while a file that existed before the open is open for
// writing, the file is not deleted: not an empty file that is no archive,
// and not an archive whose open failed half-way.
TEST_F(OpenCloseTest, FailedWriteOpenNeverDeletesAnExistingFile) {
  WriteFile(host, "");
  Name();
  EXPECT_FALSE(a.WriteOpen(0, 0));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_DATATYPE);
  EXPECT_TRUE(Exists(host));

  MakeVolume({"a"});
  ASSERT_TRUE(a.WriteOpen(0, 1));
  // A failure before anything was committed, as when the size query fails.
  a.Data().CommittedSize = 0;
  a.SetErrorCode(ERROR_READ_FAULT);
  a.Close();
  EXPECT_TRUE(Exists(host));
}

TEST_F(OpenCloseTest, FlushCommitsTheHeaderAndTrimsTheFile) {
  MakeVolume({"a"});
  const std::uint64_t committed = ReadFile(host).size();
  ASSERT_TRUE(a.WriteOpen(0, 1));

  // Bytes beyond the archive size (an unfinished record) are not part of
  // the volume and go at the next commit.
  const std::vector<std::uint8_t> garbage(300, 0xEE);
  DWORD put = 0;
  LONG high = 0;
  SetFilePointer(a.Handle(), 0, &high, FILE_END);
  ASSERT_TRUE(::WriteFile(a.Handle(), garbage.data(), 300, &put, nullptr));
  CArchiveEntry e = FileEntry(WTEXT("b"), CString(), 2);
  ASSERT_TRUE(AppendEntry(a, e, AsBytes("bb")));
  EXPECT_EQ(e.EntryOffset.GetValue(), committed);
  // Still the old header on disk: readers see only "a".
  EXPECT_EQ(ReadThrough(a.Handle())[12], static_cast<std::uint8_t>(committed));

  ASSERT_TRUE(a.Flush());
  const auto file = ReadThrough(a.Handle());
  EXPECT_EQ(file.size(), a.GetArchiveSize().GetValue());
  EXPECT_EQ(file[12], static_cast<std::uint8_t>(file.size()));
  EXPECT_EQ(a.Data().CommittedSize, file.size());
  EXPECT_FALSE(a.Data().Flags & FlagHeaderDirty);
  ASSERT_TRUE(a.Close());
  ASSERT_TRUE(a.ReadOpen());
  EXPECT_EQ(ListEntries(a), (std::vector<std::string>{"a", "b"}));
}

TEST_F(OpenCloseTest, LatchedErrorCutsBackToTheCommittedSize) {
  MakeVolume({"a"});
  const auto before = ReadFile(host);
  ASSERT_TRUE(a.WriteOpen(0, 1));
  CArchiveEntry e = FileEntry(WTEXT("b"), CString(), 2);
  ASSERT_TRUE(AppendEntry(a, e, AsBytes("bb")));
  // The operation gives up; its header change is abandoned.
  a.Data().Header.ArchiveSize = before.size();
  a.Data().Flags &= ~FlagHeaderDirty;
  a.SetErrorCode(ERROR_CRC);
  EXPECT_TRUE(a.Flush());
  EXPECT_EQ(ReadThrough(a.Handle()), before);
  EXPECT_EQ(a.GetArchiveSize().GetValue(), before.size());
  EXPECT_TRUE(a.Close());
  EXPECT_EQ(ReadFile(host), before);
}

TEST(ArchiveObject, ErrorLatchKeepsTheFirstCodeAndCancellationReplacesIt) {
  CArchiveFile a;
  a.SetErrorCode(5);
  a.SetErrorCode(6);
  EXPECT_EQ(a.GetErrorCode(), 5u);
  a.SetMediaChanged(); // independent of the error bit
  a.ClearError();
  EXPECT_FALSE(a.IsError());
  EXPECT_TRUE(a.IsMediaChanged());
  a.SetErrorCode(6);
  a.SetAbort();
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
  a.SetErrorCode(5);
  EXPECT_TRUE(a.IsAborted() && a.IsError());
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
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
