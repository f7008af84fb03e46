// Extracting single entries from an open archive.
#include "fixture.h"

namespace xt {
namespace {

std::vector<Item> Tree() {
  return {Dir("", "a"), Dir("a", "b"), File("a\\b", "c.txt", "c contents"),
          File("a", "d.txt", "d contents", 1), File("", "top.txt", "top")};
}

TEST_F(ExtractTest, ExpandOfAFileEntryCreatesItsFolderAndKeepsTheArchiveOpen) {
  WriteArchive(Tree());
  ASSERT_TRUE(archive.ReadOpen());
  CArchiveEntry entry;
  ASSERT_TRUE(FindEntry("a\\b\\c.txt", entry));

  // Without folders the file lands in the target; its folder is created
  // all the same.
  ASSERT_EQ(1, archive.Expand(OutWin().c_str(), entry, {}, CArchiveFile::AttrNoPath))
      << archive.GetErrorCode();
  EXPECT_EQ((V{"a", "a/b", "c.txt"}), ListTree(Out()));
  EXPECT_EQ("c contents", ReadText(Out("c.txt")));
  EXPECT_TRUE(archive.IsOpen());
  EXPECT_FALSE(archive.IsMediaChanged());
  EXPECT_EQ((V{"ExpandStart", "ExpandFile c.txt", "ExpandComplete 1"}), archive.Calls);
}

TEST_F(ExtractTest, ExpandOfAFolderEntryExtractsItsSubtreeOnly) {
  WriteArchive(Tree());
  ASSERT_TRUE(archive.ReadOpen());
  CArchiveEntry entry;
  ASSERT_TRUE(FindEntry("a", entry));
  ASSERT_EQ(1, archive.Expand(OutWin().c_str(), entry, {}, {})) << archive.GetErrorCode();
  EXPECT_EQ((V{"a", "a/b", "a/b/c.txt", "a/d.txt"}), ListTree(Out()));
  EXPECT_EQ("d contents", ReadText(Out("a/d.txt")));
}

TEST_F(ExtractTest, ExpandRefusesFreshEntriesAndArchivesNotOpenForReading) {
  WriteArchive(Tree());
  CArchiveEntry fresh;
  EXPECT_EQ(0, archive.Expand(OutWin().c_str(), fresh, {}, {}));
  EXPECT_EQ(ERROR_ACCESS_DENIED, archive.GetErrorCode()); // nothing open

  ASSERT_TRUE(archive.ReadOpen());
  EXPECT_EQ(0, archive.Expand(OutWin().c_str(), fresh, {}, {}));
  EXPECT_EQ(ERROR_SEEK_ON_DEVICE, archive.GetErrorCode());
  EXPECT_EQ(0, archive.Expand(nullptr, fresh, {}, {}));
  EXPECT_EQ(ERROR_ACCESS_DENIED, archive.GetErrorCode());
  archive.Close();

  // Open for writing only.
  CArchiveFile writer;
  ASSERT_TRUE(writer.FileName(Win(tmp.Host("w.arc")).c_str(), nullptr));
  ASSERT_TRUE(writer.CreateOpen(1, 0));
  CArchiveEntry entry;
  entry.DataOffset = 100;
  EXPECT_EQ(0, writer.Expand(OutWin().c_str(), entry, {}, {}));
  EXPECT_EQ(ERROR_ACCESS_DENIED, writer.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());
}

TEST_F(ExtractTest, ExpandFileNotifyRefusalCancelsAndRemovesNothingElse) {
  WriteArchive(Tree());
  ASSERT_TRUE(archive.ReadOpen());
  CArchiveEntry entry;
  ASSERT_TRUE(FindEntry("top.txt", entry));
  archive.ExpandFileAnswer = 0;
  EXPECT_EQ(0, archive.Expand(OutWin().c_str(), entry, {}, {}));
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());
  EXPECT_EQ("ExpandComplete 0", archive.Calls.back());
}

} // namespace
} // namespace xt
