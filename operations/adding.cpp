// Adding files and directory trees.
#include <talvern/archive.h>

int CArchiveFile::CompressAll(const WCHAR*, CSrchFlags, CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::Compress(const WCHAR*, CArchiveEntry&, CSrchFlags, CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::DoCompressAll(const WCHAR*, const WCHAR*, CArchiveEntry&, CSrchFlags,
                                CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}

int CArchiveFile::DoCompress(const WCHAR*, const WCHAR*, CArchiveEntry&, CSrchFlags,
                             CAttrFlags) {
  SetErrorCode(ERROR_CALL_NOT_IMPLEMENTED); // not yet
  return 0;
}
