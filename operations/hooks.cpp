// Default answers of the notification and decision hooks. The library runs
// unattended where that is safe (progress goes on, an existing file is
// replaced) and refuses where a person is needed (a medium must be changed,
// a locked volume must be released).
#include "archive/archive_data.h"

namespace {

// The three shared bodies: refuse, go on, and ignore.
constexpr int kRefuse = 0;
constexpr int kGoOn = 1;

} // namespace

// The medium and volume-full questions note that the default answered: the
// volume-full handling ends the exchange of these defaults instead of
// putting the same two questions again and again.
int CArchiveFile::DiskChangeNotify(const WCHAR*, DWORD, int) {
  m_Data->DefaultAnswers |= DefaultAnsweredMediumAsk;
  return kRefuse;
}

int CArchiveFile::InvalidDiskNotify(const WCHAR*, DWORD, int, int) {
  m_Data->DefaultAnswers |= DefaultAnsweredMediumAsk;
  return kRefuse;
}

int CArchiveFile::AlreadyOpenedNotify(const WCHAR*) { return kRefuse; }

int CArchiveFile::FormatNotify(const WCHAR*, DWORD) { return kGoOn; }

CArchiveFile::CDiskFullOperation CArchiveFile::DiskFullNotify(const WCHAR*, int) {
  m_Data->DefaultAnswers |= DefaultAnsweredDiskFull;
  return DiskFullChange;
}

int CArchiveFile::CompressFileNotify(const WCHAR*, const WCHAR*, const WCHAR*,
                                     const CArchiveEntry&) {
  return kGoOn;
}

int CArchiveFile::CompressNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                                 const CArchiveSize&, const CArchiveSize&) {
  return kGoOn;
}

int CArchiveFile::CompressStartNotify() { return kGoOn; }

void CArchiveFile::CompressCompleteNotify(int) {}

CArchiveFile::COverwriteOperation CArchiveFile::OverwriteNotify(const WCHAR*, const WCHAR*,
                                                                const WIN32_FIND_DATAW&,
                                                                const WCHAR*,
                                                                const CArchiveEntry&) {
  return OverwriteReplace;
}

int CArchiveFile::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&) {
  return kGoOn;
}

int CArchiveFile::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                               const CArchiveSize&, const CArchiveSize&) {
  return kGoOn;
}

int CArchiveFile::ExpandStartNotify() { return kGoOn; }

void CArchiveFile::ExpandCompleteNotify(int) {}

int CArchiveFile::IsFormatMediaSupported() const { return kRefuse; }
