#include "archive_set.h"

#include "format.h"

#include <cstring>

namespace tool {
namespace {

constexpr DWORD kHeaderSize = 20;
constexpr DWORD kVolumeNumberMask = 0x7FFF;
constexpr DWORD kContinueBit = 0x8000;

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

// "...\DISK12\NAME.hhh": the index where the digits of the disk folder
// start and its number; false when the volume is not in a disk folder.
bool DiskFolder(const CString& path, std::size_t& digitsStart, std::size_t& digitsEnd,
                unsigned long& number) {
  const std::size_t nameStart = path.find_last_of(WTEXT("\\:"));
  if (nameStart == CString::npos || nameStart == 0) return false;
  const std::size_t folderStart = path.find_last_of(WTEXT("\\:"), nameStart - 1);
  const std::size_t start = folderStart == CString::npos ? 0 : folderStart + 1;
  const CString folder = path.substr(start, nameStart - start);
  if (folder.size() < 5) return false;
  CString prefix = folder.substr(0, 4);
  for (WCHAR& c : prefix)
    if (c >= u'a' && c <= u'z') c = static_cast<WCHAR>(c - u'a' + u'A');
  if (prefix != WTEXT("DISK") && prefix != WTEXT("DISC")) return false;
  number = 0;
  for (std::size_t i = 4; i < folder.size(); ++i) {
    if (folder[i] < u'0' || folder[i] > u'9') return false;
    number = number * 10 + static_cast<unsigned long>(folder[i] - u'0');
  }
  digitsStart = start + 4;
  digitsEnd = nameStart;
  return true;
}

} // namespace

CString WithoutExtension(const CString& path) {
  const std::size_t dot = path.find_last_of(u'.');
  const std::size_t separator = path.find_last_of(WTEXT("\\:"));
  if (dot == CString::npos || (separator != CString::npos && dot < separator)) return path;
  return path.substr(0, dot);
}

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

CString VolumeName(const CString& base, DWORD number) {
  static const char kDigits[] = "0123456789ABCDEF";
  CString name = base + WTEXT(".");
  for (int shift = 8; shift >= 0; shift -= 4)
    name += static_cast<WCHAR>(kDigits[(number >> shift) & 0xF]);
  return name;
}

VolumeHeader ReadVolumeHeader(const CString& path) {
  VolumeHeader header;
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return header;
  unsigned char bytes[kHeaderSize] = {};
  DWORD read = 0;
  const BOOL ok = ReadFile(file, bytes, kHeaderSize, &read, nullptr);
  CloseHandle(file);
  if (!ok || read != kHeaderSize || std::memcmp(bytes, "ArchFile", 8) != 0 || bytes[8] != 0x1A ||
      bytes[9] != 0)
    return header;
  const DWORD word = bytes[10] | (static_cast<DWORD>(bytes[11]) << 8);
  header.valid = true;
  header.number = word & kVolumeNumberMask;
  header.continues = (word & kContinueBit) != 0;
  return header;
}

bool LocateArchive(const std::string& argument, const Drives& drives, ArchiveName& name,
                   DWORD& error, std::string& subject) {
  subject = argument;
  const CString path = ToLibraryPath(argument);
  if (path.empty()) {
    error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_PATH_NOT_FOUND;
    return false;
  }
  DWORD number = 0;
  const bool volumeFile = VolumeNumberOf(path, number);
  // On a removable drive the medium with the archive may not be in the drive
  // yet: opening asks for it.
  if (drives.IsRemovable(path.c_str())) {
    name.path = path;
    name.numbered = volumeFile;
    return true;
  }
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    error = ERROR_DIRECTORY;
    return false;
  }
  const CString base = WithoutExtension(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    // A numbered set named by its base name ("backup" or "backup.arc").
    const CString first = VolumeName(base, 0);
    if (IsFile(first)) {
      name = {first, true};
      return true;
    }
    error = ERROR_FILE_NOT_FOUND;
    return false;
  }
  if (!volumeFile) {
    name = {path, false};
    return true;
  }
  const VolumeHeader header = ReadVolumeHeader(path);
  if (!header.valid || header.number == 0) {
    name = {path, true};
    return true;
  }
  // A later volume of a set: volume 0 lies beside it, or in the disk folder
  // as many numbers back as the volume's own number.
  const CString first = VolumeName(base, 0);
  if (IsFile(first)) {
    name = {first, true};
    return true;
  }
  std::size_t digitsStart = 0, digitsEnd = 0;
  unsigned long folderNumber = 0;
  if (DiskFolder(path, digitsStart, digitsEnd, folderNumber) && folderNumber >= header.number) {
    CString moved = path.substr(0, digitsStart) +
                    Wide(std::to_string(folderNumber - header.number)) +
                    WithoutExtension(path.substr(digitsEnd));
    moved = VolumeName(moved, 0);
    if (IsFile(moved)) {
      name = {moved, true};
      return true;
    }
  }
  error = ERROR_FILE_NOT_FOUND;
  subject = ToHostPath(first);
  return false;
}

// ---- Walking -----------------------------------------------------------------------

EntryWalker::~EntryWalker() {
  if (find_ != nullptr) host_.FindClose(find_);
}

void EntryWalker::NoteVolume() {
  const DWORD number = host_.GetDiskNo();
  if (number < volumes_.size()) return;
  volumes_.resize(number + 1);
  volumes_[number] = {ToHostPath(host_.FileName()), host_.GetArchiveSize().GetValue()};
}

bool EntryWalker::Start() {
  if (find_ != nullptr) {
    host_.FindClose(find_);
    find_ = nullptr;
  }
  if (host_.IsOpen()) host_.Close();
  host_.ClearError();
  CArchiveEntry first;
  if (!host_.OpenFirstVolume(first)) return false;
  NoteVolume();
  find_ = host_.FindCreate();
  last_.Clear();
  return find_ != nullptr;
}

bool EntryWalker::OpenNext(CArchiveEntry& last) {
  const bool continued = (last.CompressType & kContinued) != 0;
  CArchiveEntry first = last;
  if (!host_.OpenNextVolume(first)) return false;
  NoteVolume();
  last_ = first;
  // The continuation record of a split entry is the rest of that entry.
  if (continued) return host_.FindSetPos(find_, first) != 0;
  const CArchiveOffset start(0);
  return host_.FindSetPos(find_, &start) != 0;
}

int EntryWalker::Next(CArchiveEntry& entry) {
  while (true) {
    if (host_.FindNext(find_, entry)) {
      last_ = entry;
      return 1;
    }
    if (host_.GetErrorCode() != ERROR_HANDLE_EOF) return -1;
    host_.ClearError();
    if (!host_.IsContinue()) return 0;
    if (!OpenNext(last_)) return -1;
  }
}

bool EntryWalker::SeekTo(DWORD volume, const CArchiveOffset& offset, CArchiveEntry& entry) {
  host_.ClearError();
  if (!host_.IsOpen() || find_ == nullptr || host_.GetDiskNo() > volume) {
    if (!Start()) return false;
  }
  while (host_.GetDiskNo() < volume) {
    CArchiveEntry none; // moving on between whole entries: no continuation to check
    if (!OpenNext(none)) return false;
  }
  if (!host_.FindSetPos(find_, &offset)) return false;
  return host_.FindNext(find_, entry) != 0;
}

} // namespace tool
