// Texts shown to people and programs: sizes, times, attributes, names.
#pragma once

#include <talvern/talvern.h>

#include <cstdint>
#include <string>

namespace tool {

// "312.4 KiB", "12 bytes".
std::string HumanSize(std::uint64_t bytes);
// "1,234,567".
std::string GroupedNumber(std::uint64_t value);
// "1 file", "3 files": a count with its noun, singular for one.
std::string Counted(std::uint64_t count, const char* one, const char* many);
// "0:03", "1:02:03".
std::string Duration(double seconds);
// "2024-05-01 10:00:00" (UTC); "-" for a zero time.
std::string TimeText(const FILETIME& time);
// "2024-05-01T10:00:00.1234567Z" for programs; "" for a zero time.
std::string IsoTime(const FILETIME& time);
// "d-a--" style letters: directory, read-only, hidden, system, archive.
std::string AttributeLetters(DWORD attributes);
// "stored", "lz1", or "method N".
std::string MethodName(DWORD method);
// Packed size as a percentage of the original, one decimal: "38.2%".
std::string Ratio(std::uint64_t packed, std::uint64_t original);
// A JSON string literal.
std::string JsonString(const std::string& text);

// Text of wide strings.
std::string Utf8(const CString& text);
std::string Utf8(const WCHAR* text);
CString Wide(const std::string& text);

// The entry's place in the archive: folder, a backslash, name.
CString EntryPathOf(const CString& folder, const WCHAR* name);
std::string EntryPath(const CArchiveEntry& entry);
std::uint64_t EntrySize(const CArchiveEntry& entry);
bool IsDirectory(const CArchiveEntry& entry);
// Bit 31 of the compress type: the entry's data goes on in the next volume.
constexpr DWORD kContinued = 0x80000000u;

} // namespace tool
