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

WCHAR Upper(WCHAR c) { return c >= u'a' && c <= u'z' ? static_cast<WCHAR>(c - 32) : c; }

// Whether a component names a device on Windows: CON, PRN, AUX, NUL, COM1
// to COM9 or LPT1 to LPT9, with or without an extension (the part before
// the first dot counts, trailing spaces left out). Writing to it would
// write to the device, on Windows, whatever folder it is in.
bool IsDeviceName(const WCHAR* begin, const WCHAR* end) {
  const WCHAR* stem = begin;
  while (stem != end && *stem != u'.') ++stem;
  while (stem != begin && stem[-1] == u' ') --stem;
  const auto length = stem - begin;
  auto is = [&](const char* name) {
    for (int i = 0; i < 3; ++i)
      if (Upper(begin[i]) != static_cast<WCHAR>(name[i])) return false;
    return true;
  };
  if (length == 3) return is("CON") || is("PRN") || is("AUX") || is("NUL");
  return length == 4 && (is("COM") || is("LPT")) && begin[3] >= u'1' && begin[3] <= u'9';
}

bool IsContainedComponent(const WCHAR* begin, const WCHAR* end) {
  if (begin == end) return false;
  for (const WCHAR* p = begin; p != end; ++p)
    if (IsForbiddenInName(*p)) return false;
  // Windows strips trailing dots and spaces: "x." would become "x", and
  // "..", ". ." nothing at all.
  return end[-1] != u'.' && end[-1] != u' ' && !IsDeviceName(begin, end);
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
