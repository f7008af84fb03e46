// Files and folders: dispositions and their codes, transfers, deleting
// and moving, attributes and times, searches, temporary files.
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using test::N;
using test::W;

namespace {

HANDLE Open(const CString& path, DWORD access, DWORD share, DWORD disposition,
            DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  return CreateFileW(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

// Last error of a call that must fail.
template <class T> DWORD ErrorOf(T result, T failure) {
  EXPECT_EQ(result, failure);
  return GetLastError();
}

constexpr DWORD kRW = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

} // namespace

TEST(CreateFile, DispositionsAndTheirCodes) {
  test::TempDir dir;
  const CString f = dir.Win("f.txt");

  SetLastError(77);
  EXPECT_EQ(ErrorOf(Open(f, GENERIC_READ, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(
      ErrorOf(Open(dir.Win("no/f.txt"), GENERIC_READ, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE),
      ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(ErrorOf(Open(dir.Win("no/f.txt"), kRW, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE),
            ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(ErrorOf(Open(u"Q:\\f.txt", GENERIC_READ, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(ErrorOf(Open(f, GENERIC_READ, 0, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_INVALID_PARAMETER);

  // CREATE_ALWAYS and OPEN_ALWAYS report whether the file existed.
  SetLastError(77);
  HANDLE h = Open(f, kRW, 0, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), 0u);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
  EXPECT_EQ(n, 5u);
  CloseHandle(h);
  EXPECT_EQ(ErrorOf(Open(f, kRW, 0, CREATE_NEW), INVALID_HANDLE_VALUE), ERROR_FILE_EXISTS);
  h = Open(f, kRW, 0, OPEN_ALWAYS);
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(GetFileSize(h, nullptr), 5u);
  CloseHandle(h);
  h = Open(f, kRW, 0, CREATE_ALWAYS);
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(GetFileSize(h, nullptr), 0u);
  CloseHandle(h);
  SetLastError(77);
  h = Open(dir.Win("g.txt"), kRW, 0, OPEN_ALWAYS);
  EXPECT_EQ(GetLastError(), 0u);
  CloseHandle(h);
  test::WriteFile(dir.Host("t.txt"), "abc");
  h = Open(dir.Win("t.txt"), GENERIC_WRITE, 0, TRUNCATE_EXISTING);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetFileSize(h, nullptr), 0u);
  CloseHandle(h);

  // A name that ends with a separator is a folder's, never a file's.
  EXPECT_EQ(ErrorOf(Open(dir.Win("g.txt") + u"\\", kRW, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_INVALID_NAME);
  EXPECT_EQ(ErrorOf(Open(dir.Win("new") + u"\\", kRW, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE),
            ERROR_INVALID_NAME);
  EXPECT_FALSE(test::Exists(dir.Host("new")));

  // Folders: only with backup semantics, and never as files.
  EXPECT_EQ(ErrorOf(Open(dir.Win(), GENERIC_READ, kShareAll, OPEN_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_ACCESS_DENIED);
  h = Open(dir.Win(), GENERIC_WRITE, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(ErrorOf(ReadFile(h, &n, 1, &n, nullptr), FALSE), ERROR_INVALID_FUNCTION);
  CloseHandle(h);

  // A read-only file cannot be opened for writing or overwritten.
  test::WriteFile(dir.Host("ro.txt"), "x");
  ASSERT_EQ(::chmod(dir.Host("ro.txt").c_str(), 0444), 0);
  EXPECT_EQ(ErrorOf(Open(dir.Win("ro.txt"), kRW, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE),
            ERROR_ACCESS_DENIED);
  EXPECT_EQ(ErrorOf(Open(dir.Win("ro.txt"), GENERIC_READ, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE),
            ERROR_ACCESS_DENIED);
  h = Open(dir.Win("ro.txt"), GENERIC_READ, 0, OPEN_EXISTING);
  EXPECT_NE(h, INVALID_HANDLE_VALUE);
  CloseHandle(h);
}

TEST(Handles, TransfersSeekingSizeAndTruncation) {
  test::TempDir dir;
  HANDLE h = Open(dir.Win("d.bin"), kRW, 0, CREATE_NEW);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  const auto data = test::RandomBytes(100000, 7);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &n, nullptr));
  EXPECT_EQ(n, data.size());
  EXPECT_EQ(SetFilePointer(h, 10, nullptr, FILE_BEGIN), 10u);
  EXPECT_EQ(SetFilePointer(h, -4, nullptr, FILE_CURRENT), 6u);
  EXPECT_EQ(SetFilePointer(h, -1, nullptr, FILE_END), 99999u);
  EXPECT_EQ(ErrorOf(SetFilePointer(h, -200000, nullptr, FILE_END), INVALID_SET_FILE_POINTER),
            ERROR_NEGATIVE_SEEK);
  EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 99999u); // unchanged by the failure
  // Without the high half a position must fit 32 bits; 0xFFFFFFFF itself does.
  EXPECT_EQ(SetFilePointer(h, 0x7FFFFFFF, nullptr, FILE_BEGIN), 0x7FFFFFFFu);
  EXPECT_EQ(SetFilePointer(h, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0xFFFFFFFEu);
  SetLastError(99);
  EXPECT_EQ(SetFilePointer(h, 1, nullptr, FILE_CURRENT), 0xFFFFFFFFu);
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(ErrorOf(SetFilePointer(h, 1, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER),
            ERROR_INVALID_PARAMETER);
  std::vector<std::uint8_t> back(data.size() + 10);
  SetFilePointer(h, 0, nullptr, FILE_BEGIN);
  ASSERT_TRUE(ReadFile(h, back.data(), static_cast<DWORD>(back.size()), &n, nullptr));
  EXPECT_EQ(n, data.size());
  back.resize(n);
  EXPECT_EQ(back, data);
  ASSERT_TRUE(ReadFile(h, back.data(), 10, &n, nullptr)); // at the end: success, nothing read
  EXPECT_EQ(n, 0u);

  // 64-bit positions through the high half; a low half of 0xFFFFFFFF is
  // told apart from failure by a last error of 0.
  LONG high = 1;
  EXPECT_EQ(SetFilePointer(h, 5, &high, FILE_BEGIN), 5u);
  EXPECT_EQ(high, 1);
  high = 0;
  SetLastError(99);
  EXPECT_EQ(SetFilePointer(h, -1, &high, FILE_BEGIN), 0xFFFFFFFFu);
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(high, 0);
  ASSERT_TRUE(SetEndOfFile(h)); // a sparse file of 4 GiB - 1
  DWORD sizeHigh = 7;
  SetLastError(99);
  EXPECT_EQ(GetFileSize(h, &sizeHigh), 0xFFFFFFFFu);
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(sizeHigh, 0u);
  SetFilePointer(h, 1000, nullptr, FILE_BEGIN);
  ASSERT_TRUE(SetEndOfFile(h));
  EXPECT_EQ(GetFileSize(h, &sizeHigh), 1000u);
  EXPECT_TRUE(FlushFileBuffers(h));
  CloseHandle(h);

  // Access rights are enforced per handle.
  h = Open(dir.Win("d.bin"), GENERIC_READ, 0, OPEN_EXISTING);
  EXPECT_EQ(ErrorOf(WriteFile(h, "x", 1, &n, nullptr), FALSE), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ErrorOf(SetEndOfFile(h), FALSE), ERROR_ACCESS_DENIED);
  CloseHandle(h);
  EXPECT_EQ(ErrorOf(ReadFile(h, back.data(), 1, &n, nullptr), FALSE), ERROR_INVALID_HANDLE);
  EXPECT_EQ(ErrorOf(WriteFile(h, "x", 1, &n, nullptr), FALSE), ERROR_INVALID_HANDLE);
  EXPECT_EQ(ErrorOf(GetFileSize(INVALID_HANDLE_VALUE, nullptr), INVALID_FILE_SIZE),
            ERROR_INVALID_HANDLE);
}

// A write the host stops part-way reports what got through and the host's
// code (here the process's file size limit).
TEST(Handles, WriteStoppedByTheHostReportsItsCode) {
  test::TempDir dir;
  HANDLE h = Open(dir.Win("big"), kRW, 0, CREATE_NEW);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{1000, 1000};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  ::alarm(30); // a write that retried for ever would end the test here
  const std::vector<char> data(3000, 'x');
  DWORD n = 0;
  EXPECT_EQ(ErrorOf(WriteFile(h, data.data(), 3000, &n, nullptr), FALSE), ERROR_FILE_TOO_LARGE);
  ::alarm(0);
  EXPECT_EQ(n, 1000u);
  CloseHandle(h);
}

TEST(Items, DeleteMoveAndFolderErrors) {
  test::TempDir dir;
  test::WriteFile(dir.Host("a.txt"), "a");
  test::WriteFile(dir.Host("b.txt"), "b");
  EXPECT_EQ(ErrorOf(MoveFileW(dir.Win("a.txt").c_str(), dir.Win("b.txt").c_str()), FALSE),
            ERROR_ALREADY_EXISTS);
  EXPECT_EQ(ErrorOf(MoveFileW(dir.Win("none").c_str(), dir.Win("c.txt").c_str()), FALSE),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ErrorOf(MoveFileW(dir.Win("a.txt").c_str(), dir.Win("no/c.txt").c_str()), FALSE),
            ERROR_PATH_NOT_FOUND);
  ASSERT_TRUE(MoveFileW(dir.Win("a.txt").c_str(), dir.Win("c.txt").c_str()));
  EXPECT_EQ(test::ReadText(dir.Host("c.txt")), "a");

  // Read-only files are not deleted, not even by root.
  ASSERT_TRUE(SetFileAttributesW(dir.Win("c.txt").c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(ErrorOf(DeleteFileW(dir.Win("c.txt").c_str()), FALSE), ERROR_ACCESS_DENIED);
  ASSERT_TRUE(SetFileAttributesW(dir.Win("c.txt").c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_TRUE(DeleteFileW(dir.Win("c.txt").c_str()));
  EXPECT_EQ(ErrorOf(DeleteFileW(dir.Win("c.txt").c_str()), FALSE), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ErrorOf(DeleteFileW(dir.Win("x/c.txt").c_str()), FALSE), ERROR_PATH_NOT_FOUND);

  ASSERT_TRUE(CreateDirectoryW(dir.Win("d").c_str(), nullptr));
  EXPECT_EQ(ErrorOf(CreateDirectoryW(dir.Win("d").c_str(), nullptr), FALSE), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(ErrorOf(CreateDirectoryW(dir.Win("e/f").c_str(), nullptr), FALSE),
            ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(ErrorOf(DeleteFileW(dir.Win("d").c_str()), FALSE), ERROR_ACCESS_DENIED);
  test::WriteFile(dir.Host("d/inner"), "i");
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(dir.Win("d").c_str()), FALSE), ERROR_DIR_NOT_EMPTY);
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(dir.Win("b.txt").c_str()), FALSE), ERROR_DIRECTORY);
  // The current directory is not removed.
  ASSERT_TRUE(SetCurrentDirectoryW(dir.Win("d").c_str()));
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(dir.Win("d").c_str()), FALSE), ERROR_SHARING_VIOLATION);
  ASSERT_TRUE(SetCurrentDirectoryW(dir.Win().c_str()));
  ASSERT_TRUE(MoveFileW(dir.Win("d").c_str(), dir.Win("d2").c_str())); // folders move too
  ASSERT_TRUE(DeleteFileW(dir.Win("d2/inner").c_str()));
  EXPECT_TRUE(RemoveDirectoryW(dir.Win("d2").c_str()));
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(dir.Win("d2").c_str()), FALSE), ERROR_FILE_NOT_FOUND);
}

TEST(Attributes, AttributesAndAllThreeTimesSurviveSetThenGet) {
  test::TempDir dir;
  test::WriteFile(dir.Host("plain"), "p");
  test::WriteFile(dir.Host(".dot"), "d");
  ASSERT_EQ(::mkdir(dir.Host("folder").c_str(), 0777), 0);
  EXPECT_EQ(GetFileAttributesW(dir.Win("plain").c_str()), FILE_ATTRIBUTE_ARCHIVE);
  EXPECT_EQ(GetFileAttributesW(dir.Win(".dot").c_str()),
            FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN);
  EXPECT_EQ(GetFileAttributesW(dir.Win("folder").c_str()), FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(ErrorOf(GetFileAttributesW(dir.Win("none").c_str()), INVALID_FILE_ATTRIBUTES),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ErrorOf(GetFileAttributesW(dir.Win("none/x").c_str()), INVALID_FILE_ATTRIBUTES),
            ERROR_PATH_NOT_FOUND);
  ASSERT_EQ(::symlink("loop", dir.Host("loop").c_str()), 0); // a link to itself
  SetLastError(0);
  EXPECT_EQ(ErrorOf(GetFileAttributesW(dir.Win("loop/x").c_str()), INVALID_FILE_ATTRIBUTES),
            ERROR_CANT_RESOLVE_FILENAME);

  const DWORD sets[] = {FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_READONLY,
                        FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_TEMPORARY,
                        FILE_ATTRIBUTE_NOT_CONTENT_INDEXED | FILE_ATTRIBUTE_OFFLINE};
  for (DWORD set : sets) {
    ASSERT_TRUE(SetFileAttributesW(dir.Win("plain").c_str(), set));
    EXPECT_EQ(GetFileAttributesW(dir.Win("plain").c_str()), set);
  }
  ASSERT_TRUE(SetFileAttributesW(dir.Win(".dot").c_str(), FILE_ATTRIBUTE_ARCHIVE));
  EXPECT_EQ(GetFileAttributesW(dir.Win(".dot").c_str()), FILE_ATTRIBUTE_ARCHIVE);
  ASSERT_TRUE(SetFileAttributesW(dir.Win("folder").c_str(),
                                 FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
  EXPECT_EQ(GetFileAttributesW(dir.Win("folder").c_str()),
            FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
  test::WriteFile(dir.Host("folder/still-writable"), "w"); // read-only does not lock the folder
  EXPECT_TRUE(test::Exists(dir.Host("folder/still-writable")));

  // Times with 100 ns precision, creation included; a folder through backup semantics.
  for (const char* name : {"plain", "folder"}) {
    HANDLE h =
        Open(dir.Win(name), GENERIC_WRITE, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << name;
    const FILETIME created{0x12345671u, 0x01C00000u}, accessed{0x89ABCDE3u, 0x01D00000u},
        written{0x0F0F0F07u, 0x01D90000u};
    ASSERT_TRUE(SetFileTime(h, &created, &accessed, &written));
    CloseHandle(h);
    h = Open(dir.Win(name), GENERIC_READ, kShareAll, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
    FILETIME c{}, a{}, w{};
    ASSERT_TRUE(GetFileTime(h, &c, &a, &w));
    CloseHandle(h);
    EXPECT_EQ(CompareFileTime(&c, &created), 0) << name;
    EXPECT_EQ(CompareFileTime(&a, &accessed), 0) << name;
    EXPECT_EQ(CompareFileTime(&w, &written), 0) << name;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(dir.Win(name).c_str(), &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    FindClose(find);
    EXPECT_EQ(CompareFileTime(&data.ftCreationTime, &created), 0) << name;
    EXPECT_EQ(CompareFileTime(&data.ftLastWriteTime, &written), 0) << name;
  }
  // Null and zero times leave a time alone; a handle without the right is refused.
  HANDLE h = Open(dir.Win("plain"), GENERIC_READ, kShareAll, OPEN_EXISTING);
  const FILETIME t{1, 1};
  EXPECT_EQ(ErrorOf(SetFileTime(h, nullptr, nullptr, &t), FALSE), ERROR_ACCESS_DENIED);
  CloseHandle(h);
}

// A handle that set a time after the attributes changed through the path
// keeps the new attributes: it does not write back what it read before.
TEST(Attributes, ChangesThroughThePathReachOpenHandles) {
  test::TempDir dir;
  const CString f = dir.Win("f");
  HANDLE h = Open(f, kRW, kShareAll, CREATE_NEW);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  ASSERT_TRUE(SetFileAttributesW(f.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
  const FILETIME created{0x12345678u, 0x01C00000u};
  ASSERT_TRUE(SetFileTime(h, &created, nullptr, nullptr));
  CloseHandle(h);
  EXPECT_EQ(GetFileAttributesW(f.c_str()), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  h = Open(f, GENERIC_READ, kShareAll, OPEN_EXISTING);
  FILETIME c{};
  ASSERT_TRUE(GetFileTime(h, &c, nullptr, nullptr));
  CloseHandle(h);
  EXPECT_EQ(CompareFileTime(&c, &created), 0);
}

TEST(Find, WildcardsDotsAndErrors) {
  test::TempDir dir;
  for (const char* name : {"Alpha.TXT", "beta.txt", "gamma.dat", "noext", "b2.txt"})
    test::WriteFile(dir.Host(std::string("sub/") + name), "x");
  auto list = [&](const std::string& pattern) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((dir.Win("sub") + u"\\" + W(pattern)).c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
      return std::vector<std::string>{"<" + std::to_string(GetLastError()) + ">"};
    do names.push_back(N(data.cFileName));
    while (FindNextFileW(find, &data));
    EXPECT_TRUE(FindClose(find));
    return names;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(list("*"), (V{".", "..", "Alpha.TXT", "b2.txt", "beta.txt", "gamma.dat", "noext"}));
  EXPECT_EQ(list("*.*"), list("*"));
  EXPECT_EQ(list("*.txt"), (V{"Alpha.TXT", "b2.txt", "beta.txt"}));
  EXPECT_EQ(list("B?.TXT"), (V{"b2.txt"}));
  EXPECT_EQ(list("noext.*"), (V{"noext"}));
  EXPECT_EQ(list("*."), (V{".", "..", "noext"})); // names without an extension
  EXPECT_EQ(list("*a*.t?t"), (V{"Alpha.TXT", "beta.txt"}));
  EXPECT_EQ(list("zz*"), (V{"<2>"}));
  EXPECT_EQ(list("beta.txt"), (V{"beta.txt"}));
  EXPECT_EQ(list("missing/*"), (V{"<3>"}));
  // A drive root lists no "." and "..".
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(u"Z:\\*", &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  EXPECT_NE(N(data.cFileName), ".");
  FindClose(find);
  EXPECT_EQ(ErrorOf(FindClose(find), FALSE), ERROR_INVALID_HANDLE);
}

TEST(TempFiles, TempPathAndUniqueNames) {
  test::TempDir dir;
  ASSERT_EQ(::setenv("TMPDIR", dir.Host().c_str(), 1), 0);
  WCHAR path[MAX_PATH + 1];
  const DWORD length = GetTempPathW(MAX_PATH + 1, path);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(CString(path), dir.Win() + u"\\");
  EXPECT_EQ(GetTempPathW(2, path), length + 1);

  WCHAR name[MAX_PATH];
  const UINT first = GetTempFileNameW(dir.Win().c_str(), u"ARCHIVE", 0, name);
  ASSERT_NE(first, 0u);
  WCHAR hex[16];
  wsprintfW(hex, u"%X", first);
  EXPECT_EQ(CString(name), dir.Win() + u"\\ARC" + hex + u".TMP");
  EXPECT_TRUE(test::Exists(talvern::WindowsPathToHost(name)));
  const UINT second = GetTempFileNameW(dir.Win().c_str(), u"ARC", 0, name);
  EXPECT_NE(second, first);
  EXPECT_EQ(GetTempFileNameW(dir.Win().c_str(), u"X", 0x1ABCD, name), 0xABCDu);
  EXPECT_EQ(CString(name), dir.Win() + u"\\XABCD.TMP");
  EXPECT_FALSE(test::Exists(dir.Host("XABCD.TMP"))); // a given number creates nothing
  EXPECT_EQ(GetTempFileNameW(dir.Win("missing").c_str(), u"ARC", 0, name), 0u);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
  ::unsetenv("TMPDIR");
}
