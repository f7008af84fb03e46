// The process token: which privileges are held, enabling them, and the
// last error an adjustment leaves.
#include "platform/security_internal.h"

#include <talvern/talvern.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using talvern::platform::IsPrivilegeEnabled;
using talvern::platform::IsPrivilegeHeld;

const WCHAR* const kSecurity = WTEXT("SeSecurityPrivilege");

HANDLE OpenToken(DWORD access = TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY) {
  HANDLE token = nullptr;
  EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, &token));
  return token;
}

TOKEN_PRIVILEGES One(const WCHAR* name, DWORD attributes) {
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  EXPECT_TRUE(LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid));
  privileges.Privileges[0].Attributes = attributes;
  return privileges;
}

// Adjusts one privilege; returns the last error of a successful call.
DWORD Adjust(HANDLE token, const WCHAR* name, DWORD attributes) {
  TOKEN_PRIVILEGES privileges = One(name, attributes);
  SetLastError(12345);
  EXPECT_TRUE(AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr));
  return GetLastError();
}

TEST(Privileges, HeldWhenRootUnlessOverridden) {
  EXPECT_EQ(IsPrivilegeHeld(kSecurity), geteuid() == 0);
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity)); // held privileges start disabled
  EXPECT_EQ(IsPrivilegeEnabled(WTEXT("SeChangeNotifyPrivilege")), geteuid() == 0);
  HANDLE token = OpenToken();

  talvern::SetPrivilegeHeld(kSecurity, TRUE);
  EXPECT_EQ(Adjust(token, kSecurity, SE_PRIVILEGE_ENABLED), ERROR_SUCCESS);
  EXPECT_TRUE(IsPrivilegeEnabled(kSecurity));
  EXPECT_EQ(Adjust(token, kSecurity, 0), ERROR_SUCCESS);
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity));

  talvern::SetPrivilegeHeld(kSecurity, FALSE);
  EXPECT_EQ(Adjust(token, kSecurity, SE_PRIVILEGE_ENABLED), ERROR_NOT_ALL_ASSIGNED);
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity));

  // Held again and enabled, then taken away: no longer enabled either.
  talvern::SetPrivilegeHeld(kSecurity, TRUE);
  EXPECT_EQ(Adjust(token, kSecurity, SE_PRIVILEGE_ENABLED), ERROR_SUCCESS);
  talvern::SetPrivilegeHeld(kSecurity, FALSE);
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity));
  EXPECT_TRUE(CloseHandle(token));
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
  EXPECT_FALSE(LookupPrivilegeValueW(WTEXT("elsewhere"), kSecurity, &luid));
  EXPECT_EQ(GetLastError(), RPC_S_SERVER_UNAVAILABLE);
}

TEST(Privileges, AdjustmentFollowsWindowsRules) {
  talvern::SetPrivilegeHeld(kSecurity, TRUE);
  talvern::SetPrivilegeHeld(WTEXT("SeBackupPrivilege"), TRUE);
  HANDLE token = OpenToken();

  // A previous state that does not fit: nothing changes, the size is told.
  TOKEN_PRIVILEGES enable = One(kSecurity, SE_PRIVILEGE_ENABLED);
  TOKEN_PRIVILEGES previous{};
  DWORD needed = 0;
  EXPECT_FALSE(AdjustTokenPrivileges(token, FALSE, &enable, 4, &previous, &needed));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(needed, sizeof(TOKEN_PRIVILEGES));
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity));
  ASSERT_TRUE(AdjustTokenPrivileges(token, FALSE, &enable, sizeof previous, &previous, &needed));
  ASSERT_EQ(previous.PrivilegeCount, 1u);
  EXPECT_EQ(previous.Privileges[0].Luid.LowPart, 8u);
  EXPECT_EQ(previous.Privileges[0].Attributes, 0u);
  EXPECT_TRUE(IsPrivilegeEnabled(kSecurity));

  // Disabling all, and removing one for good.
  ASSERT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, 0, nullptr, nullptr));
  EXPECT_FALSE(IsPrivilegeEnabled(kSecurity));
  EXPECT_EQ(Adjust(token, WTEXT("SeBackupPrivilege"), SE_PRIVILEGE_REMOVED), ERROR_SUCCESS);
  EXPECT_FALSE(IsPrivilegeHeld(WTEXT("SeBackupPrivilege")));
  EXPECT_EQ(Adjust(token, WTEXT("SeBackupPrivilege"), SE_PRIVILEGE_ENABLED),
            ERROR_NOT_ALL_ASSIGNED);

  // The handle's access decides what it may do.
  HANDLE queryOnly = OpenToken(TOKEN_QUERY);
  EXPECT_FALSE(AdjustTokenPrivileges(queryOnly, FALSE, &enable, 0, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  HANDLE adjustOnly = OpenToken(TOKEN_ADJUST_PRIVILEGES);
  EXPECT_FALSE(
      AdjustTokenPrivileges(adjustOnly, FALSE, &enable, sizeof previous, &previous, &needed));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_TRUE(CloseHandle(queryOnly));
  EXPECT_TRUE(CloseHandle(adjustOnly));
  EXPECT_TRUE(CloseHandle(token));
  EXPECT_FALSE(AdjustTokenPrivileges(token, FALSE, &enable, 0, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

  HANDLE notAProcess = reinterpret_cast<HANDLE>(0x1234);
  EXPECT_FALSE(OpenProcessToken(notAProcess, TOKEN_QUERY, &token));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

} // namespace
