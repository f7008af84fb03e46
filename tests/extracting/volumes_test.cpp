// Reading across numbered volumes, and the checks that keep a wrong or
// damaged volume from being read as the right one.
#include "fixture.h"

#include <filesystem>

namespace xt {
namespace {

// 2000 bytes of "big" with a 1000-byte limit: parts of 902, 902 and 196
// bytes in volumes 0, 1 and 2, followed by a small file in volume 2.
std::vector<Item> SplitSet() {
  return {File("", "big", RandomBytes(2000, 11)), File("", "after.txt", "after")};
}
constexpr std::uint64_t kSplitLimit = 1000;

TEST_F(ExtractTest, FileSplitOverThreeNumberedVolumesExtractsInOneCall) {
  const auto items = SplitSet();
  WriteNumberedSet(items, kSplitLimit);
  ASSERT_EQ(3u, volumes.size());

  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ(items[0].Contents, ReadFile(Out("big")));
  EXPECT_EQ("after", ReadText(Out("after.txt")));
  // One change to open the first volume, one per change after it; a
  // numbered set on a fixed disk never asks the host.
  EXPECT_EQ(3, archive.DiskChangeCalls);
  EXPECT_EQ((V{"ExpandStart", "DoDiskChange 1", "ExpandFile big", "DoDiskChange 0",
               "DoDiskChange 0", "ExpandFile after.txt", "ExpandComplete 1"}),
            archive.Calls);
  EXPECT_FALSE(archive.IsOpen());
  EXPECT_FALSE(archive.IsMediaChanged());
}

TEST_F(ExtractTest, ContinuationRecordMustRepeatEveryFieldOfTheSplitEntry) {
  // One field of the continuation record at the start of volume 1 changed
  // at a time (offsets inside the record); each makes it another entry's.
  struct Change {
    const char* what;
    size_t offset;
    std::uint8_t flip;
  };
  const Change changes[] = {
      {"method", 4, 0x01},
      {"crc", 8, 0x01},
      {"attributes", 12, 0x02},
      {"creation time by one unit", 16, 0x01},
      {"last-access time", 24, 0x01},
      {"last-write time", 32, 0x01},
      {"size, low half", 40, 0x01},
      {"size, high half", 44, 0x01},
      {"packed size", 48, 0x01},
      {"name case", 68, 0x20}, // "big" -> "Big"
  };
  const auto items = SplitSet();
  WriteNumberedSet(items, kSplitLimit);
  const std::string second = NumberedName(tmp.Host("set"), 1);
  for (const Change& c : changes) {
    SCOPED_TRACE(c.what);
    auto bytes = volumes.at(1);
    bytes[20 + c.offset] ^= c.flip;
    WriteFile(second, bytes);
    ASSERT_TRUE(archive.FileName(Win(tmp.Host("set.arc")).c_str(), archive.LimitSize()));
    EXPECT_EQ(0, ExpandAll());
    EXPECT_EQ(ERROR_WRONG_DISK, archive.GetErrorCode());
    EXPECT_TRUE(ListTree(Out()).empty());
  }
  // The data size and the folder are not compared: the unchanged record
  // already differs from the first part in its data size.
  WriteFile(second, volumes.at(1));
  ASSERT_TRUE(archive.FileName(Win(tmp.Host("set.arc")).c_str(), archive.LimitSize()));
  EXPECT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ(items[0].Contents, ReadFile(Out("big")));
}

// A host whose volume change answers yes but leaves nothing open, where the
// walk goes on in the next volume: 6, and the walk ends there.
TEST_F(ExtractTest, VolumeChangeThatOpensNothingFailsWithInvalidHandle) {
  struct OpensNothing : Recorder {
    int DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                     int noFirstPrompt) override {
      if (first) return Recorder::DoDiskChange(root, entry, otherPath, first, noFirstPrompt);
      Close();
      return 1;
    }
  } host;
  // b.txt's record does not fit behind a.txt: it starts volume 1.
  WriteNumberedSet({File("", "a.txt", "0123456789"), File("", "b.txt", "0123456789")}, 120);
  ASSERT_EQ(2u, volumes.size());
  ASSERT_TRUE(host.FileName(Win(tmp.Host("set.arc")).c_str(), archive.LimitSize()));
  EXPECT_EQ(0, host.ExpandAll(OutWin().c_str(), {}, {}));
  EXPECT_EQ(ERROR_INVALID_HANDLE, host.GetErrorCode());
  EXPECT_EQ((V{"a.txt"}), ListTree(Out()));
  EXPECT_EQ("ExpandComplete 0", host.Calls.back());
}

TEST_F(ExtractTest, TruncatedVolumeIsReportedAndNothingOfItIsExtracted) {
  WriteNumberedSet(SplitSet(), kSplitLimit);
  const std::string second = NumberedName(tmp.Host("set"), 1);
  std::filesystem::resize_file(second, volumes.at(1).size() - 10);
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_INVALID_DATATYPE, archive.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());

  // A single volume cut inside its only record.
  TempDir other;
  const auto bytes = BuildVolumes({File("", "f", std::string(500, 'f'))}).at(0);
  WriteFile(other.Host("one.arc"), std::vector<std::uint8_t>(bytes.begin(), bytes.end() - 100));
  CArchiveFile single;
  ASSERT_TRUE(single.FileName(other.Win("one.arc").c_str(), nullptr));
  EXPECT_EQ(0, single.ExpandAll(OutWin().c_str(), {}, {}));
  EXPECT_EQ(ERROR_INVALID_DATATYPE, single.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());
}

} // namespace
} // namespace xt
