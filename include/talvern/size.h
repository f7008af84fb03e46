// 64-bit byte counts and positions with carry-reporting arithmetic.
#pragma once

#include <talvern/export.h>
#include <talvern/win32.h>

#include <cstdint>

// An unsigned 64-bit byte count: a 32-bit low half followed by a 32-bit high
// half, exactly 8 bytes, copyable bytewise.
struct TALVERN_API CArchiveSize {
  DWORD LowPart = 0;
  DWORD HighPart = 0;

  CArchiveSize() = default;
  CArchiveSize(std::uint64_t value) { SetValue(value); } // NOLINT(google-explicit-constructor)
  CArchiveSize(const CArchiveSize&) = default;
  CArchiveSize& operator=(const CArchiveSize&) = default;
  CArchiveSize& operator=(std::uint64_t value) {
    SetValue(value);
    return *this;
  }

  // value += other (mod 2^64); returns 1 when the true sum exceeded 2^64-1.
  int Add(const CArchiveSize& other);
  // value -= other (mod 2^64); returns 1 when value was smaller than other.
  int Sub(const CArchiveSize& other);
  // 1 if greater, -1 if smaller, 0 if equal.
  int Cmp(const CArchiveSize& other) const;
  void Copy(const CArchiveSize& other) { *this = other; }
  void SetValue(std::uint64_t value) {
    LowPart = static_cast<DWORD>(value);
    HighPart = static_cast<DWORD>(value >> 32);
  }
  std::uint64_t GetValue() const {
    return (static_cast<std::uint64_t>(HighPart) << 32) | LowPart;
  }
  void SetDWord(DWORD value) {
    LowPart = value;
    HighPart = 0;
  }
  // The low half when the high half is 0, else 0xFFFFFFFF (saturation).
  DWORD GetDWord() const { return HighPart == 0 ? LowPart : 0xFFFFFFFFu; }
};

// A byte position inside one archive volume; the same 8-byte layout.
struct TALVERN_API CArchiveOffset : CArchiveSize {
  CArchiveOffset() = default;
  CArchiveOffset(std::uint64_t value) : CArchiveSize(value) {} // NOLINT
  CArchiveOffset(const CArchiveSize& size) : CArchiveSize(size) {} // NOLINT
  CArchiveOffset(const CArchiveOffset&) = default;
  CArchiveOffset(CArchiveOffset&&) = default;
  CArchiveOffset& operator=(std::uint64_t value) {
    SetValue(value);
    return *this;
  }
  CArchiveOffset& operator=(const CArchiveSize& size) {
    CArchiveSize::operator=(size);
    return *this;
  }
  CArchiveOffset& operator=(const CArchiveOffset&) = default;
  CArchiveOffset& operator=(CArchiveOffset&&) = default;
};

static_assert(sizeof(CArchiveSize) == 8, "CArchiveSize is 8 bytes");
static_assert(sizeof(CArchiveOffset) == 8, "CArchiveOffset is 8 bytes");

// Progress of done out of total in hundredths of a percent (0 to 10000).
TALVERN_API DWORD CalcArchivePercent(const CArchiveSize& done, const CArchiveSize& total);
