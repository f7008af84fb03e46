// Byte streams over memory, files or nothing, and the CRC-32.
#include "engine/streams.h"

#include <cstring>
#include <mutex>

namespace talvern::engine {
namespace {

// Table 0 is the classic byte-at-a-time table; tables 1 to 7 let the update
// fold eight bytes per step (entry i of table k is the CRC of byte i followed
// by k zero bytes). All eight are built once, under one guard.
struct CrcTables {
  DWORD t[8][256];
};

CrcTables g_crc;
std::once_flag g_crcOnce;

void BuildTables() {
  for (DWORD i = 0; i < 256; ++i) {
    DWORD c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    g_crc.t[0][i] = c;
  }
  for (DWORD i = 0; i < 256; ++i) {
    DWORD c = g_crc.t[0][i];
    for (int k = 1; k < 8; ++k) {
      c = (c >> 8) ^ g_crc.t[0][c & 0xFF];
      g_crc.t[k][i] = c;
    }
  }
}

const CrcTables& Tables() {
  std::call_once(g_crcOnce, BuildTables);
  return g_crc;
}

inline std::uint32_t LoadLe32(const BYTE* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

} // namespace

const DWORD* Crc32Table() { return Tables().t[0]; }

DWORD Crc32Update(DWORD crc, const void* data, std::size_t count) {
  const CrcTables& tb = Tables();
  const BYTE* p = static_cast<const BYTE*>(data);
  while (count >= 8) {
    const std::uint32_t a = LoadLe32(p) ^ crc;
    const std::uint32_t b = LoadLe32(p + 4);
    crc = tb.t[7][a & 0xFF] ^ tb.t[6][(a >> 8) & 0xFF] ^ tb.t[5][(a >> 16) & 0xFF] ^
          tb.t[4][a >> 24] ^ tb.t[3][b & 0xFF] ^ tb.t[2][(b >> 8) & 0xFF] ^
          tb.t[1][(b >> 16) & 0xFF] ^ tb.t[0][b >> 24];
    p += 8;
    count -= 8;
  }
  while (count-- != 0) crc = (crc >> 8) ^ tb.t[0][(crc ^ *p++) & 0xFF];
  return crc;
}

} // namespace talvern::engine

// ---- CFileIO -------------------------------------------------------------------

CFileIO::~CFileIO() {
  Handle = INVALID_HANDLE_VALUE;
  Memory = nullptr;
}

void CFileIO::SetMemory(void* memory, std::uint64_t size) {
  Memory = static_cast<BYTE*>(memory);
  Handle = INVALID_HANDLE_VALUE;
  Remaining = size;
}

void CFileIO::SetMemory(const void* memory, std::uint64_t size) {
  // A source block: the stream only ever reads it.
  SetMemory(const_cast<void*>(memory), size);
}

void CFileIO::SetFile(HANDLE handle, std::uint64_t limit) {
  Memory = nullptr;
  Handle = handle;
  Remaining = limit;
}

void CFileIO::SetNull(std::uint64_t limit) {
  Memory = nullptr;
  Handle = INVALID_HANDLE_VALUE;
  Remaining = limit;
}

void CFileIO::LatchError(DWORD code) {
  if ((Flags & StreamError) == 0) {
    Error = code;
    Flags |= StreamError;
  }
}

DWORD CFileIO::Read(void* buffer, DWORD count) { return Transfer(buffer, count, false); }

DWORD CFileIO::Write(const void* buffer, DWORD count) {
  return Transfer(const_cast<void*>(buffer), count, true);
}

DWORD CFileIO::Transfer(void* buffer, DWORD count, bool writing) {
  DWORD n = count;
  if (Remaining.HighPart == 0 && Remaining.LowPart < n) n = Remaining.LowPart;
  if (n != 0) {
    if (Handle != INVALID_HANDLE_VALUE) {
      DWORD done = 0;
      const BOOL ok = writing ? WriteFile(Handle, buffer, n, &done, nullptr)
                              : ReadFile(Handle, buffer, n, &done, nullptr);
      if (!ok) {
        LatchError(GetLastError());
        if (count != 0) Flags |= StreamShort;
        return 0;
      }
      n = done;
    } else if (Position.HighPart == 0 && n <= 0xFFFFFFFFu - Position.LowPart) {
      // Memory and null mode address the block with a 32-bit offset.
      if (Memory != nullptr) {
        BYTE* at = Memory + Position.LowPart;
        if (writing)
          std::memcpy(at, buffer, n);
        else
          std::memcpy(buffer, at, n);
      } else if (!writing) {
        std::memset(buffer, 0, n);
      }
    } else {
      LatchError(ERROR_SEEK_ON_DEVICE);
    }
    if (n != 0 && Position.Add(CArchiveSize(n))) LatchError(ERROR_SEEK_ON_DEVICE);
  }
  Remaining.Sub(CArchiveSize(n));
  if (n < count) Flags |= StreamShort;
  return n;
}

// ---- CFileCRC --------------------------------------------------------------------

CFileCRC::CFileCRC() {
  talvern::engine::Crc32Table(); // the table exists before any transfer
  Crc = 0;
}

DWORD CFileCRC::UpdateCrc(const void* data, DWORD count) {
  if (count != 0) Crc = talvern::engine::Crc32Update(Crc, data, count);
  return Crc;
}

DWORD CFileCRC::Read(void* buffer, DWORD count) {
  const DWORD n = CFileIO::Read(buffer, count);
  UpdateCrc(buffer, n);
  return n;
}

DWORD CFileCRC::Write(const void* buffer, DWORD count) {
  UpdateCrc(buffer, count);
  return CFileIO::Write(buffer, count);
}

BOOL talvern::engine::CopyStream(CFileIO& source, CFileIO& destination, BYTE* buffer, DWORD size,
                                 DWORD& error) {
  while ((source.Flags & (CFileIO::StreamShort | CFileIO::StreamError)) == 0 &&
         !destination.HasError()) {
    const DWORD n = source.Read(buffer, size);
    if (n != 0) destination.Write(buffer, n);
  }
  if (source.HasError()) {
    error = source.Error;
    return FALSE;
  }
  if (destination.HasError()) {
    error = destination.Error;
    return FALSE;
  }
  return TRUE;
}
