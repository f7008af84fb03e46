// Continuing on a new volume when the current one is full.
#include <talvern/archive.h>

int CArchiveFile::DoDiskFull(const WCHAR*, CArchiveEntry&, const WCHAR*, int, int) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}
