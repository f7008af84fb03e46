// The tool's parts that need no archive: the command line, patterns, error
// texts and the progress line.
#include "errors.h"
#include "glob.h"
#include "options.h"
#include "progress.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace tool;

namespace {

std::optional<Options> Parse(const std::vector<std::string>& args, std::string* error = nullptr) {
  std::string message;
  auto options = ParseCommandLine(args, message);
  if (error) *error = message;
  return options;
}

TEST(ToolParts, SizesTakeBinarySuffixes) {
  EXPECT_EQ(ParseSize("123"), 123u);
  EXPECT_EQ(ParseSize("1440K"), 1440u * 1024);
  EXPECT_EQ(ParseSize("650m"), 650ull << 20);
  EXPECT_EQ(ParseSize("4G"), 4ull << 30);
  EXPECT_EQ(ParseSize("2KiB"), 2048u);
  EXPECT_FALSE(ParseSize(""));
  EXPECT_FALSE(ParseSize("K"));
  EXPECT_FALSE(ParseSize("12T"));
  EXPECT_FALSE(ParseSize("-5"));
  EXPECT_FALSE(ParseSize("99999999999999999999"));
  EXPECT_FALSE(ParseSize("17179869184G")); // overflows 64 bits
}

TEST(ToolParts, VolumeSizesMapOntoTheLimitHalves) {
  auto o = Parse({"create", "--volume-size", "4G", "--first-volume-size=1440K", "a", "b"});
  ASSERT_TRUE(o);
  const CArchiveSize limit = VolumeLimit(*o);
  EXPECT_EQ(limit.LowPart, 0xFFFFFFFEu); // 0xFFFFFFFF would mean no limit at all
  EXPECT_EQ(limit.HighPart, 1440u * 1024);
  o = Parse({"create", "--volume-size", "64K", "--first-volume-size", "64K", "a", "b"});
  ASSERT_TRUE(o);
  EXPECT_EQ(VolumeLimit(*o).HighPart, 0u); // the same size needs no first-volume half
  std::string error;
  EXPECT_FALSE(Parse({"create", "--volume-size", "512", "a", "b"}, &error));
  EXPECT_EQ(error, "--volume-size: a volume must hold at least 1K");
  EXPECT_FALSE(Parse({"create", "--volume-size", "4097M", "a", "b"}, &error));
}

TEST(ToolParts, OptionsMapOntoLibraryFlags) {
  auto o = Parse({"extract", "--no-paths", "--exclude-hidden", "--only-archive", "--no-recurse",
                  "--security", "--clear", "rh", "--toggle", "s", "a.arc", "out", "x/*", "y"});
  ASSERT_TRUE(o);
  EXPECT_EQ(o->srch, CArchiveFile::SrchExcludeHidden | CArchiveFile::SrchArchive |
                         CArchiveFile::SrchNoRecurse);
  EXPECT_EQ(o->attr, CArchiveFile::AttrNoPath | CArchiveFile::AttrClearReadOnly |
                         CArchiveFile::AttrClearHidden | CArchiveFile::AttrToggleSystem);
  EXPECT_EQ(o->targetDir, "out");
  EXPECT_EQ(o->patterns, (std::vector<std::string>{"x/*", "y"}));
  // Without --security the descriptors are left alone.
  o = Parse({"create", "a.arc", "dir"});
  ASSERT_TRUE(o);
  EXPECT_EQ(o->attr, CArchiveFile::AttrNoSecurity);
  EXPECT_EQ(o->sources, std::vector<std::string>{"dir"});
}

TEST(ToolParts, CommandLineMistakesAreNamed) {
  std::string error;
  EXPECT_FALSE(Parse({"list", "--overwrite", "skip", "a.arc"}, &error));
  EXPECT_EQ(error, "--overwrite is not an option of list");
  EXPECT_FALSE(Parse({"extract", "--overwrite", "sometimes", "a.arc"}, &error));
  EXPECT_EQ(error, "--overwrite: 'sometimes' is not one of replace, skip, backup, rename, ask");
  EXPECT_FALSE(Parse({"create", "a.arc"}, &error));
  EXPECT_EQ(error, "usage: talvern create ARCHIVE PATH");
  EXPECT_FALSE(Parse({"test", "a.arc", "b.arc"}, &error));
  EXPECT_FALSE(Parse({"list", "--json=yes", "a.arc"}, &error));
  EXPECT_EQ(error, "--json takes no value");
  EXPECT_FALSE(Parse({"list", "-q", "-v", "a.arc"}, &error));
  EXPECT_FALSE(Parse({"--include"}, &error));
  EXPECT_EQ(error, "--include needs a value");
  // Help needs no arguments; "--" ends the options.
  EXPECT_TRUE(Parse({"add", "--help"}));
  auto o = Parse({"list", "--", "-odd.arc"});
  ASSERT_TRUE(o);
  EXPECT_EQ(o->archive, "-odd.arc");
}

TEST(ToolParts, DriveOptions) {
  std::string error;
  auto drive = ParseDriveOption("a:=/tmp/fl,removable,size=1440K,cluster=512", error);
  ASSERT_TRUE(drive) << error;
  EXPECT_EQ(drive->Letter, 'A');
  EXPECT_EQ(drive->HostDir, "/tmp/fl");
  EXPECT_EQ(drive->Type, DRIVE_REMOVABLE);
  EXPECT_EQ(drive->Capacity, 1440u * 1024);
  EXPECT_EQ(drive->ClusterSize, 512u);
  drive = ParseDriveOption("E:=/cd,cdrom", error);
  ASSERT_TRUE(drive);
  EXPECT_EQ(drive->Type, DRIVE_CDROM);
  EXPECT_FALSE(ParseDriveOption("A=/x", error));
  EXPECT_FALSE(ParseDriveOption("A:=", error));
  EXPECT_FALSE(ParseDriveOption("Z:=/x", error)); // Z: is the whole file system
  EXPECT_FALSE(ParseDriveOption("A:=/x,floppy", error));
  EXPECT_FALSE(ParseDriveOption("A:=/x,cluster=1000", error));
}

TEST(ToolParts, GlobsMatchArchivePaths) {
  auto m = [](const char* pattern, const char* text) {
    return GlobMatch(test::W(pattern), test::W(text));
  };
  EXPECT_TRUE(m("*.txt", "a.txt"));
  EXPECT_TRUE(m("*.TXT", "a.txt"));        // case does not matter
  EXPECT_FALSE(m("*.txt", "docs\\a.txt")); // * stays within one name
  EXPECT_TRUE(m("docs\\*.txt", "docs\\a.txt"));
  EXPECT_TRUE(m("**\\a.txt", "a.txt"));
  EXPECT_TRUE(m("**\\a.txt", "x\\y\\a.txt"));
  EXPECT_TRUE(m("docs\\**", "docs\\x\\y"));
  EXPECT_TRUE(m("note0?.txt", "note07.txt"));
  EXPECT_FALSE(m("note0?.txt", "note10.txt"));
  EXPECT_TRUE(m("note0[1-3].txt", "note02.txt"));
  EXPECT_FALSE(m("note0[!1-3].txt", "note02.txt"));
  EXPECT_TRUE(m("a[b", "a[b")); // an unclosed set is an ordinary character
  EXPECT_TRUE(m("café-*", "CAFÉ-menü.txt"));

  const PathPattern byName("*.log");
  EXPECT_TRUE(byName.Matches(test::W("logs\\archive"), u"old.log"));
  const PathPattern byPath("./logs/archive/");
  EXPECT_TRUE(byPath.Matches(test::W("logs"), u"archive"));
  EXPECT_FALSE(byPath.Matches(CString(), u"archive"));

  const PathFilter filter({"*.txt"}, {"secret*"});
  EXPECT_TRUE(filter.Takes(CString(), u"a.txt", false));
  EXPECT_FALSE(filter.Takes(CString(), u"a.bin", false));
  EXPECT_TRUE(filter.Takes(CString(), u"folder", true)); // folders are walked
  EXPECT_FALSE(filter.Takes(CString(), u"secrets", true));
  EXPECT_FALSE(filter.Takes(test::W("x"), u"secret.txt", false));
}

TEST(ToolParts, ErrorTextsNameTheItemAndTheCode) {
  EXPECT_EQ(ErrorMessage(ERROR_CRC, Activity::CheckEntry, "docs\\a.txt"),
            "CRC mismatch in docs\\a.txt (error 23 ERROR_CRC)");
  EXPECT_EQ(ErrorMessage(ERROR_ACCESS_DENIED, Activity::WriteArchive, "/x/b.arc"),
            "/x/b.arc: the archive is not open for writing (error 5 ERROR_ACCESS_DENIED)");
  EXPECT_EQ(ErrorMessage(ERROR_FILE_NOT_FOUND, Activity::OpenArchive, "b.arc"),
            "the archive b.arc does not exist (error 2 ERROR_FILE_NOT_FOUND)");
  EXPECT_EQ(ErrorMessage(ERROR_CANCELLED, Activity::General, ""),
            "cancelled (error 1223 ERROR_CANCELLED)");
  EXPECT_EQ(ErrorMessage(ERROR_DISK_FULL, Activity::General, ""),
            "the disk is full (error 112 ERROR_DISK_FULL)");
  EXPECT_EQ(ErrorMessage(99999, Activity::General, "x"), "x: the operation failed (error 99999)");

  EXPECT_EQ(ExitCodeFor(ERROR_FILE_NOT_FOUND, Activity::OpenArchive), kExitUsage);
  EXPECT_EQ(ExitCodeFor(ERROR_FILE_NOT_FOUND, Activity::ReadArchive), kExitDamaged);
  EXPECT_EQ(ExitCodeFor(ERROR_INVALID_DATATYPE, Activity::OpenArchive), kExitDamaged);
  EXPECT_EQ(ExitCodeFor(ERROR_CRC, Activity::ExtractEntry), kExitDamaged);
  EXPECT_EQ(ExitCodeFor(ERROR_CANCELLED, Activity::WriteArchive), kExitCancelled);
  EXPECT_EQ(ExitCodeFor(ERROR_DISK_FULL, Activity::WriteArchive), kExitSomeFailed);
  EXPECT_EQ(WorseExit(kExitSomeFailed, kExitDamaged), kExitDamaged);
  EXPECT_EQ(WorseExit(kExitCancelled, kExitDamaged), kExitCancelled);
}

TEST(ToolParts, ProgressLineFitsTheTerminal) {
  const std::string line = Progress::BarLine("extract", 12, 31, 150 * 1024, 300 * 1024, 2.0,
                                             "docs\\notes\\note01.txt", 120);
  EXPECT_EQ(line, "extract [############............]  50%  12/31 files  150.0 KiB/300.0 KiB  "
                  "75.0 KiB/s  0:02 left  docs\\notes\\note01.txt");
  // Long names keep their end; the line never reaches the last column.
  const std::string narrow =
      Progress::BarLine("create", 1, 2, 10, 20, 0.1, std::string(200, 'x') + "end.txt", 80);
  EXPECT_EQ(narrow.size(), 79u);
  EXPECT_EQ(narrow.substr(narrow.size() - 6), "nd.txt");
  EXPECT_NE(narrow.find("  ..."), std::string::npos);
  // Unknown totals: counts without a bar.
  EXPECT_EQ(Progress::BarLine("test", 3, 0, 2048, 0, 0.1, "", 80), "test   3 files  2.0 KiB");
}

} // namespace
