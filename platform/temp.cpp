// The temporary folder and temporary file names.
#include "platform/layer.h"

#include <cstdlib>
#include <ctime>

using namespace talvern::platform;

DWORD GetTempPathW(DWORD bufferLength, LPWSTR buffer) {
  const char* base = std::getenv("TMPDIR");
  CString path = PresentHostPath(base != nullptr && *base != 0 ? base : "/tmp");
  if (path.empty()) return 0;
  if (path.back() != u'\\') path += u'\\';
  const auto needed = static_cast<DWORD>(path.size() + 1);
  if (buffer == nullptr || bufferLength < needed) return needed;
  std::copy(path.begin(), path.end(), buffer);
  buffer[path.size()] = 0;
  return needed - 1;
}

UINT GetTempFileNameW(LPCWSTR pathName, LPCWSTR prefixString, UINT unique, LPWSTR tempFileName) {
  if (pathName == nullptr || tempFileName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  CString folder(pathName);
  if (folder.size() > MAX_PATH - 14) return Fail(ERROR_BUFFER_OVERFLOW);
  if (!folder.empty() && folder.back() != u'\\' && folder.back() != u'/') folder += u'\\';
  CString prefix;
  for (int i = 0; prefixString != nullptr && i < 3 && prefixString[i] != 0; ++i)
    prefix += prefixString[i];

  auto nameFor = [&](UINT number) {
    WCHAR hex[8];
    wsprintfW(hex, u"%X", number);
    return folder + prefix + hex + u".TMP";
  };
  if (unique != 0) {
    const CString name = nameFor(unique & 0xFFFF);
    std::copy(name.begin(), name.end(), tempFileName);
    tempFileName[name.size()] = 0;
    return unique & 0xFFFF;
  }

  // Starts from the clock and counts up until a name is free, creating the
  // file so that the name stays taken.
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  UINT number = static_cast<UINT>((now.tv_nsec / 1000) ^ now.tv_sec) & 0xFFFF;
  for (UINT tries = 0; tries < 0x10000; ++tries, number = (number + 1) & 0xFFFF) {
    if (number == 0) continue;
    const CString name = nameFor(number);
    HANDLE h = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h != INVALID_HANDLE_VALUE) {
      CloseHandle(h);
      std::copy(name.begin(), name.end(), tempFileName);
      tempFileName[name.size()] = 0;
      return number;
    }
    const DWORD code = GetLastError();
    if (code != ERROR_FILE_EXISTS && code != ERROR_ALREADY_EXISTS && code != ERROR_ACCESS_DENIED)
      return 0;
  }
  return Fail(ERROR_FILE_EXISTS);
}
