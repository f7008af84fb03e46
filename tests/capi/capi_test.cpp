// The C interface where the example of docs/c-api.md and the Python tests
// do not reach: error codes, and the name of a damaged file.
#include <talvern/talvern_c.h>

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using test::TempDir;

struct ArchiveCloser {
  void operator()(talvern_archive* a) const { talvern_close(a); }
};
using Archive = std::unique_ptr<talvern_archive, ArchiveCloser>;

Archive Open(const std::string& path, uint32_t* code = nullptr) {
  talvern_archive* raw = nullptr;
  const uint32_t result = talvern_open(path.c_str(), nullptr, &raw);
  if (code) *code = result;
  return Archive(raw);
}

// A small tree: a.txt, sub/b.txt, sub/c.bin.
void MakeTree(const TempDir& dir) {
  test::WriteFile(dir.Host("tree/a.txt"), std::string(5000, 'a'));
  test::WriteFile(dir.Host("tree/sub/b.txt"), "bee");
  test::WriteFile(dir.Host("tree/sub/c.bin"), test::RandomBytes(70000, 7));
}

std::string MakeArchive(const TempDir& dir) {
  MakeTree(dir);
  const std::string archive = dir.Host("t.arc");
  EXPECT_EQ(0u, talvern_create(archive.c_str(), dir.Host("tree").c_str(), 0, 0, nullptr));
  return archive;
}

TEST(CApi, ErrorCodes) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  test::WriteFile(dir.Host("plain.txt"), "not an archive, but long enough for a header");
  Archive open = Open(archive);
  ASSERT_TRUE(open);
  const talvern_entry* entry = nullptr;
  void* data = nullptr;
  size_t size = 0;
  const char* nothing[] = {"*.none"};
  talvern_callbacks tooSmall{};
  tooSmall.size = sizeof(size_t);
  unsigned char block[32] = {};
  uint32_t produced = 0;
  const std::string tree = dir.Host("tree");
  const struct {
    const char* what;
    std::function<uint32_t()> call;
    uint32_t code;
  } cases[] = {
      {"open a missing file", [&] { return Open(dir.Host("none.arc"), &produced), produced; }, 2},
      {"open a folder", [&] { return Open(tree, &produced), produced; }, 267},
      {"open a file of another kind",
       [&] { return Open(dir.Host("plain.txt"), &produced), produced; }, 1804},
      {"create over an archive",
       [&] { return talvern_create(archive.c_str(), tree.c_str(), 0, 0, nullptr); }, 80},
      {"create from a missing folder",
       [&] {
         return talvern_create(dir.Host("n.arc").c_str(), dir.Host("none").c_str(), 0, 0, nullptr);
       },
       2},
      {"volume size beyond 32 bits",
       [&] {
         return talvern_create(dir.Host("n.arc").c_str(), tree.c_str(), 1ull << 32, 0, nullptr);
       },
       87},
      {"callbacks of an older size",
       [&] { return talvern_create(dir.Host("n.arc").c_str(), tree.c_str(), 0, 0, &tooSmall); },
       87},
      {"create a set over a set",
       [&] {
         test::WriteFile(dir.Host("s.000"), "");
         return talvern_create(dir.Host("s.arc").c_str(), tree.c_str(), 4096, 0, nullptr);
       },
       80},
      {"select without a list",
       [&] { return talvern_extract(open.get(), dir.Host("x").c_str(), nullptr, 1, 0); }, 87},
      {"entry index out of range", [&] { return talvern_entry_at(open.get(), 99, &entry); }, 87},
      {"find a missing name", [&] { return talvern_find(open.get(), "sub/none", &entry); }, 2},
      {"pattern that matches nothing",
       [&] { return talvern_extract(open.get(), dir.Host("x").c_str(), nothing, 1, 0); }, 2},
      {"read a missing entry", [&] { return talvern_read(open.get(), "none", &data, &size); }, 2},
      {"read a folder", [&] { return talvern_read(open.get(), "SUB", &data, &size); }, 267},
      {"add a missing file",
       [&] {
         const char* paths[] = {"/nonexistent/file"};
         return talvern_add(archive.c_str(), paths, 1, 0, nullptr);
       },
       3},
      {"expand what is no block",
       [&] { return talvern_expand_mem_to_mem(block, 32, block, 32, &produced); }, 13},
      {"compress into too little room",
       [&] { return talvern_compress_mem_to_mem("abcdefgh", 8, block, 20, 0, &produced); }, 122},
  };
  for (const auto& c : cases) EXPECT_EQ(c.code, c.call()) << c.what;
  // A pattern that matches nothing is named, and nothing is written.
  EXPECT_EQ(2u, talvern_extract(open.get(), dir.Host("x").c_str(), nothing, 1, 0));
  EXPECT_STREQ("*.none", talvern_failed_name(open.get()));
  EXPECT_FALSE(test::Exists(dir.Host("x")));
  EXPECT_EQ(nullptr, data);
  // The one-shot form round-trips, and a flipped data byte is a CRC error.
  ASSERT_EQ(0u, talvern_compress_mem_to_mem("abcdefgh", 8, block, 32, 0, &produced));
  block[20] ^= 1;
  char back[8];
  EXPECT_EQ(23u, talvern_expand_mem_to_mem(block, produced, back, 8, &produced));
  EXPECT_EQ(0u, produced);
  EXPECT_STRNE(talvern_strerror(23), talvern_strerror(1223));
}

TEST(CApi, DamagedFileFailsTestWithItsName) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  std::vector<std::uint8_t> bytes = test::ReadFile(archive);
  bytes[bytes.size() / 2] ^= 0x40; // inside the stored data of c.bin
  test::WriteFile(archive, bytes);
  Archive open = Open(archive);
  ASSERT_TRUE(open);
  const uint32_t code = talvern_test(open.get());
  EXPECT_EQ(23u, code);
  EXPECT_STREQ("sub/c.bin", talvern_failed_name(open.get()));
}

} // namespace
