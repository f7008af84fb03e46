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

// Every field zero, and an empty security block of its own.
void ExpectCleared(const CArchiveEntry& e) {
  EXPECT_EQ(0u, e.EntryOffset.GetValue() | e.DataOffset.GetValue() | e.DataSize.GetValue() |
                    e.PackedSize.GetValue() | e.CompressType | e.Crc);
  EXPECT_TRUE(e.Path.empty());
  const auto* b = reinterpret_cast<const unsigned char*>(&e.FindData);
  for (std::size_t i = 0; i < sizeof(e.FindData); ++i) ASSERT_EQ(0, b[i]) << i;
  ASSERT_NE(nullptr, e.Security);
  EXPECT_EQ(0u, e.Security->Length);
  EXPECT_EQ(nullptr, e.Security->Data);
}

TEST(ArchiveEntry, FreshAndClearedEntriesAreZeroWithAnEmptyBlock) {
  CArchiveEntry e;
  ExpectCleared(e);
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
  ExpectCleared(e);
  // A copy of an empty block has a block of its own, still without data.
  const CArchiveEntry copy(e);
  EXPECT_NE(e.Security, copy.Security);
  ExpectCleared(copy);
}

TEST(ArchiveEntry, CopiesAreDeepAndOutliveTheSource) {
  CArchiveEntry copy;
  {
    auto source = std::make_unique<CArchiveEntry>();
    source->DataOffset = 102;
    source->CompressType = 0x80000001u;
    source->Path = WTEXT("a\\b");
    source->FindData.cFileName[0] = u'x';
    GiveDescriptor(*source, 120, 0xAB);
    CArchiveEntry constructed(*source);
    copy = *source;
    EXPECT_NE(source->Security, copy.Security);
    EXPECT_NE(source->Security->Data, copy.Security->Data);
    EXPECT_NE(constructed.Security->Data, source->Security->Data);
    EXPECT_EQ(120u, constructed.Security->Length);
  }
  EXPECT_EQ(102u, copy.DataOffset.GetValue());
  EXPECT_EQ(0x80000001u, copy.CompressType);
  EXPECT_EQ(CString(WTEXT("a\\b")), copy.Path);
  EXPECT_EQ(u'x', copy.FindData.cFileName[0]);
  ASSERT_EQ(120u, copy.Security->Length);
  for (DWORD i = 0; i < 120; ++i) ASSERT_EQ(0xAB, copy.Security->Data[i]);

  // Assigning an entry to itself keeps its descriptor.
  CArchiveEntry& alias = copy;
  copy = alias;
  ASSERT_EQ(120u, copy.Security->Length);
  EXPECT_EQ(0xAB, copy.Security->Data[119]);
  EXPECT_EQ(CString(WTEXT("a\\b")), copy.Path);
}

} // namespace
