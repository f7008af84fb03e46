// Reading across volumes: numbered sets on a fixed disk, one name on a
// series of removable media, and the checks that keep a wrong, missing or
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

TEST_F(ExtractTest, ExpandOfASplitEntryFollowsItToItsLastVolume) {
  const auto items = SplitSet();
  WriteNumberedSet(items, kSplitLimit);
  CArchiveEntry entry;
  ASSERT_EQ(1, archive.DoDiskChange(nullptr, entry, nullptr, 1, 0)) << archive.GetErrorCode();
  ASSERT_TRUE(FindEntry("big", entry));

  ASSERT_EQ(1, archive.Expand(OutWin().c_str(), entry, {}, {})) << archive.GetErrorCode();
  EXPECT_EQ(items[0].Contents, ReadFile(Out("big")));
  EXPECT_TRUE(archive.IsMediaChanged());
  EXPECT_EQ(2u, archive.GetDiskNo());
  // The entry now describes the last part.
  EXPECT_EQ(196u, entry.DataSize.GetValue());
  EXPECT_EQ(0u, entry.CompressType);
}

TEST_F(ExtractTest, MissingNextVolumeFailsAfterOneAttemptAndRemovesTheOutput) {
  WriteNumberedSet(SplitSet(), kSplitLimit);
  std::filesystem::remove(NumberedName(tmp.Host("set"), 1));

  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, archive.GetErrorCode());
  EXPECT_EQ(2, archive.DiskChangeCalls);
  EXPECT_TRUE(ListTree(Out()).empty());
  EXPECT_TRUE(Temporaries().empty());
  EXPECT_FALSE(archive.IsOpen());
}

TEST_F(ExtractTest, VolumeOfAnotherArchiveOrNumberIsTheWrongDisk) {
  WriteNumberedSet(SplitSet(), kSplitLimit);
  const std::string second = NumberedName(tmp.Host("set"), 1);

  // Same shape, other contents: the continuation record's CRC differs.
  const auto other = BuildVolumes(
      {File("", "big", RandomBytes(2000, 12)), File("", "after.txt", "after")}, kSplitLimit);
  WriteFile(second, other.at(1));
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_WRONG_DISK, archive.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());

  // The right archive's third volume in the second one's place.
  WriteFile(second, volumes.at(2));
  ASSERT_TRUE(archive.FileName(Win(tmp.Host("set.arc")).c_str(), archive.LimitSize()));
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_WRONG_DISK, archive.GetErrorCode());
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

TEST_F(ExtractTest, NextNumberedVolumeIsOpenedEvenWithoutTheContinueBitAndMayBeEmpty) {
  auto set = BuildVolumes({File("", "f", "x")});
  set.push_back(BuildVolumes({}).at(0));
  set[1][10] = 1; // volume number 1, nothing follows
  WriteNumberedVolumes(tmp.Host("set"), set);
  const CArchiveSize limit(1000u);
  ASSERT_TRUE(archive.FileName(Win(tmp.Host("set.arc")).c_str(), &limit));

  CArchiveEntry entry;
  ASSERT_EQ(1, archive.DoDiskChange(nullptr, entry, nullptr, 1, 0));
  EXPECT_EQ(W("f"), CString(entry.FindData.cFileName));
  entry.Clear();
  ASSERT_EQ(1, archive.DoDiskChange(nullptr, entry, nullptr, 0, 0)) << archive.GetErrorCode();
  EXPECT_EQ(1u, archive.GetDiskNo());
  EXPECT_EQ(0u, archive.GetErrorCode());
  EXPECT_EQ(Win(NumberedName(tmp.Host("set"), 1)), CString(archive.FileName()));
  // Beyond the last volume there is nothing to open.
  EXPECT_EQ(0, archive.DoDiskChange(nullptr, entry, nullptr, 0, 0));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, archive.GetErrorCode());
}

// ---- Removable media ------------------------------------------------------------------------

class RemovableTest : public ExtractTest {
protected:
  void SetUp() override {
    TALVERN_NEEDS_SIMULATED_DRIVES();
    for (int i = 0; i < 3; ++i) {
      talvern::MediumSpec m;
      m.HostDir = tmp.Host("medium" + std::to_string(i + 1));
      m.Serial = 0x1000u + static_cast<DWORD>(i);
      m.Label = W("DISK" + std::to_string(i + 1));
      media.push_back(m);
    }
    ASSERT_TRUE(talvern::MountDrive(u'R', DRIVE_REMOVABLE, 512, &media[0]));
  }
  void TearDown() override { talvern::UnmountDrive(u'R'); }

  // The volumes of items, each on its own medium under the same name.
  void WriteOnMedia(const std::vector<Item>& items, std::uint64_t limit) {
    volumes = BuildVolumes(items, limit);
    for (size_t i = 0; i < volumes.size(); ++i)
      WriteFile(media.at(i).HostDir + "/set.arc", volumes[i]);
    ASSERT_TRUE(archive.FileName(WTEXT("R:\\set.arc"), nullptr));
  }

  void Insert(DWORD diskNo) { ASSERT_TRUE(talvern::InsertMedium(u'R', &media.at(diskNo - 1))); }

  std::vector<talvern::MediumSpec> media;
};

TEST_F(RemovableTest, DefaultHooksCancelWheneverAVolumeMustBeAskedFor) {
  WriteOnMedia({File("", "f.txt", "on the diskette")}, 0);
  CArchiveFile plain;
  ASSERT_TRUE(plain.FileName(WTEXT("R:\\set.arc"), nullptr));
  EXPECT_EQ(0, plain.ExpandAll(OutWin().c_str(), {}, {}));
  EXPECT_EQ(ERROR_CANCELLED, plain.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());

  // Without the first question the medium in the drive is read.
  EXPECT_EQ(1, plain.ExpandAll(OutWin().c_str(), CArchiveFile::SrchNoFirstPrompt, {}))
      << plain.GetErrorCode();
  EXPECT_EQ("on the diskette", ReadText(Out("f.txt")));
}

TEST_F(RemovableTest, EachVolumeIsAskedForAndAWrongOneAskedForAgain) {
  const auto items = SplitSet();
  WriteOnMedia(items, kSplitLimit);
  ASSERT_EQ(3u, volumes.size());
  bool misplaced = false;
  archive.OnMedia = [&](DWORD diskNo, bool) {
    // The first time disk 2 is asked for, the user inserts disk 3.
    if (diskNo == 2 && !misplaced) {
      misplaced = true;
      Insert(3);
    } else {
      Insert(diskNo);
    }
    return 1;
  };

  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  EXPECT_EQ(items[0].Contents, ReadFile(Out("big")));
  EXPECT_EQ((V{"ExpandStart", "DoDiskChange 1", "DiskChange 1 0", "ExpandFile big",
               "DoDiskChange 0", "DiskChange 2 0", "InvalidDisk 2 0 0", "DoDiskChange 0",
               "DiskChange 3 0", "ExpandFile after.txt", "ExpandComplete 1"}),
            archive.Calls);
}

TEST_F(RemovableTest, GivingUpOnAWrongDiskCancels) {
  WriteOnMedia(SplitSet(), kSplitLimit);
  archive.OnMedia = [&](DWORD diskNo, bool invalid) {
    Insert(diskNo == 2 ? 3 : diskNo);
    return invalid ? 0 : 1;
  };
  EXPECT_EQ(0, ExpandAll());
  EXPECT_EQ(ERROR_CANCELLED, archive.GetErrorCode());
  EXPECT_TRUE(ListTree(Out()).empty());
  EXPECT_EQ("InvalidDisk 2 0 0", archive.Calls.at(archive.Calls.size() - 2));
}

TEST_F(RemovableTest, ExtractingOntoTheArchivesOwnMediumNeverAsks) {
  WriteOnMedia(SplitSet(), kSplitLimit);
  // The next volume cannot be inserted while the output goes to the medium
  // in the drive, so without numbered files there is no next volume to go
  // to; the host is never asked and the split file is removed again.
  EXPECT_EQ(0, archive.ExpandAll(WTEXT("R:\\out"), CArchiveFile::SrchNoFirstPrompt, {}));
  EXPECT_EQ(ERROR_HANDLE_EOF, archive.GetErrorCode());
  for (const auto& call : archive.Calls) EXPECT_EQ(std::string::npos, call.find("Disk "));
  EXPECT_TRUE(Exists(media[0].HostDir + "/out"));
  EXPECT_FALSE(Exists(media[0].HostDir + "/out/big"));
}

} // namespace
} // namespace xt
