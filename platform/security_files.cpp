// Security descriptors of host files and folders.
//
// A host item has an owner, a group and nine permission bits. Read through
// GetFileSecurityW they become a descriptor with the owner S-1-22-1-uid, the
// group S-1-22-2-gid and a discretionary list whose entries give owner,
// group and everyone (S-1-1-0) the rights of their permission bits. A
// descriptor given to an item when it is created is applied as far as the
// host can hold it and kept, byte for byte, in the extended attribute
// "user.talvern.security", so that reading it back gives the same bytes.
#include "platform/layer.h"
#include "platform/security_internal.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <vector>

namespace talvern::platform {
namespace {

using Bytes = std::vector<BYTE>;

// The kept descriptor: a 16-byte header (magic, then the uid, gid and mode
// the creation left, as little-endian DWORDs) followed by the self-relative
// descriptor.
constexpr char kKeptName[] = "user.talvern.security";
constexpr BYTE kKeptMagic[4] = {'T', 'S', 'D', '1'};
constexpr std::size_t kKeptHeader = 16;

constexpr mode_t kPermissionBits = 0777;
// The kept descriptor describes the item while its owner, group and these
// bits are those it was created with. The write bits are left out: they
// carry the read-only attribute, which extraction sets after creation.
constexpr mode_t kTrackedBits = kPermissionBits & ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);

constexpr BYTE kUnixAuthority = 22;
constexpr BYTE kWorldAuthority = 1;
constexpr DWORD kUnixUserKind = 1;
constexpr DWORD kUnixGroupKind = 2;

// Rights every entry of a host item's list carries, and those only the
// owner has besides (the owner may change permissions and times).
constexpr ACCESS_MASK kBaseRights = READ_CONTROL | SYNCHRONIZE | FILE_READ_ATTRIBUTES;
constexpr ACCESS_MASK kOwnerRights = WRITE_DAC | FILE_WRITE_ATTRIBUTES;

constexpr unsigned kRead = 4, kWrite = 2, kExecute = 1;

// Restores the thread's last error when a call succeeds: the helpers below
// may set it along the way, and a successful call leaves it alone.
class LastErrorKeeper {
public:
  LastErrorKeeper() : saved_(GetLastError()) {}
  void Restore() const { SetLastError(saved_); }

private:
  DWORD saved_;
};

template <class T> void Append(Bytes& out, T value) {
  const BYTE* p = reinterpret_cast<const BYTE*>(&value);
  out.insert(out.end(), p, p + sizeof value);
}

Bytes MakeSid(BYTE authority, std::initializer_list<DWORD> subAuthorities) {
  Bytes sid(GetSidLengthRequired(static_cast<UCHAR>(subAuthorities.size())));
  SID_IDENTIFIER_AUTHORITY identifier{{0, 0, 0, 0, 0, authority}};
  InitializeSid(sid.data(), &identifier, static_cast<BYTE>(subAuthorities.size()));
  std::size_t at = offsetof(SID, SubAuthority);
  for (DWORD value : subAuthorities) {
    std::memcpy(sid.data() + at, &value, sizeof value);
    at += sizeof value;
  }
  return sid;
}

Bytes UserSid(uid_t uid) { return MakeSid(kUnixAuthority, {kUnixUserKind, uid}); }
Bytes GroupSid(gid_t gid) { return MakeSid(kUnixAuthority, {kUnixGroupKind, gid}); }
Bytes EveryoneSid() { return MakeSid(kWorldAuthority, {0}); }

bool SameSid(const void* a, const void* b) {
  if (!IsValidSid(const_cast<void*>(a)) || !IsValidSid(const_cast<void*>(b))) return false;
  const DWORD length = GetLengthSid(const_cast<void*>(a));
  return length == GetLengthSid(const_cast<void*>(b)) && std::memcmp(a, b, length) == 0;
}

// The host id that a SID of the form S-1-22-kind-id names.
std::optional<DWORD> HostIdOf(PSID sid, DWORD kind) {
  if (sid == nullptr || !IsValidSid(sid)) return std::nullopt;
  const BYTE* bytes = static_cast<const BYTE*>(sid);
  const BYTE authority[6] = {0, 0, 0, 0, 0, kUnixAuthority};
  if (bytes[1] != 2 || std::memcmp(bytes + offsetof(SID, IdentifierAuthority), authority, 6) != 0)
    return std::nullopt;
  if (Load<DWORD>(bytes + offsetof(SID, SubAuthority)) != kind) return std::nullopt;
  return Load<DWORD>(bytes + offsetof(SID, SubAuthority) + 4);
}

// ---- Permission bits and access rights -------------------------------------------

ACCESS_MASK RightsOf(unsigned bits, bool directory) {
  ACCESS_MASK rights = kBaseRights;
  if (bits & kRead) rights |= FILE_GENERIC_READ;
  if (bits & kWrite) rights |= FILE_GENERIC_WRITE | (directory ? FILE_DELETE_CHILD : 0);
  if (bits & kExecute) rights |= FILE_GENERIC_EXECUTE;
  return rights;
}

// The rights a deny entry takes away for permission bits.
ACCESS_MASK DataRightsOf(unsigned bits) {
  ACCESS_MASK rights = 0;
  if (bits & kRead) rights |= FILE_READ_DATA;
  if (bits & kWrite) rights |= FILE_WRITE_DATA | FILE_APPEND_DATA;
  if (bits & kExecute) rights |= FILE_EXECUTE;
  return rights;
}

unsigned BitsOf(ACCESS_MASK rights) {
  return ((rights & FILE_READ_DATA) ? kRead : 0) | ((rights & FILE_WRITE_DATA) ? kWrite : 0) |
         ((rights & FILE_EXECUTE) ? kExecute : 0);
}

ACCESS_MASK MapGenericRights(ACCESS_MASK mask) {
  if (mask & GENERIC_READ) mask |= FILE_GENERIC_READ;
  if (mask & GENERIC_WRITE) mask |= FILE_GENERIC_WRITE;
  if (mask & GENERIC_EXECUTE) mask |= FILE_GENERIC_EXECUTE;
  if (mask & GENERIC_ALL) mask |= FILE_ALL_ACCESS;
  return mask;
}

struct AclEntry {
  BYTE type;
  ACCESS_MASK mask;
  const Bytes* sid;
};

// A discretionary list for permission bits. Everyone's entry applies to
// owner and group too, so where the others have a bit that the owner or
// the group lacks, a deny entry in front takes it away from them.
Bytes DaclForMode(mode_t mode, bool directory, const Bytes& owner, const Bytes& group,
                  const Bytes& everyone) {
  const unsigned ownerBits = (mode >> 6) & 7, groupBits = (mode >> 3) & 7, otherBits = mode & 7;
  std::vector<AclEntry> entries;
  if (otherBits & ~ownerBits)
    entries.push_back({ACCESS_DENIED_ACE_TYPE, DataRightsOf(otherBits & ~ownerBits), &owner});
  if (otherBits & ~groupBits)
    entries.push_back({ACCESS_DENIED_ACE_TYPE, DataRightsOf(otherBits & ~groupBits), &group});
  entries.push_back(
      {ACCESS_ALLOWED_ACE_TYPE, RightsOf(ownerBits, directory) | kOwnerRights, &owner});
  entries.push_back({ACCESS_ALLOWED_ACE_TYPE, RightsOf(groupBits, directory), &group});
  entries.push_back({ACCESS_ALLOWED_ACE_TYPE, RightsOf(otherBits, directory), &everyone});
  std::size_t size = sizeof(ACL);
  for (const AclEntry& entry : entries)
    size += offsetof(ACCESS_ALLOWED_ACE, SidStart) + entry.sid->size();
  Bytes acl(size);
  PACL list = reinterpret_cast<PACL>(acl.data());
  InitializeAcl(list, static_cast<DWORD>(size), ACL_REVISION);
  for (const AclEntry& entry : entries) {
    PSID sid = const_cast<BYTE*>(entry.sid->data());
    if (entry.type == ACCESS_DENIED_ACE_TYPE)
      AddAccessDeniedAce(list, ACL_REVISION, entry.mask, sid);
    else
      AddAccessAllowedAce(list, ACL_REVISION, entry.mask, sid);
  }
  return acl;
}

// The permission bits a (valid) discretionary list gives one class of
// users: its entries are evaluated in order, the first entry to decide a
// right decides it, and entries that only pass to children are skipped.
template <class Applies> unsigned EvaluateDacl(PACL dacl, Applies applies) {
  ACL_SIZE_INFORMATION size{};
  if (!GetAclInformation(dacl, &size, sizeof size, AclSizeInformation)) return 0;
  ACCESS_MASK granted = 0, denied = 0;
  for (DWORD i = 0; i < size.AceCount; ++i) {
    LPVOID entry = nullptr;
    if (!GetAce(dacl, i, &entry)) continue;
    const BYTE* ace = static_cast<const BYTE*>(entry);
    const BYTE type = ace[0];
    if ((ace[1] & INHERIT_ONLY_ACE) ||
        (type != ACCESS_ALLOWED_ACE_TYPE && type != ACCESS_DENIED_ACE_TYPE))
      continue;
    if (!applies(ace + offsetof(ACCESS_ALLOWED_ACE, SidStart))) continue;
    const ACCESS_MASK mask =
        MapGenericRights(Load<DWORD>(ace + offsetof(ACCESS_ALLOWED_ACE, Mask)));
    if (type == ACCESS_ALLOWED_ACE_TYPE)
      granted |= mask & ~denied;
    else
      denied |= mask & ~granted;
  }
  return BitsOf(granted);
}

// The nine permission bits of a discretionary list. The owner's bits come
// from the entries for the owner and for everyone, the group's from those
// for the group and for everyone, the others' from everyone's. A present
// null list allows everything.
mode_t ModeForDacl(PACL dacl, std::initializer_list<const void*> owners,
                   std::initializer_list<const void*> groups, const Bytes& everyone) {
  if (dacl == nullptr) return kPermissionBits;
  auto isEveryone = [&](const BYTE* sid) { return SameSid(sid, everyone.data()); };
  auto isOneOf = [](const BYTE* sid, std::initializer_list<const void*> sids) {
    for (const void* candidate : sids)
      if (candidate != nullptr && SameSid(sid, candidate)) return true;
    return false;
  };
  const unsigned ownerBits =
      EvaluateDacl(dacl, [&](const BYTE* sid) { return isEveryone(sid) || isOneOf(sid, owners); });
  const unsigned groupBits =
      EvaluateDacl(dacl, [&](const BYTE* sid) { return isEveryone(sid) || isOneOf(sid, groups); });
  const unsigned otherBits = EvaluateDacl(dacl, isEveryone);
  return static_cast<mode_t>((ownerBits << 6) | (groupBits << 3) | otherBits);
}

// ---- Descriptors -------------------------------------------------------------------

struct Parts {
  PSID owner = nullptr, group = nullptr;
  BOOL ownerDefaulted = FALSE, groupDefaulted = FALSE;
  BOOL saclPresent = FALSE, daclPresent = FALSE, saclDefaulted = FALSE, daclDefaulted = FALSE;
  PACL sacl = nullptr, dacl = nullptr;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
};

// The parts of a descriptor that IsValidSecurityDescriptor accepted.
Parts PartsOf(PSECURITY_DESCRIPTOR descriptor) {
  Parts parts;
  DWORD revision = 0;
  GetSecurityDescriptorControl(descriptor, &parts.control, &revision);
  GetSecurityDescriptorOwner(descriptor, &parts.owner, &parts.ownerDefaulted);
  GetSecurityDescriptorGroup(descriptor, &parts.group, &parts.groupDefaulted);
  GetSecurityDescriptorSacl(descriptor, &parts.saclPresent, &parts.sacl, &parts.saclDefaulted);
  GetSecurityDescriptorDacl(descriptor, &parts.daclPresent, &parts.dacl, &parts.daclDefaulted);
  return parts;
}

// The self-relative bytes of an absolute descriptor whose control word is
// `control` (the Set functions cover only the present and defaulted bits).
Bytes SelfRelative(const Parts& parts) {
  SECURITY_DESCRIPTOR absolute;
  InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorOwner(&absolute, parts.owner, parts.ownerDefaulted);
  SetSecurityDescriptorGroup(&absolute, parts.group, parts.groupDefaulted);
  SetSecurityDescriptorSacl(&absolute, parts.saclPresent, parts.sacl, parts.saclDefaulted);
  SetSecurityDescriptorDacl(&absolute, parts.daclPresent, parts.dacl, parts.daclDefaulted);
  absolute.Control = static_cast<SECURITY_DESCRIPTOR_CONTROL>(parts.control & ~SE_SELF_RELATIVE);
  DWORD length = 0;
  MakeSelfRelativeSD(&absolute, nullptr, &length);
  Bytes bytes(length);
  MakeSelfRelativeSD(&absolute, bytes.data(), &length);
  return bytes;
}

// The self-relative bytes of any valid descriptor.
Bytes SelfRelativeBytes(PSECURITY_DESCRIPTOR descriptor) {
  const Parts parts = PartsOf(descriptor);
  if (parts.control & SE_SELF_RELATIVE) {
    const BYTE* bytes = static_cast<const BYTE*>(descriptor);
    return Bytes(bytes, bytes + GetSecurityDescriptorLength(descriptor));
  }
  return SelfRelative(parts);
}

constexpr SECURITY_DESCRIPTOR_CONTROL kSaclBits = SE_SACL_PRESENT | SE_SACL_DEFAULTED |
                                                  SE_SACL_AUTO_INHERIT_REQ |
                                                  SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED;
constexpr SECURITY_DESCRIPTOR_CONTROL kDaclBits = SE_DACL_PRESENT | SE_DACL_DEFAULTED |
                                                  SE_DACL_AUTO_INHERIT_REQ |
                                                  SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;

// A kept descriptor reduced to the requested parts. When nothing has to go
// the bytes come back exactly as they were kept.
Bytes Requested(const BYTE* kept, std::size_t length, SECURITY_INFORMATION requested) {
  const Parts original = PartsOf(const_cast<BYTE*>(kept));
  Parts parts = original;
  auto drop = [&](SECURITY_INFORMATION information, SECURITY_DESCRIPTOR_CONTROL bits, auto& part,
                  auto none) {
    if (requested & information) return;
    part = none;
    parts.control &= ~bits;
  };
  drop(OWNER_SECURITY_INFORMATION, SE_OWNER_DEFAULTED, parts.owner, PSID{});
  drop(GROUP_SECURITY_INFORMATION, SE_GROUP_DEFAULTED, parts.group, PSID{});
  drop(SACL_SECURITY_INFORMATION, kSaclBits, parts.saclPresent, FALSE);
  drop(DACL_SECURITY_INFORMATION, kDaclBits, parts.daclPresent, FALSE);
  if (parts.control == original.control && parts.owner == original.owner &&
      parts.group == original.group)
    return Bytes(kept, kept + length);
  if (!parts.saclPresent) parts.sacl = nullptr;
  if (!parts.daclPresent) parts.dacl = nullptr;
  return SelfRelative(parts);
}

// The descriptor of a host item from its owner, group and permission bits.
Bytes HostDescriptor(const struct stat& st, SECURITY_INFORMATION requested) {
  const Bytes owner = UserSid(st.st_uid), group = GroupSid(st.st_gid), everyone = EveryoneSid();
  Bytes dacl;
  Parts parts;
  parts.control = SE_SELF_RELATIVE;
  if (requested & OWNER_SECURITY_INFORMATION) parts.owner = const_cast<BYTE*>(owner.data());
  if (requested & GROUP_SECURITY_INFORMATION) parts.group = const_cast<BYTE*>(group.data());
  if (requested & DACL_SECURITY_INFORMATION) {
    dacl = DaclForMode(st.st_mode & kPermissionBits, S_ISDIR(st.st_mode), owner, group, everyone);
    parts.daclPresent = TRUE;
    parts.dacl = reinterpret_cast<PACL>(dacl.data());
    parts.control |= SE_DACL_PRESENT;
  }
  return SelfRelative(parts);
}

// The descriptor kept for the item, when there is one and it still
// describes the item.
std::optional<Bytes> KeptDescriptor(const std::string& hostPath, const struct stat& st) {
  const ssize_t size = getxattr(hostPath.c_str(), kKeptName, nullptr, 0);
  if (size < static_cast<ssize_t>(kKeptHeader + sizeof(SECURITY_DESCRIPTOR_RELATIVE)))
    return std::nullopt;
  Bytes value(static_cast<std::size_t>(size));
  if (getxattr(hostPath.c_str(), kKeptName, value.data(), value.size()) != size)
    return std::nullopt;
  const BYTE* header = value.data();
  if (std::memcmp(header, kKeptMagic, sizeof kKeptMagic) != 0 ||
      Load<DWORD>(header + 4) != st.st_uid || Load<DWORD>(header + 8) != st.st_gid ||
      (Load<DWORD>(header + 12) & kTrackedBits) != (st.st_mode & kTrackedBits))
    return std::nullopt;
  value.erase(value.begin(), value.begin() + kKeptHeader);
  if (!IsValidSelfRelativeDescriptor(value.data(), value.size()) ||
      GetSecurityDescriptorLength(value.data()) != value.size())
    return std::nullopt;
  return value;
}

// Keeps a descriptor with the owner, group and mode the item is given.
// Where the file system refuses (no extended attributes, a value too large
// for it), nothing is kept and the item reads as its host state.
void KeepDescriptor(const std::string& hostPath, const Bytes& descriptor, uid_t uid, gid_t gid,
                    mode_t mode) {
  Bytes value(kKeptMagic, kKeptMagic + sizeof kKeptMagic);
  Append<DWORD>(value, uid);
  Append<DWORD>(value, gid);
  Append<DWORD>(value, static_cast<DWORD>(mode));
  value.insert(value.end(), descriptor.begin(), descriptor.end());
  setxattr(hostPath.c_str(), kKeptName, value.data(), value.size(), 0);
}

} // namespace

DWORD ApplySecurityOnCreate(const std::string& hostPath, bool isDirectory,
                            PSECURITY_DESCRIPTOR descriptor) {
  if (descriptor == nullptr) return ERROR_SUCCESS;
  const LastErrorKeeper keeper;
  if (!IsValidSecurityDescriptor(descriptor)) return ERROR_INVALID_SECURITY_DESCR;
  const Parts parts = PartsOf(descriptor);
  if (parts.saclPresent && !IsPrivilegeHeld(WTEXT("SeSecurityPrivilege")))
    return ERROR_PRIVILEGE_NOT_HELD;
  struct stat st;
  if (stat(hostPath.c_str(), &st) != 0) return SetLastErrorFromErrno(errno);

  const uid_t uid = HostIdOf(parts.owner, kUnixUserKind).value_or(st.st_uid);
  const gid_t gid = HostIdOf(parts.group, kUnixGroupKind).value_or(st.st_gid);
  mode_t mode = st.st_mode & 07777;
  if (parts.daclPresent) {
    const Bytes owner = UserSid(uid), group = GroupSid(gid), everyone = EveryoneSid();
    mode = (mode & ~kPermissionBits) | ModeForDacl(parts.dacl, {parts.owner, owner.data()},
                                                   {parts.group, group.data()}, everyone);
  }
  (void)isDirectory; // folders and files map the same rights to the same bits

  // Kept first: the new mode may take write access away from the creator.
  KeepDescriptor(hostPath, SelfRelativeBytes(descriptor), uid, gid, mode);
  if (uid != st.st_uid || gid != st.st_gid) {
    if (chown(hostPath.c_str(), uid != st.st_uid ? uid : static_cast<uid_t>(-1),
              gid != st.st_gid ? gid : static_cast<gid_t>(-1)) != 0)
      return errno == EPERM ? ERROR_INVALID_OWNER : SetLastErrorFromErrno(errno);
  }
  // A change of owner clears set-id bits; the mode is set afterwards.
  if ((parts.daclPresent || uid != st.st_uid || gid != st.st_gid) &&
      chmod(hostPath.c_str(), mode) != 0)
    return SetLastErrorFromErrno(errno);
  keeper.Restore();
  return ERROR_SUCCESS;
}

} // namespace talvern::platform

using namespace talvern::platform;

BOOL GetFileSecurityW(LPCWSTR fileName, SECURITY_INFORMATION requestedInformation,
                      PSECURITY_DESCRIPTOR securityDescriptor, DWORD length, LPDWORD lengthNeeded) {
  if (fileName == nullptr || lengthNeeded == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  const LastErrorKeeper keeper;
  std::string hostPath;
  if (!ResolveToHost(fileName, hostPath)) return FALSE;
  struct stat st;
  if (stat(hostPath.c_str(), &st) != 0) {
    if (errno == ENOENT)
      SetMissingError(hostPath);
    else
      SetLastErrorFromErrno(errno);
    return FALSE;
  }
  // Reading the system access list needs the privilege enabled, as opening
  // an item for ACCESS_SYSTEM_SECURITY does.
  if ((requestedInformation & SACL_SECURITY_INFORMATION) &&
      !IsPrivilegeEnabled(WTEXT("SeSecurityPrivilege")))
    return Fail(ERROR_PRIVILEGE_NOT_HELD);

  const std::optional<Bytes> kept = KeptDescriptor(hostPath, st);
  const Bytes bytes = kept ? Requested(kept->data(), kept->size(), requestedInformation)
                           : HostDescriptor(st, requestedInformation);
  *lengthNeeded = static_cast<DWORD>(bytes.size());
  if (length < bytes.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
  if (securityDescriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::memcpy(securityDescriptor, bytes.data(), bytes.size());
  keeper.Restore();
  return TRUE;
}
