// Creating extracted items: the answers to an existing item, the kind
// check, and the media check after the host has answered.
#include "fixture.h"

#include <filesystem>

namespace xt {
namespace {

class CreateTest : public ExtractTest {
protected:
  void SetUp() override {
    WriteArchive({File("", "f", "x")});
    ASSERT_TRUE(archive.ReadOpen());
    std::filesystem::create_directories(Out());
  }

  int Create(const std::string& name, bool directory = false) {
    CArchiveEntry entry;
    entry.FindData.dwFileAttributes = directory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    const CString out = Win(Out(name));
    replacement.clear();
    return archive.DoCreate(OutWin().c_str(), root.c_str(), WTEXT(""), entry, out.c_str(),
                            replacement);
  }

  CString root = WTEXT("Z:\\");
  CString replacement;
};

TEST_F(CreateTest, NewItemsAreCreatedEmptyWithoutAsking) {
  EXPECT_EQ(1, Create("new.txt"));
  EXPECT_EQ(1, Create("newdir", true));
  EXPECT_EQ(std::vector<std::uint8_t>{}, ReadFile(Out("new.txt")));
  EXPECT_TRUE(std::filesystem::is_directory(Out("newdir")));
  // Another failure than an existing item reports the first code.
  EXPECT_EQ(-1, Create("missing/a.txt"));
  EXPECT_EQ(ERROR_PATH_NOT_FOUND, archive.GetErrorCode());
  EXPECT_TRUE(archive.Calls.empty());
}

TEST_F(CreateTest, ReplaceClearsAttributesAndEmptiesTheFile) {
  WriteFile(Out("a.txt"), "old contents");
  ASSERT_TRUE(SetFileAttributesW(Win(Out("a.txt")).c_str(), FILE_ATTRIBUTE_READONLY));
  archive.OverwriteAnswers = {CArchiveFile::OverwriteReplace};
  EXPECT_EQ(1, Create("a.txt"));
  EXPECT_EQ((V{"Overwrite a.txt"}), archive.Calls);
  EXPECT_EQ("", ReadText(Out("a.txt")));
  EXPECT_EQ(0u, Attributes(Out("a.txt")) & FILE_ATTRIBUTE_READONLY);
}

TEST_F(CreateTest, ReplaceReusesAnExistingDirectoryWithItsContents) {
  WriteFile(Out("d/inside.txt"), "stays");
  EXPECT_EQ(1, Create("d", true));
  EXPECT_EQ("stays", ReadText(Out("d/inside.txt")));
}

TEST_F(CreateTest, AnItemOfTheOtherKindCancelsWithoutAsking) {
  WriteFile(Out("x"), "a file");
  EXPECT_EQ(0, Create("x", true));
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  std::filesystem::create_directories(Out("y"));
  EXPECT_EQ(0, Create("y"));
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  EXPECT_TRUE(archive.Calls.empty());
  EXPECT_EQ("a file", ReadText(Out("x")));
}

TEST_F(CreateTest, BackupMovesTheOldFileToOrgUnlessThatNameIsTaken) {
  WriteFile(Out("a.txt"), "old");
  archive.OverwriteAnswers = {CArchiveFile::OverwriteBackup};
  EXPECT_EQ(1, Create("a.txt"));
  EXPECT_EQ(Win(Out("a.txt.ORG")), replacement);
  EXPECT_EQ("old", ReadText(Out("a.txt.ORG")));
  EXPECT_EQ("", ReadText(Out("a.txt")));

  // a.txt.ORG exists now: the move fails with its own code and nothing
  // changes.
  WriteFile(Out("a.txt"), "newer");
  EXPECT_EQ(-1, Create("a.txt"));
  EXPECT_EQ(ERROR_ALREADY_EXISTS, archive.GetErrorCode());
  EXPECT_EQ("old", ReadText(Out("a.txt.ORG")));
  EXPECT_EQ("newer", ReadText(Out("a.txt")));
}

TEST_F(CreateTest, SkipAndRenameLeaveTheOldFileAlone) {
  WriteFile(Out("a.txt"), "old");
  archive.OverwriteAnswers = {CArchiveFile::OverwriteSkip, CArchiveFile::OverwriteRename};
  EXPECT_EQ(3, Create("a.txt"));
  EXPECT_EQ("old", ReadText(Out("a.txt")));
  EXPECT_EQ(2, Create("a.txt"));
  EXPECT_EQ(Win(Out("a.txt.NEW")), replacement);
  EXPECT_EQ("", ReadText(Out("a.txt.NEW")));
  EXPECT_EQ("old", ReadText(Out("a.txt")));
}

TEST_F(CreateTest, CancelAndUnknownAnswersCancel) {
  WriteFile(Out("a.txt"), "old");
  for (DWORD answer : {0u, 7u, 0x10000u}) {
    SCOPED_TRACE(answer);
    archive.OverwriteAnswers = {answer};
    archive.SetErrorCode(ERROR_GEN_FAILURE); // a cancellation replaces earlier errors
    // 0x10000 has 0 in the low 16 bits, the only ones that count.
    EXPECT_EQ(0, Create("a.txt"));
    EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
    archive.ClearError();
  }
  EXPECT_EQ("old", ReadText(Out("a.txt")));
}

// The destination is a removable medium that the user swaps while the
// overwrite question is open.
class MediaRecheckTest : public CreateTest {
protected:
  void SetUp() override {
    TALVERN_NEEDS_SIMULATED_DRIVES();
    CreateTest::SetUp();
    first.HostDir = tmp.Host("medium1");
    first.Serial = 0x1111;
    second.HostDir = tmp.Host("medium2");
    second.Serial = 0x2222;
    ASSERT_TRUE(talvern::MountDrive(u'R', DRIVE_REMOVABLE, 512, &first));
    WriteFile(first.HostDir + "/a.txt", "old");
    archive.OnOverwrite = [&] { talvern::InsertMedium(u'R', &second); };
  }
  void TearDown() override { talvern::UnmountDrive(u'R'); }

  int CreateOnR() {
    CArchiveEntry entry;
    entry.FindData.dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
    return archive.DoCreate(WTEXT("R:\\"), root.c_str(), WTEXT(""), entry, WTEXT("R:\\a.txt"),
                            replacement);
  }

  talvern::MediumSpec first, second;
};

TEST_F(MediaRecheckTest, TheRightMediumIsAskedForBeforeAnythingChanges) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  archive.OnMedia = [&](DWORD, bool) {
    talvern::InsertMedium(u'R', &first);
    return 1;
  };
  EXPECT_EQ(1, CreateOnR());
  EXPECT_EQ((V{"Overwrite a.txt", "InvalidDisk 0 1 0"}), archive.Calls);
  EXPECT_EQ("", ReadText(first.HostDir + "/a.txt"));
  EXPECT_FALSE(Exists(second.HostDir + "/a.txt"));
}

TEST_F(MediaRecheckTest, DecliningTheMediumCancels) {
  archive.InvalidDiskAnswer = 0;
  EXPECT_EQ(0, CreateOnR());
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  EXPECT_EQ("old", ReadText(first.HostDir + "/a.txt"));
  EXPECT_FALSE(Exists(second.HostDir + "/a.txt"));
}

// ---- The answers as an extraction sees them --------------------------------------------------

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
