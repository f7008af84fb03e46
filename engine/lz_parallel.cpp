// Compression of one block on several threads, byte for byte the stream of
// one engine (see lz_parallel.h and docs/compression.md).
#include "engine/lz_parallel.h"

#include "engine/lz_tree.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace talvern::engine {
namespace {

constexpr unsigned kN = DriverShape::n;
constexpr unsigned kMax = DriverShape::maxMatch;
constexpr unsigned kMin = DriverShape::minMatch;
constexpr unsigned kChains = CEncodeDecodeBase::ChainCount;
constexpr std::size_t kNodeBytes = 16 * std::size_t{kN} + 17408; // as the engine lays it out
constexpr std::size_t kInfoOffset = 12 * std::size_t{kN} + 2 * std::size_t{kChains};
constexpr std::size_t kTextBytes = 2 * std::size_t{kN} + kMax;
constexpr unsigned kPositionBits = 13;
constexpr std::uint32_t kEndCode = 0x1FF;
// Where a worker keeps copies of its engine: the first code boundary at or
// after these distances from its chunk's start.
constexpr std::size_t kCopyAt[] = {256, 1024, 4096, 16384, 65536};

// Bits written most significant first, as the format-1 coder packs them.
struct Bits {
  std::vector<std::uint8_t> bytes;
  std::uint64_t pending = 0; // the low `count` bits are not yet in a byte
  unsigned count = 0;

  void Put(unsigned n, std::uint32_t value) {
    pending = (pending << n) | value;
    count += n;
    while (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<std::uint8_t>(pending >> count));
    }
  }
  std::uint64_t Size() const { return bytes.size() * 8 + count; }
  void Clear() {
    bytes.clear();
    pending = 0;
    count = 0;
  }
  unsigned Bit(std::uint64_t i) const {
    if (i < bytes.size() * 8) return (bytes[i / 8] >> (7 - i % 8)) & 1u;
    return static_cast<unsigned>(pending >> (count - 1 - (i - bytes.size() * 8))) & 1u;
  }
  // Appends the bits [from, to) of other. Whole bytes go over a byte at a
  // time, shifted into place when this stream does not end on a byte.
  void Append(const Bits& other, std::uint64_t from, std::uint64_t to) {
    while (from < to && from % 8 != 0) Put(1, other.Bit(from++));
    const std::uint64_t whole = std::min<std::uint64_t>(to, other.bytes.size() * 8);
    if (from < whole) {
      const std::uint8_t* in = other.bytes.data() + from / 8;
      const std::size_t n = static_cast<std::size_t>((whole - from) / 8);
      const std::size_t old = bytes.size();
      bytes.resize(old + n);
      std::uint8_t* out = bytes.data() + old;
      if (count == 0) {
        std::memcpy(out, in, n);
      } else {
        const unsigned keep = 8 - count;
        unsigned carry = static_cast<unsigned>(pending & ((1u << count) - 1));
        for (std::size_t i = 0; i < n; ++i) {
          out[i] = static_cast<std::uint8_t>((carry << keep) | (in[i] >> count));
          carry = in[i] & ((1u << count) - 1);
        }
        pending = carry;
      }
      from += std::uint64_t{n} * 8;
    }
    while (from < to) Put(1, other.Bit(from++));
  }
};

// The data the engines read: all of it in memory, or a stretch of a stream
// held in a buffer that never moves while engines run. Between rounds the
// stretch is moved on (Hold); during a round the calling thread may read
// ahead into the room behind it (ReadAhead), which no engine looks at yet.
// Engines ask for bytes by their offsets in the data.
class Window {
public:
  Window(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  Window(std::size_t size, const ParallelSource& source, std::size_t room)
      : size_(size), source_(&source), room_(room), buffer_(new (std::nothrow) std::uint8_t[room]) {
    data_ = buffer_.get();
  }
  bool Ok() const { return source_ == nullptr || buffer_ != nullptr; }

  std::size_t Size() const { return size_; }
  const std::uint8_t* At(std::size_t offset) const { return data_ + (offset - base_); }

  // Keeps the bytes [from, to) (to cut at the data's end) and nothing
  // before `from`; false when the source failed. Only while no engine runs.
  bool Hold(std::size_t from, std::size_t to) {
    if (source_ == nullptr) return true;
    if (from > base_) {
      const std::size_t drop = std::min(from, base_ + filled_) - base_;
      std::memmove(buffer_.get(), buffer_.get() + drop, filled_ - drop);
      filled_ -= drop;
      base_ += drop;
    }
    return Read(std::min(to, size_));
  }

  // Reads on towards offset `to` a piece at a time while `more` says so and
  // the room lasts; false when the source failed.
  template <class More> bool ReadAhead(std::size_t to, More more) {
    if (source_ == nullptr) return true;
    to = std::min({to, size_, base_ + room_});
    constexpr std::size_t kPiece = std::size_t{128} << 10;
    while (base_ + filled_ < to && more())
      if (!Read(std::min(to, base_ + filled_ + kPiece))) return false;
    return true;
  }

private:
  // Reads the bytes up to offset `to`, which the room must hold.
  bool Read(std::size_t to) {
    const std::size_t have = base_ + filled_;
    if (to <= have) return true;
    if (to - base_ > room_ || !(*source_)(buffer_.get() + filled_, to - have)) return false;
    filled_ = to - base_;
    return true;
  }

  const std::uint8_t* data_ = nullptr;
  std::size_t base_ = 0; // the offset of data_[0]
  std::size_t size_;
  const ParallelSource* source_ = nullptr;
  std::size_t room_ = 0;
  std::size_t filled_ = 0;
  std::unique_ptr<std::uint8_t[]> buffer_;
};

// Bytes past an engine's code boundary that it may read before it stops at
// the next one: a match, a window's slide and a match again.
constexpr std::size_t kReadAhead = 2 * std::size_t{kN} + 2 * std::size_t{kMax};

// One engine over the data, with the one engine's loop taken a turn at a
// time. At the top of a turn (a code boundary) the tree holds
// every position up to the current one and the match found for it.
class Engine {
public:
  explicit Engine(const Window& input)
      : block_(new (std::nothrow) std::uint8_t[kNodeBytes]()),
        text_(new (std::nothrow) std::uint8_t[kTextBytes]()), input_(input), size_(input.Size()) {}
  bool Ok() const { return block_ && text_; }

  // As the one engine starts: spaces behind the first block, the first
  // position entered.
  void StartAtBeginning() {
    InitTree();
    origin_ = -static_cast<std::int64_t>(kN + kMax);
    t_.pos = kN + kMax;
    std::memset(text_.get() + t_.pos, 0x20, kN);
    const std::size_t got = std::min<std::size_t>(kN, size_);
    if (got != 0) std::memcpy(text_.get() + t_.pos, input_.At(0), got);
    readEnd_ = got;
    remainder_ = static_cast<unsigned>(got);
    EnterFirst();
  }

  // As the one engine stands right after its window slid for the position
  // at offset `at` (a multiple of 8192 less 256, at least 16128), but with
  // an empty tree: the text as it holds it then, bytes beyond the data
  // being those a block read earlier left there.
  void StartAt(std::size_t at) {
    InitTree();
    origin_ = static_cast<std::int64_t>(at) - kN;
    t_.pos = kN;
    for (std::size_t i = 0; i < kTextBytes; ++i) {
      std::size_t offset = static_cast<std::size_t>(origin_) + i;
      while (offset >= size_) offset -= kN;
      text_[i] = *input_.At(offset);
    }
    readEnd_ = std::min(size_, at + kN + kMax);
    remainder_ = static_cast<unsigned>(readEnd_ - at);
    EnterFirst();
  }

  // The offset of the current code boundary.
  std::size_t Boundary() const { return static_cast<std::size_t>(origin_ + t_.pos); }
  bool AtEnd() const { return remainder_ == 0; }
  // The offset of the next byte the engine reads.
  std::size_t ReadEnd() const { return readEnd_; }

  // Turns of the one engine's loop until the code boundary is at or beyond
  // `offset`, or the data ends: each writes a literal or a match (to bits,
  // when given) and enters the strings it covers. The loop works on a copy
  // of the tree's state, which stays in registers as in the one engine.
  void RunTo(std::size_t offset, Bits* bits) {
    Tree<DriverShape> t = t_;
    unsigned remainder = remainder_;
    const auto advance = [&] {
      ++t.pos;
      --remainder;
      if (t.pos == 2 * kN) Slide(t, remainder);
    };
    while (remainder != 0 && static_cast<std::size_t>(origin_ + t.pos) < offset) {
      unsigned lastLen = t.matchLen;
      const unsigned lastPos = t.matchPos;
      advance();
      UpdateTree(t);
      if (t.matchLen > remainder) t.matchLen = remainder;
      if (t.matchLen > lastLen || lastLen < kMin) {
        if (bits) bits->Put(9, text_[t.pos - 1]);
        continue;
      }
      if (bits)
        bits->Put(9 + kPositionBits,
                  ((lastLen - kMin + 256) << kPositionBits) | ((t.pos - lastPos - 2) & (kN - 1)));
      while (--lastLen != 0) {
        advance();
        UpdateTree(t);
      }
      if (t.matchLen > remainder) t.matchLen = remainder;
    }
    t_ = t;
    remainder_ = remainder;
  }

  // What decides the codes from the current boundary on, besides the data.
  struct Copy {
    std::size_t at = 0;
    std::uint64_t bit = 0; // where the codes from `at` on begin in the worker's bits
    unsigned pos = 0, matchLen = 0, matchPos = 0, remainder = 0;
    std::unique_ptr<std::uint8_t[]> block;
  };
  bool Keep(Copy& copy, std::uint64_t bit) const {
    if (!copy.block) copy.block.reset(new (std::nothrow) std::uint8_t[kNodeBytes]);
    if (!copy.block) return false;
    std::memcpy(copy.block.get(), block_.get(), kNodeBytes);
    copy.at = Boundary();
    copy.bit = bit;
    copy.pos = t_.pos;
    copy.matchLen = t_.matchLen;
    copy.matchPos = t_.matchPos;
    copy.remainder = remainder_;
    return true;
  }

  // Whether this engine writes from its boundary on what the engine copied
  // writes: same place, same match, and trees that pair up node for node in
  // level, child count and recent position (node numbers aside).
  bool SameAs(const Copy& copy) const {
    if (copy.at != Boundary() || copy.pos != t_.pos || copy.matchLen != t_.matchLen ||
        copy.matchPos != t_.matchPos || copy.remainder != remainder_)
      return false;
    const auto* a = reinterpret_cast<const WORD*>(block_.get());
    const auto* b = reinterpret_cast<const WORD*>(copy.block.get());
    const auto* ia = reinterpret_cast<const NodeData*>(block_.get() + kInfoOffset);
    const auto* ib = reinterpret_cast<const NodeData*>(copy.block.get() + kInfoOffset);
    const auto same = [](const NodeData& x, const NodeData& y) {
      return x.Level == y.Level && x.ChildCount == y.ChildCount && x.Position == y.Position;
    };
    for (unsigned root = kN; root < kN + 256; ++root)
      if (!same(ia[root], ib[root])) return false;
    std::vector<WORD> pair(kN, NIL), back(kN, NIL);
    for (unsigned leaf = kN; leaf < 2 * kN; ++leaf) {
      unsigned x = a[3 * leaf];
      unsigned y = b[3 * leaf];
      if (x == NIL || y == NIL) {
        // Not in the tree: forwarded to the newer leaf of the same string.
        if (x != y || a[3 * leaf + 2] != b[3 * leaf + 2]) return false;
        continue;
      }
      while (x < kN && y < kN) {
        if (pair[x] == NIL && back[y] == NIL) {
          if (!same(ia[x], ib[y])) return false;
          pair[x] = static_cast<WORD>(y);
          back[y] = static_cast<WORD>(x);
          x = a[3 * x];
          y = b[3 * y];
          continue;
        }
        if (pair[x] != y) return false;
        x = y = kN; // met before: the rest of the way up was compared then
      }
      if (x != y) return false; // the same root, or an internal node against a root
    }
    return true;
  }

private:
  void InitTree() {
    std::memset(block_.get(), 0, kNodeBytes);
    t_.links = Links{reinterpret_cast<WORD*>(block_.get()), 6 * kN};
    t_.info = reinterpret_cast<NodeData*>(block_.get() + kInfoOffset);
    t_.text = text_.get();
    for (unsigned c = 0; c < 256; ++c) {
      t_.info[kN + c].Level = 1;
      t_.info[kN + c].ChildCount = 0;
      t_.info[kN + c].Position = 0;
    }
    for (unsigned i = 0; i < kN; ++i) {
      t_.links.Parent(kN + i) = NIL;
      t_.links.Next(i) = static_cast<WORD>(i + 1);
    }
    t_.avail = 1;
    t_.matchPos = 0;
    t_.matchLen = 0;
  }
  void EnterFirst() {
    UpdateTree(t_);
    if (t_.matchLen > remainder_) t_.matchLen = remainder_;
  }
  // The window slides at its end as the one engine's does: the next block
  // of the data comes in behind the look-ahead.
  TALVERN_NOINLINE void Slide(Tree<DriverShape>& t, unsigned& remainder) {
    std::memmove(text_.get(), text_.get() + kN, std::size_t{kN} + kMax);
    const std::size_t got = std::min<std::size_t>(kN, size_ - readEnd_);
    if (got != 0) std::memcpy(text_.get() + kN + kMax, input_.At(readEnd_), got);
    readEnd_ += got;
    remainder += static_cast<unsigned>(got);
    t.pos = kN;
    origin_ += kN;
  }

  std::unique_ptr<std::uint8_t[]> block_;
  std::unique_ptr<std::uint8_t[]> text_;
  const Window& input_;
  std::size_t size_;
  Tree<DriverShape> t_{};
  std::int64_t origin_ = 0; // the offset of text index 0
  std::size_t readEnd_ = 0;
  unsigned remainder_ = 0;
};

// A chunk compressed by a primed engine, with its copies. Workers, their
// engines, copies and bit buffers serve round after round, so that their
// memory is allocated (and mapped by the system) once.
struct Worker {
  std::unique_ptr<Engine> engine;
  Bits bits;
  Engine::Copy copies[std::size(kCopyAt)];
  std::size_t kept = 0;
  bool ok = true;

  void Run(std::size_t start, std::size_t end, std::size_t history) {
    engine->StartAt(start - history);
    engine->RunTo(start, nullptr);
    for (const std::size_t distance : kCopyAt) {
      if (engine->AtEnd() || start + distance >= end) break;
      engine->RunTo(start + distance, &bits);
      if (engine->AtEnd()) break;
      if (!engine->Keep(copies[kept++], bits.Size())) {
        ok = false;
        return;
      }
    }
    engine->RunTo(end, &bits);
  }
};

bool Compress(Window& input, unsigned threads, const ParallelSink& sink, ParallelReport* report,
              ParallelShape shape) {
  const std::size_t size = input.Size();
  const std::size_t chunk = shape.chunk;
  const std::size_t history = shape.history;
  const bool shaped = chunk % kN == 0 && history % kN == 0 && history >= kN &&
                      chunk >= history + 2 * std::size_t{kN};
  // Every chunk but the first starts 256 bytes before a slide of the
  // window. In a round the exact engine's chunk is `lead` bytes longer than
  // a worker's, since a worker first primes its engine with `history`
  // bytes. The lead starts at half the history (the calling thread also
  // reads the next round's data while it would wait) and follows what the
  // rounds show: longer after a round where the exact engine waited for the
  // workers, shorter after one where they waited for it. Where chunks are
  // cut changes no bit of the output, only how the work is shared.
  const std::size_t maxLead = 2 * history;
  std::size_t lead = history / 2 / kN * kN;
  const auto exactEnd = [&](std::size_t from) {
    return from == 0 ? chunk + lead - kMax : from + chunk + lead;
  };
  const bool split = shaped && threads > 1;

  // The joined stream; its whole bytes go to the sink piece by piece.
  Bits result;
  const auto flush = [&](bool all) {
    if (result.bytes.empty() || (!all && result.bytes.size() < (std::size_t{1} << 16))) return true;
    const bool ok = sink(result.bytes.data(), result.bytes.size());
    result.bytes.clear();
    return ok;
  };
  auto exact = std::make_unique<Engine>(input);
  if (!exact->Ok()) return false;
  if (!input.Hold(0, kReadAhead)) return false;
  exact->StartAtBeginning();
  Bits exactBits;
  std::uint64_t exactFrom = 0;

  // Rounds while a worker's chunk starts before the data's end.
  std::vector<Worker> workers(split ? threads - 1 : 0);
  for (std::size_t from = 0; split && exactEnd(from) < size;) {
    std::vector<std::size_t> starts; // of the workers' chunks, then the round's end
    for (std::size_t at = exactEnd(from); at < size && starts.size() + 1 < threads; at += chunk)
      starts.push_back(at);
    const std::size_t roundEnd = std::min(starts.back() + chunk, size);
    starts.push_back(roundEnd);
    const std::size_t count = starts.size() - 1;
    for (std::size_t i = 0; i < count; ++i) {
      Worker& worker = workers[i];
      if (!worker.engine) worker.engine = std::make_unique<Engine>(input);
      if (!worker.engine->Ok()) return false;
      worker.bits.Clear();
      worker.kept = 0;
    }
    // What the round reads: the exact engine from where it stands, the
    // workers from their histories on, all of them up to the round's end.
    if (!input.Hold(std::min(exact->ReadEnd(), starts[0] - history - kN), roundEnd + kReadAhead))
      return false;
    // The calling thread, done with its chunk before the workers, reads the
    // next round's data meanwhile.
    bool readOk = true;
    {
      std::atomic<std::size_t> busy{count};
      std::vector<std::thread> running;
      for (std::size_t i = 0; i < count; ++i)
        running.emplace_back([&, i] {
          workers[i].Run(starts[i], starts[i + 1], history);
          busy.fetch_sub(1, std::memory_order_release);
        });
      exact->RunTo(starts[0], &exactBits);
      const bool workersFirst = busy.load(std::memory_order_acquire) == 0;
      readOk = input.ReadAhead(exactEnd(roundEnd) + (threads - 1) * chunk + kReadAhead,
                               [&] { return busy.load(std::memory_order_acquire) != 0; });
      const bool exactWaits = busy.load(std::memory_order_acquire) != 0;
      for (std::thread& thread : running) thread.join();
      if (exactWaits && lead + kN <= maxLead)
        lead += kN;
      else if (workersFirst && lead >= kN)
        lead -= kN;
    }
    if (!readOk) return false;
    // Join the workers in order to the exact engine.
    for (std::size_t i = 0; i < count; ++i) {
      Worker& worker = workers[i];
      if (!worker.ok) return false;
      if (report) ++report->chunks;
      const Engine::Copy* agreed = nullptr;
      for (std::size_t c = 0; c < worker.kept; ++c) {
        const Engine::Copy& copy = worker.copies[c];
        exact->RunTo(copy.at, &exactBits);
        if (exact->SameAs(copy)) {
          agreed = &copy;
          break;
        }
      }
      if (agreed) {
        result.Append(exactBits, exactFrom, exactBits.Size());
        if (!flush(false)) return false;
        // The worker's engine and bits go on as the exact ones; the old
        // ones serve a worker next round.
        std::swap(exact, worker.engine);
        std::swap(exactBits, worker.bits);
        exactFrom = agreed->bit;
      } else {
        if (report) ++report->redone;
        exact->RunTo(starts[i + 1], &exactBits);
      }
    }
    // The exact engine stands at the end of the last chunk of this round:
    // it compresses the next chunk itself while workers take the ones after.
    from = roundEnd;
  }
  // The rest, on this thread, passed on a chunk at a time.
  for (;;) {
    const std::size_t to = exact->Boundary() + (shaped ? chunk : std::size_t{1} << 20);
    if (!input.Hold(exact->ReadEnd(), to + kReadAhead)) return false;
    exact->RunTo(to, &exactBits);
    result.Append(exactBits, exactFrom, exactBits.Size());
    exactBits = Bits();
    exactFrom = 0;
    if (!flush(false)) return false;
    if (exact->AtEnd()) break;
  }
  result.Put(9, kEndCode);
  if (result.count != 0) result.Put(8 - result.count, 0);
  return flush(true);
}

} // namespace

bool CompressParallel(const std::uint8_t* input, std::size_t size, unsigned threads,
                      const ParallelSink& sink, ParallelReport* report, ParallelShape shape) {
  Window window(input, size);
  return Compress(window, threads, sink, report, shape);
}

bool CompressParallel(std::size_t size, const ParallelSource& source, unsigned threads,
                      const ParallelSink& sink, ParallelReport* report, ParallelShape shape) {
  // A round holds a chunk per thread, the exact engine's lead (at most two
  // histories), the first worker's history and what the engines read past
  // the round's end; the next round is read into the room behind it.
  const std::size_t room =
      2 * std::size_t{std::max(threads, 1u)} * std::max(shape.chunk, std::size_t{1} << 20) +
      5 * shape.history + std::size_t{kN} + 2 * kReadAhead;
  Window window(size, source, std::min(room, size));
  if (!window.Ok()) return false;
  return Compress(window, threads, sink, report, shape);
}

} // namespace talvern::engine
