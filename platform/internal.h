// Internal interface of the platform layer, shared by its parts (files,
// volumes, security). Not installed; only code under platform/ includes it.
#pragma once

#include <talvern/win32.h>

#include <memory>
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

// Every HANDLE the layer gives out (files, searches, mappings, devices,
// tokens) names one live object of a class derived from HandleObject.
// CloseHandle destroys it.
class HandleObject {
public:
  virtual ~HandleObject() = default;
};

// Takes ownership and returns a handle that is neither null nor
// INVALID_HANDLE_VALUE.
HANDLE RegisterHandle(std::unique_ptr<HandleObject> object);

// The live object behind a handle, or null (the caller then fails with
// ERROR_INVALID_HANDLE). The pointer stays valid until the handle is closed;
// a handle is used by one thread at a time.
HandleObject* FindHandle(HANDLE handle);

template <class T> T* FindHandleAs(HANDLE handle) {
  return dynamic_cast<T*>(FindHandle(handle));
}

} // namespace talvern::platform
