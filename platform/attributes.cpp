// File attributes and times: what the host holds (permission bits, file
// type, mtime and atime) and what the layer keeps in an extended attribute
// (the other attribute bits and the creation time).
#include "platform/layer.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <mutex>

namespace talvern::platform {
namespace {

// The record: version 1, a byte of present fields (1 attributes, 2 creation
// time), the attributes (32 bits) and the creation time (64 bits), all
// little-endian: 14 bytes.
constexpr const char* kInfoName = "user.talvern.info";
constexpr std::size_t kInfoSize = 14;
constexpr unsigned char kInfoVersion = 1;

// Attribute bits kept in the record. Read-only of a regular file is the
// owner-write permission bit instead; read-only of a folder is kept here,
// since a folder without write permission could not receive its contents.
constexpr DWORD kKeptBits = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                            FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_OFFLINE |
                            FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

// What QueryItem needs of an item, from one statx call.
struct ItemStat {
  mode_t mode = 0;
  std::uint64_t size = 0;
  struct timespec lastWrite {};
  struct timespec lastAccess {};
  bool hasBirth = false;
  struct timespec birth {};
};

struct timespec FromStatx(const struct statx_timestamp& t) {
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(t.tv_sec);
  ts.tv_nsec = static_cast<long>(t.tv_nsec);
  return ts;
}

// statx of the item (follow: of what a link points to), or errno.
int StatItem(const std::string& hostPath, bool follow, ItemStat& out) {
  struct statx stx {};
  if (::statx(AT_FDCWD, hostPath.c_str(), follow ? 0 : AT_SYMLINK_NOFOLLOW,
              STATX_BASIC_STATS | STATX_BTIME, &stx) != 0)
    return errno;
  out.mode = stx.stx_mode;
  out.size = stx.stx_size;
  out.lastWrite = FromStatx(stx.stx_mtime);
  out.lastAccess = FromStatx(stx.stx_atime);
  out.hasBirth = (stx.stx_mask & STATX_BTIME) != 0;
  out.birth = FromStatx(stx.stx_btime);
  return 0;
}

// The host's birth time where it keeps one, else the last-write time.
FILETIME CreationFromHost(const ItemStat& st) {
  return U64ToFileTime(TimespecToU64(st.hasBirth ? st.birth : st.lastWrite));
}

std::atomic<std::uint64_t> storedGeneration{0};

// The record of the item whose handle was closed last.
struct ClosedRecord {
  bool valid = false;
  dev_t device = 0;
  ino_t inode = 0;
  std::uint64_t generation = 0;
  StoredInfo info;
};
std::mutex& ClosedMutex() {
  static std::mutex* mutex = new std::mutex; // lives until the process ends
  return *mutex;
}
ClosedRecord& Closed() {
  static auto* record = new ClosedRecord; // lives until the process ends
  return *record;
}

} // namespace

std::string_view HostLastName(std::string_view hostPath) {
  const auto slash = hostPath.find_last_of('/');
  return slash == std::string_view::npos ? hostPath : hostPath.substr(slash + 1);
}

bool IsDotName(std::string_view name) {
  return !name.empty() && name[0] == '.' && name != "." && name != "..";
}

StoredInfo ReadStoredInfo(const std::string& hostPath, int fd) {
  StoredInfo info;
  unsigned char bytes[kInfoSize + 1];
  ssize_t n = -1;
  if (fd >= 0) n = ::fgetxattr(fd, kInfoName, bytes, sizeof bytes);
  if (fd < 0 || (n < 0 && errno == EBADF))
    n = ::getxattr(hostPath.c_str(), kInfoName, bytes, sizeof bytes);
  if (n < 0 && (errno == ENODATA || errno == ENOTSUP)) return info;
  if (n != static_cast<ssize_t>(kInfoSize) || bytes[0] != kInfoVersion) {
    info.found = StoredInfo::Found::Other;
    return info;
  }
  info.found = StoredInfo::Found::Record;
  DWORD attributes = 0;
  std::uint64_t creation = 0;
  for (int i = 3; i >= 0; --i) attributes = (attributes << 8) | bytes[2 + i];
  for (int i = 7; i >= 0; --i) creation = (creation << 8) | bytes[6 + i];
  info.hasAttributes = (bytes[1] & 1) != 0;
  info.attributes = info.hasAttributes ? attributes : 0;
  info.hasCreation = (bytes[1] & 2) != 0;
  info.creation = info.hasCreation ? creation : 0;
  return info;
}

void WriteStoredInfo(const std::string& hostPath, int fd, const StoredInfo& info) {
  NoteStoredInfoChange();
  if (!info.hasAttributes && !info.hasCreation) {
    if (fd < 0 || (::fremovexattr(fd, kInfoName) != 0 && errno == EBADF))
      ::removexattr(hostPath.c_str(), kInfoName);
    return;
  }
  unsigned char bytes[kInfoSize] = {};
  bytes[0] = kInfoVersion;
  bytes[1] = static_cast<unsigned char>((info.hasAttributes ? 1 : 0) | (info.hasCreation ? 2 : 0));
  for (int i = 0; i < 4; ++i) bytes[2 + i] = static_cast<unsigned char>(info.attributes >> (8 * i));
  for (int i = 0; i < 8; ++i) bytes[6 + i] = static_cast<unsigned char>(info.creation >> (8 * i));
  // Refusal (a file system without user extended attributes, a special
  // file) is not an error: the layer then keeps only what the host holds.
  if (fd < 0 || (::fsetxattr(fd, kInfoName, bytes, sizeof bytes, 0) != 0 && errno == EBADF))
    ::setxattr(hostPath.c_str(), kInfoName, bytes, sizeof bytes, 0);
}

bool SameStoredInfo(const StoredInfo& current, const StoredInfo& wanted) {
  if (!wanted.hasAttributes && !wanted.hasCreation)
    return current.found == StoredInfo::Found::Nothing;
  return current.found == StoredInfo::Found::Record &&
         current.hasAttributes == wanted.hasAttributes && current.attributes == wanted.attributes &&
         current.hasCreation == wanted.hasCreation && current.creation == wanted.creation;
}

std::uint64_t StoredInfoGeneration() { return storedGeneration.load(); }
void NoteStoredInfoChange() { storedGeneration.fetch_add(1); }

StoredInfo HandleStoredInfo(FileObject& file) {
  if (file.storedKnown && file.storedGeneration == StoredInfoGeneration()) return file.stored;
  file.storedGeneration = StoredInfoGeneration();
  file.stored = ReadStoredInfo(file.host, file.fd);
  file.storedKnown = true;
  return file.stored;
}

void SetHandleStoredInfo(FileObject& file, const StoredInfo& info) {
  if (SameStoredInfo(HandleStoredInfo(file), info)) return;
  WriteStoredInfo(file.host, file.fd, info);
  file.stored = info;
  file.stored.found = info.hasAttributes || info.hasCreation ? StoredInfo::Found::Record
                                                             : StoredInfo::Found::Nothing;
  file.storedGeneration = StoredInfoGeneration();
  file.storedKnown = true;
}

void RememberClosedStoredInfo(const FileObject& file) {
  if (!file.storedKnown) return;
  std::lock_guard<std::mutex> lock(ClosedMutex());
  ClosedRecord& closed = Closed();
  closed.valid = true;
  closed.device = file.device;
  closed.inode = file.inode;
  closed.generation = file.storedGeneration;
  closed.info = file.stored;
}

bool RecallClosedStoredInfo(dev_t device, ino_t inode, StoredInfo& info) {
  std::lock_guard<std::mutex> lock(ClosedMutex());
  const ClosedRecord& closed = Closed();
  if (!closed.valid || closed.device != device || closed.inode != inode ||
      closed.generation != StoredInfoGeneration())
    return false;
  info = closed.info;
  return true;
}

bool QueryHandleTimes(FileObject& file, FILETIME* creation, FILETIME* lastAccess,
                      FILETIME* lastWrite) {
  struct statx stx {};
  if (file.fd < 0 ||
      ::statx(file.fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0)
    return false;
  if (lastWrite != nullptr) *lastWrite = U64ToFileTime(TimespecToU64(FromStatx(stx.stx_mtime)));
  if (lastAccess != nullptr) *lastAccess = U64ToFileTime(TimespecToU64(FromStatx(stx.stx_atime)));
  if (creation != nullptr) {
    const StoredInfo stored = HandleStoredInfo(file);
    ItemStat st;
    st.lastWrite = FromStatx(stx.stx_mtime);
    st.hasBirth = (stx.stx_mask & STATX_BTIME) != 0;
    st.birth = FromStatx(stx.stx_btime);
    *creation = stored.hasCreation ? U64ToFileTime(stored.creation) : CreationFromHost(st);
  }
  return true;
}

bool QueryItem(const std::string& hostPath, std::string_view name, ItemInfo& info) {
  if (name.empty()) name = HostLastName(hostPath);
  ItemStat lst;
  if (const int err = StatItem(hostPath, false, lst)) {
    SetPathError(err, hostPath);
    return false;
  }
  info = ItemInfo();
  ItemStat st = lst;
  if (S_ISLNK(lst.mode)) {
    info.isSymlink = true;
    if (StatItem(hostPath, true, st) != 0) {
      // A dangling link: only the link itself.
      info.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
      info.lastWrite = U64ToFileTime(TimespecToU64(lst.lastWrite));
      info.lastAccess = U64ToFileTime(TimespecToU64(lst.lastAccess));
      info.creation = CreationFromHost(lst);
      return true;
    }
  }
  const bool dot = IsDotName(name);
  StoredInfo stored;
  if (S_ISDIR(st.mode) || S_ISREG(st.mode)) stored = ReadStoredInfo(hostPath);
  DWORD attributes;
  if (S_ISDIR(st.mode)) {
    attributes = FILE_ATTRIBUTE_DIRECTORY;
    if (stored.hasAttributes)
      attributes |= stored.attributes & (kKeptBits | FILE_ATTRIBUTE_READONLY);
    else if (dot)
      attributes |= FILE_ATTRIBUTE_HIDDEN;
    if (!(st.mode & S_IWUSR)) attributes |= FILE_ATTRIBUTE_READONLY;
  } else if (S_ISREG(st.mode)) {
    attributes = stored.hasAttributes
                     ? (stored.attributes & kKeptBits)
                     : (FILE_ATTRIBUTE_ARCHIVE | (dot ? FILE_ATTRIBUTE_HIDDEN : 0));
    if (!(st.mode & S_IWUSR)) attributes |= FILE_ATTRIBUTE_READONLY;
    if (attributes == 0 && !info.isSymlink) attributes = FILE_ATTRIBUTE_NORMAL;
    info.size = st.size;
  } else {
    attributes = FILE_ATTRIBUTE_DEVICE | (dot ? FILE_ATTRIBUTE_HIDDEN : 0);
  }
  if (info.isSymlink) attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  info.attributes = attributes;
  info.lastWrite = U64ToFileTime(TimespecToU64(st.lastWrite));
  info.lastAccess = U64ToFileTime(TimespecToU64(st.lastAccess));
  info.creation = stored.hasCreation ? U64ToFileTime(stored.creation) : CreationFromHost(st);
  return true;
}

} // namespace talvern::platform

using namespace talvern::platform;

DWORD GetFileAttributesW(LPCWSTR fileName) {
  ResolvedPath path;
  if (!Resolve(fileName, path)) return INVALID_FILE_ATTRIBUTES;
  ItemInfo info;
  if (!QueryItem(path.host, std::string_view(), info)) return INVALID_FILE_ATTRIBUTES;
  return info.attributes;
}

BOOL SetFileAttributesW(LPCWSTR fileName, DWORD fileAttributes) {
  ResolvedPath path;
  if (!Resolve(fileName, path)) return FALSE;
  struct stat st {};
  if (::stat(path.host.c_str(), &st) != 0) {
    SetPathError(errno, path.host);
    return FALSE;
  }
  if (const DWORD code = WriteCheck(path.medium.get())) return Fail(code);
  const bool readOnly = (fileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
  const bool dot = IsDotName(HostLastName(path.host));
  mode_t mode = st.st_mode & 07777;

  if (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode)) {
    StoredInfo info;
    if (!RecallClosedStoredInfo(st.st_dev, st.st_ino, info)) info = ReadStoredInfo(path.host);
    const StoredInfo current = info;
    DWORD bits = fileAttributes & kKeptBits;
    DWORD derived = dot ? FILE_ATTRIBUTE_HIDDEN : 0;
    if (S_ISDIR(st.st_mode)) {
      if (readOnly) bits |= FILE_ATTRIBUTE_READONLY;
    } else {
      derived |= FILE_ATTRIBUTE_ARCHIVE;
    }
    info.hasAttributes = bits != derived;
    info.attributes = info.hasAttributes ? bits : 0;
    // Before the permission bits change: a file without write permission may
    // refuse a new extended attribute.
    if (!SameStoredInfo(current, info)) WriteStoredInfo(path.host, -1, info);
  }
  if (S_ISDIR(st.st_mode)) {
    if (!readOnly) mode |= S_IWUSR;
  } else if (readOnly) {
    mode &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  } else {
    mode |= S_IWUSR;
  }
  if (mode != (st.st_mode & 07777) && ::chmod(path.host.c_str(), mode) != 0) {
    SetLastErrorFromErrno(errno);
    return FALSE;
  }
  return TRUE;
}
