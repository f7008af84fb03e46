// Helpers of the extracting operations: the paths they work with, the rule
// that keeps every output inside the target directory and the identity of
// media. Internal to the library.
#pragma once

#include <talvern/archive.h>

#include <cstdint>

// The target directory as a full path without a trailing backslash (null or
// empty stands for the current directory) and the root path of the archive
// file's medium. False when either cannot be formed.
bool PrepareExtractionPaths(const WCHAR* targetDir, const CString& archiveName, CString& target,
                            CString& root);

// Whether a stored folder path (components separated by "\\") and a stored
// name stay below the directory they are extracted into. A component is
// refused when it is empty, ends in a dot or a space (Windows strips them,
// so "..", ". ." climb or stay put and "x." would land on "x"), names a
// device ("CON", "nul.txt", "COM1", "LPT1.dat", ...), or holds a character
// no Windows name can hold: a separator ("\\" or "/"), the drive or stream
// colon, a wildcard or a control character. The same names are refused on
// every system, so that an archive unpacks alike everywhere. An empty
// folder is the top level and passes.
bool IsContainedFolder(const CString& folder);
bool IsContainedName(const WCHAR* name);
