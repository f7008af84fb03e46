#include "errors.h"

#include <algorithm>
#include <iterator>

namespace tool {
namespace {

struct KnownError {
  DWORD code;
  const char* name;
  const char* sentence; // "{}" stands for the subject
};

// Generic sentences. The codes are those the library and its platform layer
// report.
constexpr KnownError kKnownErrors[] = {
    {ERROR_INVALID_FUNCTION, "ERROR_INVALID_FUNCTION", "{}: the operation is not supported"},
    {ERROR_FILE_NOT_FOUND, "ERROR_FILE_NOT_FOUND", "{} does not exist"},
    {ERROR_PATH_NOT_FOUND, "ERROR_PATH_NOT_FOUND", "a folder on the way to {} does not exist"},
    {ERROR_TOO_MANY_OPEN_FILES, "ERROR_TOO_MANY_OPEN_FILES", "{}: too many files are open"},
    {ERROR_ACCESS_DENIED, "ERROR_ACCESS_DENIED", "{}: access is denied"},
    {ERROR_INVALID_HANDLE, "ERROR_INVALID_HANDLE", "{}: the archive is not open"},
    {ERROR_NOT_ENOUGH_MEMORY, "ERROR_NOT_ENOUGH_MEMORY", "{}: not enough memory"},
    {ERROR_INVALID_DATA, "ERROR_INVALID_DATA", "{}: the data is invalid"},
    {ERROR_OUTOFMEMORY, "ERROR_OUTOFMEMORY",
     "{}: not enough memory, or the medium's cluster size is unusable"},
    {ERROR_INVALID_DRIVE, "ERROR_INVALID_DRIVE", "{}: the drive does not exist"},
    {ERROR_NOT_SAME_DEVICE, "ERROR_NOT_SAME_DEVICE", "{}: cannot move across drives"},
    {ERROR_NO_MORE_FILES, "ERROR_NO_MORE_FILES", "{}: no more files"},
    {ERROR_WRITE_PROTECT, "ERROR_WRITE_PROTECT", "{}: the medium is write-protected"},
    {ERROR_NOT_READY, "ERROR_NOT_READY", "{}: the drive holds no medium"},
    {ERROR_CRC, "ERROR_CRC", "CRC mismatch in {}"},
    {ERROR_BAD_LENGTH, "ERROR_BAD_LENGTH", "{}: bad length"},
    {ERROR_SEEK, "ERROR_SEEK", "{}: cannot move to the position"},
    {ERROR_WRITE_FAULT, "ERROR_WRITE_FAULT", "size mismatch in {}"},
    {ERROR_READ_FAULT, "ERROR_READ_FAULT", "{}: cannot read"},
    {ERROR_GEN_FAILURE, "ERROR_GEN_FAILURE", "{}: the device does not work"},
    {ERROR_SHARING_VIOLATION, "ERROR_SHARING_VIOLATION", "{} is in use by another program"},
    {ERROR_LOCK_VIOLATION, "ERROR_LOCK_VIOLATION", "{}: part of the file is locked"},
    {ERROR_WRONG_DISK, "ERROR_WRONG_DISK", "{} is not the expected volume of this archive"},
    {ERROR_HANDLE_EOF, "ERROR_HANDLE_EOF", "{}: the archive ends before its last volume"},
    {ERROR_HANDLE_DISK_FULL, "ERROR_HANDLE_DISK_FULL", "{}: the disk is full"},
    {ERROR_NOT_SUPPORTED, "ERROR_NOT_SUPPORTED", "{}: the request is not supported"},
    {ERROR_BAD_NETPATH, "ERROR_BAD_NETPATH", "{}: the network share is not known"},
    {ERROR_FILE_EXISTS, "ERROR_FILE_EXISTS", "{} already exists"},
    {ERROR_CANNOT_MAKE, "ERROR_CANNOT_MAKE", "{} cannot be created"},
    {ERROR_INVALID_PARAMETER, "ERROR_INVALID_PARAMETER", "{}: invalid argument"},
    {ERROR_BROKEN_PIPE, "ERROR_BROKEN_PIPE", "{}: the pipe was closed"},
    {ERROR_OPEN_FAILED, "ERROR_OPEN_FAILED", "{} cannot be opened"},
    {ERROR_BUFFER_OVERFLOW, "ERROR_BUFFER_OVERFLOW", "{}: the name is too long"},
    {ERROR_DISK_FULL, "ERROR_DISK_FULL", "{}: the disk is full"},
    {ERROR_CALL_NOT_IMPLEMENTED, "ERROR_CALL_NOT_IMPLEMENTED",
     "{}: this build of the library cannot do that yet"},
    {ERROR_INSUFFICIENT_BUFFER, "ERROR_INSUFFICIENT_BUFFER", "{}: a buffer is too small"},
    {ERROR_INVALID_NAME, "ERROR_INVALID_NAME", "{}: the name is not valid"},
    {ERROR_NEGATIVE_SEEK, "ERROR_NEGATIVE_SEEK", "{}: a position before the start"},
    {ERROR_SEEK_ON_DEVICE, "ERROR_SEEK_ON_DEVICE",
     "{} is damaged: a record or position lies outside the volume"},
    {ERROR_DIR_NOT_EMPTY, "ERROR_DIR_NOT_EMPTY", "{}: the folder is not empty"},
    {ERROR_PATH_BUSY, "ERROR_PATH_BUSY", "{}: the archive is busy or a path is empty"},
    {ERROR_BAD_PATHNAME, "ERROR_BAD_PATHNAME", "{}: the path is not valid"},
    {ERROR_NOT_LOCKED, "ERROR_NOT_LOCKED", "{}: the volume is not locked"},
    {ERROR_BUSY, "ERROR_BUSY", "{}: the device is busy"},
    {ERROR_ALREADY_EXISTS, "ERROR_ALREADY_EXISTS", "{} already exists"},
    {ERROR_FILENAME_EXCED_RANGE, "ERROR_FILENAME_EXCED_RANGE", "{}: the name is too long"},
    {ERROR_FILE_TOO_LARGE, "ERROR_FILE_TOO_LARGE", "{} is too large"},
    {ERROR_DIRECTORY, "ERROR_DIRECTORY", "{}: the folder name is not valid"},
    {ERROR_OPERATION_ABORTED, "ERROR_OPERATION_ABORTED", "{}: the operation was aborted"},
    {ERROR_NOACCESS, "ERROR_NOACCESS", "{}: invalid memory access"},
    {ERROR_UNRECOGNIZED_VOLUME, "ERROR_UNRECOGNIZED_VOLUME", "{}: the medium is not formatted"},
    {ERROR_FILE_INVALID, "ERROR_FILE_INVALID", "{} is no longer available"},
    {ERROR_IO_DEVICE, "ERROR_IO_DEVICE", "{}: input/output error"},
    {ERROR_CANCELLED, "ERROR_CANCELLED", "cancelled"},
    {ERROR_NOT_ALL_ASSIGNED, "ERROR_NOT_ALL_ASSIGNED",
     "{}: reading security descriptors needs the security privilege (run as root, or leave "
     "out --security)"},
    {ERROR_INVALID_OWNER, "ERROR_INVALID_OWNER", "{}: the stored owner cannot be given here"},
    {ERROR_INVALID_PRIMARY_GROUP, "ERROR_INVALID_PRIMARY_GROUP",
     "{}: the stored group cannot be given here"},
    {ERROR_PRIVILEGE_NOT_HELD, "ERROR_PRIVILEGE_NOT_HELD",
     "{}: restoring this security descriptor needs the security privilege (run as root, or "
     "leave out --security)"},
    {ERROR_INVALID_ACL, "ERROR_INVALID_ACL", "{}: the stored access list is not valid"},
    {ERROR_INVALID_SID, "ERROR_INVALID_SID", "{}: the stored security identifier is not valid"},
    {ERROR_INVALID_SECURITY_DESCR, "ERROR_INVALID_SECURITY_DESCR",
     "{}: the stored security descriptor is not valid"},
    {ERROR_INVALID_USER_BUFFER, "ERROR_INVALID_USER_BUFFER", "{}: a block size is out of range"},
    {ERROR_INVALID_DATATYPE, "ERROR_INVALID_DATATYPE",
     "{} is not an archive of this format, or is cut short"},
};

const KnownError* Find(DWORD code) {
  const auto it = std::find_if(std::begin(kKnownErrors), std::end(kKnownErrors),
                               [code](const KnownError& e) { return e.code == code; });
  return it == std::end(kKnownErrors) ? nullptr : &*it;
}

// Sentences that depend on what was being done.
const char* SentenceInActivity(DWORD code, Activity activity) {
  switch (activity) {
  case Activity::OpenArchive:
    if (code == ERROR_FILE_NOT_FOUND) return "the archive {} does not exist";
    if (code == ERROR_PATH_NOT_FOUND) return "the folder of the archive {} does not exist";
    if (code == ERROR_HANDLE_EOF) return "{}: the next volume of the archive is missing";
    if (code == ERROR_DIRECTORY) return "{} is a folder, not an archive";
    break;
  case Activity::CreateArchive:
    if (code == ERROR_INVALID_HANDLE)
      return "{} exists and is not an archive of this format; it was left alone";
    break;
  case Activity::WriteArchive:
    if (code == ERROR_ACCESS_DENIED) return "{}: the archive is not open for writing";
    if (code == ERROR_INVALID_HANDLE) return "{}: the archive is not open for writing";
    break;
  case Activity::ReadSource:
    if (code == ERROR_FILE_NOT_FOUND) return "{} does not exist (or vanished while being added)";
    if (code == ERROR_ACCESS_DENIED) return "{} cannot be read: access is denied";
    if (code == ERROR_WRITE_FAULT) return "{} changed size while it was being added";
    break;
  case Activity::ReadArchive:
    if (code == ERROR_INVALID_DATATYPE)
      return "{} is damaged: a volume is shorter than its header says, or is no archive";
    if (code == ERROR_HANDLE_EOF) return "{} is damaged: a stored entry ends early";
    if (code == ERROR_FILE_NOT_FOUND) return "the volume {} of this archive is missing";
    break;
  case Activity::ExtractEntry:
  case Activity::CheckEntry:
    if (code == ERROR_INVALID_DATATYPE) return "{} is stored with an unknown compression method";
    if (code == ERROR_HANDLE_EOF) return "{} is damaged: its stored data ends early";
    if (code == ERROR_CANCELLED) return "cancelled at {}";
    if (code == ERROR_ALREADY_EXISTS)
      return "{} is in the way: a folder stands where a file goes, or a file where a folder "
             "goes; the entry was skipped";
    break;
  case Activity::General:
    break;
  }
  return nullptr;
}

std::string Fill(const char* pattern, const std::string& subject) {
  std::string text = pattern;
  const std::size_t at = text.find("{}");
  if (at == std::string::npos) return text;
  if (!subject.empty()) return text.replace(at, 2, subject);
  // Without a subject, "{}: ..." loses its prefix and "... {}" its object.
  if (at == 0) {
    std::size_t rest = 2;
    if (text.compare(rest, 2, ": ") == 0)
      rest += 2;
    else if (text.compare(rest, 1, " ") == 0)
      rest += 1;
    return text.substr(rest);
  }
  std::size_t start = at;
  while (start > 0 && text[start - 1] == ' ') --start;
  return text.erase(start, at + 2 - start);
}

} // namespace

const char* ErrorName(DWORD code) {
  const KnownError* known = Find(code);
  return known ? known->name : "";
}

std::string ErrorSentence(DWORD code, Activity activity, const std::string& subject) {
  const char* pattern = SentenceInActivity(code, activity);
  if (pattern == nullptr) {
    const KnownError* known = Find(code);
    pattern = known ? known->sentence : "{}: the operation failed";
  }
  return Fill(pattern, subject);
}

std::string ErrorMessage(DWORD code, Activity activity, const std::string& subject) {
  std::string text = ErrorSentence(code, activity, subject);
  text += " (error " + std::to_string(code);
  const char* name = ErrorName(code);
  if (*name) text += std::string(" ") + name;
  text += ")";
  return text;
}

int ExitCodeFor(DWORD code, Activity activity) {
  if (code == ERROR_SUCCESS) return kExitOk;
  if (code == ERROR_CANCELLED) return kExitCancelled;
  const bool reading = activity == Activity::OpenArchive || activity == Activity::ReadArchive ||
                       activity == Activity::ExtractEntry || activity == Activity::CheckEntry;
  if (activity == Activity::OpenArchive &&
      (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND || code == ERROR_DIRECTORY))
    return kExitUsage;
  if (activity == Activity::ReadArchive && code == ERROR_FILE_NOT_FOUND) return kExitDamaged;
  // An entry whose name the reader refuses is the archive's fault.
  if ((activity == Activity::ExtractEntry || activity == Activity::CheckEntry) &&
      code == ERROR_BAD_PATHNAME)
    return kExitDamaged;
  if (reading) {
    switch (code) {
    case ERROR_CRC:
    case ERROR_WRITE_FAULT:
    case ERROR_INVALID_DATATYPE:
    case ERROR_SEEK_ON_DEVICE:
    case ERROR_WRONG_DISK:
    case ERROR_HANDLE_EOF:
    case ERROR_INVALID_DATA:
      return kExitDamaged;
    default:
      break;
    }
  }
  return kExitSomeFailed;
}

int WorseExit(int a, int b) {
  auto rank = [](int code) {
    switch (code) {
    case kExitCancelled:
      return 4;
    case kExitDamaged:
      return 3;
    case kExitUsage:
      return 2;
    case kExitSomeFailed:
      return 1;
    default:
      return 0;
    }
  };
  return rank(a) >= rank(b) ? a : b;
}

} // namespace tool
