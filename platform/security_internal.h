// The meeting point between file creation and security descriptors in the
// platform layer, and the helpers the security parts share. Not installed.
#pragma once

#include <talvern/win32.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace talvern::platform {

// A value of type T at an unaligned address inside a descriptor's bytes.
template <class T> T Load(const BYTE* p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}
template <class T> void Store(BYTE* p, T value) { std::memcpy(p, &value, sizeof value); }

// Called by CreateFileW and CreateDirectoryW right after they created a new
// item at hostPath with a security descriptor (absolute or self-relative).
// Applies what the host can hold (owner, group, permission bits) and keeps
// the descriptor's bytes so that GetFileSecurityW gives them back. Returns
// ERROR_SUCCESS or the Win32 code that makes the creation fail (the caller
// then removes the new item and fails with that code).
DWORD ApplySecurityOnCreate(const std::string& hostPath, bool isDirectory,
                            PSECURITY_DESCRIPTOR descriptor);

// The largest extent a self-relative descriptor can have: its header, two
// SIDs of 15 sub-authorities and two access lists of 65535 bytes. A
// descriptor known only by its address is never read beyond this.
inline constexpr std::size_t kMaxSelfRelativeLength = 20 + 2 * 68 + 2 * 0xFFFF;

// True when `length` bytes at `bytes` hold a valid self-relative descriptor
// whose every part lies inside them. Reads nothing outside the range.
bool IsValidSelfRelativeDescriptor(const void* bytes, std::size_t length);

// Whether the process's token holds, or holds and has enabled, a privilege
// ("SeSecurityPrivilege", ...). Unknown names are neither.
bool IsPrivilegeHeld(const WCHAR* name);
bool IsPrivilegeEnabled(const WCHAR* name);

} // namespace talvern::platform
