// Moving to the next volume while reading.
#include <talvern/archive.h>

int CArchiveFile::DoDiskChange(const WCHAR*, CArchiveEntry&, const WCHAR*, int, int) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}
