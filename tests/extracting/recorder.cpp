#include "fixture.h"

#include <algorithm>

namespace xt {

int Recorder::DiskChangeNotify(const WCHAR*, DWORD diskNo, int forWriting) {
  Calls.push_back("DiskChange " + std::to_string(diskNo) + " " + std::to_string(forWriting));
  return OnMedia ? OnMedia(diskNo, false) : DiskChangeAnswer;
}

int Recorder::InvalidDiskNotify(const WCHAR*, DWORD diskNo, int forWriting, int foreign) {
  Calls.push_back("InvalidDisk " + std::to_string(diskNo) + " " + std::to_string(forWriting) + " " +
                  std::to_string(foreign));
  return OnMedia ? OnMedia(diskNo, true) : InvalidDiskAnswer;
}

CArchiveFile::COverwriteOperation Recorder::OverwriteNotify(const WCHAR*, const WCHAR*,
                                                            const WIN32_FIND_DATAW& existing,
                                                            const WCHAR*, const CArchiveEntry&) {
  Calls.push_back("Overwrite " + test::N(existing.cFileName));
  if (OnOverwrite) OnOverwrite();
  if (OverwriteAnswers.empty()) return OverwriteReplace;
  const DWORD answer = OverwriteAnswers[std::min(overwriteIndex_, OverwriteAnswers.size() - 1)];
  ++overwriteIndex_;
  return static_cast<COverwriteOperation>(answer);
}

int Recorder::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*,
                               const CArchiveEntry& entry) {
  Calls.push_back("ExpandFile " + test::N(entry.FindData.cFileName));
  return ExpandFileAnswer;
}

int Recorder::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                           const CArchiveSize&, const CArchiveSize& second) {
  ++ExpandNotifyCalls;
  Progress.push_back(second);
  return CancelAtExpandNotify == ExpandNotifyCalls ? 0 : 1;
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
