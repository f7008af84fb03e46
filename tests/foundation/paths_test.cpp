// Path utilities over the platform's drives, shares and current directory.
#include "foundation/paths.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <filesystem>

using test::W;

namespace {

const CString kHigh(1, static_cast<WCHAR>(0xD83D));
const CString kLow(1, static_cast<WCHAR>(0xDE00));

// A drive C: over a temporary folder, and the current directory inside it.
class PathsOnDrives : public ::testing::Test {
protected:
  void SetUp() override {
    TALVERN_NEEDS_SIMULATED_DRIVES();
    talvern::MediumSpec medium;
    medium.HostDir = dir_.Host("c");
    std::filesystem::create_directories(medium.HostDir);
    ASSERT_TRUE(talvern::MountDrive(u'C', DRIVE_FIXED, 4096, &medium));
    std::filesystem::create_directories(dir_.Host("share"));
    ASSERT_TRUE(talvern::MountShare(WTEXT("srv"), WTEXT("share"), dir_.Host("share")));
  }
  test::TempDir dir_;
};

TEST_F(PathsOnDrives, BuildRootPathForDrivesSharesAndRelativePaths) {
  EXPECT_EQ("c:\\", test::N(BuildRootPath(WTEXT("c:\\work\\x.arc"))));
  EXPECT_EQ("C:\\", test::N(BuildRootPath(WTEXT("C:\\"))));
  EXPECT_EQ("\\\\srv\\share\\", test::N(BuildRootPath(WTEXT("\\\\srv\\share\\dir\\x.arc"))));
  EXPECT_EQ("\\\\srv\\share\\", test::N(BuildRootPath(WTEXT("\\\\srv\\share"))));
  EXPECT_EQ("", test::N(BuildRootPath(WTEXT("\\\\srv"))));
  EXPECT_EQ("", test::N(BuildRootPath(WTEXT("\\\\srv\\"))));
  EXPECT_EQ("", test::N(BuildRootPath(nullptr)));

  // A relative path gives the root of the drive that holds the current directory.
  ASSERT_TRUE(SetCurrentDirectoryW(WTEXT("C:\\")));
  EXPECT_EQ("C:\\", test::N(BuildRootPath(WTEXT("x.arc"))));
  EXPECT_EQ("C:\\", test::N(BuildRootPath(WTEXT(""))));
  ASSERT_TRUE(SetCurrentDirectoryW(dir_.Win().c_str()));
  // The temporary folder is outside C:'s folder, so it is presented on Z:.
  EXPECT_EQ("Z:\\", test::N(BuildRootPath(WTEXT("x.arc"))));
}

TEST_F(PathsOnDrives, BuildFullPathGivesTheFinalComponent) {
  std::filesystem::create_directories(dir_.Host("c/work"));
  ASSERT_TRUE(SetCurrentDirectoryW(WTEXT("C:\\work")));
  int index = 99;
  EXPECT_EQ("C:\\work", test::N(BuildFullPath(nullptr, &index)));
  EXPECT_EQ(3, index);
  EXPECT_EQ("C:\\work", test::N(BuildFullPath(WTEXT(""), &index)));
  EXPECT_EQ("C:\\work\\a\\b.txt", test::N(BuildFullPath(WTEXT("a\\.\\x\\..\\b.txt"), &index)));
  EXPECT_EQ(10, index);
  EXPECT_EQ("C:\\work\\a\\", test::N(BuildFullPath(WTEXT("a\\"), &index)));
  EXPECT_EQ(-1, index);
  EXPECT_EQ("C:\\x", test::N(BuildFullPath(WTEXT("C:\\..\\..\\x"), &index)));
  EXPECT_EQ(3, index);
  EXPECT_EQ("\\\\srv\\share\\d\\f", test::N(BuildFullPath(WTEXT("//srv/share/d//f"), &index)));
  EXPECT_EQ(14, index);
  EXPECT_EQ("C:\\work\\f", test::N(BuildFullPath(WTEXT("C:f")))); // drive-relative, current drive
}

TEST_F(PathsOnDrives, CreateDirectoryTreeCreatesParentsAndOptionallyTheLast) {
  EXPECT_EQ(1, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\a\\b\\c.txt"), 0));
  EXPECT_TRUE(std::filesystem::is_directory(dir_.Host("c/a/b")));
  EXPECT_FALSE(test::Exists(dir_.Host("c/a/b/c.txt")));
  EXPECT_EQ(1, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\a\\b\\c.txt"), 1));
  EXPECT_TRUE(std::filesystem::is_directory(dir_.Host("c/a/b/c.txt")));
  EXPECT_EQ(1, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\a\\b\\c.txt"), 1)); // already there

  EXPECT_EQ(1, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\"), 1)); // at the root: nothing to do
  EXPECT_EQ(0, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\a\\"), 1)); // no final component

  test::WriteFile(dir_.Host("c/file"), "x");
  SetLastError(0);
  EXPECT_EQ(0, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\file"), 1));
  EXPECT_EQ(ERROR_ALREADY_EXISTS, GetLastError());
  EXPECT_EQ(0, CreateDirectoryTree(WTEXT("C:\\"), WTEXT("C:\\file\\sub\\x"), 0));

  // On a share the recursion ends at the share root.
  EXPECT_EQ(1, CreateDirectoryTree(WTEXT("\\\\srv\\share\\"), WTEXT("\\\\srv\\share\\p\\q"), 1));
  EXPECT_TRUE(std::filesystem::is_directory(dir_.Host("share/p/q")));
}

} // namespace
