#include "commands.h"

#include "terminal.h"

#include <cstdio>

namespace tool {

Session::Session(const Options& opts) : options(opts), progress(ErrorIsTerminal() && !opts.quiet) {}

bool Session::Prepare() {
  std::string error;
  if (drives.MountAll(options.drives, error)) return true;
  Error(error);
  return false;
}

OverwritePolicy Session::Overwrite() const {
  if (options.overwrite != OverwritePolicy::Default) return options.overwrite;
  return CanAsk() ? OverwritePolicy::Ask : OverwritePolicy::Skip;
}

void Session::Error(const std::string& text) { progress.Print(stderr, "talvern: " + text); }

int Session::Fail(DWORD code, Activity activity, const std::string& subject) {
  Error(ErrorMessage(code, activity, subject));
  return ExitCodeFor(code, activity);
}

int Session::Fail(const Host& host) {
  const ItemFailure failure = host.CurrentFailure();
  // A question that could not be asked has been explained already.
  if (failure.code == ERROR_CANCELLED && host.CouldNotAsk() && !Interrupted())
    return kExitSomeFailed;
  if (failure.code == ERROR_SUCCESS) {
    Error("the operation failed without an error code");
    return kExitSomeFailed;
  }
  return Fail(failure.code, failure.activity, failure.subject);
}

void Session::Result(const std::string& text) {
  if (!options.quiet) progress.Print(stdout, text);
}

int Session::Outcome(const Host& host) const {
  int code = kExitOk;
  for (const ItemFailure& failure : host.Failures())
    code = WorseExit(code,
                     failure.activity == Activity::CheckEntry
                         ? static_cast<int>(kExitDamaged)
                         : WorseExit(kExitSomeFailed, ExitCodeFor(failure.code, failure.activity)));
  return code;
}

int Session::OpenName(Host& host, ArchiveName& name, const CArchiveSize* limit) {
  DWORD error = 0;
  std::string subject;
  if (!LocateArchive(options.archive, drives, name, error, subject))
    return Fail(error, Activity::OpenArchive, subject);
  const CArchiveSize noCap(0xFFFFFFFFull);
  if (!host.NameArchive(name.path, name.numbered ? (limit ? limit : &noCap) : nullptr))
    return Fail(GetLastError() ? GetLastError() : ERROR_PATH_BUSY, Activity::OpenArchive,
                options.archive);
  return kExitOk;
}

} // namespace tool
