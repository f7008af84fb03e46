// UTF-8 <-> UTF-16 conversions, the reversible mapping between host names
// and Windows names, and upper-casing of single code units.
#include "platform/layer.h"

#include <clocale>
#include <cwctype>
#include <locale.h>

namespace talvern::platform {
namespace {

constexpr char32_t kEscapeBase = 0xF000; // U+F000 + byte stands for the byte

bool IsHigh(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLow(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Decodes one well-formed UTF-8 sequence at text[i]; returns the code point
// and its length, or -1 for an ill-formed one (overlong forms, surrogates
// and values above U+10FFFF included).
long DecodeOne(std::string_view text, std::size_t i, std::size_t& length) {
  const auto b0 = static_cast<unsigned char>(text[i]);
  if (b0 < 0x80) {
    length = 1;
    return b0;
  }
  std::size_t n;
  char32_t cp;
  char32_t min;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2;
    cp = b0 & 0x1F;
    min = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3;
    cp = b0 & 0x0F;
    min = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4;
    cp = b0 & 0x07;
    min = 0x10000;
  } else {
    return -1;
  }
  if (i + n > text.size()) return -1;
  for (std::size_t k = 1; k < n; ++k) {
    const auto b = static_cast<unsigned char>(text[i + k]);
    if ((b & 0xC0) != 0x80) return -1;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return -1;
  length = n;
  return static_cast<long>(cp);
}

void AppendUtf16(CString& out, char32_t cp) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out += static_cast<WCHAR>(0xD800 + (cp >> 10));
    out += static_cast<WCHAR>(0xDC00 + (cp & 0x3FF));
  } else {
    out += static_cast<WCHAR>(cp);
  }
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Characters that a Windows name cannot hold (besides '/', which a host name
// cannot hold either).
bool IsForbiddenInName(char32_t c) {
  if (c >= 1 && c <= 31) return true;
  switch (c) {
  case '\\':
  case ':':
  case '*':
  case '?':
  case '"':
  case '<':
  case '>':
  case '|':
    return true;
  default:
    return false;
  }
}

// The length of a Windows device name at the start of a name (CON, PRN,
// AUX, NUL, COM1 to COM9, LPT1 to LPT9, in any case, alone or before an
// extension, trailing spaces left out), or 0.
std::size_t DeviceStemLength(const CString& name) {
  std::size_t stem = name.find(u'.');
  if (stem == CString::npos) stem = name.size();
  while (stem != 0 && name[stem - 1] == u' ') --stem;
  auto is = [&](const char* device) {
    for (std::size_t k = 0; k < 3; ++k) {
      const WCHAR c = name[k] >= u'a' && name[k] <= u'z' ? name[k] - 32 : name[k];
      if (c != static_cast<WCHAR>(device[k])) return false;
    }
    return true;
  };
  if (stem == 3 && (is("CON") || is("PRN") || is("AUX") || is("NUL"))) return 3;
  if (stem == 4 && (is("COM") || is("LPT")) && name[3] >= u'1' && name[3] <= u'9') return 4;
  return 0;
}

locale_t UnicodeLocale() {
  static const locale_t loc = [] {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    if (l == static_cast<locale_t>(nullptr))
      l = newlocale(LC_CTYPE_MASK, "C.utf8", static_cast<locale_t>(nullptr));
    return l;
  }();
  return loc;
}

} // namespace

CString HostNameToWindows(std::string_view hostName) {
  CString out;
  out.reserve(hostName.size());
  for (std::size_t i = 0; i < hostName.size();) {
    std::size_t length = 1;
    const long cp = DecodeOne(hostName, i, length);
    const bool escapeRange = cp >= 0xF000 && cp <= 0xF0FF;
    if (cp < 0 || escapeRange || IsForbiddenInName(static_cast<char32_t>(cp))) {
      // Every byte of an ill-formed sequence, of a forbidden character and
      // of an encoded escape code point is escaped on its own, so that the
      // reverse mapping gives back exactly these bytes.
      const std::size_t count = (cp < 0) ? 1 : length;
      for (std::size_t k = 0; k < count; ++k)
        out += static_cast<WCHAR>(kEscapeBase + static_cast<unsigned char>(hostName[i + k]));
      i += count;
      continue;
    }
    AppendUtf16(out, static_cast<char32_t>(cp));
    i += length;
  }
  // Windows strips a trailing dot or space and takes device names (CON,
  // NUL, COM1, "nul.txt", ...) as devices: the last such character, or the
  // device name's last letter, is escaped, so that the name stays itself
  // on Windows too. "." and ".." keep their meaning.
  const bool dots = hostName == "." || hostName == "..";
  if (!dots && !out.empty() && (out.back() == u'.' || out.back() == u' '))
    out.back() = static_cast<WCHAR>(kEscapeBase + out.back());
  const std::size_t stem = DeviceStemLength(out);
  if (stem != 0) out[stem - 1] = static_cast<WCHAR>(kEscapeBase + out[stem - 1]);
  return out;
}

bool WindowsNameToHost(std::u16string_view name, std::string& hostName, bool allowWildcards) {
  hostName.clear();
  hostName.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    char32_t c = name[i];
    if (IsHigh(c)) {
      if (i + 1 >= name.size() || !IsLow(name[i + 1])) return Fail(ERROR_INVALID_NAME);
      c = 0x10000 + ((c - 0xD800) << 10) + (name[i + 1] - 0xDC00);
      ++i;
      AppendUtf8(hostName, c);
      continue;
    }
    if (IsLow(c) || c == 0) return Fail(ERROR_INVALID_NAME);
    if (c >= kEscapeBase && c <= kEscapeBase + 0xFF) {
      const char byte = static_cast<char>(c - kEscapeBase);
      if (byte == '\0' || byte == '/') return Fail(ERROR_INVALID_NAME);
      hostName += byte;
      continue;
    }
    if (c == '/') return Fail(ERROR_INVALID_NAME);
    if (IsForbiddenInName(c) && !(allowWildcards && (c == '*' || c == '?')))
      return Fail(ERROR_INVALID_NAME);
    AppendUtf8(hostName, c);
  }
  return true;
}

WCHAR UpperChar(WCHAR c) {
  if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<WCHAR>(c - 0x20) : c;
  if (IsHigh(c) || IsLow(c)) return c;
  const locale_t loc = UnicodeLocale();
  if (loc == static_cast<locale_t>(nullptr)) return c;
  const wint_t up = towupper_l(static_cast<wint_t>(c), loc);
  return (up > 0 && up <= 0xFFFF && !IsHigh(up) && !IsLow(up)) ? static_cast<WCHAR>(up) : c;
}

bool IsLetter(WCHAR c) {
  if (c < 0x80) return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
  if (IsHigh(c) || IsLow(c)) return false;
  const locale_t loc = UnicodeLocale();
  return loc != static_cast<locale_t>(nullptr) && iswalpha_l(static_cast<wint_t>(c), loc);
}

WCHAR LowerChar(WCHAR c) {
  if (c < 0x80) return (c >= u'A' && c <= u'Z') ? static_cast<WCHAR>(c + 0x20) : c;
  if (IsHigh(c) || IsLow(c)) return c;
  const locale_t loc = UnicodeLocale();
  if (loc == static_cast<locale_t>(nullptr)) return c;
  const wint_t low = towlower_l(static_cast<wint_t>(c), loc);
  return (low > 0 && low <= 0xFFFF && !IsHigh(low) && !IsLow(low)) ? static_cast<WCHAR>(low) : c;
}

} // namespace talvern::platform

namespace talvern {

std::string ToUtf8(const WCHAR* text) {
  std::string out;
  if (text == nullptr) return out;
  for (std::size_t i = 0; text[i] != 0; ++i) {
    char32_t c = text[i];
    if (platform::IsHigh(c) && platform::IsLow(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (platform::IsHigh(c) || platform::IsLow(c)) {
      c = 0xFFFD;
    }
    platform::AppendUtf8(out, c);
  }
  return out;
}

CString FromUtf8(const std::string& text) {
  CString out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    std::size_t length = 1;
    const long cp = platform::DecodeOne(text, i, length);
    if (cp < 0) {
      out += static_cast<WCHAR>(0xFFFD);
      i += 1;
    } else {
      platform::AppendUtf16(out, static_cast<char32_t>(cp));
      i += length;
    }
  }
  return out;
}

} // namespace talvern
