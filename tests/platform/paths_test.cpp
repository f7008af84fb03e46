// Full paths, the current directory, drive and share resolution, and the
// reversible mapping of host names.
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using test::N;
using test::W;

namespace {

// GetFullPathNameW through the two-call protocol; "" on failure.
std::string Full(const std::string& path, long* filePart = nullptr) {
  const CString wide = W(path);
  const DWORD needed = GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr);
  if (needed == 0) return "<error " + std::to_string(GetLastError()) + ">";
  std::vector<WCHAR> buffer(needed);
  WCHAR* part = nullptr;
  const DWORD got = GetFullPathNameW(wide.c_str(), needed, buffer.data(), &part);
  EXPECT_EQ(got + 1, needed);
  if (filePart) *filePart = part ? static_cast<long>(part - buffer.data()) : -1;
  return N(buffer.data());
}

} // namespace

TEST(FullPath, FoldsDotsSeparatorsAndSlashesOnDrives) {
  EXPECT_EQ(Full("Z:\\a\\b\\..\\c\\.\\d"), "Z:\\a\\c\\d");
  EXPECT_EQ(Full("Z:/a//b///c"), "Z:\\a\\b\\c");
  EXPECT_EQ(Full("Z:\\..\\..\\x"), "Z:\\x");
  EXPECT_EQ(Full("c:\\work\\x.arc"), "c:\\work\\x.arc"); // the letter keeps its case
  long part = 0;
  EXPECT_EQ(Full("Z:\\a\\b\\", &part), "Z:\\a\\b\\");
  EXPECT_EQ(part, -1);
  EXPECT_EQ(Full("Z:\\a\\file.txt", &part), "Z:\\a\\file.txt");
  EXPECT_EQ(part, 5);
  EXPECT_EQ(Full("Z:\\a\\..", &part), "Z:\\");
  EXPECT_EQ(part, -1);
  EXPECT_EQ(Full("Z:\\", &part), "Z:\\");
  EXPECT_EQ(part, -1);
}

TEST(FullPath, SharesAndDevicesNeverFoldAboveTheirRoot) {
  long part = 0;
  EXPECT_EQ(Full("\\\\srv\\share\\dir\\..\\..\\..\\x.arc", &part), "\\\\srv\\share\\x.arc");
  EXPECT_EQ(part, 12);
  EXPECT_EQ(Full("//srv/share/a/"), "\\\\srv\\share\\a\\");
  EXPECT_EQ(Full("\\\\srv\\share"), "\\\\srv\\share");
  EXPECT_EQ(Full("\\\\srv\\share\\"), "\\\\srv\\share\\");
  EXPECT_EQ(Full("\\\\.\\A:"), "\\\\.\\A:");
  EXPECT_EQ(Full("\\\\.\\A:\\x\\.."), "\\\\.\\A:\\");
}

TEST(FullPath, RelativeAndDriveRelativeUseTheCurrentDirectory) {
  test::TempDir dir;
  ASSERT_EQ(::mkdir(dir.Host("sub").c_str(), 0777), 0);
  ASSERT_TRUE(SetCurrentDirectoryW(dir.Win("sub").c_str()));
  const std::string cwd = N(dir.Win("sub"));
  EXPECT_EQ(Full("x.txt"), cwd + "\\x.txt");
  EXPECT_EQ(Full(".\\a\\..\\y"), cwd + "\\y");
  EXPECT_EQ(Full(".."), N(dir.Win()));
  EXPECT_EQ(Full("\\top"), "Z:\\top");
  EXPECT_EQ(Full("Z:name"), cwd + "\\name"); // Z: holds the current directory
  EXPECT_EQ(Full("Q:name"), "Q:\\name");     // any other drive: its root
  EXPECT_EQ(Full("Q:"), "Q:\\");

  // The buffer protocol: too small gives the size needed, terminator included.
  WCHAR small[4];
  const DWORD needed = GetFullPathNameW(u"x.txt", 4, small, nullptr);
  EXPECT_EQ(needed, cwd.size() + 7);
  EXPECT_EQ(GetFullPathNameW(nullptr, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(CurrentDirectory, IsPresentedThroughDrivesAndShares) {
  test::TempDir dir;
  ASSERT_EQ(::chdir(dir.Host().c_str()), 0);
  WCHAR buffer[4096];
  ASSERT_GT(GetCurrentDirectoryW(4096, buffer), 0u);
  std::string expected = "Z:";
  for (char c : dir.Host()) expected += c == '/' ? '\\' : c;
  EXPECT_EQ(N(buffer), expected);

  // A mounted drive's folder is presented through that drive (longest match).
  talvern::MediumSpec medium;
  medium.HostDir = dir.Host("media");
  ASSERT_TRUE(talvern::MountDrive(u'M', DRIVE_FIXED, 4096, &medium));
  ASSERT_TRUE(SetCurrentDirectoryW(u"M:\\"));
  ASSERT_GT(GetCurrentDirectoryW(4096, buffer), 0u);
  EXPECT_EQ(N(buffer), "M:\\");
  EXPECT_EQ(Full("a\\..\\..\\b"), "M:\\b");
  EXPECT_EQ(N(talvern::HostPathToWindows(dir.Host("media/x/y"))), "M:\\x\\y");

  ASSERT_TRUE(talvern::MountShare(u"Srv", u"Data", dir.Host("share")));
  ASSERT_TRUE(SetCurrentDirectoryW(u"\\\\srv\\data"));
  ASSERT_GT(GetCurrentDirectoryW(4096, buffer), 0u);
  EXPECT_EQ(N(buffer), "\\\\srv\\data\\");
  EXPECT_EQ(Full("..\\..\\f"), "\\\\srv\\data\\f");
  EXPECT_EQ(Full("\\f"), "\\\\srv\\data\\f");
  EXPECT_EQ(N(talvern::HostPathToWindows(dir.Host("share/q"))), "\\\\Srv\\Data\\q");
  EXPECT_EQ(talvern::WindowsPathToHost(u"\\\\SRV\\DATA\\q"), dir.Host("share/q"));

  // Errors: missing folder, a file, unmapped drive and share.
  EXPECT_FALSE(SetCurrentDirectoryW(u"M:\\missing"));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(SetCurrentDirectoryW(u"Q:\\"));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_FALSE(SetCurrentDirectoryW(u"\\\\srv\\other\\x"));
  EXPECT_EQ(GetLastError(), ERROR_BAD_NETPATH);
  ASSERT_EQ(::chdir("/"), 0);
}

TEST(Names, AwkwardHostNamesSurviveTheRoundTrip) {
  test::TempDir dir;
  // Invalid UTF-8, characters a Windows name cannot hold, a control code,
  // a character outside the BMP, a code point of the escape range, names
  // Windows would strip or take as devices.
  const std::vector<std::string> names = {"bad\xff\xfe.bin",
                                          "a:b",
                                          "back\\slash",
                                          "q?*\"<>|",
                                          "tab\tname",
                                          "emoji\xf0\x9f\x98\x80",
                                          "esc\xef\x80\x81",
                                          "over\xc0\xaflong",
                                          "x.",
                                          "y ",
                                          "...",
                                          "CON",
                                          "nul.txt",
                                          "Lpt9 .c"};
  const std::vector<CString> expected = {u"bad\uf0ff\uf0fe.bin",
                                         u"a\uf03ab",
                                         u"back\uf05cslash",
                                         u"q\uf03f\uf02a\uf022\uf03c\uf03e\uf07c",
                                         u"tab\uf009name",
                                         u"emoji\U0001F600",
                                         u"esc\uf0ef\uf080\uf081",
                                         u"over\uf0c0\uf0aflong",
                                         u"x\uf02e",
                                         u"y\uf020",
                                         u"..\uf02e",
                                         u"CO\uf04e",
                                         u"nu\uf06c.txt",
                                         u"Lpt\uf039 .c"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const CString win = talvern::HostPathToWindows(dir.Host(names[i]));
    EXPECT_EQ(win, dir.Win() + u"\\" + expected[i]) << names[i];
    EXPECT_EQ(talvern::WindowsPathToHost(win.c_str()), dir.Host(names[i])) << names[i];
    // Created through the Windows name, found by the host under its own name.
    HANDLE h = CreateFileW(win.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << names[i];
    CloseHandle(h);
    EXPECT_TRUE(test::Exists(dir.Host(names[i]))) << names[i];
  }
  // A search gives back the same Windows names.
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW((dir.Win() + u"\\*").c_str(), &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  std::vector<CString> found;
  do {
    found.push_back(data.cFileName);
  } while (FindNextFileW(find, &data));
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
  FindClose(find);
  for (const auto& name : expected)
    EXPECT_NE(std::find(found.begin(), found.end(), name), found.end()) << N(name);
}

TEST(Names, WindowsNamesThatNoHostNameCanHoldAreRefused) {
  test::TempDir dir;
  for (const CString& bad : {CString(u"x\uf000y"), CString(u"x\uf02fy"), CString(u"a*b"),
                             CString(u"a:b"), CString(u"lone\xd800")}) {
    HANDLE h = CreateFileW((dir.Win() + u"\\" + bad).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                           0, nullptr);
    EXPECT_EQ(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << N(bad);
  }
  // A name longer than the host can hold.
  HANDLE h = CreateFileW((dir.Win() + u"\\" + CString(300, u'n')).c_str(), GENERIC_WRITE, 0,
                         nullptr, CREATE_NEW, 0, nullptr);
  EXPECT_EQ(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}

TEST(Names, Utf8ConversionsReplaceWhatCannotBeConverted) {
  EXPECT_EQ(talvern::ToUtf8(u"a\u00e9\U0001F600"), "a\xc3\xa9\xf0\x9f\x98\x80");
  const WCHAR lone[] = {u'a', 0xD800, u'b', 0};
  EXPECT_EQ(talvern::ToUtf8(lone), "a\xef\xbf\xbd"
                                   "b");
  EXPECT_EQ(talvern::ToUtf8(nullptr), "");
  EXPECT_EQ(talvern::FromUtf8("x\xff"
                              "y"),
            CString(u"x\ufffdy"));
  EXPECT_EQ(talvern::FromUtf8("\xf0\x9f\x98\x80"), CString(u"\U0001F600"));
}
