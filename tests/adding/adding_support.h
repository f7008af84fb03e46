// The host of the adding tests: it records its hooks and can be told how
// to answer them.
#pragma once

#include "support/archive_support.h"

#include <functional>
#include <string>
#include <vector>

namespace adding {

using namespace test;
using V = std::vector<std::string>;

// Flags that leave security capture out, for tests about other things.
constexpr CArchiveFile::CAttrFlags kNoSecurity = CArchiveFile::AttrNoSecurity;

// A host whose hooks write a line to Calls and answer through the matching
// function when one is set, else through the library's own body.
class Host : public CArchiveFile {
public:
  std::vector<std::string> Calls;

  std::function<int()> OnStart;
  std::function<int(const CArchiveEntry&)> OnFile;
  // engine: the call comes from the compression engine (ExecCompress).
  std::function<int(const CArchiveEntry&, std::uint64_t, std::uint64_t, bool engine)> OnProgress;
  std::function<CDiskFullOperation(int first)> OnDiskFull;
  std::function<int(DWORD diskNo)> OnDiskChange;
  // When not 0, the compression engine is made to fail with this code after
  // it has written the temporary file.
  DWORD FailEngineWith = 0;
  // The temporary file names the engine was given.
  std::vector<std::string> TemporaryFiles;

  // Progress lines are recorded only for DoCompress's own calls unless this
  // is set.
  bool RecordEngineProgress = false;
  int EngineProgressCalls = 0;

  // The calls whose line starts with prefix.
  std::vector<std::string> CallsStartingWith(const std::string& prefix) const;

protected:
  int CompressStartNotify() override;
  void CompressCompleteNotify(int result) override;
  int CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry) override;
  int CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                     const CArchiveEntry& entry, const CArchiveSize& first,
                     const CArchiveSize& second) override;
  CDiskFullOperation DiskFullNotify(const WCHAR* root, int first) override;
  int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) override;
  int ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                   const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                   const WCHAR* source, DWORD method, DWORD& crc) override;

private:
  bool inEngine_ = false;
};

} // namespace adding
