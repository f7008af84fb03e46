#include "host.h"

#include "archive_set.h"
#include "format.h"
#include "terminal.h"

namespace tool {
namespace {

bool IsDots(const WCHAR* name) {
  return name[0] == u'.' && (name[1] == 0 || (name[1] == u'.' && name[2] == 0));
}

// Source folder, entry folder and name joined as the library joins them.
CString JoinSource(const WCHAR* baseDir, const WCHAR* folder, const WCHAR* name) {
  CString path = baseDir ? baseDir : WTEXT("");
  if (!path.empty() && folder && *folder) path += u'\\';
  if (folder) path += folder;
  if (!path.empty()) path += u'\\';
  path += name;
  return path;
}

// Identifies one entry across the progress calls made for it (the record
// position changes when the entry goes on in the next volume).
std::string KeyOf(const CArchiveEntry& entry) {
  return EntryPath(entry) + "|" + std::to_string(entry.PackedSize.GetValue()) + "|" +
         std::to_string(entry.Crc);
}

// The share of an item done, as bytes of its size: the first half is the
// engine's pass or the copy of stored data, the second half the other one.
std::uint64_t Share(std::uint64_t size, double fraction) {
  if (fraction < 0) fraction = 0;
  if (fraction > 1) fraction = 1;
  return static_cast<std::uint64_t>(static_cast<double>(size) * fraction);
}

double Part(std::uint64_t done, std::uint64_t total) {
  return total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
}

} // namespace

void Totals::Add(bool isFile, std::uint64_t size, std::uint64_t packedSize) {
  if (!isFile) {
    ++folders;
    return;
  }
  ++files;
  bytes += size;
  packed += packedSize;
}

void Totals::Add(const CArchiveEntry& entry) {
  Add(!IsDirectory(entry), EntrySize(entry), entry.PackedSize.GetValue());
}

Host::Host(const Options& options, OverwritePolicy overwrite, Progress& progress, Drives& drives)
    : options_(options), overwrite_(overwrite), progress_(progress), drives_(drives),
      filter_(options.includes, options.excludes) {
  // The tool overrides neither the temporary-file member nor the drivers
  // for their own sake: its files go through memory, several at a time.
  SetDirectTransfer(1);
  SetCompressThreads(options.threads);
  SetFollowLinks(options.followLinks ? 1 : 0);
}

void Host::SetMode(HostMode mode) {
  mode_ = mode;
  SetTestOnly(mode == HostMode::Test ? 1 : 0);
}

namespace {

// Failures of a file's own data: it could not be read, or it changed while
// it was read, or its stored data did not check out.
bool IsSourceFailure(DWORD code) {
  switch (code) {
  case ERROR_WRITE_FAULT: // the file changed size while it was read
  case ERROR_READ_FAULT:
  case ERROR_IO_DEVICE:
  case ERROR_ACCESS_DENIED:
  case ERROR_SHARING_VIOLATION:
  case ERROR_FILE_NOT_FOUND:
  case ERROR_PATH_NOT_FOUND:
    return true;
  default:
    return false;
  }
}

} // namespace

Host::~Host() = default;

std::string Host::ArchiveHostPath() const { return ToHostPath(FileName()); }

void Host::Say(const std::string& line) const {
  if (options_.verbose) progress_.Print(stdout, line);
}

void Host::ReportFailure(const ItemFailure& failure) {
  failures_.push_back(failure);
  progress_.Print(stderr,
                  "talvern: " + ErrorMessage(failure.code, failure.activity, failure.subject));
}

ItemFailure Host::CurrentFailure() const {
  const DWORD code = GetErrorCode();
  const bool entryActivity =
      activity_ == Activity::ExtractEntry || activity_ == Activity::CheckEntry;
  const bool structural = code == ERROR_INVALID_DATATYPE || code == ERROR_SEEK_ON_DEVICE ||
                          code == ERROR_HANDLE_EOF || code == ERROR_WRONG_DISK;
  if (entryActivity && structural && !itemLocalFailure_)
    return {ArchiveHostPath(), code, Activity::ReadArchive};
  return {subject_.empty() ? ArchiveHostPath() : subject_, code, activity_};
}

bool Host::FilterTakes(const CString& folder, const WCHAR* name, bool isDirectory) const {
  return filter_.Takes(folder, name, isDirectory);
}

bool Host::TakesForExtract(const CArchiveEntry& entry) const {
  return IsDirectory(entry) ? IsMatchExpandDir(entry, options_.srch, options_.attr) != 0
                            : IsMatchExpandFile(entry, options_.srch, options_.attr) != 0;
}

bool Host::MayGoOnAfter(DWORD code) const {
  switch (code) {
  case ERROR_CANCELLED:
  case ERROR_DISK_FULL:
  case ERROR_HANDLE_DISK_FULL:
  case ERROR_WRITE_PROTECT:
  case ERROR_NOT_READY:
  case ERROR_OUTOFMEMORY:
  case ERROR_NOT_ENOUGH_MEMORY:
    return false;
  default:
    return !Interrupted();
  }
}

// ---- Volumes --------------------------------------------------------------------

int Host::NameArchive(const CString& path, const CArchiveSize* limit) {
  name_ = path;
  hasLimit_ = limit != nullptr;
  if (limit) limit_ = *limit;
  return RestoreName();
}

int Host::RestoreName() {
  if (name_.empty()) return 1;
  return FileName(name_.c_str(), hasLimit_ ? &limit_ : nullptr);
}

int Host::OpenFirstVolume(CArchiveEntry& first) {
  if (!RestoreName()) return 0;
  const CString root = GetRootPath(FileName());
  return DoDiskChange(root.c_str(), first, nullptr, 1, 1);
}

int Host::OpenNextVolume(CArchiveEntry& last) {
  const CString root = GetRootPath(FileName());
  return DoDiskChange(root.c_str(), last, nullptr, 0, 0);
}

int Host::CreateFirstVolume() {
  CArchiveEntry entry;
  const CString root = GetRootPath(FileName());
  return DoDiskFull(root.c_str(), entry, nullptr, 1, 1);
}

int Host::DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                       int noFirstPrompt) {
  const int ok = CArchiveFile::DoDiskChange(root, entry, otherPath, first, noFirstPrompt);
  // Until an entry is handled, what fails is the archive's reading.
  subject_ = ArchiveHostPath();
  activity_ = !ok && first ? Activity::OpenArchive : Activity::ReadArchive;
  if (ok && !first && mode_ != HostMode::Read) {
    Say("volume " + std::to_string(GetDiskNo() + 1) + ": " + ArchiveHostPath());
  }
  return ok;
}

int Host::DoDiskFull(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                     int noFirstPrompt) {
  const int ok = CArchiveFile::DoDiskFull(root, entry, otherPath, first, noFirstPrompt);
  if (ok && IsOpen()) ++volumesWritten_;
  subject_ = ArchiveHostPath();
  activity_ = first && (!ok || !IsOpen()) ? Activity::CreateArchive : Activity::WriteArchive;
  if (ok && IsOpen() && !first) {
    Say("volume " + std::to_string(GetDiskNo() + 1) + ": " + ArchiveHostPath());
  }
  return ok;
}

// ---- Media questions --------------------------------------------------------------

int Host::AskForMedium(const WCHAR* root, DWORD diskNo, int forWriting, bool wrongMedium,
                       bool foreignFile) {
  const CString rootPath = root && *root ? CString(root) : GetRootPath(FileName());
  const DriveOption* drive = drives_.DriveOf(rootPath.c_str());
  const std::string disk = "disk " + std::to_string(diskNo);
  progress_.Clear();
  if (drive == nullptr) {
    // A drive of the system itself: the person changes the medium by hand.
    const auto answer = AskTerminal("Insert " + disk + " of the archive in " + Utf8(rootPath) +
                                    " and press Enter (q to stop): ");
    if (!answer || *answer == "q") {
      if (forWriting) mediaStop_ = true;
      return 0;
    }
    return 1;
  }
  const std::string letter = std::string(1, drive->Letter) + ":";
  const std::string current = drives_.CurrentMedium(drive->Letter);
  const std::string suggestion = drives_.SuggestMedium(drive->Letter, diskNo);
  std::string why;
  if (wrongMedium && foreignFile)
    why = "The medium in " + letter + " (" + current +
          ") holds a file of that name from another archive; it was left alone.\n";
  else if (wrongMedium && forWriting)
    why = "The volume could not be written on the medium in " + letter + " (" + current + ").\n";
  else if (wrongMedium)
    why = "The medium in " + letter + " (" + current + ") does not hold " + disk +
          " of this archive.\n";
  const std::string want =
      forWriting ? "The archive goes on with " + disk + " on a new medium in " + letter + "."
                 : "The archive needs " + disk + " in " + letter + ".";
  auto insert = [&](const std::string& folder) {
    std::string error;
    if (!drives_.Insert(drive->Letter, folder, error)) {
      progress_.Print(stderr, "talvern: " + error);
      return false;
    }
    if (forWriting && !wrongMedium) filledMedia_.push_back(current);
    mediaStop_ = false;
    return true;
  };
  // The media named on the command line come first, one for each request.
  while (nextMedium_ < options_.media.size())
    if (insert(options_.media[nextMedium_++])) return 1;
  while (true) {
    const auto answer =
        AskTerminal(why + want + "\nFolder of the medium [" + suggestion + "], or q to stop: ");
    if (!answer) {
      if (!CanAsk()) {
        couldNotAsk_ = true;
        progress_.Print(stderr, "talvern: drive " + letter + " needs the medium for " + disk +
                                    ", and there is no terminal to ask on");
      }
      break;
    }
    if (*answer == "q") break;
    if (insert(answer->empty() ? suggestion : *answer)) return 1;
    why.clear();
  }
  if (forWriting) mediaStop_ = true;
  return 0;
}

int Host::DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) {
  return AskForMedium(root, diskNo, forWriting, false, false);
}

int Host::InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreignFile) {
  if (diskNo == 0) {
    // Asked while extracting, when a medium changed during a question.
    progress_.Clear();
    const auto answer = AskTerminal("The medium in " + Utf8(root ? root : WTEXT("")) +
                                    " changed. Put back the one that was in the drive and press "
                                    "Enter (q to stop): ");
    return answer && *answer != "q" ? 1 : 0;
  }
  return AskForMedium(root, diskNo, forWriting, true, foreignFile != 0);
}

int Host::AlreadyOpenedNotify(const WCHAR* root) {
  progress_.Clear();
  const auto answer = AskTerminal("The medium in " + Utf8(root ? root : WTEXT("")) +
                                  " is in use by another program. Close it and press Enter "
                                  "to try again (q to stop): ");
  return answer && *answer != "q" ? 1 : 0;
}

int Host::FormatNotify(const WCHAR* path, DWORD number) {
  progress_.Print(stderr, "talvern: the medium for disk " + std::to_string(number) + " in " +
                              Utf8(path ? path : WTEXT("")) +
                              " is not formatted; the tool does not format media");
  return 0;
}

CArchiveFile::CDiskFullOperation Host::DiskFullNotify(const WCHAR*, int) {
  if (mediaStop_ || Interrupted()) {
    SetAbort();
    return DiskFullStop;
  }
  return DiskFullChange;
}

// ---- Selection and method ------------------------------------------------------------

DWORD Host::GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags srch,
                                   CAttrFlags attr) const {
  if (options_.store) return 0;
  return CArchiveFile::GetRequestCompressType(entry, srch, attr);
}

int Host::IsMatchCompressDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  return CArchiveFile::IsMatchCompressDir(entry, srch, attr) &&
         filter_.Takes(entry.Path, entry.FindData.cFileName, true);
}

void Host::SetArchiveToSkip(const CString& path, bool numbered) {
  skipArchive_ = path;
  skipNumbered_ = numbered;
}

bool Host::IsTheArchive(const CArchiveEntry& entry) const {
  if (skipArchive_.empty()) return false;
  const CString full =
      JoinSource(sourceBase_.c_str(), entry.Path.c_str(), entry.FindData.cFileName);
  if (!skipNumbered_) return full == skipArchive_;
  DWORD number = 0;
  return VolumeNumberOf(full, number) && WithoutExtension(full) == skipArchive_;
}

int Host::IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  if (IsTheArchive(entry)) return 0;
  return CArchiveFile::IsMatchCompressFile(entry, srch, attr) &&
         filter_.Takes(entry.Path, entry.FindData.cFileName, false);
}

int Host::IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  return CArchiveFile::IsMatchExpandDir(entry, srch, attr) &&
         filter_.Takes(entry.Path, entry.FindData.cFileName, true);
}

int Host::IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  return CArchiveFile::IsMatchExpandFile(entry, srch, attr) &&
         filter_.Takes(entry.Path, entry.FindData.cFileName, false);
}

// ---- Counting what adding takes ------------------------------------------------------

void Host::CountTree(const CString& baseDir, const CString& folder, Totals& totals,
                     bool files) const {
  CString pattern = baseDir;
  if (!pattern.empty() && !folder.empty()) pattern += u'\\';
  pattern += folder;
  if (!pattern.empty()) pattern += u'\\';
  pattern += WTEXT("*.*");
  const CSrchFlags srch = options_.srch;
  for (const bool directories : {true, false}) {
    if (directories && (srch & SrchExcludeDir)) continue;
    if (!directories && ((srch & SrchDirOnly) || !files)) continue;
    CArchiveEntry item;
    item.Path = folder;
    // The folder pass needs no look at the files.
    const HANDLE find = directories
                            ? FindFirstFileExW(pattern.c_str(), FindExInfoStandard, &item.FindData,
                                               FindExSearchLimitToDirectories, nullptr, 0)
                            : FindFirstFileW(pattern.c_str(), &item.FindData);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
      const bool isDirectory = (item.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      if (isDirectory != directories || (isDirectory && IsDots(item.FindData.cFileName))) continue;
      const bool taken = directories ? IsMatchCompressDir(item, srch, options_.attr)
                                     : IsMatchCompressFile(item, srch, options_.attr);
      if (taken) CountItem(baseDir, item, totals, files);
    } while (FindNextFileW(find, &item.FindData));
    ::FindClose(find);
  }
}

void Host::CountItem(const CString& baseDir, CArchiveEntry& item, Totals& totals,
                     bool files) const {
  totals.Add(!IsDirectory(item), EntrySize(item), 0);
  if (!IsDirectory(item) || (options_.srch & SrchNoRecurse)) return;
  // The library stores a folder reached through a link without entering
  // it (unless told to follow links), and never one that leads to a folder
  // above it, so that no link can lead it round in circles.
  if (item.FindData.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
    const CString source = JoinSource(baseDir.c_str(), item.Path.c_str(), item.FindData.cFileName);
    if (!options_.followLinks || IsLinkToAncestor(baseDir.c_str(), item.Path, source)) {
      totals.linkedFolders.push_back(ToHostPath(source));
      return;
    }
  }
  CountTree(baseDir, EntryPathOf(item.Path, item.FindData.cFileName), totals, files);
}

// ---- Progress ---------------------------------------------------------------------------

void Host::StartItem(const CArchiveEntry& entry, const std::string& path) {
  itemKey_ = KeyOf(entry);
  ++reached_;
  itemSize_ = IsDirectory(entry) ? 0 : EntrySize(entry);
  progress_.StartItem(path, itemSize_, !IsDirectory(entry));
}

int Host::CompressStartNotify() { return Interrupted() ? 0 : 1; }

int Host::ExpandStartNotify() { return Interrupted() ? 0 : 1; }

int Host::CompressFileNotify(const WCHAR*, const WCHAR* sourceDir, const WCHAR* entryPath,
                             const CArchiveEntry& entry) {
  const std::string path =
      Utf8(EntryPathOf(entryPath ? entryPath : WTEXT(""), entry.FindData.cFileName));
  subject_ = ToHostPath(JoinSource(sourceDir, entryPath, entry.FindData.cFileName));
  activity_ = Activity::ReadSource;
  StartItem(entry, path);
  Say("add " + path);
  return Interrupted() ? 0 : 1;
}

int Host::CompressNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry,
                         const CArchiveSize& first, const CArchiveSize& second) {
  if (Interrupted()) return 0;
  const std::uint64_t packed = entry.PackedSize.GetValue();
  if (packed == 0 && second.GetValue() == 0)
    progress_.ItemBytes(Share(itemSize_, 0.5 * Part(first.GetValue(), itemSize_)));
  else
    progress_.ItemBytes(Share(itemSize_, 0.5 + 0.5 * Part(second.GetValue(), packed)));
  return 1;
}

int Host::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry) {
  const std::string path = EntryPath(entry);
  subject_ = path;
  activity_ = mode_ == HostMode::Test ? Activity::CheckEntry : Activity::ExtractEntry;
  StartItem(entry, path);
  Say((mode_ == HostMode::Test ? "test " : "extract ") + path);
  return Interrupted() ? 0 : 1;
}

int Host::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry,
                       const CArchiveSize& first, const CArchiveSize& second) {
  if (Interrupted()) return 0;
  // Files passed over (not selected, or skipped) report progress without
  // an ExpandFileNotify of their own.
  if (KeyOf(entry) != itemKey_) StartItem(entry, EntryPath(entry));
  if (first.GetValue() == 0)
    progress_.ItemBytes(
        Share(itemSize_, 0.5 * Part(second.GetValue(), entry.PackedSize.GetValue())));
  else
    progress_.ItemBytes(Share(itemSize_, 0.5 + 0.5 * Part(first.GetValue(), itemSize_)));
  return 1;
}

// ---- Existing files -----------------------------------------------------------------------

CArchiveFile::COverwriteOperation Host::AskOverwrite(const std::string& path,
                                                     const WIN32_FIND_DATAW& existing) {
  const std::uint64_t size =
      (static_cast<std::uint64_t>(existing.nFileSizeHigh) << 32) | existing.nFileSizeLow;
  const std::string question =
      path + " exists (" + HumanSize(size) + ", modified " + TimeText(existing.ftLastWriteTime) +
      " UTC).\n[r]eplace, [s]kip, [b]ackup the old one, re[n]ame the new one, "
      "R = replace all, S = skip all, [c]ancel: ";
  progress_.Clear();
  while (true) {
    const auto answer = AskTerminal(question);
    if (!answer) {
      if (!CanAsk()) {
        couldNotAsk_ = true;
        progress_.Print(stderr, "talvern: " + path +
                                    " exists and there is no terminal to ask on; use "
                                    "--overwrite to choose");
      }
      return OverwriteCancel;
    }
    if (*answer == "r" || *answer == "y") return OverwriteReplace;
    if (*answer == "s") return OverwriteSkip;
    if (*answer == "b") return OverwriteBackup;
    if (*answer == "n") return OverwriteRename;
    if (*answer == "R") {
      overwrite_ = OverwritePolicy::Replace;
      return OverwriteReplace;
    }
    if (*answer == "S") {
      overwrite_ = OverwritePolicy::Skip;
      return OverwriteSkip;
    }
    if (*answer == "c" || *answer == "q") return OverwriteCancel;
  }
}

CArchiveFile::COverwriteOperation Host::OverwriteNotify(const WCHAR* targetDir,
                                                        const WCHAR* entryPath,
                                                        const WIN32_FIND_DATAW& existing,
                                                        const WCHAR*, const CArchiveEntry& entry) {
  overwriteAsked_ = true;
  // An existing folder is simply used: its files are each decided on
  // their own.
  if (IsDirectory(entry)) return OverwriteReplace;
  const std::string path = ToHostPath(JoinSource(targetDir, entryPath, entry.FindData.cFileName));
  COverwriteOperation answer = OverwriteCancel;
  switch (overwrite_) {
  case OverwritePolicy::Replace:
    answer = OverwriteReplace;
    break;
  case OverwritePolicy::Skip:
    answer = OverwriteSkip;
    break;
  case OverwritePolicy::Backup:
    answer = OverwriteBackup;
    break;
  case OverwritePolicy::Rename:
    answer = OverwriteRename;
    break;
  case OverwritePolicy::Ask:
  case OverwritePolicy::Default:
    answer = AskOverwrite(path, existing);
    break;
  }
  if (answer == OverwriteSkip) {
    ++skippedExisting_;
    Say("skip " + path + " (exists)");
  }
  return answer;
}

int Host::DoCreate(const WCHAR* targetDir, const WCHAR* root, const WCHAR* folder,
                   const CArchiveEntry& entry, const WCHAR* outputPath, CString& replacementName) {
  // Testing creates nothing: the data is expanded to a scratch file.
  if (mode_ == HostMode::Test) return 1;
  overwriteAsked_ = false;
  const int result =
      CArchiveFile::DoCreate(targetDir, root, folder, entry, outputPath, replacementName);
  if (result >= 3) itemSkipped_ = true;
  if (result > 0) return result;
  const DWORD code = GetErrorCode();
  subject_ = ToHostPath(outputPath);
  activity_ = Activity::ExtractEntry;
  itemSubject_ = subject_;
  if (result == 0 && !overwriteAsked_ && code == ERROR_CANCELLED && !Interrupted()) {
    // A folder stands where a file goes, or a file where a folder goes: the
    // library refuses without a question. Only this entry is given up.
    ReportFailure({subject_, ERROR_ALREADY_EXISTS, Activity::ExtractEntry});
    ClearError();
    itemSkipped_ = true;
    return 3;
  }
  if (result < 0) itemLocalFailure_ = true;
  return result;
}

// ---- Workers: keep going past single items --------------------------------------------

int Host::DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch,
                     CAttrFlags attr) {
  const bool isFile = !IsDirectory(entry);
  const std::uint64_t size = EntrySize(entry);
  const std::uint64_t sizeBefore = GetArchiveSize().GetValue();
  const DWORD diskBefore = GetDiskNo();
  itemLocalFailure_ = false;
  if (CArchiveFile::DoCompress(root, baseDir, entry, srch, attr)) {
    done_.Add(isFile, size, isFile ? entry.PackedSize.GetValue() : 0);
    return 1;
  }
  const DWORD code = GetErrorCode();
  // Files held in memory are read by the library itself, without the
  // compressing member that tells of the source's own failures.
  if (IsDirectTransfer() && !itemLocalFailure_ && IsSourceFailure(code)) {
    itemLocalFailure_ = true;
    CString source = baseDir;
    for (const CString& part : {entry.Path, CString(entry.FindData.cFileName)}) {
      if (part.empty()) continue;
      if (!source.empty()) source += u'\\';
      source += part;
    }
    subject_ = ToHostPath(source.c_str());
    activity_ = Activity::ReadSource;
  }
  // A file that could not be read is left out when nothing of it reached
  // the archive; the others go on.
  if (isFile && itemLocalFailure_ && IsOpen() && GetDiskNo() == diskBefore &&
      GetArchiveSize().GetValue() == sizeBefore && MayGoOnAfter(code)) {
    ReportFailure({subject_, code, Activity::ReadSource});
    ClearError();
    return 1;
  }
  return 0;
}

int Host::ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                       const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                       const WCHAR* source, DWORD method, DWORD& crc) {
  subject_ = ToHostPath(source);
  activity_ = Activity::ReadSource;
  // A source that cannot be opened fails here, before the engine, so that
  // the failure is clearly the file's own.
  const HANDLE probe = CreateFileW(source, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
  if (probe == INVALID_HANDLE_VALUE) {
    error = GetLastError();
    itemLocalFailure_ = true;
    return 0;
  }
  CloseHandle(probe);
  if (!CArchiveFile::ExecCompress(error, arg1, arg2, arg3, entry, size, target, source, method,
                                  crc)) {
    if (IsSourceFailure(error)) itemLocalFailure_ = true;
    return 0;
  }
  subject_ = ArchiveHostPath();
  activity_ = Activity::WriteArchive;
  return 1;
}

int Host::DoExpand(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry, CSrchFlags srch,
                   CAttrFlags attr, CArchiveFindFile* find, int skip) {
  const bool isFile = !IsDirectory(entry);
  const std::uint64_t size = EntrySize(entry);
  std::string path = EntryPath(entry);
  if (path.empty()) path = "(an entry without a name)";
  itemLocalFailure_ = false;
  itemSkipped_ = false;
  itemSubject_.clear();
  if (!skip) {
    subject_ = path;
    activity_ = mode_ == HostMode::Test ? Activity::CheckEntry : Activity::ExtractEntry;
  }
  if (CArchiveFile::DoExpand(targetDir, root, entry, srch, attr, find, skip)) {
    if (!skip && !itemSkipped_) done_.Add(isFile, size, isFile ? entry.PackedSize.GetValue() : 0);
    return 1;
  }
  const DWORD code = GetErrorCode();
  // Decoded without the expanding member: its size and CRC checks fail
  // here.
  // A name that would leave the target, or is no name at all, is refused
  // before anything is created or read for it.
  if (code == ERROR_CRC || code == ERROR_WRITE_FAULT || code == ERROR_BAD_PATHNAME)
    itemLocalFailure_ = true;
  // A file whose output could not be made, whose name was refused or whose
  // data did not check out, is reported and the walk goes on: the search is already behind it,
  // unless its data goes on in a further volume.
  if (isFile && itemLocalFailure_ && (entry.CompressType & kContinued) == 0 && MayGoOnAfter(code)) {
    ReportFailure({itemSubject_.empty() ? path : itemSubject_, code,
                   mode_ == HostMode::Test ? Activity::CheckEntry : Activity::ExtractEntry});
    ClearError();
    return 1;
  }
  return 0;
}

int Host::CheckExpandType(DWORD method) const {
  const int known = CArchiveFile::CheckExpandType(method);
  if (!known) itemLocalFailure_ = true;
  return known;
}

int Host::ExecExpand(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                     const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                     const WCHAR* source, DWORD method, DWORD crc) {
  if (mode_ != HostMode::Test) {
    const int ok =
        CArchiveFile::ExecExpand(error, arg1, arg2, arg3, entry, size, target, source, method, crc);
    if (!ok && error != ERROR_CANCELLED) itemLocalFailure_ = true;
    return ok;
  }
  // Testing: the contents go to a scratch file that is deleted at once; a
  // size or CRC mismatch is reported and the test goes on.
  CString scratch;
  if (!GetTempCompressFile(scratch, 0, WTEXT("TVT"))) {
    error = GetLastError();
    return 0;
  }
  const int ok = CArchiveFile::ExecExpand(error, arg1, arg2, arg3, entry, size, scratch.c_str(),
                                          source, method, crc);
  DeleteFileW(scratch.c_str());
  if (!ok && (error == ERROR_CRC || error == ERROR_WRITE_FAULT)) {
    ReportFailure({EntryPath(entry), error, Activity::CheckEntry});
    return 1;
  }
  return ok;
}

} // namespace tool
