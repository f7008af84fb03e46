// Items that already exist where an extraction puts its output: the host's
// answers, and the library's default.
#include "fixture.h"

#include <filesystem>

namespace xt {
namespace {

TEST_F(ExtractTest, OverwriteAnswersDuringExtraction) {
  WriteArchive({File("", "a.txt", "from the archive"), File("", "b.txt", "b from the archive"),
                File("", "c.txt", "c from the archive")});
  WriteFile(Out("a.txt"), "old a");
  WriteFile(Out("b.txt"), "old b");
  WriteFile(Out("c.txt"), "old c");
  const std::uint64_t bTime = LastWrite(Out("b.txt"));
  archive.OverwriteAnswers = {CArchiveFile::OverwriteRename, CArchiveFile::OverwriteSkip,
                              CArchiveFile::OverwriteBackup};

  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ("old a", ReadText(Out("a.txt")));
  EXPECT_EQ("from the archive", ReadText(Out("a.txt.NEW")));
  EXPECT_EQ(kTime + 20000000, LastWrite(Out("a.txt.NEW")));
  // A skipped file keeps its contents and its times; its data is still
  // walked to the end.
  EXPECT_EQ("old b", ReadText(Out("b.txt")));
  EXPECT_EQ(bTime, LastWrite(Out("b.txt")));
  EXPECT_EQ("old c", ReadText(Out("c.txt.ORG")));
  EXPECT_EQ("c from the archive", ReadText(Out("c.txt")));
  bool sawB = false;
  for (const auto& p : archive.Progress) sawB |= p.GetValue() == 18;
  EXPECT_TRUE(sawB);
}

TEST_F(ExtractTest, ExistingReadOnlyFileIsReplacedByDefault) {
  WriteArchive({File("", "a.txt", "new")});
  WriteFile(Out("a.txt"), "old and longer");
  ASSERT_TRUE(SetFileAttributesW(Win(Out("a.txt")).c_str(), FILE_ATTRIBUTE_READONLY));
  CArchiveFile plain;
  ASSERT_TRUE(plain.FileName(Win(ArchiveHost()).c_str(), nullptr));
  ASSERT_EQ(1, plain.ExpandAll(OutWin().c_str(), {}, {})) << plain.GetErrorCode();
  EXPECT_EQ("new", ReadText(Out("a.txt")));
}

} // namespace
} // namespace xt
