// An entry's data between open files, memory and nowhere: what the archive
// object's compression members do, without their temporary files, for the
// adding and extracting operations when the host asked for direct transfer,
// and for compression away from the host's thread.
#pragma once

#include "engine/lz_engine.h"

#include <talvern/archive.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <vector>

class CEncodeDecode1;
struct EngineArrays;

namespace talvern::engine {

// The largest file that direct transfer and compression ahead hold in
// memory; larger ones go through a temporary file as usual.
constexpr std::uint64_t DirectTransferLimit = 8u << 20;

// Whom a driver tells of its progress: the archive object's CompressNotify
// (compressing) or ExpandNotify with these arguments and the running byte
// count. A null host hears nothing.
struct ProgressTarget {
  CArchiveFile* host = nullptr;
  const WCHAR* arg1 = nullptr;
  const WCHAR* arg2 = nullptr;
  const WCHAR* arg3 = nullptr;
  const CArchiveEntry* entry = nullptr;
  const CArchiveSize* size = nullptr;
  EngineArrays* arrays = nullptr; // where the engine's arrays are kept between entries
};

// Sets up a method-1 engine with the drivers' parameters to report to
// `target` with `count` as the running count, and tells the host of the
// start at once (its answer counts only from the first transfer on).
void PrepareEngine(CEncodeDecode1& engine, const ProgressTarget& target, CArchiveSize& count,
                   bool compressing);

// One file compressed with method 1 into memory, with what the host's
// progress hook would have heard: the byte count of every read of the
// source, in order.
struct CompressedData {
  std::vector<BYTE> bytes; // empty when the data went to a file
  // bytes are the file's own bytes, since the compressed data was no
  // smaller (only where the caller asked for them)
  bool original = false;
  std::uint64_t packed = 0; // bytes of compressed data
  std::vector<DWORD> reads;
  DWORD crc = 0;
  std::uint64_t bytesRead = 0;
};

// Compresses `size` bytes of the open file `source` into `out`. With a
// progress target the host hears of every read as the archive object's
// compressing member tells it (and may refuse: 1223); without one the
// reads are kept in `out.reads`. FALSE with the error code when the source
// cannot be read, memory is short or the host refused.
bool CompressToMemory(DWORD& error, HANDLE source, std::uint64_t size, CompressedData& out,
                      const ProgressTarget* progress = nullptr, EngineArrays* arrays = nullptr);

// As CompressToMemory without a host to tell, into the open file `target`
// from its current position; `out.bytes` stays empty.
bool CompressToFile(DWORD& error, HANDLE source, std::uint64_t size, HANDLE target,
                    CompressedData& out, EngineArrays* arrays = nullptr);

// Files compressed before, kept with their bytes: the engine's output and
// the reads it makes depend on nothing but the bytes it compresses, so a
// file with the same bytes as a kept one takes that one's data instead of
// being compressed again. Trees often hold copies (generated headers per
// platform, vendored libraries, backups of backups). A hit is decided by
// comparing the bytes themselves, never by a checksum alone. The oldest
// files go first when the kept bytes exceed the budget. Safe to share
// between threads.
class SeenData {
public:
  static constexpr std::uint64_t DefaultBudget = 8u << 20; // contents and compressed data
  static constexpr std::uint64_t Largest = 1u << 20;       // the largest file kept

  explicit SeenData(std::uint64_t budget = DefaultBudget) : budget_(budget) {}

  // The data kept for a file of exactly these bytes (whose CRC is `crc`),
  // copied into `out`; false when none is kept.
  bool Find(const BYTE* content, std::size_t size, DWORD crc, CompressedData& out);
  // Keeps `data` as what the engine makes of `content`.
  void Keep(std::vector<BYTE>&& content, DWORD crc, const CompressedData& data);
  void Clear();

private:
  struct Item {
    std::vector<BYTE> content;
    DWORD crc = 0;
    CompressedData data;
  };
  // What a file of `size` bytes with this data is counted for: its bytes
  // and what holding them costs, so that many tiny files are bounded too.
  static std::uint64_t Charge(std::size_t size, const CompressedData& data);
  static std::uint64_t Key(std::size_t size, DWORD crc) {
    return static_cast<std::uint64_t>(size) << 32 | crc;
  }
  std::mutex mutex_;
  std::deque<Item> items_; // oldest first; its elements stay where they are
  std::unordered_multimap<std::uint64_t, const Item*> index_; // by size and CRC
  std::uint64_t held_ = 0;
  std::uint64_t budget_;
};

// As CompressToMemory, but with `seen` (not null) a file of at most
// SeenData::Largest bytes is read whole first: when `seen` keeps its
// bytes, the kept data is taken and the host hears the calls the
// compression would have made; otherwise it is compressed from memory and
// kept. A read that fails or ends early ends the data there, as it does
// for the engine reading the file itself. With keepOriginal, data no
// smaller than a file read whole is replaced by the file's bytes (marked
// `original`), for a caller that then stores the file as it is.
bool CompressSeen(DWORD& error, HANDLE source, std::uint64_t size, CompressedData& out,
                  SeenData* seen, const ProgressTarget* progress = nullptr,
                  EngineArrays* arrays = nullptr, bool keepOriginal = false);

// Tells the host what compressing the file told it, in the same calls with
// the same counts, starting from 0. FALSE (the engine's 1223) when the host
// refused one: the calls that would have followed the refusal are left
// out, as the engine leaves them out, except its closing one.
bool ReplayCompressProgress(const ProgressTarget& target, const std::vector<DWORD>& reads);

// Where data decoded for testing goes: nowhere. Only its count, its CRC and
// the progress calls matter, so unlike a stream in null mode, whose
// positions are 32-bit addresses, it takes entries of any size.
class DiscardStream : public CFileNotifyCRC {
public:
  DiscardStream() : CFileNotifyCRC(INVALID_HANDLE_VALUE, nullptr) { SetNull(); }
  DWORD Write(const void* buffer, DWORD count) override {
    UpdateCrc(buffer, count);
    if (Position.Add(CArchiveSize(count))) LatchError(ERROR_SEEK_ON_DEVICE);
    Remaining.Sub(CArchiveSize(count));
    if (Target != nullptr) Target->WriteNotify(count);
    return count;
  }
};

// Where stored data comes from: a memory block, or an open file at its
// current position with `size` bytes to read.
struct StoredData {
  const BYTE* memory = nullptr;
  HANDLE file = INVALID_HANDLE_VALUE;
  std::uint64_t size = 0;
};

// Expands stored data of `method` into the open file `target`, or into
// nothing when `target` is INVALID_HANDLE_VALUE, with the progress calls
// and checks of the archive object's expanding member: 29 when the size
// differs from the entry's, 23 when the CRC differs from `crc`.
bool ExpandStored(DWORD& error, const ProgressTarget& progress, const StoredData& data,
                  HANDLE target, DWORD method, DWORD crc);

} // namespace talvern::engine
