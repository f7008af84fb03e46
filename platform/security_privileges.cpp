// The process token and its privileges.
//
// A POSIX process has no token: the layer keeps one per process. Every
// privilege is held when the process runs as root and not held otherwise,
// unless the control interface (SetPrivilegeHeld) says differently. A held
// privilege starts disabled, as on Windows, except "SeChangeNotifyPrivilege",
// which every token has enabled; AdjustTokenPrivileges enables and disables
// held privileges for the whole process.
#include "platform/internal.h"
#include "platform/layer.h"
#include "platform/security_internal.h"

#include <talvern/platform.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace talvern::platform {
namespace {

struct PrivilegeName {
  const char16_t* name;
  DWORD luid; // the LowPart of the privilege's LUID on Windows
};

constexpr PrivilegeName kPrivileges[] = {
    {u"SeCreateTokenPrivilege", 2},
    {u"SeAssignPrimaryTokenPrivilege", 3},
    {u"SeLockMemoryPrivilege", 4},
    {u"SeIncreaseQuotaPrivilege", 5},
    {u"SeMachineAccountPrivilege", 6},
    {u"SeTcbPrivilege", 7},
    {u"SeSecurityPrivilege", 8},
    {u"SeTakeOwnershipPrivilege", 9},
    {u"SeLoadDriverPrivilege", 10},
    {u"SeSystemProfilePrivilege", 11},
    {u"SeSystemtimePrivilege", 12},
    {u"SeProfileSingleProcessPrivilege", 13},
    {u"SeIncreaseBasePriorityPrivilege", 14},
    {u"SeCreatePagefilePrivilege", 15},
    {u"SeCreatePermanentPrivilege", 16},
    {u"SeBackupPrivilege", 17},
    {u"SeRestorePrivilege", 18},
    {u"SeShutdownPrivilege", 19},
    {u"SeDebugPrivilege", 20},
    {u"SeAuditPrivilege", 21},
    {u"SeSystemEnvironmentPrivilege", 22},
    {u"SeChangeNotifyPrivilege", 23},
    {u"SeRemoteShutdownPrivilege", 24},
    {u"SeUndockPrivilege", 25},
    {u"SeSyncAgentPrivilege", 26},
    {u"SeEnableDelegationPrivilege", 27},
    {u"SeManageVolumePrivilege", 28},
    {u"SeImpersonatePrivilege", 29},
    {u"SeCreateGlobalPrivilege", 30},
    {u"SeTrustedCredManAccessPrivilege", 31},
    {u"SeRelabelPrivilege", 32},
    {u"SeIncreaseWorkingSetPrivilege", 33},
    {u"SeTimeZonePrivilege", 34},
    {u"SeCreateSymbolicLinkPrivilege", 35},
    {u"SeDelegateSessionUserImpersonatePrivilege", 36},
};
constexpr std::size_t kPrivilegeCount = std::size(kPrivileges);
constexpr DWORD kEnabledByDefaultLuid = 23; // SeChangeNotifyPrivilege

struct PrivilegeState {
  std::optional<bool> held; // set by the control interface or by removal
  bool enabled = false;
};

// The process's one token.
struct TokenState {
  std::mutex mutex;
  std::array<PrivilegeState, kPrivilegeCount> privileges;

  TokenState() {
    for (std::size_t i = 0; i < kPrivilegeCount; ++i)
      privileges[i].enabled = kPrivileges[i].luid == kEnabledByDefaultLuid;
  }
};

TokenState& Token() {
  static TokenState token;
  return token;
}

bool HeldLocked(const PrivilegeState& state) { return state.held.value_or(geteuid() == 0); }

char16_t FoldAscii(char16_t c) { return (c >= u'A' && c <= u'Z') ? char16_t(c + 32) : c; }

// Privilege names compare without regard to ASCII case, as on Windows.
std::optional<std::size_t> IndexOfName(const WCHAR* name) {
  if (name == nullptr) return std::nullopt;
  for (std::size_t i = 0; i < kPrivilegeCount; ++i) {
    const char16_t* a = kPrivileges[i].name;
    const WCHAR* b = name;
    while (*a != 0 && FoldAscii(*a) == FoldAscii(*b)) ++a, ++b;
    if (*a == 0 && *b == 0) return i;
  }
  return std::nullopt;
}

std::optional<std::size_t> IndexOfLuid(const LUID& luid) {
  if (luid.HighPart != 0) return std::nullopt;
  for (std::size_t i = 0; i < kPrivilegeCount; ++i)
    if (kPrivileges[i].luid == luid.LowPart) return i;
  return std::nullopt;
}

// A token handle: what the opener asked to be allowed to do.
class TokenObject final : public HandleObject {
public:
  explicit TokenObject(DWORD access) : access_(access) {}
  DWORD Access() const { return access_; }

private:
  DWORD access_;
};

HANDLE CurrentProcessPseudoHandle() {
  return reinterpret_cast<HANDLE>(~static_cast<std::uintptr_t>(0));
}

LUID_AND_ATTRIBUTES ReadEntry(const TOKEN_PRIVILEGES* list, DWORD index) {
  LUID_AND_ATTRIBUTES entry;
  const BYTE* at = reinterpret_cast<const BYTE*>(list) + offsetof(TOKEN_PRIVILEGES, Privileges) +
                   index * sizeof(LUID_AND_ATTRIBUTES);
  std::memcpy(&entry, at, sizeof entry);
  return entry;
}

void WriteEntry(TOKEN_PRIVILEGES* list, DWORD index, const LUID_AND_ATTRIBUTES& entry) {
  BYTE* at = reinterpret_cast<BYTE*>(list) + offsetof(TOKEN_PRIVILEGES, Privileges) +
             index * sizeof(LUID_AND_ATTRIBUTES);
  std::memcpy(at, &entry, sizeof entry);
}

DWORD AttributesOf(std::size_t index, const PrivilegeState& state) {
  DWORD attributes = state.enabled ? SE_PRIVILEGE_ENABLED : 0;
  if (kPrivileges[index].luid == kEnabledByDefaultLuid)
    attributes |= SE_PRIVILEGE_ENABLED_BY_DEFAULT;
  return attributes;
}

} // namespace

bool IsPrivilegeHeld(const WCHAR* name) {
  const auto index = IndexOfName(name);
  if (!index) return false;
  TokenState& token = Token();
  std::lock_guard lock(token.mutex);
  return HeldLocked(token.privileges[*index]);
}

bool IsPrivilegeEnabled(const WCHAR* name) {
  const auto index = IndexOfName(name);
  if (!index) return false;
  TokenState& token = Token();
  std::lock_guard lock(token.mutex);
  const PrivilegeState& state = token.privileges[*index];
  return HeldLocked(state) && state.enabled;
}

} // namespace talvern::platform

using namespace talvern::platform;

void talvern::SetPrivilegeHeld(const WCHAR* privilegeName, BOOL held) {
  const auto index = IndexOfName(privilegeName);
  if (!index) return;
  TokenState& token = Token();
  std::lock_guard lock(token.mutex);
  PrivilegeState& state = token.privileges[*index];
  state.held = held != FALSE;
  if (!held) state.enabled = false;
}

HANDLE GetCurrentProcess() { return CurrentProcessPseudoHandle(); }

BOOL OpenProcessToken(HANDLE processHandle, DWORD desiredAccess, PHANDLE tokenHandle) {
  if (processHandle != CurrentProcessPseudoHandle()) return Fail(ERROR_INVALID_HANDLE);
  if (tokenHandle == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  HANDLE handle = RegisterHandle(std::make_unique<TokenObject>(desiredAccess));
  if (handle == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  *tokenHandle = handle;
  return TRUE;
}

BOOL LookupPrivilegeValueW(LPCWSTR systemName, LPCWSTR name, PLUID luid) {
  if (name == nullptr || luid == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  // Only the local system is known.
  if (systemName != nullptr && systemName[0] != 0) return Fail(RPC_S_SERVER_UNAVAILABLE);
  const auto index = IndexOfName(name);
  if (!index) return Fail(ERROR_NO_SUCH_PRIVILEGE);
  luid->LowPart = kPrivileges[*index].luid;
  luid->HighPart = 0;
  return TRUE;
}

BOOL AdjustTokenPrivileges(HANDLE tokenHandle, BOOL disableAllPrivileges,
                           PTOKEN_PRIVILEGES newState, DWORD bufferLength,
                           PTOKEN_PRIVILEGES previousState, LPDWORD returnLength) {
  const auto* token = FindHandleAs<TokenObject>(tokenHandle);
  if (token == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if ((token->Access() & TOKEN_ADJUST_PRIVILEGES) == 0) return Fail(ERROR_ACCESS_DENIED);
  if (previousState != nullptr && (token->Access() & TOKEN_QUERY) == 0)
    return Fail(ERROR_ACCESS_DENIED);
  if (!disableAllPrivileges && newState == nullptr) return Fail(ERROR_INVALID_PARAMETER);

  TokenState& state = Token();
  std::lock_guard lock(state.mutex);
  // Work on a copy, so that nothing changes when the previous state does not
  // fit; remember each privilege's state before its first change.
  auto next = state.privileges;
  std::vector<std::size_t> changed;
  auto change = [&](std::size_t index, bool enabled, bool removed) {
    PrivilegeState& target = next[index];
    if (target.enabled == enabled && !removed) return;
    if (std::find(changed.begin(), changed.end(), index) == changed.end()) changed.push_back(index);
    target.enabled = enabled;
    if (removed) target.held = false;
  };
  bool allAssigned = true;
  if (disableAllPrivileges) {
    for (std::size_t i = 0; i < kPrivilegeCount; ++i)
      if (HeldLocked(next[i])) change(i, false, false);
  } else {
    for (DWORD i = 0; i < newState->PrivilegeCount; ++i) {
      const LUID_AND_ATTRIBUTES entry = ReadEntry(newState, i);
      const auto index = IndexOfLuid(entry.Luid);
      if (!index || !HeldLocked(next[*index])) {
        allAssigned = false;
        continue;
      }
      if (entry.Attributes & SE_PRIVILEGE_REMOVED)
        change(*index, false, true);
      else
        change(*index, (entry.Attributes & SE_PRIVILEGE_ENABLED) != 0, false);
    }
  }

  const DWORD needed = static_cast<DWORD>(offsetof(TOKEN_PRIVILEGES, Privileges) +
                                          changed.size() * sizeof(LUID_AND_ATTRIBUTES));
  if (returnLength != nullptr) *returnLength = needed;
  if (previousState != nullptr) {
    if (bufferLength < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
    previousState->PrivilegeCount = static_cast<DWORD>(changed.size());
    for (DWORD i = 0; i < changed.size(); ++i) {
      const std::size_t index = changed[i];
      WriteEntry(previousState, i,
                 {{kPrivileges[index].luid, 0}, AttributesOf(index, state.privileges[index])});
    }
  }
  state.privileges = next;
  SetLastError(allAssigned ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);
  return TRUE;
}
