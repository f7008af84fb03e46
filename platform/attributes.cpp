// File attributes and times: what the host holds (permission bits, file
// type, mtime and atime) and what the layer keeps in an extended attribute
// (the other attribute bits and the creation time).
#include "platform/layer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

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

FILETIME CreationFromHost(const std::string& hostPath, const struct stat& st, bool follow) {
  struct statx stx {};
  if (::statx(AT_FDCWD, hostPath.c_str(), follow ? 0 : AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx) ==
          0 &&
      (stx.stx_mask & STATX_BTIME)) {
    struct timespec ts {};
    ts.tv_sec = static_cast<time_t>(stx.stx_btime.tv_sec);
    ts.tv_nsec = static_cast<long>(stx.stx_btime.tv_nsec);
    return U64ToFileTime(TimespecToU64(ts));
  }
  return U64ToFileTime(TimespecToU64(st.st_mtim));
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
  if (n != static_cast<ssize_t>(kInfoSize) || bytes[0] != kInfoVersion) return info;
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

bool QueryItem(const std::string& hostPath, std::string_view name, ItemInfo& info) {
  if (name.empty()) name = HostLastName(hostPath);
  struct stat lst {};
  if (::lstat(hostPath.c_str(), &lst) != 0) {
    SetPathError(errno, hostPath);
    return false;
  }
  info = ItemInfo();
  struct stat st = lst;
  if (S_ISLNK(lst.st_mode)) {
    info.isSymlink = true;
    if (::stat(hostPath.c_str(), &st) != 0) {
      // A dangling link: only the link itself.
      info.attributes = FILE_ATTRIBUTE_REPARSE_POINT;
      info.lastWrite = U64ToFileTime(TimespecToU64(lst.st_mtim));
      info.lastAccess = U64ToFileTime(TimespecToU64(lst.st_atim));
      info.creation = CreationFromHost(hostPath, lst, false);
      return true;
    }
  }
  const bool dot = IsDotName(name);
  StoredInfo stored;
  if (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode)) stored = ReadStoredInfo(hostPath);
  DWORD attributes;
  if (S_ISDIR(st.st_mode)) {
    attributes = FILE_ATTRIBUTE_DIRECTORY;
    if (stored.hasAttributes)
      attributes |= stored.attributes & (kKeptBits | FILE_ATTRIBUTE_READONLY);
    else if (dot)
      attributes |= FILE_ATTRIBUTE_HIDDEN;
    if (!(st.st_mode & S_IWUSR)) attributes |= FILE_ATTRIBUTE_READONLY;
  } else if (S_ISREG(st.st_mode)) {
    attributes = stored.hasAttributes
                     ? (stored.attributes & kKeptBits)
                     : (FILE_ATTRIBUTE_ARCHIVE | (dot ? FILE_ATTRIBUTE_HIDDEN : 0));
    if (!(st.st_mode & S_IWUSR)) attributes |= FILE_ATTRIBUTE_READONLY;
    if (attributes == 0 && !info.isSymlink) attributes = FILE_ATTRIBUTE_NORMAL;
    info.size = static_cast<std::uint64_t>(st.st_size);
  } else {
    attributes = FILE_ATTRIBUTE_DEVICE | (dot ? FILE_ATTRIBUTE_HIDDEN : 0);
  }
  if (info.isSymlink) attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  info.attributes = attributes;
  info.lastWrite = U64ToFileTime(TimespecToU64(st.st_mtim));
  info.lastAccess = U64ToFileTime(TimespecToU64(st.st_atim));
  info.creation =
      stored.hasCreation ? U64ToFileTime(stored.creation) : CreationFromHost(hostPath, st, true);
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
    StoredInfo info = ReadStoredInfo(path.host);
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
    WriteStoredInfo(path.host, -1, info);
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
