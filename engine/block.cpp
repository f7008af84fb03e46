// Compressing and expanding one block in memory.
#include "engine/block.h"

#include "engine/code_format1.h"
#include "engine/lz_parallel.h"
#include "engine/streams.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace talvern::engine {
namespace {

void PutLe16(BYTE* p, WORD v) {
  p[0] = static_cast<BYTE>(v);
  p[1] = static_cast<BYTE>(v >> 8);
}

void PutLe32(BYTE* p, DWORD v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<BYTE>(v >> (8 * i));
}

WORD GetLe16(const BYTE* p) { return static_cast<WORD>(p[0] | p[1] << 8); }

DWORD GetLe32(const BYTE* p) {
  return static_cast<DWORD>(p[0]) | static_cast<DWORD>(p[1]) << 8 | static_cast<DWORD>(p[2]) << 16 |
         static_cast<DWORD>(p[3]) << 24;
}

constexpr DWORD BlockCopyPiece = 256;

} // namespace

void BlockHeader::Store(BYTE* out) const {
  PutLe16(out, Signature);
  PutLe16(out + 2, CompressType);
  PutLe32(out + 4, Crc);
  PutLe32(out + 8, OriginalSize);
  PutLe32(out + 12, CompressedSize);
}

void BlockHeader::Load(const BYTE* in) {
  Signature = GetLe16(in);
  CompressType = GetLe16(in + 2);
  Crc = GetLe32(in + 4);
  OriginalSize = GetLe32(in + 8);
  CompressedSize = GetLe32(in + 12);
}

namespace {

// A destination block, or a counting sink when there is none.
void SetDestination(CFileIO& stream, BYTE* destination, DWORD capacity) {
  if (destination != nullptr)
    stream.SetMemory(destination, capacity);
  else
    stream.SetNull(capacity);
}

// Method 0: the CRC and count of the bytes copied from `in` to `out`.
bool CopyBlock(DWORD& error, CFileCRC& in, CFileIO& out, DWORD& crc, std::uint64_t& produced) {
  BYTE piece[BlockCopyPiece];
  if (!CopyStream(in, out, piece, BlockCopyPiece, error)) return false;
  crc = in.Crc;
  produced = out.Position.GetValue();
  return true;
}

// Method 1: an engine with the drivers' parameters and the bit stream's
// buffer (whose byte side the caller has set up).
bool PrepareEngine(DWORD& error, CEncodeDecode1& engine, CFileBit& bits) {
  if (!engine.Create(DriverDicBits, DriverMaxMatch) || !bits.Allocate()) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  return true;
}

// A large block is compressed on every core, into exactly the bytes one
// engine writes; false (nothing done) for a small block, one core, or when
// memory for the threads' engines is short.
bool CompressOnAllCores(const BYTE* source, DWORD size, BYTE* destination, DWORD capacity,
                        std::uint64_t& produced, bool& cut) {
  const unsigned cores = std::thread::hardware_concurrency();
  if (size < ParallelThreshold || cores < 2) return false;
  produced = 0;
  cut = false;
  return CompressParallel(source, size, cores, [&](const std::uint8_t* bytes, std::size_t count) {
    if (destination != nullptr) {
      const std::uint64_t room = produced < capacity ? capacity - produced : 0;
      std::memcpy(destination + produced, bytes,
                  static_cast<std::size_t>(std::min<std::uint64_t>(count, room)));
      if (count > room) cut = true;
    }
    produced += count;
    return true;
  });
}

} // namespace

BOOL CompressBlock(DWORD& error, const BYTE* source, DWORD sourceSize, BlockHeader& header,
                   BYTE* destination, DWORD capacity) {
  DWORD crc = 0;
  std::uint64_t produced = 0;
  bool cut = false;
  if (header.CompressType == MethodStored) {
    CFileCRC in;
    in.SetMemory(source, sourceSize);
    CFileIO out;
    SetDestination(out, destination, capacity);
    if (!CopyBlock(error, in, out, crc, produced)) return FALSE;
    cut = out.IsShort();
  } else if (header.CompressType == MethodFormat1 &&
             CompressOnAllCores(source, sourceSize, destination, capacity, produced, cut)) {
    crc = Crc32Update(0, source, sourceSize);
  } else if (header.CompressType == MethodFormat1) {
    CEncodeDecode1 engine;
    CFileBit out;
    SetDestination(out, destination, capacity);
    if (!PrepareEngine(error, engine, out)) return FALSE;
    const CArchiveSize limit(sourceSize);
    CFileNotifyCRC in(source, &limit);
    const BOOL ok = engine.Encode(&in, &out, &error);
    out.Finish();
    crc = in.Crc;
    produced = out.Position.GetValue();
    cut = out.IsShort();
    if (!ok) return FALSE;
  } else {
    error = ERROR_INVALID_DATATYPE;
    return FALSE;
  }
  // A block that does not fit is an error, never a silently shortened block.
  if (cut) {
    error = ERROR_INSUFFICIENT_BUFFER;
    return FALSE;
  }
  if (produced > 0xFFFFFFFFu) {
    error = ERROR_INVALID_USER_BUFFER;
    return FALSE;
  }
  header.Crc = crc;
  header.CompressedSize = static_cast<DWORD>(produced);
  return TRUE;
}

BOOL ExpandBlock(DWORD& error, const BlockHeader& header, const BYTE* data, BYTE* destination) {
  DWORD crc = 0;
  std::uint64_t produced = 0;
  if (header.CompressType == MethodStored) {
    CFileCRC in;
    in.SetMemory(data, header.CompressedSize);
    CFileIO out;
    out.SetMemory(destination, header.OriginalSize);
    if (!CopyBlock(error, in, out, crc, produced)) return FALSE;
  } else if (header.CompressType == MethodFormat1) {
    CEncodeDecode1 engine;
    CFileBit in;
    in.SetMemory(data, header.CompressedSize);
    if (!PrepareEngine(error, engine, in)) return FALSE;
    const CArchiveSize limit(header.OriginalSize);
    CFileNotifyCRC out(destination, &limit);
    const BOOL ok = engine.Decode(&out, &in, &error);
    in.Finish();
    crc = out.Crc;
    produced = out.Position.GetValue();
    if (!ok) return FALSE;
  } else {
    error = ERROR_INVALID_DATATYPE;
    return FALSE;
  }
  if (produced != header.OriginalSize) {
    error = ERROR_INVALID_USER_BUFFER;
    return FALSE;
  }
  if (crc != header.Crc) {
    error = ERROR_CRC;
    return FALSE;
  }
  return TRUE;
}

} // namespace talvern::engine
