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

} // namespace
