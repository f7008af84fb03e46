// The LZ engine: dictionary tree, compression and expansion loops, progress.
#include "engine/lz_engine.h"

#include "engine/code_format1.h"
#include "engine/lz_tree.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <typeinfo>

using namespace talvern::engine;

namespace {

inline std::uint64_t LoadBe64(const BYTE* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  if constexpr (std::endian::native == std::endian::little) {
#if defined(__GNUC__) || defined(__clang__)
    v = __builtin_bswap64(v);
#else
    v = (v >> 56) | ((v >> 40) & 0xFF00u) | ((v >> 24) & 0xFF0000u) | ((v >> 8) & 0xFF000000u) |
        ((v << 8) & 0xFF00000000ull) | ((v << 24) & 0xFF0000000000ull) |
        ((v << 40) & 0xFF000000000000ull) | (v << 56);
#endif
  }
  return v;
}

} // namespace

// ---- The notifying stream --------------------------------------------------------

CFileNotifyCRC::CFileNotifyCRC(HANDLE handle, const CArchiveSize* limit) {
  SetFile(handle, limit ? limit->GetValue() : NoLimit);
}

CFileNotifyCRC::CFileNotifyCRC(BYTE* memory, const CArchiveSize* limit) {
  SetMemory(memory, limit ? limit->GetValue() : NoLimit);
}

CFileNotifyCRC::CFileNotifyCRC(const BYTE* memory, const CArchiveSize* limit) {
  SetMemory(memory, limit ? limit->GetValue() : NoLimit);
}

CFileNotifyCRC::~CFileNotifyCRC() { Target = nullptr; }

DWORD CFileNotifyCRC::Read(void* buffer, DWORD count) {
  const DWORD n = CFileIO::Read(buffer, count);
  UpdateCrc(buffer, n);
  if (Target != nullptr) Target->ReadNotify(n);
  return n;
}

DWORD CFileNotifyCRC::Write(const void* buffer, DWORD count) {
  UpdateCrc(buffer, count);
  const DWORD n = CFileIO::Write(buffer, count);
  if (Target != nullptr) Target->WriteNotify(n);
  return n;
}

// ---- Expansion window ------------------------------------------------------------------

// The circular window of the expansion loop: 2N bytes, handed on to the
// destination whenever the write position comes round to its start.
struct DecodeWindow {
  BYTE* text;
  DWORD size; // 2N
  DWORD wrap; // 2N - 1
  DWORD pos;
  DWORD minMatch;
  CFileIO* destination;

  void Emit() {
    destination->Write(text, size);
    pos = 0;
  }
  // Both return true when the full window was handed on.
  bool Literal(BYTE value) {
    text[pos++] = value;
    if (pos != size) return false;
    Emit();
    return true;
  }
  bool Match(WORD code, WORD field) {
    DWORD length = static_cast<WORD>(code - 256 + minMatch);
    DWORD from = (pos + size - 1 - (field & wrap)) & wrap;
    // Bytes are copied oldest first, so a match may repeat what it is
    // producing. Away from the window's end the copy goes eight bytes at a
    // time where that gives the same bytes, and may write up to seven bytes
    // past the match: those lie ahead of the write position, which no
    // position field below N reaches, and they are written again before
    // they are handed on.
    if (field < (size >> 1) && pos + length + 8 <= size && from + length + 8 <= size) {
      BYTE* const to = text + pos;
      const BYTE* const at = text + from;
      const DWORD distance = pos > from ? pos - from : from - pos;
      if (distance >= 8) {
        for (DWORD i = 0; i < length; i += 8) std::memcpy(to + i, at + i, 8);
      } else if (distance == 1) {
        std::memset(to, *at, length);
      } else {
        for (DWORD i = 0; i < length; ++i) to[i] = at[i];
      }
      pos += length;
      return false;
    }
    bool emitted = false;
    while (length-- != 0) {
      text[pos++] = text[from++];
      from &= wrap;
      if (pos == size) {
        Emit();
        emitted = true;
      }
    }
    return emitted;
  }
};

// ---- Coders: how the loops reach the code format -----------------------------------

// Any code format, through the virtual operations.
struct VirtualCoder {
  static constexpr bool HasBulk = false;
  CEncodeDecodeBase* engine;
  CFileBit* bits;

  bool Start(DWORD& e) { return engine->EncodeStart(bits, &e) != FALSE; }
  bool End(DWORD& e) { return engine->EncodeEnd(bits, &e) != FALSE; }
  bool Char(DWORD& e, WORD value) { return engine->EncodeChar(bits, &e, value) != FALSE; }
  bool Match(DWORD& e, WORD code, WORD position) {
    return engine->EncodeMatch(bits, &e, code, position) != FALSE;
  }
  bool Aborted() const { return engine->IsAborted() != FALSE; }
  int Code(DWORD& e, WORD& code, WORD& position) {
    return engine->DecodeCode(bits, &e, &code, &position);
  }
  int Bulk(DecodeWindow&) { return 0; }
};

// Code format 1 on a plain CFileBit, with the calls resolved at compile time.
// It produces and consumes exactly the bits that CEncodeDecode1 does through
// the virtual operations. Expanding, it takes whole runs of codes straight
// out of the bit stream's buffer and leaves the last few bytes of every
// buffer (and so every refill) to the exact bit-by-bit rules.
struct FormatOneCoder {
  static constexpr bool HasBulk = true;
  CEncodeDecodeBase* engine;
  CFileBit* bits;
  unsigned dicBits;
  DWORD dicMask;

  // Compressing, the pending bits and the buffer's fill live here and go
  // back into the bit stream at the end (or when the buffer is handed on).
  std::uint64_t pending = 0; // the low `count` bits are not yet in a byte
  unsigned count = 0;
  DWORD fill = 0;

  bool Start(DWORD&) {
    count = bits->WriteBitCount;
    pending = static_cast<std::uint64_t>(bits->WriteByte) >> (8 - count);
    fill = bits->WriteFill;
    return true;
  }
  void Put(unsigned n, DWORD value) {
    pending = (pending << n) | value;
    count += n;
    CFileBit& b = *bits;
    while (count >= 8) {
      count -= 8;
      if (fill == b.BufferSize) {
        b.WriteFill = fill;
        b.Write(b.Buffer.get(), fill);
        fill = b.WriteFill = 0;
      }
      b.Buffer[fill++] = static_cast<BYTE>(pending >> count);
    }
  }
  bool End(DWORD&) {
    Put(9, CEncodeDecode1::EndCode);
    CFileBit& b = *bits;
    b.WriteFill = fill;
    b.WriteBitCount = static_cast<BYTE>(count);
    b.WriteByte = static_cast<BYTE>(count != 0 ? pending << (8 - count) : 0);
    return true;
  }
  bool Char(DWORD&, WORD value) {
    Put(9, value & 0x1FFu);
    return true;
  }
  bool Match(DWORD&, WORD code, WORD position) {
    Put(9 + dicBits, (static_cast<DWORD>(code & 0x1FF) << dicBits) | (position & dicMask));
    return true;
  }
  bool Aborted() const { return engine->Aborted != 0; }
  int Code(DWORD& e, WORD& code, WORD& position) {
    return engine->DecodeCode(bits, &e, &code, &position);
  }

  // Decodes codes that lie wholly inside the buffer (with eight bytes to
  // spare) into the window. Returns 0 at the buffer's edge, 1 when the
  // window was handed on (the loop then checks its stop conditions again)
  // and -1 at the end code.
  int Bulk(DecodeWindow& window) {
    CFileBit& b = *bits;
    if ((b.Flags & CFileIO::StreamShort) != 0 || b.WriteBitCount != 0 || b.WriteFill != 0 ||
        (b.ReadBitCount != 0 && b.ReadIndex == 0))
      return 0;
    // The unread bits begin ReadBitCount bits before byte ReadIndex: the
    // partial byte in ReadByte is the tail of Buffer[ReadIndex - 1].
    const BYTE* const buffer = b.Buffer.get();
    const std::size_t fill = b.ReadFill;
    const std::size_t start = std::size_t{8} * b.ReadIndex - b.ReadBitCount;
    std::size_t bitpos = start;
    int status = 0;
    while ((bitpos >> 3) + 8 <= fill) {
      const std::uint64_t word = LoadBe64(buffer + (bitpos >> 3)) << (bitpos & 7);
      const unsigned value = static_cast<unsigned>(word >> 55);
      if (value < 0x100) {
        bitpos += 9;
        if (window.Literal(static_cast<BYTE>(value))) {
          status = 1;
          break;
        }
        continue;
      }
      if (value == CEncodeDecode1::EndCode) {
        bitpos += 9;
        status = -1;
        break;
      }
      const WORD field = static_cast<WORD>((word >> (55 - dicBits)) & dicMask);
      bitpos += 9 + dicBits;
      if (window.Match(static_cast<WORD>(value), field)) {
        status = 1;
        break;
      }
    }
    if (bitpos != start) {
      const DWORD next = static_cast<DWORD>((bitpos + 7) >> 3);
      const unsigned left = static_cast<unsigned>(next * 8 - bitpos);
      b.ReadIndex = next;
      b.ReadBitCount = static_cast<BYTE>(left);
      b.ReadByte = left != 0 ? static_cast<BYTE>(buffer[next - 1] << (8 - left)) : BYTE{0};
    }
    return status;
  }
};

// ---- Life cycle ---------------------------------------------------------------------

CEncodeDecodeBase::CEncodeDecodeBase() = default;

CEncodeDecodeBase::~CEncodeDecodeBase() {
  CEncodeDecodeBase::Destroy();
  // The host hears once more; its answer no longer matters.
  ReadNotify(0);
  WriteNotify(0);
  Host = nullptr;
}

BOOL CEncodeDecodeBase::Create(BYTE dicBits, WORD maxMatch) {
  Destroy();
  DicBits = dicBits;
  MaxMatch = maxMatch;
  DicSize = static_cast<WORD>(1u << (dicBits & 15));
  DicMask = static_cast<WORD>(DicSize - 1);
  HashSize = 8192;
  HashMask = 0x1FFF;
  HashBits = 13;
  HashShift = 5;
  // Node numbers, positions and links are 16-bit, with bit 15 of a position
  // kept for a flag, and levels are 8-bit: that bounds both parameters.
  if (dicBits < 9 || dicBits > 13 || maxMatch <= MinMatch || maxMatch > 256) return FALSE;
  const std::size_t n = DicSize;
  const std::size_t nodeBytes = 16 * n + 17408;
  const std::size_t textBytes = maxMatch + 2 * n;
  if (Keeper != nullptr && Keeper->NodeBlock && Keeper->NodeBytes == nodeBytes &&
      Keeper->TextBytes == textBytes) {
    // The node block is set up by each compression for what it uses, as
    // after a first allocation (whose zeros nothing relies on).
    NodeBlock = std::move(Keeper->NodeBlock);
    Text = std::move(Keeper->Text);
    std::fill_n(Text.get(), textBytes, BYTE{0});
  } else {
    NodeBlock.reset(new (std::nothrow) BYTE[nodeBytes]());
    Text.reset(new (std::nothrow) BYTE[textBytes]());
  }
  if (!NodeBlock || !Text) {
    Destroy();
    return FALSE;
  }
  // The node records, then the chain heads, then the node data.
  Nodes = reinterpret_cast<Node*>(NodeBlock.get());
  HashHeads = reinterpret_cast<WORD*>(NodeBlock.get() + 12 * n);
  NodeInfo = reinterpret_cast<NodeData*>(NodeBlock.get() + 12 * n + 2 * std::size_t{HashSize});
  return TRUE;
}

void CEncodeDecodeBase::Destroy() {
  if (Keeper != nullptr && NodeBlock && Text) {
    Keeper->NodeBytes = 16 * std::size_t{DicSize} + 17408;
    Keeper->TextBytes = MaxMatch + 2 * std::size_t{DicSize};
    Keeper->NodeBlock = std::move(NodeBlock);
    Keeper->Text = std::move(Text);
  }
  NodeBlock.reset();
  Text.reset();
  Nodes = nullptr;
  NodeInfo = nullptr;
  HashHeads = nullptr;
}

BOOL CEncodeDecodeBase::IsCreated() const { return NodeBlock && Text ? TRUE : FALSE; }

BOOL CEncodeDecodeBase::IsAborted() const { return Aborted; }

// ---- Progress -------------------------------------------------------------------------

void CEncodeDecodeBase::ReadNotify(DWORD count) {
  if (Host != nullptr && Compressing == 1) Notify(count, true);
}

void CEncodeDecodeBase::WriteNotify(DWORD count) {
  if (Host != nullptr && Compressing == 0) Notify(count, false);
}

void CEncodeDecodeBase::Notify(DWORD count, bool compressing) {
  if (NotifyCount == nullptr || NotifyEntry == nullptr || NotifySize == nullptr) return;
  if (count != 0) NotifyCount->Add(CArchiveSize(count));
  const int go = compressing ? Host->CompressNotify(NotifyArg1, NotifyArg2, NotifyArg3,
                                                    *NotifyEntry, *NotifyCount, *NotifySize)
                             : Host->ExpandNotify(NotifyArg1, NotifyArg2, NotifyArg3, *NotifyEntry,
                                                  *NotifyCount, *NotifySize);
  if (!go) Aborted = 1;
}

// ---- File entry points ------------------------------------------------------------------

BOOL CEncodeDecodeBase::EncodeFile(HANDLE source, CFileBit* destination, DWORD* crc, DWORD* error,
                                   BOOL notify, const CArchiveSize* limit) {
  return OnFile(source, destination, crc, error, notify, limit, true);
}

BOOL CEncodeDecodeBase::DecodeFile(HANDLE destination, CFileBit* source, DWORD* crc, DWORD* error,
                                   BOOL notify, const CArchiveSize* limit) {
  return OnFile(destination, source, crc, error, notify, limit, false);
}

// Runs a loop with a notifying stream on the file, which continues the CRC
// passed in and hands the new one back.
BOOL CEncodeDecodeBase::OnFile(HANDLE file, CFileBit* bits, DWORD* crc, DWORD* error, BOOL notify,
                               const CArchiveSize* limit, bool encoding) {
  CFileNotifyCRC stream(file, limit);
  if (crc != nullptr) stream.Crc = *crc;
  stream.Target = notify ? this : nullptr;
  const BOOL result = encoding ? Encode(&stream, bits, error) : Decode(&stream, bits, error);
  if (crc != nullptr) *crc = stream.Crc;
  return result;
}

namespace {

Links LinksOf(const CEncodeDecodeBase& engine) {
  WORD* const words = reinterpret_cast<WORD*>(engine.NodeBlock.get());
  return Links{words, static_cast<unsigned>(engine.HashHeads - words)};
}

} // namespace

void CEncodeDecodeBase::InitTree(unsigned positions) {
  const unsigned n = DicSize;
  for (unsigned c = 0; c < 256; ++c) {
    NodeInfo[n + c].Level = 1;
    NodeInfo[n + c].ChildCount = 0;
    NodeInfo[n + c].Position = 0;
  }
  Avail = 1;
  // A position looks at no leaf but its own and those already entered, and
  // takes at most one internal node. When every position lies in the first
  // window (no slide), the leaves from the first position on and one free
  // node per position are all the tree reaches: a small file sets up that
  // much, not the whole block.
  const unsigned first = n + MaxMatch;
  const bool oneWindow = positions < 2 * n - first;
  const unsigned leaves = oneWindow ? positions : n;
  const unsigned leaf = oneWindow ? first : n;
  for (unsigned i = 0; i < leaves; ++i) Nodes[leaf + i].Parent = NIL;
  const unsigned free = oneWindow ? positions + 1 : n;
  for (unsigned i = 0; i < free; ++i) Nodes[i].Next = static_cast<WORD>(i + 1);
  // (HashSize read once: the stores could otherwise be taken to change it.)
  std::fill_n(HashHeads, std::size_t{HashSize}, NIL);
}

void CEncodeDecodeBase::UpdateDictionary() {
  Tree<AnyShape> t;
  t.n = DicSize;
  t.maxMatch = MaxMatch;
  t.minMatch = MinMatch;
  t.links = LinksOf(*this);
  t.info = NodeInfo;
  t.text = Text.get();
  t.pos = Pos;
  t.matchPos = MatchPos;
  t.matchLen = MatchLen;
  t.avail = Avail;
  UpdateTree(t);
  MatchPos = static_cast<WORD>(t.matchPos);
  MatchLen = static_cast<WORD>(t.matchLen);
  Avail = static_cast<WORD>(t.avail);
}

// The result of a loop that ran to its end: the end operation's failure
// (with the code it stored), else the destination's latched error, else an
// abort (1223). The error value is stored on every path; on success it is
// the one the caller gave.
BOOL CEncodeDecodeBase::Conclude(bool endOk, const CFileIO* destination, DWORD e,
                                 DWORD* error) const {
  BOOL result = FALSE;
  if (!endOk) {
    result = FALSE;
  } else if (destination->HasError()) {
    e = destination->Error;
  } else if (IsAborted()) {
    e = ERROR_CANCELLED;
  } else {
    result = TRUE;
  }
  if (error != nullptr) *error = e;
  return result;
}

// ---- Compression -----------------------------------------------------------------------

template <class Coder, class Shape>
BOOL CEncodeDecodeBase::EncodeLoop(Coder& coder, CFileIO* source, CFileBit* destination,
                                   DWORD* error, Shape shape) {
  DWORD e = error != nullptr ? *error : 0;
  const unsigned n = shape.n;
  const unsigned maxMatch = shape.maxMatch;
  const unsigned minMatch = shape.minMatch;
  const unsigned dicMask = n - 1;
  BYTE* const text = Text.get();
  Aborted = 0;
  TextEnd = static_cast<WORD>(2 * n);
  const unsigned textEnd = TextEnd;
  Tree<Shape> t;
  static_cast<Shape&>(t) = shape;
  t.links = Links{reinterpret_cast<WORD*>(NodeBlock.get()), 6 * n};
  t.info = NodeInfo;
  t.text = text;
  t.pos = n + maxMatch;
  t.matchPos = 0;
  t.matchLen = 0;
  t.avail = 1;
  std::memset(text + t.pos, 0x20, n);

  unsigned remainder = 0;
  unsigned lastLen = 0;
  unsigned lastPos = 0;
  // Moves the window down by N once the current position reaches its end,
  // and reads the next N bytes behind the look-ahead.
  const auto slide = [&] {
    std::memmove(text, text + n, std::size_t{n} + maxMatch);
    remainder += source->Read(text + n + maxMatch, n);
    t.pos = n;
  };

  bool failed = !coder.Start(e);
  if (!failed) {
    remainder = source->Read(text + t.pos, n);
    // The tree is set up for the positions of this first block; data that
    // fills it up to a slide may bring more, and gets the whole tree.
    InitTree(remainder + 1);
    t.avail = Avail;
    t.matchLen = 0;
    UpdateTree(t);
    if (t.matchLen > remainder) t.matchLen = remainder;
    while (remainder != 0) {
      if (coder.Aborted()) break;
      lastLen = t.matchLen;
      lastPos = t.matchPos;
      ++t.pos;
      --remainder;
      if (t.pos == textEnd) slide();
      UpdateTree(t);
      if (t.matchLen > remainder) t.matchLen = remainder;
      if (t.matchLen > lastLen || lastLen < minMatch) {
        // Lazy matching: a longer match one byte on wins over this one.
        if (!coder.Char(e, text[t.pos - 1])) {
          failed = true;
          break;
        }
        continue;
      }
      if (!coder.Match(e, static_cast<WORD>(lastLen - minMatch + 256),
                       static_cast<WORD>((t.pos - lastPos - 2) & dicMask))) {
        failed = true;
        break;
      }
      // Enter the strings inside the match into the dictionary.
      while (--lastLen != 0) {
        ++t.pos;
        --remainder;
        if (t.pos == textEnd) slide();
        UpdateTree(t);
      }
      if (t.matchLen > remainder) t.matchLen = remainder;
    }
  }
  Pos = TextPos = static_cast<WORD>(t.pos);
  MatchPos = static_cast<WORD>(t.matchPos);
  MatchLen = static_cast<WORD>(t.matchLen);
  LastMatchLen = static_cast<WORD>(lastLen);
  LastMatchPos = static_cast<WORD>(lastPos);
  Remainder = remainder;
  Avail = static_cast<WORD>(t.avail);

  if (failed) {
    DWORD scratch = e;
    coder.End(scratch);
    destination->Flush();
    if (error != nullptr) *error = e;
    return FALSE;
  }
  const bool ok = coder.End(e);
  destination->Flush();
  return Conclude(ok, destination, e, error);
}

BOOL CEncodeDecodeBase::Encode(CFileIO* source, CFileBit* destination, DWORD* error) {
  if (!IsCreated()) {
    if (error != nullptr) *error = ERROR_OUTOFMEMORY;
    return FALSE;
  }
  if (typeid(*this) == typeid(CEncodeDecode1) && typeid(*destination) == typeid(CFileBit) &&
      destination->Buffer && destination->ReadBitCount == 0 && destination->ReadFill == 0) {
    FormatOneCoder coder{this, destination, DicBits, DicMask};
    if (DicSize == DriverShape::n && MaxMatch == DriverShape::maxMatch &&
        MinMatch == DriverShape::minMatch)
      return EncodeLoop(coder, source, destination, error, DriverShape{});
    return EncodeLoop(coder, source, destination, error, AnyShape{DicSize, MaxMatch, MinMatch});
  }
  VirtualCoder coder{this, destination};
  return EncodeLoop(coder, source, destination, error, AnyShape{DicSize, MaxMatch, MinMatch});
}

// ---- Expansion ---------------------------------------------------------------------------

template <class Coder>
int CEncodeDecodeBase::DecodeLoop(Coder& coder, CFileIO* destination, CFileBit*, DWORD& e) {
  DecodeWindow window{Text.get(), 2u * DicSize, 2u * DicSize - 1, 0, MinMatch, destination};
  int r = CodeEnd;
  for (;;) {
    if (destination->IsShort() || coder.Aborted()) break;
    if constexpr (Coder::HasBulk) {
      const int status = coder.Bulk(window);
      if (status < 0) {
        r = CodeEnd;
        break;
      }
      if (status > 0) {
        r = CodeLiteral;
        continue;
      }
    }
    WORD code = 0;
    WORD field = 0;
    r = coder.Code(e, code, field);
    if (r < 0) break;
    if (r == CodeLiteral)
      window.Literal(static_cast<BYTE>(code));
    else if (r == CodeMatch)
      window.Match(code, field);
  }
  Pos = static_cast<WORD>(window.pos);
  return r;
}

BOOL CEncodeDecodeBase::Decode(CFileIO* destination, CFileBit* source, DWORD* error) {
  if (!IsCreated()) {
    if (error != nullptr) *error = ERROR_OUTOFMEMORY;
    return FALSE;
  }
  DWORD e = error != nullptr ? *error : 0;
  Aborted = 0;
  std::memset(Text.get(), 0x20, 2u * DicSize); // the window starts as spaces
  if (!DecodeStart(source, &e)) {
    DWORD scratch = e;
    DecodeEnd(source, &scratch);
    if (error != nullptr) *error = e;
    return FALSE;
  }

  int r;
  if (typeid(*this) == typeid(CEncodeDecode1) && typeid(*source) == typeid(CFileBit)) {
    FormatOneCoder coder{this, source, DicBits, DicMask};
    r = DecodeLoop(coder, destination, source, e);
  } else {
    VirtualCoder coder{this, source};
    r = DecodeLoop(coder, destination, source, e);
  }
  destination->Write(Text.get(), Pos);

  if (r < CodeEnd) {
    DWORD scratch = e;
    DecodeEnd(source, &scratch);
    if (error != nullptr) *error = e;
    return FALSE;
  }
  const bool ok = DecodeEnd(source, &e) != FALSE;
  return Conclude(ok, destination, e, error);
}
