#include "fixture.h"

#include <algorithm>

namespace xt {

CArchiveFile::COverwriteOperation Recorder::OverwriteNotify(const WCHAR*, const WCHAR*,
                                                            const WIN32_FIND_DATAW& existing,
                                                            const WCHAR*, const CArchiveEntry&) {
  Calls.push_back("Overwrite " + test::N(existing.cFileName));
  if (OverwriteAnswers.empty()) return OverwriteReplace;
  const DWORD answer = OverwriteAnswers[std::min(overwriteIndex_, OverwriteAnswers.size() - 1)];
  ++overwriteIndex_;
  return static_cast<COverwriteOperation>(answer);
}

int Recorder::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*,
                               const CArchiveEntry& entry) {
  Calls.push_back("ExpandFile " + test::N(entry.FindData.cFileName));
  return 1;
}

int Recorder::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                           const CArchiveSize&, const CArchiveSize& second) {
  Progress.push_back(second);
  return CancelAtExpandNotify == static_cast<int>(Progress.size()) ? 0 : 1;
}

int Recorder::ExpandStartNotify() {
  Calls.push_back("ExpandStart");
  return 1;
}

void Recorder::ExpandCompleteNotify(int result) {
  Calls.push_back("ExpandComplete " + std::to_string(result));
}

int Recorder::DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                           int first, int noFirstPrompt) {
  ++DiskChangeCalls;
  Calls.push_back("DoDiskChange " + std::to_string(first));
  return CArchiveFile::DoDiskChange(root, entry, otherPath, first, noFirstPrompt);
}

} // namespace xt
