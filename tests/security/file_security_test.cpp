// Descriptors of host files: the one read from owner, group and mode, and
// the one given at creation and given back.
#include "platform/security_internal.h"
#include "security/security_fixtures.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace sectest;
using talvern::platform::ApplySecurityOnCreate;

namespace {

constexpr SECURITY_INFORMATION kOwnerGroupDacl =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
constexpr SECURITY_INFORMATION kAll = kOwnerGroupDacl | SACL_SECURITY_INFORMATION;

Bytes Read(const CString& path, SECURITY_INFORMATION what) {
  DWORD needed = 0;
  if (GetFileSecurityW(path.c_str(), what, nullptr, 0, &needed)) return {};
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  Bytes bytes(needed);
  EXPECT_TRUE(GetFileSecurityW(path.c_str(), what, bytes.data(), needed, &needed));
  return bytes;
}

mode_t ModeOf(const std::string& host) {
  struct stat st {};
  EXPECT_EQ(stat(host.c_str(), &st), 0);
  return st.st_mode & 0777;
}

void EnableSecurityPrivilege() {
  talvern::SetPrivilegeHeld(WTEXT("SeSecurityPrivilege"), TRUE);
  HANDLE token = nullptr;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token));
  TOKEN_PRIVILEGES privileges{1, {{{8, 0}, SE_PRIVILEGE_ENABLED}}};
  ASSERT_TRUE(AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr));
  ASSERT_EQ(GetLastError(), ERROR_SUCCESS);
  CloseHandle(token);
}

TEST(FileSecurity, HostFileDescriptorAndSizeProtocol) {
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "x");
  chmod(dir.Host("f").c_str(), 0640);
  const CString path = dir.Win("f");
  const uid_t uid = geteuid();
  const gid_t gid = getegid();

  DWORD needed = 0;
  Bytes probe(4);
  EXPECT_FALSE(GetFileSecurityW(path.c_str(), kOwnerGroupDacl, probe.data(), 4, &needed));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  Bytes sd(needed);
  EXPECT_FALSE(GetFileSecurityW(path.c_str(), kOwnerGroupDacl, sd.data(), needed - 1, &needed));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  SetLastError(777);
  ASSERT_TRUE(GetFileSecurityW(path.c_str(), kOwnerGroupDacl, sd.data(), needed, &needed));
  EXPECT_EQ(GetLastError(), 777u); // success leaves the last error alone

  constexpr DWORD base = READ_CONTROL | SYNCHRONIZE | FILE_READ_ATTRIBUTES;
  Layout l;
  l.owner = Sid(22, {1, uid});
  l.group = Sid(22, {2, gid});
  l.dacl = Acl(
      {Ace(0, 0, base | FILE_GENERIC_READ | FILE_GENERIC_WRITE | WRITE_DAC | FILE_WRITE_ATTRIBUTES,
           l.owner),
       Ace(0, 0, base | FILE_GENERIC_READ, l.group), Ace(0, 0, base, Everyone())});
  EXPECT_EQ(sd, SelfRelative(l));

  // Only the parts asked for.
  Layout ownerOnly;
  ownerOnly.owner = l.owner;
  EXPECT_EQ(Read(path, OWNER_SECURITY_INFORMATION), SelfRelative(ownerOnly));

  EXPECT_FALSE(GetFileSecurityW(dir.Win("missing").c_str(), kOwnerGroupDacl, nullptr, 0, &needed));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(GetFileSecurityW(dir.Win("no/f").c_str(), kOwnerGroupDacl, nullptr, 0, &needed));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST(FileSecurity, SystemListNeedsTheEnabledPrivilege) {
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "x");
  DWORD needed = 0;
  EXPECT_FALSE(GetFileSecurityW(dir.Win("f").c_str(), kAll, nullptr, 0, &needed));
  EXPECT_EQ(GetLastError(), ERROR_PRIVILEGE_NOT_HELD);
  EnableSecurityPrivilege();
  EXPECT_EQ(Read(dir.Win("f"), kAll), Read(dir.Win("f"), kOwnerGroupDacl)); // no SACL on the host
}

// Permission bits survive the way to a descriptor and back onto a new file,
// including those where the others may do more than the owner or group.
TEST(FileSecurity, ModeRoundTripsThroughTheDacl) {
  test::TempDir dir;
  for (mode_t mode : {0000, 0644, 0755, 0604, 0460, 0070, 0007, 0777, 0421, 0136}) {
    test::WriteFile(dir.Host("src"), "x");
    test::WriteFile(dir.Host("dst"), "x");
    chmod(dir.Host("src").c_str(), mode);
    chmod(dir.Host("dst").c_str(), 0600);
    Bytes sd = Read(dir.Win("src"), kOwnerGroupDacl);
    ASSERT_EQ(ApplySecurityOnCreate(dir.Host("dst"), false, sd.data()), ERROR_SUCCESS);
    EXPECT_EQ(ModeOf(dir.Host("dst")), mode) << std::oct << mode;
    unlink(dir.Host("src").c_str());
    unlink(dir.Host("dst").c_str());
  }
  mkdir(dir.Host("d").c_str(), 0751);
  mkdir(dir.Host("e").c_str(), 0700);
  Bytes sd = Read(dir.Win("d"), kOwnerGroupDacl);
  ASSERT_EQ(ApplySecurityOnCreate(dir.Host("e"), true, sd.data()), ERROR_SUCCESS);
  EXPECT_EQ(ModeOf(dir.Host("e")), 0751u);
}

TEST(FileSecurity, DescriptorGivenAtCreationComesBackExactly) {
  EnableSecurityPrivilege();
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "x");
  const Bytes given = SelfRelative(WindowsLayout());
  ASSERT_EQ(ApplySecurityOnCreate(dir.Host("f"), false, const_cast<BYTE*>(given.data())),
            ERROR_SUCCESS);
  EXPECT_EQ(Read(dir.Win("f"), kAll), given);
  // Owner full control, everyone denied writing: 0700 for a domain owner.
  EXPECT_EQ(ModeOf(dir.Host("f")), 0700u);

  // Parts not asked for are left out, as the system leaves them out.
  Layout part = WindowsLayout();
  part.group.clear();
  part.sacl.clear();
  EXPECT_EQ(Read(dir.Win("f"), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION),
            SelfRelative(part));

  // The read-only attribute (owner write bit) leaves it in force; another
  // change of mode means the host state is what counts now.
  chmod(dir.Host("f").c_str(), 0500);
  EXPECT_EQ(Read(dir.Win("f"), kAll), given);
  chmod(dir.Host("f").c_str(), 0540);
  Bytes now = Read(dir.Win("f"), kAll);
  PSID owner = nullptr;
  BOOL defaulted = FALSE;
  ASSERT_TRUE(GetSecurityDescriptorOwner(now.data(), &owner, &defaulted));
  Bytes hostOwner = Sid(22, {1, geteuid()});
  EXPECT_TRUE(EqualSid(owner, hostOwner.data()));
}

// Through the file calls that take security attributes; the read-only
// attribute, which takes away write bits, leaves the descriptor in force.
TEST(FileSecurity, CreationThroughTheFileCallsAndReadOnly) {
  test::TempDir dir;
  Layout l;
  l.owner = Sid(22, {1, geteuid()});
  l.group = Sid(22, {2, getegid()});
  l.dacl = Acl({Ace(0, 0, GENERIC_ALL, l.owner), Ace(0, 0, GENERIC_READ | GENERIC_WRITE, l.group),
                Ace(0, 0, GENERIC_READ, Everyone())});
  Bytes given = SelfRelative(l);
  SECURITY_ATTRIBUTES sa{sizeof(SECURITY_ATTRIBUTES), given.data(), FALSE};
  HANDLE file = CreateFileW(dir.Win("f").c_str(), GENERIC_WRITE, 0, &sa, CREATE_NEW,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  CloseHandle(file);
  ASSERT_TRUE(CreateDirectoryW(dir.Win("d").c_str(), &sa));
  for (const char* name : {"f", "d"}) {
    EXPECT_EQ(ModeOf(dir.Host(name)), 0764u) << name;
    ASSERT_TRUE(SetFileAttributesW(dir.Win(name).c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(Read(dir.Win(name), kOwnerGroupDacl), given) << name;
  }

  talvern::SetPrivilegeHeld(WTEXT("SeSecurityPrivilege"), FALSE);
  Bytes withSacl = SelfRelative(WindowsLayout());
  sa.lpSecurityDescriptor = withSacl.data();
  EXPECT_EQ(CreateFileW(dir.Win("g").c_str(), GENERIC_WRITE, 0, &sa, CREATE_NEW,
                        FILE_ATTRIBUTE_NORMAL, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_PRIVILEGE_NOT_HELD);
  EXPECT_FALSE(CreateDirectoryW(dir.Win("e").c_str(), &sa));
  EXPECT_EQ(GetLastError(), ERROR_PRIVILEGE_NOT_HELD);
  EXPECT_FALSE(test::Exists(dir.Host("g")));
  EXPECT_FALSE(test::Exists(dir.Host("e")));
}

TEST(FileSecurity, OwnerGroupAndRefusals) {
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "x");
  Layout l;
  l.owner = Sid(22, {1, 4321});
  l.group = Sid(22, {2, 8765});
  const Bytes sd = SelfRelative(l);
  if (geteuid() == 0) {
    ASSERT_EQ(ApplySecurityOnCreate(dir.Host("f"), false, const_cast<BYTE*>(sd.data())),
              ERROR_SUCCESS);
    struct stat st {};
    stat(dir.Host("f").c_str(), &st);
    EXPECT_EQ(st.st_uid, 4321u);
    EXPECT_EQ(st.st_gid, 8765u);
    EXPECT_EQ(Read(dir.Win("f"), kOwnerGroupDacl), sd);
  }

  // An owner the process may not give: 1307, checked as an ordinary user.
  chmod(dir.Host().c_str(), 0777);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
    test::WriteFile(dir.Host("mine"), "x");
    Layout rootOwned;
    rootOwned.owner = Sid(22, {1, 0});
    const Bytes b = SelfRelative(rootOwned);
    _exit(ApplySecurityOnCreate(dir.Host("mine"), false, const_cast<BYTE*>(b.data())) ==
                  ERROR_INVALID_OWNER
              ? 0
              : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // A system list without the privilege, and bytes that are no descriptor.
  talvern::SetPrivilegeHeld(WTEXT("SeSecurityPrivilege"), FALSE);
  Bytes withSacl = SelfRelative(WindowsLayout());
  EXPECT_EQ(ApplySecurityOnCreate(dir.Host("f"), false, withSacl.data()), ERROR_PRIVILEGE_NOT_HELD);
  withSacl[0] = 3;
  EXPECT_EQ(ApplySecurityOnCreate(dir.Host("f"), false, withSacl.data()),
            ERROR_INVALID_SECURITY_DESCR);
}

} // namespace
