// Archives of real trees, read back entry by entry: every file's stored
// data expands to the original bytes with the stored CRC.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;
using namespace adding;
using Srch = CArchiveFile::CSrchFlags;

namespace {

// Takes small files until a byte budget is spent, so that a large tree
// gives thousands of entries in a test of a few seconds.
class BudgetedHost : public CArchiveFile {
public:
  explicit BudgetedHost(std::uint64_t budget) : budget_(budget) {}
  mutable std::uint64_t Taken = 0;
  mutable int Files = 0;

protected:
  int IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch,
                          CAttrFlags attr) const override {
    if (!CArchiveFile::IsMatchCompressFile(entry, srch, attr)) return 0;
    const std::uint64_t size = entry.FindData.nFileSizeLow;
    if (entry.FindData.nFileSizeHigh != 0 || size > kLargestFile || Taken + size > budget_)
      return 0;
    Taken += size;
    ++Files;
    return 1;
  }

private:
  static constexpr std::uint64_t kLargestFile = 16 * 1024;
  std::uint64_t budget_;
};

std::uint64_t UncompressedSizeOf(const CArchiveEntry& e) {
  return (static_cast<std::uint64_t>(e.FindData.nFileSizeHigh) << 32) | e.FindData.nFileSizeLow;
}

std::string HostPathOf(const std::string& sourceHost, const CArchiveEntry& entry) {
  std::string relative = FullName(entry);
  std::replace(relative.begin(), relative.end(), '\\', '/');
  return sourceHost + "/" + relative;
}

// Walks the single volume and checks every entry against the tree.
void CheckAgainstTree(const CString& archive, const std::string& sourceHost, int expectedFiles) {
  const Volume volume = ReadVolume(archive);
  std::set<std::string> folders = {""};
  int files = 0, compressed = 0;
  for (const CArchiveEntry& e : volume.Entries) {
    SCOPED_TRACE(FullName(e));
    // Pre-order: an entry's folder was stored before it.
    ASSERT_TRUE(folders.count(N(e.Path))) << "folder not seen yet";
    if (e.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      folders.insert(FullName(e));
      continue;
    }
    ++files;
    const auto original = ReadFile(HostPathOf(sourceHost, e));
    ASSERT_EQ(UncompressedSizeOf(e), original.size());
    ASSERT_EQ(e.Crc, Crc32(original));
    ASSERT_EQ(e.DataSize.GetValue(), e.PackedSize.GetValue());
    const auto stored = volume.Data(e);
    if (e.CompressType == 0) {
      ASSERT_EQ(stored, original);
    } else {
      ASSERT_EQ(e.CompressType, 1u);
      ASSERT_LT(stored.size(), original.size());
      ++compressed;
      std::vector<std::uint8_t> expanded;
      DWORD error = 0;
      ASSERT_TRUE(Expand(stored, e, expanded, error)) << "error " << error;
      ASSERT_EQ(expanded, original);
    }
  }
  EXPECT_EQ(files, expectedFiles);
  EXPECT_GT(compressed, 0);
}

} // namespace

TEST(AddingRealTree, SystemHeadersReadBackEntryByEntry) {
  const std::string tree = "/usr/include";
  if (!fs::is_directory(tree)) GTEST_SKIP() << tree << " is missing";
  TempDir dir;
  BudgetedHost host(12u << 20);
  ASSERT_EQ(host.FileName(dir.Win("headers.arc").c_str(), nullptr), 1);
  ASSERT_EQ(host.CompressAll(talvern::HostPathToWindows(tree).c_str(), Srch{}, kNoSecurity), 1)
      << host.GetErrorCode();
  ASSERT_GT(host.Files, 2000);
  CheckAgainstTree(dir.Win("headers.arc"), tree, host.Files);
}

TEST(AddingRealTree, CorpusFilesRoundTrip) {
  if (!fs::is_directory(TALVERN_CORPUS_DIR)) GTEST_SKIP() << "no corpus at " << TALVERN_CORPUS_DIR;
  TempDir dir;
  fs::create_directories(dir.Host("source"));
  for (const std::string& file : CorpusFiles())
    fs::copy_file(file, dir.Host("source/" + fs::path(file).filename().string()),
                  fs::copy_options::overwrite_existing);
  CArchiveFile archive;
  ASSERT_EQ(archive.FileName(dir.Win("corpus.arc").c_str(), nullptr), 1);
  ASSERT_EQ(archive.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
  CheckAgainstTree(dir.Win("corpus.arc"), dir.Host("source"),
                   static_cast<int>(CorpusFiles().size()));
}
