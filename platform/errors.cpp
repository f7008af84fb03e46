// The thread's last error and the one table that turns errno values into
// Win32 codes.
#include "platform/layer.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>

namespace {

thread_local DWORD t_lastError = 0;

} // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD code) { t_lastError = code; }

namespace talvern::platform {

DWORD SetLastErrorFromErrno(int err) {
  DWORD code;
  switch (err) {
  case 0:
    code = ERROR_SUCCESS;
    break;
  case ENOENT:
    code = ERROR_FILE_NOT_FOUND;
    break;
  case ENOTDIR:
    code = ERROR_PATH_NOT_FOUND;
    break;
  case EACCES:
  case EPERM:
  case EISDIR:
    code = ERROR_ACCESS_DENIED;
    break;
  case EBADF:
    code = ERROR_INVALID_HANDLE;
    break;
  case EROFS:
    code = ERROR_WRITE_PROTECT;
    break;
  case ENOMEDIUM:
  case ENXIO:
  case ENODEV:
    code = ERROR_NOT_READY;
    break;
  case EMEDIUMTYPE:
    code = ERROR_UNRECOGNIZED_VOLUME;
    break;
  case ETXTBSY:
    code = ERROR_SHARING_VIOLATION;
    break;
  case EAGAIN:
    code = ERROR_LOCK_VIOLATION;
    break;
  case EEXIST:
    code = ERROR_ALREADY_EXISTS;
    break;
  case EINVAL:
    code = ERROR_INVALID_PARAMETER;
    break;
  case ENOSPC:
  case EDQUOT:
    code = ERROR_DISK_FULL;
    break;
  case ENOTEMPTY:
    code = ERROR_DIR_NOT_EMPTY;
    break;
  case ENAMETOOLONG:
    code = ERROR_FILENAME_EXCED_RANGE;
    break;
  case ENOMEM:
    code = ERROR_NOT_ENOUGH_MEMORY;
    break;
  case EMFILE:
  case ENFILE:
    code = ERROR_TOO_MANY_OPEN_FILES;
    break;
  case EBUSY:
    code = ERROR_BUSY;
    break;
  case EXDEV:
    code = ERROR_NOT_SAME_DEVICE;
    break;
  case ELOOP:
    code = ERROR_CANT_RESOLVE_FILENAME;
    break;
  case EIO:
    code = ERROR_IO_DEVICE;
    break;
  case EFBIG:
  case EOVERFLOW:
    code = ERROR_FILE_TOO_LARGE;
    break;
  case ESPIPE:
    code = ERROR_SEEK_ON_DEVICE;
    break;
  case EPIPE:
    code = ERROR_BROKEN_PIPE;
    break;
  case EMLINK:
    code = ERROR_TOO_MANY_LINKS;
    break;
  case EFAULT:
    code = ERROR_NOACCESS;
    break;
  case ENOSYS:
    code = ERROR_CALL_NOT_IMPLEMENTED;
    break;
  case EOPNOTSUPP:
    code = ERROR_NOT_SUPPORTED;
    break;
  case EINTR:
    code = ERROR_OPERATION_ABORTED;
    break;
  default:
    code = ERROR_GEN_FAILURE;
    break;
  }
  SetLastError(code);
  return code;
}

DWORD SetMissingError(const std::string& hostPath) {
  // The holding folder: everything before the last '/'.
  const auto slash = hostPath.find_last_of('/');
  std::string parent = slash == std::string::npos ? std::string(".")
                       : slash == 0               ? std::string("/")
                                                  : hostPath.substr(0, slash);
  struct stat st {};
  const DWORD code = (::stat(parent.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                         ? ERROR_FILE_NOT_FOUND
                         : ERROR_PATH_NOT_FOUND;
  SetLastError(code);
  return code;
}

void SetPathError(int err, const std::string& hostPath) {
  if (err == ENOENT)
    SetMissingError(hostPath);
  else if (err == ENOTDIR)
    SetLastError(ERROR_PATH_NOT_FOUND);
  else
    SetLastErrorFromErrno(err);
}

} // namespace talvern::platform
