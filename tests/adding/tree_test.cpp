// What CompressAll stores: entry order, folders, selection, attributes,
// times and the bytes of a record.
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

TEST(AddingTree, KeepFolderOffFlattensAndEitherPartnerBitAloneTurnsItOff) {
  TempDir dir;
  MakeTree(dir);
  for (Attr attr : {Attr(CArchiveFile::AttrNoPath), Attr(CArchiveFile::AttrTogglePath)}) {
    const auto entries = AddTree(dir, Srch{}, attr | kNoSecurity);
    ASSERT_EQ(Names(entries), (V{"a", "b", "c.txt", "d.txt", "top.txt"}));
  }
  const auto both =
      AddTree(dir, Srch{}, CArchiveFile::AttrNoPath | CArchiveFile::AttrTogglePath | kNoSecurity);
  EXPECT_EQ(Names(both)[2], "a\\b\\c.txt");
}

TEST(AddingTree, WalkFlagsChooseThePasses) {
  TempDir dir;
  MakeTree(dir);
  EXPECT_EQ(Names(AddTree(dir, CArchiveFile::SrchNoRecurse, kNoSecurity)), (V{"a", "top.txt"}));
  EXPECT_EQ(Names(AddTree(dir, CArchiveFile::SrchExcludeDir, kNoSecurity)), (V{"top.txt"}));
  EXPECT_EQ(Names(AddTree(dir, CArchiveFile::SrchDirOnly, kNoSecurity)), (V{"a", "a\\b"}));
}

TEST(AddingTree, AttributeSelectionRequiresAndExcludes) {
  TALVERN_SKIP_UNDER_WINE("every file has the archive attribute and folders are never read-only");
  TempDir dir;
  WriteFile(dir.Host("source/ro.txt"), "1");
  WriteFile(dir.Host("source/hid.txt"), "2");
  WriteFile(dir.Host("source/sys.txt"), "3");
  WriteFile(dir.Host("source/plain.txt"), "4");
  WriteFile(dir.Host("source/rodir/inner.txt"), "5");
  WriteFile(dir.Host("source/sysdir/inner.txt"), "6");
  SetAttributes(dir, "source/ro.txt", FILE_ATTRIBUTE_READONLY);
  SetAttributes(dir, "source/hid.txt", FILE_ATTRIBUTE_HIDDEN);
  SetAttributes(dir, "source/sys.txt", FILE_ATTRIBUTE_SYSTEM);
  SetAttributes(dir, "source/plain.txt", FILE_ATTRIBUTE_ARCHIVE);
  SetAttributes(dir, "source/rodir/inner.txt", FILE_ATTRIBUTE_ARCHIVE);
  SetAttributes(dir, "source/sysdir/inner.txt", FILE_ATTRIBUTE_ARCHIVE);
  SetAttributes(dir, "source/rodir", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY);
  SetAttributes(dir, "source/sysdir", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_SYSTEM);

  auto files = [&](Srch srch) {
    std::vector<std::string> names;
    for (const auto& e : AddTree(dir, srch, kNoSecurity))
      if (!(e.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(FullName(e));
    std::sort(names.begin(), names.end());
    return names;
  };
  // Requirements apply to files only: directories are still walked.
  EXPECT_EQ(files(CArchiveFile::SrchReadOnly), V{"ro.txt"});
  EXPECT_EQ(files(CArchiveFile::SrchHidden), V{"hid.txt"});
  EXPECT_EQ(files(CArchiveFile::SrchSystem), V{"sys.txt"});
  EXPECT_EQ(files(CArchiveFile::SrchArchive),
            (V{"plain.txt", "rodir\\inner.txt", "sysdir\\inner.txt"}));
  // Exclusions apply to directories too, and to everything below them.
  EXPECT_EQ(files(CArchiveFile::SrchExcludeReadOnly),
            (V{"hid.txt", "plain.txt", "sys.txt", "sysdir\\inner.txt"}));
  EXPECT_EQ(files(CArchiveFile::SrchExcludeSystem),
            (V{"hid.txt", "plain.txt", "ro.txt", "rodir\\inner.txt"}));
  EXPECT_EQ(files(CArchiveFile::SrchExcludeHidden),
            (V{"plain.txt", "ro.txt", "rodir\\inner.txt", "sys.txt", "sysdir\\inner.txt"}));
  EXPECT_EQ(files(CArchiveFile::SrchExcludeArchive), (V{"hid.txt", "ro.txt", "sys.txt"}));
}

TEST(AddingTree, AttributeFlagsClearThenInvertAndNormalIsNeverStored) {
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  SetAttributes(dir, "source/f.txt", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);

  struct Case {
    DWORD attr;
    DWORD stored;
  } cases[] = {
      {0, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE},
      {CArchiveFile::AttrClearReadOnly, FILE_ATTRIBUTE_ARCHIVE},
      {CArchiveFile::AttrToggleReadOnly, FILE_ATTRIBUTE_ARCHIVE},
      {CArchiveFile::AttrClearReadOnly | CArchiveFile::AttrToggleReadOnly,
       FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE},
      {CArchiveFile::AttrToggleHidden,
       FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN},
      {CArchiveFile::AttrClearSystem | CArchiveFile::AttrToggleSystem,
       FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_SYSTEM},
      {CArchiveFile::AttrClearArchive | CArchiveFile::AttrClearReadOnly, 0},
  };
  for (const Case& c : cases) {
    Host host;
    // The normal attribute, whatever the file system says, never reaches a
    // record.
    host.BeforeDoCompress = [](CArchiveEntry& e) {
      e.FindData.dwFileAttributes |= FILE_ATTRIBUTE_NORMAL;
    };
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, Attr(c.attr) | kNoSecurity), 1);
    const auto entries = ReadVolume(dir.Win("out.arc")).Entries;
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].FindData.dwFileAttributes, c.stored) << "flags " << c.attr;
  }
}

TEST(AddingTree, TimesAreKeptOrSettledFromDefaultsAndTheClock) {
  TALVERN_SKIP_UNDER_WINE("a file's creation time cannot be set");
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  const FILETIME creation = MakeFileTime(0x01D0000000000001ull);
  const FILETIME access = MakeFileTime(0x01D0000000000002ull);
  const FILETIME write = MakeFileTime(0x01D0000000000003ull);
  {
    const HANDLE f = CreateFileW(dir.Win("source/f.txt").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                 nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(f, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(SetFileTime(f, &creation, &access, &write));
    CloseHandle(f);
  }
  auto add = [&](Host& host, Attr attr) {
    EXPECT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, attr | kNoSecurity), 1);
    const auto entries = ReadVolume(dir.Win("out.arc")).Entries;
    EXPECT_EQ(entries.size(), 1u);
    return entries.empty() ? WIN32_FIND_DATAW{} : entries[0].FindData;
  };
  auto now = [] {
    SYSTEMTIME s{};
    GetSystemTime(&s);
    FILETIME t{};
    SystemTimeToFileTime(&s, &t);
    return FileTimeValue(t);
  };

  {
    Host host; // the file's own times, although defaults are set
    host.DefaultCreateTime(MakeFileTime(7));
    const WIN32_FIND_DATAW fd = add(host, Attr{});
    EXPECT_EQ(FileTimeValue(fd.ftCreationTime), FileTimeValue(creation));
    EXPECT_EQ(FileTimeValue(fd.ftLastAccessTime), FileTimeValue(access));
    EXPECT_EQ(FileTimeValue(fd.ftLastWriteTime), FileTimeValue(write));
  }
  {
    Host host; // times not kept, no defaults: the moment of storing, three times
    const std::uint64_t before = now();
    const WIN32_FIND_DATAW fd = add(host, CArchiveFile::AttrNoTimes);
    const std::uint64_t after = now();
    EXPECT_GE(FileTimeValue(fd.ftCreationTime), before);
    EXPECT_LE(FileTimeValue(fd.ftCreationTime), after);
    EXPECT_EQ(FileTimeValue(fd.ftLastWriteTime), FileTimeValue(fd.ftCreationTime));
    EXPECT_EQ(FileTimeValue(fd.ftLastAccessTime), FileTimeValue(fd.ftCreationTime));
  }
  {
    Host host; // only a default creation time: it fills all three
    host.DefaultCreateTime(MakeFileTime(0x01C0000000000000ull));
    const WIN32_FIND_DATAW fd = add(host, CArchiveFile::AttrToggleTimes);
    EXPECT_EQ(FileTimeValue(fd.ftCreationTime), 0x01C0000000000000ull);
    EXPECT_EQ(FileTimeValue(fd.ftLastWriteTime), 0x01C0000000000000ull);
    EXPECT_EQ(FileTimeValue(fd.ftLastAccessTime), 0x01C0000000000000ull);
  }
  {
    Host host; // each default fills its own time
    host.DefaultCreateTime(MakeFileTime(11));
    host.DefaultLastWriteTime(MakeFileTime(12));
    host.DefaultLastAccessTime(MakeFileTime(13));
    const WIN32_FIND_DATAW fd = add(host, CArchiveFile::AttrNoTimes);
    EXPECT_EQ(FileTimeValue(fd.ftCreationTime), 11u);
    EXPECT_EQ(FileTimeValue(fd.ftLastWriteTime), 12u);
    EXPECT_EQ(FileTimeValue(fd.ftLastAccessTime), 13u);
  }
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

TEST(AddingTree, FolderReachedThroughALinkIsStoredButNotEntered) {
#if defined(_WIN32)
  GTEST_SKIP() << "symbolic links to folders need a privilege on Windows";
#endif
  TempDir dir;
  WriteFile(dir.Host("source/real/inside.txt"), "in");
  fs::create_directory_symlink(dir.Host("source/real"), dir.Host("source/link"));
  // A link back up the tree would make an endless walk if it were entered.
  fs::create_directory_symlink(dir.Host("source"), dir.Host("source/real/up"));

  const auto entries = AddTree(dir, Srch{}, kNoSecurity);
  std::vector<std::string> names = Names(entries);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (V{"link", "real", "real\\inside.txt", "real\\up"}));
  for (const auto& e : entries) {
    if (FullName(e) != "link" && FullName(e) != "real\\up") continue;
    EXPECT_EQ(e.FindData.dwFileAttributes &
                  (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT),
              FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
  }
}
