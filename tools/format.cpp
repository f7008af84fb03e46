#include "format.h"

#include <cstdio>

namespace tool {

std::string HumanSize(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  while (value >= 1024.0 && unit < 5) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string GroupedNumber(std::uint64_t value) {
  // Built forward rather than by inserting into the digits: GCC 12 at -O3
  // reports a false -Wrestrict overlap for the inserts.
  const std::string digits = std::to_string(value);
  std::string grouped;
  grouped.reserve(digits.size() + digits.size() / 3);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) grouped.push_back(',');
    grouped.push_back(digits[i]);
  }
  return grouped;
}

std::string Duration(double seconds) {
  if (seconds < 0) seconds = 0;
  const auto total = static_cast<std::uint64_t>(seconds + 0.5);
  char text[32];
  if (total >= 3600)
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu",
                  static_cast<unsigned long long>(total / 3600),
                  static_cast<unsigned long long>(total / 60 % 60),
                  static_cast<unsigned long long>(total % 60));
  else
    std::snprintf(text, sizeof text, "%llu:%02llu", static_cast<unsigned long long>(total / 60),
                  static_cast<unsigned long long>(total % 60));
  return text;
}

namespace {

bool IsZero(const FILETIME& time) { return time.dwLowDateTime == 0 && time.dwHighDateTime == 0; }

bool Split(const FILETIME& time, SYSTEMTIME& parts) {
  return !IsZero(time) && FileTimeToSystemTime(&time, &parts);
}

} // namespace

std::string TimeText(const FILETIME& time) {
  SYSTEMTIME t{};
  if (!Split(time, t)) return "-";
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", t.wYear, t.wMonth, t.wDay,
                t.wHour, t.wMinute, t.wSecond);
  return text;
}

std::string IsoTime(const FILETIME& time) {
  SYSTEMTIME t{};
  if (!Split(time, t)) return "";
  const std::uint64_t ticks =
      (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  char text[80];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%07lluZ", t.wYear, t.wMonth,
                t.wDay, t.wHour, t.wMinute, t.wSecond,
                static_cast<unsigned long long>(ticks % 10000000));
  return text;
}

std::string AttributeLetters(DWORD attributes) {
  std::string text = "-----";
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) text[0] = 'd';
  if (attributes & FILE_ATTRIBUTE_READONLY) text[1] = 'r';
  if (attributes & FILE_ATTRIBUTE_HIDDEN) text[2] = 'h';
  if (attributes & FILE_ATTRIBUTE_SYSTEM) text[3] = 's';
  if (attributes & FILE_ATTRIBUTE_ARCHIVE) text[4] = 'a';
  return text;
}

std::string MethodName(DWORD method) {
  method &= ~kContinued;
  if (method == 0) return "stored";
  if (method == 1) return "lz1";
  return "method " + std::to_string(method);
}

std::string Counted(std::uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string Ratio(std::uint64_t packed, std::uint64_t original) {
  if (original == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f%%",
                100.0 * static_cast<double>(packed) / static_cast<double>(original));
  return text;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      if (c < 0x20) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04x", c);
        out += escape;
      } else {
        out += static_cast<char>(c);
      }
    }
  }
  return out + "\"";
}

std::string Utf8(const CString& text) { return talvern::ToUtf8(text.c_str()); }
std::string Utf8(const WCHAR* text) { return text ? talvern::ToUtf8(text) : std::string(); }
CString Wide(const std::string& text) { return talvern::FromUtf8(text); }

CString EntryPathOf(const CString& folder, const WCHAR* name) {
  CString path = folder;
  if (!path.empty()) path += u'\\';
  path += name;
  return path;
}

std::string EntryPath(const CArchiveEntry& entry) {
  // Control characters (C0, DEL and C1) of a name would act on the terminal
  // that shows it: they are shown as '?', which no valid name holds.
  CString path = EntryPathOf(entry.Path, entry.FindData.cFileName);
  for (WCHAR& c : path)
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) c = u'?';
  return Utf8(path);
}

std::uint64_t EntrySize(const CArchiveEntry& entry) {
  return (static_cast<std::uint64_t>(entry.FindData.nFileSizeHigh) << 32) |
         entry.FindData.nFileSizeLow;
}

bool IsDirectory(const CArchiveEntry& entry) {
  return (entry.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace tool
