// Volume information queries that never raise the system's critical-error
// box. Internal to the library.
#pragma once

#include <talvern/archive.h>

// GetVolumeInformationW for root with SEM_FAILCRITICALERRORS added to the
// process error mode for the duration of the call, so that an empty drive
// or an unformatted medium fails the call instead of asking the user.
// label may be null (labelSize then 0); serial and flags may be null.
BOOL QueryVolumeInformationQuietly(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serial,
                                   DWORD* flags);

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
