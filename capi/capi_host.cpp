#include "capi/capi_host.h"

#include <algorithm>
#include <cstring>

namespace talvern::capi {
namespace {

constexpr DWORD kHeaderSize = 20;
constexpr DWORD kVolumeNumberMask = 0x7FFF;

bool IsHexDigit(WCHAR c) {
  return (c >= u'0' && c <= u'9') || (c >= u'A' && c <= u'F') || (c >= u'a' && c <= u'f');
}

DWORD HexValue(WCHAR c) {
  if (c <= u'9') return static_cast<DWORD>(c - u'0');
  if (c >= u'a') return static_cast<DWORD>(c - u'a' + 10);
  return static_cast<DWORD>(c - u'A' + 10);
}

bool IsFile(const CString& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

CString WithoutExtension(const CString& path) {
  const std::size_t dot = path.find_last_of(u'.');
  const std::size_t separator = path.find_last_of(WTEXT("\\:"));
  if (dot == CString::npos || (separator != CString::npos && dot < separator)) return path;
  return path.substr(0, dot);
}

} // namespace

bool VolumeNumberOf(const CString& path, DWORD& number) {
  const std::size_t dot = path.find_last_of(u'.');
  const std::size_t separator = path.find_last_of(WTEXT("\\:"));
  if (dot == CString::npos || (separator != CString::npos && dot < separator) ||
      path.size() - dot != 4)
    return false;
  number = 0;
  for (std::size_t i = dot + 1; i < path.size(); ++i) {
    if (!IsHexDigit(path[i])) return false;
    number = number * 16 + HexValue(path[i]);
  }
  return true;
}

namespace {

CString VolumeName(const CString& base, DWORD number) {
  static const char kDigits[] = "0123456789ABCDEF";
  CString name = base + WTEXT(".");
  for (int shift = 8; shift >= 0; shift -= 4)
    name += static_cast<WCHAR>(kDigits[(number >> shift) & 0xF]);
  return name;
}

// The volume number in a file's header; false when it is no volume of
// this format.
bool ReadVolumeNumber(const CString& path, DWORD& number) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  unsigned char bytes[kHeaderSize] = {};
  DWORD read = 0;
  const BOOL ok = ReadFile(file, bytes, kHeaderSize, &read, nullptr);
  CloseHandle(file);
  if (!ok || read != kHeaderSize || std::memcmp(bytes, "ArchFile", 8) != 0 || bytes[8] != 0x1A ||
      bytes[9] != 0)
    return false;
  number = (bytes[10] | (static_cast<DWORD>(bytes[11]) << 8)) & kVolumeNumberMask;
  return true;
}

CString Upper(CString text) {
  if (!text.empty()) CharUpperW(text.data());
  return text;
}

CString Join(const WCHAR* base, const WCHAR* folder, const WCHAR* name) {
  CString path = base ? base : WTEXT("");
  if (!path.empty() && folder && *folder) path += u'\\';
  if (folder) path += folder;
  if (!path.empty()) path += u'\\';
  path += name;
  return path;
}

} // namespace

CString ToLibrary(const char* path) {
  const std::string text = path ? path : "";
  // "X:..." and "\\server\share..." are library paths already: drives
  // and shares the platform layer maps (simulated removable media among
  // them) are reached through them.
  const bool drive =
      text.size() >= 2 && ((text[0] | 0x20) >= 'a' && (text[0] | 0x20) <= 'z') && text[1] == ':';
  const bool share = text.size() >= 2 && (text[0] == '\\' || text[0] == '/') &&
                     (text[1] == '\\' || text[1] == '/') && text.rfind("//", 0) != 0;
  if (!drive && !share) return HostPathToWindows(text);
  CString library = FromUtf8(text);
  for (WCHAR& c : library)
    if (c == u'/') c = u'\\';
  return library;
}

std::string ToHost(const WCHAR* path) {
  if (path == nullptr || *path == 0) return std::string();
  std::string host = WindowsPathToHost(path);
  return host.empty() ? ToUtf8(path) : host;
}

std::string ToHost(const CString& path) { return ToHost(path.c_str()); }

std::string EntryName(const CString& folder, const WCHAR* name) {
  std::string text = ToUtf8(folder.c_str());
  std::replace(text.begin(), text.end(), '\\', '/');
  if (!text.empty()) text += '/';
  return text + ToUtf8(name);
}

CString EntryKey(const CString& folder, const WCHAR* name) {
  CString key = folder;
  if (!key.empty()) key += u'\\';
  return Upper(key + name);
}

bool IsDirectory(const CArchiveEntry& entry) {
  return (entry.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::uint64_t EntrySize(const CArchiveEntry& entry) {
  return (static_cast<std::uint64_t>(entry.FindData.nFileSizeHigh) << 32) |
         entry.FindData.nFileSizeLow;
}

DWORD LocateArchive(const CString& path, ArchiveName& name) {
  if (path.empty()) return GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_PATH_NOT_FOUND;
  DWORD number = 0;
  const bool volumeFile = VolumeNumberOf(path, number);
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
    return ERROR_DIRECTORY;
  const CString first = VolumeName(WithoutExtension(path), 0);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    // A numbered set named by its base name ("backup" or "backup.arc").
    if (!IsFile(first)) return ERROR_FILE_NOT_FOUND;
    name = {first, true};
    return 0;
  }
  if (!volumeFile) {
    name = {path, false};
    return 0;
  }
  // A later volume of a set: volume 0 lies beside it.
  DWORD stored = 0;
  if (ReadVolumeNumber(path, stored) && stored != 0) {
    if (!IsFile(first)) return ERROR_FILE_NOT_FOUND;
    name = {first, true};
    return 0;
  }
  name = {path, true};
  return 0;
}

void DeleteVolumes(const CString& path, bool numbered, DWORD first) {
  DWORD number = 0;
  if (!numbered) {
    if (ReadVolumeNumber(path, number) && number == 0) DeleteFileW(path.c_str());
    return;
  }
  const CString base = WithoutExtension(path);
  for (DWORD next = first; next <= 0xFFF; ++next) {
    const CString volume = VolumeName(base, next);
    if (!ReadVolumeNumber(volume, number) || number != next) break;
    DeleteFileW(volume.c_str());
  }
}

// ---- The host ----------------------------------------------------------------------

Host::Host(const talvern_callbacks* callbacks) {
  // Files go between the archive and memory, without temporary files.
  SetDirectTransfer(1);
  SetCallbacks(callbacks);
}

DWORD Host::SetCallbacks(const talvern_callbacks* callbacks) {
  callbacks_ = talvern_callbacks{};
  if (callbacks == nullptr) return 0;
  if (callbacks->size < sizeof(talvern_callbacks)) return ERROR_INVALID_PARAMETER;
  callbacks_ = *callbacks;
  return 0;
}

void Host::Select(std::unordered_set<CString> files, std::unordered_set<CString> folders) {
  selectAll_ = false;
  selectedFiles_ = std::move(files);
  selectedFolders_ = std::move(folders);
}

void Host::SelectAll() {
  selectAll_ = true;
  selectedFiles_.clear();
  selectedFolders_.clear();
}

void Host::SkipArchive(const CString& path, bool numbered) {
  skipArchive_ = numbered ? WithoutExtension(path) : path;
  skipNumbered_ = numbered;
}

void Host::BeginJob(std::uint64_t total) {
  jobTotal_ = total;
  jobDone_ = 0;
  itemOpen_ = false;
  cancelled_ = false;
  failedName_.clear();
}

void Host::EndJob(bool ok) {
  if (ok && itemOpen_) Report(itemSize_);
  itemOpen_ = false;
}

DWORD Host::FailureCode() const {
  if (cancelled_) return ERROR_CANCELLED;
  const DWORD code = GetErrorCode();
  return code != 0 ? code : ERROR_GEN_FAILURE;
}

int Host::OpenFirstVolume(CArchiveEntry& first) {
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

DWORD Host::GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags srch,
                                   CAttrFlags attr) const {
  if (store_) return 0;
  return CArchiveFile::GetRequestCompressType(entry, srch, attr);
}

int Host::IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  if (!skipArchive_.empty()) {
    const CString full = Join(sourceBase_.c_str(), entry.Path.c_str(), entry.FindData.cFileName);
    DWORD number = 0;
    if (!skipNumbered_ ? full == skipArchive_
                       : VolumeNumberOf(full, number) && WithoutExtension(full) == skipArchive_)
      return 0;
  }
  return CArchiveFile::IsMatchCompressFile(entry, srch, attr);
}

int Host::IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  if (!selectAll_) {
    const CString key = EntryKey(entry.Path, entry.FindData.cFileName);
    if (!selectedFiles_.count(key) && !selectedFolders_.count(key)) return 0;
  }
  return CArchiveFile::IsMatchExpandDir(entry, srch, attr);
}

int Host::IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr) const {
  if (!selectAll_ && !selectedFiles_.count(EntryKey(entry.Path, entry.FindData.cFileName)))
    return 0;
  return CArchiveFile::IsMatchExpandFile(entry, srch, attr);
}

int Host::AskVolume(const WCHAR* root, DWORD diskNo, int forWriting, int wrong) {
  if (callbacks_.next_volume == nullptr) return Answer(0);
  // The drive's root as the library names it ("A:\\"): on a simulated
  // drive its host folder is only that of the medium in it.
  const std::string rootText = ToUtf8(root ? root : WTEXT(""));
  return Answer(
      callbacks_.next_volume(callbacks_.user, rootText.c_str(), diskNo, forWriting, wrong));
}

int Host::DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting) {
  return AskVolume(root, diskNo, forWriting, 0);
}

int Host::InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting, int) {
  return AskVolume(root, diskNo, forWriting, 1);
}

int Host::Answer(int goOn) {
  if (!goOn) cancelled_ = true;
  return goOn ? 1 : 0;
}

int Host::StartItem(const CArchiveEntry& entry, const std::string& name) {
  if (itemOpen_ && !Report(itemSize_)) return 0;
  jobDone_ += itemOpen_ ? itemSize_ : 0;
  itemOpen_ = true;
  itemName_ = name;
  failedName_ = name;
  itemKey_ = EntryKey(entry.Path, entry.FindData.cFileName);
  itemSize_ = IsDirectory(entry) ? 0 : EntrySize(entry);
  itemDone_ = 0;
  return Report(0, true);
}

int Host::Report(std::uint64_t done, bool first) {
  done = std::min(std::max(done, itemDone_), itemSize_);
  // The host hears each new value once: the library's passes report the
  // same bytes more than once.
  if (!first && done == itemDone_) return 1;
  itemDone_ = done;
  if (callbacks_.progress == nullptr) return 1;
  // The job's total is what was counted before it started; a file that
  // grew since raises it rather than let the bytes done pass it.
  const std::uint64_t job = jobDone_ + done;
  return Answer(callbacks_.progress(callbacks_.user, itemName_.c_str(), done, itemSize_, job,
                                    std::max(jobTotal_, job)));
}

namespace {

// Progress of an item in bytes of its size, from the share done in two
// passes: the first pass covers the first half, the second one the rest.
std::uint64_t ItemBytesDone(std::uint64_t size, std::uint64_t done, std::uint64_t total,
                            bool second) {
  const double part = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  const double fraction = std::min(1.0, std::max(0.0, part)) * 0.5 + (second ? 0.5 : 0.0);
  return static_cast<std::uint64_t>(static_cast<double>(size) * fraction);
}

} // namespace

int Host::CompressFileNotify(const WCHAR*, const WCHAR*, const WCHAR* entryPath,
                             const CArchiveEntry& entry) {
  return StartItem(entry, EntryName(entryPath ? entryPath : WTEXT(""), entry.FindData.cFileName));
}

int Host::CompressNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry,
                         const CArchiveSize& first, const CArchiveSize& second) {
  // The engine reports bytes read (first) while nothing is stored yet; the
  // copy into the archive reports stored bytes written (second).
  const std::uint64_t packed = entry.PackedSize.GetValue();
  if (packed == 0 && second.GetValue() == 0)
    return Report(ItemBytesDone(itemSize_, first.GetValue(), itemSize_, false));
  return Report(ItemBytesDone(itemSize_, second.GetValue(), packed, true));
}

CArchiveFile::COverwriteOperation Host::OverwriteNotify(const WCHAR* targetDir,
                                                        const WCHAR* entryPath,
                                                        const WIN32_FIND_DATAW&, const WCHAR*,
                                                        const CArchiveEntry& entry) {
  if (IsDirectory(entry) || callbacks_.overwrite == nullptr) return OverwriteReplace;
  const std::string path = ToHost(Join(targetDir, entryPath, entry.FindData.cFileName));
  const std::string name = EntryName(entry.Path, entry.FindData.cFileName);
  const std::string folder = EntryName(CString(), entry.Path.c_str());
  const std::string base = ToUtf8(entry.FindData.cFileName);
  talvern_entry info{};
  info.path = name.c_str();
  info.name = base.c_str();
  info.folder = folder.c_str();
  info.size = EntrySize(entry);
  info.packed_size = entry.PackedSize.GetValue();
  info.method = entry.CompressType & 0x7FFFFFFFu;
  info.crc = entry.Crc;
  info.attributes = entry.FindData.dwFileAttributes;
  info.volume = GetDiskNo();
  const int answer = callbacks_.overwrite(callbacks_.user, path.c_str(), &info);
  switch (answer) {
  case TALVERN_OVERWRITE_REPLACE:
    return OverwriteReplace;
  case TALVERN_OVERWRITE_SKIP:
    return OverwriteSkip;
  case TALVERN_OVERWRITE_BACKUP:
    return OverwriteBackup;
  case TALVERN_OVERWRITE_RENAME:
    return OverwriteRename;
  default:
    cancelled_ = true;
    return OverwriteCancel;
  }
}

int Host::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry) {
  return StartItem(entry, EntryName(entry.Path, entry.FindData.cFileName));
}

int Host::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry& entry,
                       const CArchiveSize& first, const CArchiveSize& second) {
  // Entries passed over report progress too: only the current one counts.
  if (!itemOpen_ || EntryKey(entry.Path, entry.FindData.cFileName) != itemKey_) return 1;
  // The copy out of the archive reports stored bytes (second, first 0); the
  // engine bytes written (first).
  if (first.GetValue() == 0)
    return Report(ItemBytesDone(itemSize_, second.GetValue(), entry.PackedSize.GetValue(), false));
  return Report(ItemBytesDone(itemSize_, first.GetValue(), itemSize_, true));
}

} // namespace talvern::capi
