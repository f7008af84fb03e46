// The meeting point between file creation and security descriptors in the
// platform layer. Not installed.
#pragma once

#include <talvern/win32.h>

#include <string>

namespace talvern::platform {

// Called by CreateFileW and CreateDirectoryW right after they created a new
// item at hostPath with a security descriptor (absolute or self-relative).
// Applies what the host can hold (owner, group, permission bits) and keeps
// the descriptor's bytes so that GetFileSecurityW gives them back. Returns
// ERROR_SUCCESS or the Win32 code that makes the creation fail (the caller
// then removes the new item and fails with that code).
DWORD ApplySecurityOnCreate(const std::string& hostPath, bool isDirectory,
                            PSECURITY_DESCRIPTOR descriptor);

} // namespace talvern::platform
