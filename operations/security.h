// Security descriptors of entries: capture on add, rebuilding on extract.
// Internal to the library.
#pragma once

#include <talvern/entry.h>
#include <talvern/win32.h>

#include <memory>

// Enables "SeSecurityPrivilege" and reads the owner, group, DACL and SACL of
// the item at fullName into entry.Security (self-relative bytes, as the
// system gives them; an empty block when the system reports size 0).
// Returns ERROR_SUCCESS or the Win32 code to record; on failure the block is
// left empty.
DWORD CaptureSecurity(const WCHAR* fullName, CArchiveEntry& entry);

// Rebuilds stored self-relative bytes into one array holding an absolute
// descriptor followed by its own copies of group, owner, SACL and DACL.
// Null when the bytes are not a valid descriptor or any step fails.
std::unique_ptr<BYTE[]> BuildAbsoluteSecurityDescriptor(const BYTE* stored);

// The same for a stored block of `length` bytes, such as an entry's
// Security.Data and Security.Length read from an archive: null as well when
// any part of the descriptor reaches beyond the block, so that a damaged
// block is never read past its end.
std::unique_ptr<BYTE[]> BuildAbsoluteSecurityDescriptor(const BYTE* stored, DWORD length);

// 8 plus the sizes of the ACEs the list returns; 0 when it cannot be read.
DWORD CalcAclSize(PACL acl);

// Copies the ACEs of source into destination (initialised with size).
int DuplicateAcl(DWORD size, PACL destination, PACL source);
