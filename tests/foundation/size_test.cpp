// Sizes, offsets and the progress percentage.
#include <talvern/size.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr std::uint64_t kMax = 0xFFFFFFFFFFFFFFFFull;

TEST(ArchiveSize, LayoutIsLowHalfThenHighHalf) {
  CArchiveSize s(0x0123456789ABCDEFull);
  CArchiveOffset o(s);
  const unsigned char expected[8] = {0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01};
  EXPECT_EQ(0, std::memcmp(&s, expected, 8));
  EXPECT_EQ(0, std::memcmp(&o, expected, 8));
  EXPECT_EQ(0x89ABCDEFu, s.LowPart);
  EXPECT_EQ(0x01234567u, s.HighPart);
}

TEST(ArchiveSize, AddAndSubReportCarryAndBorrowOutOfBit63) {
  struct Case {
    std::uint64_t a, b;
    int add; // carry of a + b
    std::uint64_t sum;
    int sub; // borrow of a - b
    std::uint64_t difference;
  } cases[] = {
      {kMax, 1, 1, 0, 0, kMax - 1},
      {0xFFFFFFFFull, 1, 0, 0x100000000ull, 0, 0xFFFFFFFEull},
      {kMax - 5, 5, 0, kMax, 0, kMax - 10},
      {kMax, kMax, 1, kMax - 1, 0, 0},
      {5, 7, 0, 12, 1, 0xFFFFFFFFFFFFFFFEull},
      {0x100000000ull, 1, 0, 0x100000001ull, 0, 0xFFFFFFFFull},
  };
  for (const Case& c : cases) {
    CArchiveSize sum(c.a), difference(c.a);
    EXPECT_EQ(c.add, sum.Add(CArchiveSize(c.b))) << c.a << " + " << c.b;
    EXPECT_EQ(c.sum, sum.GetValue()) << c.a << " + " << c.b;
    EXPECT_EQ(c.sub, difference.Sub(CArchiveSize(c.b))) << c.a << " - " << c.b;
    EXPECT_EQ(c.difference, difference.GetValue()) << c.a << " - " << c.b;
  }
}

TEST(ArchiveSize, CmpIsUnsignedOverAllSixtyFourBits) {
  EXPECT_EQ(1, CArchiveSize(0x100000000ull).Cmp(CArchiveSize(0xFFFFFFFFull)));
  EXPECT_EQ(-1, CArchiveSize(0xFFFFFFFFull).Cmp(CArchiveSize(0x100000000ull)));
  EXPECT_EQ(0, CArchiveSize(42).Cmp(CArchiveSize(42)));
  EXPECT_EQ(1, CArchiveSize(kMax).Cmp(CArchiveSize(0)));
  EXPECT_EQ(-1, CArchiveSize(0x00000001FFFFFFFFull).Cmp(CArchiveSize(0x0000000200000000ull)));
}

TEST(ArchiveSize, DWordsSaturateAndOffsetsConvert) {
  EXPECT_EQ(0xFFFFFFFFu, CArchiveSize(0x100000000ull).GetDWord());
  EXPECT_EQ(7u, CArchiveSize(7).GetDWord());
  CArchiveSize s(kMax);
  s.SetDWord(9);
  EXPECT_EQ(9u, s.GetValue());
  s.Copy(CArchiveSize(0x500000001ull));
  EXPECT_EQ(0x500000001ull, s.GetValue());

  CArchiveOffset o;
  o = CArchiveSize(123);
  EXPECT_EQ(123u, o.GetValue());
  o = std::uint64_t{0x700000000ull};
  CArchiveOffset p(o);
  EXPECT_EQ(0, p.Cmp(o));
  EXPECT_EQ(0, p.Add(CArchiveSize(1)));
  EXPECT_EQ(0x700000001ull, p.GetValue());
}

TEST(CalcArchivePercent, EdgeValues) {
  auto pct = [](std::uint64_t d, std::uint64_t t) {
    return CalcArchivePercent(CArchiveSize(d), CArchiveSize(t));
  };
  EXPECT_EQ(0u, pct(0, 0));
  EXPECT_EQ(0u, pct(5, 0));
  EXPECT_EQ(10000u, pct(7, 7));
  EXPECT_EQ(10000u, pct(9, 7));
  EXPECT_EQ(0u, pct(0, 7));
  EXPECT_EQ(3333u, pct(1, 3));
  EXPECT_EQ(6667u, pct(2, 3));
  EXPECT_EQ(1u, pct(1, 20000)); // an exact half rounds up
  EXPECT_EQ(0u, pct(1, 20001));
  EXPECT_EQ(10000u, pct((1ull << 40) - 1, 1ull << 40)); // scaling, then rounding
  EXPECT_EQ(0u, pct(1, 1ull << 63));
  EXPECT_EQ(5000u, pct(1ull << 62, 1ull << 63));
  EXPECT_EQ(9998u, pct(0x7FFFFFFFull - 0x7FFFFull, 0x7FFFFFFFull)); // no scaling below 2^31
  EXPECT_EQ(10000u, pct(0x7FFFFFFEull, 0x7FFFFFFFull));
}

} // namespace
