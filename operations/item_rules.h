// Rules that adding and extracting share: the options and attribute changes
// of the attribute flags, the times given to an item, and how item paths
// are formed. Internal to the library.
#pragma once

#include <talvern/archive.h>

struct CArchiveFileData;

// The three options of the attribute flags; each is on unless exactly one
// bit of its pair (bit n, bit n + 16) is set.
struct ItemOptions {
  bool KeepTimes;
  bool KeepFolder;
  bool Security;
};
ItemOptions ReadItemOptions(DWORD attr);

// Read-only, hidden, system and archive, each first cleared by its low bit
// of the attribute flags, then inverted by its partner bit.
DWORD ApplyAttributeFlags(DWORD attributes, DWORD attr);

// The three times of an item: its own when keepTimes is set, else zero; a
// zero creation time becomes the default creation time or else the current
// time, a zero last-write time the default last-write time or else the
// creation time, a zero last-access time the default last-access time or
// else the last-write time.
struct ItemTimes {
  FILETIME Creation;
  FILETIME LastAccess;
  FILETIME LastWrite;
};
ItemTimes ResolveItemTimes(const WIN32_FIND_DATAW& data, bool keepTimes,
                           const CArchiveFileData& state);

// base, "\\" when base and folder both have text, folder, "\\" when the text
// so far is not empty, then name.
CString JoinItemPath(const WCHAR* base, const CString& folder, const WCHAR* name);

// The full form of a source, base or target path ("." when none is given)
// without one trailing backslash; empty on failure.
CString PrepareOperationPath(const WCHAR* path);

// The current time as a file time.
FILETIME CurrentFileTime();
