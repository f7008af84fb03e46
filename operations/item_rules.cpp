// Rules shared by adding and extracting.
#include "operations/item_rules.h"

#include "archive/archive_data.h"
#include "foundation/paths.h"

namespace {

constexpr DWORD kFlagAttributes[] = {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN,
                                     FILE_ATTRIBUTE_SYSTEM, FILE_ATTRIBUTE_ARCHIVE};

bool IsOptionOn(DWORD attr, DWORD offBit) {
  return ((attr & offBit) != 0) == ((attr & (offBit << 16)) != 0);
}

bool IsZero(const FILETIME& t) { return t.dwLowDateTime == 0 && t.dwHighDateTime == 0; }

} // namespace

ItemOptions ReadItemOptions(DWORD attr) {
  return ItemOptions{IsOptionOn(attr, CArchiveFile::AttrNoTimes),
                     IsOptionOn(attr, CArchiveFile::AttrNoPath),
                     IsOptionOn(attr, CArchiveFile::AttrNoSecurity)};
}

DWORD ApplyAttributeFlags(DWORD attributes, DWORD attr) {
  for (DWORD a : kFlagAttributes) {
    if (attr & a) attributes &= ~a;
    if (attr & (a << 16)) attributes ^= a;
  }
  return attributes;
}

FILETIME CurrentFileTime() {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  FILETIME result{};
  SystemTimeToFileTime(&now, &result);
  return result;
}

ItemTimes ResolveItemTimes(const WIN32_FIND_DATAW& data, bool keepTimes,
                           const CArchiveFileData& state) {
  ItemTimes t{};
  if (keepTimes) {
    t.Creation = data.ftCreationTime;
    t.LastAccess = data.ftLastAccessTime;
    t.LastWrite = data.ftLastWriteTime;
  }
  if (IsZero(t.Creation))
    t.Creation = IsZero(state.DefaultCreate) ? CurrentFileTime() : state.DefaultCreate;
  if (IsZero(t.LastWrite))
    t.LastWrite = IsZero(state.DefaultLastWrite) ? t.Creation : state.DefaultLastWrite;
  if (IsZero(t.LastAccess))
    t.LastAccess = IsZero(state.DefaultLastAccess) ? t.LastWrite : state.DefaultLastAccess;
  return t;
}

CString JoinItemPath(const WCHAR* base, const CString& folder, const WCHAR* name) {
  CString joined = base != nullptr ? CString(base) : CString();
  if (!joined.empty() && !folder.empty()) joined += u'\\';
  joined += folder;
  if (!joined.empty()) joined += u'\\';
  if (name != nullptr) joined += name;
  return joined;
}

CString PrepareOperationPath(const WCHAR* path) {
  CString full = BuildFullPath(path);
  if (!full.empty() && full.back() == u'\\') full.pop_back();
  return full;
}
