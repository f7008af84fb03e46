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
