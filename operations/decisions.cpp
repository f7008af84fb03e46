// Default decision members: method request, selection, temporary file and
// backup names.
#include <talvern/archive.h>

#include <utility>

namespace {

// Exclusion bits (attribute shifted into bits 16 to 23) and the attributes
// they test.
constexpr DWORD kSelectableAttributes[] = {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN,
                                           FILE_ATTRIBUTE_SYSTEM, FILE_ATTRIBUTE_ARCHIVE};

bool PassesExclusions(DWORD attributes, DWORD srch) {
  for (DWORD a : kSelectableAttributes)
    if ((srch & (a << 16)) && (attributes & a)) return false;
  return true;
}

bool PassesRequirements(DWORD attributes, DWORD srch) {
  for (DWORD a : kSelectableAttributes)
    if ((srch & a) && !(attributes & a)) return false;
  return true;
}

int MatchDir(const CArchiveEntry& entry, DWORD srch) {
  return PassesExclusions(entry.FindData.dwFileAttributes, srch) ? 1 : 0;
}

int MatchFile(const CArchiveEntry& entry, DWORD srch) {
  const DWORD attributes = entry.FindData.dwFileAttributes;
  return PassesExclusions(attributes, srch) && PassesRequirements(attributes, srch) ? 1 : 0;
}

} // namespace

DWORD CArchiveFile::GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags,
                                           CAttrFlags) const {
  return entry.CompressType != 0 ? entry.CompressType : 0xFFFFu;
}

int CArchiveFile::IsMatchCompressDir(const CArchiveEntry& entry, CSrchFlags srch,
                                     CAttrFlags) const {
  return MatchDir(entry, srch);
}

int CArchiveFile::IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch,
                                      CAttrFlags) const {
  return MatchFile(entry, srch);
}

int CArchiveFile::IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags) const {
  return MatchDir(entry, srch);
}

int CArchiveFile::IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags) const {
  return MatchFile(entry, srch);
}

UINT CArchiveFile::GetTempCompressFile(CString& result, UINT unique, const WCHAR* prefix) const {
  // The prefix may point into result, which is emptied first.
  const CString prefixText = prefix != nullptr ? CString(prefix) : CString(WTEXT("ARC"));
  result.clear();
  constexpr DWORD kDirCapacity = 248;
  WCHAR dir[kDirCapacity] = {};
  const DWORD length = GetTempPathW(kDirCapacity, dir);
  if (length == 0) return 0;
  // A longer path is reported as the length it needs: there is no room for
  // it here, and the caller is told why through the last error.
  if (length >= kDirCapacity) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return 0;
  }
  WCHAR name[MAX_PATH] = {};
  const UINT got = GetTempFileNameW(dir, prefixText.c_str(), unique, name);
  if (got == 0) return 0;
  result = name;
  return got;
}

int CArchiveFile::MakeBackupFile(const WCHAR* fileName, CString& result, int existing) const {
  if (fileName == nullptr) {
    result.clear();
    return 0;
  }
  // Built apart first: the file name may be result's own text.
  CString name = fileName;
  name += existing ? WTEXT(".ORG") : WTEXT(".NEW");
  result = std::move(name);
  return 1;
}
