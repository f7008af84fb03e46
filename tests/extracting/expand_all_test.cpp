// Extracting whole archives: the tree, the flags, hook order, and what is
// left behind when an entry fails.
#include "fixture.h"

namespace xt {
namespace {

using Srch = CArchiveFile::CSrchFlags;
using Attr = CArchiveFile::CAttrFlags;

constexpr auto Time = FileTimeValue;

// a\b\c.txt, a\d.txt and a compressed top-level file, in the pre-order the
// adding side writes.
std::vector<Item> SmallTree() {
  std::vector<Item> items;
  Item a = Dir("", "a");
  a.Creation = kTime + 1;
  a.LastAccess = kTime + 2;
  a.LastWrite = kTime + 3;
  items.push_back(a);
  Item b = Dir("a", "b");
  b.LastWrite = kTime + 5;
  items.push_back(b);
  Item c = File("a\\b", "c.txt", "the contents of c");
  c.Attributes = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY;
  items.push_back(c);
  items.push_back(File("a", "d.txt", std::string(70000, 'd')));
  auto bytes = RandomBytes(50000, 7);
  bytes.insert(bytes.end(), 50000, 'x');
  items.push_back(File("", "top.bin", bytes, 1));
  return items;
}

TEST_F(ExtractTest, TreeExtractsWithContentsTimesAndAttributes) {
  TALVERN_SKIP_UNDER_WINE("a creation time cannot be set");
  const auto items = SmallTree();
  WriteArchive(items);

  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ(0u, archive.GetErrorCode());
  EXPECT_FALSE(archive.IsOpen());

  // Times are set after the contents, on directories after everything
  // inside them; attributes last. (Looked at before anything reads the
  // items, which may move their last-access times.)
  const auto a = Look(Out("a"));
  EXPECT_EQ(kTime + 1, Time(a.ftCreationTime));
  EXPECT_EQ(kTime + 2, Time(a.ftLastAccessTime));
  EXPECT_EQ(kTime + 3, Time(a.ftLastWriteTime));
  EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, a.dwFileAttributes & ~FILE_ATTRIBUTE_ARCHIVE);
  EXPECT_EQ(kTime + 5, Time(Look(Out("a/b")).ftLastWriteTime));
  const auto c = Look(Out("a/b/c.txt"));
  EXPECT_EQ(FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY, c.dwFileAttributes);
  EXPECT_EQ(items[2].Creation, Time(c.ftCreationTime));
  EXPECT_EQ(items[2].LastAccess, Time(c.ftLastAccessTime));
  EXPECT_EQ(items[2].LastWrite, Time(c.ftLastWriteTime));

  EXPECT_EQ((V{"a", "a/b", "a/b/c.txt", "a/d.txt", "top.bin"}), ListTree(Out()));
  EXPECT_EQ("the contents of c", ReadText(Out("a/b/c.txt")));
  EXPECT_EQ(std::string(70000, 'd'), ReadText(Out("a/d.txt")));
  EXPECT_EQ(items[4].Contents, ReadFile(Out("top.bin")));

  EXPECT_EQ((V{"ExpandStart", "DoDiskChange 1", "ExpandFile a", "ExpandFile b", "ExpandFile c.txt",
               "ExpandFile d.txt", "ExpandFile top.bin", "ExpandComplete 1"}),
            archive.Calls);
  EXPECT_TRUE(Temporaries().empty());
}

TEST_F(ExtractTest, KeepFolderOffPutsFilesInTargetAndCreatesNoDirectories) {
  WriteArchive(SmallTree());
  ASSERT_EQ(1, ExpandAll({}, CArchiveFile::AttrNoPath)) << archive.GetErrorCode();
  EXPECT_EQ((V{"c.txt", "d.txt", "top.bin"}), ListTree(Out()));
}

TEST_F(ExtractTest, UnknownMethodFailsBeforeExpandFileNotify) {
  WriteArchive(
      {File("", "first.txt", "ok"), File("", "odd.bin", "stored", 5), File("", "never.txt", "no")});
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_INVALID_DATATYPE, archive.GetErrorCode());
  EXPECT_EQ((V{"ExpandStart", "DoDiskChange 1", "ExpandFile first.txt", "ExpandComplete 0"}),
            archive.Calls);
  EXPECT_EQ((V{"first.txt"}), ListTree(Out()));
  EXPECT_FALSE(archive.IsOpen());
}

TEST_F(ExtractTest, CancelInSecondExpandNotifyLeavesNoOutputAndNoTemporaryFile) {
  WriteArchive({File("", "keep.txt", "earlier"), File("", "big.bin", RandomBytes(300000, 5))});
  // keep.txt makes three calls (start, one piece, end); the second call for
  // big.bin is the fifth.
  archive.CancelAtExpandNotify = 5;
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  EXPECT_TRUE(archive.IsAborted());
  EXPECT_FALSE(archive.IsOpen());
  EXPECT_EQ("ExpandComplete 0", archive.Calls.back());
  EXPECT_EQ((V{"keep.txt"}), ListTree(Out()));
  EXPECT_TRUE(Temporaries().empty());
}

TEST_F(ExtractTest, FailedTemporaryFileLeavesTheNameItReportedAlone) {
  // A host's temporary-file member that fails after naming a file: that
  // file was never reserved by the library and must not be deleted.
  test::NamesTemporaryThenFails<Recorder> host;
  WriteArchive({File("", "f.txt", "contents")});
  WriteFile(tmp.Host("precious"), "the host's own file");
  host.name = Win(tmp.Host("precious"));
  ASSERT_TRUE(host.FileName(Win(ArchiveHost()).c_str(), nullptr));

  EXPECT_EQ(0, host.ExpandAll(OutWin().c_str(), {}, {}));
  EXPECT_EQ(ERROR_ACCESS_DENIED, host.GetErrorCode());
  EXPECT_EQ("the host's own file", ReadText(tmp.Host("precious")));
  EXPECT_TRUE(ListTree(Out()).empty()); // the created output is removed
}

TEST_F(ExtractTest, CorruptedDataByteIsCaughtAndTheOutputRemoved) {
  struct Case {
    Item item;
    size_t fromEnd; // which byte of the volume (counted from its end) is flipped, 0: none
    DWORD error;
  };
  Item badCrc = File("", "f.txt", "contents");
  badCrc.CorruptCrc = true;
  // Random bytes compress to literals: a flipped bit in the middle changes
  // one decoded byte (CRC). Near the end of a stream of long matches it
  // changes how much is decoded (length).
  const Case cases[] = {
      {File("", "plain.txt", std::string(5000, 'p')), 2500, ERROR_CRC},
      {File("", "packed.bin", RandomBytes(20000, 4), 1), 10000, ERROR_CRC},
      {File("", "packed.txt", std::string(20000, 'z') + "tail", 1), 2, ERROR_WRITE_FAULT},
      {badCrc, 0, ERROR_CRC}, // the stored CRC is wrong, not the data
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(N(c.item.Name) + " " + std::to_string(c.fromEnd));
    auto bytes = BuildVolumes({c.item}).at(0);
    if (c.fromEnd) bytes[bytes.size() - c.fromEnd] ^= 0x01;
    WriteFile(ArchiveHost(), bytes);
    ASSERT_TRUE(archive.FileName(Win(ArchiveHost()).c_str(), nullptr));
    EXPECT_EQ(0, ExpandAll());
    EXPECT_EQ(c.error, archive.GetErrorCode());
    EXPECT_TRUE(ListTree(Out()).empty());
    EXPECT_TRUE(Temporaries().empty());
  }
}

} // namespace
} // namespace xt
