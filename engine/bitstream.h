// The bit stream: fields of 1 to 32 bits, most significant bit first, on top
// of a byte stream, through a 1024-byte buffer.
#pragma once

#include "engine/streams.h"

#include <memory>

class CFileBit : public CFileIO {
public:
  static constexpr DWORD DefaultBufferSize = 1024;

  CFileBit() = default;
  // Does what Flush does, then frees the buffer.
  ~CFileBit() override;

  // Allocates the transfer buffer and clears the bit state; FALSE when the
  // buffer cannot be had. Set up the byte side (SetMemory, SetFile, SetNull)
  // separately.
  BOOL Allocate(DWORD size = DefaultBufferSize);
  // Flushes, frees the buffer and leaves a plain byte stream behind: what
  // the destructor does, for drivers that read Position afterwards.
  void Finish();

  // Drops unread input, pads the partial output byte with zero bits and
  // hands the buffered output to Write.
  virtual void Flush();
  virtual DWORD ReadTopBits(unsigned n);
  virtual DWORD ReadBits(unsigned n);
  virtual void WriteTopBits(unsigned n, DWORD value);
  virtual void WriteBits(unsigned n, DWORD value);

  BYTE ReadByte = 0;      // unread bits of the current input byte, at the top
  BYTE ReadBitCount = 0;  // how many of them (0 to 8)
  BYTE WriteByte = 0;     // output byte being assembled, filled from the top
  BYTE WriteBitCount = 0; // bits of it already used (0 to 7 between calls)
  DWORD ReadFill = 0;     // bytes the last refill put into Buffer
  DWORD ReadIndex = 0;    // next unread byte in Buffer
  DWORD WriteFill = 0;    // finished bytes waiting in Buffer
  std::unique_ptr<BYTE[]> Buffer;
  DWORD BufferSize = 0;
};
