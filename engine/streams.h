// Byte streams of the compression engine and the CRC-32 they carry.
//
// CFileIO moves bytes between a caller's buffer and either a memory block, an
// open file handle, or nothing at all (a null stream: reads deliver zeros,
// writes are counted and dropped). It never owns the block or the handle. It
// counts what it moved, stops at a 64-bit limit and latches the first error.
// CFileCRC adds a running CRC-32 of every byte that passes.
#pragma once

#include <talvern/size.h>
#include <talvern/win32.h>

#include <cstddef>
#include <cstdint>

namespace talvern::engine {

// CRC-32 with the reflected polynomial 0xEDB88320, register starting at the
// value given (0 for a fresh sum) and no final inversion. Continuing a sum
// over several pieces gives the sum of their concatenation.
DWORD Crc32Update(DWORD crc, const void* data, std::size_t count);

// The 256-entry table of that CRC (built once, on first use).
const DWORD* Crc32Table();

} // namespace talvern::engine

class CFileIO {
public:
  // Bits of Flags.
  static constexpr DWORD StreamError = 0x1; // an error code has been latched
  static constexpr DWORD StreamShort = 0x2; // a transfer moved fewer bytes than asked

  static constexpr std::uint64_t NoLimit = ~std::uint64_t{0};

  CFileIO() = default;
  CFileIO(const CFileIO&) = delete;
  CFileIO& operator=(const CFileIO&) = delete;
  virtual ~CFileIO();

  // Both return the number of bytes transferred.
  virtual DWORD Read(void* buffer, DWORD count);
  virtual DWORD Write(const void* buffer, DWORD count);

  // Set-up: a memory block of `size` bytes (a source block is only ever
  // read), an open file with a transfer limit, or a null stream.
  void SetMemory(void* memory, std::uint64_t size);
  void SetMemory(const void* memory, std::uint64_t size);
  void SetFile(HANDLE handle, std::uint64_t limit = NoLimit);
  void SetNull(std::uint64_t limit = NoLimit);

  // Stores `code` unless an error is already latched: the first one wins.
  void LatchError(DWORD code);
  bool HasError() const { return (Flags & StreamError) != 0; }
  bool IsShort() const { return (Flags & StreamShort) != 0; }

  BYTE* Memory = nullptr;               // memory mode: start of the block
  CArchiveSize Position{0};             // bytes moved so far (memory: next offset)
  HANDLE Handle = INVALID_HANDLE_VALUE; // file mode: the open handle
  CArchiveSize Remaining{NoLimit};      // how many more bytes may move
  DWORD Flags = 0;                      // StreamError, StreamShort
  DWORD Error = 0;                      // the latched code while StreamError is set

private:
  DWORD Transfer(void* buffer, DWORD count, bool writing);
};

class CFileCRC : public CFileIO {
public:
  CFileCRC();

  // Reading folds exactly the bytes delivered into Crc; writing folds every
  // byte handed in, whether or not it could be written.
  DWORD Read(void* buffer, DWORD count) override;
  DWORD Write(const void* buffer, DWORD count) override;
  // Folds `count` bytes into Crc and returns the new value.
  virtual DWORD UpdateCrc(const void* data, DWORD count);

  DWORD Crc = 0;
};

namespace talvern::engine {

// Copies `source` to `destination` in pieces of `size` bytes through
// `buffer` until the source ends or either stream latches an error (a full
// destination does not stop the copy: the rest of the source is still read
// and summed). FALSE with the source's, then the destination's, error code
// when one was latched.
BOOL CopyStream(CFileIO& source, CFileIO& destination, BYTE* buffer, DWORD size, DWORD& error);

} // namespace talvern::engine
