// The bit stream.
#include "engine/bitstream.h"

#include <new>

CFileBit::~CFileBit() { Finish(); }

BOOL CFileBit::Allocate(DWORD size) {
  Buffer.reset(new (std::nothrow) BYTE[size]);
  BufferSize = Buffer ? size : 0;
  ReadByte = ReadBitCount = WriteByte = WriteBitCount = 0;
  ReadFill = ReadIndex = WriteFill = 0;
  return Buffer ? TRUE : FALSE;
}

void CFileBit::Finish() {
  CFileBit::Flush();
  Buffer.reset();
  BufferSize = 0;
  Handle = INVALID_HANDLE_VALUE;
  Memory = nullptr;
}

void CFileBit::Flush() {
  ReadByte = ReadBitCount = 0;
  ReadFill = ReadIndex = 0;
  if (WriteBitCount != 0) WriteTopBits(8u - WriteBitCount, 0);
  WriteByte = WriteBitCount = 0;
  if (WriteFill != 0) {
    if (Buffer) Write(Buffer.get(), WriteFill);
    WriteFill = 0;
  }
}

void CFileBit::WriteTopBits(unsigned n, DWORD value) {
  if (ReadBitCount != 0 || ReadFill != 0) Flush(); // turning from reading to writing
  if (n == 0 || n > 32 || !Buffer) return;
  DWORD v = value & (~DWORD{0} << (32 - n));
  WriteByte = static_cast<BYTE>(WriteByte | (v >> (24 + WriteBitCount)));
  if (n < 8u - WriteBitCount) {
    WriteBitCount = static_cast<BYTE>(WriteBitCount + n);
    return;
  }
  // Complete bytes go into the buffer; a full buffer is handed on only when
  // the next byte needs its room.
  v <<= 8 - WriteBitCount;
  unsigned k = WriteBitCount + n - 8;
  for (;;) {
    if (WriteFill == BufferSize) {
      Write(Buffer.get(), WriteFill);
      WriteFill = 0;
    }
    Buffer[WriteFill++] = WriteByte;
    WriteByte = static_cast<BYTE>(v >> 24);
    if (k < 8) break;
    v <<= 8;
    k -= 8;
  }
  WriteBitCount = static_cast<BYTE>(k);
}

void CFileBit::WriteBits(unsigned n, DWORD value) {
  if (n == 0 || n > 32) return;
  WriteTopBits(n, value << (32 - n));
}

DWORD CFileBit::ReadTopBits(unsigned n) {
  if (n == 0 || n > 32) return 0;
  return ReadBits(n) << (32 - n);
}

DWORD CFileBit::ReadBits(unsigned n) {
  if (WriteBitCount != 0 || WriteFill != 0) Flush();
  if (n == 0 || n > 32) return 0;
  if (n <= ReadBitCount) {
    const DWORD result = static_cast<DWORD>(ReadByte) >> (8 - n);
    ReadByte = static_cast<BYTE>(ReadByte << n);
    ReadBitCount = static_cast<BYTE>(ReadBitCount - n);
    return result;
  }
  DWORD result = ReadBitCount != 0 ? static_cast<DWORD>(ReadByte) >> (8 - ReadBitCount) : 0;
  unsigned k = n - ReadBitCount;
  for (;;) {
    if (ReadIndex >= ReadFill) {
      ReadIndex = 0;
      ReadFill = Buffer ? Read(Buffer.get(), BufferSize) : 0;
      // A short block that still delivered bytes is good data, not the end.
      if (ReadFill > 0 && ReadFill < BufferSize) Flags &= ~StreamShort;
      if (!Buffer) Flags |= StreamShort;
    }
    const BYTE byte = ReadIndex < ReadFill ? Buffer[ReadIndex++] : BYTE{0};
    if (k > 8) {
      result = (result << 8) | byte;
      k -= 8;
      continue;
    }
    result = (result << k) | (static_cast<DWORD>(byte) >> (8 - k));
    ReadByte = static_cast<BYTE>(byte << k);
    ReadBitCount = static_cast<BYTE>(8 - k);
    return result;
  }
}
