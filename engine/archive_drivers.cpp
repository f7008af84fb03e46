// The archive object's compression members: method mapping and the drivers
// that compress or expand one file into another.
#include <talvern/archive.h>

DWORD CArchiveFile::GetCompressType(DWORD requested) const {
  switch (requested) {
  case 0: return 0;
  case 1: return 1;
  case 0xFFFF: return 1;
  default: return 0;
  }
}

int CArchiveFile::CheckExpandType(DWORD method) const { return method == 0 || method == 1; }

int CArchiveFile::ExecCompress(DWORD& error, const WCHAR*, const WCHAR*, const WCHAR*,
                               const CArchiveEntry&, const CArchiveSize&, const WCHAR*,
                               const WCHAR*, DWORD, DWORD&) {
  error = ERROR_CALL_NOT_IMPLEMENTED; // not yet
  return 0;
}

int CArchiveFile::ExecExpand(DWORD& error, const WCHAR*, const WCHAR*, const WCHAR*,
                             const CArchiveEntry&, const CArchiveSize&, const WCHAR*,
                             const WCHAR*, DWORD, DWORD) {
  error = ERROR_CALL_NOT_IMPLEMENTED; // not yet
  return 0;
}
