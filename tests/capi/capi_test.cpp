// The C interface where the example of docs/c-api.md and the Python tests
// do not reach: error codes, patterns, cancelling, media, one-shot files.
#include <talvern/talvern_c.h>

#include "support/test_support.h"

#include <talvern/platform.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
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

// What patterns select: names or whole paths, sets, folders with what lies
// below them; nothing else is created, not even a folder.
TEST(CApi, SelectionPatterns) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  const std::string extra = dir.Host("tree/[x].txt");
  test::WriteFile(extra, "x");
  const char* extraList[] = {extra.c_str()};
  ASSERT_EQ(0u, talvern_add(archive.c_str(), extraList, 1, 0, nullptr));
  // A pattern, then what it brings, each item followed by a space.
  // clang-format off
  const std::string cases[] = {
      "*.TXT:[x].txt a.txt sub sub/b.txt ", "sub/*:sub sub/b.txt sub/c.bin ", "[x].txt:", "[x:",
      "Sub:sub sub/b.txt sub/c.bin ", "[a-b].*:a.txt sub sub/b.txt ", "[!a-s]*:[x].txt ",
      "?.bin:sub sub/c.bin ", "**/c.bin:sub sub/c.bin ", "[[]x].txt:[x].txt ", "a.txt:a.txt "};
  // clang-format on
  Archive a = Open(archive);
  for (const std::string& c : cases) {
    const std::string pattern = c.substr(0, c.find(':')), expected = c.substr(c.find(':') + 1);
    const char* select[] = {pattern.c_str()};
    TempDir out;
    EXPECT_EQ(expected.empty() ? 2u : 0u,
              talvern_extract(a.get(), out.Host().c_str(), select, 1, 0));
    std::vector<std::string> made;
    for (const auto& item : std::filesystem::recursive_directory_iterator(out.Host()))
      made.push_back(std::filesystem::relative(item.path(), out.Host()).generic_string() + " ");
    std::sort(made.begin(), made.end());
    EXPECT_EQ(expected, std::accumulate(made.begin(), made.end(), std::string())) << pattern;
  }
}

// A progress callback that answers 0 cancels every kind of job with 1223,
// after exactly as many calls; a cancelled create leaves no archive.
TEST(CApi, CancelledJobs) {
  TempDir dir;
  const std::string archive = MakeArchive(dir), fresh = dir.Host("fresh.arc");
  const auto job = [&](int kind, const talvern_callbacks* c) {
    if (kind == 0) return talvern_create(fresh.c_str(), dir.Host("tree").c_str(), 4096, 0, c);
    Archive a = Open(archive);
    talvern_set_callbacks(a.get(), c);
    return kind == 1 ? talvern_extract(a.get(), dir.Host("out").c_str(), nullptr, 0, 0)
                     : talvern_test(a.get());
  };
  std::pair<int, int> calls; // calls so far, the call that answers 0
  talvern_callbacks c{};
  c.size = sizeof c;
  c.user = &calls;
  c.progress = [](void* user, const char*, uint64_t, uint64_t, uint64_t, uint64_t) {
    auto* p = static_cast<std::pair<int, int>*>(user);
    return ++p->first < p->second ? 1 : 0;
  };
  for (int run = 0; run < 6; ++run) {
    calls = {0, run % 2 ? 3 : 1};
    EXPECT_EQ(1223u, job(run / 2, &c)) << run;
    EXPECT_EQ(calls.second, calls.first) << run;
  }
  EXPECT_FALSE(test::Exists(fresh));
  EXPECT_FALSE(test::Exists(dir.Host("fresh.000")));
}

// The file forms of the one-shot functions, chained through files that are
// each used from their start.
TEST(CApi, OneShotFiles) {
  TempDir dir;
  const std::vector<std::uint8_t> data = test::ReadFile(test::CorpusFiles().at(0));
  const auto size = static_cast<uint32_t>(data.size());
  talvern_file *block = nullptr, *plain = nullptr, *block2 = nullptr, *plain2 = nullptr;
  for (auto [name, file] :
       {std::pair{"block", &block}, {"plain", &plain}, {"block2", &block2}, {"plain2", &plain2}})
    ASSERT_EQ(0u, talvern_file_open(dir.Host(name).c_str(), TALVERN_FILE_WRITE, file));
  uint32_t packed = 0, packed2 = 0, expanded = 0;
  std::vector<std::uint8_t> back(size), packedCopy(size + 16);
  ASSERT_EQ(0u, talvern_compress_mem_to_file(data.data(), size, block, size + 16, 1, &packed));
  ASSERT_EQ(0u, talvern_expand_file_to_file(block, packed, plain, size, &expanded));
  EXPECT_EQ(0u, talvern_expand_file_to_mem(block, packed, back.data(), size, &expanded));
  EXPECT_EQ(data, back);
  EXPECT_EQ(0u,
            talvern_compress_file_to_mem(plain, size, packedCopy.data(), size + 16, 1, &packed2));
  EXPECT_EQ(packed, packed2);
  EXPECT_EQ(0u, talvern_compress_file_to_file(plain, size, block2, size + 16, 1, &packed2));
  EXPECT_EQ(0u, talvern_expand_mem_to_file(packedCopy.data(), packed, plain2, size, &expanded));
  for (talvern_file* file : {block, plain, block2, plain2}) EXPECT_EQ(0u, talvern_file_close(file));
  // A destination file grows to the size given; the rest of packedCopy is 0.
  for (const char* name : {"block", "block2", "plain", "plain2"})
    EXPECT_EQ(*name == 'b' ? packedCopy : data, test::ReadFile(dir.Host(name))) << name;
  EXPECT_EQ(2u, talvern_file_open(dir.Host("none").c_str(), TALVERN_FILE_READ, &block));
}

} // namespace

// A removable drive whose media the next_volume callback changes: an archive
// spans three disks and is read back; the callback hears the drive's root and
// each disk as it is needed.
TEST(CApi, NextVolumeOnRemovableMedia) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  TempDir dir;
  test::WriteFile(dir.Host("tree/big.bin"), test::RandomBytes(90000, 3));
  std::vector<talvern::MediumSpec> media(3);
  for (std::size_t i = 0; i < media.size(); ++i) {
    media[i].HostDir = dir.Host("m" + std::to_string(i + 1));
    media[i].Serial = 0x100 + static_cast<DWORD>(i);
    media[i].Capacity = 40 * 1024;
  }
  ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, &media[0]));
  std::pair<std::vector<talvern::MediumSpec>*, std::vector<std::string>> asked{&media, {}};
  talvern_callbacks callbacks{};
  callbacks.size = sizeof callbacks;
  callbacks.user = &asked;
  callbacks.next_volume = [](void* user, const char* root, uint32_t disk, int writing, int wrong) {
    auto* a = static_cast<decltype(asked)*>(user);
    a->second.push_back(root + std::to_string(disk) + (writing ? "w" : "r") + (wrong ? "!" : ""));
    return disk <= a->first->size() && talvern::InsertMedium(u'A', &(*a->first)[disk - 1]) ? 1 : 0;
  };
  ASSERT_EQ(0u, talvern_create("A:\\BACKUP.ARC", dir.Host("tree").c_str(), 0, 0, &callbacks));
  EXPECT_EQ((std::vector<std::string>{"A:\\2w", "A:\\3w"}), asked.second);
  asked.second.clear();
  ASSERT_TRUE(talvern::InsertMedium(u'A', &media[0]));
  talvern_archive* raw = nullptr;
  ASSERT_EQ(0u, talvern_open("A:/BACKUP.ARC", &callbacks, &raw));
  Archive archive(raw);
  void* data = nullptr;
  size_t size = 0;
  ASSERT_EQ(0u, talvern_read(archive.get(), "big.bin", &data, &size));
  EXPECT_EQ(test::RandomBytes(90000, 3),
            std::vector<std::uint8_t>(static_cast<std::uint8_t*>(data),
                                      static_cast<std::uint8_t*>(data) + size));
  talvern_free(data);
  // Opening reads the list over disks 2 and 3; reading starts again at 1.
  EXPECT_EQ((std::vector<std::string>{"A:\\2r", "A:\\3r", "A:\\1r", "A:\\2r", "A:\\3r"}),
            asked.second);
  talvern::UnmountDrive(u'A');
}
