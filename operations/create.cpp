// Creating the file or directory an entry is extracted into.
#include <talvern/archive.h>

int CArchiveFile::DoCreate(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                           const WCHAR*, CString&) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return -1;
}
