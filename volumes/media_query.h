// Volume information queries that never raise the system's critical-error
// box. Internal to the library.
#pragma once

#include <talvern/win32.h>

// GetVolumeInformationW for root with SEM_FAILCRITICALERRORS added to the
// process error mode for the duration of the call, so that an empty drive
// or an unformatted medium fails the call instead of asking the user.
// label may be null (labelSize then 0); serial and flags may be null.
BOOL QueryVolumeInformationQuietly(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serial,
                                   DWORD* flags);
