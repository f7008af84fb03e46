#include "drives.h"

#include "format.h"

#include <cctype>
#include <filesystem>

namespace tool {
namespace {

bool IsDrivePath(const std::string& text) {
  return text.size() >= 2 && std::isalpha(static_cast<unsigned char>(text[0])) && text[1] == ':';
}

bool IsSharePath(const std::string& text) {
  return text.size() >= 2 && (text[0] == '\\' || text[0] == '/') &&
         (text[1] == '\\' || text[1] == '/') && text.rfind("//", 0) != 0;
}

// A medium's serial number: the same folder is always the same medium, and
// different folders are different media.
DWORD SerialOf(const std::string& folder) {
  DWORD hash = 2166136261u;
  for (unsigned char c : folder) hash = (hash ^ c) * 16777619u;
  return hash == 0 ? 1 : hash;
}

std::string Absolute(const std::string& folder) {
  std::error_code ec;
  const auto path = std::filesystem::absolute(folder, ec);
  std::string text = ec ? folder : path.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

talvern::MediumSpec MediumIn(const DriveOption& drive, const std::string& folder) {
  talvern::MediumSpec medium;
  medium.HostDir = folder;
  medium.Serial = SerialOf(folder);
  const std::string name = std::filesystem::path(folder).filename().string();
  std::string label;
  for (char c : name.substr(0, 11)) label += static_cast<char>(std::toupper(c));
  medium.Label = Wide(label);
  medium.Capacity = drive.Capacity;
  medium.WriteProtected = drive.Type == DRIVE_CDROM;
  return medium;
}

} // namespace

CString ToLibraryPath(const std::string& argument) {
  if (IsDrivePath(argument) || IsSharePath(argument)) {
    CString path = Wide(argument);
    for (WCHAR& c : path)
      if (c == u'/') c = u'\\';
    return path;
  }
  return talvern::HostPathToWindows(argument);
}

std::string ToHostPath(const WCHAR* libraryPath) {
  if (libraryPath == nullptr || *libraryPath == 0) return std::string();
  std::string host = talvern::WindowsPathToHost(libraryPath);
  return host.empty() ? Utf8(libraryPath) : host;
}

std::string ToHostPath(const CString& libraryPath) { return ToHostPath(libraryPath.c_str()); }

bool Drives::MountAll(const std::vector<DriveOption>& drives, std::string& error) {
  for (const DriveOption& given : drives) {
    DriveOption drive = given;
    drive.HostDir = Absolute(drive.HostDir);
    if (drive.ClusterSize == 0) drive.ClusterSize = drive.Type == DRIVE_FIXED ? 4096 : 512;
    const talvern::MediumSpec medium = MediumIn(drive, drive.HostDir);
    if (!talvern::MountDrive(static_cast<WCHAR>(drive.Letter), drive.Type, drive.ClusterSize,
                             &medium)) {
      error = "--drive " + std::string(1, drive.Letter) + ": cannot use the folder " +
              drive.HostDir + " (error " + std::to_string(GetLastError()) + ")";
      return false;
    }
    mounted_.push_back({drive, drive.HostDir});
  }
  return true;
}

const Drives::Mounted* Drives::Find(char letter) const {
  letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
  for (const Mounted& m : mounted_)
    if (m.drive.Letter == letter) return &m;
  return nullptr;
}

Drives::Mounted* Drives::Find(char letter) {
  return const_cast<Mounted*>(static_cast<const Drives&>(*this).Find(letter));
}

const DriveOption* Drives::DriveOf(const WCHAR* path) const {
  if (path == nullptr || path[0] == 0 || path[0] > 0x7F || path[1] != u':') return nullptr;
  const Mounted* m = Find(static_cast<char>(path[0]));
  return m ? &m->drive : nullptr;
}

bool Drives::IsRemovable(const WCHAR* path) const {
  const DriveOption* drive = DriveOf(path);
  return drive != nullptr && (drive->Type == DRIVE_REMOVABLE || drive->Type == DRIVE_CDROM);
}

bool Drives::Insert(char letter, const std::string& hostDir, std::string& error) {
  Mounted* found = Find(letter);
  if (found == nullptr) {
    error = std::string("drive ") + letter + ": is not mounted";
    return false;
  }
  Mounted& m = *found;
  const std::string folder = Absolute(hostDir);
  const talvern::MediumSpec medium = MediumIn(m.drive, folder);
  if (!talvern::InsertMedium(static_cast<WCHAR>(m.drive.Letter), &medium)) {
    error = "cannot use the folder " + folder + " as a medium (error " +
            std::to_string(GetLastError()) + ")";
    return false;
  }
  m.current = folder;
  return true;
}

std::string Drives::CurrentMedium(char letter) const {
  const Mounted* m = Find(letter);
  return m ? m->current : std::string();
}

std::string Drives::SuggestMedium(char letter, DWORD diskNo) const {
  const Mounted* m = Find(letter);
  if (m == nullptr) return std::string();
  const std::string& first = m->drive.HostDir;
  std::size_t digits = first.size();
  while (digits > 0 && std::isdigit(static_cast<unsigned char>(first[digits - 1]))) --digits;
  if (digits == first.size()) return first + std::to_string(diskNo);
  const unsigned long start = std::stoul(first.substr(digits));
  return first.substr(0, digits) + std::to_string(start + diskNo - 1);
}

} // namespace tool
