// Path utilities over Windows path strings (UTF-16, "\\" separators, drive
// letters and UNC shares). Internal to the library.
#pragma once

#include <talvern/win32.h>

// Index of the character after the one at i (never inside a surrogate
// pair); the string's length at the end.
int NextCharIndex(const CString& s, int i);

// Index of the last ":" or "\\" before limit (flag non-zero), or the index
// just after it (flag 0); -1 if none. A negative limit means no limit.
int FindLastSeparator(const CString& s, int flag, int limit);

// Cuts the string at the last "." of its final component.
void RemoveExtension(CString& s);

// Absolute form of the path ("." for null or empty) and, through index,
// the offset of its final component (-1 when there is none). Empty on
// failure.
CString BuildFullPath(const WCHAR* path, int* index = nullptr);

// Drive root ("C:\\") or share root ("\\\\srv\\share\\") of the path's
// absolute form, or empty.
CString BuildRootPath(const WCHAR* path);

// Creates the missing directories of path below root; with createLast 0
// only the parents of the final component. 1 on success, 0 with the last
// error set on failure.
int CreateDirectoryTree(const WCHAR* root, const WCHAR* path, int createLast);
