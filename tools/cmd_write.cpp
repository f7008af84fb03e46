// create and add.
#include "commands.h"
#include "format.h"

#include <algorithm>
#include <cstdio>

namespace tool {
namespace {

// Splits a full path into its folder and its last name ("Z:\a\b" -> "Z:\a", "b").
void SplitPath(const CString& full, CString& folder, CString& name) {
  const std::size_t at = full.find_last_of(u'\\');
  if (at == CString::npos) {
    folder.clear();
    name = full;
    return;
  }
  folder = full.substr(0, at);
  name = full.substr(at + 1);
}

// One item to add on its own: its folder, and an entry that names it.
struct Item {
  CString folder;
  CArchiveEntry entry;
  bool isDirectory = false;
};

// An entry that names one item for Compress: its name, nothing else.
CArchiveEntry NamedEntry(const WCHAR* name) {
  CArchiveEntry entry;
  const CString text = name;
  text.copy(entry.FindData.cFileName, std::min<std::size_t>(text.size(), MAX_PATH - 1));
  return entry;
}

bool MakeItem(const CString& full, Item& item) {
  CString name;
  SplitPath(full, item.folder, name);
  if (name.empty() || name.size() >= MAX_PATH) return false;
  const HANDLE find = FindFirstFileW(full.c_str(), &item.entry.FindData);
  if (find == INVALID_HANDLE_VALUE) return false;
  FindClose(find);
  item.isDirectory = IsDirectory(item.entry);
  return true;
}

std::string SizesText(const Totals& done) {
  std::string text = Counted(done.files, "file", "files");
  if (done.folders) text += ", " + Counted(done.folders, "folder", "folders");
  text += ", " + HumanSize(done.bytes) + " -> " + HumanSize(done.packed) + " (" +
          Ratio(done.packed, done.bytes) + ")";
  return text;
}

std::string SecondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", seconds);
  return text;
}

// The names of the volumes of a new archive, for the summary.
std::string VolumesText(const Host& host, bool numbered) {
  const DWORD count = host.VolumesWritten();
  if (count <= 1) return std::string();
  if (!numbered) return ", " + std::to_string(count) + " volumes";
  const CString last = host.FileName();
  const CString first = VolumeName(WithoutExtension(last), 0);
  return ", " + std::to_string(count) + " volumes (" + ToHostPath(first) + " ... " +
         ToHostPath(last) + ")";
}

// After replacing a numbered set: volumes of the old set beyond the new
// last one are removed, so that the folder holds one set only.
void RemoveStaleVolumes(const CString& lastVolume) {
  DWORD number = 0;
  if (!VolumeNumberOf(lastVolume, number)) return;
  const CString base = WithoutExtension(lastVolume);
  for (DWORD next = number + 1; next <= 0xFFF; ++next) {
    const CString name = VolumeName(base, next);
    const VolumeHeader header = ReadVolumeHeader(name);
    if (!header.valid || header.number != next) break;
    DeleteFileW(name.c_str());
  }
}

// A create that failed or was cancelled leaves no archive behind: the
// volumes it wrote (which hold at most the entries before the failure)
// are removed. On a removable drive only the medium in the drive can be
// reached: its volume is removed, and the media filled before it are named,
// since what they hold can no longer be read.
void RemoveIncomplete(Session& session, const Host& host, const CString& archive, bool numbered) {
  if (session.drives.IsRemovable(archive.c_str())) {
    const VolumeHeader header = ReadVolumeHeader(archive);
    if (header.valid && header.number == host.FilledMedia().size() && DeleteFileW(archive.c_str()))
      session.Error("removed the incomplete volume " + ToHostPath(archive));
    // The archive's place on every medium: its path below the drive's root.
    std::string onMedium = Utf8(archive.substr(std::min<std::size_t>(archive.size(), 3)));
    std::replace(onMedium.begin(), onMedium.end(), '\\', '/');
    const auto& filled = host.FilledMedia();
    for (std::size_t disk = 0; disk < filled.size(); ++disk)
      session.Error("the medium of disk " + std::to_string(disk + 1) + " (" + filled[disk] +
                    ") holds a volume of the incomplete archive: delete " + filled[disk] + "/" +
                    onMedium);
    return;
  }
  std::vector<CString> volumes;
  DWORD last = 0;
  if (!numbered)
    volumes.push_back(archive);
  else if (VolumeNumberOf(host.FileName(), last))
    for (DWORD number = 0; number <= last; ++number)
      volumes.push_back(VolumeName(WithoutExtension(host.FileName()), number));
  for (DWORD number = 0; number < volumes.size(); ++number) {
    const VolumeHeader header = ReadVolumeHeader(volumes[number]);
    if (!header.valid || header.number != (numbered ? number : 0)) continue;
    if (DeleteFileW(volumes[number].c_str()))
      session.Error("removed the incomplete volume " + ToHostPath(volumes[number]));
  }
}

// The limit to keep when adding to a numbered set without --volume-size:
// the largest of its full volumes (all but the last).
CArchiveSize InferredLimit(const CString& firstVolume) {
  const CString base = WithoutExtension(firstVolume);
  std::vector<std::uint64_t> sizes;
  for (DWORD number = 0; number <= 0xFFF; ++number) {
    WIN32_FIND_DATAW data{};
    const CString name = VolumeName(base, number);
    const HANDLE find = FindFirstFileW(name.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) break;
    FindClose(find);
    sizes.push_back((static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow);
    if (!ReadVolumeHeader(name).continues) break;
  }
  if (sizes.size() < 2) return CArchiveSize(0xFFFFFFFFull);
  const std::uint64_t largest = *std::max_element(sizes.begin(), sizes.end() - 1);
  return CArchiveSize(std::min<std::uint64_t>(largest, 0xFFFFFFFEull));
}

void ReportLeftOut(Session& session, const Host& host, const Totals& planned) {
  // A linked folder's contents are not in the archive: whoever extracts it
  // finds an empty folder there.
  for (const std::string& link : planned.linkedFolders)
    session.Error("warning: " + link + " is a link to a folder" +
                  (session.options.followLinks
                       ? " above it: stored as an empty folder, not followed"
                       : ": stored as an empty folder, without what it "
                         "points to (--follow-links packs it)"));
  const std::size_t links = planned.linkedFolders.size();
  if (links != 0)
    session.Error(std::to_string(links) +
                  (links == 1 ? " linked folder was" : " linked folders were") +
                  " stored empty (see above)");
  const std::size_t failed = host.Failures().size();
  if (failed != 0)
    session.Error(std::to_string(failed) + (failed == 1 ? " item was" : " items were") +
                  " left out (see above)");
}

} // namespace

int RunCreate(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, OverwritePolicy::Replace, session.progress, session.drives);
  host.SetMode(HostMode::Write);

  const CString source = ToLibraryPath(o.sources[0]);
  const CString sourceFull = source.empty() ? CString() : host.GetFullPath(source.c_str());
  Item item;
  const DWORD sourceAttributes =
      sourceFull.empty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributesW(sourceFull.c_str());
  if (sourceAttributes == INVALID_FILE_ATTRIBUTES ||
      (!(sourceAttributes & FILE_ATTRIBUTE_DIRECTORY) && !MakeItem(sourceFull, item))) {
    session.Fail(GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_FILE_NOT_FOUND,
                 Activity::ReadSource, o.sources[0]);
    return kExitUsage;
  }
  const bool wholeFolder = (sourceAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;

  const CString archive = ToLibraryPath(o.archive);
  if (archive.empty()) {
    session.Fail(GetLastError(), Activity::CreateArchive, o.archive);
    return kExitUsage;
  }
  const CString archiveFull = host.GetFullPath(archive.c_str());
  const bool numbered = o.volumeSize != 0 || o.firstVolumeSize != 0;

  // An existing archive is replaced only when asked, and never a file that
  // is not an archive.
  if (!session.drives.IsRemovable(archiveFull.c_str())) {
    const CString existing = numbered ? VolumeName(WithoutExtension(archiveFull), 0) : archiveFull;
    const DWORD attributes = GetFileAttributesW(existing.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES) {
      const std::string shown = ToHostPath(existing);
      if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
        session.Error(shown + " is a folder");
        return kExitUsage;
      }
      if (!o.force) {
        session.Error(shown + " already exists; use add to add to it, or --force to replace it");
        return kExitUsage;
      }
      const VolumeHeader header = ReadVolumeHeader(existing);
      if (!header.valid || header.number != 0) {
        session.Error(shown + " is not an archive of this format; it is left alone");
        return kExitUsage;
      }
    }
  }

  const CArchiveSize limit = VolumeLimit(o);
  if (!host.FileName(archiveFull.c_str(), numbered ? &limit : nullptr)) {
    session.Fail(GetLastError(), Activity::CreateArchive, o.archive);
    return kExitUsage;
  }
  host.SetArchiveToSkip(host.FileName(), numbered);

  Totals planned;
  if (wholeFolder) {
    host.SetSourceBase(sourceFull);
    host.CountTree(sourceFull, CString(), planned, session.progress.Shows());
  } else {
    host.SetSourceBase(item.folder);
    host.CountItem(item.folder, item.entry, planned, session.progress.Shows());
  }

  session.progress.Begin("create", planned.files, planned.bytes);
  int ok = 0;
  if (wholeFolder) {
    ok = host.CompressAll(sourceFull.c_str(), o.srch | CArchiveFile::SrchNoFirstPrompt, o.attr);
  } else {
    ok = host.CreateFirstVolume() && host.IsOpen();
    if (ok) {
      CArchiveEntry entry = NamedEntry(item.entry.FindData.cFileName);
      ok = host.Compress(item.folder.c_str(), entry, o.srch, o.attr);
    }
    if (host.IsOpen()) {
      if (ok)
        ok = host.Close();
      else
        host.Close();
    }
  }
  session.progress.End();
  if (!ok) {
    const int code = session.Fail(host);
    RemoveIncomplete(session, host, archiveFull, numbered);
    return code;
  }

  if (numbered && o.force) RemoveStaleVolumes(host.FileName());
  session.Result("created " + o.archive + ": " + SizesText(host.Done()) +
                 VolumesText(host, numbered) + " in " + SecondsText(session.progress.Seconds()));
  ReportLeftOut(session, host, planned);
  return session.Outcome(host);
}

int RunAdd(Session& session) {
  const Options& o = session.options;
  if (!session.Prepare()) return kExitUsage;
  Host host(o, OverwritePolicy::Replace, session.progress, session.drives);
  host.SetMode(HostMode::Write);

  DWORD error = 0;
  std::string subject;
  ArchiveName name;
  if (!LocateArchive(o.archive, session.drives, name, error, subject))
    return session.Fail(error, Activity::OpenArchive, subject);
  const bool limitGiven = o.volumeSize != 0 || o.firstVolumeSize != 0;
  if (limitGiven && !name.numbered) {
    session.Error("--volume-size applies to numbered volume sets; " + o.archive + " is one file");
    return kExitUsage;
  }
  const CArchiveSize limit = limitGiven ? VolumeLimit(o) : InferredLimit(name.path);
  if (!host.NameArchive(name.path, name.numbered ? &limit : nullptr))
    return session.Fail(GetLastError(), Activity::OpenArchive, o.archive);
  host.SetArchiveToSkip(host.FileName(), name.numbered);

  // Appending happens on the last volume: walk to it.
  CArchiveEntry first;
  if (!host.OpenFirstVolume(first) || !host.WriteOpen(0, 1)) return session.Fail(host);
  while (host.IsContinue()) {
    CArchiveEntry none;
    if (!host.OpenNextVolume(none)) return session.Fail(host);
  }

  std::vector<Item> items;
  Totals planned;
  int outcome = kExitOk;
  for (const std::string& source : o.sources) {
    const CString path = ToLibraryPath(source);
    Item item;
    if (path.empty() || !MakeItem(host.GetFullPath(path.c_str()), item)) {
      const DWORD code = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_FILE_NOT_FOUND;
      host.ReportFailure({source, code, Activity::ReadSource});
      continue;
    }
    if (!host.FilterTakes(CString(), item.entry.FindData.cFileName, item.isDirectory)) {
      session.Error(source + " is left out by --include/--exclude");
      continue;
    }
    host.SetSourceBase(item.folder);
    host.CountItem(item.folder, item.entry, planned, session.progress.Shows());
    items.push_back(item);
  }

  session.progress.Begin("add", planned.files, planned.bytes);
  bool failed = false;
  for (const Item& item : items) {
    CArchiveEntry entry = NamedEntry(item.entry.FindData.cFileName);
    host.SetSourceBase(item.folder);
    // Each item is committed on its own: a failure later rolls back only
    // what that item wrote.
    if (!host.Compress(item.folder.c_str(), entry, o.srch, o.attr) || !host.Flush()) {
      failed = true;
      break;
    }
  }
  session.progress.End();
  if (failed) {
    outcome = session.Fail(host);
    host.Close();
    return outcome;
  }
  if (!host.Close()) return session.Fail(host);

  const DWORD newVolumes = host.VolumesWritten();
  session.Result(
      "added to " + ToHostPath(host.FileName()) + ": " + SizesText(host.Done()) +
      (newVolumes ? ", " + std::to_string(newVolumes) + " new volume" + (newVolumes == 1 ? "" : "s")
                  : std::string()) +
      " in " + SecondsText(session.progress.Seconds()));
  ReportLeftOut(session, host, planned);
  return session.Outcome(host);
}

} // namespace tool
