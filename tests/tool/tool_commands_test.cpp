// End-to-end tests of the talvern tool: each runs the built binary on real
// trees in a temporary folder.
#include "support/archive_support.h"
#include "tool_runner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;
using tooltest::Run;
using tooltest::RunResult;

namespace {

// A copy of the sample tree plus an empty folder and a hidden file, so that
// every kind of item is covered.
class ToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    fs::copy(std::string(TALVERN_SOURCE_DIR) + "/samples/tree", Tree(),
             fs::copy_options::recursive);
    fs::create_directories(Tree() + "/empty folder");
  }

  std::string Tree() const { return dir.Host("tree"); }
  std::string Path(const std::string& relative) const { return dir.Host(relative); }

  RunResult Tool(const std::vector<std::string>& args) const {
    return tooltest::Run(args, dir.Host());
  }

  // Runs a command that must succeed and print nothing on standard error.
  RunResult Ok(const std::vector<std::string>& args) const {
    RunResult r = Tool(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r;
  }

  test::TempDir dir;
};

std::string Hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", value);
  return text;
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Flips one byte of a file's stored data, found by its contents.
void FlipStoredByte(const std::string& archive, const std::string& contents) {
  std::string bytes = test::ReadText(archive);
  const std::size_t at = bytes.find(contents);
  ASSERT_NE(at, std::string::npos);
  bytes[at + contents.size() / 2] ^= 0x5A;
  test::WriteFile(archive, bytes);
}

TEST_F(ToolTest, CreateListTestExtractGivesTheSameTree) {
  RunResult r = Ok({"create", "sample.arc", "tree"});
  EXPECT_TRUE(Contains(r.out, "created sample.arc: 36 files, 14 folders")) << r.out;

  r = Ok({"list", "sample.arc"});
  EXPECT_TRUE(Contains(r.out, "docs\\notes\\note01.txt")) << r.out;
  EXPECT_TRUE(Contains(r.out, "deep\\a\\b\\c\\d\\leaf.txt")) << r.out;
  EXPECT_TRUE(Contains(r.out, "d----")) << r.out; // folders carry the d attribute
  EXPECT_TRUE(Contains(r.out, "36 files, 14 folders")) << r.out;

  // The JSON listing carries the CRC the archive stores for a file.
  const std::string leaf = test::ReadText(Tree() + "/deep/a/b/c/d/leaf.txt");
  r = Ok({"list", "--json", "sample.arc"});
  EXPECT_EQ(r.out.front(), '{');
  EXPECT_TRUE(Contains(r.out, "\"path\": \"deep\\\\a\\\\b\\\\c\\\\d\\\\leaf.txt\", \"folder\": "
                              "\"deep\\\\a\\\\b\\\\c\\\\d\", \"name\": \"leaf.txt\", \"type\": "
                              "\"file\", \"size\": " +
                                  std::to_string(leaf.size())))
      << r.out;
  EXPECT_TRUE(Contains(
      r.out,
      "\"crc\": \"" + Hex(test::Crc32(std::vector<std::uint8_t>(leaf.begin(), leaf.end()))) + "\""))
      << r.out;
  EXPECT_TRUE(Contains(r.out, "\"name\": \"café-menü.txt\"")) << r.out;
  EXPECT_TRUE(Contains(r.out, "\"totals\": {\"files\": 36, \"folders\": 14")) << r.out;

  r = Ok({"test", "sample.arc"});
  EXPECT_TRUE(Contains(r.out, "36 files")) << r.out;
  EXPECT_TRUE(Contains(r.out, "all correct")) << r.out;

  r = Ok({"info", "sample.arc"});
  EXPECT_TRUE(Contains(r.out, "entries   50 (36 files, 14 folders)")) << r.out;
  EXPECT_TRUE(Contains(r.out, "volumes   1")) << r.out;

  r = Ok({"extract", "sample.arc", "out"});
  EXPECT_TRUE(Contains(r.out, "extracted 36 files, 14 folders")) << r.out;
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");

  // One of each is counted in the singular everywhere.
  test::WriteFile(Path("solo/d/x.txt"), "x");
  Ok({"create", "solo.arc", "solo"});
  EXPECT_TRUE(Contains(Ok({"info", "solo.arc"}).out, "entries   2 (1 file, 1 folder)"));
  EXPECT_TRUE(Contains(Ok({"list", "solo.arc"}).out, "1 file, 1 folder:"));
  EXPECT_TRUE(Contains(Ok({"extract", "solo.arc", "solo-out"}).out, "extracted 1 file, 1 folder"));
}

TEST_F(ToolTest, AddAndNumberedVolumesRoundTripFromAnyVolume) {
  test::WriteFile(Path("extra/more.txt"), "more text\n");
  test::WriteFile(Path("late.bin"), test::RandomBytes(150000, 9));
  RunResult r =
      Ok({"create", "--volume-size", "64K", "--first-volume-size", "40K", "set.arc", "tree"});
  EXPECT_TRUE(Contains(r.out, "volumes (")) << r.out;
  EXPECT_FALSE(test::Exists(Path("set.arc")));
  EXPECT_LE(fs::file_size(Path("set.000")), 40u * 1024);
  int volumes = 0;
  for (; test::Exists(Path("set.00" + std::to_string(volumes))); ++volumes)
    EXPECT_LE(fs::file_size(Path("set.00" + std::to_string(volumes))), 64u * 1024);
  r = Ok({"info", "--json", "set.001"});
  EXPECT_TRUE(Contains(r.out, "\"entries\": 50")) << r.out;
  EXPECT_TRUE(Contains(r.out, "set.00" + std::to_string(volumes - 1) + "\", \"size\"")) << r.out;
  Ok({"test", "set"});
  Ok({"extract", "set.002", "out"});
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");
  // Adding goes on in the last volume and in new ones of the same size, with
  // the items at the top level; a missing source fails alone.
  r = Tool({"add", "set.arc", "nothing-here", "extra", "late.bin"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "nothing-here")) << r.err;
  EXPECT_TRUE(Contains(r.out, "added to") && Contains(r.out, ": 2 files, 1 folder")) << r.out;
  Ok({"extract", "set.000", "out2"});

  fs::copy(Path("late.bin"), Tree() + "/late.bin");
  fs::copy(Path("extra"), Tree() + "/extra");
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out2"), false), "");
  // Replacing needs --force; a set that shrinks leaves no old volume behind.
  EXPECT_EQ(Tool({"create", "--volume-size", "64K", "set", "tree/src"}).exitCode, 2);
  Ok({"create", "--force", "--volume-size", "64K", "set", "tree/src"});
  EXPECT_FALSE(test::Exists(Path("set.001")));
  Ok({"extract", "set", "out-set"});
  EXPECT_EQ(test::CompareTrees(Tree() + "/src", Path("out-set"), false), "");
}

TEST_F(ToolTest, OverwritePolicies) {
  test::WriteFile(Path("src/a.txt"), "new\n");
  test::WriteFile(Path("src/b.txt"), "new b\n");
  Ok({"create", "a.arc", "src"});
  const struct {
    std::vector<std::string> options, answers; // answers: run on a terminal
    int exitCode;
    const char *aTxt, *bTxt, *aside, *asideText, *message;
  } cases[] = {
      {{"--overwrite", "replace"}, {}, 0, "new\n", "new b\n", "", "", "extracted 2 files"},
      {{"--overwrite", "skip"}, {}, 0, "old\n", "old b\n", "", "", "2 existing files were left"},
      {{"--overwrite", "backup"}, {}, 0, "new\n", "new b\n", "a.txt.ORG", "old\n", ""},
      {{"--overwrite", "rename"}, {}, 0, "old\n", "old b\n", "a.txt.NEW", "new\n", ""},
      {{}, {}, 0, "old\n", "old b\n", "", "", "2 existing files were left"}, // no terminal: skip
      {{"--overwrite", "ask"}, {}, 1, "old\n", "old b\n", "", "", "no terminal to ask on"},
      // On a terminal a wrong answer is asked again, then each file alone.
      {{"--overwrite", "ask"}, {"x", "r", "s"}, 0, "new\n", "old b\n", "", "", ""},
      {{}, {"c"}, 130, "old\n", "old b\n", "", "", "error 1223 ERROR_CANCELLED"},
  };
  for (const auto& c : cases) {
    const std::string target = "out" + std::to_string(&c - cases);
    test::WriteFile(Path(target + "/a.txt"), "old\n");
    test::WriteFile(Path(target + "/b.txt"), "old b\n");
    std::vector<std::string> args = {"extract"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    args.insert(args.end(), {"a.arc", target});
    const RunResult r =
        c.answers.empty() ? Tool(args) : tooltest::RunOnTerminal(args, dir.Host(), c.answers);
    EXPECT_EQ(r.exitCode, c.exitCode) << target << r.out << r.err;
    EXPECT_TRUE(Contains(r.out + r.err, c.message)) << target << r.out << r.err;
    EXPECT_EQ(test::ReadText(Path(target + "/a.txt")), c.aTxt) << target;
    EXPECT_EQ(test::ReadText(Path(target + "/b.txt")), c.bTxt) << target;
    EXPECT_EQ(*c.aside ? test::ReadText(Path(target + "/" + c.aside)) : "", c.asideText) << target;
  }
}

TEST_F(ToolTest, PatternsAndOptionsShapeWhatIsStoredAndExtracted) {
  Ok({"create", "--exclude", "*.log", "--exclude", "images", "--exclude-hidden", "a.arc", "tree"});
  RunResult r = Ok({"list", "a.arc"});
  for (const char* left : {".log", "images", ".settings"})
    EXPECT_FALSE(Contains(r.out, left)) << left;
  EXPECT_TRUE(Contains(r.out, "data\\records.bin")) << r.out;
  EXPECT_TRUE(Contains(r.out, "logs\\archive")) << r.out; // the folder itself stays
  // --include takes files by name; folders stay so that their files can match.
  Ok({"extract", "--include", "*.TXT", "a.arc", "txt"});
  for (const auto& item : fs::recursive_directory_iterator(Path("txt")))
    EXPECT_TRUE(!item.is_regular_file() || item.path().extension() == ".txt") << item.path();
  EXPECT_TRUE(test::Exists(Path("txt/docs/notes/note09.txt")));
  // Patterns with a separator match whole paths; a folder brings its tree.
  r = Ok({"extract", "a.arc", "sel", "docs/notes/note0[1-2].txt", "src/lib"});
  EXPECT_FALSE(test::Exists(Path("sel/docs/notes/note03.txt")));
  EXPECT_EQ(test::CompareTrees(Tree() + "/src/lib", Path("sel/src/lib"), false), "");
  EXPECT_TRUE(Contains(r.out, "extracted 4 files, 1 folder")) << r.out;
  r = Tool({"extract", "a.arc", "sel2", "no/such/*.file"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "nothing in the archive matches no/such/*.file")) << r.err;

  // --store keeps every file as it is; --no-recurse takes top-level folders
  // without their contents; --no-paths extracts every file into the target.
  Ok({"create", "--store", "stored.arc", "tree"});
  r = Ok({"list", "--json", "stored.arc"});
  EXPECT_FALSE(Contains(r.out, "\"method_name\": \"lz1\"")) << r.out;
  EXPECT_TRUE(Contains(r.out, "\"size\": 378595, \"packed\": 378595")) << r.out;
  Ok({"create", "--no-recurse", "top.arc", "tree"});
  r = Ok({"list", "top.arc"});
  EXPECT_TRUE(Contains(r.out, "  docs\n")) << r.out;
  EXPECT_FALSE(Contains(r.out, "docs\\")) << r.out;
  EXPECT_TRUE(Contains(r.out, "read me first.txt")) << r.out;
  Ok({"extract", "--no-paths", "stored.arc", "flat"});
  EXPECT_TRUE(test::Exists(Path("flat/note07.txt")));
  EXPECT_FALSE(test::Exists(Path("flat/docs")));
  EXPECT_EQ(test::ReadText(Path("flat/util.c")), test::ReadText(Tree() + "/src/lib/util.c"));
}

TEST_F(ToolTest, ProgressBarOnATerminalOnly) {
  RunResult r = Ok({"create", "a.arc", "tree"});
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
  EXPECT_TRUE(Contains(Ok({"test", "-v", "a.arc"}).out, "test docs\\guide.txt"));
  r = tooltest::RunOnTerminal({"create", "b.arc", "tree"}, dir.Host(), {});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  for (const char* part : {"\rcreate [", "/36 files", "/369.7 KiB", "\r\033[K", "created b.arc"})
    EXPECT_TRUE(Contains(r.out, part)) << part << r.out;
}

TEST_F(ToolTest, LinkedFoldersAreReportedAndFollowedOnlyWhenAsked) {
  fs::create_directory_symlink("docs", Tree() + "/docs link");
  fs::create_directory_symlink("..", Tree() + "/docs/up");
  // Without --follow-links both are stored empty, each named in a warning.
  RunResult r = Tool({"create", "a.arc", "tree"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Contains(r.err, "warning: " + Tree() +
                                  "/docs link is a link to a folder: stored as an empty folder"))
      << r.err;
  EXPECT_TRUE(Contains(r.err, "2 linked folders were stored empty")) << r.err;
  EXPECT_TRUE(Contains(Ok({"list", "a.arc"}).out, "docs link\n"));
  // With it the linked folder is packed; links back up are not followed.
  r = Tool({"create", "--follow-links", "b.arc", "tree"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Contains(r.err, Tree() + "/docs link/up is a link to a folder above it")) << r.err;
  EXPECT_TRUE(Contains(r.err, "2 linked folders were stored empty")) << r.err;
  Ok({"extract", "b.arc", "out"});
  EXPECT_EQ(test::ReadText(Path("out/docs link/guide.txt")),
            test::ReadText(Tree() + "/docs/guide.txt"));
  EXPECT_TRUE(fs::is_empty(Path("out/docs link/up")));
}

TEST_F(ToolTest, RemovableDriveAsksForEachDiskOrTakesMedia) {
  const std::string drive = "A:=" + Path("media/disk1") + ",removable,size=64K";
  const std::string readDrive = "A:=" + Path("media/disk1") + ",removable";
  // Each question for a further disk takes the suggested folder (Enter).
  RunResult r = tooltest::RunOnTerminal({"create", "--drive", drive, "A:/backup.arc", "tree"},
                                        dir.Host(), std::vector<std::string>(8));
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "goes on with disk 2 on a new medium in A:")) << r.out;
  ASSERT_TRUE(test::Exists(Path("media/disk3/backup.arc")));
  // Reading: the wrong disk is refused and asked for again.
  r = tooltest::RunOnTerminal({"extract", "--drive", readDrive, "A:\\backup.arc", "out"},
                              dir.Host(), {Path("media/disk3"), "", "", "", "", "", ""});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "does not hold disk 2 of this archive")) << r.out;
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");
  // Without a terminal nobody can change the disk, unless --media names them.
  r = Tool({"test", "--drive", readDrive, "media/disk1/backup.arc"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "drive A: needs the medium for disk 2")) << r.err;
  const std::string media = Path("media/disk2") + "," + Path("media/disk3");
  Ok({"test", "--drive", readDrive, "--media", media, "media/disk1/backup.arc"});
}

TEST_F(ToolTest, ExitCodesForBadInputAndDamage) {
  RunResult r = Tool({"list", "missing.arc"});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_TRUE(Contains(r.err, "the archive missing.arc does not exist (error 2 "
                              "ERROR_FILE_NOT_FOUND)"))
      << r.err;
  EXPECT_EQ(Tool({"extract"}).exitCode, 2);
  EXPECT_EQ(Tool({"list", "--store", "x.arc"}).exitCode, 2);
  EXPECT_EQ(Tool({"create", "--volume-size", "5G", "x.arc", "tree"}).exitCode, 2);
  EXPECT_EQ(Tool({"frobnicate", "x.arc"}).exitCode, 2);

  // A flipped byte in stored data: the entry fails its CRC, the others are
  // still extracted, and the damaged one is not left behind.
  const std::string note = test::ReadText(Tree() + "/docs/notes/note03.txt");
  Ok({"create", "--store", "flip.arc", "tree"});
  FlipStoredByte(Path("flip.arc"), note);
  r = Tool({"test", "flip.arc"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_TRUE(Contains(r.err, "CRC mismatch in docs\\notes\\note03.txt (error 23 ERROR_CRC)"))
      << r.err;
  r = Tool({"extract", "flip.arc", "out"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_TRUE(Contains(r.err, "CRC mismatch in docs\\notes\\note03.txt")) << r.err;
  EXPECT_FALSE(test::Exists(Path("out/docs/notes/note03.txt")));
  EXPECT_TRUE(test::Exists(Path("out/docs/notes/note04.txt")));
  EXPECT_TRUE(test::Exists(Path("out/src/table.c")));

  // A volume cut short is damage, also for test and list of one file.
  Ok({"create", "cut.arc", "tree"});
  fs::resize_file(Path("cut.arc"), fs::file_size(Path("cut.arc")) / 2);
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"test", "cut.arc"}, {"list", "cut.arc"}, {"extract", "cut.arc", "cut-out"}}) {
    r = Tool(args);
    EXPECT_EQ(r.exitCode, 3) << args[0] << ": " << r.err;
    EXPECT_TRUE(Contains(r.err, "error 1804 ERROR_INVALID_DATATYPE")) << r.err;
  }

  // A missing volume in the middle of a numbered set.
  Ok({"create", "--volume-size", "64K", "set", "tree"});
  fs::remove(Path("set.002"));
  r = Tool({"test", "set.000"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_TRUE(Contains(r.err, "set.002")) << r.err;

  // Not an archive at all.
  test::WriteFile(Path("junk.arc"), test::RandomBytes(300, 5));
  r = Tool({"info", "junk.arc"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_TRUE(Contains(r.err, "is not an archive of this format")) << r.err;
  // ... which create does not replace even when asked to.
  r = Tool({"create", "--force", "junk.arc", "tree"});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(test::ReadFile(Path("junk.arc")), test::RandomBytes(300, 5));
}

TEST_F(ToolTest, BeingToldToEndCancelsCleanly) {
  // A file large enough to go through a temporary file; each signal comes
  // while that file exists.
  std::string large;
  while (large.size() < (24u << 20)) large += "row " + std::to_string(large.size() % 7919) + "\n";
  test::WriteFile(Path("src/large.txt"), large);
  const std::string temp = Path("systemp");
  fs::create_directories(temp);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const RunResult r =
        tooltest::Run({"create", "-j", "1", "a.arc", "src"}, dir.Host(), {"TMPDIR=" + temp}, signal,
                      [&] { return !fs::is_empty(temp); });
    EXPECT_EQ(r.exitCode, 130) << signal << r.err;
    EXPECT_TRUE(fs::is_empty(temp)) << signal;
    EXPECT_FALSE(fs::exists(Path("a.arc"))) << signal;
  }
}

} // namespace
