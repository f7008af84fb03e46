// Control interface of the platform layer.
//
// A POSIX system has no drive letters, removable media, volume locks or
// privileges. These functions describe them to the platform layer so that
// hosts and tests can put archives on simulated drives: a removable drive
// whose medium is a host folder, a size-limited medium, an unformatted or
// write-protected one, a locked volume, a missing privilege.
//
// Each returns TRUE on success and FALSE with the last error set. On
// Windows the functions exist and answer FALSE.
#pragma once

#include <talvern/export.h>
#include <talvern/win32.h>

#include <cstdint>
#include <string>

namespace talvern {

struct MediumSpec {
  std::string HostDir;         // folder that holds the medium's files (created if missing)
  DWORD Serial = 0;            // volume serial number
  CString Label;               // volume label
  DWORD FileSystemFlags = 0;   // as GetVolumeInformationW reports them
  bool Formatted = true;       // false: the medium carries no file system
  bool WriteProtected = false; // writes fail with ERROR_WRITE_PROTECT
  std::uint64_t Capacity = 0;  // bytes; 0 = the host's real free space
};

// Maps a drive letter to a medium (null: an empty drive) with a drive type
// (DRIVE_FIXED, DRIVE_REMOVABLE, DRIVE_CDROM, DRIVE_REMOTE) and cluster size.
TALVERN_API BOOL MountDrive(WCHAR letter, UINT driveType, DWORD clusterSize,
                            const MediumSpec* medium);
// Swaps the medium of a mounted drive; null empties the drive.
TALVERN_API BOOL InsertMedium(WCHAR letter, const MediumSpec* medium);
TALVERN_API BOOL UnmountDrive(WCHAR letter);
// Maps \\server\share to a host folder (a DRIVE_REMOTE root).
TALVERN_API BOOL MountShare(const WCHAR* server, const WCHAR* share, const std::string& hostDir);
// Overrides whether the process holds a privilege ("SeSecurityPrivilege", ...).
TALVERN_API void SetPrivilegeHeld(const WCHAR* privilegeName, BOOL held);
// Allows or denies opening the drive as a device (\\.\X:).
TALVERN_API void SetDeviceAccess(WCHAR letter, BOOL allowed);
// How many times FSCTL_DISMOUNT_VOLUME reached the drive.
TALVERN_API DWORD GetDismountCount(WCHAR letter);

// Conversions between host paths (UTF-8 bytes, POSIX form) and the
// library's Windows form, through the drive and share tables. A relative
// host path is taken relative to the current directory. An empty result
// means the path cannot be expressed; the last error tells why.
TALVERN_API CString HostPathToWindows(const std::string& hostPath);
TALVERN_API std::string WindowsPathToHost(const WCHAR* windowsPath);

// UTF-16 <-> UTF-8 for messages and names shown to people. Unpaired
// surrogates become U+FFFD.
TALVERN_API std::string ToUtf8(const WCHAR* text);
TALVERN_API CString FromUtf8(const std::string& text);

} // namespace talvern
