// Little-endian byte order and whole-buffer transfers on an open volume
// file, over the Win32 file calls. Internal to the library.
#pragma once

#include <talvern/win32.h>

#include <cstdint>

namespace volume_io {

inline void PutLE16(BYTE* out, std::uint16_t v) {
  out[0] = static_cast<BYTE>(v);
  out[1] = static_cast<BYTE>(v >> 8);
}
inline void PutLE32(BYTE* out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<BYTE>(v >> (8 * i));
}
inline void PutLE64(BYTE* out, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<BYTE>(v >> (8 * i));
}
inline std::uint16_t GetLE16(const BYTE* in) {
  return static_cast<std::uint16_t>(in[0] | (in[1] << 8));
}
inline std::uint32_t GetLE32(const BYTE* in) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | in[i];
  return v;
}
inline std::uint64_t GetLE64(const BYTE* in) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | in[i];
  return v;
}

// The thread's last error, or fallback when the failing call left none: an
// error latched in an archive object is never 0.
DWORD LastErrorOr(DWORD fallback = ERROR_GEN_FAILURE);

// Moves the file pointer to an absolute position. False with the last
// error set.
bool SeekTo(HANDLE file, std::uint64_t position);

// Moves the file pointer count bytes on, past bytes written before. False
// with the last error set.
bool SkipAhead(HANDLE file, DWORD count);

// The file's current size. False with the last error set.
bool QuerySize(HANDLE file, std::uint64_t& size);

// Reads exactly count bytes at the current position. False with the last
// error of the failing call, or with shortReadCode when the file ended first.
bool ReadAll(HANDLE file, void* buffer, DWORD count, DWORD shortReadCode);

// Writes exactly count bytes at the current position. False with the last
// error of the failing call, or ERROR_DISK_FULL when fewer bytes were taken.
bool WriteAll(HANDLE file, const void* buffer, DWORD count);

} // namespace volume_io
