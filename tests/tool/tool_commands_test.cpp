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
}

TEST_F(ToolTest, AddAppendsItemsAtTheTopLevel) {
  Ok({"create", "a.arc", "tree/docs"});
  test::WriteFile(Path("extra/more.txt"), "more text\n");
  test::WriteFile(Path("single.bin"), test::RandomBytes(5000, 3));
  RunResult r = Ok({"add", "a.arc", "extra", "single.bin"});
  EXPECT_TRUE(Contains(r.out, "added to")) << r.out;
  EXPECT_TRUE(Contains(r.out, "2 files, 1 folder")) << r.out;

  r = Ok({"list", "a.arc"});
  EXPECT_TRUE(Contains(r.out, "extra\\more.txt")) << r.out;
  EXPECT_TRUE(Contains(r.out, " single.bin")) << r.out;

  Ok({"extract", "a.arc", "out"});
  fs::create_directories(Path("expected"));
  fs::copy(Tree() + "/docs", Path("expected"), fs::copy_options::recursive);
  fs::copy(Path("extra"), Path("expected/extra"), fs::copy_options::recursive);
  fs::copy(Path("single.bin"), Path("expected/single.bin"));
  EXPECT_EQ(test::CompareTrees(Path("expected"), Path("out"), false), "");

  // Adding to an archive that does not exist is a usage error.
  r = Tool({"add", "missing.arc", "single.bin"});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_TRUE(Contains(r.err, "does not exist (error 2 ERROR_FILE_NOT_FOUND)")) << r.err;
  // A source that does not exist fails on its own; the rest is added.
  r = Tool({"add", "a.arc", "nothing-here", "extra/more.txt"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "nothing-here")) << r.err;
  EXPECT_TRUE(Contains(r.out, "1 file")) << r.out;
}

TEST_F(ToolTest, NumberedVolumesRoundTripFromAnyVolume) {
  RunResult r =
      Ok({"create", "--volume-size", "64K", "--first-volume-size", "40K", "set.arc", "tree"});
  EXPECT_TRUE(Contains(r.out, "volumes (")) << r.out;
  ASSERT_TRUE(test::Exists(Path("set.002")));
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

  // Adding goes on in the last volume and in new ones of the same size.
  test::WriteFile(Path("late.bin"), test::RandomBytes(150000, 9));
  Ok({"add", "set.arc", "late.bin"});
  EXPECT_TRUE(test::Exists(Path("set.00" + std::to_string(volumes))));
  EXPECT_LE(fs::file_size(Path("set.00" + std::to_string(volumes))), 64u * 1024);
  Ok({"extract", "set.000", "out2"});
  fs::copy(Path("late.bin"), Tree() + "/late.bin");
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out2"), false), "");
}

TEST_F(ToolTest, OverwritePolicies) {
  test::WriteFile(Path("src/a.txt"), "new contents\n");
  Ok({"create", "a.arc", "src"});
  struct Case {
    const char* policy;
    const char* aTxt;      // a.txt afterwards
    const char* aside;     // the other file's name, or null
    const char* asideText; // its contents
  };
  const Case cases[] = {
      {"replace", "new contents\n", nullptr, nullptr},
      {"skip", "old contents\n", nullptr, nullptr},
      {"backup", "new contents\n", "a.txt.ORG", "old contents\n"},
      {"rename", "old contents\n", "a.txt.NEW", "new contents\n"},
      {nullptr, "old contents\n", nullptr, nullptr}, // default without a terminal: skip
  };
  for (const Case& c : cases) {
    const std::string target = std::string("out-") + (c.policy ? c.policy : "default");
    test::WriteFile(Path(target + "/a.txt"), "old contents\n");
    std::vector<std::string> args = {"extract", "a.arc", target};
    if (c.policy) args.insert(args.begin() + 1, {"--overwrite", c.policy});
    const RunResult r = Ok(args);
    EXPECT_EQ(test::ReadText(Path(target + "/a.txt")), c.aTxt) << target;
    if (c.aside) {
      EXPECT_EQ(test::ReadText(Path(target + "/" + c.aside)), c.asideText) << target;
    }
    const std::size_t items = static_cast<std::size_t>(
        std::distance(fs::directory_iterator(Path(target)), fs::directory_iterator()));
    EXPECT_EQ(items, c.aside ? 2u : 1u) << target;
    if (!c.policy || std::string(c.policy) == "skip") {
      EXPECT_TRUE(Contains(r.out, "1 existing file was left alone")) << r.out;
    }
  }
}

TEST_F(ToolTest, IncludeExcludeAndPatterns) {
  RunResult r = Ok(
      {"create", "--exclude", "*.log", "--exclude", "images", "--exclude-hidden", "a.arc", "tree"});
  r = Ok({"list", "a.arc"});
  EXPECT_FALSE(Contains(r.out, ".log")) << r.out;
  EXPECT_FALSE(Contains(r.out, "images")) << r.out;
  EXPECT_FALSE(Contains(r.out, ".settings")) << r.out;
  EXPECT_TRUE(Contains(r.out, "data\\records.bin")) << r.out;
  EXPECT_TRUE(Contains(r.out, "logs\\archive")) << r.out; // the folder itself stays

  // --include takes files by name; folders stay so that their files can match.
  Ok({"extract", "--include", "*.TXT", "a.arc", "txt"});
  for (const auto& item : fs::recursive_directory_iterator(Path("txt"))) {
    if (item.is_regular_file()) {
      EXPECT_EQ(item.path().extension(), ".txt") << item.path();
    }
  }
  EXPECT_TRUE(test::Exists(Path("txt/docs/notes/note09.txt")));

  // Patterns with a separator match whole paths; a folder brings its tree.
  r = Ok({"extract", "a.arc", "sel", "docs/notes/note0[1-2].txt", "src/lib"});
  EXPECT_TRUE(test::Exists(Path("sel/docs/notes/note01.txt")));
  EXPECT_TRUE(test::Exists(Path("sel/docs/notes/note02.txt")));
  EXPECT_FALSE(test::Exists(Path("sel/docs/notes/note03.txt")));
  EXPECT_EQ(test::CompareTrees(Tree() + "/src/lib", Path("sel/src/lib"), false), "");
  EXPECT_FALSE(test::Exists(Path("sel/data")));
  EXPECT_TRUE(Contains(r.out, "extracted 4 files, 1 folder")) << r.out;

  // A pattern that matches nothing is reported.
  r = Tool({"extract", "a.arc", "sel2", "no/such/*.file"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "nothing in the archive matches no/such/*.file")) << r.err;
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

TEST_F(ToolTest, CreateReplacesOnlyWithForce) {
  Ok({"create", "a.arc", "tree/docs"});
  RunResult r = Tool({"create", "a.arc", "tree/src"});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_TRUE(Contains(r.err, "already exists")) << r.err;
  Ok({"create", "--force", "a.arc", "tree/src"});
  Ok({"extract", "a.arc", "out"});
  EXPECT_EQ(test::CompareTrees(Tree() + "/src", Path("out"), false), "");

  // A numbered set that shrinks leaves no volume of the old set behind.
  Ok({"create", "--volume-size", "32K", "set", "tree"});
  ASSERT_TRUE(test::Exists(Path("set.004")));
  Ok({"create", "--force", "--volume-size", "32K", "set", "tree/src"});
  EXPECT_FALSE(test::Exists(Path("set.004")));
  Ok({"extract", "set", "out-set"});
  EXPECT_EQ(test::CompareTrees(Tree() + "/src", Path("out-set"), false), "");
}

TEST_F(ToolTest, OptionsShapeWhatIsStoredAndExtracted) {
  // --store keeps every file as it is.
  RunResult r = Ok({"create", "--store", "stored.arc", "tree"});
  r = Ok({"list", "--json", "stored.arc"});
  EXPECT_FALSE(Contains(r.out, "\"method_name\": \"lz1\"")) << r.out;
  EXPECT_TRUE(Contains(r.out, "\"size\": 378595, \"packed\": 378595")) << r.out;

  // --no-recurse takes the top-level folders without their contents.
  r = Ok({"create", "--no-recurse", "top.arc", "tree"});
  r = Ok({"list", "top.arc"});
  EXPECT_TRUE(Contains(r.out, "  docs\n")) << r.out;
  EXPECT_FALSE(Contains(r.out, "docs\\")) << r.out;
  EXPECT_TRUE(Contains(r.out, "read me first.txt")) << r.out;

  // --no-paths on extraction puts every file straight into the target.
  Ok({"create", "all.arc", "tree"});
  Ok({"extract", "--no-paths", "all.arc", "flat"});
  EXPECT_TRUE(test::Exists(Path("flat/leaf.txt")));
  EXPECT_TRUE(test::Exists(Path("flat/note07.txt")));
  EXPECT_FALSE(test::Exists(Path("flat/docs")));
  EXPECT_EQ(test::ReadText(Path("flat/util.c")), test::ReadText(Tree() + "/src/lib/util.c"));
}

TEST_F(ToolTest, NoTemporaryFilesStayBehind) {
  // Testing expands into scratch files, extracting copies stored data into
  // them: none of them is left in the temporary folder.
  fs::create_directories(Path("tmp"));
  const std::vector<std::string> env = {"TMPDIR=" + Path("tmp")};
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"create", "a.arc", "tree"}, {"test", "a.arc"}, {"extract", "a.arc", "out"}}) {
    const RunResult r = tooltest::Run(args, dir.Host(), env);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(fs::is_empty(Path("tmp"))) << args[0];
  }
}

TEST_F(ToolTest, JsonListingOfADamagedArchiveCarriesTheError) {
  Ok({"create", "cut.arc", "tree"});
  fs::resize_file(Path("cut.arc"), 100);
  const RunResult r = Tool({"list", "--json", "cut.arc"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_TRUE(Contains(r.out, "\"error\": {\"code\": 1804, \"name\": "
                              "\"ERROR_INVALID_DATATYPE\""))
      << r.out;
  EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n");
}

TEST_F(ToolTest, FailedCreateLeavesNoArchive) {
  // A fixed drive too small for the tree: the disk fills up and there is no
  // further volume to go to.
  const std::string drive = "B:=" + Path("small") + ",fixed,size=40K";
  const RunResult r = Tool({"create", "--drive", drive, "B:/x.arc", "tree"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "the disk is full (error 112 ERROR_DISK_FULL)")) << r.err;
  EXPECT_TRUE(Contains(r.err, "removed the incomplete volume")) << r.err;
  EXPECT_FALSE(test::Exists(Path("small/x.arc")));
}

TEST_F(ToolTest, UnreadableFileIsLeftOutAndReported) {
  ASSERT_EQ(mkfifo(Path("tree/data/pipe").c_str(), 0644), 0);
  RunResult r = Tool({"create", "a.arc", "tree"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "tree/data/pipe cannot be read: access is denied (error 5 "
                              "ERROR_ACCESS_DENIED)"))
      << r.err;
  EXPECT_TRUE(Contains(r.err, "1 item was left out")) << r.err;
  fs::remove(Path("tree/data/pipe"));
  Ok({"test", "a.arc"});
  Ok({"extract", "a.arc", "out"});
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");
}

TEST_F(ToolTest, ArchiveInsideItsOwnSourceIsNotAddedToItself) {
  RunResult r = Ok({"create", "tree/self.arc", "tree"});
  r = Ok({"list", "tree/self.arc"});
  EXPECT_FALSE(Contains(r.out, "self.arc")) << r.out;
}

TEST_F(ToolTest, PipedOutputHasNoProgressBar) {
  const RunResult r = Ok({"create", "a.arc", "tree"});
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  EXPECT_FALSE(Contains(r.out, "create [")) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
  // --quiet leaves out the result line; --verbose names every item.
  EXPECT_EQ(Ok({"test", "--quiet", "a.arc"}).out, "");
  EXPECT_TRUE(Contains(Ok({"test", "-v", "a.arc"}).out, "test docs\\guide.txt"));
}

TEST_F(ToolTest, TerminalShowsProgressBar) {
  const RunResult r = tooltest::RunOnTerminal({"create", "a.arc", "tree"}, dir.Host(), {});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "\rcreate [")) << r.out;
  EXPECT_TRUE(Contains(r.out, "/36 files")) << r.out;
  EXPECT_TRUE(Contains(r.out, "/369.7 KiB")) << r.out; // the whole is counted beforehand
  EXPECT_TRUE(Contains(r.out, "\r\033[K")) << r.out;   // the bar is cleared at the end
  EXPECT_TRUE(Contains(r.out, "created a.arc")) << r.out;
}

TEST_F(ToolTest, OverwriteQuestionOnTerminal) {
  test::WriteFile(Path("src/a.txt"), "new\n");
  test::WriteFile(Path("src/b.txt"), "new b\n");
  Ok({"create", "a.arc", "src"});
  test::WriteFile(Path("out/a.txt"), "old\n");
  test::WriteFile(Path("out/b.txt"), "old b\n");

  // An answer that is no answer is asked again; then each file on its own.
  RunResult r = tooltest::RunOnTerminal({"extract", "--overwrite", "ask", "a.arc", "out"},
                                        dir.Host(), {"x", "r", "s"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(test::ReadText(Path("out/a.txt")), "new\n");
  EXPECT_EQ(test::ReadText(Path("out/b.txt")), "old b\n");

  // Cancelling at the question: exit code 130, the existing file untouched.
  test::WriteFile(Path("out/a.txt"), "old\n");
  r = tooltest::RunOnTerminal({"extract", "a.arc", "out"}, dir.Host(), {"c"});
  EXPECT_EQ(r.exitCode, 130) << r.out;
  EXPECT_TRUE(Contains(r.out, "error 1223 ERROR_CANCELLED")) << r.out;
  EXPECT_EQ(test::ReadText(Path("out/a.txt")), "old\n");

  // Without a terminal, asking cannot happen: the run fails with 1.
  r = Tool({"extract", "--overwrite", "ask", "a.arc", "out"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "no terminal to ask on")) << r.err;
}

TEST_F(ToolTest, LinkedFoldersAreReportedAndFollowedOnlyWhenAsked) {
  fs::create_directory_symlink("docs", Tree() + "/docs link");
  fs::create_directory_symlink("..", Tree() + "/docs/up");
  // Without --follow-links both are stored empty, each named in a warning.
  RunResult r = Tool({"create", "a.arc", "tree"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Contains(r.err, "warning: " + Tree() +
                                  "/docs link is a link to a folder: stored "
                                  "as an empty folder"))
      << r.err;
  EXPECT_TRUE(Contains(r.err, "2 linked folders were stored empty")) << r.err;
  EXPECT_TRUE(Contains(Ok({"list", "a.arc"}).out, "docs link\n"));

  // With it the linked folder is packed; links back up are not followed.
  r = Tool({"create", "--follow-links", "b.arc", "tree"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(Contains(r.err, Tree() + "/docs/up is a link to a folder above it")) << r.err;
  EXPECT_TRUE(Contains(r.err, Tree() + "/docs link/up is a link to a folder above it")) << r.err;
  EXPECT_TRUE(Contains(r.err, "2 linked folders were stored empty")) << r.err;
  Ok({"extract", "b.arc", "out"});
  EXPECT_EQ(test::ReadText(Path("out/docs link/guide.txt")),
            test::ReadText(Tree() + "/docs/guide.txt"));
  EXPECT_TRUE(fs::is_empty(Path("out/docs link/up")));
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

TEST_F(ToolTest, RemovableDriveAsksForEachDisk) {
  const std::string drive = "A:=" + Path("media/disk1") + ",removable,size=64K";
  // Each question for a further disk takes the suggested folder (Enter).
  RunResult r = tooltest::RunOnTerminal({"create", "--drive", drive, "A:/backup.arc", "tree"},
                                        dir.Host(), {"", "", "", "", "", "", "", ""});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "goes on with disk 2 on a new medium in A:")) << r.out;
  ASSERT_TRUE(test::Exists(Path("media/disk2/backup.arc")));
  ASSERT_TRUE(test::Exists(Path("media/disk3/backup.arc")));
  EXPECT_LE(fs::file_size(Path("media/disk1/backup.arc")), 64u * 1024);

  // Reading: the wrong disk is refused and asked for again.
  const std::string readDrive = "A:=" + Path("media/disk1") + ",removable";
  r = tooltest::RunOnTerminal({"extract", "--drive", readDrive, "A:\\backup.arc", "out"},
                              dir.Host(), {Path("media/disk3"), "", "", "", "", "", ""});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "does not hold disk 2 of this archive")) << r.out;
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");

  // Without a terminal nobody can change the disk, unless --media names them.
  r = Tool({"test", "--drive", readDrive, "media/disk1/backup.arc"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Contains(r.err, "drive A: needs the medium for disk 2")) << r.err;
  const std::string further = Path("media/disk2") + "," + Path("media/disk3");
  r = Tool({"test", "--drive", readDrive, "--media", further, "media/disk1/backup.arc"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
}

TEST_F(ToolTest, RemovableDriveWithoutATerminal) {
  for (const char* disk : {"disk1", "disk2", "disk3", "disk4"})
    fs::create_directories(Path("media/") + disk);
  const std::string drive = "A:=" + Path("media/disk1") + ",removable,size=64K";
  // Too few media: the volume in the drive is removed, the filled disk named.
  RunResult r =
      Tool({"create", "--drive", drive, "--media", Path("media/disk2"), "A:/backup.arc", "tree"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_FALSE(test::Exists(Path("media/disk2/backup.arc")));
  EXPECT_TRUE(Contains(r.err, "the medium of disk 1 (" + Path("media/disk1") +
                                  ") holds a volume of the incomplete archive: delete " +
                                  Path("media/disk1/backup.arc")))
      << r.err;

  // Enough media: the set is written and reads back.
  const std::string media =
      Path("media/disk2") + "," + Path("media/disk3") + "," + Path("media/disk4");
  r = Tool({"create", "--force", "--drive", drive, "--media", media, "A:/backup.arc", "tree"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  r = Tool({"extract", "--drive", "A:=" + Path("media/disk1") + ",removable", "--media", media,
            "A:/backup.arc", "out"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(test::CompareTrees(Tree(), Path("out"), false), "");
}

} // namespace
