// String, time and arithmetic functions of the Win32 API.
#include "platform/layer.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <ctime>

using namespace talvern::platform;

// ---- Strings ----------------------------------------------------------------

int lstrlenW(LPCWSTR string) {
  if (string == nullptr) return 0;
  int n = 0;
  while (string[n] != 0) ++n;
  return n;
}

namespace {

// Sort class of a code unit in the user-default order that lstrcmpW and
// lstrcmpiW approximate: punctuation and symbols, then digits, then letters.
int SortClass(WCHAR c) {
  if (c >= u'0' && c <= u'9') return 2;
  if (IsLetter(c)) return 3;
  return 1;
}

// Compares two strings: first by class and case-folded value, then (when
// caseSensitive) lower case before upper case, then by code unit.
int CompareStrings(LPCWSTR a, LPCWSTR b, bool caseSensitive) {
  if (a == nullptr || b == nullptr) return a == b ? 0 : (a == nullptr ? -1 : 1);
  int i = 0;
  for (;; ++i) {
    const WCHAR ca = a[i];
    const WCHAR cb = b[i];
    if (ca == 0 || cb == 0) {
      if (ca != cb) return ca == 0 ? -1 : 1;
      break;
    }
    const int ka = SortClass(ca);
    const int kb = SortClass(cb);
    if (ka != kb) return ka < kb ? -1 : 1;
    const WCHAR fa = LowerChar(ca);
    const WCHAR fb = LowerChar(cb);
    if (fa != fb) return fa < fb ? -1 : 1;
  }
  if (!caseSensitive) return 0;
  for (int k = 0; k < i; ++k) {
    if (a[k] == b[k]) continue;
    const bool lowerA = LowerChar(a[k]) == a[k];
    const bool lowerB = LowerChar(b[k]) == b[k];
    if (lowerA != lowerB) return lowerA ? -1 : 1;
    return a[k] < b[k] ? -1 : 1;
  }
  return 0;
}

} // namespace

int lstrcmpW(LPCWSTR string1, LPCWSTR string2) { return CompareStrings(string1, string2, true); }
int lstrcmpiW(LPCWSTR string1, LPCWSTR string2) { return CompareStrings(string1, string2, false); }

LPWSTR CharNextW(LPCWSTR current) {
  auto* p = const_cast<LPWSTR>(current);
  if (p == nullptr || *p == 0) return p;
  if (p[0] >= 0xD800 && p[0] <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) return p + 2;
  return p + 1;
}

LPWSTR CharUpperW(LPWSTR string) {
  const auto value = reinterpret_cast<std::uintptr_t>(string);
  if (value <= 0xFFFF) {
    // A single character passed in the low word of the pointer.
    return reinterpret_cast<LPWSTR>(
        static_cast<std::uintptr_t>(UpperChar(static_cast<WCHAR>(value))));
  }
  for (WCHAR* p = string; *p != 0; ++p) *p = UpperChar(*p);
  return string;
}

// ---- wsprintfW ----------------------------------------------------------------

namespace {

constexpr int kWsprintfLimit = 1024; // units written at most, terminator included

struct Output {
  WCHAR* buffer;
  int count = 0;
  void Put(WCHAR c) {
    if (count < kWsprintfLimit - 1) buffer[count++] = c;
  }
};

struct Spec {
  bool left = false, zero = false, plus = false, space = false, alternate = false;
  int width = 0;
  int precision = -1;
};

void PutPadded(Output& out, const Spec& spec, const CString& prefix, const CString& body,
               bool numeric) {
  const int length = static_cast<int>(prefix.size() + body.size());
  const int pad = spec.width > length ? spec.width - length : 0;
  const bool zeroPad = numeric && spec.zero && !spec.left && spec.precision < 0;
  if (!spec.left && !zeroPad)
    for (int i = 0; i < pad; ++i) out.Put(u' ');
  for (WCHAR c : prefix) out.Put(c);
  if (zeroPad)
    for (int i = 0; i < pad; ++i) out.Put(u'0');
  for (WCHAR c : body) out.Put(c);
  if (spec.left)
    for (int i = 0; i < pad; ++i) out.Put(u' ');
}

CString Digits(std::uint64_t value, unsigned base, bool upper, int precision) {
  CString digits;
  const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  while (value != 0) {
    digits.insert(digits.begin(), static_cast<WCHAR>(set[value % base]));
    value /= base;
  }
  const int minimum = precision < 0 ? 1 : precision;
  while (static_cast<int>(digits.size()) < minimum) digits.insert(digits.begin(), u'0');
  return digits;
}

} // namespace

int wsprintfW(LPWSTR buffer, LPCWSTR format, ...) {
  if (buffer == nullptr || format == nullptr) return 0;
  va_list args;
  va_start(args, format);
  Output out{buffer};
  for (const WCHAR* p = format; *p != 0;) {
    if (*p != u'%') {
      out.Put(*p++);
      continue;
    }
    ++p;
    Spec spec;
    for (;; ++p) {
      if (*p == u'-')
        spec.left = true;
      else if (*p == u'0')
        spec.zero = true;
      else if (*p == u'+')
        spec.plus = true;
      else if (*p == u' ')
        spec.space = true;
      else if (*p == u'#')
        spec.alternate = true;
      else
        break;
    }
    while (*p >= u'0' && *p <= u'9') spec.width = spec.width * 10 + (*p++ - u'0');
    if (*p == u'.') {
      ++p;
      spec.precision = 0;
      while (*p >= u'0' && *p <= u'9') spec.precision = spec.precision * 10 + (*p++ - u'0');
    }
    // Size prefixes: 'l' is 32 bits as on Windows, 'h' 16 bits (and narrow
    // text for s and c), "I64" 64 bits.
    int size = 32;
    bool narrow = false;
    if (*p == u'l') {
      ++p;
    } else if (*p == u'h') {
      size = 16;
      narrow = true;
      ++p;
    } else if (p[0] == u'I' && p[1] == u'6' && p[2] == u'4') {
      size = 64;
      p += 3;
    }
    const WCHAR conv = *p;
    if (conv == 0) break;
    ++p;
    switch (conv) {
    case u'%':
      out.Put(u'%');
      break;
    case u'c':
    case u'C': {
      const int value = va_arg(args, int);
      CString body;
      if (conv == u'C' || narrow)
        body += static_cast<WCHAR>(static_cast<unsigned char>(value));
      else
        body += static_cast<WCHAR>(value);
      if (body[0] != 0) PutPadded(out, spec, CString(), body, false);
      break;
    }
    case u's':
    case u'S': {
      CString body;
      if (conv == u'S' || narrow) {
        const char* text = va_arg(args, const char*);
        body = talvern::FromUtf8(text ? std::string(text) : std::string("(null)"));
      } else {
        const WCHAR* text = va_arg(args, const WCHAR*);
        body = text ? CString(text) : CString(u"(null)");
      }
      if (spec.precision >= 0 && static_cast<int>(body.size()) > spec.precision)
        body.resize(static_cast<std::size_t>(spec.precision));
      PutPadded(out, spec, CString(), body, false);
      break;
    }
    case u'd':
    case u'i': {
      std::int64_t value;
      if (size == 64)
        value = va_arg(args, std::int64_t);
      else if (size == 16)
        value = static_cast<std::int16_t>(va_arg(args, int));
      else
        value = va_arg(args, int);
      const bool negative = value < 0;
      const std::uint64_t magnitude =
          negative ? (~static_cast<std::uint64_t>(value) + 1) : static_cast<std::uint64_t>(value);
      CString prefix;
      if (negative)
        prefix = u"-";
      else if (spec.plus)
        prefix = u"+";
      else if (spec.space)
        prefix = u" ";
      PutPadded(out, spec, prefix, Digits(magnitude, 10, false, spec.precision), true);
      break;
    }
    case u'u':
    case u'x':
    case u'X': {
      std::uint64_t value;
      if (size == 64)
        value = va_arg(args, std::uint64_t);
      else if (size == 16)
        value = static_cast<std::uint16_t>(va_arg(args, unsigned int));
      else
        value = va_arg(args, unsigned int);
      CString prefix;
      if (conv != u'u' && spec.alternate && value != 0) prefix = conv == u'x' ? u"0x" : u"0X";
      PutPadded(out, spec, prefix,
                Digits(value, conv == u'u' ? 10 : 16, conv == u'X', spec.precision), true);
      break;
    }
    case u'p': {
      const auto value = reinterpret_cast<std::uintptr_t>(va_arg(args, void*));
      PutPadded(out, spec, CString(), Digits(value, 16, true, 2 * sizeof(void*)), true);
      break;
    }
    default:
      // An unknown conversion is copied as it stands.
      out.Put(conv);
      break;
    }
  }
  va_end(args);
  buffer[out.count] = 0;
  return out.count;
}

// ---- Arithmetic -------------------------------------------------------------

int MulDiv(int number, int numerator, int denominator) {
  if (denominator == 0) return -1;
  std::int64_t a = number;
  std::int64_t c = denominator;
  if (c < 0) {
    a = -a;
    c = -c;
  }
  const std::int64_t product = a * numerator;
  // Rounds half away from zero.
  const std::int64_t result = product >= 0 ? (product + c / 2) / c : (product - c / 2) / c;
  if (result > 2147483647 || result < -2147483647) return -1;
  return static_cast<int>(result);
}

// ---- Time ---------------------------------------------------------------------

namespace {

constexpr std::uint64_t kTicksPerSecond = 10000000;
constexpr std::uint64_t kTicksPerDay = kTicksPerSecond * 86400;
constexpr std::int64_t kDaysFrom1601To1970 = 134774;

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void CivilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<std::int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y += m <= 2;
}

bool IsLeap(unsigned y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

} // namespace

namespace talvern::platform {

std::uint64_t FileTimeToU64(const FILETIME& ft) {
  return (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

FILETIME U64ToFileTime(std::uint64_t value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

std::uint64_t TimespecToU64(const struct timespec& ts) {
  const std::int64_t ticks = static_cast<std::int64_t>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100 +
                             kDaysFrom1601To1970 * static_cast<std::int64_t>(kTicksPerDay);
  return ticks < 0 ? 0 : static_cast<std::uint64_t>(ticks);
}

struct timespec U64ToTimespec(std::uint64_t value) {
  const std::int64_t offset = kDaysFrom1601To1970 * static_cast<std::int64_t>(kTicksPerDay);
  // FILETIME values above 2^63 are not times; they are clamped.
  const std::int64_t ticks =
      static_cast<std::int64_t>(value > 0x7FFFFFFFFFFFFFFFull ? 0x7FFFFFFFFFFFFFFFull : value) -
      offset;
  std::int64_t seconds = ticks / 10000000;
  std::int64_t rest = ticks % 10000000;
  if (rest < 0) {
    rest += 10000000;
    seconds -= 1;
  }
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(seconds);
  ts.tv_nsec = static_cast<long>(rest * 100);
  return ts;
}

} // namespace talvern::platform

BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime) {
  if (systemTime == nullptr || fileTime == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  const SYSTEMTIME& t = *systemTime;
  static const unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (t.wYear < 1601 || t.wYear > 30827 || t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1 ||
      t.wHour > 23 || t.wMinute > 59 || t.wSecond > 59 || t.wMilliseconds > 999)
    return Fail(ERROR_INVALID_PARAMETER);
  const unsigned monthDays = kDays[t.wMonth - 1] + (t.wMonth == 2 && IsLeap(t.wYear) ? 1 : 0);
  if (t.wDay > monthDays) return Fail(ERROR_INVALID_PARAMETER);
  const std::int64_t days = DaysFromCivil(t.wYear, t.wMonth, t.wDay) + kDaysFrom1601To1970;
  const std::uint64_t ticks =
      static_cast<std::uint64_t>(days) * kTicksPerDay +
      ((static_cast<std::uint64_t>(t.wHour) * 3600 + t.wMinute * 60u + t.wSecond) * 1000 +
       t.wMilliseconds) *
          10000;
  *fileTime = U64ToFileTime(ticks);
  return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime) {
  if (fileTime == nullptr || systemTime == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  const std::uint64_t ticks = FileTimeToU64(*fileTime);
  if (ticks > 0x7FFFFFFFFFFFFFFFull) return Fail(ERROR_INVALID_PARAMETER);
  const std::uint64_t days = ticks / kTicksPerDay;
  std::uint64_t rest = ticks % kTicksPerDay;
  std::int64_t y;
  unsigned m, d;
  CivilFromDays(static_cast<std::int64_t>(days) - kDaysFrom1601To1970, y, m, d);
  SYSTEMTIME& t = *systemTime;
  t.wYear = static_cast<WORD>(y);
  t.wMonth = static_cast<WORD>(m);
  t.wDay = static_cast<WORD>(d);
  t.wDayOfWeek = static_cast<WORD>((days + 1) % 7); // 1601-01-01 was a Monday
  t.wHour = static_cast<WORD>(rest / (kTicksPerSecond * 3600));
  rest %= kTicksPerSecond * 3600;
  t.wMinute = static_cast<WORD>(rest / (kTicksPerSecond * 60));
  rest %= kTicksPerSecond * 60;
  t.wSecond = static_cast<WORD>(rest / kTicksPerSecond);
  rest %= kTicksPerSecond;
  t.wMilliseconds = static_cast<WORD>(rest / 10000);
  return TRUE;
}

void GetSystemTime(LPSYSTEMTIME systemTime) {
  if (systemTime == nullptr) return;
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  const FILETIME ft = U64ToFileTime(TimespecToU64(now));
  FileTimeToSystemTime(&ft, systemTime);
}

LONG CompareFileTime(const FILETIME* fileTime1, const FILETIME* fileTime2) {
  const std::uint64_t a = FileTimeToU64(*fileTime1);
  const std::uint64_t b = FileTimeToU64(*fileTime2);
  return a < b ? -1 : (a > b ? 1 : 0);
}

void Sleep(DWORD milliseconds) {
  struct timespec wait {};
  wait.tv_sec = static_cast<time_t>(milliseconds / 1000);
  wait.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
}
