// The archive object behind the C interface: a CArchiveFile whose hooks
// turn into the C callbacks (progress, overwrite, next volume), and which
// selects entries for extraction and leaves the archive out of its own
// tree when creating.
#pragma once

#include <talvern/talvern.h>
#include <talvern/talvern_c.h>

#include <cstdint>
#include <string>
#include <unordered_set>

namespace talvern::capi {

// Host paths (UTF-8) and the library's Windows form.
CString ToLibrary(const char* path);
std::string ToHost(const CString& path);
std::string ToHost(const WCHAR* path);
// An entry's folder and name as a name inside the archive: "a/b/c.txt".
std::string EntryName(const CString& folder, const WCHAR* name);
// Upper-cased "FOLDER\NAME", the key entries are compared by.
CString EntryKey(const CString& folder, const WCHAR* name);
bool IsDirectory(const CArchiveEntry& entry);
std::uint64_t EntrySize(const CArchiveEntry& entry);

// What the archive's file name stands for: one file, or a numbered set
// whose volumes are BASE.000, BASE.001, ...
struct ArchiveName {
  CString path; // the file, or volume 0 of a set
  bool numbered = false;
};
// Finds an existing archive named by path (a file, a set's base name, or
// any volume of a set). 0 or the Win32 code.
DWORD LocateArchive(const CString& path, ArchiveName& name);
// "NAME.hhh": three hexadecimal digits give the volume number.
bool VolumeNumberOf(const CString& path, DWORD& number);
// Deletes volumes of this format: NAME itself, or BASE.first, BASE.first+1,
// ... while they exist and carry their own number.
void DeleteVolumes(const CString& path, bool numbered, DWORD first);

class Host : public CArchiveFile {
public:
  enum class Mode { Read, Write, Extract };

  explicit Host(const talvern_callbacks* callbacks);

  // Copies the callbacks; 87 when the size field is too small for them.
  DWORD SetCallbacks(const talvern_callbacks* callbacks);
  void SetMode(Mode mode) { mode_ = mode; }
  void SetStore(bool store) { store_ = store; }
  // Extraction takes only the entries whose keys are listed, and the
  // folders above them; everything when no selection is set.
  void Select(std::unordered_set<CString> files, std::unordered_set<CString> folders);
  void SelectAll();
  // Adding never takes the archive's own file (or a volume of its set).
  void SkipArchive(const CString& path, bool numbered);
  void SetSourceBase(const CString& base) { sourceBase_ = base; }

  // Progress over the whole job.
  void BeginJob(std::uint64_t total);
  void EndJob(bool ok);
  bool Cancelled() const { return cancelled_; }
  // The code of the failed operation: the latched one, 1223 after a
  // callback cancelled, never 0.
  DWORD FailureCode() const;
  const std::string& FailedName() const { return failedName_; }

  // Volume steps as the library's own operations take them.
  int OpenFirstVolume(CArchiveEntry& first);
  int OpenNextVolume(CArchiveEntry& last);
  int CreateFirstVolume();

protected:
  DWORD GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags srch,
                               CAttrFlags attr) const override;
  int IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch,
                          CAttrFlags attr) const override;
  int IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const override;
  int IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch,
                        CAttrFlags attr) const override;
  int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) override;
  int InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int foreignFile) override;
  int CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                         const CArchiveEntry& entry) override;
  int CompressNotify(const WCHAR* root, const WCHAR* sourceDir, const WCHAR* entryPath,
                     const CArchiveEntry& entry, const CArchiveSize& first,
                     const CArchiveSize& second) override;
  COverwriteOperation OverwriteNotify(const WCHAR* targetDir, const WCHAR* entryPath,
                                      const WIN32_FIND_DATAW& existing, const WCHAR* root,
                                      const CArchiveEntry& entry) override;
  int ExpandFileNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                       const CArchiveEntry& entry) override;
  int ExpandNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                   const CArchiveEntry& entry, const CArchiveSize& first,
                   const CArchiveSize& second) override;

private:
  // Starts reporting a new item (finishing the one before).
  int StartItem(const CArchiveEntry& entry, const std::string& name);
  // Reports the current item at `done` bytes (once for each new value,
  // and always when it starts); 0 when the host cancels.
  int Report(std::uint64_t done, bool first = false);
  int Answer(int goOn);
  int AskVolume(const WCHAR* root, DWORD diskNo, int forWriting, int wrong);

  talvern_callbacks callbacks_{};
  Mode mode_ = Mode::Read;
  bool store_ = false;
  bool selectAll_ = true;
  std::unordered_set<CString> selectedFiles_;
  std::unordered_set<CString> selectedFolders_;
  CString skipArchive_;
  bool skipNumbered_ = false;
  CString sourceBase_;

  std::uint64_t jobTotal_ = 0;
  std::uint64_t jobDone_ = 0; // bytes of the items finished
  std::string itemName_;
  CString itemKey_;
  std::uint64_t itemSize_ = 0;
  std::uint64_t itemDone_ = 0;
  bool itemOpen_ = false;
  bool cancelled_ = false;
  std::string failedName_;
};

} // namespace talvern::capi
