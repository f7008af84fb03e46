// Descriptors of host files: the one read from owner, group and mode, the
// one given at creation, and the privilege names.
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

Bytes Read(const CString& path, SECURITY_INFORMATION what) {
  DWORD needed = 0;
  if (GetFileSecurityW(path.c_str(), what, nullptr, 0, &needed)) return {};
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  Bytes bytes(needed);
  EXPECT_TRUE(GetFileSecurityW(path.c_str(), what, bytes.data(), needed, &needed));
  return bytes;
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
  EXPECT_FALSE(GetFileSecurityW(path.c_str(), kOwnerGroupDacl, sd.data(), needed, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
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

// A descriptor given to CreateFileW and CreateDirectoryW sets the mode.
TEST(FileSecurity, CreationThroughTheFileCalls) {
  test::TempDir dir;
  Layout l;
  l.owner = Sid(22, {1, geteuid()});
  l.group = Sid(22, {2, getegid()});
  l.dacl = Acl({Ace(0, 0, GENERIC_ALL, l.owner), Ace(0, 0, GENERIC_READ | GENERIC_WRITE, l.group),
                Ace(0, 0, GENERIC_READ, Everyone())});
  Bytes given = SelfRelative(l);
  SECURITY_ATTRIBUTES sa{sizeof(SECURITY_ATTRIBUTES), given.data(), FALSE};
  CloseHandle(CreateFileW(dir.Win("f").c_str(), GENERIC_WRITE, 0, &sa, CREATE_NEW,
                          FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(CreateDirectoryW(dir.Win("d").c_str(), &sa));
  for (const char* name : {"f", "d"}) {
    struct stat st {};
    ASSERT_EQ(stat(dir.Host(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0764u) << name;
    EXPECT_EQ(Read(dir.Win(name), kOwnerGroupDacl), given) << name;
  }
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
    // Only the group given: the owner stays.
    test::WriteFile(dir.Host("g"), "x");
    Layout groupOnly;
    groupOnly.group = Sid(22, {2, 8765});
    const Bytes g = SelfRelative(groupOnly);
    ASSERT_EQ(ApplySecurityOnCreate(dir.Host("g"), false, const_cast<BYTE*>(g.data())),
              ERROR_SUCCESS);
    stat(dir.Host("g").c_str(), &st);
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_gid, 8765u);
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

TEST(Privileges, LookupNames) {
  LUID luid{};
  ASSERT_TRUE(LookupPrivilegeValueW(nullptr, WTEXT("sesecurityPRIVILEGE"), &luid));
  EXPECT_EQ(luid.LowPart, 8u);
  EXPECT_EQ(luid.HighPart, 0);
  ASSERT_TRUE(LookupPrivilegeValueW(WTEXT(""), WTEXT("SeBackupPrivilege"), &luid));
  EXPECT_EQ(luid.LowPart, 17u);
  EXPECT_FALSE(LookupPrivilegeValueW(nullptr, WTEXT("SeNoSuchPrivilege"), &luid));
  EXPECT_EQ(GetLastError(), ERROR_NO_SUCH_PRIVILEGE);
  EXPECT_FALSE(LookupPrivilegeValueW(WTEXT("elsewhere"), WTEXT("SeSecurityPrivilege"), &luid));
  EXPECT_EQ(GetLastError(), RPC_S_SERVER_UNAVAILABLE);
}

} // namespace
