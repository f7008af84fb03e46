// Searches: FindFirstFileW, FindNextFileW and FindClose.
#include "platform/layer.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>
#include <vector>

namespace talvern::platform {
namespace {

// A search reads its folder once, when it starts, and hands out the
// matching entries in order.
class FindObject : public HandleObject {
public:
  std::vector<WIN32_FIND_DATAW> results;
  std::size_t next = 0;
};

bool HasWildcards(std::u16string_view pattern) {
  return pattern.find_first_of(u"*?") != std::u16string_view::npos;
}

// Windows wildcard matching, ignoring case: '*' matches any run, '?' one
// code unit; "*.*" matches every name, and a pattern ending in ".*" also
// matches the same name without an extension ("a.*" matches "a").
bool Matches(std::u16string_view pattern, std::u16string_view name) {
  if (pattern == u"*" || pattern == u"*.*") return true;
  std::size_t p = 0, n = 0, starP = CString::npos, starN = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == u'?' || UpperChar(pattern[p]) == UpperChar(name[n]))) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == u'*') {
      starP = p++;
      starN = n;
    } else if (starP != CString::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  if (p == pattern.size()) return true;
  // What is left of the pattern may be "." or ".*" when the name has no
  // extension at all: "a.*" and "*." match "a".
  const std::u16string_view rest = pattern.substr(p);
  if (name.find(u'.') != std::u16string_view::npos) return false;
  return rest[0] == u'.' && rest.find_first_not_of(u'*', 1) == std::u16string_view::npos;
}

void Fill(WIN32_FIND_DATAW& data, const CString& name, const ItemInfo& info) {
  data = WIN32_FIND_DATAW();
  data.dwFileAttributes = info.attributes;
  data.ftCreationTime = info.creation;
  data.ftLastAccessTime = info.lastAccess;
  data.ftLastWriteTime = info.lastWrite;
  data.nFileSizeHigh = static_cast<DWORD>(info.size >> 32);
  data.nFileSizeLow = static_cast<DWORD>(info.size);
  data.dwReserved0 = info.isSymlink ? IO_REPARSE_TAG_SYMLINK : 0;
  std::copy(name.begin(), name.end(), data.cFileName);
  data.cFileName[name.size()] = 0;
}

// Orders names as Windows lists them on its own file systems: by upper case.
bool NameBefore(const WIN32_FIND_DATAW& a, const WIN32_FIND_DATAW& b) {
  for (std::size_t i = 0;; ++i) {
    const WCHAR x = UpperChar(a.cFileName[i]);
    const WCHAR y = UpperChar(b.cFileName[i]);
    if (x != y) return x < y;
    if (x == 0) return false;
  }
}

} // namespace
} // namespace talvern::platform

using namespace talvern::platform;

namespace {

// A search; with foldersOnly the items whose folder entry shows them to be
// no folder are left out unexamined.
HANDLE StartSearch(LPCWSTR fileName, LPWIN32_FIND_DATAW findData, bool foldersOnly) {
  if (fileName == nullptr || findData == nullptr) return FailHandle(ERROR_INVALID_PARAMETER);
  CString full;
  long filePart = -1;
  if (const DWORD code = BuildFullPathName(fileName, full, filePart)) return FailHandle(code);
  // A path that ends with a separator names no file.
  if (filePart < 0) return FailHandle(ERROR_FILE_NOT_FOUND);
  const CString pattern = full.substr(static_cast<std::size_t>(filePart));
  CString folder = full.substr(0, static_cast<std::size_t>(filePart));

  ResolvedPath dir;
  if (!Resolve(folder.c_str(), dir)) return INVALID_HANDLE_VALUE;
  const std::string prefix = dir.host == "/" ? std::string("/") : dir.host + "/";

  auto find = std::make_unique<FindObject>();
  if (!HasWildcards(pattern)) {
    // One name: the item itself, if it exists. Only when it cannot be
    // looked at does the folder tell which failure it is.
    std::string hostName;
    ItemInfo info;
    if (!WindowsNameToHost(pattern, hostName) || !QueryItem(prefix + hostName, hostName, info)) {
      const DWORD code = GetLastError();
      struct stat st {};
      if (::stat(dir.host.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return FailHandle(ERROR_PATH_NOT_FOUND);
      SetLastError(code);
      return INVALID_HANDLE_VALUE;
    }
    WIN32_FIND_DATAW data;
    Fill(data, HostNameToWindows(hostName), info);
    find->results.push_back(data);
  } else {
    // Opening the folder tells whether it is one.
    DIR* d = ::opendir(dir.host.c_str());
    if (d == nullptr) {
      const int err = errno;
      // A folder that cannot be reached at all is missing; one that cannot
      // be read reports why.
      struct stat st {};
      if (err == ENOENT || err == ENOTDIR || ::stat(dir.host.c_str(), &st) != 0 ||
          !S_ISDIR(st.st_mode))
        return FailHandle(ERROR_PATH_NOT_FOUND);
      SetLastErrorFromErrno(err);
      return INVALID_HANDLE_VALUE;
    }
    std::vector<WIN32_FIND_DATAW> entries;
    while (const dirent* e = ::readdir(d)) {
      const std::string hostName = e->d_name;
      if (hostName == "." || hostName == "..") continue;
      const CString name = HostNameToWindows(hostName);
      // Longer names do not fit cFileName; host file systems do not make them.
      if (name.size() >= MAX_PATH || !Matches(pattern, name)) continue;
      // A link may lead to a folder; an unknown type must be looked at.
      if (foldersOnly && e->d_type != DT_DIR && e->d_type != DT_LNK && e->d_type != DT_UNKNOWN)
        continue;
      ItemInfo info;
      if (!QueryItem(prefix + hostName, hostName, info)) continue; // gone meanwhile
      if (foldersOnly && !(info.attributes & FILE_ATTRIBUTE_DIRECTORY)) continue;
      WIN32_FIND_DATAW data;
      Fill(data, name, info);
      entries.push_back(data);
    }
    ::closedir(d);
    std::sort(entries.begin(), entries.end(), NameBefore);
    // "." and ".." come first in every folder but a root, as Windows lists them.
    if (!dir.isRoot) {
      const std::string parent = dir.host.substr(0, dir.host.find_last_of('/'));
      const std::pair<const char16_t*, std::string> dots[] = {
          {u".", dir.host}, {u"..", parent.empty() ? std::string("/") : parent}};
      for (const auto& [name, host] : dots) {
        ItemInfo info;
        if (!Matches(pattern, name) || !QueryItem(host, std::string_view("."), info)) continue;
        WIN32_FIND_DATAW data;
        Fill(data, name, info);
        find->results.push_back(data);
      }
    }
    find->results.insert(find->results.end(), entries.begin(), entries.end());
  }
  if (find->results.empty()) return FailHandle(ERROR_FILE_NOT_FOUND);
  *findData = find->results[0];
  find->next = 1;
  return RegisterHandle(std::move(find));
}

} // namespace

HANDLE FindFirstFileW(LPCWSTR fileName, LPWIN32_FIND_DATAW findData) {
  return StartSearch(fileName, findData, false);
}

HANDLE FindFirstFileExW(LPCWSTR fileName, FINDEX_INFO_LEVELS infoLevel, LPVOID findData,
                        FINDEX_SEARCH_OPS searchOp, LPVOID searchFilter, DWORD additionalFlags) {
  if ((infoLevel != FindExInfoStandard && infoLevel != FindExInfoBasic) ||
      (searchOp != FindExSearchNameMatch && searchOp != FindExSearchLimitToDirectories) ||
      searchFilter != nullptr || (additionalFlags & ~FIND_FIRST_EX_LARGE_FETCH) != 0)
    return FailHandle(ERROR_INVALID_PARAMETER);
  return StartSearch(fileName, static_cast<LPWIN32_FIND_DATAW>(findData),
                     searchOp == FindExSearchLimitToDirectories);
}

BOOL FindNextFileW(HANDLE findFile, LPWIN32_FIND_DATAW findData) {
  auto* find = FindHandleAs<FindObject>(findFile);
  if (find == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (findData == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  if (find->next >= find->results.size()) return Fail(ERROR_NO_MORE_FILES);
  *findData = find->results[find->next++];
  return TRUE;
}

BOOL FindClose(HANDLE findFile) {
  if (FindHandleAs<FindObject>(findFile) == nullptr) return Fail(ERROR_INVALID_HANDLE);
  TakeHandle(findFile).reset();
  return TRUE;
}
