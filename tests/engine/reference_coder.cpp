#include "reference_coder.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace enginetest {
namespace {

using u8 = std::uint8_t;
using u16 = std::uint16_t;

class BitWriter {
public:
  void Put(unsigned n, unsigned value) {
    for (unsigned i = n; i-- > 0;) {
      if (bit_ % 8 == 0) bytes_.push_back(0);
      if ((value >> i) & 1) bytes_.back() |= static_cast<u8>(0x80 >> (bit_ % 8));
      ++bit_;
    }
  }
  Bytes Take() { return std::move(bytes_); }

private:
  Bytes bytes_;
  std::size_t bit_ = 0;
};

class Model {
public:
  static constexpr unsigned N = 8192;
  static constexpr unsigned MaxMatch = 256;
  static constexpr unsigned MinMatch = 3;
  static constexpr unsigned HashMask = 0x1FFF;
  static constexpr unsigned HashShift = 5;
  static constexpr u16 NIL = 0;

  Bytes Encode(const Bytes& data) {
    source_ = &data;
    read_ = 0;
    // The tree starts empty: roots of level 1, a free list 1, 2, ..., N-1,
    // no leaves, no chains.
    for (unsigned c = 0; c < 256; ++c) {
      level_[N + c] = 1;
      childCount_[N + c] = 0;
      position_[N + c] = 0;
    }
    avail_ = 1;
    for (unsigned i = 0; i < N; ++i) {
      parent_[N + i] = NIL;
      next_[i] = static_cast<u16>(i + 1);
    }
    std::fill(std::begin(heads_), std::end(heads_), NIL);
    pos_ = textPos_ = N + MaxMatch;
    std::fill_n(text_ + textPos_, N, 0x20);

    remainder_ = Read(text_ + textPos_, N);
    matchLen_ = 0;
    Update();
    Cut();
    while (remainder_ != 0) {
      unsigned lastLen = matchLen_;
      const unsigned lastPos = matchPos_;
      Advance();
      Update();
      Cut();
      if (matchLen_ > lastLen || lastLen < MinMatch) {
        out_.Put(9, text_[textPos_ - 1]);
        continue;
      }
      out_.Put(9, lastLen - MinMatch + 256);
      out_.Put(13, (textPos_ - lastPos - 2) & (N - 1));
      --lastLen;
      while (lastLen != 0) {
        Advance();
        Update();
        --lastLen;
      }
      Cut();
    }
    out_.Put(9, 0x1FF);
    return out_.Take();
  }

private:
  unsigned Read(u8* to, unsigned n) {
    const std::size_t left = source_->size() - read_;
    const unsigned got = static_cast<unsigned>(std::min<std::size_t>(n, left));
    std::copy_n(source_->begin() + static_cast<long>(read_), got, to);
    read_ += got;
    return got;
  }

  void Cut() {
    if (matchLen_ > remainder_) matchLen_ = static_cast<u16>(remainder_);
  }

  void Advance() {
    ++textPos_;
    --remainder_;
    ++pos_;
    if (textPos_ == 2 * N) {
      textPos_ = N;
      std::copy(text_ + N, text_ + 2 * N + MaxMatch, text_);
      remainder_ += Read(text_ + N + MaxMatch, N);
      pos_ = N;
    }
  }

  // Chain links: prev is the node before, or the chain number with bit 15
  // set for the first node of a chain.
  // Makes whatever x's prev names (a chain head or a node) point at y.
  void Repoint(u16 x, u16 y) {
    const u16 p = prev_[x];
    if (p & 0x8000)
      heads_[p & 0x7FFF] = y;
    else
      next_[p] = y;
  }
  void Unlink(u16 x) {
    const u16 s = next_[x];
    Repoint(x, s);
    prev_[s] = prev_[x];
  }
  void TakePlace(u16 x, u16 y) {
    Repoint(x, y);
    prev_[y] = prev_[x];
    const u16 s = next_[x];
    prev_[s] = y;
    next_[y] = s;
  }
  void AddChild(u16 x, u16 q, unsigned h) {
    parent_[x] = q;
    const u16 f = heads_[h];
    heads_[h] = x;
    next_[x] = f;
    prev_[x] = static_cast<u16>(h | 0x8000);
    prev_[f] = x;
  }
  u16 Adjust(u16 u) const { return u >= pos_ ? static_cast<u16>(u - N) : u; }
  static unsigned Hash(unsigned c, unsigned q) { return ((c << HashShift) + q) & HashMask; }

  void Update() {
    Remove();
    Insert();
  }

  void Remove() {
    if (parent_[pos_] == NIL) return;
    Unlink(pos_);
    const u16 r = parent_[pos_];
    parent_[pos_] = NIL;
    --childCount_[r];
    if (r >= N || childCount_[r] >= 2) return;

    const u16 t = position_[r] & 0x7FFF;
    u16 s = Adjust(t);
    u16 q = parent_[r];
    u16 u = position_[q];
    while (u & 0x8000) {
      u = Adjust(u & 0x7FFF);
      s = std::max(s, u);
      position_[q] = static_cast<u16>(s | N);
      q = parent_[q];
      u = position_[q];
    }
    if (q < N) {
      u = Adjust(u);
      s = std::max(s, u);
      position_[q] = static_cast<u16>(s | N | 0x8000);
    }
    u16 x = t;
    while (parent_[x] == NIL) x = next_[x];
    while (parent_[x] != r) x = parent_[x];
    const u16 c = x;
    Unlink(c);
    TakePlace(r, c);
    parent_[c] = parent_[r];
    parent_[r] = NIL;
    next_[r] = avail_;
    avail_ = r;
  }

  void Insert() {
    u16 q = static_cast<u16>(N + text_[textPos_]);
    u16 r = NIL;
    unsigned len;
    bool lookup = true;
    if (matchLen_ <= MinMatch) {
      matchLen_ = 1;
      len = 1;
    } else {
      len = matchLen_ - 1u;
      r = static_cast<u16>((matchPos_ + 1) | N);
      q = parent_[r];
      while (q == NIL) {
        r = next_[r];
        q = parent_[r];
      }
      while (len <= level_[q]) {
        r = q;
        q = parent_[q];
      }
      u16 x = q;
      while (position_[x] & 0x8000) {
        position_[x] = pos_;
        x = parent_[x];
      }
      if (x < N) position_[x] = static_cast<u16>(pos_ | 0x8000);
      lookup = false;
    }
    for (;;) {
      if (lookup) {
        const unsigned h = Hash(text_[textPos_ + len], q);
        parent_[NIL] = q;
        r = heads_[h];
        while (parent_[r] != q) r = next_[r];
        if (r == NIL) {
          AddChild(pos_, q, h);
          ++childCount_[q];
          return;
        }
        ++len;
      }
      lookup = true;
      unsigned j;
      u16 m;
      if (r < N) {
        j = level_[r];
        m = position_[r] & 0x7FFF;
      } else {
        j = MaxMatch;
        m = r;
      }
      if (m >= textPos_) m = static_cast<u16>(m - N);
      matchPos_ = m;
      bool differs = false;
      while (len < j) {
        if (text_[textPos_ + len] != text_[m + len]) {
          differs = true;
          break;
        }
        ++len;
      }
      matchLen_ = static_cast<u16>(len);
      if (differs) {
        const u16 fresh = avail_;
        avail_ = next_[fresh];
        position_[fresh] = pos_;
        level_[fresh] = static_cast<u8>(len);
        childCount_[fresh] = 2;
        parent_[fresh] = q;
        TakePlace(r, fresh);
        AddChild(r, fresh, Hash(text_[matchPos_ + len], fresh));
        AddChild(pos_, fresh, Hash(text_[textPos_ + len], fresh));
        return;
      }
      if (len == MaxMatch) {
        TakePlace(r, pos_);
        parent_[pos_] = q;
        parent_[r] = NIL;
        next_[r] = pos_;
        return;
      }
      position_[r] = pos_;
      q = r;
    }
  }

  const Bytes* source_ = nullptr;
  std::size_t read_ = 0;
  BitWriter out_;

  u16 parent_[2 * N] = {};
  u16 prev_[2 * N] = {};
  u16 next_[2 * N] = {};
  u8 level_[N + 256] = {};
  u8 childCount_[N + 256] = {};
  u16 position_[N + 256] = {};
  u16 heads_[HashMask + 1] = {};
  u8 text_[2 * N + MaxMatch] = {};

  u16 avail_ = 0;
  u16 pos_ = 0;
  u16 textPos_ = 0;
  u16 matchPos_ = 0;
  u16 matchLen_ = 0;
  unsigned remainder_ = 0;
};

} // namespace

Bytes ReferenceCompress(const Bytes& data) {
  auto model = std::make_unique<Model>();
  return model->Encode(data);
}

Bytes ReferenceExpand(const Bytes& stream, std::size_t limit) {
  constexpr std::size_t Window = 16384;
  // A code whose bits run past the last byte is dropped.
  CodeReader reader(stream);
  Bytes window(Window, 0x20);
  Bytes out;
  std::size_t pos = 0;
  auto put = [&](u8 byte) {
    window[pos] = byte;
    out.push_back(byte);
    pos = (pos + 1) % Window;
  };
  unsigned code = 0;
  while (out.size() < limit && reader.Take(9, code)) {
    if (code < 0x100) {
      put(static_cast<u8>(code));
    } else if (code == 0x1FF) {
      break;
    } else {
      unsigned field = 0;
      if (!reader.Take(13, field)) break;
      std::size_t from = (pos + Window - field - 1) % Window;
      for (unsigned n = code - 253; n != 0; --n) {
        put(window[from]);
        from = (from + 1) % Window;
      }
    }
  }
  if (out.size() > limit) out.resize(limit);
  return out;
}

} // namespace enginetest
