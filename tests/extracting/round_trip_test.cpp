// Trees packed by CompressAll and extracted by ExpandAll come back
// identical: names, folders, contents, attributes and all three times.
#include "fixture.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace xt {
namespace {

std::uint64_t Now() {
  SYSTEMTIME s{};
  GetSystemTime(&s);
  FILETIME f{};
  SystemTimeToFileTime(&s, &f);
  return FileTimeValue(f);
}

FILETIME Plus(std::uint64_t t, std::int64_t seconds) {
  return MakeFileTime(t + static_cast<std::uint64_t>(seconds * 10000000));
}

// Gives every item below root its own three times, deepest items first so
// that a folder's times are not moved by what happens inside it. Last-access
// times lie in the future: file systems that update them on reading
// (relatime) leave such times alone, so reading the trees to compare them
// does not change what is compared.
void StampTimes(const std::string& root) {
  std::vector<fs::path> items;
  for (const auto& e : fs::recursive_directory_iterator(root)) items.push_back(e.path());
  std::sort(items.begin(), items.end(), [](const fs::path& a, const fs::path& b) {
    return a.string().size() > b.string().size();
  });
  const std::uint64_t now = Now();
  std::int64_t i = 0;
  for (const auto& p : items) {
    ++i;
    const bool dir = fs::is_directory(p);
    const CString win = talvern::HostPathToWindows(p.string());
    const HANDLE h = CreateFileW(win.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 nullptr, OPEN_EXISTING,
                                 dir ? FILE_FLAG_BACKUP_SEMANTICS : FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << p;
    const FILETIME created = Plus(now, -400 * 86400 + i);
    const FILETIME written = Plus(now, -2 * 86400 + i * 7);
    const FILETIME accessed = Plus(now, 86400 + i * 3);
    EXPECT_TRUE(SetFileTime(h, &created, &accessed, &written)) << p;
    CloseHandle(h);
  }
}

void SetAttributes(const std::string& host, DWORD attributes) {
  ASSERT_TRUE(SetFileAttributesW(talvern::HostPathToWindows(host).c_str(), attributes)) << host;
}

TEST_F(ExtractTest, TreeMadeByCompressAllExtractsToAnIdenticalTree) {
  const std::string src = tmp.Host("source");
  WriteFile(src + "/a/b/c.txt", "deep text");
  WriteFile(src + "/a/d.bin", RandomBytes(100000, 21));
  WriteFile(src + "/a/repeat.txt", std::string(50000, 'r'));
  WriteFile(src + "/empty.txt", "");
  WriteFile(src + "/.dotted", "hidden by its name");
  WriteFile(src + "/hidden.txt", "hidden by its attribute");
  WriteFile(src + "/ro/inside.txt", "in a read-only folder");
  fs::create_directories(src + "/a/empty-dir");
  WriteFile(src + "/corpus.txt", ReadFile(CorpusFiles().at(0)));
  StampTimes(src);
  SetAttributes(src + "/a/b/c.txt", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
  SetAttributes(src + "/hidden.txt", FILE_ATTRIBUTE_HIDDEN);
  SetAttributes(src + "/ro", FILE_ATTRIBUTE_READONLY);

  ASSERT_TRUE(archive.FileName(Win(ArchiveHost()).c_str(), nullptr));
  ASSERT_EQ(1, archive.CompressAll(Win(src).c_str(), {}, {})) << archive.GetErrorCode();
  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ("", CompareTrees(src, Out()));
  EXPECT_TRUE(Temporaries().empty());
  // The descriptors came along too, read-only items included.
  for (const char* item : {"a/b/c.txt", "ro", "ro/inside.txt", "a/d.bin"})
    EXPECT_EQ(DescriptorOf(Win(src + "/" + item)), DescriptorOf(Win(Out(item)))) << item;
}

} // namespace
} // namespace xt
