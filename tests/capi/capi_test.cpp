// The C interface where the example of docs/c-api.md does not reach: error
// codes, cancellation, overwrite answers and numbered volumes.
#include <talvern/talvern_c.h>

#include "support/test_support.h"

#include <talvern/platform.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
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

// Calls progress back into a std::function, counting the calls.
struct Recorder {
  std::function<int(uint64_t, uint64_t)> onProgress = [](uint64_t, uint64_t) { return 1; };
  int overwriteAnswer = TALVERN_OVERWRITE_REPLACE;
  int calls = 0;
  talvern_callbacks callbacks{};

  Recorder() {
    callbacks.size = sizeof callbacks;
    callbacks.user = this;
    callbacks.progress = [](void* user, const char*, uint64_t, uint64_t, uint64_t done,
                            uint64_t total) {
      auto* self = static_cast<Recorder*>(user);
      ++self->calls;
      return self->onProgress(done, total);
    };
    callbacks.overwrite = [](void* user, const char*, const talvern_entry*) {
      return static_cast<Recorder*>(user)->overwriteAnswer;
    };
  }
};

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

// What patterns select: names or whole paths, sets, folders with what lies
// below them; nothing else is created, not even a folder.
TEST(CApi, SelectionPatterns) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  test::WriteFile(dir.Host("tree/[x].txt"), "x");
  const std::string extra = dir.Host("tree/[x].txt");
  const char* extraList[] = {extra.c_str()};
  ASSERT_EQ(0u, talvern_add(archive.c_str(), extraList, 1, 0, nullptr));
  const struct {
    const char* pattern;
    std::vector<std::string> made;
  } cases[] = {
      {"*.TXT", {"[x].txt", "a.txt", "sub", "sub/b.txt"}},
      {"sub/*", {"sub", "sub/b.txt", "sub/c.bin"}},
      {"[a-b].*", {"a.txt", "sub", "sub/b.txt"}},
      {"[!a-s]*", {"[x].txt"}},
      {"?.bin", {"sub", "sub/c.bin"}},
      {"**/c.bin", {"sub", "sub/c.bin"}},
      {"[x].txt", {}},
      {"[x", {}},
      {"[[]x].txt", {"[x].txt"}},
      {"a.txt", {"a.txt"}},
      {"Sub", {"sub", "sub/b.txt", "sub/c.bin"}},
  };
  Archive a = Open(archive);
  for (const auto& c : cases) {
    TempDir out;
    const char* select[] = {c.pattern};
    const uint32_t code = talvern_extract(a.get(), out.Host().c_str(), select, 1, 0);
    EXPECT_EQ(c.made.empty() ? 2u : 0u, code) << c.pattern;
    std::vector<std::string> made;
    for (const auto& item : std::filesystem::recursive_directory_iterator(out.Host()))
      made.push_back(std::filesystem::relative(item.path(), out.Host()).generic_string());
    std::sort(made.begin(), made.end());
    EXPECT_EQ(c.made, made) << c.pattern;
  }
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

// A progress callback that answers 0 cancels every kind of job with 1223;
// a cancelled create leaves no archive.
TEST(CApi, CancelledJobs) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  const std::string tree = dir.Host("tree");
  const std::string fresh = dir.Host("fresh.arc");
  const struct {
    const char* what;
    std::function<uint32_t(const talvern_callbacks*)> job;
  } jobs[] = {
      {"create",
       [&](const talvern_callbacks* c) {
         return talvern_create(fresh.c_str(), tree.c_str(), 0, 0, c);
       }},
      {"extract",
       [&](const talvern_callbacks* c) {
         Archive a = Open(archive);
         talvern_set_callbacks(a.get(), c);
         return talvern_extract(a.get(), dir.Host("out").c_str(), nullptr, 0, 0);
       }},
      {"test",
       [&](const talvern_callbacks* c) {
         Archive a = Open(archive);
         talvern_set_callbacks(a.get(), c);
         return talvern_test(a.get());
       }},
  };
  for (const auto& j : jobs) {
    for (const int after : {1, 3}) {
      Recorder r;
      r.onProgress = [&](uint64_t, uint64_t) { return r.calls < after ? 1 : 0; };
      EXPECT_EQ(1223u, j.job(&r.callbacks)) << j.what << " after " << after;
      EXPECT_EQ(after, r.calls) << j.what;
    }
  }
  EXPECT_FALSE(test::Exists(fresh));
  EXPECT_FALSE(test::Exists(dir.Host("fresh.000")));
}

TEST(CApi, OverwriteAnswers) {
  TempDir dir;
  const std::string archive = MakeArchive(dir);
  const struct {
    int answer;
    uint32_t code;
    std::string target, original, renamed; // the file, the old one's backup, the new one's copy
  } cases[] = {
      {TALVERN_OVERWRITE_REPLACE, 0, "bee", "", ""},
      {TALVERN_OVERWRITE_SKIP, 0, "old", "", ""},
      {TALVERN_OVERWRITE_BACKUP, 0, "bee", "old", ""},
      {TALVERN_OVERWRITE_RENAME, 0, "old", "", "bee"},
      {TALVERN_OVERWRITE_CANCEL, 1223, "old", "", ""},
  };
  for (const auto& c : cases) {
    TempDir out;
    test::WriteFile(out.Host("sub/b.txt"), "old");
    Recorder r;
    Archive a = Open(archive);
    talvern_set_callbacks(a.get(), &r.callbacks);
    const char* only[] = {"sub/b.txt"};
    r.overwriteAnswer = c.answer;
    EXPECT_EQ(c.code, talvern_extract(a.get(), out.Host().c_str(), only, 1, TALVERN_EXTRACT_NAMES));
    EXPECT_EQ(c.target, test::ReadText(out.Host("sub/b.txt"))) << c.answer;
    EXPECT_EQ(c.original, test::Exists(out.Host("sub/b.txt.ORG"))
                              ? test::ReadText(out.Host("sub/b.txt.ORG"))
                              : "");
    EXPECT_EQ(c.renamed, test::Exists(out.Host("sub/b.txt.NEW"))
                             ? test::ReadText(out.Host("sub/b.txt.NEW"))
                             : "");
    EXPECT_FALSE(test::Exists(out.Host("a.txt"))) << "only the named entry";
  }
}

// A numbered set over real data: opened by its base name and by a later
// volume, read back entry by entry, added to; progress only goes up and
// ends at the job's total.
TEST(CApi, NumberedVolumes) {
  TempDir dir;
  const std::vector<std::string> corpus = test::CorpusFiles();
  ASSERT_GE(corpus.size(), 3u);
  std::vector<std::string> paths(corpus.begin(), corpus.begin() + 3);
  std::vector<const char*> list;
  for (const std::string& p : paths) list.push_back(p.c_str());
  Recorder r;
  uint64_t last = 0, total = 0;
  r.onProgress = [&](uint64_t done, uint64_t all) {
    EXPECT_GE(done, last);
    last = done;
    total = all;
    return 1;
  };
  const std::string set = dir.Host("set.arc");
  ASSERT_EQ(
      0u, talvern_create_from_list(set.c_str(), list.data(), list.size(), 40000, 0, &r.callbacks));
  EXPECT_EQ(total, last);
  ASSERT_TRUE(test::Exists(dir.Host("set.002")));
  for (const std::string& name : {dir.Host("set"), dir.Host("set.002")}) {
    Archive a = Open(name);
    ASSERT_TRUE(a) << name;
    size_t count = 0;
    talvern_entry_count(a.get(), &count);
    ASSERT_EQ(paths.size(), count);
    for (size_t i = 0; i < count; ++i) {
      const talvern_entry* e = nullptr;
      talvern_entry_at(a.get(), i, &e);
      void* data = nullptr;
      size_t size = 0;
      ASSERT_EQ(0u, talvern_read(a.get(), e->path, &data, &size)) << e->path;
      const std::vector<std::uint8_t> original = test::ReadFile(paths[i]);
      EXPECT_EQ(original, std::vector<std::uint8_t>(static_cast<std::uint8_t*>(data),
                                                    static_cast<std::uint8_t*>(data) + size));
      talvern_free(data);
    }
  }
  test::WriteFile(dir.Host("more.txt"), "more");
  const std::string morePath = dir.Host("more.txt");
  const char* more[] = {morePath.c_str()};
  ASSERT_EQ(0u, talvern_add(dir.Host("set.000").c_str(), more, 1, 0, nullptr));
  Archive a = Open(set);
  size_t count = 0;
  talvern_entry_count(a.get(), &count);
  EXPECT_EQ(paths.size() + 1, count);
  EXPECT_EQ(0u, talvern_test(a.get()));
}

} // namespace

// A removable drive whose media the next_volume callback changes: an
// archive spans three disks and is read back; the callback hears the
// drive's root and each disk as it is needed.
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
  struct Asked {
    std::vector<talvern::MediumSpec>* media;
    std::vector<std::string> calls;
  } asked{&media, {}};
  talvern_callbacks callbacks{};
  callbacks.size = sizeof callbacks;
  callbacks.user = &asked;
  callbacks.next_volume = [](void* user, const char* root, uint32_t disk, int writing, int wrong) {
    auto* a = static_cast<Asked*>(user);
    a->calls.push_back(std::string(root) + std::to_string(disk) + (writing ? "w" : "r") +
                       (wrong ? "!" : ""));
    return disk <= a->media->size() && talvern::InsertMedium(u'A', &(*a->media)[disk - 1]) ? 1 : 0;
  };
  ASSERT_EQ(0u, talvern_create("A:\\BACKUP.ARC", dir.Host("tree").c_str(), 0, 0, &callbacks));
  EXPECT_EQ((std::vector<std::string>{"A:\\2w", "A:\\3w"}), asked.calls);
  asked.calls.clear();
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
            asked.calls);
  // Without a callback the library's answer is to cancel.
  ASSERT_TRUE(talvern::InsertMedium(u'A', &media[0]));
  talvern_set_callbacks(archive.get(), nullptr);
  EXPECT_EQ(1223u, talvern_test(archive.get()));
  talvern::UnmountDrive(u'A');
}

// The file forms of the one-shot functions: a block written to a file,
// expanded from it into another file, and read back into memory.
TEST(CApi, OneShotFiles) {
  TempDir dir;
  const std::vector<std::uint8_t> data = test::ReadFile(test::CorpusFiles().at(0));
  const auto size = static_cast<uint32_t>(data.size());
  const std::string blockPath = dir.Host("block"), plainPath = dir.Host("plain");
  talvern_file* block = nullptr;
  talvern_file* plain = nullptr;
  uint32_t packed = 0, expanded = 0;
  ASSERT_EQ(0u, talvern_file_open(blockPath.c_str(), TALVERN_FILE_WRITE, &block));
  ASSERT_EQ(0u, talvern_compress_mem_to_file(data.data(), size, block, size + 16, 1, &packed));
  ASSERT_EQ(0u, talvern_file_open(plainPath.c_str(), TALVERN_FILE_WRITE, &plain));
  ASSERT_EQ(0u, talvern_expand_file_to_file(block, packed, plain, size, &expanded));
  EXPECT_EQ(size, expanded);
  std::vector<std::uint8_t> back(size);
  EXPECT_EQ(0u, talvern_expand_file_to_mem(block, packed, back.data(), size, &expanded));
  EXPECT_EQ(data, back);
  EXPECT_EQ(0u, talvern_file_close(block));
  EXPECT_EQ(0u, talvern_file_close(plain));
  EXPECT_EQ(data, test::ReadFile(plainPath));
  EXPECT_LT(packed, size);
  EXPECT_EQ(2u, talvern_file_open(dir.Host("none").c_str(), TALVERN_FILE_READ, &block));
}
