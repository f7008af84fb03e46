// Files and folders: CreateFileW and the handle operations, share modes,
// deleting, moving, creating and removing folders.
#include "platform/layer.h"
#include "platform/security_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace talvern::platform {
namespace {

// ---- Share modes ----------------------------------------------------------------

struct ShareEntry {
  const FileObject* owner;
  dev_t device;
  ino_t inode;
  bool read, write, del;
  DWORD share;
};

std::mutex& ShareMutex() {
  static std::mutex* mutex = new std::mutex; // lives until the process ends
  return *mutex;
}

std::vector<ShareEntry>& ShareTable() {
  static auto* table = new std::vector<ShareEntry>; // lives until the process ends
  return *table;
}

// Whether an open with the given data access and share mode may coexist
// with an existing handle, by the rules Windows applies.
bool Compatible(const ShareEntry& existing, bool read, bool write, bool del, DWORD share) {
  if (!read && !write && !del) return true;
  if (!existing.read && !existing.write && !existing.del) return true;
  if (read && !(existing.share & FILE_SHARE_READ)) return false;
  if (write && !(existing.share & FILE_SHARE_WRITE)) return false;
  if (del && !(existing.share & FILE_SHARE_DELETE)) return false;
  if (existing.read && !(share & FILE_SHARE_READ)) return false;
  if (existing.write && !(share & FILE_SHARE_WRITE)) return false;
  if (existing.del && !(share & FILE_SHARE_DELETE)) return false;
  return true;
}

// Adds a handle to the share table unless an existing handle forbids it.
bool RegisterShare(FileObject& file, bool read, bool write, bool del) {
  std::lock_guard<std::mutex> lock(ShareMutex());
  auto& table = ShareTable();
  for (const auto& e : table)
    if (e.device == file.device && e.inode == file.inode &&
        !Compatible(e, read, write, del, file.shareMode))
      return false;
  table.push_back(ShareEntry{&file, file.device, file.inode, read, write, del, file.shareMode});
  file.shareRegistered = true;
  return true;
}

void UnregisterShare(const FileObject& file) {
  std::lock_guard<std::mutex> lock(ShareMutex());
  auto& table = ShareTable();
  table.erase(std::remove_if(table.begin(), table.end(),
                             [&](const ShareEntry& e) { return e.owner == &file; }),
              table.end());
}

constexpr DWORD kReadRights =
    GENERIC_READ | GENERIC_ALL | GENERIC_EXECUTE | FILE_READ_DATA | FILE_EXECUTE | MAXIMUM_ALLOWED;
constexpr DWORD kWriteRights = GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr DWORD kDeleteRights = GENERIC_ALL | DELETE;
constexpr DWORD kWriteAttributeRights =
    GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_ATTRIBUTES | MAXIMUM_ALLOWED;

// Attribute bits CreateFileW keeps for a new file (besides read-only).
constexpr DWORD kKeptOnCreate = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_TEMPORARY |
                                FILE_ATTRIBUTE_OFFLINE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

// What Linux reads ahead of a sequential reader without being asked.
constexpr off_t kOwnReadAhead = 128 * 1024;

FileObject* FileFromHandle(HANDLE handle) {
  auto* file = FindHandleAs<FileObject>(handle);
  if (file == nullptr) SetLastError(ERROR_INVALID_HANDLE);
  return file;
}

// Records the attributes a new or overwritten file gets from CreateFileW.
// A file this call created holds no record yet; an overwritten one may have
// one, which was just closed (known) or must be read.
void ApplyCreateAttributes(FileObject& file, bool created, DWORD flagsAndAttributes,
                           const struct stat& st) {
  if (created || RecallClosedStoredInfo(file.device, file.inode, file.stored)) {
    if (created) file.stored = StoredInfo();
    file.storedKnown = true;
    file.storedGeneration = StoredInfoGeneration();
  }
  StoredInfo info = HandleStoredInfo(file);
  const DWORD bits = (flagsAndAttributes & kKeptOnCreate) | FILE_ATTRIBUTE_ARCHIVE;
  const DWORD derived =
      FILE_ATTRIBUTE_ARCHIVE | (IsDotName(HostLastName(file.host)) ? FILE_ATTRIBUTE_HIDDEN : 0);
  const bool store = bits != derived;
  if (store != info.hasAttributes || (store && info.attributes != bits)) {
    info.hasAttributes = store;
    info.attributes = store ? bits : 0;
    SetHandleStoredInfo(file, info);
  }
  if (flagsAndAttributes & FILE_ATTRIBUTE_READONLY)
    ::fchmod(file.fd, st.st_mode & ~(S_IWUSR | S_IWGRP | S_IWOTH) & 07777);
}

// Space and write-protection checks around a change of a file's size.
DWORD CheckSizeChange(FileObject& file, std::uint64_t oldSize, std::uint64_t newSize) {
  if (!file.medium || newSize <= oldSize) return ERROR_SUCCESS;
  return CheckGrowth(*file.medium, oldSize, newSize);
}

class DeviceGuard {
public:
  explicit DeviceGuard(Medium* medium) : medium_(medium) {
    if (medium_ != nullptr && medium_->capacity != 0) medium_->accounting.lock();
  }
  ~DeviceGuard() {
    if (medium_ != nullptr && medium_->capacity != 0) medium_->accounting.unlock();
  }
  DeviceGuard(const DeviceGuard&) = delete;
  DeviceGuard& operator=(const DeviceGuard&) = delete;

private:
  Medium* medium_;
};

} // namespace

HANDLE OpenDevice(WCHAR letter, DWORD access); // volumes.cpp

FileObject::~FileObject() {
  if (fd >= 0 && !deleteOnClose) RememberClosedStoredInfo(*this);
  if (shareRegistered) UnregisterShare(*this);
  if (fd >= 0) ::close(fd);
  if (deleteOnClose) {
    NoteStoredInfoChange(); // the inode may come back as another item
    ::unlink(host.c_str());
  }
  ReleaseOpenHandle(medium);
}

bool DeleteSharingConflict(dev_t device, ino_t inode) {
  std::lock_guard<std::mutex> lock(ShareMutex());
  for (const auto& e : ShareTable())
    if (e.device == device && e.inode == inode && !Compatible(e, false, false, true, 7))
      return true;
  return false;
}

} // namespace talvern::platform

using namespace talvern::platform;

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE /*templateFile*/) {
  if (fileName == nullptr || fileName[0] == 0) return FailHandle(ERROR_PATH_NOT_FOUND);
  if (creationDisposition < CREATE_NEW || creationDisposition > TRUNCATE_EXISTING)
    return FailHandle(ERROR_INVALID_PARAMETER);

  // "\\.\X:" opens the drive as a device.
  const CString name(fileName);
  if (name.size() == 6 && name[0] == u'\\' && name[1] == u'\\' && name[2] == u'.' &&
      name[3] == u'\\' && name[5] == u':')
    return OpenDevice(name[4], desiredAccess);

  const bool read = (desiredAccess & kReadRights) != 0;
  const bool write = (desiredAccess & kWriteRights) != 0;
  const bool del = (desiredAccess & kDeleteRights) != 0;
  const bool writeAttributes = write || (desiredAccess & kWriteAttributeRights) != 0;
  if (creationDisposition == TRUNCATE_EXISTING && !write)
    return FailHandle(ERROR_INVALID_PARAMETER);

  ResolvedPath path;
  if (!Resolve(fileName, path)) return INVALID_HANDLE_VALUE;
  if (IsLockedByOther(path.medium.get(), nullptr)) return FailHandle(ERROR_ACCESS_DENIED);
  // "name\\" can only be a folder.
  const bool trailingSeparator = !path.isRoot && path.full.back() == u'\\';

  int accessFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  if (read && write)
    accessFlags |= O_RDWR;
  else if (write)
    accessFlags |= O_WRONLY;
  else
    accessFlags |= O_RDONLY;
  const bool truncating =
      creationDisposition == CREATE_ALWAYS || creationDisposition == TRUNCATE_EXISTING;
  // A new file needs no look before it is made: O_EXCL refuses anything that
  // exists (a link too, dangling or not), and the look below then tells why.
  const bool createFirst = creationDisposition == CREATE_NEW && !trailingSeparator &&
                           !path.isRoot && WriteCheck(path.medium.get()) == ERROR_SUCCESS;

  for (int attempt = 0;; ++attempt) {
    bool exists = false;
    bool isDirectory = false;
    bool pathOnly = false;
    int fd = -1;
    if (attempt == 0 && createFirst)
      fd = ::open(path.host.c_str(), accessFlags | O_CREAT | O_EXCL, 0666);
    if (fd < 0) {
      struct stat lst {
      }, st{};
      exists = ::lstat(path.host.c_str(), &lst) == 0;
      if (!exists && errno != ENOENT) {
        SetPathError(errno, path.host);
        return INVALID_HANDLE_VALUE;
      }
      if (exists && S_ISLNK(lst.st_mode) && ::stat(path.host.c_str(), &st) != 0) {
        // A link whose target is missing: the name exists, the file does not.
        return FailHandle(creationDisposition == CREATE_NEW ? ERROR_FILE_EXISTS
                                                            : ERROR_FILE_NOT_FOUND);
      }
      if (exists && !S_ISLNK(lst.st_mode)) st = lst;

      if (trailingSeparator && !(exists && S_ISDIR(st.st_mode)))
        return FailHandle(ERROR_INVALID_NAME);
      if (exists) {
        if (creationDisposition == CREATE_NEW) return FailHandle(ERROR_FILE_EXISTS);
        if (S_ISDIR(st.st_mode)) {
          if (!(flagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS) || truncating)
            return FailHandle(ERROR_ACCESS_DENIED);
          isDirectory = true;
        } else if (!S_ISREG(st.st_mode)) {
          // FIFOs, sockets and device nodes are never opened: an open could block.
          return FailHandle(ERROR_ACCESS_DENIED);
        } else if ((write || truncating) && !(st.st_mode & S_IWUSR)) {
          return FailHandle(ERROR_ACCESS_DENIED); // a read-only file
        }
        if (write || truncating || (writeAttributes && isDirectory)) {
          if (const DWORD code = WriteCheck(path.medium.get())) return FailHandle(code);
        }
      } else {
        if (creationDisposition == OPEN_EXISTING || creationDisposition == TRUNCATE_EXISTING) {
          SetMissingError(path.host);
          return INVALID_HANDLE_VALUE;
        }
        if (path.isRoot) return FailHandle(ERROR_ACCESS_DENIED);
        if (const DWORD code = WriteCheck(path.medium.get())) return FailHandle(code);
      }

      int flags =
          isDirectory ? O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_RDONLY | O_DIRECTORY : accessFlags;
      if (!exists) flags |= O_CREAT | O_EXCL;

      fd = ::open(path.host.c_str(), flags, 0666);
      if (fd < 0 && errno == EACCES && !read && !write && exists) {
        fd = ::open(path.host.c_str(), O_PATH | O_CLOEXEC);
        pathOnly = fd >= 0;
      }
      if (fd < 0) {
        const int err = errno;
        // The item appeared or went away since it was looked at: look again.
        if ((err == EEXIST || (err == ENOENT && exists)) && attempt < 3) continue;
        if (err == ENOENT || err == ENOTDIR) {
          SetLastError(ERROR_PATH_NOT_FOUND);
          if (exists) SetMissingError(path.host);
        } else if (err == EEXIST) {
          SetLastError(ERROR_FILE_EXISTS);
        } else {
          SetLastErrorFromErrno(err);
        }
        return INVALID_HANDLE_VALUE;
      }
    }

    auto file = std::make_unique<FileObject>();
    file->fd = fd;
    file->host = path.host;
    file->shareMode = shareMode & (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    file->canRead = read && !isDirectory;
    file->canWrite = write && !isDirectory;
    file->canWriteAttributes = writeAttributes;
    file->isDirectory = isDirectory;
    file->deleteOnClose = (flagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    if (!isDirectory && !pathOnly) file->position = 0;
    struct stat opened {};
    if (::fstat(fd, &opened) != 0 ||
        !(S_ISREG(opened.st_mode) || (isDirectory && S_ISDIR(opened.st_mode)))) {
      // Replaced by something else between the look and the open.
      file->deleteOnClose = false;
      return FailHandle(ERROR_ACCESS_DENIED);
    }
    file->device = opened.st_dev;
    file->inode = opened.st_ino;
    if (!RegisterShare(*file, read, write, del)) {
      file->deleteOnClose = !exists; // a file this call created goes again
      return FailHandle(ERROR_SHARING_VIOLATION);
    }

    // An empty file needs no truncating; a file smaller than what the host
    // reads ahead by itself needs no read-ahead hint (below).
    bool empty = opened.st_size == 0;
    const bool small = opened.st_size <= kOwnReadAhead;
    if (exists && truncating && !empty) {
      const int r = write ? ::ftruncate(fd, 0) : ::truncate(path.host.c_str(), 0);
      if (r != 0) {
        SetLastErrorFromErrno(errno);
        return INVALID_HANDLE_VALUE;
      }
      empty = true;
    }
    if (!isDirectory && (!exists || truncating))
      ApplyCreateAttributes(*file, !exists, flagsAndAttributes, opened);

    if (!exists && securityAttributes != nullptr &&
        securityAttributes->lpSecurityDescriptor != nullptr) {
      const DWORD code =
          ApplySecurityOnCreate(path.host, false, securityAttributes->lpSecurityDescriptor);
      if (code != ERROR_SUCCESS) {
        file->deleteOnClose = true;
        file.reset();
        return FailHandle(code);
      }
    }

    if (!isDirectory && !empty && !small) {
      if (flagsAndAttributes & FILE_FLAG_SEQUENTIAL_SCAN)
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
      else if (flagsAndAttributes & FILE_FLAG_RANDOM_ACCESS)
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    }
    file->medium = path.medium;
    AddOpenHandle(file->medium);
    HANDLE handle = RegisterHandle(std::move(file));
    if (creationDisposition == CREATE_ALWAYS || creationDisposition == OPEN_ALWAYS)
      SetLastError(exists ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
  }
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
              LPOVERLAPPED /*overlapped*/) {
  if (bytesRead != nullptr) *bytesRead = 0;
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (f->isDirectory) return Fail(ERROR_INVALID_FUNCTION);
  if (!f->canRead) return Fail(ERROR_ACCESS_DENIED);
  if (bytesToRead == 0) return TRUE;
  if (buffer == nullptr) return Fail(ERROR_NOACCESS);
  auto* p = static_cast<unsigned char*>(buffer);
  DWORD done = 0;
  while (done < bytesToRead) {
    const ssize_t n = f->position >= 0 ? ::pread(f->fd, p + done, bytesToRead - done, f->position)
                                       : ::read(f->fd, p + done, bytesToRead - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (bytesRead != nullptr) *bytesRead = done;
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
    if (n == 0) break;
    done += static_cast<DWORD>(n);
    if (f->position >= 0) f->position += n;
  }
  if (bytesRead != nullptr) *bytesRead = done;
  return TRUE;
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
               LPOVERLAPPED /*overlapped*/) {
  if (bytesWritten != nullptr) *bytesWritten = 0;
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (f->isDirectory) return Fail(ERROR_INVALID_FUNCTION);
  if (!f->canWrite) return Fail(ERROR_ACCESS_DENIED);
  if (bytesToWrite == 0) return TRUE;
  if (buffer == nullptr) return Fail(ERROR_NOACCESS);

  DeviceGuard guard(f->medium.get());
  if (f->medium && f->medium->capacity != 0) {
    struct stat st {};
    const off_t position = f->position >= 0 ? f->position : ::lseek(f->fd, 0, SEEK_CUR);
    if (position < 0 || ::fstat(f->fd, &st) != 0) {
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
    const auto oldSize = static_cast<std::uint64_t>(st.st_size);
    const std::uint64_t end = static_cast<std::uint64_t>(position) + bytesToWrite;
    if (const DWORD code = CheckSizeChange(*f, oldSize, std::max(oldSize, end))) return Fail(code);
  }
  const auto* p = static_cast<const unsigned char*>(buffer);
  DWORD done = 0;
  while (done < bytesToWrite) {
    const ssize_t n = f->position >= 0 ? ::pwrite(f->fd, p + done, bytesToWrite - done, f->position)
                                       : ::write(f->fd, p + done, bytesToWrite - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (bytesWritten != nullptr) *bytesWritten = done;
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
    done += static_cast<DWORD>(n);
    if (f->position >= 0) f->position += n;
  }
  if (bytesWritten != nullptr) *bytesWritten = done;
  return TRUE;
}

DWORD SetFilePointer(HANDLE file, LONG distanceToMove, PLONG distanceToMoveHigh, DWORD moveMethod) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return INVALID_SET_FILE_POINTER;
  if (moveMethod > FILE_END) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_SET_FILE_POINTER;
  }
  const std::int64_t distance =
      distanceToMoveHigh != nullptr
          ? static_cast<std::int64_t>(
                (static_cast<std::uint64_t>(static_cast<std::uint32_t>(*distanceToMoveHigh))
                 << 32) |
                static_cast<std::uint32_t>(distanceToMove))
          : static_cast<std::int64_t>(distanceToMove);
  std::int64_t base = 0;
  if (moveMethod == FILE_CURRENT) {
    base = f->position >= 0 ? f->position : ::lseek(f->fd, 0, SEEK_CUR);
  } else if (moveMethod == FILE_END) {
    struct stat st {};
    base = ::fstat(f->fd, &st) == 0 ? st.st_size : -1;
  }
  if (base < 0) {
    SetLastErrorFromErrno(errno);
    return INVALID_SET_FILE_POINTER;
  }
  const std::int64_t target = base + distance;
  if (target < 0) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return INVALID_SET_FILE_POINTER;
  }
  if (distanceToMoveHigh == nullptr && target > 0xFFFFFFFFLL) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_SET_FILE_POINTER;
  }
  // A file whose position is kept here is read and written at that
  // position, so moving costs no system call.
  if (f->position >= 0) {
    f->position = target;
  } else if (::lseek(f->fd, static_cast<off_t>(target), SEEK_SET) < 0) {
    SetLastErrorFromErrno(errno);
    return INVALID_SET_FILE_POINTER;
  }
  if (distanceToMoveHigh != nullptr) *distanceToMoveHigh = static_cast<LONG>(target >> 32);
  const auto low = static_cast<DWORD>(target);
  // A low half of 0xFFFFFFFF is then told apart from failure by the last error.
  if (low == INVALID_SET_FILE_POINTER) SetLastError(ERROR_SUCCESS);
  return low;
}

DWORD GetFileSize(HANDLE file, LPDWORD fileSizeHigh) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return INVALID_FILE_SIZE;
  struct stat st {};
  if (::fstat(f->fd, &st) != 0) {
    SetLastErrorFromErrno(errno);
    return INVALID_FILE_SIZE;
  }
  const auto size = f->isDirectory ? 0 : static_cast<std::uint64_t>(st.st_size);
  if (fileSizeHigh != nullptr) *fileSizeHigh = static_cast<DWORD>(size >> 32);
  const auto low = static_cast<DWORD>(size);
  if (low == INVALID_FILE_SIZE) SetLastError(ERROR_SUCCESS);
  return low;
}

BOOL SetEndOfFile(HANDLE file) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (!f->canWrite) return Fail(ERROR_ACCESS_DENIED);
  DeviceGuard guard(f->medium.get());
  struct stat st {};
  const off_t position = f->position >= 0 ? f->position : ::lseek(f->fd, 0, SEEK_CUR);
  if (position < 0 || ::fstat(f->fd, &st) != 0) {
    SetLastErrorFromErrno(errno);
    return FALSE;
  }
  if (const DWORD code = CheckSizeChange(*f, static_cast<std::uint64_t>(st.st_size),
                                         static_cast<std::uint64_t>(position)))
    return Fail(code);
  if (::ftruncate(f->fd, position) != 0) {
    SetLastErrorFromErrno(errno);
    return FALSE;
  }
  return TRUE;
}

BOOL FlushFileBuffers(HANDLE file) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (!f->canWrite && !f->isDirectory) return Fail(ERROR_ACCESS_DENIED);
  if (::fsync(f->fd) != 0) {
    SetLastErrorFromErrno(errno);
    return FALSE;
  }
  return TRUE;
}

BOOL GetFileInformationByHandle(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (information == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  ItemInfo info;
  struct stat st {};
  if (!QueryItem(f->host, std::string_view(), info)) return FALSE;
  if (::fstat(f->fd, &st) != 0) return Fail(ERROR_INVALID_HANDLE);
  *information = BY_HANDLE_FILE_INFORMATION{};
  information->dwFileAttributes = info.attributes;
  information->ftCreationTime = info.creation;
  information->ftLastAccessTime = info.lastAccess;
  information->ftLastWriteTime = info.lastWrite;
  // The device stands for the volume and the inode for the file index.
  const auto device = static_cast<std::uint64_t>(st.st_dev);
  information->dwVolumeSerialNumber = static_cast<DWORD>(device ^ (device >> 32));
  information->nFileSizeHigh = static_cast<DWORD>(info.size >> 32);
  information->nFileSizeLow = static_cast<DWORD>(info.size);
  information->nNumberOfLinks = static_cast<DWORD>(st.st_nlink);
  const auto inode = static_cast<std::uint64_t>(st.st_ino);
  information->nFileIndexHigh = static_cast<DWORD>(inode >> 32);
  information->nFileIndexLow = static_cast<DWORD>(inode);
  return TRUE;
}

BOOL GetFileTime(HANDLE file, LPFILETIME creationTime, LPFILETIME lastAccessTime,
                 LPFILETIME lastWriteTime) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  // The opened item's own times, without a look up of its name.
  if (QueryHandleTimes(*f, creationTime, lastAccessTime, lastWriteTime)) return TRUE;
  ItemInfo info;
  if (!QueryItem(f->host, std::string_view(), info)) return FALSE;
  if (creationTime != nullptr) *creationTime = info.creation;
  if (lastAccessTime != nullptr) *lastAccessTime = info.lastAccess;
  if (lastWriteTime != nullptr) *lastWriteTime = info.lastWrite;
  return TRUE;
}

BOOL SetFileTime(HANDLE file, const FILETIME* creationTime, const FILETIME* lastAccessTime,
                 const FILETIME* lastWriteTime) {
  FileObject* f = FileFromHandle(file);
  if (f == nullptr) return FALSE;
  if (!f->canWriteAttributes) return Fail(ERROR_ACCESS_DENIED);
  // A null pointer, a zero time and 0xFFFFFFFF:0xFFFFFFFF leave a time as it is.
  auto given = [](const FILETIME* t) {
    return t != nullptr && FileTimeToU64(*t) != 0 && FileTimeToU64(*t) != ~std::uint64_t{0};
  };
  struct timespec times[2];
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_nsec = UTIME_OMIT;
  if (given(lastAccessTime)) times[0] = U64ToTimespec(FileTimeToU64(*lastAccessTime));
  if (given(lastWriteTime)) times[1] = U64ToTimespec(FileTimeToU64(*lastWriteTime));
  if (given(lastAccessTime) || given(lastWriteTime)) {
    int r = ::futimens(f->fd, times);
    if (r != 0 && errno == EBADF) r = ::utimensat(AT_FDCWD, f->host.c_str(), times, 0);
    if (r != 0) {
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
  }
  if (given(creationTime)) {
    StoredInfo info = HandleStoredInfo(*f);
    info.hasCreation = true;
    info.creation = FileTimeToU64(*creationTime);
    SetHandleStoredInfo(*f, info);
  }
  return TRUE;
}

BOOL DeleteFileW(LPCWSTR fileName) {
  ResolvedPath path;
  if (!Resolve(fileName, path)) return FALSE;
  struct stat lst {};
  if (::lstat(path.host.c_str(), &lst) != 0) {
    SetPathError(errno, path.host);
    return FALSE;
  }
  if (S_ISDIR(lst.st_mode)) return Fail(ERROR_ACCESS_DENIED);
  if (const DWORD code = WriteCheck(path.medium.get())) return Fail(code);
  if (IsLockedByOther(path.medium.get(), nullptr)) return Fail(ERROR_ACCESS_DENIED);
  // Windows refuses to delete a read-only file, whoever asks.
  if (S_ISREG(lst.st_mode) && !(lst.st_mode & S_IWUSR)) return Fail(ERROR_ACCESS_DENIED);
  if (DeleteSharingConflict(lst.st_dev, lst.st_ino)) return Fail(ERROR_SHARING_VIOLATION);
  NoteStoredInfoChange(); // the inode may come back as another item
  if (::unlink(path.host.c_str()) != 0) {
    SetPathError(errno, path.host);
    return FALSE;
  }
  return TRUE;
}

namespace {

// Copies a regular file to a new place on another host file system, with
// its permissions, times and extended attribute record.
bool CopyAcross(const std::string& from, const std::string& to) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    SetLastErrorFromErrno(errno);
    return false;
  }
  struct stat st {};
  ::fstat(in, &st);
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777);
  if (out < 0) {
    const int err = errno;
    ::close(in);
    if (err == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
    SetLastErrorFromErrno(err);
    return false;
  }
  std::vector<char> buffer(1 << 16);
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    for (ssize_t done = 0; done < n && ok;) {
      const ssize_t w = ::write(out, buffer.data() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno != EINTR) ok = false;
      if (w > 0) done += w;
    }
    if (!ok) break;
  }
  const int err = errno;
  if (ok) {
    WriteStoredInfo(to, out, ReadStoredInfo(from, in));
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::futimens(out, times);
  }
  ::close(in);
  if (::close(out) != 0) ok = false;
  if (!ok) {
    ::unlink(to.c_str());
    SetLastErrorFromErrno(err);
    return false;
  }
  return true;
}

} // namespace

BOOL MoveFileW(LPCWSTR existingFileName, LPCWSTR newFileName) {
  ResolvedPath from, to;
  if (!Resolve(existingFileName, from) || !Resolve(newFileName, to)) return FALSE;
  struct stat lst {};
  if (::lstat(from.host.c_str(), &lst) != 0) {
    SetPathError(errno, from.host);
    return FALSE;
  }
  struct stat target {};
  if (::lstat(to.host.c_str(), &target) == 0) return Fail(ERROR_ALREADY_EXISTS);
  if (const DWORD code = WriteCheck(from.medium.get())) return Fail(code);
  if (const DWORD code = WriteCheck(to.medium.get())) return Fail(code);
  if (IsLockedByOther(from.medium.get(), nullptr) || IsLockedByOther(to.medium.get(), nullptr))
    return Fail(ERROR_ACCESS_DENIED);
  if (DeleteSharingConflict(lst.st_dev, lst.st_ino)) return Fail(ERROR_SHARING_VIOLATION);

  // Moving onto another medium with a capacity needs room there.
  std::unique_ptr<DeviceGuard> guard;
  if (to.medium && to.medium != from.medium && to.medium->capacity != 0) {
    guard = std::make_unique<DeviceGuard>(to.medium.get());
    Medium source;
    source.hostDir = from.host;
    source.clusterSize = to.medium->clusterSize;
    const std::uint64_t needed =
        S_ISDIR(lst.st_mode)
            ? UsedClusters(source)
            : (S_ISREG(lst.st_mode)
                   ? ClustersFor(static_cast<std::uint64_t>(lst.st_size), to.medium->clusterSize)
                   : 0);
    if (const DWORD code = CheckGrowth(*to.medium, 0, needed * to.medium->clusterSize))
      return Fail(code);
  }

  NoteStoredInfoChange();
  if (::renameat2(AT_FDCWD, from.host.c_str(), AT_FDCWD, to.host.c_str(), RENAME_NOREPLACE) == 0)
    return TRUE;
  int err = errno;
  if (err == EINVAL || err == ENOSYS) {
    // The host file system cannot refuse to replace; the target was checked above.
    if (::rename(from.host.c_str(), to.host.c_str()) == 0) return TRUE;
    err = errno;
  }
  if (err == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
  if (err == EXDEV) {
    if (!S_ISREG(lst.st_mode)) return Fail(ERROR_NOT_SAME_DEVICE);
    if (!CopyAcross(from.host, to.host)) return FALSE;
    ::unlink(from.host.c_str());
    return TRUE;
  }
  if (err == ENOENT || err == ENOTDIR) {
    // The source was there a moment ago, so the target's folder is missing.
    return Fail(ERROR_PATH_NOT_FOUND);
  }
  SetLastErrorFromErrno(err);
  return FALSE;
}

BOOL CreateDirectoryW(LPCWSTR pathName, LPSECURITY_ATTRIBUTES securityAttributes) {
  ResolvedPath path;
  if (!Resolve(pathName, path)) return FALSE;
  // Where the medium takes the folder, mkdir itself tells whether the name
  // exists (a link too); otherwise an existing name is reported first.
  const bool writable = WriteCheck(path.medium.get()) == ERROR_SUCCESS &&
                        !IsLockedByOther(path.medium.get(), nullptr);
  struct stat lst {};
  if (!writable && ::lstat(path.host.c_str(), &lst) == 0) return Fail(ERROR_ALREADY_EXISTS);
  if (const DWORD code = WriteCheck(path.medium.get())) return Fail(code);
  if (IsLockedByOther(path.medium.get(), nullptr)) return Fail(ERROR_ACCESS_DENIED);
  if (::mkdir(path.host.c_str(), 0777) != 0) {
    const int err = errno;
    if (err == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
    if (err == ENOENT || err == ENOTDIR) return Fail(ERROR_PATH_NOT_FOUND);
    SetLastErrorFromErrno(err);
    return FALSE;
  }
  if (securityAttributes != nullptr && securityAttributes->lpSecurityDescriptor != nullptr) {
    const DWORD code =
        ApplySecurityOnCreate(path.host, true, securityAttributes->lpSecurityDescriptor);
    if (code != ERROR_SUCCESS) {
      ::rmdir(path.host.c_str());
      return Fail(code);
    }
  }
  return TRUE;
}

BOOL RemoveDirectoryW(LPCWSTR pathName) {
  ResolvedPath path;
  if (!Resolve(pathName, path)) return FALSE;
  struct stat lst {};
  if (::lstat(path.host.c_str(), &lst) != 0) {
    SetPathError(errno, path.host);
    return FALSE;
  }
  if (const DWORD code = WriteCheck(path.medium.get())) return Fail(code);
  if (IsLockedByOther(path.medium.get(), nullptr)) return Fail(ERROR_ACCESS_DENIED);
  if (S_ISLNK(lst.st_mode)) {
    // A link to a folder is removed as a folder; the target stays.
    struct stat st {};
    if (::stat(path.host.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY);
    if (::unlink(path.host.c_str()) != 0) {
      SetLastErrorFromErrno(errno);
      return FALSE;
    }
    return TRUE;
  }
  if (!S_ISDIR(lst.st_mode)) return Fail(ERROR_DIRECTORY);
  if (path.isRoot) return Fail(ERROR_ACCESS_DENIED);
  // Windows keeps the current directory of the process from being removed.
  char cwd[4096];
  if (::getcwd(cwd, sizeof cwd) != nullptr && path.host == cwd)
    return Fail(ERROR_SHARING_VIOLATION);
  const StoredInfo stored = ReadStoredInfo(path.host);
  if (!(lst.st_mode & S_IWUSR) ||
      (stored.hasAttributes && (stored.attributes & FILE_ATTRIBUTE_READONLY)))
    return Fail(ERROR_ACCESS_DENIED);
  if (DeleteSharingConflict(lst.st_dev, lst.st_ino)) return Fail(ERROR_SHARING_VIOLATION);
  NoteStoredInfoChange();
  if (::rmdir(path.host.c_str()) != 0) {
    const int err = errno;
    if (err == ENOTEMPTY || err == EEXIST) return Fail(ERROR_DIR_NOT_EMPTY);
    SetPathError(err, path.host);
    return FALSE;
  }
  return TRUE;
}
