// Paths given on the command line and the simulated drives of --drive:
// mounting them, and swapping the medium of a removable drive when the
// person names the folder of the next disk.
#pragma once

#include "options.h"

#include <talvern/talvern.h>

#include <string>
#include <vector>

namespace tool {

// A path from the command line in the library's form. Host paths (POSIX,
// relative to the current folder) go through the drive table; paths already
// in drive form ("A:\backup.arc", "A:/backup.arc") are taken as they are.
// Empty when the path cannot be expressed.
CString ToLibraryPath(const std::string& argument);
// A library path as a host path for messages; the library form when it has
// no host form (an empty drive).
std::string ToHostPath(const CString& libraryPath);
std::string ToHostPath(const WCHAR* libraryPath);

class Drives {
public:
  // Mounts the drives of the command line; false with a message.
  bool MountAll(const std::vector<DriveOption>& drives, std::string& error);
  // The drive of a library path ("A:\x"), or null when it is not one of ours.
  const DriveOption* DriveOf(const WCHAR* path) const;
  bool IsRemovable(const WCHAR* path) const;
  // Puts the medium kept in hostDir into the drive; false with a message.
  bool Insert(char letter, const std::string& hostDir, std::string& error);
  // The folder of the medium in the drive now.
  std::string CurrentMedium(char letter) const;
  // The folder suggested for disk number diskNo (counted from 1): the first
  // medium's folder with its trailing number advanced ("disk1" -> "disk3"
  // for disk 3), or with the number appended.
  std::string SuggestMedium(char letter, DWORD diskNo) const;

private:
  struct Mounted {
    DriveOption drive;
    std::string current; // host folder of the medium in the drive
  };
  std::vector<Mounted> mounted_;
  const Mounted* Find(char letter) const;
  Mounted* Find(char letter);
};

} // namespace tool
