// Whole-buffer transfers and absolute positioning on an open volume file.
#include "archive/volume_io.h"

namespace volume_io {

DWORD LastErrorOr(DWORD fallback) {
  const DWORD code = GetLastError();
  return code != ERROR_SUCCESS ? code : fallback;
}

bool SeekTo(HANDLE file, std::uint64_t position) {
  LONG high = static_cast<LONG>(static_cast<DWORD>(position >> 32));
  SetLastError(ERROR_SUCCESS);
  const DWORD low =
      SetFilePointer(file, static_cast<LONG>(static_cast<DWORD>(position)), &high, FILE_BEGIN);
  // The low half 0xFFFFFFFF is a valid position; only a set last error
  // marks failure.
  return !(low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS);
}

bool SkipAhead(HANDLE file, DWORD count) {
  LONG high = 0;
  SetLastError(ERROR_SUCCESS);
  const DWORD low = SetFilePointer(file, static_cast<LONG>(count), &high, FILE_CURRENT);
  return !(low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS);
}

bool QuerySize(HANDLE file, std::uint64_t& size) {
  DWORD high = 0;
  SetLastError(ERROR_SUCCESS);
  const DWORD low = GetFileSize(file, &high);
  if (low == INVALID_FILE_SIZE && GetLastError() != ERROR_SUCCESS) return false;
  size = (static_cast<std::uint64_t>(high) << 32) | low;
  return true;
}

bool ReadAll(HANDLE file, void* buffer, DWORD count, DWORD shortReadCode) {
  DWORD got = 0;
  if (!ReadFile(file, buffer, count, &got, nullptr)) return false;
  if (got != count) {
    SetLastError(shortReadCode);
    return false;
  }
  return true;
}

bool WriteAll(HANDLE file, const void* buffer, DWORD count) {
  DWORD put = 0;
  if (!WriteFile(file, buffer, count, &put, nullptr)) return false;
  if (put != count) {
    SetLastError(ERROR_DISK_FULL);
    return false;
  }
  return true;
}

} // namespace volume_io
