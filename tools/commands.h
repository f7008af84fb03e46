// The commands, and what they share: the drives, the progress display, and
// the way results and failures are printed.
#pragma once

#include "archive_set.h"
#include "drives.h"
#include "errors.h"
#include "host.h"
#include "options.h"
#include "progress.h"

#include <string>

namespace tool {

class Session {
public:
  explicit Session(const Options& options);

  const Options& options;
  Drives drives;
  Progress progress;

  // Mounts the drives of the command line; prints the problem on failure.
  bool Prepare();
  // The overwrite policy in effect: ask on a terminal, else skip.
  OverwritePolicy Overwrite() const;

  // A failure line on standard error ("talvern: ...").
  void Error(const std::string& text);
  // A failure with a Win32 code; returns the exit code it leads to.
  int Fail(DWORD code, Activity activity, const std::string& subject);
  // The host's latched failure; returns the exit code.
  int Fail(const Host& host);
  // A result line on standard output (left out with --quiet).
  void Result(const std::string& text);
  // Exit code for a run that succeeded as a whole: 1 when some items failed
  // on their own, 3 when some of them were damaged.
  int Outcome(const Host& host) const;

  // Finds an existing archive and names it in the host (numbered sets with a
  // limit of limit, or none for no cap). 0 on success, else the exit code.
  int OpenName(Host& host, ArchiveName& name, const CArchiveSize* limit = nullptr);
};

int RunCreate(Session& session);
int RunAdd(Session& session);
int RunExtract(Session& session);
int RunTest(Session& session);
int RunList(Session& session);
int RunInfo(Session& session);

} // namespace tool
