// Helpers of the extracting operations: paths, containment of outputs and
// media identity.
#include "operations/extracting_support.h"

#include "foundation/paths.h"
#include "operations/item_rules.h"

namespace {

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
  target = PrepareOperationPath(targetDir);
  root = archiveName.empty() ? CString() : BuildRootPath(archiveName.c_str());
  return !target.empty() && !root.empty();
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
