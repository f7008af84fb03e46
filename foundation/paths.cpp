// Path utilities: stepping, separators, extensions, absolute and root paths,
// and directory-tree creation.
#include "foundation/paths.h"

#include <climits>
#include <vector>

namespace {

bool IsSeparator(WCHAR c) { return c == u'\\' || c == u':'; }
bool IsHighSurrogate(WCHAR c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(WCHAR c) { return c >= 0xDC00 && c <= 0xDFFF; }
bool IsAsciiLetter(WCHAR c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }

} // namespace

int NextCharIndex(const CString& s, int i) {
  const int len = static_cast<int>(s.size());
  if (i < 0 || i >= len) return len;
  const WCHAR* base = s.c_str();
  const int j = static_cast<int>(CharNextW(base + i) - base);
  if (j <= i || j >= len) return len;
  if (IsHighSurrogate(s[j - 1]) && IsLowSurrogate(s[j])) return j <= i + 1 ? j + 1 : j - 1;
  return j;
}

int FindLastSeparator(const CString& s, int flag, int limit) {
  if (s.empty()) return -1;
  const int len = static_cast<int>(s.size());
  int end = limit;
  if (limit < 0 || limit > len) end = len;
  if (end < 1) return -1;
  int found = -1;
  int i = 0;
  for (;;) {
    if (s[i] == 0) break;
    const int n = NextCharIndex(s, i);
    if (IsSeparator(s[i])) found = flag ? i : n;
    i = n;
    if (n >= end) break;
  }
  return found;
}

void RemoveExtension(CString& s) {
  int start = FindLastSeparator(s, 0, -1);
  if (start < 0) start = 0;
  const int len = static_cast<int>(s.size());
  int dot = -1;
  for (int i = start; i < len && s[i] != 0; i = NextCharIndex(s, i))
    if (s[i] == u'.') dot = i;
  if (dot >= 0) s.resize(static_cast<size_t>(dot));
}

CString BuildFullPath(const WCHAR* path, int* index) {
  static const WCHAR kDot[] = {u'.', 0};
  if (index) *index = -1;
  const WCHAR* p = (path == nullptr || path[0] == 0) ? kDot : path;
  const DWORD needed = GetFullPathNameW(p, 0, nullptr, nullptr);
  if (needed == 0) return CString();
  std::vector<WCHAR> buffer(needed, 0);
  WCHAR* filePart = nullptr;
  const DWORD got = GetFullPathNameW(p, needed, buffer.data(), &filePart);
  if (got == 0 || got >= needed) return CString();
  CString result(buffer.data(), got);
  if (index && filePart != nullptr) {
    const std::ptrdiff_t offset = filePart - buffer.data();
    if (offset >= 0 && offset <= INT_MAX) *index = static_cast<int>(offset);
  }
  return result;
}

CString BuildRootPath(const WCHAR* path) {
  if (path == nullptr) return CString();
  const CString full = BuildFullPath(path);
  if (full.empty()) return CString();
  const size_t len = full.size();
  if (len >= 2 && IsAsciiLetter(full[0]) && full[1] == u':') {
    CString root;
    root += full[0];
    root += u':';
    root += u'\\';
    return root;
  }
  if (len >= 3 && full[0] == u'\\' && full[1] == u'\\' && full[2] != 0 && full[2] != u'\\') {
    size_t i = 2;
    while (i < len && full[i] != 0 && full[i] != u'\\') ++i;
    if (i >= len || full[i] != u'\\') return CString();
    if (i + 1 >= len || full[i + 1] == 0 || full[i + 1] == u'\\') return CString();
    size_t j = i + 1;
    while (j < len && full[j] != 0 && full[j] != u'\\') ++j;
    CString root = full.substr(0, j);
    root += u'\\';
    return root;
  }
  return CString();
}

int CreateDirectoryTree(const WCHAR* root, const WCHAR* path, int createLast) {
  if (lstrlenW(root) >= lstrlenW(path)) return 1;
  int f = -1;
  const CString full = BuildFullPath(path, &f);
  if (full.empty() || f < 0) return 0;
  size_t parentEnd = static_cast<size_t>(f);
  if (parentEnd > 0 && full[parentEnd - 1] == u'\\') --parentEnd;
  const CString parent = full.substr(0, parentEnd);
  if (!CreateDirectoryTree(root, parent.c_str(), 1)) return 0;
  if (!createLast) return 1;
  if (path != nullptr) {
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
      return 1;
  }
  return CreateDirectoryW(path, nullptr) ? 1 : 0;
}
