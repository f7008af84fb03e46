// Internal interface of the platform layer, shared by its parts (files,
// volumes, security). Not installed; only code under platform/ includes it.
#pragma once

#include <talvern/win32.h>

#include <string>

namespace talvern::platform {

// Sets the thread's last error from an errno value, through the layer's one
// errno-to-Win32 table, and returns the code it set.
DWORD SetLastErrorFromErrno(int err);

// Resolves a Windows path (drive, share, relative or drive-relative) to the
// host path that holds it, through the drive and share tables. Fails with the
// last error set (3 for an unmapped drive, 53 for an unmapped share, 21 for
// an empty drive, 1005 for an unformatted medium, 206 for a name that is too
// long). Names are mapped as the contract says (U+F000 + byte).
bool ResolveToHost(const WCHAR* windowsPath, std::string& hostPath);

} // namespace talvern::platform
