// Walking the records of a volume with search handles.
#include "archive/archive_test_util.h"

using namespace test;

namespace {

class SearchTest : public ::testing::Test {
protected:
  TempDir dir;
  RecordArchive a;
  std::uint64_t archiveSize = 0;

  // A volume with a directory, a file in it and a top-level file, open for
  // reading.
  void SetUp() override {
    ASSERT_TRUE(a.FileName(dir.Win("s.arc").c_str(), nullptr));
    ASSERT_TRUE(a.CreateOpen(1, 1));
    CArchiveEntry d = FileEntry(WTEXT("dir"));
    d.FindData.dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    CArchiveEntry f = FileEntry(WTEXT("inner.txt"), WTEXT("dir"), 5);
    CArchiveEntry g = FileEntry(WTEXT("top.bin"), CString(), 300);
    ASSERT_TRUE(AppendEntry(a, d, {}));
    ASSERT_TRUE(AppendEntry(a, f, AsBytes("12345")));
    ASSERT_TRUE(AppendEntry(a, g, RandomBytes(300, 3)));
    ASSERT_TRUE(a.Close());
    ASSERT_TRUE(a.ReadOpen());
    archiveSize = a.GetArchiveSize().GetValue();
  }
};

TEST_F(SearchTest, WalkThreeRecords) {
  CArchiveEntry e;
  CArchiveFindFile* find = a.FindFirst(e);
  ASSERT_NE(find, nullptr);
  EXPECT_EQ(N(e.FindData.cFileName), "dir");
  EXPECT_EQ(e.EntryOffset.GetValue(), 20u);
  EXPECT_EQ(a.FindGetPos(find).GetValue(), 20u + 78);

  ASSERT_TRUE(a.FindNext(find, e));
  EXPECT_EQ(N(e.Path), "dir");
  EXPECT_EQ(N(e.FindData.cFileName), "inner.txt");
  EXPECT_EQ(e.DataSize.GetValue(), 5u);
  ASSERT_TRUE(a.FindNext(find, e));
  EXPECT_EQ(N(e.FindData.cFileName), "top.bin");
  EXPECT_EQ(e.DataOffset.GetValue() + 300, archiveSize);

  // The end: 38, the entry cleared, the position unchanged.
  EXPECT_FALSE(a.FindNext(find, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_HANDLE_EOF);
  EXPECT_EQ(e.FindData.cFileName[0], 0);
  EXPECT_EQ(e.DataSize.GetValue(), 0u);
  EXPECT_EQ(a.FindGetPos(find).GetValue(), archiveSize);
  EXPECT_TRUE(a.FindClose(find));
}

TEST_F(SearchTest, PositionsCanBeSavedRestoredAndSet) {
  CArchiveEntry first, e;
  CArchiveFindFile* find = a.FindFirst(first);
  ASSERT_NE(find, nullptr);
  ASSERT_TRUE(a.FindNext(find, e));
  const CArchiveOffset afterSecond = a.FindGetPos(find);

  // A second handle walks on its own.
  CArchiveFindFile* other = a.FindCreate();
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(a.FindGetPos(other).GetValue(), 20u);
  ASSERT_TRUE(a.FindNext(other, e));
  EXPECT_EQ(N(e.FindData.cFileName), "dir");

  // Just behind a known entry; a cleared entry restarts.
  ASSERT_TRUE(a.FindSetPos(other, first));
  ASSERT_TRUE(a.FindNext(other, e));
  EXPECT_EQ(N(e.FindData.cFileName), "inner.txt");
  CArchiveEntry cleared;
  ASSERT_TRUE(a.FindSetPos(other, cleared));
  EXPECT_EQ(a.FindGetPos(other).GetValue(), 20u);

  // Saved position, null and 0 restart, 19 and beyond the end are 132,
  // the end itself is allowed and the next step there is 38.
  ASSERT_TRUE(a.FindSetPos(other, &afterSecond));
  ASSERT_TRUE(a.FindNext(other, e));
  EXPECT_EQ(N(e.FindData.cFileName), "top.bin");
  ASSERT_TRUE(a.FindSetPos(other, static_cast<const CArchiveOffset*>(nullptr)));
  EXPECT_EQ(a.FindGetPos(other).GetValue(), 20u);
  const CArchiveOffset zero(0), nineteen(19), end(archiveSize), past(archiveSize + 1);
  ASSERT_TRUE(a.FindSetPos(other, &end));
  ASSERT_TRUE(a.FindSetPos(other, &zero));
  EXPECT_EQ(a.FindGetPos(other).GetValue(), 20u);
  EXPECT_FALSE(a.FindSetPos(other, &nineteen));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
  a.ClearError();
  EXPECT_FALSE(a.FindSetPos(other, &past));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
  a.ClearError();
  EXPECT_EQ(a.FindGetPos(other).GetValue(), 20u); // failures keep the position
  ASSERT_TRUE(a.FindSetPos(other, &end));
  EXPECT_FALSE(a.FindNext(other, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_HANDLE_EOF);
  a.ClearError();

  // An entry whose data would end beyond the archive is 132.
  CArchiveEntry beyond = first;
  beyond.DataSize = archiveSize;
  EXPECT_FALSE(a.FindSetPos(other, beyond));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
  a.ClearError();
  beyond.DataOffset = 0xFFFFFFFFFFFFFFF0ull; // overflow
  EXPECT_FALSE(a.FindSetPos(other, beyond));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);

  EXPECT_TRUE(a.FindClose(other));
  EXPECT_TRUE(a.FindClose(find));
}

TEST_F(SearchTest, NullHandlesAndClosedVolumes) {
  CArchiveEntry e = FileEntry(WTEXT("junk"));
  EXPECT_FALSE(a.FindNext(nullptr, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(e.FindData.cFileName[0], 0);
  a.ClearError();
  EXPECT_FALSE(a.FindClose(nullptr));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();
  EXPECT_EQ(a.FindGetPos(nullptr).GetValue(), 0u);
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();

  // The range of an entry is tested before the handle.
  CArchiveEntry low;
  low.DataOffset = 10;
  EXPECT_FALSE(a.FindSetPos(nullptr, low));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
  a.ClearError();
  CArchiveEntry cleared;
  EXPECT_FALSE(a.FindSetPos(nullptr, cleared));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();

  CArchiveFindFile* find = a.FindCreate();
  ASSERT_NE(find, nullptr);
  ASSERT_TRUE(a.Close());
  // A handle outlives the volume; using it needs one.
  const CArchiveOffset pos(20);
  EXPECT_FALSE(a.FindSetPos(find, &pos));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();
  EXPECT_FALSE(a.FindNext(find, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();
  EXPECT_TRUE(a.FindClose(find));
  EXPECT_EQ(a.FindCreate(), nullptr);
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  a.ClearError();
  e = FileEntry(WTEXT("junk"));
  EXPECT_EQ(a.FindFirst(e), nullptr);
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(e.FindData.cFileName[0], 0);
}

TEST_F(SearchTest, EmptyVolumeEndsAtOnce) {
  ASSERT_TRUE(a.FileName(dir.Win("empty.arc").c_str(), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  CArchiveEntry e = FileEntry(WTEXT("junk"));
  EXPECT_EQ(a.FindFirst(e), nullptr);
  EXPECT_EQ(a.GetErrorCode(), ERROR_HANDLE_EOF);
  EXPECT_EQ(e.FindData.cFileName[0], 0);
}

TEST_F(SearchTest, WalkWorksOnAVolumeOpenForWriting) {
  ASSERT_TRUE(a.WriteOpen(0, 0));
  EXPECT_EQ(ListEntries(a), (std::vector<std::string>{"dir", "dir\\inner.txt", "top.bin"}));
}

TEST_F(SearchTest, TruncatedVolumeIsRejected) {
  a.Close();
  const std::string host = dir.Host("s.arc");
  std::vector<std::uint8_t> bytes = ReadFile(host);
  bytes.resize(bytes.size() - 1); // the last data byte is missing
  WriteFile(host, bytes);
  ASSERT_TRUE(a.ReadOpen());
  CArchiveEntry e;
  EXPECT_EQ(a.FindFirst(e), nullptr);
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_DATATYPE);
  a.ClearError();
  CArchiveFindFile* find = a.FindCreate();
  const CArchiveOffset second(20 + 78);
  ASSERT_TRUE(a.FindSetPos(find, &second));
  EXPECT_FALSE(a.FindNext(find, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_INVALID_DATATYPE);
  a.FindClose(find);
}

TEST_F(SearchTest, PositionInsideARecordFailsWithTheReadersCode) {
  CArchiveFindFile* find = a.FindCreate();
  // Inside the first record's fixed part: the bytes there do not form a
  // record header that fits the archive.
  const CArchiveOffset inside(24);
  ASSERT_TRUE(a.FindSetPos(find, &inside));
  CArchiveEntry e;
  EXPECT_FALSE(a.FindNext(find, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
  EXPECT_EQ(a.FindGetPos(find).GetValue(), 24u);
  a.FindClose(find);
}

} // namespace

// A volume opened for reading only is read ahead in blocks. Records that
// straddle a block's end, a security block larger than a block and a last
// record that ends the file read as the writer wrote them.
TEST(SearchReadAhead, RecordsAcrossBlocksReadAsWritten) {
  TempDir dir;
  RecordArchive a;
  ASSERT_TRUE(a.FileName(dir.Win("r.arc").c_str(), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  const std::uint64_t sizes[] = {65400, 100, 131079, 0, 30000, 40000, 1, 65000, 3};
  std::vector<CArchiveEntry> written;
  for (std::uint32_t i = 0; i < std::size(sizes); ++i) {
    CArchiveEntry e = FileEntry(WTEXT("f") + CString(i + 1, WCHAR('x')), WTEXT("dir"), sizes[i]);
    if (i == 4) {
      const std::vector<std::uint8_t> sd = RandomBytes(70000, i);
      e.Security->Data = new BYTE[sd.size()];
      std::copy(sd.begin(), sd.end(), e.Security->Data);
      e.Security->Length = static_cast<DWORD>(sd.size());
    }
    ASSERT_TRUE(AppendEntry(a, e, RandomBytes(sizes[i], i)));
    written.push_back(e);
  }
  ASSERT_TRUE(a.Close());
  ASSERT_TRUE(a.ReadOpen());
  CArchiveEntry e;
  CArchiveFindFile* find = a.FindFirst(e);
  for (const CArchiveEntry& w : written) {
    ASSERT_NE(find, nullptr) << a.GetErrorCode();
    EXPECT_EQ(CString(e.FindData.cFileName), CString(w.FindData.cFileName));
    EXPECT_EQ(e.Path, w.Path);
    EXPECT_EQ(e.EntryOffset.GetValue(), w.EntryOffset.GetValue());
    EXPECT_EQ(e.DataOffset.GetValue(), w.DataOffset.GetValue());
    EXPECT_EQ(e.DataSize.GetValue(), w.DataSize.GetValue());
    ASSERT_EQ(e.Security->Length, w.Security->Length);
    EXPECT_TRUE(
        std::equal(e.Security->Data, e.Security->Data + e.Security->Length, w.Security->Data));
    if (&w != &written.back()) {
      EXPECT_TRUE(a.FindNext(find, e)) << a.GetErrorCode();
    }
  }
  EXPECT_FALSE(a.FindNext(find, e));
  EXPECT_EQ(a.GetErrorCode(), ERROR_HANDLE_EOF);
  a.FindClose(find);
}
