// One-shot blocks: a 16-byte header followed by the stored or compressed
// data, and the drivers that produce and check them in memory.
#pragma once

#include <talvern/win32.h>

#include <cstdint>

namespace talvern::engine {

// The block header. On disk and in memory it is 16 little-endian bytes:
// "CM", method, CRC-32 of the original data, original size, compressed size.
struct BlockHeader {
  static constexpr DWORD Size = 16;
  static constexpr WORD SignatureValue = 0x4D43; // "CM"

  WORD Signature = 0;
  WORD CompressType = 0;
  DWORD Crc = 0;
  DWORD OriginalSize = 0;
  DWORD CompressedSize = 0;

  void Store(BYTE* out) const;
  void Load(const BYTE* in);
};

// Compression methods.
constexpr DWORD MethodStored = 0;
constexpr DWORD MethodFormat1 = 1;
constexpr DWORD MethodDefault = 0xFFFF;

// The engine parameters every driver uses: 8 KiB window, matches to 256.
constexpr BYTE DriverDicBits = 13;
constexpr WORD DriverMaxMatch = 256;

// Compresses `sourceSize` bytes with header.CompressType and fills in
// header.Crc and header.CompressedSize. A null destination only counts. A
// destination too small for the data fails with ERROR_INSUFFICIENT_BUFFER.
// `error` is written only on failure.
BOOL CompressBlock(DWORD& error, const BYTE* source, DWORD sourceSize, BlockHeader& header,
                   BYTE* destination, DWORD capacity);

// Expands header.CompressedSize bytes at `data` into `destination`, which
// holds at least header.OriginalSize bytes, and checks size and CRC.
BOOL ExpandBlock(DWORD& error, const BlockHeader& header, const BYTE* data, BYTE* destination);

} // namespace talvern::engine
