// Device requests on a drive (\\.\X:) and formatting.
#include "archive/archive_data.h"
#include "foundation/paths.h"
#include "volumes/media_query.h"

namespace {

constexpr int kLockAttempts = 10;
constexpr DWORD kLockRetryMilliseconds = 100;

bool IsAsciiLetter(WCHAR c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }

// One control request without buffers other than the optional input.
int Control(HANDLE device, DWORD code, void* input = nullptr, DWORD inputSize = 0) {
  if (device == INVALID_HANDLE_VALUE) return 0;
  DWORD returned = 0;
  return DeviceIoControl(device, code, input, inputSize, nullptr, 0, &returned, nullptr) ? 1 : 0;
}

} // namespace

HANDLE CArchiveFile::ExecDeviceOpen(const WCHAR* root, DWORD access) const {
  if (root == nullptr || !IsAsciiLetter(root[0]) || root[1] != u':') return INVALID_HANDLE_VALUE;
  // The drive letter keeps its case: \\.\a: for a:\.
  const WCHAR device[] = {u'\\', u'\\', u'.', u'\\', root[0], u':', 0};
  return CreateFileW(device, access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

int CArchiveFile::ExecDeviceClose(HANDLE device) const {
  if (device == INVALID_HANDLE_VALUE) return 0;
  return CloseHandle(device) ? 1 : 0;
}

int CArchiveFile::ExecDeviceLock(HANDLE device) const {
  if (device == INVALID_HANDLE_VALUE) return 0;
  // The lock is refused while files on the volume are open elsewhere; give
  // them about a second to go away.
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (Control(device, FSCTL_LOCK_VOLUME)) return 1;
    Sleep(kLockRetryMilliseconds);
  }
  return 0;
}

int CArchiveFile::ExecDeviceUnlock(HANDLE device) const {
  return Control(device, FSCTL_UNLOCK_VOLUME);
}

int CArchiveFile::ExecFlushMedia(HANDLE device) const {
  return Control(device, FSCTL_DISMOUNT_VOLUME);
}

int CArchiveFile::ExecEjectMedia(HANDLE device) const {
  return Control(device, IOCTL_DISK_EJECT_MEDIA);
}

int CArchiveFile::ExecLoadMedia(HANDLE device) const {
  return Control(device, IOCTL_DISK_LOAD_MEDIA);
}

int CArchiveFile::ExecLockMedia(HANDLE device, int prevent) const {
  PREVENT_MEDIA_REMOVAL request{};
  request.PreventMediaRemoval = prevent != 0 ? 1 : 0;
  return Control(device, IOCTL_DISK_MEDIA_REMOVAL, &request, sizeof(request));
}

int CArchiveFile::ExecCheckFormated(const WCHAR* path, DWORD) const {
  const CString root = BuildRootPath(path != nullptr ? path : m_Data->ArchiveName.c_str());
  if (root.empty()) return 0;
  WCHAR label[MAX_PATH + 1] = {};
  DWORD serial = 0, flags = 0;
  return QueryVolumeInformationQuietly(root.c_str(), label, MAX_PATH + 1, &serial, &flags);
}

int CArchiveFile::DoFormat(const WCHAR*, DWORD) {
  // The library has no formatter; hosts that can format override this.
  SetAbort();
  return 0;
}

int CArchiveFile::Format(const WCHAR* path, DWORD diskNo) {
  if (IsBusy() || path == nullptr || IsOpen()) {
    SetErrorCode(ERROR_PATH_BUSY);
    return 0;
  }
  if (!FormatNotify(path, diskNo)) {
    SetAbort();
    return 0;
  }
  const int result = DoFormat(path, diskNo);
  if (!result) return 0;
  if (ExecCheckFormated(path, diskNo)) return result;
  SetErrorCode(ERROR_UNRECOGNIZED_VOLUME);
  return 0;
}
