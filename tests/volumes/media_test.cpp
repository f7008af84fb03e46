// Removable drives, media identity, the media steps around opens and
// closes, device requests and formatting, on the platform's simulated
// drives.
#include "archive/archive_test_util.h"
#include "volumes/naming.h"

#include <talvern/platform.h>

#include <cstdio>
#include <functional>

using namespace test;
using talvern::MediumSpec;

namespace {

// An archive class that records the device requests and media questions
// the library makes, and can answer them differently.
class DeviceSpy : public RecordArchive {
public:
  mutable std::vector<std::string> calls;
  int alreadyOpenedAnswer = 0;
  int fastLock = 0; // answer a lock request at once (as refused) when set
  int formatResult = 0;
  std::function<void()> onFormat;

  using CArchiveFile::DoEjectMedia;
  using CArchiveFile::DoFlushMedia;
  using CArchiveFile::DoLoadMedia;
  using CArchiveFile::ExecCheckFormated;
  using CArchiveFile::ExecEjectMedia;
  using CArchiveFile::ExecLoadMedia;
  using CArchiveFile::ExecLockMedia;

  // Overrides, public so that the tests can call them directly too.
  HANDLE ExecDeviceOpen(const WCHAR* root, DWORD access) const override {
    char text[16];
    snprintf(text, sizeof text, "%08X", static_cast<unsigned>(access));
    calls.push_back("open " + N(root) + " " + text);
    return CArchiveFile::ExecDeviceOpen(root, access);
  }
  int ExecDeviceClose(HANDLE device) const override {
    calls.push_back("close");
    return CArchiveFile::ExecDeviceClose(device);
  }
  int ExecDeviceLock(HANDLE device) const override {
    calls.push_back("lock");
    if (fastLock) return 0;
    return CArchiveFile::ExecDeviceLock(device);
  }
  int ExecDeviceUnlock(HANDLE device) const override {
    calls.push_back("unlock");
    return CArchiveFile::ExecDeviceUnlock(device);
  }
  int ExecFlushMedia(HANDLE device) const override {
    calls.push_back("dismount");
    return CArchiveFile::ExecFlushMedia(device);
  }
  int AlreadyOpenedNotify(const WCHAR* root) override {
    calls.push_back("already opened " + N(root));
    return alreadyOpenedAnswer;
  }
  int FormatNotify(const WCHAR* path, DWORD number) override {
    calls.push_back("format? " + N(path) + " " + std::to_string(number));
    return CArchiveFile::FormatNotify(path, number);
  }
  int DoFormat(const WCHAR* path, DWORD diskNo) override {
    calls.push_back("format " + N(path) + " " + std::to_string(diskNo));
    if (onFormat) onFormat();
    if (!formatResult) return CArchiveFile::DoFormat(path, diskNo);
    return formatResult;
  }
};

class MediaTest : public ::testing::Test {
protected:
  TempDir dir;
  MediumSpec floppy;
  DeviceSpy a;

  void SetUp() override {
    TALVERN_NEEDS_SIMULATED_DRIVES();
    floppy.HostDir = dir.Host("floppy");
    floppy.Serial = 0x1234ABCD;
    floppy.Label = WTEXT("Backup");
    floppy.FileSystemFlags = 0x3;
    ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, &floppy));
  }

  void MountCd() {
    MediumSpec cd;
    cd.HostDir = dir.Host("cd");
    cd.Serial = 77;
    ASSERT_TRUE(talvern::MountDrive(u'D', DRIVE_CDROM, 2048, &cd));
  }
};

TEST_F(MediaTest, WhichDrivesAreRemovable) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  MountCd();
  MediumSpec fixed;
  fixed.HostDir = dir.Host("fixed");
  ASSERT_TRUE(talvern::MountDrive(u'F', DRIVE_FIXED, 4096, &fixed));
  EXPECT_TRUE(a.IsRemovable(1, WTEXT("A:\\")));
  EXPECT_TRUE(a.IsRemovable(0, WTEXT("A:\\")));
  EXPECT_FALSE(a.IsRemovable(1, WTEXT("D:\\"))); // a CD-ROM counts for reading only
  EXPECT_TRUE(a.IsRemovable(0, WTEXT("D:\\")));
  EXPECT_FALSE(a.IsRemovable(0, WTEXT("F:\\")));
  EXPECT_FALSE(a.IsRemovable(0, WTEXT("Q:\\"))); // not mapped

  // Without a root: the archive's own drive (without a name, the drive of
  // the current directory, a fixed one here).
  EXPECT_FALSE(a.IsRemovable(0, nullptr));
  ASSERT_TRUE(a.FileName(WTEXT("a:\\dir\\x.arc"), nullptr));
  EXPECT_TRUE(a.IsRemovable(1, nullptr));
  EXPECT_FALSE(a.IsError());
}

TEST_F(MediaTest, MediaInformation) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  DWORD serial = 1, flags = 1;
  CString label = WTEXT("junk");
  EXPECT_TRUE(a.GetMediaInfo(serial, flags, &label, WTEXT("A:\\some\\file.arc")));
  EXPECT_EQ(serial, 0x1234ABCDu);
  EXPECT_EQ(flags, 0x3u);
  EXPECT_EQ(label, WTEXT("Backup"));
  EXPECT_TRUE(a.GetMediaInfo(serial, flags, nullptr, WTEXT("A:\\")));
  EXPECT_EQ(serial, 0x1234ABCDu);

  // The path may be the label string itself: it is read before the label
  // is emptied.
  label = WTEXT("A:\\some\\file.arc");
  EXPECT_TRUE(a.GetMediaInfo(serial, flags, &label, label.c_str()));
  EXPECT_EQ(label, WTEXT("Backup"));

  // An empty drive: no identity but its upper-cased root.
  ASSERT_TRUE(talvern::MountDrive(u'B', DRIVE_REMOVABLE, 512, nullptr));
  EXPECT_FALSE(a.GetMediaInfo(serial, flags, &label, WTEXT("b:\\x.arc")));
  EXPECT_EQ(serial, 0u);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(label, WTEXT("B:\\"));

  // No path: the archive's name.
  ASSERT_TRUE(a.FileName(WTEXT("A:\\x.arc"), nullptr));
  EXPECT_TRUE(a.GetMediaInfo(serial, flags, &label, nullptr));
  EXPECT_EQ(label, WTEXT("Backup"));
  EXPECT_FALSE(a.IsError());
}

TEST_F(MediaTest, ClusterSizes) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  MountCd();
  EXPECT_EQ(GetClusterSize(WTEXT("A:\\")), 512u);
  EXPECT_EQ(GetClusterSize(WTEXT("D:\\")), 2048u);
  EXPECT_EQ(GetClusterSize(WTEXT("Q:\\")), 0u);
  ASSERT_TRUE(talvern::MountDrive(u'B', DRIVE_REMOVABLE, 1024, nullptr));
  EXPECT_EQ(GetClusterSize(WTEXT("B:\\")), 0u); // no medium
}

TEST_F(MediaTest, OpenAndCloseDismountARemovableVolume) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  ASSERT_TRUE(a.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 0)) << a.GetErrorCode();
  EXPECT_EQ(a.calls, (std::vector<std::string>{"open A:\\ C0000000", "lock", "unlock", "dismount",
                                               "close"}));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 1u);
  a.calls.clear();
  ASSERT_TRUE(a.Close());
  EXPECT_EQ(a.calls, (std::vector<std::string>{"open A:\\ C0000000", "lock", "unlock", "dismount",
                                               "close"}));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 2u);
  EXPECT_EQ(ReadFile(dir.Host("floppy/BACKUP.ARC")).size(), 20u);

  // Reading asks for read access only.
  a.calls.clear();
  ASSERT_TRUE(a.ReadOpen());
  EXPECT_EQ(a.calls.front(), "open A:\\ 80000000");
  ASSERT_TRUE(a.Close());
  EXPECT_EQ(a.calls[5], "open A:\\ 80000000");
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 4u);
}

TEST_F(MediaTest, CdRomIsPreparedForReadingOnly) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  MountCd();
  WriteFile(dir.Host("cd/DATA.ARC"), Bytes().Header(20).Get());
  ASSERT_TRUE(a.FileName(WTEXT("D:\\DATA.ARC"), nullptr));
  ASSERT_TRUE(a.ReadOpen());
  ASSERT_TRUE(a.Close());
  EXPECT_EQ(talvern::GetDismountCount(u'D'), 2u);
  a.calls.clear();
  ASSERT_TRUE(a.WriteOpen(0, 0)) << a.GetErrorCode();
  ASSERT_TRUE(a.Close());
  EXPECT_TRUE(a.calls.empty());
  EXPECT_EQ(talvern::GetDismountCount(u'D'), 2u);
}

TEST_F(MediaTest, FixedDrivesNeverOpenADevice) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  MediumSpec fixed;
  fixed.HostDir = dir.Host("fixed");
  ASSERT_TRUE(talvern::MountDrive(u'F', DRIVE_FIXED, 4096, &fixed));
  ASSERT_TRUE(a.FileName(WTEXT("F:\\x.arc"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  ASSERT_TRUE(a.Close());
  ASSERT_TRUE(a.ReadOpen());
  ASSERT_TRUE(a.Close());
  EXPECT_TRUE(a.calls.empty());
  EXPECT_EQ(talvern::GetDismountCount(u'F'), 0u);
}

TEST_F(MediaTest, DeniedDeviceAccessStillOpensTheVolume) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  talvern::SetDeviceAccess(u'A', FALSE);
  ASSERT_TRUE(a.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1)) << a.GetErrorCode();
  ASSERT_TRUE(a.Close());
  EXPECT_EQ(a.calls, (std::vector<std::string>{"open A:\\ C0000000", "open A:\\ C0000000"}));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 0u);
  EXPECT_FALSE(a.IsError());

  // Flushing the medium treats the same refusal as abandoned.
  EXPECT_FALSE(a.DoFlushMedia(WTEXT("A:\\")));
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
}

TEST_F(MediaTest, VolumeInUseAsksTheHost) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  // Another handle keeps a file open on the medium: the lock is refused
  // ten times, 100 ms apart, then the host is asked; the library's own
  // answer abandons the open.
  const HANDLE held = CreateFileW(WTEXT("A:\\other.txt"), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(held, INVALID_HANDLE_VALUE);
  CArchiveFile plain;
  ASSERT_TRUE(plain.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr));
  EXPECT_FALSE(plain.CreateOpen(1, 1));
  EXPECT_EQ(plain.GetErrorCode(), ERROR_CANCELLED);
  EXPECT_TRUE(plain.IsAborted());
  EXPECT_FALSE(plain.IsOpen());
  EXPECT_FALSE(Exists(dir.Host("floppy/BACKUP.ARC")));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 0u);

  // A host that answers non-zero makes the step fail without a code, so
  // that a caller can ask for the medium again.
  a.fastLock = 1;
  a.alreadyOpenedAnswer = 1;
  ASSERT_TRUE(a.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr));
  EXPECT_FALSE(a.ReadOpen());
  EXPECT_FALSE(a.IsError());
  EXPECT_EQ(a.calls, (std::vector<std::string>{"open A:\\ 80000000", "lock", "close",
                                               "already opened A:\\"}));
  a.calls.clear();
  a.alreadyOpenedAnswer = 0;
  EXPECT_FALSE(a.DoFlushMedia(nullptr)); // the archive's own drive
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
  EXPECT_EQ(a.calls, (std::vector<std::string>{"open A:\\ C0000000", "lock", "close",
                                               "already opened A:\\"}));
  CloseHandle(held);

  // Released: the flush dismounts.
  a.ClearError();
  a.fastLock = 0;
  EXPECT_TRUE(a.DoFlushMedia(WTEXT("A:\\")));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 1u);
}

TEST_F(MediaTest, FlushMediaOnlyForRemovableDrives) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  MountCd();
  EXPECT_TRUE(a.DoFlushMedia(WTEXT("D:\\"))); // a CD-ROM does not count here
  EXPECT_TRUE(a.DoFlushMedia(WTEXT("Z:\\")));
  EXPECT_TRUE(a.DoFlushMedia(nullptr)); // no name: nothing to do
  EXPECT_TRUE(a.calls.empty());
  ASSERT_TRUE(talvern::MountDrive(u'B', DRIVE_REMOVABLE, 512, nullptr));
  EXPECT_TRUE(a.DoLoadMedia(WTEXT("A:\\"), 1));
  EXPECT_TRUE(a.DoEjectMedia(WTEXT("A:\\"), 0));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 2u);
}

TEST_F(MediaTest, DeviceRequests) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  const DWORD rw = GENERIC_READ | GENERIC_WRITE;
  // Only drive-letter roots name a device; the letter keeps its case.
  SetLastError(4321);
  EXPECT_EQ(a.ExecDeviceOpen(WTEXT("\\\\server\\share\\"), rw), INVALID_HANDLE_VALUE);
  EXPECT_EQ(a.ExecDeviceOpen(nullptr, rw), INVALID_HANDLE_VALUE);
  EXPECT_EQ(a.ExecDeviceOpen(WTEXT("1:\\"), rw), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 4321u);
  EXPECT_EQ(a.ExecDeviceOpen(WTEXT("Q:\\"), rw), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

  // Every request refuses the invalid handle.
  const HANDLE none = INVALID_HANDLE_VALUE;
  EXPECT_FALSE(a.ExecDeviceClose(none) || a.ExecDeviceLock(none) || a.ExecDeviceUnlock(none) ||
               a.ExecFlushMedia(none) || a.ExecEjectMedia(none) || a.ExecLoadMedia(none) ||
               a.ExecLockMedia(none, 1));

  const HANDLE device = a.ExecDeviceOpen(WTEXT("a:\\"), rw);
  ASSERT_NE(device, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(a.ExecDeviceLock(device));
  EXPECT_TRUE(a.ExecDeviceUnlock(device));
  EXPECT_TRUE(a.ExecFlushMedia(device));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 1u);

  // Removal prevented (any non-zero request): the medium stays in.
  EXPECT_TRUE(a.ExecLockMedia(device, 7));
  a.ExecEjectMedia(device);
  EXPECT_TRUE(a.ExecCheckFormated(WTEXT("A:\\"), 1));
  EXPECT_TRUE(a.ExecLockMedia(device, 0));
  EXPECT_TRUE(a.ExecLoadMedia(device));
  EXPECT_TRUE(a.ExecEjectMedia(device));
  EXPECT_FALSE(a.ExecCheckFormated(WTEXT("A:\\"), 1));
  EXPECT_FALSE(a.ExecLoadMedia(device)); // nothing to load in an empty drive
  EXPECT_TRUE(a.ExecDeviceClose(device));
}

TEST_F(MediaTest, FormatWithTheLibrarysOwnHooksCancels) {
  EXPECT_FALSE(a.Format(WTEXT("A:\\"), 1));
  EXPECT_EQ(a.GetErrorCode(), ERROR_CANCELLED);
  EXPECT_EQ(a.calls, (std::vector<std::string>{"format? A:\\ 1", "format A:\\ 1"}));
}

TEST_F(MediaTest, FormatRefusals) {
  // Busy, no path, or an open volume: 148 and no question.
  ASSERT_TRUE(a.FileName(WTEXT("A:\\x.arc"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  a.calls.clear();
  EXPECT_FALSE(a.Format(WTEXT("A:\\"), 1));
  EXPECT_EQ(a.GetErrorCode(), ERROR_PATH_BUSY);
  EXPECT_TRUE(a.calls.empty());
  ASSERT_TRUE(a.Close());
  a.calls.clear();
  a.ClearError();
  EXPECT_FALSE(a.Format(nullptr, 1));
  EXPECT_EQ(a.GetErrorCode(), ERROR_PATH_BUSY);
  a.ClearError();
  a.Data().Flags |= FlagBusy;
  EXPECT_FALSE(a.Format(WTEXT("A:\\"), 1));
  EXPECT_EQ(a.GetErrorCode(), ERROR_PATH_BUSY);

  // Format does not clear the latch: an earlier code stays.
  a.ClearError();
  a.SetErrorCode(ERROR_CRC);
  EXPECT_FALSE(a.Format(WTEXT("A:\\"), 1));
  EXPECT_EQ(a.GetErrorCode(), ERROR_CRC);
  a.Data().Flags &= ~FlagBusy;
  EXPECT_TRUE(a.calls.empty());
}

TEST_F(MediaTest, FormatByTheHost) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  // An unformatted medium that the host's formatter turns into a formatted
  // one.
  MediumSpec blank = floppy;
  blank.Formatted = false;
  ASSERT_TRUE(talvern::InsertMedium(u'A', &blank));
  EXPECT_FALSE(a.ExecCheckFormated(WTEXT("A:\\"), 1));
  a.formatResult = 1;
  a.onFormat = [&] {
    MediumSpec done = floppy;
    talvern::InsertMedium(u'A', &done);
  };
  EXPECT_EQ(a.Format(WTEXT("A:\\"), 2), 1);
  EXPECT_FALSE(a.IsError());

  // A formatter that reports success without leaving a file system: 1005.
  ASSERT_TRUE(talvern::InsertMedium(u'A', &blank));
  a.onFormat = nullptr;
  EXPECT_FALSE(a.Format(WTEXT("A:\\"), 2));
  EXPECT_EQ(a.GetErrorCode(), ERROR_UNRECOGNIZED_VOLUME);
}

class DecliningFormat : public CArchiveFile {
public:
  int formats = 0;

protected:
  int FormatNotify(const WCHAR*, DWORD) override { return 0; }
  int DoFormat(const WCHAR*, DWORD) override { return ++formats; }
};

TEST_F(MediaTest, DeclinedFormatIsACancellation) {
  DecliningFormat f;
  f.SetErrorCode(ERROR_CRC); // replaced: a cancellation always wins
  EXPECT_FALSE(f.Format(WTEXT("A:\\"), 1));
  EXPECT_EQ(f.GetErrorCode(), ERROR_CANCELLED);
  EXPECT_EQ(f.formats, 0);
}

TEST_F(MediaTest, RollbackAndDeletionOnARemovableMedium) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  // A small medium: 8 KiB in 512-byte clusters.
  MediumSpec small = floppy;
  small.HostDir = dir.Host("small");
  small.Capacity = 8192;
  ASSERT_TRUE(talvern::InsertMedium(u'A', &small));
  ASSERT_TRUE(a.FileName(WTEXT("A:\\BACKUP.ARC"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  CArchiveEntry e = FileEntry(WTEXT("one"), CString(), 1000);
  ASSERT_TRUE(AppendEntry(a, e, RandomBytes(1000, 1)));
  ASSERT_TRUE(a.Close());
  const auto committed = ReadFile(dir.Host("small/BACKUP.ARC"));

  // Appending data until the medium is full; the failure is latched and
  // the close cuts the volume back.
  ASSERT_TRUE(a.WriteOpen(0, 1));
  LONG high = 0;
  SetFilePointer(a.Handle(), 0, &high, FILE_END);
  const std::vector<std::uint8_t> block(4096, 0x42);
  DWORD put = 0;
  BOOL ok = TRUE;
  for (int i = 0; i < 4 && ok; ++i) ok = ::WriteFile(a.Handle(), block.data(), 4096, &put, nullptr);
  ASSERT_FALSE(ok);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  a.SetErrorCode(GetLastError());
  EXPECT_TRUE(a.Close());
  EXPECT_EQ(ReadFile(dir.Host("small/BACKUP.ARC")), committed);

  // A new volume that fails before its first commit is removed from the
  // medium.
  a.ClearError();
  ASSERT_TRUE(a.FileName(WTEXT("A:\\NEXT.ARC"), nullptr));
  ASSERT_TRUE(a.CreateOpen(1, 1));
  a.SetErrorCode(ERROR_DISK_FULL);
  a.Close();
  EXPECT_FALSE(Exists(dir.Host("small/NEXT.ARC")));
}

} // namespace
