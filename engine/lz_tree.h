// The dictionary tree of the LZ engine, internal to lz_engine.cpp: the
// update that runs for every position while compressing.
//
// Node numbers: 0 is NIL, 1 to N-1 internal nodes (from the Avail list), N + c
// the root of all strings that begin with byte c, and N to 2N-1 the leaves,
// numbered by the window position of their string (text index t and leaf
// t | N name the same position). Children hang in doubly linked hash chains
// keyed by (first byte of the edge, parent); the first node of a chain has
// the chain number with bit 15 set as its Prev.
//
// The update works on a copy of the engine's state in local variables (the
// Tree below), so that the compression loop keeps it in registers; the
// members are brought up to date when the loop ends.
#pragma once

#include "engine/lz_engine.h"

#include <bit>
#include <cstdint>
#include <cstring>

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
constexpr WORD ChainHeadFlag = 0x8000; // a Prev value naming a chain head
constexpr WORD PercolateFlag = 0x8000; // a Position still to be pushed upwards

inline std::uint64_t LoadNative64(const BYTE* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// The link that points at a node from before: the chain head when its Prev
// carries the head flag, else the Next of the node before it. Chosen without
// a branch, since which one it is cannot be predicted.
TALVERN_ALWAYS_INLINE WORD* LinkTo(Node* nodes, WORD* heads, WORD prev) {
  const auto head = reinterpret_cast<std::uintptr_t>(&heads[prev & 0x7FFF]);
  const auto next = reinterpret_cast<std::uintptr_t>(&nodes[prev & 0x7FFF].Next);
  const std::uintptr_t isHead = std::uintptr_t{0} - (prev >> 15);
  return reinterpret_cast<WORD*>((head & isHead) | (next & ~isHead));
}

TALVERN_ALWAYS_INLINE void Unlink(Node* nodes, WORD* heads, unsigned x) {
  const WORD p = nodes[x].Prev;
  const WORD s = nodes[x].Next;
  *LinkTo(nodes, heads, p) = s;
  nodes[s].Prev = p;
}

// y takes x's place in x's chain.
TALVERN_ALWAYS_INLINE void TakePlace(Node* nodes, WORD* heads, unsigned x, unsigned y) {
  const WORD p = nodes[x].Prev;
  *LinkTo(nodes, heads, p) = static_cast<WORD>(y);
  nodes[y].Prev = p;
  const WORD s = nodes[x].Next;
  nodes[s].Prev = static_cast<WORD>(y);
  nodes[y].Next = s;
}

TALVERN_ALWAYS_INLINE void AddChild(Node* nodes, WORD* heads, unsigned x, unsigned parent,
                                    unsigned h) {
  nodes[x].Parent = static_cast<WORD>(parent);
  const WORD f = heads[h];
  heads[h] = static_cast<WORD>(x);
  nodes[x].Next = f;
  nodes[x].Prev = static_cast<WORD>(h | ChainHeadFlag);
  nodes[f].Prev = static_cast<WORD>(x);
}

// The chain of the child of `parent` whose edge begins with byte c. Any
// function that keeps the children of one node apart (here: distinct c give
// distinct chains) finds the same nodes; this one spreads the parents over
// the chains, which keeps the chains short.
TALVERN_ALWAYS_INLINE unsigned ChildChain(unsigned parent, unsigned c) {
  return (((parent * 0x9E3779B1u) >> 19) + c) & (CEncodeDecodeBase::ChainCount - 1);
}

// The engine's tree and search state while one position is entered.
struct Tree {
  Node* nodes;
  NodeData* info;
  WORD* heads;
  const BYTE* text;
  unsigned n;        // DicSize
  unsigned maxMatch; // MaxMatch
  unsigned minMatch; // MinMatch
  unsigned pos;      // Pos, which is also TextPos
  unsigned matchPos;
  unsigned matchLen;
  unsigned avail;
};

// Removal of a leaf whose parent keeps one child: the parent goes back to
// the free list (its new head is returned) and the child takes its place,
// after the parent's recent position has been carried up through the
// ancestors still waiting for it.
TALVERN_NOINLINE inline unsigned MergeParent(Node* nodes, NodeData* info, WORD* heads, unsigned n,
                                             unsigned pos, unsigned avail, unsigned r) {
  // Positions at or after the current one belong to the previous lap of the
  // window: one window length further back.
  const auto adjust = [n, pos](unsigned u) { return u >= pos ? u - n : u; };

  const unsigned leaf = info[r].Position & 0x7FFFu;
  unsigned s = adjust(leaf);
  unsigned q = nodes[r].Parent;
  unsigned u = info[q].Position;
  while (u & PercolateFlag) {
    u = adjust(u & 0x7FFFu);
    if (u > s) s = u;
    info[q].Position = static_cast<WORD>(s | n);
    q = nodes[q].Parent;
    u = info[q].Position;
  }
  if (q < n) {
    u = adjust(u);
    if (u > s) s = u;
    info[q].Position = static_cast<WORD>(s | n | PercolateFlag);
  }

  unsigned x = leaf;
  while (nodes[x].Parent == NIL) x = nodes[x].Next; // follow forwarding links
  while (nodes[x].Parent != r) x = nodes[x].Parent;
  const unsigned c = x;
  Unlink(nodes, heads, c);
  TakePlace(nodes, heads, r, c);
  nodes[c].Parent = nodes[r].Parent;
  nodes[r].Parent = NIL;
  nodes[r].Next = static_cast<WORD>(avail);
  return r;
}

// Removes the oldest string (leaf pos) and enters the one at pos, leaving
// the longest match for it in matchLen and matchPos.
TALVERN_ALWAYS_INLINE void UpdateTree(Tree& t) {
  Node* const nodes = t.nodes;
  NodeData* const info = t.info;
  WORD* const heads = t.heads;
  const BYTE* const text = t.text;
  const unsigned n = t.n;
  const unsigned pos = t.pos;

  // Removal of the oldest string.
  if (nodes[pos].Parent != NIL) {
    Unlink(nodes, heads, pos);
    const unsigned r = nodes[pos].Parent;
    nodes[pos].Parent = NIL;
    const unsigned count = static_cast<BYTE>(info[r].ChildCount - 1);
    info[r].ChildCount = static_cast<BYTE>(count);
    if (r < n && count < 2) t.avail = MergeParent(nodes, info, heads, n, pos, t.avail, r);
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
    q = nodes[r].Parent;
    while (q == NIL) { // a leaf replaced by a newer equal string: follow it
      r = nodes[r].Next;
      q = nodes[r].Parent;
    }
    while (len <= info[q].Level) {
      r = q;
      q = nodes[q].Parent;
    }
    unsigned x = q;
    while (info[x].Position & PercolateFlag) {
      info[x].Position = static_cast<WORD>(pos);
      x = nodes[x].Parent;
    }
    if (x < n) info[x].Position = static_cast<WORD>(pos | PercolateFlag);
    lookup = false;
  }
  unsigned matchLen = len;

  for (;;) {
    if (lookup) {
      const unsigned h = ChildChain(q, here[len]);
      nodes[NIL].Parent = static_cast<WORD>(q); // sentinel: the walk ends at NIL at the latest
      r = heads[h];
      // Most searches end within the first three nodes of the chain: step
      // along without a branch while the node is not the one sought.
      for (int k = 0; k < 2; ++k) {
        const unsigned next = nodes[r].Next;
        const unsigned stay = 0u - static_cast<unsigned>(nodes[r].Parent == q);
        r = next ^ ((r ^ next) & stay);
      }
      while (nodes[r].Parent != q) r = nodes[r].Next;
      if (r == NIL) {
        AddChild(nodes, heads, pos, q, h);
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
        if constexpr (std::endian::native == std::endian::little)
          len += static_cast<unsigned>(std::countr_zero(diff)) >> 3;
        else
          len += static_cast<unsigned>(std::countl_zero(diff)) >> 3;
        differs = true;
        break;
      }
      len += 8;
    }
    if (!differs) {
      while (len < j) {
        if (here[len] != there[len]) {
          differs = true;
          break;
        }
        ++len;
      }
    }
    matchLen = len;

    if (differs) {
      // Split the edge into r at depth len.
      const unsigned fresh = t.avail;
      t.avail = nodes[fresh].Next;
      info[fresh].Position = static_cast<WORD>(pos);
      info[fresh].Level = static_cast<BYTE>(len);
      info[fresh].ChildCount = 2;
      nodes[fresh].Parent = static_cast<WORD>(q);
      TakePlace(nodes, heads, r, fresh);
      AddChild(nodes, heads, r, fresh, ChildChain(fresh, text[m + len]));
      AddChild(nodes, heads, pos, fresh, ChildChain(fresh, here[len]));
      break;
    }
    if (len == t.maxMatch) {
      // The same longest string again: the new leaf replaces the old one,
      // which keeps a forwarding link to it.
      TakePlace(nodes, heads, r, pos);
      nodes[pos].Parent = static_cast<WORD>(q);
      nodes[r].Parent = NIL;
      nodes[r].Next = static_cast<WORD>(pos);
      break;
    }
    info[r].Position = static_cast<WORD>(pos);
    q = r;
  }
  t.matchLen = matchLen;
  t.matchPos = matchPos;
}

} // namespace talvern::engine
