// Volume file names with numbered extensions and advancing disk folders,
// and the comparison of media identities.
#include "archive/archive_test_util.h"
#include "foundation/paths.h"
#include "volumes/naming.h"

using namespace test;

namespace {

std::string Named(const std::string& before, DWORD number, int advance) {
  CString name = W(before);
  EXPECT_TRUE(BuildVolumeName(name, number, advance)) << before;
  return N(name);
}

TEST(VolumeNames, NumberedExtensions) {
  EXPECT_EQ(Named("C:\\B", 0, 0), "C:\\B.000");
  EXPECT_EQ(Named("C:\\B", 9, 0), "C:\\B.009");
  EXPECT_EQ(Named("C:\\B", 10, 0), "C:\\B.00A");
  EXPECT_EQ(Named("C:\\B", 255, 0), "C:\\B.0FF");
  EXPECT_EQ(Named("C:\\B", 4095, 0), "C:\\B.FFF");
  // Without advance a disk folder stays.
  EXPECT_EQ(Named("C:\\OUT\\DISK1\\B", 1, 0), "C:\\OUT\\DISK1\\B.001");

  CString name = WTEXT("C:\\DISK1\\B");
  EXPECT_FALSE(BuildVolumeName(name, 4096, 1));
  EXPECT_EQ(name, WTEXT("C:\\DISK1\\B"));
  EXPECT_FALSE(BuildVolumeName(name, 0xFFFFFFFFu, 0));
  EXPECT_EQ(name, WTEXT("C:\\DISK1\\B"));
}

TEST(VolumeNames, DiskFoldersAdvance) {
  EXPECT_EQ(Named("C:\\OUT\\DISK1\\BACKUP", 1, 1), "C:\\OUT\\DISK2\\BACKUP.001");
  EXPECT_EQ(Named("C:\\OUT\\disc09\\B", 2, 1), "C:\\OUT\\disc10\\B.002");
  EXPECT_EQ(Named("C:\\OUT\\DISK\\B", 1, 1), "C:\\OUT\\DISK1\\B.001");
  EXPECT_EQ(Named("C:\\OUT\\DISK99\\B", 1, 1), "C:\\OUT\\DISK100\\B.001");
  EXPECT_EQ(Named("C:\\OUT\\DISK9\\B", 1, 1), "C:\\OUT\\DISK10\\B.001");
  EXPECT_EQ(Named("C:\\OUT\\DISK007\\B", 1, 1), "C:\\OUT\\DISK008\\B.001");
  EXPECT_EQ(Named("C:\\OUT\\disk1\\B", 1, 1), "C:\\OUT\\disk2\\B.001");
  EXPECT_EQ(Named("C:\\OUT\\DiSc1\\B", 1, 1), "C:\\OUT\\DiSc2\\B.001");
  EXPECT_EQ(Named("\\\\srv\\share\\DISK3\\B", 7, 1), "\\\\srv\\share\\DISK4\\B.007");
  EXPECT_EQ(Named("C:DISK1\\B", 1, 1), "C:DISK2\\B.001"); // ":" also separates
}

TEST(VolumeNames, FolderNumbersAtTheirLimits) {
  // 19 digits fit; the number is a 32-bit count.
  EXPECT_EQ(Named("C:\\DISK0000000000000000009\\B", 1, 1), "C:\\DISK0000000000000000010\\B.001");
  EXPECT_EQ(Named("C:\\DISK4294967294\\B", 1, 1), "C:\\DISK4294967295\\B.001");
  // Beyond: the folder is left as it is.
  EXPECT_EQ(Named("C:\\DISK4294967295\\B", 1, 1), "C:\\DISK4294967295\\B.001");
  EXPECT_EQ(Named("C:\\DISK00000000000000000001\\B", 1, 1), "C:\\DISK00000000000000000001\\B.001");
}

TEST(VolumeNames, SuccessiveVolumesWalkTheDiskFolders) {
  // How the volume changes name the volumes of a set: strip the extension,
  // append the next number with folder advance.
  CString name = WTEXT("C:\\OUT\\DISK1\\BACKUP");
  ASSERT_TRUE(BuildVolumeName(name, 0, 0));
  std::vector<std::string> names{N(name)};
  for (DWORD n = 1; n <= 3; ++n) {
    RemoveExtension(name);
    ASSERT_TRUE(BuildVolumeName(name, n, 1));
    names.push_back(N(name));
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"C:\\OUT\\DISK1\\BACKUP.000", "C:\\OUT\\DISK2\\BACKUP.001",
                                      "C:\\OUT\\DISK3\\BACKUP.002", "C:\\OUT\\DISK4\\BACKUP.003"}));
}

TEST(MediaIdentity, SameMediaNeedsEqualSerialFlagsAndLabel) {
  CArchiveFile a;
  EXPECT_TRUE(a.IsSameMedia(1, 1, 2, 2, WTEXT("A"), WTEXT("A")));
  EXPECT_FALSE(a.IsSameMedia(1, 1, 2, 2, WTEXT("A"), WTEXT("a"))); // case counts
  EXPECT_FALSE(a.IsSameMedia(1, 2, 2, 2, WTEXT("A"), WTEXT("A")));
  EXPECT_FALSE(a.IsSameMedia(1, 1, 2, 3, WTEXT("A"), WTEXT("A")));
  EXPECT_TRUE(a.IsSameMedia(0, 0, 0, 0, nullptr, nullptr));
  EXPECT_TRUE(a.IsSameMedia(0, 0, 0, 0, nullptr, WTEXT("")));
  EXPECT_FALSE(a.IsSameMedia(0, 0, 0, 0, nullptr, WTEXT("X")));
}

TEST(MediaIdentity, DiskNumberOfTheOpenVolumeOnly) {
  TempDir dir;
  WriteFile(dir.Host("v.005"), Bytes().Header(20, 0x8005).Get());
  CArchiveFile a;
  ASSERT_TRUE(a.FileName(dir.Win("v.005").c_str(), nullptr));
  ASSERT_TRUE(a.ReadOpen());
  EXPECT_EQ(a.GetDiskNo(), 5u);
  ASSERT_TRUE(a.Close());
  EXPECT_EQ(a.GetDiskNo(), 0u);
}

} // namespace
