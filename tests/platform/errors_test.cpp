// The errno table and the handle registry.
#include "platform/internal.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

class Dummy : public talvern::platform::HandleObject {
public:
  explicit Dummy(int* destroyed) : destroyed_(destroyed) {}
  ~Dummy() override { ++*destroyed_; }

private:
  int* destroyed_;
};

} // namespace

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

TEST(Errors, LastErrorBelongsToItsThread) {
  SetLastError(1234);
  DWORD seen = 0;
  std::thread other([&] {
    seen = GetLastError();
    SetLastError(5);
  });
  other.join();
  EXPECT_EQ(seen, 0u);
  EXPECT_EQ(GetLastError(), 1234u);
}

TEST(Handles, RegistryOwnsObjectsAndRefusesStaleHandles) {
  int destroyed = 0;
  HANDLE a = talvern::platform::RegisterHandle(std::make_unique<Dummy>(&destroyed));
  HANDLE b = talvern::platform::RegisterHandle(std::make_unique<Dummy>(&destroyed));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(a, INVALID_HANDLE_VALUE);
  ASSERT_NE(a, b);
  EXPECT_NE(talvern::platform::FindHandleAs<Dummy>(a), nullptr);
  EXPECT_TRUE(CloseHandle(a));
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(talvern::platform::FindHandle(a), nullptr);
  EXPECT_FALSE(CloseHandle(a));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  // A handle value is never given out twice.
  HANDLE c = talvern::platform::RegisterHandle(std::make_unique<Dummy>(&destroyed));
  EXPECT_NE(c, a);
  EXPECT_FALSE(CloseHandle(nullptr));
  EXPECT_FALSE(CloseHandle(INVALID_HANDLE_VALUE));
  // Objects of another kind are not taken for files or searches.
  EXPECT_FALSE(FindClose(b));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  DWORD n = 0;
  EXPECT_FALSE(ReadFile(b, &n, 1, &n, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  CloseHandle(b);
  CloseHandle(c);
  EXPECT_EQ(destroyed, 3);
}
