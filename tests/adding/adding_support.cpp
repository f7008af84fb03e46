#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace adding {

std::vector<std::string> Host::CallsStartingWith(const std::string& prefix) const {
  std::vector<std::string> out;
  for (const auto& c : Calls)
    if (c.rfind(prefix, 0) == 0) out.push_back(c);
  return out;
}

int Host::CompressStartNotify() {
  Calls.push_back("start");
  return OnStart ? OnStart() : CArchiveFile::CompressStartNotify();
}

void Host::CompressCompleteNotify(int result) {
  Calls.push_back("complete:" + std::to_string(result));
  CArchiveFile::CompressCompleteNotify(result);
}

int Host::CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                             const CArchiveEntry& entry) {
  Calls.push_back("file:" + test::N(root) + "|" + test::N(sourceDir) + "|" + test::N(entryPath) +
                  "|" + test::N(entry.FindData.cFileName));
  return OnFile ? OnFile(entry)
                : CArchiveFile::CompressFileNotify(root, sourceDir, entryPath, entry);
}

int Host::CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry, const CArchiveSize& first,
                         const CArchiveSize& second) {
  if (inEngine_) ++EngineProgressCalls;
  if (!inEngine_ || RecordEngineProgress)
    Calls.push_back(std::string(inEngine_ ? "engine:" : "progress:") +
                    std::to_string(first.GetValue()) + "/" + std::to_string(second.GetValue()));
  if (OnProgress) return OnProgress(entry, first.GetValue(), second.GetValue(), inEngine_);
  return CArchiveFile::CompressNotify(root, sourceDir, entryPath, entry, first, second);
}

CArchiveFile::CDiskFullOperation Host::DiskFullNotify(const WCHAR* root, int first) {
  Calls.push_back("diskfull:" + std::to_string(first));
  return OnDiskFull ? OnDiskFull(first) : CArchiveFile::DiskFullNotify(root, first);
}

int Host::DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) {
  Calls.push_back("diskchange:" + std::to_string(diskNo) + "," + std::to_string(forWriting));
  return OnDiskChange ? OnDiskChange(diskNo)
                      : CArchiveFile::DiskChangeNotify(root, diskNo, forWriting);
}

int Host::ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                       const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                       const WCHAR* source, DWORD method, DWORD& crc) {
  TemporaryFiles.push_back(talvern::WindowsPathToHost(target));
  inEngine_ = true;
  const int result =
      CArchiveFile::ExecCompress(error, arg1, arg2, arg3, entry, size, target, source, method, crc);
  inEngine_ = false;
  if (result && FailEngineWith != 0) {
    error = FailEngineWith;
    return 0;
  }
  return result;
}

} // namespace adding
