// Security descriptors of entries: reading an item's descriptor when it is
// added, and rebuilding a stored one into a descriptor for file creation
// when it is extracted. Written in Win32 calls only.
#include "operations/security.h"

#include "foundation/handles.h"

#include <cstddef>
#include <cstring>
#include <new>

namespace {

// Enables "SeSecurityPrivilege" in the process token, which reading system
// access lists needs. The adjustment is judged by the last error it leaves:
// a token without the privilege gets ERROR_NOT_ALL_ASSIGNED.
DWORD EnableSecurityPrivilege(ScopedHandle& token) {
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY | READ_CONTROL,
                        token.Receive()))
    return GetLastError();
  TOKEN_PRIVILEGES privileges{};
  if (!LookupPrivilegeValueW(nullptr, WTEXT("SeSecurityPrivilege"), &privileges.Privileges[0].Luid))
    return GetLastError();
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  // Success or not, the last error tells: 0 only when the privilege is
  // now enabled.
  AdjustTokenPrivileges(token.Get(), FALSE, &privileges, sizeof privileges, nullptr, nullptr);
  return GetLastError();
}

constexpr SECURITY_INFORMATION kAllSecurityInformation =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
    SACL_SECURITY_INFORMATION;

WORD AceSizeOf(const void* ace) {
  WORD size;
  std::memcpy(&size, static_cast<const BYTE*>(ace) + offsetof(ACE_HEADER, AceSize), sizeof size);
  return size;
}

// The size a copy of a SID takes, 0 when there is no valid SID to copy, or
// -1 when its sub-authority count cannot be read.
long SidCopySize(PSID sid) {
  if (sid == nullptr || !IsValidSid(sid)) return 0;
  const PUCHAR count = GetSidSubAuthorityCount(sid);
  if (count == nullptr) return -1;
  return static_cast<long>(GetSidLengthRequired(*count));
}

// The size a copy of an access list takes, 0 when none is copied.
DWORD AclCopySize(BOOL present, PACL acl) {
  return (present && acl != nullptr && IsValidAcl(acl)) ? CalcAclSize(acl) : 0;
}

template <class T> T ReadAt(const BYTE* bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes + at, sizeof value);
  return value;
}

// Whether each part a self-relative descriptor names, with the size its own
// header declares, lies within `length` bytes.
bool PartsWithin(const BYTE* stored, DWORD length) {
  if (length < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return false;
  const WORD control = ReadAt<WORD>(stored, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Control));
  if ((control & SE_SELF_RELATIVE) == 0) return false;
  struct Part {
    std::size_t field;
    bool isAcl;
    WORD presentBit; // 0: always looked at
  };
  const Part parts[] = {{offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), false, 0},
                        {offsetof(SECURITY_DESCRIPTOR_RELATIVE, Group), false, 0},
                        {offsetof(SECURITY_DESCRIPTOR_RELATIVE, Sacl), true, SE_SACL_PRESENT},
                        {offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl), true, SE_DACL_PRESENT}};
  for (const Part& part : parts) {
    if (part.presentBit != 0 && (control & part.presentBit) == 0) continue;
    const DWORD offset = ReadAt<DWORD>(stored, part.field);
    if (offset == 0) continue;
    const std::size_t header = part.isAcl ? sizeof(ACL) : 8;
    if (offset > length || length - offset < header) return false;
    const std::size_t size = part.isAcl ? ReadAt<WORD>(stored, offset + offsetof(ACL, AclSize))
                                        : 8 + 4u * stored[offset + 1];
    if (size > length - offset) return false;
  }
  return true;
}

} // namespace

DWORD CaptureSecurity(const WCHAR* fullName, CArchiveEntry& entry) {
  if (entry.Security == nullptr) {
    entry.Security = new (std::nothrow) CArchiveSecurity();
    if (entry.Security == nullptr) return ERROR_OUTOFMEMORY;
  }
  delete[] entry.Security->Data;
  entry.Security->Data = nullptr;
  entry.Security->Length = 0;

  ScopedHandle token;
  if (DWORD error = EnableSecurityPrivilege(token); error != ERROR_SUCCESS) return error;

  DWORD size = 0;
  GetFileSecurityW(fullName, kAllSecurityInformation, nullptr, 0, &size);
  if (size == 0) return ERROR_SUCCESS;
  std::unique_ptr<BYTE[]> data(new (std::nothrow) BYTE[size]);
  if (!data) return ERROR_OUTOFMEMORY;
  std::memset(data.get(), 0, size);
  DWORD filled = size;
  if (!GetFileSecurityW(fullName, kAllSecurityInformation, data.get(), size, &filled))
    return GetLastError();
  entry.Security->Data = data.release();
  entry.Security->Length = filled <= size ? filled : size;
  return ERROR_SUCCESS;
}

DWORD CalcAclSize(PACL acl) {
  ACL_SIZE_INFORMATION info{};
  if (!GetAclInformation(acl, &info, sizeof info, AclSizeInformation)) return 0;
  DWORD size = sizeof(ACL);
  for (DWORD i = 0; i < info.AceCount; ++i) {
    LPVOID ace = nullptr;
    if (GetAce(acl, i, &ace)) size += AceSizeOf(ace);
  }
  return size;
}

int DuplicateAcl(DWORD size, PACL destination, PACL source) {
  const BOOL initialised = InitializeAcl(destination, size, ACL_REVISION);
  ACL_SIZE_INFORMATION info{};
  if (!GetAclInformation(source, &info, sizeof info, AclSizeInformation) || !initialised) return 0;
  for (DWORD i = 0; i < info.AceCount; ++i) {
    LPVOID ace = nullptr;
    if (!GetAce(source, i, &ace)) continue;
    if (!AddAce(destination, ACL_REVISION, MAXDWORD, ace, AceSizeOf(ace))) return 0;
  }
  return 1;
}

std::unique_ptr<BYTE[]> BuildAbsoluteSecurityDescriptor(const BYTE* stored) {
  PSECURITY_DESCRIPTOR source = const_cast<BYTE*>(stored);
  if (stored == nullptr || !IsValidSecurityDescriptor(source)) return nullptr;

  PSID group = nullptr, owner = nullptr;
  BOOL groupDefaulted = FALSE, ownerDefaulted = FALSE;
  if (!GetSecurityDescriptorGroup(source, &group, &groupDefaulted)) return nullptr;
  const long groupSize = SidCopySize(group);
  if (!GetSecurityDescriptorOwner(source, &owner, &ownerDefaulted)) return nullptr;
  const long ownerSize = SidCopySize(owner);
  if (groupSize < 0 || ownerSize < 0) return nullptr;

  PACL sacl = nullptr, dacl = nullptr;
  BOOL saclPresent = FALSE, saclDefaulted = FALSE, daclPresent = FALSE, daclDefaulted = FALSE;
  if (!GetSecurityDescriptorSacl(source, &saclPresent, &sacl, &saclDefaulted)) return nullptr;
  const DWORD saclSize = AclCopySize(saclPresent, sacl);
  if (!GetSecurityDescriptorDacl(source, &daclPresent, &dacl, &daclDefaulted)) return nullptr;
  const DWORD daclSize = AclCopySize(daclPresent, dacl);

  // One array: the descriptor, then group, owner, SACL and DACL copies.
  const std::size_t groupAt = sizeof(SECURITY_DESCRIPTOR);
  const std::size_t ownerAt = groupAt + groupSize;
  const std::size_t saclAt = ownerAt + ownerSize;
  const std::size_t daclAt = saclAt + saclSize;
  const std::size_t total = daclAt + daclSize;
  std::unique_ptr<BYTE[]> result(new (std::nothrow) BYTE[total]);
  if (!result) return nullptr;
  std::memset(result.get(), 0, total);
  BYTE* base = result.get();

  PSID groupCopy = groupSize ? base + groupAt : nullptr;
  PSID ownerCopy = ownerSize ? base + ownerAt : nullptr;
  PACL saclCopy = saclSize ? reinterpret_cast<PACL>(base + saclAt) : nullptr;
  PACL daclCopy = daclSize ? reinterpret_cast<PACL>(base + daclAt) : nullptr;
  if ((groupCopy && !CopySid(static_cast<DWORD>(groupSize), groupCopy, group)) ||
      (ownerCopy && !CopySid(static_cast<DWORD>(ownerSize), ownerCopy, owner)) ||
      (saclCopy && !DuplicateAcl(saclSize, saclCopy, sacl)) ||
      (daclCopy && !DuplicateAcl(daclSize, daclCopy, dacl)))
    return nullptr;

  PSECURITY_DESCRIPTOR absolute = base;
  if (!InitializeSecurityDescriptor(absolute, SECURITY_DESCRIPTOR_REVISION) ||
      !SetSecurityDescriptorGroup(absolute, groupCopy, groupDefaulted) ||
      !SetSecurityDescriptorOwner(absolute, ownerCopy, ownerDefaulted) ||
      !SetSecurityDescriptorSacl(absolute, saclPresent, saclCopy, saclDefaulted) ||
      !SetSecurityDescriptorDacl(absolute, daclPresent, daclCopy, daclDefaulted))
    return nullptr;
  return result;
}

std::unique_ptr<BYTE[]> BuildAbsoluteSecurityDescriptor(const BYTE* stored, DWORD length) {
  if (stored == nullptr || !PartsWithin(stored, length)) return nullptr;
  return BuildAbsoluteSecurityDescriptor(stored);
}
