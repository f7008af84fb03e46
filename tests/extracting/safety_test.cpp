// Entries whose folder or name would put their output outside the target
// directory are refused before anything is created for them.
#include "fixture.h"

#include <filesystem>

namespace xt {
namespace {

// Everything in the test's folder except the archive, the target and the
// temporary folder: must stay empty.
std::vector<std::string> Outside(const TempDir& tmp) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(tmp.Host())) {
    const std::string n = e.path().filename().string();
    if (n != "archive.arc" && n != "out" && n != "systemp") names.push_back(n);
  }
  return names;
}

TEST_F(ExtractTest, HostileNamesCreateNothingOutsideTheTarget) {
  const char* names[] = {"..\\..\\x", "C:\\x",    "a\\..\\..\\b", "..",    ".",   ". .",
                         ".. ",       "c:x",      "x/../../y",    "",      "*",   "a?",
                         "x.",        "x ",       "a:stream",     "\x01x", "CON", "nul.txt",
                         "Com1",      "LPT9.dat", "aux .c"};
  for (const char* name : names) {
    for (bool directory : {false, true}) {
      SCOPED_TRACE(std::string(name) + (directory ? " (directory)" : " (file)"));
      std::filesystem::remove_all(Out());
      archive.Calls.clear();
      Item bad = directory ? Dir("", name) : File("", name, "bad");
      WriteArchive({File("", "good.txt", "good"), bad, File("", "later.txt", "later")});

      EXPECT_EQ(0, ExpandAll());
      EXPECT_EQ(ERROR_BAD_PATHNAME, archive.GetErrorCode());
      EXPECT_EQ((V{"ExpandStart", "DoDiskChange 1", "ExpandFile good.txt", "ExpandComplete 0"}),
                archive.Calls);
      EXPECT_EQ((V{"good.txt"}), ListTree(Out()));
      EXPECT_TRUE(Outside(tmp).empty());
    }
  }
}

TEST_F(ExtractTest, NamesThatOnlyLookLikeDevicesAreExtracted) {
  WriteArchive({File("", "CONSOLE", "1"), File("", "com10.txt", "2"), File("", "lpt0", "3"),
                File("", "nul_x", "4")});
  EXPECT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ((V{"CONSOLE", "com10.txt", "lpt0", "nul_x"}), ListTree(Out()));
}

TEST_F(ExtractTest, ExpandRefusesHostileFoldersBeforeCreatingThem) {
  const char* folders[] = {"..\\..", "a\\..\\..", "C:", "C:\\x",    "\\\\srv\\share", "\\a",
                           "a\\\\b", "a\\",       ".",  "a\\. \\b", "a\\CON\\b",      "dir."};
  for (const char* folder : folders) {
    SCOPED_TRACE(folder);
    archive.Close();
    WriteArchive({File(folder, "x", "x")});
    ASSERT_TRUE(archive.ReadOpen());
    CArchiveEntry entry;
    ASSERT_TRUE(FindEntry(std::string(folder) + "\\x", entry));
    // Even without folders, Expand creates the entry's folder: refused.
    EXPECT_EQ(0, archive.Expand(OutWin().c_str(), entry, {}, CArchiveFile::AttrNoPath));
    EXPECT_EQ(ERROR_BAD_PATHNAME, archive.GetErrorCode());
    EXPECT_TRUE(Outside(tmp).empty());
    EXPECT_TRUE(ListTree(Out()).empty());
  }
}

TEST_F(ExtractTest, HostileEntryBehindADirectoryIsRefusedBeforeItsNotification) {
  // The directory "a\..\.." chain: "a" holds an entry whose folder climbs.
  std::vector<Item> items{Dir("", "a"), File("a", "..", "x")};
  WriteArchive(items);
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_BAD_PATHNAME, archive.GetErrorCode());
  for (const auto& call : archive.Calls) EXPECT_NE("ExpandFile ..", call);
  // The directory that was created for "a" is removed again.
  EXPECT_TRUE(ListTree(Out()).empty());
  EXPECT_TRUE(Outside(tmp).empty());
}

TEST_F(ExtractTest, WithoutFoldersOnlyTheNameCounts) {
  // The folder is never used for the output when folders are not kept, so
  // a climbing folder does no harm; a climbing name still does.
  std::vector<Item> items{Dir("", "..")};
  items.push_back(File("..", "inside.txt", "inside"));
  WriteArchive(items);
  ASSERT_EQ(1, ExpandAll({}, CArchiveFile::AttrNoPath)) << archive.GetErrorCode();
  EXPECT_EQ((V{"inside.txt"}), ListTree(Out()));
  EXPECT_TRUE(Outside(tmp).empty());
}

} // namespace
} // namespace xt
