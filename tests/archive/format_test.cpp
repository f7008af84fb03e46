// The bytes of volumes and records, and every rejection of the record reader.
#include "archive/archive_test_util.h"

#include <functional>

using namespace test;

namespace {

class FormatTest : public ::testing::Test {
protected:
  TempDir dir;
  RecordArchive archive;
  std::string host = dir.Host("vol.arc");

  void Create() {
    ASSERT_TRUE(archive.FileName(dir.Win("vol.arc").c_str(), nullptr));
    ASSERT_TRUE(archive.CreateOpen(1, 1)) << archive.GetErrorCode();
  }

  // Writes a hand-made volume and opens it for reading.
  void OpenBytes(const Bytes& b) {
    test::WriteFile(host, b.Get());
    ASSERT_TRUE(archive.FileName(dir.Win("vol.arc").c_str(), nullptr));
    ASSERT_TRUE(archive.ReadOpen()) << archive.GetErrorCode();
  }

  // Reads the record at 20 of a hand-made volume; returns the latched code
  // (0 on success) and checks the failure contract.
  DWORD ReadFirst(const Bytes& b, CArchiveEntry& e) {
    OpenBytes(b);
    CArchiveSize total = 12345;
    e.PackedSize = 99; // must be cleared whatever happens
    const std::uint64_t size = archive.GetArchiveSize().GetValue();
    const int ok = archive.DoReadEntry(CArchiveOffset(20), CArchiveSize(size - 20), e, &total);
    if (!ok) {
      EXPECT_EQ(total.GetValue(), 0u);
      EXPECT_EQ(e.PackedSize.GetValue(), 0u);
      EXPECT_EQ(e.FindData.cFileName[0], 0);
      EXPECT_TRUE(archive.IsError());
      return archive.GetErrorCode();
    }
    return 0;
  }
};

TEST_F(FormatTest, WorkedExampleByteForByte) {
  Create();
  CArchiveEntry e = FileEntry(WTEXT("a.txt"), CString(), 2);
  e.Crc = 0x994A3853u;
  e.FindData.ftCreationTime = e.FindData.ftLastAccessTime = e.FindData.ftLastWriteTime =
      MakeFileTime(kTime);
  ASSERT_TRUE(AppendEntry(archive, e, AsBytes("hi")));
  EXPECT_EQ(e.EntryOffset.GetValue(), 20u);
  EXPECT_EQ(e.DataOffset.GetValue(), 102u);
  EXPECT_EQ(archive.GetArchiveSize().GetValue(), 104u);
  ASSERT_TRUE(archive.Close());

  EXPECT_EQ(ReadFile(host), kWorkedExample);

  // And it reads back into the same entry.
  ASSERT_TRUE(archive.ReadOpen());
  CArchiveEntry r;
  CArchiveSize total;
  ASSERT_TRUE(archive.DoReadEntry(CArchiveOffset(20), CArchiveSize(84), r, &total));
  EXPECT_EQ(total.GetValue(), 84u);
  EXPECT_EQ(r.DataOffset.GetValue(), 102u);
  EXPECT_EQ(r.DataSize.GetValue(), 2u);
  EXPECT_EQ(r.PackedSize.GetValue(), 2u);
  EXPECT_EQ(r.Crc, 0x994A3853u);
  EXPECT_EQ(r.FindData.dwFileAttributes, 0x20u);
  EXPECT_EQ(r.FindData.ftLastAccessTime.dwHighDateTime, 0x01DA1B2Cu);
  EXPECT_EQ(r.FindData.nFileSizeLow, 2u);
  EXPECT_EQ(N(r.FindData.cFileName), "a.txt");
  EXPECT_TRUE(r.Path.empty());
  EXPECT_EQ(r.Security->Length, 0u);
  EXPECT_EQ(r.Security->Data, nullptr);
}

TEST_F(FormatTest, FieldsSurrogatePairsAndSecurityRoundTrip) {
  Create();
  // A folder path with a character outside the basic plane (a surrogate
  // pair), a size above 4 GiB (high half first in memory, low half first
  // on disk), a continued compress type and a security block.
  const CString folder = WTEXT("dir\\sub\U0001F600x");
  const CString name = WTEXT("n\U00010437.bin");
  CArchiveEntry e = FileEntry(name, folder);
  e.FindData.nFileSizeHigh = 1;
  e.FindData.nFileSizeLow = 0x23;
  e.CompressType = 0x80000001u;
  e.Crc = 0xCAFEBABEu;
  e.PackedSize = 0x123456789ull;
  e.FindData.ftCreationTime = MakeFileTime(1);
  e.FindData.ftLastAccessTime = MakeFileTime(2);
  e.FindData.ftLastWriteTime = MakeFileTime(0xFFFFFFFFFFFFFFFEull);
  const std::vector<std::uint8_t> sd = RandomBytes(120, 7);
  e.Security->Data = new BYTE[sd.size()];
  std::copy(sd.begin(), sd.end(), e.Security->Data);
  e.Security->Length = static_cast<DWORD>(sd.size());
  ASSERT_TRUE(AppendEntry(archive, e, AsBytes("xyz")));
  const std::uint64_t h = 72 + 2 * folder.size() + 2 * name.size() + 120;
  EXPECT_EQ(e.DataOffset.GetValue(), 20 + h);

  // The bytes of the variable part on disk.
  ASSERT_TRUE(archive.Close());
  const auto file = ReadFile(host);
  Bytes tail;
  tail.Str(folder).Str(name).U32(120).Raw(sd).Ascii("xyz");
  ASSERT_EQ(file.size(), 20 + 64 + tail.Size());
  EXPECT_TRUE(std::equal(tail.Get().begin(), tail.Get().end(), file.begin() + 84));
  EXPECT_EQ(file[20 + 40], 0x23); // size, low half first
  EXPECT_EQ(file[20 + 44], 0x01);

  ASSERT_TRUE(archive.ReadOpen());
  CArchiveEntry r;
  ASSERT_TRUE(archive.DoReadEntry(CArchiveOffset(20), CArchiveSize(file.size() - 20), r, nullptr));
  EXPECT_EQ(r.Path, folder);
  EXPECT_EQ(CString(r.FindData.cFileName), name);
  EXPECT_EQ(r.CompressType, 0x80000001u);
  EXPECT_EQ(r.Crc, 0xCAFEBABEu);
  EXPECT_EQ(r.PackedSize.GetValue(), 0x123456789ull);
  EXPECT_EQ(r.FindData.nFileSizeHigh, 1u);
  EXPECT_EQ(r.FindData.nFileSizeLow, 0x23u);
  EXPECT_EQ(r.FindData.ftLastWriteTime.dwLowDateTime, 0xFFFFFFFEu);
  EXPECT_EQ(r.FindData.ftCreationTime.dwLowDateTime, 1u);
  ASSERT_EQ(r.Security->Length, 120u);
  EXPECT_TRUE(std::equal(sd.begin(), sd.end(), r.Security->Data));
}

TEST_F(FormatTest, PaddedHeaderAndLongNamesAreRead) {
  // A record whose header size is 10 bytes larger than what it holds, and
  // a name of 300 code units, which another writer may produce.
  const CString longName(300, u'n');
  const std::uint32_t h = 72 + 600 + 10;
  Bytes b;
  b.Header(20 + h + 3);
  FixedPart(b, h, 3).Str(CString()).Str(longName).U32(0).Zeros(10).Ascii("abc");
  CArchiveEntry e;
  ASSERT_EQ(ReadFirst(b, e), 0u);
  EXPECT_EQ(e.DataOffset.GetValue(), 20u + h);
  EXPECT_EQ(CString(e.FindData.cFileName), longName.substr(0, 259));
  EXPECT_EQ(e.FindData.cFileName[259], 0);
}

TEST_F(FormatTest, ReaderRejectionsClearTheEntry) {
  struct Case {
    const char* what;
    std::function<void(Bytes&)> body; // record bytes after the header
    DWORD code;
  };
  const CString name = WTEXT("a.txt");
  const std::vector<Case> cases = {
      {"fewer than 64 bytes available", [](Bytes& b) { b.Zeros(63); }, ERROR_SEEK_ON_DEVICE},
      {"header size below 64",
       [&](Bytes& b) { FixedPart(b, 63, 0).Str(WTEXT("")).Str(name).U32(0); },
       ERROR_SEEK_ON_DEVICE},
      {"header size beyond the archive",
       [&](Bytes& b) { FixedPart(b, 83, 0).Str(WTEXT("")).Str(name).U32(0); },
       ERROR_SEEK_ON_DEVICE},
      {"data beyond the archive",
       [&](Bytes& b) { FixedPart(b, 82, 3).Str(WTEXT("")).Str(name).U32(0).Ascii("hi"); },
       ERROR_SEEK_ON_DEVICE},
      {"name longer than the header",
       [&](Bytes& b) { FixedPart(b, 70, 0).Str(WTEXT("")).Str(name).U32(0); },
       ERROR_SEEK_ON_DEVICE},
      {"no room for the block length",
       [&](Bytes& b) { FixedPart(b, 80, 0).Str(WTEXT("")).Str(name).U16(0); },
       ERROR_SEEK_ON_DEVICE},
      {"block longer than the header",
       [&](Bytes& b) { FixedPart(b, 84, 0).Str(WTEXT("")).Str(name).U32(3).Zeros(2); },
       ERROR_SEEK_ON_DEVICE},
      {"huge block length",
       [&](Bytes& b) { FixedPart(b, 82, 0).Str(WTEXT("")).Str(name).U32(~0u); },
       ERROR_SEEK_ON_DEVICE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes body;
    c.body(body);
    Bytes b;
    b.Header(20 + body.Size()).Raw(body.Get());
    CArchiveEntry e;
    EXPECT_EQ(ReadFirst(b, e), c.code);
    archive.ClearError();
  }
}

// The position and the available bytes are taken before the entry and the
// out-value are reset, so a record can be read again through the entry's
// own fields, and one size can carry the bytes available in and the
// record's length out.
TEST_F(FormatTest, ArgumentsMayLiveInTheEntryOrTheOutValue) {
  Create();
  CArchiveEntry first = FileEntry(WTEXT("one.txt"), CString(), 3);
  CArchiveEntry second = FileEntry(WTEXT("two.txt"), WTEXT("dir"), 2);
  ASSERT_TRUE(AppendEntry(archive, first, AsBytes("abc")));
  ASSERT_TRUE(AppendEntry(archive, second, AsBytes("de")));
  const std::uint64_t size = archive.GetArchiveSize().GetValue();

  CArchiveEntry e = second;
  CArchiveSize total;
  ASSERT_TRUE(
      archive.DoReadEntry(e.EntryOffset, CArchiveSize(size - e.EntryOffset.GetValue()), e, &total))
      << archive.GetErrorCode();
  EXPECT_EQ(N(e.FindData.cFileName), "two.txt");
  EXPECT_EQ(N(e.Path), "dir");
  EXPECT_EQ(e.EntryOffset.GetValue(), second.EntryOffset.GetValue());
  EXPECT_EQ(total.GetValue(), size - second.EntryOffset.GetValue());

  CArchiveSize left = size - 20;
  ASSERT_TRUE(archive.DoReadEntry(CArchiveOffset(20), left, e, &left)) << archive.GetErrorCode();
  EXPECT_EQ(N(e.FindData.cFileName), "one.txt");
  EXPECT_EQ(left.GetValue(), second.EntryOffset.GetValue() - 20);
  EXPECT_FALSE(archive.IsError());
}

TEST_F(FormatTest, FileShorterThanTheRecordIsRejected) {
  Bytes b;
  b.Header(20 + 100).Zeros(30); // the fixed part is cut short
  CArchiveEntry e;
  EXPECT_EQ(ReadFirst(b, e), ERROR_SEEK_ON_DEVICE);
}

TEST_F(FormatTest, VolumeLimitRefusesRecordsThatEndBeyondIt) {
  // General limit 1000: a record of header size 82 at 950 fails with 112
  // and writes nothing; at 900 it is written.
  const CArchiveSize limit(1000);
  ASSERT_TRUE(archive.FileName(dir.Win("vol.arc").c_str(), &limit));
  ASSERT_TRUE(archive.CreateOpen(1, 1));
  CArchiveEntry e = FileEntry(WTEXT("a.txt"));
  e.EntryOffset = 950;
  CArchiveSize total = 7;
  EXPECT_FALSE(archive.DoWriteEntry(e, &total));
  EXPECT_EQ(archive.GetErrorCode(), ERROR_DISK_FULL);
  EXPECT_EQ(total.GetValue(), 0u);
  EXPECT_EQ(e.DataOffset.GetValue(), 950u);
  EXPECT_EQ(archive.GetArchiveSize().GetValue(), 20u);
  archive.ClearError();
  e.EntryOffset = 918; // ends exactly at the limit
  ASSERT_TRUE(archive.DoWriteEntry(e, &total));
  EXPECT_EQ(total.GetValue(), 82u);
  EXPECT_EQ(archive.GetArchiveSize().GetValue(), 1000u);
  archive.Close();

  // Low half 1000 for every volume, high half 200 for the first one.
  CArchiveSize split;
  split.LowPart = 1000;
  split.HighPart = 200;
  ASSERT_TRUE(archive.FileName(dir.Win("vol.arc").c_str(), &split));
  ASSERT_TRUE(archive.CreateOpen(1, 1));
  e.EntryOffset = 150;
  EXPECT_FALSE(archive.DoWriteEntry(e, nullptr));
  EXPECT_EQ(archive.GetErrorCode(), ERROR_DISK_FULL);
  archive.ClearError();
  archive.Data().Header.VolumeWord = 1; // now a later volume
  EXPECT_TRUE(archive.DoWriteEntry(e, nullptr));
}

TEST_F(FormatTest, UnlimitedMarkerAllowsRecordsBeyondFourGiB) {
  const CArchiveSize limit(0xFFFFFFFFull);
  ASSERT_TRUE(archive.FileName(dir.Win("vol.arc").c_str(), &limit));
  ASSERT_TRUE(archive.CreateOpen(1, 1));
  CArchiveEntry e = FileEntry(WTEXT("far"));
  e.EntryOffset = 0x100000100ull; // a sparse stretch on the host
  CArchiveSize total;
  ASSERT_TRUE(archive.DoWriteEntry(e, &total)) << archive.GetErrorCode();
  EXPECT_EQ(total.GetValue(), 78u);
  EXPECT_EQ(archive.GetArchiveSize().GetValue(), 0x100000100ull + 78);
  CArchiveEntry r;
  ASSERT_TRUE(archive.DoReadEntry(CArchiveOffset(0x100000100ull), CArchiveSize(78), r, nullptr));
  EXPECT_EQ(N(r.FindData.cFileName), "far");
  EXPECT_EQ(r.DataOffset.GetValue(), 0x100000100ull + 78);
  // Give up on it: the header was never committed, so the volume goes.
  archive.Data().Header.ArchiveSize = 20;
  archive.Data().Flags &= ~FlagHeaderDirty;
  archive.SetErrorCode(ERROR_CANCELLED);
  archive.Close();
  EXPECT_FALSE(Exists(dir.Host("vol")));
}

TEST_F(FormatTest, StringMembers) {
  Create();
  CArchiveSize size = 10;
  EXPECT_TRUE(archive.CalcWriteStringSize(size, WTEXT("abc")));
  EXPECT_EQ(size.GetValue(), 18u);
  EXPECT_TRUE(archive.CalcWriteStringSize(size, nullptr));
  EXPECT_EQ(size.GetValue(), 20u);
  size = 0xFFFFFFFFFFFFFFFFull - 3;
  EXPECT_FALSE(archive.CalcWriteStringSize(size, WTEXT("ab"))); // carries
  EXPECT_EQ(size.GetValue(), 2u);                               // the wrapped sum

  // A string of 65537 code units is stored as its first one: the count and
  // the characters always agree.
  const CString big = CString(65536, u'x') + WTEXT("y");
  size = 0;
  EXPECT_TRUE(archive.CalcWriteStringSize(size, big.c_str()));
  EXPECT_EQ(size.GetValue(), 4u);
  ASSERT_TRUE(archive.DoWriteString(big.c_str()));
  ASSERT_TRUE(archive.DoWriteString(WTEXT("\U0001F600!")));
  ASSERT_TRUE(archive.DoWriteString(nullptr));
  EXPECT_FALSE(archive.IsError()); // string members never latch
  archive.Close();
  Bytes written;
  written.Header(20).U16(1).U16(u'x').U16(3).U16(0xD83D).U16(0xDE00).U16(u'!').U16(0);
  EXPECT_EQ(ReadFile(host), written.Get());

  // Read back; the buffer form zero-fills and copies capacity - 1 units.
  Bytes b;
  b.Header(20).Str(WTEXT("\U0001F600!")).Str(WTEXT("abcdef"));
  OpenBytes(b);
  LONG high = 0;
  SetFilePointer(archive.Handle(), 20, &high, FILE_BEGIN);
  CString s;
  CArchiveSize budget = 100;
  ASSERT_TRUE(archive.DoReadString(budget, s));
  EXPECT_EQ(s, WTEXT("\U0001F600!"));
  WCHAR buffer[4] = {9, 9, 9, 9};
  ASSERT_TRUE(archive.DoReadString(budget, buffer, 4));
  EXPECT_EQ(CString(buffer), WTEXT("abc"));
  EXPECT_EQ(budget.GetValue(), 100u - 8 - 14);

  // A budget below the count's 2 bytes, or below the characters, is 132
  // in the thread's last error; the archive's error state stays clear.
  SetFilePointer(archive.Handle(), 20, &high, FILE_BEGIN);
  budget = 1;
  EXPECT_FALSE(archive.DoReadString(budget, s));
  EXPECT_EQ(GetLastError(), ERROR_SEEK_ON_DEVICE);
  budget = 3;
  EXPECT_FALSE(archive.DoReadString(budget, s));
  EXPECT_EQ(GetLastError(), ERROR_SEEK_ON_DEVICE);
  EXPECT_FALSE(archive.IsError());
}

} // namespace
