// The tool's archive object: a host class over CArchiveFile whose hooks
// show progress, apply --include/--exclude and --store, answer overwrite
// questions, ask for the next medium of a removable drive, and keep going
// past single files that cannot be read or written.
#pragma once

#include "drives.h"
#include "errors.h"
#include "glob.h"
#include "options.h"
#include "progress.h"

#include <talvern/talvern.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

enum class HostMode {
  Read,    // list, info: only volume changes
  Write,   // create, add
  Extract, // extract
  Test,    // test: expand to nowhere, check sizes and CRCs
};

// A file or entry that failed on its own while the operation went on.
struct ItemFailure {
  std::string subject;
  DWORD code = 0;
  Activity activity = Activity::General;
};

// Files, folders and bytes: what a tree or an archive holds.
struct Totals {
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
  std::uint64_t bytes = 0;  // original sizes
  std::uint64_t packed = 0; // stored sizes
  // Folders reached through symbolic links and stored empty: every one, or
  // with --follow-links those that lead to a folder above them.
  std::vector<std::string> linkedFolders;

  void Add(bool isFile, std::uint64_t size, std::uint64_t packedSize);
  void Add(const CArchiveEntry& entry);
};

class Host : public CArchiveFile {
public:
  Host(const Options& options, OverwritePolicy overwrite, Progress& progress, Drives& drives);
  ~Host() override;

  // Testing decodes and checks without creating anything.
  void SetMode(HostMode mode);

  // Names the archive (FileName) and keeps the name and limit, so that a
  // walk can go back to volume 0 after the name became a volume's name.
  int NameArchive(const CString& path, const CArchiveSize* limit);
  int RestoreName();

  // Volume steps for the commands, through the library's own workers so
  // that numbered sets and removable media behave as in its operations.
  int OpenFirstVolume(CArchiveEntry& first);
  int OpenNextVolume(CArchiveEntry& last);
  int CreateFirstVolume();

  // What adding would take below the folder baseDir\folder (nothing for a
  // missing folder), and what adding one item (with its tree) would take.
  // Without files, the files in the folders are not looked at (nor
  // counted): the folders alone show which are linked, and a walk without a
  // progress bar to feed needs no more.
  void CountTree(const CString& baseDir, const CString& folder, Totals& totals, bool files) const;
  void CountItem(const CString& baseDir, CArchiveEntry& item, Totals& totals, bool files) const;
  // Whether the person's patterns (--include/--exclude) take an item.
  bool FilterTakes(const CString& folder, const WCHAR* name, bool isDirectory) const;
  // Whether extraction takes an entry (selection flags and patterns).
  bool TakesForExtract(const CArchiveEntry& entry) const;

  // Items that failed on their own; each was reported when it happened.
  const std::vector<ItemFailure>& Failures() const { return failures_; }
  void ReportFailure(const ItemFailure& failure);
  // The item and activity the latched error concerns.
  ItemFailure CurrentFailure() const;
  // What was processed: added or extracted or tested files, folders, bytes.
  const Totals& Done() const { return done_; }
  std::uint64_t SkippedExisting() const { return skippedExisting_; }
  // Entries the walk reached (done, skipped or failed), split files once
  // per volume they lie in.
  std::uint64_t Reached() const { return reached_; }
  // Whether a question had to be answered "stop" because there was no
  // terminal to ask on (then the cancellation is not the person's).
  bool CouldNotAsk() const { return couldNotAsk_; }
  // Writing on a removable drive: the media that were filled and changed
  // for the next, in order (the folders of disks 1, 2, ...).
  const std::vector<std::string>& FilledMedia() const { return filledMedia_; }
  // Volumes created while adding.
  DWORD VolumesWritten() const { return volumesWritten_; }

  // Adding: the folder the items being added are relative to, and the
  // archive's own file (or the base name of its numbered volumes), which is
  // never added to itself.
  void SetSourceBase(const CString& baseDir) { sourceBase_ = baseDir; }
  void SetArchiveToSkip(const CString& path, bool numbered);

  // The archive (or its open volume) as a host path, for messages.
  std::string ArchiveHostPath() const;

protected:
  DWORD GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags srch,
                               CAttrFlags attr) const override;
  int IsMatchCompressDir(const CArchiveEntry& entry, CSrchFlags srch,
                         CAttrFlags attr) const override;
  int IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch,
                          CAttrFlags attr) const override;
  int IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const override;
  int IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch,
                        CAttrFlags attr) const override;
  int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) override;
  int InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreignFile) override;
  int AlreadyOpenedNotify(const WCHAR* root) override;
  int FormatNotify(const WCHAR* path, DWORD number) override;
  CDiskFullOperation DiskFullNotify(const WCHAR* root, int first) override;
  int CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry) override;
  int CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                     const CArchiveEntry& entry, const CArchiveSize& first,
                     const CArchiveSize& second) override;
  int CompressStartNotify() override;
  COverwriteOperation OverwriteNotify(const WCHAR* targetDir, const WCHAR* entryPath,
                                      const WIN32_FIND_DATAW& existing, const WCHAR* root,
                                      const CArchiveEntry& entry) override;
  int ExpandFileNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                       const CArchiveEntry& entry) override;
  int ExpandNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                   const CArchiveEntry& entry, const CArchiveSize& first,
                   const CArchiveSize& second) override;
  int ExpandStartNotify() override;
  int DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                   int noFirstPrompt) override;
  int DoDiskFull(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath, int first,
                 int noFirstPrompt) override;
  int DoCreate(const WCHAR* targetDir, const WCHAR* root, const WCHAR* folder,
               const CArchiveEntry& entry, const WCHAR* outputPath,
               CString& replacementName) override;
  int DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch,
                 CAttrFlags attr) override;
  int DoExpand(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry, CSrchFlags srch,
               CAttrFlags attr, CArchiveFindFile* find, int skip) override;

public:
  int CheckExpandType(DWORD method) const override;

protected:
  int ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                   const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                   const WCHAR* source, DWORD method, DWORD& crc) override;
  int ExecExpand(DWORD& error, const WCHAR* arg1, const WCHAR* arg2, const WCHAR* arg3,
                 const CArchiveEntry& entry, const CArchiveSize& size, const WCHAR* target,
                 const WCHAR* source, DWORD method, DWORD crc) override;

private:
  // Asks for the medium that holds (or will hold) a disk; non-zero when
  // one was put into the drive.
  int AskForMedium(const WCHAR* root, DWORD diskNo, int forWriting, bool wrongMedium,
                   bool foreignFile);
  COverwriteOperation AskOverwrite(const std::string& path, const WIN32_FIND_DATAW& existing);
  void StartItem(const CArchiveEntry& entry, const std::string& path);
  // Whether the error of a failed item leaves the archive in step, so that
  // the walk can go on with the next one.
  bool MayGoOnAfter(DWORD code) const;
  void Say(const std::string& line) const; // verbose lines on standard output

  const Options& options_;
  OverwritePolicy overwrite_;
  Progress& progress_;
  Drives& drives_;
  PathFilter filter_;
  HostMode mode_ = HostMode::Read;

  std::vector<ItemFailure> failures_;
  Totals done_;
  std::uint64_t skippedExisting_ = 0;

  // The item being worked on, for progress and for error messages.
  std::string itemKey_;
  std::uint64_t itemSize_ = 0;
  std::uint64_t reached_ = 0;
  std::string subject_;
  std::string itemSubject_; // the output that could not be made
  Activity activity_ = Activity::General;
  // Set when the failure of the current item arose in a step that leaves
  // the archive in step (the source could not be read, the output could
  // not be made, the data did not check out).
  mutable bool itemLocalFailure_ = false;
  bool overwriteAsked_ = false;
  bool itemSkipped_ = false;
  bool mediaStop_ = false;
  std::size_t nextMedium_ = 0; // the next folder of --media
  std::vector<std::string> filledMedia_;
  bool couldNotAsk_ = false;
  DWORD volumesWritten_ = 0;
  CString sourceBase_;
  CString skipArchive_;
  bool skipNumbered_ = false;

  bool IsTheArchive(const CArchiveEntry& entry) const;

  CString name_;
  CArchiveSize limit_;
  bool hasLimit_ = false;
};

} // namespace tool
