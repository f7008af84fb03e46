// Drives, volumes, media and device handles.
#include "platform/layer.h"

#include <atomic>
#include <filesystem>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace talvern::platform {
namespace {

std::atomic<UINT> g_errorMode{0};

// A drive opened as a device ("\\.\X:").
class DeviceObject : public HandleObject {
public:
  ~DeviceObject() override {
    std::lock_guard<std::mutex> lock(StateMutex());
    if (locked && locked->lockOwner == this) locked->lockOwner = nullptr;
    if (Drive* d = MappedDrive(letter)) d->preventCount -= std::min(prevents, d->preventCount);
  }
  WCHAR letter = 0;
  std::shared_ptr<Medium> locked; // the medium this handle locked
  int prevents = 0;               // removal-prevention requests of this handle
};

DWORD SerialFromHost(const std::string& hostDir) {
  struct statvfs vfs {};
  if (::statvfs(hostDir.c_str(), &vfs) != 0) return 0;
  const auto id = static_cast<std::uint64_t>(vfs.f_fsid);
  return static_cast<DWORD>(id ^ (id >> 32));
}

bool CopyOut(const CString& text, LPWSTR buffer, DWORD size) {
  if (buffer == nullptr) return true;
  if (text.size() + 1 > size) return Fail(ERROR_BAD_LENGTH);
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = 0;
  return true;
}

// Refuses roots whose drive holds no usable medium.
bool CheckMedium(const RootInfo& info) {
  if (!info.medium) return Fail(ERROR_NOT_READY);
  if (!info.medium->formatted) return Fail(ERROR_UNRECOGNIZED_VOLUME);
  return true;
}

} // namespace

std::uint64_t ClustersFor(std::uint64_t size, DWORD clusterSize) {
  return size / clusterSize + (size % clusterSize != 0 ? 1 : 0);
}

std::uint64_t UsedClusters(const Medium& medium) {
  namespace fs = std::filesystem;
  std::error_code ec;
  std::uint64_t clusters = 0;
  struct stat st {};
  if (::lstat(medium.hostDir.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    return ClustersFor(static_cast<std::uint64_t>(st.st_size), medium.clusterSize);
  for (auto it = fs::recursive_directory_iterator(
           medium.hostDir, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (::lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode))
      clusters += ClustersFor(static_cast<std::uint64_t>(st.st_size), medium.clusterSize);
  }
  return clusters;
}

DWORD CheckGrowth(Medium& medium, std::uint64_t oldSize, std::uint64_t newSize) {
  if (medium.capacity == 0) return ERROR_SUCCESS;
  const std::uint64_t before = ClustersFor(oldSize, medium.clusterSize);
  const std::uint64_t after = ClustersFor(newSize, medium.clusterSize);
  if (after <= before) return ERROR_SUCCESS;
  const std::uint64_t total = medium.capacity / medium.clusterSize;
  const std::uint64_t used = UsedClusters(medium);
  const std::uint64_t free = total > used ? total - used : 0;
  return after - before > free ? ERROR_DISK_FULL : ERROR_SUCCESS;
}

HANDLE OpenDevice(WCHAR letter, DWORD /*access*/) {
  {
    std::lock_guard<std::mutex> lock(StateMutex());
    if (MappedDrive(letter) == nullptr) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
  }
  if (DeviceAccessDenied(letter)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  }
  auto device = std::make_unique<DeviceObject>();
  device->letter = letter;
  return RegisterHandle(std::move(device));
}

} // namespace talvern::platform

using namespace talvern::platform;

UINT GetDriveTypeW(LPCWSTR rootPathName) {
  RootInfo info;
  if (!LookupRoot(rootPathName, false, info)) return DRIVE_NO_ROOT_DIR;
  return info.type;
}

BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                           LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                           LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                           DWORD fileSystemNameSize) {
  RootInfo info;
  if (!LookupRoot(rootPathName, true, info) || !CheckMedium(info)) return FALSE;
  const Medium& m = *info.medium;
  const CString fileSystem = info.type == DRIVE_CDROM       ? CString(u"CDFS")
                             : info.type == DRIVE_REMOVABLE ? CString(u"FAT")
                                                            : CString(u"HOSTFS");
  if (!CopyOut(m.label, volumeNameBuffer, volumeNameSize) ||
      !CopyOut(fileSystem, fileSystemNameBuffer, fileSystemNameSize))
    return FALSE;
  if (volumeSerialNumber != nullptr)
    *volumeSerialNumber = m.serialFromHost ? SerialFromHost(m.hostDir) : m.serial;
  if (maximumComponentLength != nullptr) *maximumComponentLength = 255;
  if (fileSystemFlags != nullptr) *fileSystemFlags = m.fileSystemFlags;
  return TRUE;
}

BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                       LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters) {
  RootInfo info;
  if (!LookupRoot(rootPathName, true, info) || !CheckMedium(info)) return FALSE;
  const Medium& m = *info.medium;
  const DWORD cluster = info.clusterSize;
  std::uint64_t total, free;
  if (m.capacity != 0) {
    total = m.capacity / cluster;
    const std::uint64_t used = UsedClusters(m);
    free = total > used ? total - used : 0;
  } else {
    struct statvfs vfs {};
    if (::statvfs(m.hostDir.c_str(), &vfs) != 0) {
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
    total = static_cast<std::uint64_t>(vfs.f_blocks) * vfs.f_frsize / cluster;
    free = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize / cluster;
  }
  if (sectorsPerCluster != nullptr) *sectorsPerCluster = cluster / 512;
  if (bytesPerSector != nullptr) *bytesPerSector = 512;
  if (numberOfFreeClusters != nullptr)
    *numberOfFreeClusters = static_cast<DWORD>(std::min<std::uint64_t>(free, 0xFFFFFFFFu));
  if (totalNumberOfClusters != nullptr)
    *totalNumberOfClusters = static_cast<DWORD>(std::min<std::uint64_t>(total, 0xFFFFFFFFu));
  return TRUE;
}

UINT SetErrorMode(UINT mode) { return g_errorMode.exchange(mode); }

BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, LPVOID inBuffer, DWORD inBufferSize,
                     LPVOID /*outBuffer*/, DWORD /*outBufferSize*/, LPDWORD bytesReturned,
                     LPOVERLAPPED /*overlapped*/) {
  auto* dev = FindHandleAs<DeviceObject>(device);
  if (dev == nullptr)
    return Fail(FindHandle(device) != nullptr ? ERROR_INVALID_FUNCTION : ERROR_INVALID_HANDLE);
  if (bytesReturned != nullptr) *bytesReturned = 0;
  std::lock_guard<std::mutex> lock(StateMutex());
  Drive* drive = MappedDrive(dev->letter);
  if (drive == nullptr) return Fail(ERROR_NOT_READY);
  const std::shared_ptr<Medium>& medium = drive->medium;
  const bool removable = drive->type == DRIVE_REMOVABLE || drive->type == DRIVE_CDROM;
  switch (ioControlCode) {
  case FSCTL_LOCK_VOLUME:
    if (!medium) return Fail(ERROR_NOT_READY);
    if (medium->lockOwner == dev) return TRUE;
    // Any other open handle on the volume, or another lock, refuses it.
    if (medium->lockOwner != nullptr || medium->openHandles > 0) return Fail(ERROR_ACCESS_DENIED);
    medium->lockOwner = dev;
    dev->locked = medium;
    return TRUE;
  case FSCTL_UNLOCK_VOLUME:
    if (!dev->locked || dev->locked->lockOwner != dev) return Fail(ERROR_NOT_LOCKED);
    dev->locked->lockOwner = nullptr;
    dev->locked.reset();
    return TRUE;
  case FSCTL_DISMOUNT_VOLUME:
    if (!medium) return Fail(ERROR_NOT_READY);
    ++TheState().dismounts[static_cast<std::size_t>(UpperChar(dev->letter) - u'A')];
    return TRUE;
  case IOCTL_DISK_EJECT_MEDIA:
    if (!removable) return Fail(ERROR_INVALID_FUNCTION);
    if (!medium) return Fail(ERROR_NOT_READY);
    if (drive->preventCount > 0) return Fail(ERROR_ACCESS_DENIED);
    if (medium->lockOwner != nullptr) medium->lockOwner = nullptr;
    drive->medium.reset();
    return TRUE;
  case IOCTL_DISK_LOAD_MEDIA:
    if (!removable) return Fail(ERROR_INVALID_FUNCTION);
    if (!medium) return Fail(ERROR_NOT_READY);
    return TRUE;
  case IOCTL_DISK_MEDIA_REMOVAL: {
    if (!removable) return Fail(ERROR_INVALID_FUNCTION);
    if (inBuffer == nullptr || inBufferSize < sizeof(PREVENT_MEDIA_REMOVAL))
      return Fail(ERROR_INVALID_PARAMETER);
    const auto* request = static_cast<const PREVENT_MEDIA_REMOVAL*>(inBuffer);
    if (request->PreventMediaRemoval) {
      ++drive->preventCount;
      ++dev->prevents;
    } else if (drive->preventCount > 0) {
      // Any handle may allow removal again, as the drive keeps one count.
      --drive->preventCount;
      if (dev->prevents > 0) --dev->prevents;
    }
    return TRUE;
  }
  default:
    return Fail(ERROR_INVALID_FUNCTION);
  }
}
