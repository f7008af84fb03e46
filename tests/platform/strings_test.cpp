// Formatting, and the conversions between SYSTEMTIME and FILETIME.
#include "support/test_support.h"

#include <gtest/gtest.h>

using test::N;

namespace {

template <class... A> std::string Format(const WCHAR* format, A... args) {
  WCHAR buffer[1100];
  const int n = wsprintfW(buffer, format, args...);
  EXPECT_EQ(n, lstrlenW(buffer));
  return N(buffer);
}

} // namespace

TEST(Strings, WsprintfConversionsFlagsAndWidths) {
  EXPECT_EQ(Format(u"%s|%c|%d|%u", u"text", static_cast<int>(u'\u00e9'), -42, 42u),
            "text|\xc3\xa9|-42|42");
  EXPECT_EQ(Format(u".%03lX", 0xAu), ".00A");
  EXPECT_EQ(Format(u".%03lX", 0xFFFu), ".FFF");
  EXPECT_EQ(Format(u"%lu|%lx|%lX", 4294967295u, 0xbeefu, 0xbeefu), "4294967295|beef|BEEF");
  EXPECT_EQ(Format(u"[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 42, 42),
            "[   42][42   ][-0042][+42][ 42]");
  EXPECT_EQ(Format(u"[%8s][%-8s][%.2s]", u"abc", u"abc", u"abc"), "[     abc][abc     ][ab]");
  EXPECT_EQ(Format(u"%#x %#X %%", 255u, 255u), "0xff 0XFF %");
  EXPECT_EQ(Format(u"%s", static_cast<const WCHAR*>(nullptr)), "(null)");
  EXPECT_EQ(Format(u"%I64u", std::uint64_t{1} << 40), "1099511627776");
  // The disk-folder format built at run time: "%%0%lulu" filled with 3.
  WCHAR format[16];
  wsprintfW(format, u"%%0%lulu", 3u);
  EXPECT_EQ(N(format), "%03lu");
  EXPECT_EQ(Format(format, 8u), "008");
  // Output stops at 1024 units, terminator included.
  const CString longText(2000, u'x');
  EXPECT_EQ(Format(u"%s", longText.c_str()).size(), 1023u);
}

// Every day of a 400-year cycle (leap rules included), each at another
// time of day, both ways; the day of the week counts on from a Monday.
TEST(Time, EveryDayOfFourHundredYearsConvertsBothWays) {
  const unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  unsigned y = 1601, m = 1, d = 1;
  for (std::uint64_t day = 0; day < 146097; ++day) {
    const std::uint64_t ms = (day * 7919) % 86400000;
    const std::uint64_t value = (day * 86400000 + ms) * 10000;
    const FILETIME ft{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
    SYSTEMTIME st{};
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st)) << day;
    ASSERT_EQ(st.wYear * 10000 + st.wMonth * 100 + st.wDay, y * 10000 + m * 100 + d) << day;
    ASSERT_EQ(st.wDayOfWeek, (day + 1) % 7);
    ASSERT_EQ(((st.wHour * 60 + st.wMinute) * 60 + st.wSecond) * 1000 + st.wMilliseconds, ms);
    FILETIME back{};
    ASSERT_TRUE(SystemTimeToFileTime(&st, &back));
    ASSERT_EQ(CompareFileTime(&back, &ft), 0) << day;
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (++d > kDays[m - 1] + (m == 2 && leap)) d = 1, m = m % 12 + 1, y += m == 1;
  }
  EXPECT_EQ(y * 10000 + m * 100 + d, 20010101u);
}

TEST(Time, FieldsOutOfRangeAndOtherErrors) {
  const SYSTEMTIME bad[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0}, {2024, 0, 0, 1, 0, 0, 0, 0},
      {2024, 13, 0, 1, 0, 0, 0, 0},  {2024, 1, 0, 0, 0, 0, 0, 0},  {2024, 1, 0, 32, 0, 0, 0, 0},
      {2023, 2, 0, 29, 0, 0, 0, 0},  {2024, 4, 0, 31, 0, 0, 0, 0}, {2024, 1, 0, 1, 24, 0, 0, 0},
      {2024, 1, 0, 1, 0, 60, 0, 0},  {2024, 1, 0, 1, 0, 0, 60, 0}, {2024, 1, 0, 1, 0, 0, 0, 1000},
      {1900, 2, 0, 29, 0, 0, 0, 0}};
  FILETIME ft{};
  for (const SYSTEMTIME& t : bad) {
    SetLastError(0);
    EXPECT_FALSE(SystemTimeToFileTime(&t, &ft)) << t.wYear << "-" << t.wMonth << "-" << t.wDay;
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
  const SYSTEMTIME last{30827, 12, 0, 31, 23, 59, 59, 999};
  EXPECT_TRUE(SystemTimeToFileTime(&last, &ft));
  const SYSTEMTIME leapDay{2024, 2, 0, 29, 23, 59, 58, 999};
  ASSERT_TRUE(SystemTimeToFileTime(&leapDay, &ft));
  EXPECT_EQ((std::uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime, 133537247989990000ull);
  SYSTEMTIME back{};
  const FILETIME huge{0, 0x80000000u};
  EXPECT_FALSE(FileTimeToSystemTime(&huge, &back));
  SYSTEMTIME now{};
  GetSystemTime(&now);
  EXPECT_GE(now.wYear, 2024);
  const FILETIME a{5, 1}, b{4, 2};
  EXPECT_EQ(CompareFileTime(&a, &b), -1);
  EXPECT_EQ(CompareFileTime(&b, &a), 1);
  EXPECT_EQ(CompareFileTime(&a, &a), 0);
}
