// The dictionary tree of the LZ engine, internal to lz_engine.cpp: the
// update that runs for every position while compressing.
//
// Node numbers: 0 is NIL, 1 to N-1 internal nodes (from the Avail list), N + c
// the root of all strings that begin with byte c, and N to 2N-1 the leaves,
// numbered by the window position of their string (text index t and leaf
// t | N name the same position). Children hang in doubly linked hash chains
// keyed by (first byte of the edge, parent).
//
// The update works on a copy of the engine's state in local variables (the
// Tree below), so that the compression loop keeps it in registers; the
// members are brought up to date when the loop ends.
#pragma once

#include "engine/lz_engine.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__GNUC__) || defined(__clang__)
#define TALVERN_PREFETCH(address) __builtin_prefetch(address)
#else
#define TALVERN_PREFETCH(address) static_cast<void>(address)
#endif

#if defined(__GNUC__) || defined(__clang__)
#define TALVERN_ALWAYS_INLINE inline __attribute__((always_inline))
#define TALVERN_NOINLINE __attribute__((noinline))
#elif defined(_MSC_VER)
#define TALVERN_ALWAYS_INLINE __forceinline
#define TALVERN_NOINLINE __declspec(noinline)
#else
#define TALVERN_ALWAYS_INLINE inline
#define TALVERN_NOINLINE
#endif

namespace talvern::engine {

using Node = CEncodeDecodeBase::Node;
using NodeData = CEncodeDecodeBase::NodeData;

constexpr WORD NIL = 0;
constexpr WORD PercolateFlag = 0x8000; // a Position still to be pushed upwards

inline std::uint64_t LoadNative64(const BYTE* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// The index of the first byte in which two words loaded with LoadNative64
// differ, given their XOR (not 0).
inline unsigned FirstDifferingByte(std::uint64_t diff) {
  if constexpr (std::endian::native == std::endian::little)
    return static_cast<unsigned>(std::countr_zero(diff)) >> 3;
  else
    return static_cast<unsigned>(std::countl_zero(diff)) >> 3;
}

// The node records and the chain heads, which lie one after the other in
// the node block, seen as one array of 16-bit words: node x at 3x (parent,
// prev, next), chain head h at heads + h. A node's prev is the offset in
// this array of the link that points at it: the next of the node before it,
// or its chain's head. So taking a node out of its chain needs no test.
struct Links {
  WORD* w;
  unsigned heads;

  WORD& Parent(unsigned x) const { return w[3 * x]; }
  WORD& Prev(unsigned x) const { return w[3 * x + 1]; }
  WORD& Next(unsigned x) const { return w[3 * x + 2]; }
  WORD& Head(unsigned h) const { return w[heads + h]; }
  WORD& At(unsigned link) const { return w[link]; }
  static unsigned NextLink(unsigned x) { return 3 * x + 2; }
  unsigned HeadLink(unsigned h) const { return heads + h; }
};

TALVERN_ALWAYS_INLINE void Unlink(const Links& l, unsigned x) {
  const WORD p = l.Prev(x);
  const WORD s = l.Next(x);
  l.At(p) = s;
  l.Prev(s) = p;
}

// y takes x's place in x's chain.
TALVERN_ALWAYS_INLINE void TakePlace(const Links& l, unsigned x, unsigned y) {
  const WORD p = l.Prev(x);
  l.At(p) = static_cast<WORD>(y);
  l.Prev(y) = p;
  const WORD s = l.Next(x);
  l.Prev(s) = static_cast<WORD>(Links::NextLink(y));
  l.Next(y) = s;
}

TALVERN_ALWAYS_INLINE void AddChild(const Links& l, unsigned x, unsigned parent, unsigned h) {
  l.Parent(x) = static_cast<WORD>(parent);
  const unsigned link = l.HeadLink(h);
  const WORD f = l.At(link);
  l.At(link) = static_cast<WORD>(x);
  l.Next(x) = f;
  l.Prev(x) = static_cast<WORD>(link);
  l.Prev(f) = static_cast<WORD>(Links::NextLink(x));
}

// Where a child of q is sought in a chain that starts with r: r itself or
// one of the two nodes after it when one of them is a child of q, else the
// third node, from which the search goes on. Most searches end within the
// first three nodes. The second node is read before the first is known not
// to be the one sought, and the choice is made without a branch.
TALVERN_ALWAYS_INLINE unsigned SkipFirstTwo(const Links& l, unsigned r, unsigned q) {
  const unsigned second = l.Next(r);
  const unsigned keepFirst = 0u - static_cast<unsigned>(l.Parent(r) == q);
  const unsigned third = l.Next(second);
  const unsigned keepSecond = 0u - static_cast<unsigned>(l.Parent(second) == q);
  const unsigned later = third ^ ((second ^ third) & keepSecond);
  return later ^ ((r ^ later) & keepFirst);
}

// The chain of the child of `parent` whose edge begins with byte c. Any
// function that keeps the children of one node apart (here: distinct c give
// distinct chains) finds the same nodes; this one spreads the parents over
// the chains, which keeps the chains short.
TALVERN_ALWAYS_INLINE unsigned ChildChain(unsigned parent, unsigned c) {
  return (((parent * 0x9E3779B1u) >> 19) + c) & (CEncodeDecodeBase::ChainCount - 1);
}

// All bits set when the condition holds, else none: for choices made
// without a branch, where the condition follows the data and a branch
// would often be mispredicted.
TALVERN_ALWAYS_INLINE unsigned MaskIf(bool condition) {
  return 0u - static_cast<unsigned>(condition);
}

// Gives node q the position pos, and its ancestors that wait for one (their
// position is flagged) too, up to the first that does not wait: that one is
// given pos flagged, unless it is a root. In nearly nine walks in ten
// nothing above q's parent changes, so q and its parent are settled without
// a branch on the data, and only a longer walk goes on in a loop.
TALVERN_ALWAYS_INLINE void Percolate(const Links& l, NodeData* info, unsigned n, unsigned q,
                                     unsigned pos) {
  // A root never waits and keeps position 0, so a node's new position is
  // pos flagged, without the flag when it waited, or 0 for a root. A waiting
  // q is an internal node whose parent is a real node; when q does not
  // wait, node 0 stands in for its parent and keeps what it holds.
  const unsigned flagged = pos | PercolateFlag;
  const unsigned u0 = info[q].Position;
  const unsigned waits0 = u0 & PercolateFlag;
  const unsigned keep0 = MaskIf(waits0 != 0);
  const unsigned x1 = l.Parent(q) & keep0;
  const unsigned u1 = info[x1].Position;
  const unsigned waits1 = u1 & waits0;
  info[q].Position = static_cast<WORD>((flagged & MaskIf(q < n)) ^ waits0);
  const unsigned v1 = (flagged & MaskIf(x1 < n)) ^ (u1 & PercolateFlag);
  info[x1].Position = static_cast<WORD>(u1 ^ ((v1 ^ u1) & keep0));
  if (waits1 != 0) [[unlikely]] {
    unsigned x = l.Parent(x1);
    while (info[x].Position & PercolateFlag) {
      info[x].Position = static_cast<WORD>(pos);
      x = l.Parent(x);
    }
    if (x < n) info[x].Position = static_cast<WORD>(flagged);
  }
}

// The engine's parameters: known while compiling for the drivers' own
// (8192, 256, 3), which frees registers in the loop, or held as values.
struct DriverShape {
  static constexpr unsigned n = 8192;       // DicSize
  static constexpr unsigned maxMatch = 256; // MaxMatch
  static constexpr unsigned minMatch = 3;   // MinMatch
};
struct AnyShape {
  unsigned n;
  unsigned maxMatch;
  unsigned minMatch;
};

// The engine's tree and search state while one position is entered.
template <class Shape> struct Tree : Shape {
  Links links;
  NodeData* info;
  const BYTE* text;
  unsigned pos; // Pos, which is also TextPos
  unsigned matchPos;
  unsigned matchLen;
  unsigned avail;
};

// Removal of a leaf whose parent keeps one child: the parent goes back to
// the free list (its new head is returned) and the child takes its place,
// after the parent's recent position has been carried up through the
// ancestors still waiting for it.
template <class Shape>
TALVERN_NOINLINE unsigned MergeParent(const Links l, NodeData* info, const Shape shape,
                                      unsigned pos, unsigned avail, unsigned r) {
  const unsigned n = shape.n;
  // Positions at or after the current one belong to the previous lap of the
  // window: one window length further back.
  const auto adjust = [&](unsigned u) { return u >= pos ? u - n : u; };

  const unsigned leaf = info[r].Position & 0x7FFFu;
  unsigned s = adjust(leaf);
  // As in Percolate: the parent and grandparent without a branch on the
  // data, further ancestors in a loop.
  const unsigned q0 = l.Parent(r);
  const unsigned u0 = info[q0].Position;
  const unsigned waits0 = u0 & PercolateFlag;
  const unsigned keep0 = MaskIf(waits0 != 0);
  const unsigned s0 = std::max(s, adjust(u0 & 0x7FFFu));
  const unsigned q1 = l.Parent(q0) & keep0;
  const unsigned u1 = info[q1].Position;
  const unsigned waits1 = u1 & waits0;
  const unsigned s1 = std::max(s0, adjust(u1 & 0x7FFFu));
  info[q0].Position = static_cast<WORD>(((s0 | n | PercolateFlag) & MaskIf(q0 < n)) ^ waits0);
  const unsigned v1 = ((s1 | n | PercolateFlag) & MaskIf(q1 < n)) ^ (u1 & PercolateFlag);
  info[q1].Position = static_cast<WORD>(u1 ^ ((v1 ^ u1) & keep0));
  if (waits1 != 0) [[unlikely]] {
    s = s1;
    unsigned q = l.Parent(q1);
    unsigned u = info[q].Position;
    while (u & PercolateFlag) {
      u = adjust(u & 0x7FFFu);
      if (u > s) s = u;
      info[q].Position = static_cast<WORD>(s | n);
      q = l.Parent(q);
      u = info[q].Position;
    }
    if (q < n) {
      u = adjust(u);
      if (u > s) s = u;
      info[q].Position = static_cast<WORD>(s | n | PercolateFlag);
    }
  }

  unsigned x = leaf;
  while (l.Parent(x) == NIL) x = l.Next(x); // follow forwarding links
  // Seven times in ten the leaf hangs from r itself; the first step up is
  // taken without a branch.
  unsigned p = l.Parent(x);
  x ^= (p ^ x) & MaskIf(p != r);
  p = l.Parent(x);
  while (p != r) {
    x = p;
    p = l.Parent(x);
  }
  const unsigned c = x;
  Unlink(l, c);
  TakePlace(l, r, c);
  l.Parent(c) = l.Parent(r);
  l.Parent(r) = NIL;
  l.Next(r) = static_cast<WORD>(avail);
  return r;
}

// Removes the oldest string (leaf pos) and enters the one at pos, leaving
// the longest match for it in matchLen and matchPos.
template <class Shape> TALVERN_ALWAYS_INLINE void UpdateTree(Tree<Shape>& t) {
  const Links l = t.links;
  NodeData* const info = t.info;
  const BYTE* const text = t.text;
  const unsigned n = t.n;
  const unsigned pos = t.pos;

  // Start fetching where the search will begin, so that the memory arrives
  // while the removal runs: the node above the previous match's successor,
  // or the first node of the chain below the root.
  if (t.matchLen > t.minMatch) {
    const unsigned start = l.Parent((t.matchPos + 1) | n);
    TALVERN_PREFETCH(&info[start]);
    TALVERN_PREFETCH(&l.Parent(start));
  } else {
    const unsigned first = l.Head(ChildChain(n + text[pos], text[pos + 1]));
    TALVERN_PREFETCH(&l.Parent(first));
  }

  // Removal of the oldest string.
  if (l.Parent(pos) != NIL) {
    Unlink(l, pos);
    const unsigned r = l.Parent(pos);
    l.Parent(pos) = NIL;
    const unsigned count = static_cast<BYTE>(info[r].ChildCount - 1);
    info[r].ChildCount = static_cast<BYTE>(count);
    if (r < n && count < 2)
      t.avail = MergeParent(l, info, static_cast<const Shape&>(t), pos, t.avail, r);
  }

  // Insertion.
  const BYTE* const here = text + pos;
  unsigned q = n + here[0];
  unsigned r = NIL;
  unsigned len;
  unsigned matchPos = t.matchPos;
  bool lookup;
  if (t.matchLen <= t.minMatch) {
    len = 1;
    lookup = true;
  } else {
    // The previous match continues one position further: resume the search
    // at the node of its successor string instead of at the root.
    len = t.matchLen - 1;
    r = (matchPos + 1) | n;
    q = l.Parent(r);
    while (q == NIL) { // a leaf replaced by a newer equal string: follow it
      r = l.Next(r);
      q = l.Parent(r);
    }
    while (len <= info[q].Level) {
      r = q;
      q = l.Parent(q);
    }
    Percolate(l, info, n, q, pos);
    lookup = false;
  }
  unsigned matchLen = len;

  for (;;) {
    if (lookup) {
      const unsigned h = ChildChain(q, here[len]);
      l.Parent(NIL) = static_cast<WORD>(q); // sentinel: the walk ends at NIL at the latest
      r = SkipFirstTwo(l, l.Head(h), q);
      while (l.Parent(r) != q) r = l.Next(r);
      if (r == NIL) {
        AddChild(l, pos, q, h);
        ++info[q].ChildCount;
        break;
      }
      ++len;
    }
    lookup = true;

    unsigned j;
    unsigned m;
    if (r < n) {
      j = info[r].Level;
      m = info[r].Position & 0x7FFFu;
    } else {
      j = t.maxMatch;
      m = r;
    }
    if (m >= pos) m -= n;
    matchPos = m;

    // Compare the edge into r, eight bytes at a time while they last.
    const BYTE* const there = text + m;
    bool differs = false;
    while (len + 8 <= j) {
      const std::uint64_t diff = LoadNative64(here + len) ^ LoadNative64(there + len);
      if (diff != 0) {
        len += FirstDifferingByte(diff);
        differs = true;
        break;
      }
      len += 8;
    }
    if (!differs && len < j) {
      if (len + 8 <= t.maxMatch) {
        // Fewer than eight bytes of the edge are left, and eight can be
        // read inside the window: one comparison with the rest masked off.
        std::uint64_t diff = LoadNative64(here + len) ^ LoadNative64(there + len);
        const unsigned left = 8 * (j - len);
        if constexpr (std::endian::native == std::endian::little)
          diff &= ~std::uint64_t{0} >> (64 - left);
        else
          diff &= ~std::uint64_t{0} << (64 - left);
        if (diff != 0) {
          len += FirstDifferingByte(diff);
          differs = true;
        } else {
          len = j;
        }
      } else {
        while (len < j) {
          if (here[len] != there[len]) {
            differs = true;
            break;
          }
          ++len;
        }
      }
    }
    matchLen = len;

    if (differs) {
      // Split the edge into r at depth len.
      const unsigned fresh = t.avail;
      t.avail = l.Next(fresh);
      info[fresh].Position = static_cast<WORD>(pos);
      info[fresh].Level = static_cast<BYTE>(len);
      info[fresh].ChildCount = 2;
      l.Parent(fresh) = static_cast<WORD>(q);
      TakePlace(l, r, fresh);
      AddChild(l, r, fresh, ChildChain(fresh, text[m + len]));
      AddChild(l, pos, fresh, ChildChain(fresh, here[len]));
      break;
    }
    if (len == t.maxMatch) {
      // The same longest string again: the new leaf replaces the old one,
      // which keeps a forwarding link to it.
      TakePlace(l, r, pos);
      l.Parent(pos) = static_cast<WORD>(q);
      l.Parent(r) = NIL;
      l.Next(r) = static_cast<WORD>(pos);
      break;
    }
    info[r].Position = static_cast<WORD>(pos);
    q = r;
  }
  t.matchLen = matchLen;
  t.matchPos = matchPos;
}

} // namespace talvern::engine
