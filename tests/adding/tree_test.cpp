// What CompressAll stores: entry order, folders, methods and the bytes of
// a record.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;
using namespace adding;
using Srch = CArchiveFile::CSrchFlags;
using Attr = CArchiveFile::CAttrFlags;

namespace {

// source/a/b/c.txt, source/a/d.txt, source/top.txt
void MakeTree(const TempDir& dir) {
  WriteFile(dir.Host("source/a/b/c.txt"), "see");
  WriteFile(dir.Host("source/a/d.txt"), "dee");
  WriteFile(dir.Host("source/top.txt"), "top");
}

// Adds the tree below source with the given flags; the archive's entries.
std::vector<CArchiveEntry> AddTree(const TempDir& dir, Srch srch, Attr attr,
                                   DWORD expectedResult = 1) {
  Host host;
  EXPECT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), srch, attr),
            static_cast<int>(expectedResult))
      << "error " << host.GetErrorCode();
  EXPECT_FALSE(host.IsOpen());
  if (!expectedResult) return {};
  return ReadVolume(dir.Win("out.arc")).Entries;
}

void SetAttributes(const TempDir& dir, const std::string& relative, DWORD attributes) {
  ASSERT_TRUE(SetFileAttributesW(dir.Win(relative).c_str(), attributes)) << relative;
}

} // namespace

TEST(AddingTree, DirectoriesPrecedeTheirContentsWithRelativeFolders) {
  TempDir dir;
  MakeTree(dir);
  const auto entries = AddTree(dir, Srch{}, kNoSecurity);
  ASSERT_EQ(Names(entries), (V{"a", "a\\b", "a\\b\\c.txt", "a\\d.txt", "top.txt"}));
  for (const auto& e : entries) {
    const bool isDir = (e.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const std::uint64_t headerSize = 72 + 2 * e.Path.size() + 2 * N(e.FindData.cFileName).size();
    EXPECT_EQ(e.DataOffset.GetValue() - e.EntryOffset.GetValue(), headerSize) << FullName(e);
    EXPECT_EQ(e.CompressType & 0x80000000u, 0u);
    if (isDir) {
      EXPECT_EQ(e.DataSize.GetValue(), 0u);
      EXPECT_EQ(e.PackedSize.GetValue(), 0u);
      EXPECT_EQ(e.Crc, 0u);
    }
  }
  const Volume volume = ReadVolume(dir.Win("out.arc"));
  EXPECT_EQ(volume.Number, 0u);
  EXPECT_FALSE(volume.Continues);
  EXPECT_EQ(volume.ArchiveSize, volume.Bytes.size());
  // The source folder itself is not stored.
  EXPECT_TRUE(entries[0].Path.empty());
}

TEST(AddingTree, OneSmallFileGivesTheExactVolumeBytes) {
  TempDir dir;
  WriteFile(dir.Host("source/a.txt"), "hi");
  SetAttributes(dir, "source/a.txt", FILE_ATTRIBUTE_ARCHIVE);
  Host host;
  const FILETIME t = MakeFileTime(0x01DA1B2C3D4E5F60ull);
  host.DefaultCreateTime(t);
  host.DefaultLastWriteTime(t);
  host.DefaultLastAccessTime(t);
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  ASSERT_EQ(
      host.CompressAll(dir.Win("source").c_str(), Srch{}, CArchiveFile::AttrNoTimes | kNoSecurity),
      1);
  EXPECT_EQ(ReadFile(dir.Host("out.arc")), kWorkedExample);
}

TEST(AddingTree, EmptyAndIncompressibleFilesAreStoredAsTheyAre) {
  TempDir dir;
  const auto noise = RandomBytes(100000, 7);
  const std::string text(200000, 'a');
  WriteFile(dir.Host("source/empty"), std::string());
  WriteFile(dir.Host("source/noise"), noise);
  WriteFile(dir.Host("source/text"), text);

  Host host;
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
  // DoCompress's own progress for the empty file: before and after, nothing
  // written.
  const auto progress = host.CallsStartingWith("progress:0/");
  EXPECT_EQ(progress, (V{"progress:0/0", "progress:0/0"}));

  const Volume volume = ReadVolume(dir.Win("out.arc"));
  std::map<std::string, CArchiveEntry> byName;
  for (const auto& e : volume.Entries) byName[FullName(e)] = e;
  ASSERT_EQ(byName.size(), 3u);

  const CArchiveEntry& empty = byName["empty"];
  EXPECT_EQ(empty.CompressType, 0u);
  EXPECT_EQ(empty.PackedSize.GetValue(), 0u);
  EXPECT_EQ(empty.DataSize.GetValue(), 0u);
  EXPECT_EQ(empty.Crc, 0u);

  const CArchiveEntry& stored = byName["noise"];
  EXPECT_EQ(stored.CompressType, 0u);
  EXPECT_EQ(stored.PackedSize.GetValue(), noise.size());
  EXPECT_EQ(volume.Data(stored), noise);
  EXPECT_EQ(stored.Crc, Crc32(noise));

  const CArchiveEntry& packed = byName["text"];
  EXPECT_EQ(packed.CompressType, 1u);
  EXPECT_LT(packed.PackedSize.GetValue(), text.size() / 10);
  EXPECT_EQ(packed.DataSize.GetValue(), packed.PackedSize.GetValue());
  std::vector<std::uint8_t> expanded;
  DWORD error = 0;
  ASSERT_TRUE(Expand(volume.Data(packed), packed, expanded, error)) << error;
  EXPECT_EQ(expanded, std::vector<std::uint8_t>(text.begin(), text.end()));
  EXPECT_EQ(packed.Crc, Crc32(expanded));
}
