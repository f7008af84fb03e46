// Strings, formatting, arithmetic and time.
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
  WCHAR spec[16];
  wsprintfW(spec, u"%%0%lulu", 3u);
  EXPECT_EQ(N(spec), "%03lu");
  EXPECT_EQ(Format(spec, 8u), "008");
  // Output stops at 1024 units, terminator included.
  const CString longText(2000, u'x');
  EXPECT_EQ(Format(u"%s", longText.c_str()).size(), 1023u);
}

TEST(Strings, ComparisonsSteppingAndUpperCase) {
  EXPECT_EQ(lstrlenW(nullptr), 0);
  EXPECT_EQ(lstrcmpW(u"A", u"a"), 1); // lower case sorts first
  EXPECT_EQ(lstrcmpW(u"a", u"B"), -1);
  EXPECT_EQ(lstrcmpW(u"abc", u"abc"), 0);
  EXPECT_EQ(lstrcmpW(u"ab", u"abc"), -1);
  EXPECT_EQ(lstrcmpW(nullptr, u""), -1);
  EXPECT_EQ(lstrcmpiW(u"DISK", u"disk"), 0);
  EXPECT_EQ(lstrcmpiW(u"_x", u"ax"), -1); // punctuation before letters
  EXPECT_EQ(lstrcmpiW(u"\u00c9t\u00e9", u"\u00e9T\u00c9"), 0);

  const WCHAR text[] = {u'a', 0xD83D, 0xDE00, u'b', 0};
  EXPECT_EQ(CharNextW(text), text + 1);
  EXPECT_EQ(CharNextW(text + 1), text + 3); // a surrogate pair is one character
  EXPECT_EQ(CharNextW(text + 4), text + 4); // stays at the end
  WCHAR upper[] = u"a:\\dir\u00e9\u03c9";
  EXPECT_EQ(CharUpperW(upper), upper);
  EXPECT_EQ(CString(upper), CString(u"A:\\DIR\u00c9\u03a9"));
}

TEST(Arithmetic, MulDivRoundsLikeWindows) {
  EXPECT_EQ(MulDiv(1, 10000, 3), 3333);
  EXPECT_EQ(MulDiv(2, 10000, 3), 6667);
  EXPECT_EQ(MulDiv(1, 1, 2), 1); // half away from zero
  EXPECT_EQ(MulDiv(-1, 1, 2), -1);
  EXPECT_EQ(MulDiv(1, 1, -2), -1);
  EXPECT_EQ(MulDiv(-5, 3, -2), 8); // 7.5
  EXPECT_EQ(MulDiv(5, 3, 0), -1);
  EXPECT_EQ(MulDiv(0x7FFFFFFF, 2, 1), -1); // overflow
  EXPECT_EQ(MulDiv(0x40000000, 4, 2), -1);
  EXPECT_EQ(MulDiv(0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF), 0x7FFFFFFF);
}

TEST(Time, SystemTimeAndFileTimeConvertBothWays) {
  SYSTEMTIME st{2024, 2, 0, 29, 23, 59, 58, 999};
  FILETIME ft{};
  ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
  // 2024-02-29 23:59:58.999 UTC
  EXPECT_EQ((std::uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime, 133537247989990000ull);
  SYSTEMTIME back{};
  ASSERT_TRUE(FileTimeToSystemTime(&ft, &back));
  EXPECT_EQ(back.wYear, 2024);
  EXPECT_EQ(back.wMonth, 2);
  EXPECT_EQ(back.wDay, 29);
  EXPECT_EQ(back.wDayOfWeek, 4); // a Thursday
  EXPECT_EQ(back.wHour, 23);
  EXPECT_EQ(back.wMilliseconds, 999);
  const FILETIME epoch{0, 0};
  ASSERT_TRUE(FileTimeToSystemTime(&epoch, &back));
  EXPECT_EQ(back.wYear, 1601);
  EXPECT_EQ(back.wDayOfWeek, 1);

  SYSTEMTIME bad{2023, 2, 0, 29, 0, 0, 0, 0}; // not a leap year
  EXPECT_FALSE(SystemTimeToFileTime(&bad, &ft));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
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
