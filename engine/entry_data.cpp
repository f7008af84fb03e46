// An entry's data between open files, memory and nowhere, with the progress
// calls and checks of the archive object's compression members.
#include "engine/entry_data.h"

#include "engine/bitstream.h"
#include "engine/block.h"
#include "engine/code_format1.h"
#include "engine/lz_engine.h"

#include <cstring>
#include <memory>
#include <new>

namespace talvern::engine {
namespace {

// Reads of stored data from a file go through pieces of this size.
constexpr DWORD kFilePiece = 65536;

std::uint64_t OriginalSize(const CArchiveEntry& entry) {
  return static_cast<std::uint64_t>(entry.FindData.nFileSizeHigh) << 32 |
         entry.FindData.nFileSizeLow;
}

// A notifying source that also keeps the byte count of every read: the
// engine tells its host of each read as it happens (when it has a host),
// and the counts are there for telling later.
class CountingSource : public CFileNotifyCRC {
public:
  CountingSource(std::vector<DWORD>& reads, HANDLE file, const BYTE* memory,
                 const CArchiveSize* limit)
      : CFileNotifyCRC(file, limit), reads_(reads) {
    if (memory != nullptr) SetMemory(memory, limit->GetValue());
  }
  DWORD Read(void* buffer, DWORD count) override {
    const DWORD n = CFileNotifyCRC::Read(buffer, count);
    reads_.push_back(n);
    return n;
  }

private:
  std::vector<DWORD>& reads_;
};

void SetSource(CFileIO& stream, const StoredData& data) {
  if (data.memory != nullptr)
    stream.SetMemory(data.memory, data.size);
  else
    stream.SetFile(data.file, data.size);
}

} // namespace

void PrepareEngine(CEncodeDecode1& engine, const ProgressTarget& target, CArchiveSize& count,
                   bool compressing) {
  engine.Keeper = target.arrays;
  engine.Create(DriverDicBits, DriverMaxMatch);
  engine.Host = target.host;
  engine.NotifyArg1 = target.arg1;
  engine.NotifyArg2 = target.arg2;
  engine.NotifyArg3 = target.arg3;
  engine.NotifyEntry = target.entry;
  engine.NotifySize = target.size;
  engine.NotifyCount = &count;
  engine.Compressing = compressing ? 1 : 0;
  engine.ReadNotify(0);
  engine.WriteNotify(0);
}

namespace {

// Method 1 from `source` (an open file, or `memory` when not null) into
// memory (`target` invalid) or into the open file `target`; see
// CompressToMemory. The reads are kept in `out.reads` also when the host
// hears of them as they happen.
bool CompressInto(DWORD& error, HANDLE source, const BYTE* memory, std::uint64_t size,
                  HANDLE target, CompressedData& out, const ProgressTarget* progress,
                  EngineArrays* arrays) {
  CEncodeDecode1 engine;
  CArchiveSize count(0);
  if (progress != nullptr) {
    PrepareEngine(engine, *progress, count, true);
  } else {
    engine.Keeper = arrays;
    engine.Create(DriverDicBits, DriverMaxMatch);
  }
  if (!engine.IsCreated()) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  const bool toMemory = target == INVALID_HANDLE_VALUE;
  // Nine bits for a literal is the most any byte costs; the end code and
  // the last partial byte fit in the slack.
  const std::uint64_t capacity = size + size / 8 + 64;
  try {
    out.bytes.resize(toMemory ? static_cast<std::size_t>(capacity) : 0);
    out.original = false;
    out.reads.clear();
    out.reads.reserve(static_cast<std::size_t>(size / 8192 + 4));
  } catch (const std::bad_alloc&) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  CFileBit bits;
  if (toMemory)
    bits.SetMemory(out.bytes.data(), capacity);
  else
    bits.SetFile(target);
  if (!bits.Allocate()) {
    error = ERROR_OUTOFMEMORY;
    return false;
  }
  const CArchiveSize limit(size);
  CountingSource stream(out.reads, source, memory, &limit);
  stream.Target = &engine;
  DWORD e = ERROR_SUCCESS;
  const BOOL done = engine.Encode(&stream, &bits, &e);
  bits.Finish();
  if (!done) {
    error = e != ERROR_SUCCESS ? e : ERROR_GEN_FAILURE;
    return false;
  }
  out.packed = bits.Position.GetValue();
  if (toMemory) out.bytes.resize(static_cast<std::size_t>(out.packed));
  out.crc = stream.Crc;
  out.bytesRead = stream.Position.GetValue();
  return true;
}

} // namespace

bool CompressToMemory(DWORD& error, HANDLE source, std::uint64_t size, CompressedData& out,
                      const ProgressTarget* progress, EngineArrays* arrays) {
  return CompressInto(error, source, nullptr, size, INVALID_HANDLE_VALUE, out, progress,
                      progress != nullptr ? progress->arrays : arrays);
}

bool CompressToFile(DWORD& error, HANDLE source, std::uint64_t size, HANDLE target,
                    CompressedData& out, EngineArrays* arrays) {
  return CompressInto(error, source, nullptr, size, target, out, nullptr, arrays);
}

std::uint64_t SeenData::Charge(std::size_t size, const CompressedData& data) {
  return size + data.bytes.size() + data.reads.size() * sizeof(DWORD) + sizeof(Item) + 64;
}

bool SeenData::Find(const BYTE* content, std::size_t size, DWORD crc, CompressedData& out) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto [first, last] = index_.equal_range(Key(size, crc));
  for (auto at = first; at != last; ++at) {
    const Item& item = *at->second;
    if (size != 0 && std::memcmp(item.content.data(), content, size) != 0) continue;
    try {
      out = item.data;
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  return false;
}

void SeenData::Keep(std::vector<BYTE>&& content, DWORD crc, const CompressedData& data) {
  const std::uint64_t charge = Charge(content.size(), data);
  if (charge > budget_) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  // When memory is short nothing is kept: the file is compressed again
  // when met again.
  try {
    items_.push_back(Item{std::move(content), crc, data});
  } catch (const std::bad_alloc&) {
    return;
  }
  try {
    index_.emplace(Key(items_.back().content.size(), crc), &items_.back());
  } catch (const std::bad_alloc&) {
    items_.pop_back();
    return;
  }
  held_ += charge;
  while (held_ > budget_) {
    const Item& oldest = items_.front();
    const auto [first, last] = index_.equal_range(Key(oldest.content.size(), oldest.crc));
    for (auto at = first; at != last; ++at)
      if (at->second == &oldest) {
        index_.erase(at);
        break;
      }
    held_ -= Charge(oldest.content.size(), oldest.data);
    items_.pop_front();
  }
}

void SeenData::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  index_.clear();
  items_.clear();
  held_ = 0;
}

bool CompressSeen(DWORD& error, HANDLE source, std::uint64_t size, CompressedData& out,
                  SeenData* seen, const ProgressTarget* progress, EngineArrays* arrays,
                  bool keepOriginal) {
  if (seen == nullptr || size == 0 || size > SeenData::Largest)
    return CompressToMemory(error, source, size, out, progress, arrays);
  std::vector<BYTE> content;
  try {
    content.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    return CompressToMemory(error, source, size, out, progress, arrays);
  }
  // Read as the engine reads (a failed read gives nothing more), with the
  // CRC that finds the file among the kept ones.
  CFileCRC whole;
  whole.SetFile(source, size);
  const DWORD got = whole.Read(content.data(), static_cast<DWORD>(size));
  const DWORD crc = whole.Crc;
  if (got == content.size() && seen->Find(content.data(), got, crc, out) &&
      (keepOriginal || !out.original)) {
    if (progress != nullptr && !ReplayCompressProgress(*progress, out.reads)) {
      error = ERROR_CANCELLED;
      return false;
    }
    return true;
  }
  if (!CompressInto(error, INVALID_HANDLE_VALUE, content.data(), got, INVALID_HANDLE_VALUE, out,
                    progress, progress != nullptr ? progress->arrays : arrays))
    return false;
  if (got != content.size()) return true;
  if (keepOriginal && out.bytes.size() >= got) {
    try {
      out.bytes = content;
      out.original = true;
    } catch (const std::bad_alloc&) {
      // The compressed data stays; the caller reads the file again.
    }
  }
  seen->Keep(std::move(content), crc, out);
  return true;
}

bool ReplayCompressProgress(const ProgressTarget& target, const std::vector<DWORD>& reads) {
  // The engine itself tells the host, so that the calls and their counts
  // are those of a compression on this thread; it is destroyed with one
  // last call, as after a compression.
  CEncodeDecode1 engine;
  CArchiveSize count(0);
  PrepareEngine(engine, target, count, true);
  engine.Aborted = 0;
  for (const DWORD n : reads) {
    engine.ReadNotify(n);
    if (engine.Aborted) return false;
  }
  return true;
}

bool ExpandStored(DWORD& error, const ProgressTarget& progress, const StoredData& data,
                  HANDLE target, DWORD method, DWORD crc) {
  CArchiveSize count(0);
  DWORD sum = 0;
  DWORD e = ERROR_SUCCESS;
  bool ok = false;
  if (method == MethodFormat1) {
    CEncodeDecode1 engine;
    PrepareEngine(engine, progress, count, false);
    CFileBit bits;
    SetSource(bits, data);
    if (!bits.Allocate(data.memory != nullptr ? CFileBit::DefaultBufferSize : kFilePiece)) {
      error = ERROR_OUTOFMEMORY;
      return false;
    }
    CFileNotifyCRC written(target, nullptr);
    DiscardStream discarded;
    CFileNotifyCRC& stream = target == INVALID_HANDLE_VALUE ? discarded : written;
    stream.Target = &engine;
    ok = engine.Decode(&stream, &bits, &e) != FALSE;
    sum = stream.Crc;
    bits.Finish();
  } else if (method == MethodStored) {
    std::unique_ptr<BYTE[]> piece(new (std::nothrow) BYTE[kFilePiece]);
    if (!piece) {
      error = ERROR_OUTOFMEMORY;
      return false;
    }
    CFileCRC source;
    SetSource(source, data);
    CFileIO written;
    written.SetFile(target);
    DiscardStream discarded;
    CFileIO& output = target == INVALID_HANDLE_VALUE ? static_cast<CFileIO&>(discarded) : written;
    ok = CopyStream(source, output, piece.get(), kFilePiece, e) != FALSE;
    sum = source.Crc;
    count = output.Position;
  } else {
    e = ERROR_INVALID_DATATYPE;
  }
  if (!ok) {
    error = e != ERROR_SUCCESS ? e : ERROR_GEN_FAILURE;
    return false;
  }
  if (count.GetValue() != OriginalSize(*progress.entry)) {
    error = ERROR_WRITE_FAULT;
    return false;
  }
  if (sum != crc) {
    error = ERROR_CRC;
    return false;
  }
  return true;
}

} // namespace talvern::engine
