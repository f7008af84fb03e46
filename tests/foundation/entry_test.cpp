// CArchiveEntry: deep copies, clearing and the security block.
#include <talvern/entry.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

void GiveDescriptor(CArchiveEntry& e, DWORD length, BYTE fill) {
  delete[] e.Security->Data;
  e.Security->Data = new BYTE[length];
  std::memset(e.Security->Data, fill, length);
  e.Security->Length = length;
}

bool AllZero(const void* p, std::size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  for (std::size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}

TEST(ArchiveEntry, FreshEntryIsZeroWithEmptySecurityBlock) {
  CArchiveEntry e;
  EXPECT_EQ(0u, e.EntryOffset.GetValue());
  EXPECT_EQ(0u, e.DataOffset.GetValue());
  EXPECT_EQ(0u, e.DataSize.GetValue());
  EXPECT_EQ(0u, e.PackedSize.GetValue());
  EXPECT_EQ(0u, e.CompressType);
  EXPECT_EQ(0u, e.Crc);
  EXPECT_TRUE(e.Path.empty());
  EXPECT_TRUE(AllZero(&e.FindData, sizeof(e.FindData)));
  ASSERT_NE(nullptr, e.Security);
  EXPECT_EQ(0u, e.Security->Length);
  EXPECT_EQ(nullptr, e.Security->Data);
}

TEST(ArchiveEntry, CopiesAreDeepAndOutliveTheSource) {
  CArchiveEntry copy;
  {
    auto source = std::make_unique<CArchiveEntry>();
    source->EntryOffset = 20;
    source->DataOffset = 102;
    source->DataSize = 2;
    source->PackedSize = 2;
    source->CompressType = 0x80000001u;
    source->Crc = 0x994A3853u;
    source->Path = WTEXT("a\\b");
    source->FindData.dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
    source->FindData.cFileName[0] = u'x';
    GiveDescriptor(*source, 120, 0xAB);
    CArchiveEntry constructed(*source);
    copy = *source;
    EXPECT_NE(source->Security, copy.Security);
    EXPECT_NE(source->Security->Data, copy.Security->Data);
    EXPECT_NE(constructed.Security->Data, source->Security->Data);
    EXPECT_EQ(120u, constructed.Security->Length);
  }
  EXPECT_EQ(20u, copy.EntryOffset.GetValue());
  EXPECT_EQ(102u, copy.DataOffset.GetValue());
  EXPECT_EQ(0x80000001u, copy.CompressType);
  EXPECT_EQ(CString(WTEXT("a\\b")), copy.Path);
  EXPECT_EQ(u'x', copy.FindData.cFileName[0]);
  ASSERT_EQ(120u, copy.Security->Length);
  for (DWORD i = 0; i < 120; ++i) ASSERT_EQ(0xAB, copy.Security->Data[i]);
}

TEST(ArchiveEntry, CopyOfEmptyBlockHasNullData) {
  CArchiveEntry source;
  source.Crc = 5;
  CArchiveEntry copy(source);
  ASSERT_NE(nullptr, copy.Security);
  EXPECT_NE(source.Security, copy.Security);
  EXPECT_EQ(0u, copy.Security->Length);
  EXPECT_EQ(nullptr, copy.Security->Data);
  EXPECT_EQ(5u, copy.Crc);
}

TEST(ArchiveEntry, ClearFreesDescriptorAndZeroesEverything) {
  CArchiveEntry e;
  e.EntryOffset = 1;
  e.DataOffset = 2;
  e.DataSize = 3;
  e.PackedSize = 4;
  e.CompressType = 5;
  e.Crc = 6;
  e.Path = WTEXT("dir");
  std::memset(&e.FindData, 0x5A, sizeof(e.FindData));
  GiveDescriptor(e, 64, 1);
  e.Clear();
  EXPECT_EQ(0u, e.EntryOffset.GetValue() | e.DataOffset.GetValue() | e.DataSize.GetValue() |
                    e.PackedSize.GetValue() | e.CompressType | e.Crc);
  EXPECT_TRUE(e.Path.empty());
  EXPECT_TRUE(AllZero(&e.FindData, sizeof(e.FindData)));
  ASSERT_NE(nullptr, e.Security);
  EXPECT_EQ(0u, e.Security->Length);
  EXPECT_EQ(nullptr, e.Security->Data);
}

TEST(ArchiveEntry, SelfAssignmentKeepsTheDescriptor) {
  CArchiveEntry e;
  GiveDescriptor(e, 32, 0x11);
  e.Path = WTEXT("keep");
  CArchiveEntry& alias = e;
  e = alias;
  ASSERT_EQ(32u, e.Security->Length);
  ASSERT_NE(nullptr, e.Security->Data);
  EXPECT_EQ(0x11, e.Security->Data[31]);
  EXPECT_EQ(CString(WTEXT("keep")), e.Path);
}

} // namespace
