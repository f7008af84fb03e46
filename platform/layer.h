// Shared internals of the file, path and volume parts of the platform layer.
// Not installed; only code under platform/ includes it.
#pragma once

#include "platform/internal.h"

#include <talvern/platform.h>
#include <talvern/win32.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace talvern::platform {

// ---- Errors -----------------------------------------------------------------

// Sets the last error and returns the value a failing BOOL function gives.
inline BOOL Fail(DWORD code) {
  SetLastError(code);
  return FALSE;
}

// The same for a failing HANDLE function (INVALID_HANDLE_VALUE, or null
// where Windows gives null).
inline HANDLE FailHandle(DWORD code, HANDLE failure = INVALID_HANDLE_VALUE) {
  SetLastError(code);
  return failure;
}

// Sets 2 when the folder that should hold hostPath exists, else 3: the two
// ways an open of a missing item fails on Windows.
DWORD SetMissingError(const std::string& hostPath);
// Sets the last error for an errno from opening or inspecting hostPath
// (ENOENT through SetMissingError, ENOTDIR as 3).
void SetPathError(int err, const std::string& hostPath);

// The last name of a host path ("" for "/"), and whether a name begins with
// a dot (and is neither "." nor ".."), which makes it hidden.
std::string_view HostLastName(std::string_view hostPath);
bool IsDotName(std::string_view name);

// Removes a handle's object from the registry and gives it to the caller
// (null for a bad handle).
std::unique_ptr<HandleObject> TakeHandle(HANDLE handle);

// ---- Names ------------------------------------------------------------------

// One host name (UTF-8 bytes, no '/') in its Windows form: valid UTF-8 is
// decoded; invalid bytes, the characters a Windows name cannot hold and any
// encoded U+F000..U+F0FF become U+F000 plus the byte.
CString HostNameToWindows(std::string_view hostName);

// The reverse. Fails (false, last error ERROR_INVALID_NAME) for names that
// cannot be a host name: unpaired surrogates, characters a Windows name
// cannot hold, escapes of NUL or '/'. `allowWildcards` lets '*' and '?'
// through unchanged, for search patterns.
bool WindowsNameToHost(std::u16string_view name, std::string& hostName,
                       bool allowWildcards = false);

// Upper and lower case of one UTF-16 code unit (surrogates unchanged), and
// whether it is a letter.
WCHAR UpperChar(WCHAR c);
WCHAR LowerChar(WCHAR c);
bool IsLetter(WCHAR c);

// ---- Time -------------------------------------------------------------------

std::uint64_t FileTimeToU64(const FILETIME& ft);
FILETIME U64ToFileTime(std::uint64_t value);
std::uint64_t TimespecToU64(const struct timespec& ts);
struct timespec U64ToTimespec(std::uint64_t value);

// ---- Drives and media -------------------------------------------------------

// A medium in a drive: a host folder with its identity and state.
struct Medium {
  std::string hostDir; // canonical, no trailing '/' except for "/"
  DWORD serial = 0;
  bool serialFromHost = false; // serial 0 asked for: the host file system's id
  CString label;
  DWORD fileSystemFlags = 0;
  bool formatted = true;
  bool writeProtected = false;
  std::uint64_t capacity = 0; // 0: the host's real free space
  DWORD clusterSize = 4096;
  UINT driveType = DRIVE_FIXED;

  // Handles open on the medium (files, folders, mappings); a volume lock
  // needs this to be zero.
  int openHandles = 0;
  // The device handle object that holds the volume lock, or null.
  const void* lockOwner = nullptr;
  // Serialises the free-space check with the write that needs it.
  std::mutex accounting;
};

// What a Windows path resolves to.
struct ResolvedPath {
  CString full;                   // the absolute Windows form
  std::string host;               // the host path ("/" for the host root)
  WCHAR drive = 0;                // upper-case letter, or 0 for a share
  bool isRoot = false;            // the path names a drive or share root
  std::shared_ptr<Medium> medium; // the medium that holds the host path
};

// A drive letter's entry in the drive table.
struct Drive {
  bool mapped = false;
  UINT type = DRIVE_FIXED;
  DWORD clusterSize = 4096;
  std::shared_ptr<Medium> medium;
  int preventCount = 0; // IOCTL_DISK_MEDIA_REMOVAL requests in force
};

struct Share {
  CString server; // as mounted, for presenting host paths
  CString share;
  std::string hostDir;
};

// The process-wide tables; guarded by StateMutex().
struct State {
  std::array<Drive, 26> drives;
  std::array<bool, 26> deviceDenied{};
  std::array<DWORD, 26> dismounts{};
  std::map<CString, Share> shares; // key: lower-case "server\share"
  CString cwdWindows;              // how the current directory was last set
  std::string cwdHost;             // ... and where it was on the host
};
State& TheState();
// The mapped drive of a letter, or null. The caller holds StateMutex().
Drive* MappedDrive(WCHAR letter);
bool DeviceAccessDenied(WCHAR letter);

// What a root path ("X:\", "\\server\share\", null for the current
// directory's root) names, for the volume functions.
struct RootInfo {
  WCHAR letter = 0; // 0 for a share
  UINT type = DRIVE_NO_ROOT_DIR;
  DWORD clusterSize = 4096;
  std::shared_ptr<Medium> medium; // null: an empty drive
};
bool LookupRoot(const WCHAR* rootPath, bool requireTrailingSeparator, RootInfo& info);

// The absolute form of a Windows path: 0 or an error code; filePart gets the
// index of the final component or -1.
DWORD BuildFullPathName(const WCHAR* input, CString& result, long& filePart);
// The current directory in Windows form (empty when no drive holds it).
CString CurrentDirectoryWindows();

// Resolves a Windows path; false with the last error set on failure.
bool Resolve(const WCHAR* windowsPath, ResolvedPath& out);

// The medium whose folder holds hostPath (longest match), or null.
std::shared_ptr<Medium> MediumForHostPath(const std::string& hostPath);

// The lock that guards the drive table and every Medium's counters.
std::mutex& StateMutex();

// Checks that the medium takes writes: 0, or ERROR_WRITE_PROTECT.
DWORD WriteCheck(const Medium* medium);

// For a medium with a capacity: 0 when a file growing from oldSize to
// newSize fits into the free clusters, else ERROR_DISK_FULL. The caller
// holds medium.accounting.
DWORD CheckGrowth(Medium& medium, std::uint64_t oldSize, std::uint64_t newSize);
// Clusters used on a medium (every regular file rounded up to clusters).
std::uint64_t UsedClusters(const Medium& medium);
std::uint64_t ClustersFor(std::uint64_t size, DWORD clusterSize);

// Counts an open handle on a medium (and gives it back).
void AddOpenHandle(const std::shared_ptr<Medium>& medium);
void ReleaseOpenHandle(const std::shared_ptr<Medium>& medium);
// True when another handle holds the medium's volume lock.
bool IsLockedByOther(const Medium* medium, const void* self);

// Lexically normalised absolute host path (no ".", "..", "//").
std::string NormaliseHostPath(const std::string& path);

// The Windows form of a host path through the drive and share tables
// (empty with the last error set when no drive holds it).
CString PresentHostPath(const std::string& hostPath);

// ---- Extended attribute record ---------------------------------------------------

// What the layer keeps in the item's extended attribute.
struct StoredInfo {
  bool hasAttributes = false;
  DWORD attributes = 0;
  bool hasCreation = false;
  std::uint64_t creation = 0;
  // What the item held when this was read: no record, this record, or
  // something else (a damaged or foreign value) that reads as no record.
  enum class Found { Nothing, Record, Other } found = Found::Nothing;
};
StoredInfo ReadStoredInfo(const std::string& hostPath, int fd = -1);
// Writes (or, when it holds nothing, removes) the record. Refusal by the
// host file system is ignored: the layer then degrades quietly.
void WriteStoredInfo(const std::string& hostPath, int fd, const StoredInfo& info);
// Whether writing `wanted` would leave the item as `current` (read from
// it) already is, so that the write can be left out.
bool SameStoredInfo(const StoredInfo& current, const StoredInfo& wanted);
// Counts the changes of records (and of names, which may give an inode to
// another item) made by this process; what was read or written before the
// count moved may be stale.
std::uint64_t StoredInfoGeneration();
void NoteStoredInfoChange();

// ---- Files ------------------------------------------------------------------

// The object behind a file or folder handle.
class FileObject : public HandleObject {
public:
  ~FileObject() override;
  int fd = -1;
  std::string host;
  bool isDirectory = false;
  bool canRead = false;
  bool canWrite = false;
  bool canWriteAttributes = false;
  bool deleteOnClose = false;
  DWORD shareMode = 0;
  dev_t device = 0;
  ino_t inode = 0;
  bool shareRegistered = false;
  std::shared_ptr<Medium> medium;
  // The file position, kept here: reads and writes go to it (pread and
  // pwrite) and moving it costs no system call; -1 when unknown (folders,
  // O_PATH handles), where the system's own position serves.
  std::int64_t position = -1;
  // The item's extended attribute record as this handle last read or wrote
  // it, valid while no call of the process changed a record since
  // (storedGeneration equal to StoredInfoGeneration()).
  bool storedKnown = false;
  std::uint64_t storedGeneration = 0;
  StoredInfo stored;
};

// True when open handles on (device, inode) forbid deleting or renaming it.
bool DeleteSharingConflict(dev_t device, ino_t inode);

// ---- Attributes ---------------------------------------------------------------

// Reads the record through the handle's memory of it when that is still
// valid, else from the item, and remembers it.
StoredInfo HandleStoredInfo(FileObject& file);
// Writes the record through the handle (when it differs from what the item
// holds) and remembers it.
void SetHandleStoredInfo(FileObject& file, const StoredInfo& info);
// The record of an item whose last handle was just closed, when nothing
// changed records since: false when it must be read from the item.
bool RecallClosedStoredInfo(dev_t device, ino_t inode, StoredInfo& info);
// Keeps what a handle that is being closed knows of its item's record.
void RememberClosedStoredInfo(const FileObject& file);

// The times of the item a handle has open, asked of the handle: false when
// the handle cannot answer (the caller then asks by name).
bool QueryHandleTimes(FileObject& file, FILETIME* creation, FILETIME* lastAccess,
                      FILETIME* lastWrite);

// Full information about one item, as GetFileAttributesW and the searches
// report it. lst is the item itself (lstat), st the item behind a link.
struct ItemInfo {
  DWORD attributes = 0;
  FILETIME creation{}, lastAccess{}, lastWrite{};
  std::uint64_t size = 0;
  bool isSymlink = false;
};
// Fails (false, last error set) when the item does not exist.
bool QueryItem(const std::string& hostPath, std::string_view name, ItemInfo& info);

} // namespace talvern::platform
