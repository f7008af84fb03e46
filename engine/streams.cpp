// Byte streams over memory, files or nothing, and the CRC-32.
#include "engine/streams.h"

#include <cstring>
#include <mutex>

#if (defined(__x86_64__) || defined(_M_X64)) && (defined(__GNUC__) || defined(__clang__))
#define TALVERN_CRC_CLMUL 1
#include <immintrin.h>
#endif

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

#if TALVERN_CRC_CLMUL
// The CRC of whole 16-byte blocks (at least four) by carry-less
// multiplication: four 128-bit lanes are folded forward 64 bytes at a time,
// then into one lane, then to 64 and 32 bits by a Barrett reduction. The
// constants are powers of x modulo the CRC's polynomial, bit-reflected as
// the CRC is. Works on the same raw register as the table loop.
#define TALVERN_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

TALVERN_CLMUL_TARGET inline __m128i Load128(const BYTE* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// a * k (low halves) + a * k (high halves) + next: one lane folded over the
// next 128 bits.
TALVERN_CLMUL_TARGET inline __m128i Fold(__m128i a, __m128i k, __m128i next) {
  return _mm_xor_si128(
      _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x00), _mm_clmulepi64_si128(a, k, 0x11)), next);
}

TALVERN_CLMUL_TARGET std::uint32_t CrcByClmul(std::uint32_t crc, const BYTE* p, std::size_t count) {
  alignas(16) static constexpr std::uint64_t kFold4[2] = {0x0154442bd4, 0x01c6e41596};
  alignas(16) static constexpr std::uint64_t kFold1[2] = {0x01751997d0, 0x00ccaa009e};
  alignas(16) static constexpr std::uint64_t kTo64[2] = {0x0163cd6124, 0};
  alignas(16) static constexpr std::uint64_t kBarrett[2] = {0x01db710641, 0x01f7011641};
  __m128i x1 = _mm_xor_si128(Load128(p), _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i x2 = Load128(p + 16);
  __m128i x3 = Load128(p + 32);
  __m128i x4 = Load128(p + 48);
  p += 64;
  count -= 64;
  __m128i k = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold4));
  for (; count >= 64; p += 64, count -= 64) {
    x1 = Fold(x1, k, Load128(p));
    x2 = Fold(x2, k, Load128(p + 16));
    x3 = Fold(x3, k, Load128(p + 32));
    x4 = Fold(x4, k, Load128(p + 48));
  }
  k = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold1));
  x1 = Fold(x1, k, x2);
  x1 = Fold(x1, k, x3);
  x1 = Fold(x1, k, x4);
  for (; count >= 16; p += 16, count -= 16) x1 = Fold(x1, k, Load128(p));
  // 128 bits to 64.
  const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), _mm_clmulepi64_si128(x1, k, 0x10));
  k = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kTo64));
  x1 =
      _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), k, 0x00), _mm_srli_si128(x1, 4));
  // 64 bits to 32.
  k = _mm_load_si128(reinterpret_cast<const __m128i*>(kBarrett));
  __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), k, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), k, 0x00);
  return static_cast<std::uint32_t>(_mm_extract_epi32(_mm_xor_si128(x1, t), 1));
}

bool HasClmul() {
  static const bool has = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return has;
}
#endif

} // namespace

const DWORD* Crc32Table() { return Tables().t[0]; }

DWORD Crc32Update(DWORD crc, const void* data, std::size_t count) {
  const CrcTables& tb = Tables();
  const BYTE* p = static_cast<const BYTE*>(data);
#if TALVERN_CRC_CLMUL
  if (count >= 64 && HasClmul()) {
    const std::size_t blocks = count & ~std::size_t{15};
    crc = CrcByClmul(crc, p, blocks);
    p += blocks;
    count -= blocks;
  }
#endif
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
