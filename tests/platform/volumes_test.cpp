// Drives, media and devices: types, volume information, free space and
// its accounting, device requests, and mappings held to a medium's
// capacity.
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sys/statvfs.h>

using test::N;

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

talvern::MediumSpec Medium(const test::TempDir& dir, const std::string& name, DWORD serial,
                           std::uint64_t capacity = 0) {
  talvern::MediumSpec medium;
  medium.HostDir = dir.Host(name);
  medium.Serial = serial;
  medium.Label = test::W("LABEL_" + name);
  medium.FileSystemFlags = 0x0006;
  medium.Capacity = capacity;
  return medium;
}

HANDLE Create(const CString& path, DWORD disposition = CREATE_ALWAYS) {
  return CreateFileW(path.c_str(), kReadWrite, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                     nullptr);
}

DWORD FreeClusters(const WCHAR* root) {
  DWORD spc = 0, bps = 0, free = 0, total = 0;
  EXPECT_TRUE(GetDiskFreeSpaceW(root, &spc, &bps, &free, &total));
  return free;
}

} // namespace

TEST(Volumes, DriveTypesAndVolumeInformation) {
  test::TempDir dir;
  EXPECT_EQ(GetDriveTypeW(u"Z:\\"), DRIVE_FIXED);
  EXPECT_EQ(GetDriveTypeW(u"A:\\"), DRIVE_NO_ROOT_DIR);
  const auto floppy = Medium(dir, "floppy", 0x1234ABCD);
  ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, &floppy));
  ASSERT_TRUE(talvern::MountDrive(u'D', DRIVE_CDROM, 2048, nullptr));
  ASSERT_TRUE(talvern::MountShare(u"srv", u"pub", dir.Host("share")));
  EXPECT_EQ(GetDriveTypeW(u"a:\\"), DRIVE_REMOVABLE);
  EXPECT_EQ(GetDriveTypeW(u"D:\\"), DRIVE_CDROM);
  EXPECT_EQ(GetDriveTypeW(u"\\\\srv\\pub\\"), DRIVE_REMOTE);
  EXPECT_EQ(GetDriveTypeW(u"\\\\srv\\other\\"), DRIVE_NO_ROOT_DIR);

  WCHAR label[MAX_PATH + 1];
  DWORD serial = 0, flags = 0, maxName = 0;
  ASSERT_TRUE(
      GetVolumeInformationW(u"A:\\", label, MAX_PATH + 1, &serial, &maxName, &flags, nullptr, 0));
  EXPECT_EQ(N(label), "LABEL_floppy");
  EXPECT_EQ(serial, 0x1234ABCDu);
  EXPECT_EQ(flags, 0x0006u);
  EXPECT_EQ(maxName, 255u);
  EXPECT_FALSE(GetVolumeInformationW(u"A:\\", label, 5, &serial, nullptr, nullptr, nullptr, 0));

  // Z: and shares: the host file system's id, no label.
  struct statvfs vfs {};
  ASSERT_EQ(::statvfs("/", &vfs), 0);
  const auto id = static_cast<std::uint64_t>(vfs.f_fsid);
  ASSERT_TRUE(
      GetVolumeInformationW(u"Z:\\", label, MAX_PATH + 1, &serial, nullptr, &flags, nullptr, 0));
  EXPECT_EQ(serial, static_cast<DWORD>(id ^ (id >> 32)));
  EXPECT_EQ(N(label), "");
  ASSERT_TRUE(GetVolumeInformationW(u"\\\\SRV\\pub\\", label, MAX_PATH + 1, &serial, nullptr,
                                    nullptr, nullptr, 0));
  EXPECT_EQ(N(label), "");

  // Errors: empty drive, unmapped drive and share, a path that is no root.
  EXPECT_FALSE(
      GetVolumeInformationW(u"D:\\", label, MAX_PATH + 1, &serial, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_NOT_READY);
  EXPECT_FALSE(GetVolumeInformationW(u"Q:\\", nullptr, 0, &serial, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_FALSE(
      GetVolumeInformationW(u"\\\\srv\\x\\", nullptr, 0, &serial, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_BAD_NETPATH);
  EXPECT_FALSE(GetVolumeInformationW(u"A:", nullptr, 0, &serial, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);

  EXPECT_EQ(SetErrorMode(SEM_FAILCRITICALERRORS), 0u);
  EXPECT_EQ(SetErrorMode(0), SEM_FAILCRITICALERRORS);
}

TEST(Volumes, CapacityAccountingFillsAMediumToItsLastCluster) {
  test::TempDir dir;
  // 20 clusters of 512 bytes; an existing file of 700 bytes takes two.
  const auto small = Medium(dir, "small", 1, 20 * 512 + 100);
  test::WriteFile(dir.Host("small/existing"), std::string(700, 'e'));
  ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, &small));
  DWORD spc = 0, bps = 0, free = 0, total = 0;
  ASSERT_TRUE(GetDiskFreeSpaceW(u"A:\\", &spc, &bps, &free, &total));
  EXPECT_EQ(spc, 1u);
  EXPECT_EQ(bps, 512u);
  EXPECT_EQ(total, 20u);
  EXPECT_EQ(free, 18u);

  HANDLE h = Create(u"A:\\fill.arc");
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  const std::vector<char> piece(1000, 'x');
  DWORD n = 0;
  // 1000-byte pieces: 9 of them need 18 clusters (9000 bytes in 18 * 512 = 9216).
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(WriteFile(h, piece.data(), 1000, &n, nullptr)) << i;
  EXPECT_EQ(FreeClusters(u"A:\\"), 0u);
  // Growing by one more cluster fails and writes nothing ...
  EXPECT_FALSE(WriteFile(h, piece.data(), 1000, &n, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(GetFileSize(h, nullptr), 9000u);
  // ... while the rest of the last cluster can still be filled.
  ASSERT_TRUE(WriteFile(h, piece.data(), 216, &n, nullptr));
  EXPECT_EQ(GetFileSize(h, nullptr), 9216u);
  EXPECT_FALSE(WriteFile(h, piece.data(), 1, &n, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  // SetEndOfFile is held to the same rule; shrinking gives clusters back.
  SetFilePointer(h, 9217, nullptr, FILE_BEGIN);
  EXPECT_FALSE(SetEndOfFile(h));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  SetFilePointer(h, 4096, nullptr, FILE_BEGIN);
  ASSERT_TRUE(SetEndOfFile(h));
  EXPECT_EQ(FreeClusters(u"A:\\"), 10u);
  CloseHandle(h);
  ASSERT_TRUE(DeleteFileW(u"A:\\fill.arc"));
  EXPECT_EQ(FreeClusters(u"A:\\"), 18u);

  // Moving a file onto the medium needs room there too.
  test::WriteFile(dir.Host("big"), std::string(20 * 512, 'b'));
  EXPECT_FALSE(MoveFileW(dir.Win("big").c_str(), u"A:\\big"));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_TRUE(test::Exists(dir.Host("big")));
}

// The device of a removable drive: a lock waits for open files, a
// dismount is counted, an eject waits while removal is prevented.
TEST(Devices, LockDismountAndRemoval) {
  test::TempDir dir;
  const auto floppy = Medium(dir, "floppy", 1);
  ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 512, &floppy));
  HANDLE file = Create(u"A:\\open.arc");
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  HANDLE device = CreateFileW(u"\\\\.\\a:", kReadWrite, 3, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(device, INVALID_HANDLE_VALUE);
  const auto control = [&](DWORD code, void* in = nullptr, DWORD size = 0) {
    DWORD returned = 0;
    return DeviceIoControl(device, code, in, size, nullptr, 0, &returned, nullptr);
  };
  EXPECT_FALSE(control(FSCTL_LOCK_VOLUME));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  CloseHandle(file);
  ASSERT_TRUE(control(FSCTL_LOCK_VOLUME));
  EXPECT_EQ(Create(u"A:\\other.arc"), INVALID_HANDLE_VALUE); // nobody else while locked
  ASSERT_TRUE(control(FSCTL_DISMOUNT_VOLUME));
  EXPECT_EQ(talvern::GetDismountCount(u'A'), 1u);
  ASSERT_TRUE(control(FSCTL_UNLOCK_VOLUME));
  PREVENT_MEDIA_REMOVAL prevent{1};
  ASSERT_TRUE(control(IOCTL_DISK_MEDIA_REMOVAL, &prevent, sizeof prevent));
  EXPECT_FALSE(control(IOCTL_DISK_EJECT_MEDIA));
  prevent.PreventMediaRemoval = 0;
  ASSERT_TRUE(control(IOCTL_DISK_MEDIA_REMOVAL, &prevent, sizeof prevent));
  ASSERT_TRUE(control(IOCTL_DISK_EJECT_MEDIA));
  EXPECT_EQ(Create(u"A:\\after.arc"), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_NOT_READY);
  EXPECT_FALSE(control(0x12345678));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_FUNCTION);
  CloseHandle(device);
}

TEST(Mapping, GrowthOnAMediumIsHeldToItsCapacity) {
  test::TempDir dir;
  const auto small = Medium(dir, "small", 1, 8 * 4096);
  ASSERT_TRUE(talvern::MountDrive(u'A', DRIVE_REMOVABLE, 4096, &small));
  HANDLE file = Create(u"A:\\m.bin");
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(file, "x", 1, &n, nullptr));
  EXPECT_EQ(CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 9 * 4096, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(GetFileSize(file, nullptr), 1u);
  HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 8 * 4096, nullptr);
  EXPECT_NE(mapping, nullptr);
  EXPECT_EQ(FreeClusters(u"A:\\"), 0u);
  CloseHandle(mapping);
  CloseHandle(file);
}
