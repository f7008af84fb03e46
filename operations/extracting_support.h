// Helpers of the extracting operations: the paths they work with, the rule
// that keeps every output inside the target directory, the times given to
// extracted items and the identity of media. Internal to the library.
#pragma once

#include <talvern/archive.h>

#include <cstdint>

// The target directory as a full path without a trailing backslash (null or
// empty stands for the current directory) and the root path of the archive
// file's medium. False when either cannot be formed.
bool PrepareExtractionPaths(const WCHAR* targetDir, const CString& archiveName, CString& target,
                            CString& root);

// target, "\\" when target and folder are both non-empty, folder, "\\" when
// the text so far is non-empty, then name.
CString BuildOutputPath(const CString& target, const CString& folder, const WCHAR* name);

// Whether a stored folder path (components separated by "\\") and a stored
// name stay below the directory they are extracted into. A component is
// refused when it is empty, consists of dots and spaces only (".", "..",
// ". ." — Windows strips trailing dots and spaces, so these all climb or
// stay put), or holds a character no Windows name can hold: a separator
// ("\\" or "/"), the drive colon, a wildcard or a control character. An
// empty folder is the top level and passes.
bool IsContainedFolder(const CString& folder);
bool IsContainedName(const WCHAR* name);

// The three times given to an extracted item: the entry's own when keepTimes
// is set, else zero; a zero creation time becomes the default creation time
// or the current time; a zero last-write time the default last-write time
// or the creation time; a zero last-access time the default last-access
// time or the last-write time.
struct ItemTimes {
  FILETIME Creation;
  FILETIME LastAccess;
  FILETIME LastWrite;
};
ItemTimes ResolveItemTimes(const WIN32_FIND_DATAW& data, bool keepTimes,
                           const FILETIME& defaultCreate, const FILETIME& defaultLastWrite,
                           const FILETIME& defaultLastAccess);

// Serial number, file-system flags and label of the medium that holds path
// (the archive's file name when path is null), read as GetMediaInfo reads
// them.
struct MediaIdentity {
  DWORD Serial = 0;
  DWORD Flags = 0;
  CString Label;
};
MediaIdentity ReadMediaIdentity(const CArchiveFile& archive, const WCHAR* path);
bool IsSameIdentity(const CArchiveFile& archive, const MediaIdentity& a, const MediaIdentity& b);
