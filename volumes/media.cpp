// The media steps around every open and close of a volume file: on a
// removable drive the volume is locked and dismounted, so that the next
// access mounts the medium that is really in the drive.
#include "archive/archive_data.h"
#include "foundation/paths.h"
#include "volumes/media_query.h"

namespace {

using Access = CArchiveFileAccess;

enum class DeniedDevice { GoOn, Abandon };

// Opens the drive, locks, unlocks and dismounts it. When the volume cannot
// be locked because files on it are in use, the host decides: 0 abandons
// (1223), anything else fails this step without a code so that a caller
// that retries asks again.
int DismountDrive(CArchiveFile& archive, const WCHAR* root, DWORD access, DeniedDevice denied) {
  const HANDLE device = Access::ExecDeviceOpen(archive, root, access);
  if (device == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    if (error == ERROR_ACCESS_DENIED) {
      if (denied == DeniedDevice::GoOn) return 1;
      archive.SetAbort();
      return 0;
    }
    archive.SetErrorCode(error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE);
    return 0;
  }
  if (Access::ExecDeviceLock(archive, device)) {
    Access::ExecDeviceUnlock(archive, device);
    Access::ExecFlushMedia(archive, device);
    Access::ExecDeviceClose(archive, device);
    return 1;
  }
  Access::ExecDeviceClose(archive, device);
  if (!Access::AlreadyOpenedNotify(archive, root)) archive.SetAbort();
  return 0;
}

// The shared default of the load and eject steps; the second argument is
// forWriting or wasWritable.
int PrepareRemovable(CArchiveFile& archive, const WCHAR* root, int writing) {
  if (!archive.IsRemovable(writing, root)) return 1;
  return DismountDrive(archive, root, writing ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ,
                       DeniedDevice::GoOn);
}

} // namespace

int CArchiveFile::DoLoadMedia(const WCHAR* root, int forWriting) {
  return PrepareRemovable(*this, root, forWriting);
}

int CArchiveFile::DoEjectMedia(const WCHAR* root, int wasWritable) {
  return PrepareRemovable(*this, root, wasWritable);
}

int CArchiveFile::DoFlushMedia(const WCHAR* root) {
  const CString drive = root != nullptr ? CString(root) : BuildRootPath(FileName());
  if (drive.empty() || GetDriveTypeW(drive.c_str()) != DRIVE_REMOVABLE) return 1;
  return DismountDrive(*this, drive.c_str(), GENERIC_READ | GENERIC_WRITE, DeniedDevice::Abandon);
}

MediaIdentity ReadMediaIdentity(const CArchiveFile& archive, const WCHAR* path) {
  MediaIdentity id;
  archive.GetMediaInfo(id.Serial, id.Flags, &id.Label, path);
  return id;
}

bool IsSameIdentity(const CArchiveFile& archive, const MediaIdentity& a, const MediaIdentity& b) {
  return archive.IsSameMedia(a.Serial, b.Serial, a.Flags, b.Flags, a.Label.c_str(),
                             b.Label.c_str()) != 0;
}
