// The control interface and host-path conversions on Windows, where drives,
// media and privileges are the system's own: the control functions answer
// FALSE, and host paths already are Windows paths.
#if defined(_WIN32)

#include <talvern/platform.h>

#include <string>

namespace talvern {

namespace {

BOOL NotHere() {
  SetLastError(ERROR_NOT_SUPPORTED);
  return FALSE;
}

} // namespace

BOOL MountDrive(WCHAR, UINT, DWORD, const MediumSpec*) { return NotHere(); }
BOOL InsertMedium(WCHAR, const MediumSpec*) { return NotHere(); }
BOOL UnmountDrive(WCHAR) { return NotHere(); }
BOOL MountShare(const WCHAR*, const WCHAR*, const std::string&) { return NotHere(); }
void SetPrivilegeHeld(const WCHAR*, BOOL) {}
void SetDeviceAccess(WCHAR, BOOL) {}
DWORD GetDismountCount(WCHAR) { return 0; }

std::string ToUtf8(const WCHAR* text) {
  if (text == nullptr || *text == 0) return std::string();
  const int needed = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  if (needed <= 1) return std::string();
  std::string out(static_cast<size_t>(needed), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), needed, nullptr, nullptr);
  out.resize(static_cast<size_t>(needed - 1));
  return out;
}

CString FromUtf8(const std::string& text) {
  if (text.empty()) return CString();
  const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0);
  CString out(static_cast<size_t>(needed), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), needed);
  return out;
}

CString HostPathToWindows(const std::string& hostPath) {
  CString path = FromUtf8(hostPath);
  for (auto& c : path)
    if (c == L'/') c = L'\\';
  const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  if (needed == 0) return CString();
  CString full(needed, L'\0');
  const DWORD got = GetFullPathNameW(path.c_str(), needed, full.data(), nullptr);
  if (got == 0 || got >= needed) return CString();
  full.resize(got);
  return full;
}

std::string WindowsPathToHost(const WCHAR* windowsPath) { return ToUtf8(windowsPath); }

} // namespace talvern

#endif // _WIN32
