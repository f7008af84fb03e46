// The errno table.
#include "platform/internal.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cerrno>

TEST(Errors, ErrnoValuesMapToTheirWin32Codes) {
  using talvern::platform::SetLastErrorFromErrno;
  const std::pair<int, DWORD> table[] = {{ENOENT, ERROR_FILE_NOT_FOUND},
                                         {ENOTDIR, ERROR_PATH_NOT_FOUND},
                                         {EACCES, ERROR_ACCESS_DENIED},
                                         {EPERM, ERROR_ACCESS_DENIED},
                                         {EBADF, ERROR_INVALID_HANDLE},
                                         {EROFS, ERROR_WRITE_PROTECT},
                                         {EEXIST, ERROR_ALREADY_EXISTS},
                                         {ENOSPC, ERROR_DISK_FULL},
                                         {EDQUOT, ERROR_DISK_FULL},
                                         {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
                                         {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
                                         {EINVAL, ERROR_INVALID_PARAMETER},
                                         {ENOMEDIUM, ERROR_NOT_READY},
                                         {EMEDIUMTYPE, ERROR_UNRECOGNIZED_VOLUME},
                                         {EXDEV, ERROR_NOT_SAME_DEVICE},
                                         {EMFILE, ERROR_TOO_MANY_OPEN_FILES}};
  for (const auto& [err, code] : table) {
    EXPECT_EQ(SetLastErrorFromErrno(err), code) << err;
    EXPECT_EQ(GetLastError(), code) << err;
  }
  EXPECT_EQ(SetLastErrorFromErrno(EHWPOISON), ERROR_GEN_FAILURE);
}
