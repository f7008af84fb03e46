// Archives that span volumes: numbered files under a size limit, foreign
// files in the way, and removable media changed through the host's hooks.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <talvern/platform.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>

using namespace adding;
using Srch = CArchiveFile::CSrchFlags;

namespace {

constexpr DWORD kContinued = 0x80000000u;

// The stored data of one entry gathered over the volumes it spans, checked
// record by record: bit 31 on every part but the last, the same CRC and
// packed size everywhere, and parts that add up to the packed size.
std::vector<std::uint8_t> GatherSplitData(const std::vector<Volume>& volumes, size_t firstIndex) {
  std::vector<std::uint8_t> data;
  const CArchiveEntry& head = volumes[0].Entries[firstIndex];
  std::uint64_t total = 0;
  for (size_t v = 0; v < volumes.size(); ++v) {
    const CArchiveEntry& part = v == 0 ? head : volumes[v].Entries.at(0);
    if (v != 0) {
      EXPECT_EQ(part.EntryOffset.GetValue(), 20u) << "volume " << v;
    }
    EXPECT_EQ(part.Crc, head.Crc);
    EXPECT_EQ(part.PackedSize.GetValue(), head.PackedSize.GetValue());
    EXPECT_EQ(FullName(part), FullName(head));
    EXPECT_EQ(part.CompressType & kContinued, v + 1 < volumes.size() ? kContinued : 0u)
        << "volume " << v;
    const auto piece = volumes[v].Data(part);
    data.insert(data.end(), piece.begin(), piece.end());
    total += part.DataSize.GetValue();
  }
  EXPECT_EQ(total, head.PackedSize.GetValue());
  return data;
}

std::vector<Volume> ReadNumbered(const TempDir& dir, const std::string& base, int count) {
  std::vector<Volume> volumes;
  for (int i = 0; i < count; ++i)
    volumes.push_back(ReadVolume(talvern::HostPathToWindows(NumberedName(dir.Host(base), i))));
  return volumes;
}

CArchiveSize Limit(DWORD general, DWORD first = 0) {
  CArchiveSize limit;
  limit.LowPart = general;
  limit.HighPart = first;
  return limit;
}

// Writes source/big.bin of size random bytes below dir and adds the source
// folder as the archive named archive (below dir) with a 1,000,000-byte
// limit. Returns the file's bytes.
std::vector<std::uint8_t> AddBigFileInVolumes(Host& host, const TempDir& dir, size_t size,
                                              std::uint32_t seed, const std::string& archive) {
  auto bytes = RandomBytes(size, seed);
  WriteFile(dir.Host("source/big.bin"), bytes);
  const CArchiveSize limit = Limit(1000000);
  EXPECT_EQ(host.FileName(dir.Win(archive).c_str(), &limit), 1);
  EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1)
      << host.GetErrorCode();
  return bytes;
}

} // namespace

TEST(AddingSpanning, FileSplitOverThreeNumberedVolumes) {
  TempDir dir;
  Host host;
  const auto noise = AddBigFileInVolumes(host, dir, 2500000, 21, "set/BACKUP.ARC");
  // Numbered volumes on a fixed disk need nobody's answer.
  EXPECT_EQ(host.CallsStartingWith("disk"), V{});
  EXPECT_FALSE(Exists(dir.Host("set/BACKUP.003")));

  const auto volumes = ReadNumbered(dir, "set/BACKUP", 3);
  for (DWORD v = 0; v < 3; ++v) {
    EXPECT_EQ(volumes[v].Number, v);
    EXPECT_EQ(volumes[v].Continues, v < 2);
    EXPECT_EQ(volumes[v].Entries.size(), 1u);
    EXPECT_EQ(volumes[v].Bytes.size(), volumes[v].ArchiveSize);
    // Full volumes are filled exactly to the limit.
    if (v < 2) {
      EXPECT_EQ(volumes[v].ArchiveSize, 1000000u);
    }
  }
  const CArchiveEntry& head = volumes[0].Entries[0];
  EXPECT_EQ(head.CompressType & ~kContinued, 0u);
  EXPECT_EQ(head.Crc, Crc32(noise));
  EXPECT_EQ(GatherSplitData(volumes, 0), noise);

  // A volume marked as continued takes no further items.
  Host appender;
  ASSERT_EQ(appender.FileName(dir.Win("set/BACKUP.000").c_str(), nullptr), 1);
  ASSERT_EQ(appender.WriteOpen(0, 0), 1);
  CArchiveEntry item;
  SetName(item, WTEXT("big.bin"));
  EXPECT_EQ(appender.Compress(dir.Win("source").c_str(), item, Srch{}, kNoSecurity), 0);
  EXPECT_EQ(appender.GetErrorCode(), ERROR_ACCESS_DENIED);
}

TEST(AddingSpanning, ForeignFilesAreNeverOverwritten) {
  TempDir dir;
  WriteFile(dir.Host("source/big.bin"), RandomBytes(1500000, 4));
  const std::string foreign = "somebody else's file";
  {
    // The archive's own name on a fixed disk.
    WriteFile(dir.Host("plain/out.arc"), foreign);
    Host host;
    ASSERT_EQ(host.FileName(dir.Win("plain/out.arc").c_str(), nullptr), 1);
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_FILE_EXISTS);
    EXPECT_EQ(host.CallsStartingWith("file:"), V{});
    EXPECT_EQ(ReadText(dir.Host("plain/out.arc")), foreign);
  }
  const CArchiveSize limit = Limit(1000000);
  {
    // The second volume's name, once as a foreign file and once as a
    // volume 0 of some archive.
    for (int kind = 0; kind < 2; ++kind) {
      TempDir out;
      if (kind == 0) {
        WriteFile(out.Host("B.001"), foreign);
      } else {
        CArchiveFile other;
        ASSERT_EQ(other.FileName(out.Win("B.001").c_str(), nullptr), 1);
        ASSERT_EQ(other.CreateOpen(1, 0), 1);
        ASSERT_EQ(other.Close(), 1);
      }
      const auto before = ReadFile(out.Host("B.001"));
      Host host;
      ASSERT_EQ(host.FileName(out.Win("B.ARC").c_str(), &limit), 1);
      EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
      EXPECT_EQ(host.GetErrorCode(), ERROR_FILE_EXISTS);
      EXPECT_EQ(ReadFile(out.Host("B.001")), before);
      EXPECT_FALSE(host.IsOpen());
    }
  }
  {
    // This archive's own volumes from an earlier run are overwritten.
    TempDir out;
    for (int run = 0; run < 2; ++run) {
      Host host;
      ASSERT_EQ(host.FileName(out.Win("B.ARC").c_str(), &limit), 1);
      ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1)
          << "run " << run << ": " << host.GetErrorCode();
    }
    EXPECT_EQ(FolderContents(out.Host()), (V{"B.000", "B.001"}));
  }
}

namespace {

// A removable drive A: with 512-byte clusters, empty until a host inserts
// one of the media m1, m2, ... of 40 KiB each.
struct RemovableDrive {
  explicit RemovableDrive(const TempDir& dir, int count = 3) {
    for (int i = 0; i < count; ++i) {
      talvern::MediumSpec m;
      m.HostDir = dir.Host("m" + std::to_string(i + 1));
      m.Serial = 0x100 + static_cast<DWORD>(i);
      m.Label = W("DISK" + std::to_string(i + 1));
      m.Capacity = kCapacity;
      Media.push_back(m);
    }
    EXPECT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, nullptr));
  }
  ~RemovableDrive() { talvern::UnmountDrive(u'A'); }
  RemovableDrive(const RemovableDrive&) = delete;
  RemovableDrive& operator=(const RemovableDrive&) = delete;
  // Puts medium diskNo (counted from 1) into the drive.
  int Insert(DWORD diskNo) {
    return diskNo >= 1 && diskNo <= Media.size() && talvern::InsertMedium(u'A', &Media[diskNo - 1])
               ? 1
               : 0;
  }
  std::string VolumeOn(const TempDir& dir, int medium) const {
    return dir.Host("m" + std::to_string(medium) + "/BACKUP.ARC");
  }

  static constexpr std::uint64_t kCapacity = 40 * 1024;
  std::vector<talvern::MediumSpec> Media;
};

// The volumes on media 1..count, read through the drive's own files.
std::vector<Volume> ReadMedia(const TempDir& dir, int count) {
  std::vector<Volume> volumes;
  for (int i = 1; i <= count; ++i)
    volumes.push_back(
        ReadVolume(talvern::HostPathToWindows(dir.Host("m" + std::to_string(i) + "/BACKUP.ARC"))));
  return volumes;
}

} // namespace

TEST(AddingRemovable, WritingGoesOnOnTheNextInsertedMedium) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  TempDir dir;
  RemovableDrive drive(dir);
  const auto noise = RandomBytes(100000, 11);
  WriteFile(dir.Host("source/big.bin"), noise);

  // With threads compressing ahead the host hears the same in the same
  // order, and with entries written from memory (in one write when the
  // medium takes them) it is asked for the same media: the media hold the
  // same bytes.
  std::vector<std::string> calls[3];
  std::vector<std::uint8_t> media[3];
  for (const int run : {0, 1, 2}) {
    for (int m = 1; m <= 3; ++m) std::filesystem::remove(drive.VolumeOn(dir, m));
    Host host;
    host.SetCompressThreads(run == 1 ? 4 : 1);
    host.SetDirectTransfer(run == 2 ? 1 : 0);
    // Reading the file may change its last-access time: no times are kept.
    host.DefaultCreateTime(MakeFileTime(0x01D0000000000000ull));
    host.OnDiskFull = [](int) { return CArchiveFile::DiskFullChange; };
    host.OnDiskChange = [&](DWORD diskNo) { return drive.Insert(diskNo); };
    ASSERT_EQ(host.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr), 1);
    ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{},
                               kNoSecurity | CArchiveFile::AttrNoTimes),
              1)
        << host.GetErrorCode();
    calls[run] = host.Calls;
    for (int m = 1; m <= 3; ++m) {
      const auto bytes = ReadFile(drive.VolumeOn(dir, m));
      media[run].insert(media[run].end(), bytes.begin(), bytes.end());
    }
  }
  EXPECT_EQ(calls[1], calls[0]);
  for (const int run : {0, 1, 2}) {
    EXPECT_TRUE(media[run] == media[0]) << run;
    V diskCalls;
    std::copy_if(calls[run].begin(), calls[run].end(), std::back_inserter(diskCalls),
                 [](const std::string& c) { return c.rfind("disk", 0) == 0; });
    EXPECT_EQ(diskCalls, (V{"diskfull:1", "diskchange:1,1", "diskfull:0", "diskchange:2,1",
                            "diskfull:0", "diskchange:3,1"}))
        << run;
  }
  EXPECT_GT(talvern::GetDismountCount(u'A'), 0u);

  // The medium is filled to its last cluster by the cluster-step retries
  // before the volume changes.
  EXPECT_EQ(ReadFile(drive.VolumeOn(dir, 1)).size(), RemovableDrive::kCapacity);
  EXPECT_EQ(ReadFile(drive.VolumeOn(dir, 2)).size(), RemovableDrive::kCapacity);
  const auto volumes = ReadMedia(dir, 3);
  for (DWORD v = 0; v < 3; ++v) {
    EXPECT_EQ(volumes[v].Number, v);
    EXPECT_EQ(volumes[v].Continues, v < 2);
  }
  EXPECT_EQ(volumes[0].Entries[0].Crc, Crc32(noise));
  EXPECT_EQ(GatherSplitData(volumes, 0), noise);
}
