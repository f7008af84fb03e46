// Volume names and cluster sizes. Internal to the library.
#pragma once

#include <talvern/win32.h>

// Appends "." and the volume number as three upper-case hexadecimal digits;
// with advanceDiskFolder, a holding folder named DISKn or DISCn becomes
// DISK(n+1). 0 (name unchanged) for numbers above 4095.
int BuildVolumeName(CString& name, DWORD number, int advanceDiskFolder);

// Bytes per cluster of the medium at root, 0 on failure.
DWORD GetClusterSize(const WCHAR* root);
// The same for the open volume's root, asked of the system once per open
// volume.
struct CArchiveFileData;
DWORD VolumeClusterSize(CArchiveFileData& data, const WCHAR* root);
