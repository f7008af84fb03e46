// Extracting whole archives and single entries.
#include <talvern/archive.h>

int CArchiveFile::ExpandAll(const WCHAR*, CSrchFlags, CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::Expand(const WCHAR*, CArchiveEntry&, CSrchFlags, CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::DoExpandAll(const WCHAR*, const WCHAR*, CArchiveEntry&, CSrchFlags,
                              CAttrFlags, CArchiveFindFile*, int) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::DoExpand(const WCHAR*, const WCHAR*, CArchiveEntry&, CSrchFlags, CAttrFlags,
                           CArchiveFindFile*, int) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}
