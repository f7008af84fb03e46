// extract and test.
#include "commands.h"
#include "format.h"
#include "glob.h"

#include <cstdio>

namespace tool {
namespace {

// What the archive holds, read from its records first so that the progress
// bar knows the whole. Left out on removable media, where it would mean
// asking for every disk twice.
Totals PlannedTotals(Session& session, Host& host) {
  Totals totals;
  if (session.drives.IsRemovable(host.FileName())) return totals;
  host.SetMode(HostMode::Read);
  {
    EntryWalker walker(host);
    if (walker.Start()) {
      CArchiveEntry entry;
      while (walker.Next(entry) == 1) totals.Add(entry);
    }
  }
  if (host.IsOpen()) host.Close();
  host.ClearError();
  host.RestoreName();
  return totals;
}

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", seconds);
  return text;
}

// Reports entries that the walk of the whole archive never reached: an
// entry whose folder no folder entry before it opens ends the walk of the
// folder it follows, so that nothing after it would be extracted or tested
// without a word.
int CheckReached(Session& session, const Host& host, const Totals& planned, int outcome) {
  const std::uint64_t entries = planned.files + planned.folders;
  if (host.Reached() >= entries) return outcome;
  session.Error(std::to_string(entries - host.Reached()) + " of " + std::to_string(entries) +
                " entries were not reached: their records do not follow the folders that hold "
                "them (talvern list shows them)");
  return WorseExit(outcome, kExitDamaged);
}

// folder is prefix, or lies below it (compared without regard to case).
bool IsInside(const CString& folder, const CString& prefix) {
  if (folder.size() < prefix.size()) return false;
  const CString head = folder.substr(0, prefix.size());
  if (lstrcmpiW(head.c_str(), prefix.c_str()) != 0) return false;
  return folder.size() == prefix.size() || folder[prefix.size()] == u'\\';
}

// Extracts the entries that the patterns name, each through the entry
// search and Expand (a folder with everything below it). First the records
// are read to find the entries; then each is found again and extracted.
int ExtractSelected(Session& session, Host& host, const CString& target, std::vector<bool>& hits) {
  const Options& o = session.options;
  std::vector<PathPattern> patterns;
  for (const std::string& text : o.patterns) patterns.emplace_back(text);
  hits.assign(patterns.size(), false);

  struct Pick {
    DWORD volume;
    CArchiveOffset offset;
  };
  std::vector<Pick> picks;
  EntryWalker walker(host);
  if (!walker.Start()) return 0;
  CArchiveEntry entry;
  CString covered;
  bool covering = false;
  int read = 0;
  while ((read = walker.Next(entry)) == 1) {
    if (covering && IsInside(entry.Path, covered)) continue;
    covering = false;
    bool matched = false;
    for (std::size_t i = 0; i < patterns.size(); ++i) {
      if (patterns[i].Matches(entry.Path, entry.FindData.cFileName)) {
        hits[i] = true;
        matched = true;
      }
    }
    if (!matched || !host.TakesForExtract(entry)) continue;
    picks.push_back({host.GetDiskNo(), entry.EntryOffset});
    if (IsDirectory(entry)) {
      covering = true;
      covered = EntryPathOf(entry.Path, entry.FindData.cFileName);
    }
  }
  if (read < 0) return 0;
  for (const Pick& pick : picks) {
    if (!walker.SeekTo(pick.volume, pick.offset, entry)) return 0;
    if (host.Expand(target.c_str(), entry, o.srch, o.attr)) continue;
    // A folder or name that would leave the target is refused before
    // anything is made for it: the other picks go on.
    if (host.GetErrorCode() != ERROR_BAD_PATHNAME) return 0;
    const std::string path = EntryPath(entry);
    host.ReportFailure({path.empty() ? "(an entry without a name)" : path, ERROR_BAD_PATHNAME,
                        Activity::ExtractEntry});
    host.ClearError();
  }
  if (host.IsOpen() && !host.Close()) return 0;
  return 1;
}

} // namespace

int RunExtract(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, session.Overwrite(), session.progress, session.drives);
  ArchiveName name;
  if (const int code = session.OpenName(host, name)) return code;
  const std::string targetText = o.targetDir.empty() ? "." : o.targetDir;
  const CString targetPath = ToLibraryPath(targetText);
  if (targetPath.empty()) return session.Fail(GetLastError(), Activity::ExtractEntry, targetText);
  const CString target = host.GetFullPath(targetPath.c_str());

  const Totals planned = PlannedTotals(session, host);
  host.SetMode(HostMode::Extract);
  session.progress.Begin("extract", planned.files, planned.bytes);
  std::vector<bool> hits;
  int ok = 0;
  if (o.patterns.empty())
    ok = host.ExpandAll(target.c_str(), o.srch | CArchiveFile::SrchNoFirstPrompt, o.attr);
  else
    ok = ExtractSelected(session, host, target, hits);
  session.progress.End();
  if (!ok) {
    const int code = session.Fail(host);
    if (host.IsOpen()) host.Close();
    return code;
  }

  const Totals& done = host.Done();
  std::string summary = "extracted " + Counted(done.files, "file", "files");
  if (done.folders) summary += ", " + Counted(done.folders, "folder", "folders");
  summary += " (" + HumanSize(done.bytes) + ") to " + ToHostPath(target) + " in " +
             Seconds(session.progress.Seconds());
  session.Result(summary);
  if (const std::uint64_t skipped = host.SkippedExisting())
    session.Result(std::to_string(skipped) +
                   (skipped == 1 ? " existing file was" : " existing files were") +
                   " left alone (--overwrite chooses what to do)");
  int outcome = session.Outcome(host);
  if (o.patterns.empty()) outcome = CheckReached(session, host, planned, outcome);
  for (std::size_t i = 0; i < hits.size(); ++i) {
    if (!hits[i]) {
      session.Error("nothing in the archive matches " + o.patterns[i]);
      outcome = WorseExit(outcome, kExitSomeFailed);
    }
  }
  return outcome;
}

int RunTest(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, OverwritePolicy::Replace, session.progress, session.drives);
  ArchiveName name;
  if (const int code = session.OpenName(host, name)) return code;
  const Totals planned = PlannedTotals(session, host);
  // Testing creates nothing, so any existing folder serves as the target.
  host.SetMode(HostMode::Test);
  session.progress.Begin("test", planned.files, planned.bytes);
  static const WCHAR kHere[] = {u'.', 0};
  const int ok = host.ExpandAll(kHere, o.srch | CArchiveFile::SrchNoFirstPrompt,
                                o.attr | CArchiveFile::AttrNoSecurity);
  session.progress.End();
  if (!ok) return session.Fail(host);

  const Totals& done = host.Done();
  const std::size_t damaged = host.Failures().size();
  const std::string what = std::to_string(done.files) + (done.files == 1 ? " file" : " files") +
                           " (" + HumanSize(done.bytes) + ")";
  if (damaged == 0)
    session.Result("tested " + o.archive + ": " + what + ", all correct, in " +
                   Seconds(session.progress.Seconds()));
  else
    session.Error("tested " + what + ": " + std::to_string(damaged) +
                  (damaged == 1 ? " is" : " are") + " damaged");
  return CheckReached(session, host, planned, session.Outcome(host));
}

} // namespace tool
