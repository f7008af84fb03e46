// Creating the file or directory an entry is extracted into.
//
// When nothing of that name exists the item is simply created, empty, with
// the entry's security descriptor when one is lent in Security.Data. When
// something exists the host decides through OverwriteNotify: replace it,
// skip the entry, move the old item aside (".ORG"), write the new one beside
// it (".NEW"), or cancel. Because the user may swap media while that
// question is open, both the archive's medium and the destination's are
// checked again before the answer is carried out.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "operations/extracting_support.h"
#include "volumes/media_query.h"

using volume_io::LastErrorOr;

namespace {

// Results of DoCreate.
constexpr int kFailed = -1;
constexpr int kCancelled = 0;
constexpr int kCreated = 1;
constexpr int kCreatedAsReplacement = 2;
constexpr int kSkipped = 3;

// Creates the item, empty; a file with the given disposition, closed again
// at once or, with `keep`, kept open there for the entry's data. False with
// the last error of the failing call.
bool CreateItem(const WCHAR* path, bool isDirectory, SECURITY_ATTRIBUTES* security,
                DWORD disposition, CArchiveFileData* keep) {
  if (isDirectory) return CreateDirectoryW(path, security) != 0;
  const HANDLE file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, security, disposition,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  if (keep == nullptr) {
    CloseHandle(file);
    return true;
  }
  keep->CreatedFile.Reset(file);
  keep->CreatedPath = path;
  return true;
}

} // namespace

int CArchiveFile::DoCreate(const WCHAR* targetDir, const WCHAR* root, const WCHAR* folder,
                           const CArchiveEntry& entry, const WCHAR* outputPath,
                           CString& replacementName) {
  const bool isDirectory = (entry.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(SECURITY_ATTRIBUTES);
  attributes.bInheritHandle = FALSE;
  SECURITY_ATTRIBUTES* security = nullptr;
  if (entry.Security != nullptr && entry.Security->Data != nullptr) {
    attributes.lpSecurityDescriptor = entry.Security->Data;
    security = &attributes;
  }

  // With direct transfer the new file stays open for the data that follows.
  CArchiveFileData* const keep = m_Data->DirectTransfer ? m_Data : nullptr;
  m_Data->CreatedFile.Close();

  if (CreateItem(outputPath, isDirectory, security, CREATE_NEW, keep)) return kCreated;
  const DWORD firstError = LastErrorOr();

  // The archive's header is committed before the host is asked anything.
  if (!Flush()) {
    SetErrorCode(LastErrorOr());
    return kFailed;
  }

  WIN32_FIND_DATAW existing{};
  const HANDLE search = FindFirstFileW(outputPath, &existing);
  if (search == INVALID_HANDLE_VALUE) {
    // The creation failed for another reason than an existing item.
    SetErrorCode(firstError);
    return kFailed;
  }
  ::FindClose(search);

  if (((existing.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) != isDirectory) {
    SetAbort();
    return kCancelled;
  }

  const WCHAR* archiveMedium = root;
  const WCHAR* targetMedium = targetDir;
  const MediaIdentity archiveBefore = ReadMediaIdentity(*this, archiveMedium);
  const MediaIdentity targetBefore = ReadMediaIdentity(*this, targetMedium);

  DWORD answer =
      static_cast<DWORD>(OverwriteNotify(targetDir, folder, existing, root, entry)) & 0xFFFFu;

  // The media must still be the ones that were in the drives when the
  // question was put; the host is asked for them until they are, or gives
  // up.
  for (;;) {
    if (!IsSameIdentity(*this, archiveBefore, ReadMediaIdentity(*this, archiveMedium))) {
      if (InvalidDiskNotify(root, 0, 1, 0)) continue;
      answer = OverwriteCancel;
      break;
    }
    if (!IsSameIdentity(*this, targetBefore, ReadMediaIdentity(*this, targetMedium))) {
      if (InvalidDiskNotify(targetDir, 0, 1, 0)) continue;
      answer = OverwriteCancel;
      break;
    }
    break;
  }

  switch (answer) {
  case OverwriteReplace:
    // Clearing the attributes lets a read-only, hidden or system file be
    // replaced; an existing directory is then used as it is.
    SetFileAttributesW(outputPath, 0);
    if (!isDirectory && !CreateItem(outputPath, false, security, CREATE_ALWAYS, keep)) {
      SetErrorCode(LastErrorOr());
      return kFailed;
    }
    return kCreated;

  case OverwriteSkip:
    return kSkipped;

  case OverwriteBackup:
    if (!MakeBackupFile(outputPath, replacementName, 1)) {
      SetErrorCode(ERROR_PATH_NOT_FOUND);
      return kFailed;
    }
    if (!MoveFileW(outputPath, replacementName.c_str()) ||
        !CreateItem(outputPath, isDirectory, security, CREATE_NEW, keep)) {
      SetErrorCode(LastErrorOr());
      return kFailed;
    }
    return kCreated;

  case OverwriteRename:
    if (!MakeBackupFile(outputPath, replacementName, 0)) {
      SetErrorCode(ERROR_PATH_NOT_FOUND);
      return kFailed;
    }
    if (!CreateItem(replacementName.c_str(), isDirectory, security, CREATE_NEW, keep)) {
      SetErrorCode(LastErrorOr());
      return kFailed;
    }
    return kCreatedAsReplacement;

  default:
    SetAbort();
    return kCancelled;
  }
}
