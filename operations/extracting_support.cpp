// Helpers of the extracting operations: paths, containment of outputs,
// times and media identity.
#include "operations/extracting_support.h"

#include "foundation/paths.h"

namespace {

bool IsZero(const FILETIME& t) { return t.dwLowDateTime == 0 && t.dwHighDateTime == 0; }

FILETIME CurrentTime() {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  FILETIME result{};
  SystemTimeToFileTime(&now, &result);
  return result;
}

// Characters that no Windows file name can hold; each of them would either
// split the component, name a drive or stream, or act as a wildcard when
// the name is looked up.
bool IsForbiddenInName(WCHAR c) {
  if (c < 0x20) return true;
  switch (c) {
  case u'\\':
  case u'/':
  case u':':
  case u'*':
  case u'?':
  case u'"':
  case u'<':
  case u'>':
  case u'|':
    return true;
  default:
    return false;
  }
}

bool IsContainedComponent(const WCHAR* begin, const WCHAR* end) {
  if (begin == end) return false;
  bool onlyDotsAndSpaces = true;
  for (const WCHAR* p = begin; p != end; ++p) {
    if (IsForbiddenInName(*p)) return false;
    if (*p != u'.' && *p != u' ') onlyDotsAndSpaces = false;
  }
  return !onlyDotsAndSpaces;
}

} // namespace

bool PrepareExtractionPaths(const WCHAR* targetDir, const CString& archiveName, CString& target,
                            CString& root) {
  target = BuildFullPath(targetDir);
  if (!target.empty() && target.back() == u'\\') target.pop_back();
  root = archiveName.empty() ? CString() : BuildRootPath(archiveName.c_str());
  return !target.empty() && !root.empty();
}

CString BuildOutputPath(const CString& target, const CString& folder, const WCHAR* name) {
  CString path = target;
  if (!target.empty() && !folder.empty()) path += u'\\';
  path += folder;
  if (!path.empty()) path += u'\\';
  path += name;
  return path;
}

bool IsContainedFolder(const CString& folder) {
  if (folder.empty()) return true;
  const WCHAR* p = folder.data();
  const WCHAR* end = p + folder.size();
  for (;;) {
    const WCHAR* stop = p;
    while (stop != end && *stop != u'\\') ++stop;
    if (!IsContainedComponent(p, stop)) return false;
    if (stop == end) return true;
    p = stop + 1;
  }
}

bool IsContainedName(const WCHAR* name) {
  const WCHAR* end = name;
  while (*end != 0) ++end;
  return IsContainedComponent(name, end);
}

ItemTimes ResolveItemTimes(const WIN32_FIND_DATAW& data, bool keepTimes,
                           const FILETIME& defaultCreate, const FILETIME& defaultLastWrite,
                           const FILETIME& defaultLastAccess) {
  ItemTimes t{};
  if (keepTimes) {
    t.Creation = data.ftCreationTime;
    t.LastAccess = data.ftLastAccessTime;
    t.LastWrite = data.ftLastWriteTime;
  }
  if (IsZero(t.Creation)) t.Creation = IsZero(defaultCreate) ? CurrentTime() : defaultCreate;
  if (IsZero(t.LastWrite)) t.LastWrite = IsZero(defaultLastWrite) ? t.Creation : defaultLastWrite;
  if (IsZero(t.LastAccess))
    t.LastAccess = IsZero(defaultLastAccess) ? t.LastWrite : defaultLastAccess;
  return t;
}

MediaIdentity ReadMediaIdentity(const CArchiveFile& archive, const WCHAR* path) {
  MediaIdentity id;
  archive.GetMediaInfo(id.Serial, id.Flags, &id.Label, path);
  return id;
}

bool IsSameIdentity(const CArchiveFile& archive, const MediaIdentity& a, const MediaIdentity& b) {
  return archive.IsSameMedia(a.Serial, b.Serial, a.Flags, b.Flags, a.Label.c_str(),
                             b.Label.c_str()) != 0;
}
