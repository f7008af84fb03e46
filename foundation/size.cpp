// 64-bit sizes and offsets, and the progress percentage.
#include <talvern/size.h>

int CArchiveSize::Add(const CArchiveSize& other) {
  const std::uint64_t a = GetValue();
  const std::uint64_t sum = a + other.GetValue();
  SetValue(sum);
  return sum < a ? 1 : 0;
}

int CArchiveSize::Sub(const CArchiveSize& other) {
  const std::uint64_t a = GetValue();
  const std::uint64_t b = other.GetValue();
  SetValue(a - b);
  return a < b ? 1 : 0;
}

int CArchiveSize::Cmp(const CArchiveSize& other) const {
  const std::uint64_t a = GetValue();
  const std::uint64_t b = other.GetValue();
  return a > b ? 1 : (a < b ? -1 : 0);
}

DWORD CalcArchivePercent(const CArchiveSize& done, const CArchiveSize& total) {
  std::uint64_t d = done.GetValue();
  std::uint64_t t = total.GetValue();
  if (t == 0) return 0;
  if (d >= t) return 10000;
  if (d == 0) return 0;
  // Scale both into 31 bits so that the rounding below works on the same
  // magnitudes as a 32-bit multiply-divide would.
  int bits = 0;
  for (std::uint64_t v = t; v != 0; v >>= 1) ++bits;
  if (bits > 31) {
    d >>= (bits - 31);
    t >>= (bits - 31);
  }
  return static_cast<DWORD>((d * 10000 + t / 2) / t);
}
