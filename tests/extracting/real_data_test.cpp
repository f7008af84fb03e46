// Thousands of real files in one archive.
#include "fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace xt {
namespace {

// Creating a file costs milliseconds on a busy disk file system, and these
// tests create thousands: their folders go to the memory file system when
// the machine has one.
struct MemoryFolders {
  static std::string Folder() {
    std::error_code ec;
    const char* tmpdir = std::getenv("TMPDIR");
    return std::filesystem::is_directory("/dev/shm", ec) ? "/dev/shm" : tmpdir ? tmpdir : "/tmp";
  }
  ScopedTemporaryFolder memory{Folder()};
};

class RealDataTest : private MemoryFolders, public ExtractTest {};

std::vector<std::vector<std::uint8_t>> CorpusContents() {
  std::vector<std::vector<std::uint8_t>> all;
  for (const auto& f : CorpusFiles()) all.push_back(ReadFile(f));
  return all;
}

// Thousands of files cut from the corpus at varied offsets and sizes (empty
// ones included), in forty folders two levels deep.
std::vector<Item> ManyFiles(size_t count) {
  const auto corpus = CorpusContents();
  std::vector<Item> items;
  std::uint32_t x = 12345;
  const auto next = [&]() {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
  };
  const size_t perFolder = count / 40;
  for (int top = 0; top < 4; ++top) {
    const std::string t = "t" + std::to_string(top);
    items.push_back(Dir("", t));
    for (int sub = 0; sub < 10; ++sub) {
      const std::string s = "s" + std::to_string(sub);
      items.push_back(Dir(t, s));
      for (size_t i = 0; i < perFolder; ++i) {
        const auto& source = corpus[next() % corpus.size()];
        const size_t size = std::min<size_t>(next() % 3000, source.size());
        const size_t at = next() % (source.size() - size + 1);
        const std::vector<std::uint8_t> slice(source.begin() + static_cast<std::ptrdiff_t>(at),
                                              source.begin() +
                                                  static_cast<std::ptrdiff_t>(at + size));
        Item f = File(t + "\\" + s, "f" + std::to_string(i) + ".dat", slice, i % 4 == 0 ? 1 : 0);
        f.LastWrite = kTime + next();
        items.push_back(f);
      }
    }
  }
  return items;
}

void ExpectExtracted(const std::vector<Item>& items, const std::string& outHost) {
  size_t files = 0;
  for (const Item& item : items) {
    if (item.IsDirectory()) continue;
    ++files;
    std::string rel = N(item.Path);
    std::replace(rel.begin(), rel.end(), '\\', '/');
    const std::string host = outHost + "/" + (rel.empty() ? "" : rel + "/") + N(item.Name);
    ASSERT_EQ(item.Contents, ReadFile(host)) << host;
    ASSERT_EQ(item.LastWrite, test::LastWrite(host)) << host;
  }
  EXPECT_GT(files, 0u);
}

TEST_F(RealDataTest, ThousandsOfRealFilesExtractByteIdentical) {
  const auto items = ManyFiles(3000);
  WriteArchive(items);
  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  ExpectExtracted(items, Out());
  EXPECT_EQ(items.size(), ListTree(Out()).size());
  EXPECT_TRUE(Temporaries().empty());
}

} // namespace
} // namespace xt
