// SIDs, access lists and security descriptors in the binary layouts of the
// Win32 API.
//
// Every field is read and written through byte copies, so that misaligned
// or hostile bytes are never dereferenced as structures, and every size is
// checked against the extent the bytes themselves declare: a SID is never
// read beyond its sub-authority count, an access list beyond its AclSize,
// and a self-relative descriptor only as far as its parts lie inside it.
#include "platform/layer.h"
#include "platform/security_internal.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <vector>

namespace talvern::platform {
namespace {

static_assert(std::endian::native == std::endian::little,
              "security structures are stored little-endian");

constexpr std::size_t kSidHeader = 8;
constexpr std::size_t kMaxSidLength = kSidHeader + 4 * SID_MAX_SUB_AUTHORITIES;
constexpr std::size_t kAclHeader = sizeof(ACL);
constexpr std::size_t kAceHeader = sizeof(ACE_HEADER);
constexpr std::size_t kMaxAclSize = 0xFFFF;
constexpr std::size_t kRelativeHeader = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
constexpr DWORD kMinAclRevision = ACL_REVISION;
constexpr DWORD kMaxAclRevision = ACL_REVISION_DS;

// Entry kinds whose layout the checks know.
constexpr BYTE kCompoundAceType = 4;
constexpr BYTE kFirstObjectAceType = 5;
constexpr BYTE kLastObjectAceType = 8;
constexpr DWORD kObjectTypePresent = 1;
constexpr DWORD kInheritedObjectTypePresent = 2;

static_assert(kRelativeHeader == 20 && kAclHeader == 8 && kAceHeader == 4);

const BYTE* AsBytes(const void* p) { return static_cast<const BYTE*>(p); }
BYTE* AsBytes(void* p) { return static_cast<BYTE*>(p); }

// ---- SIDs -------------------------------------------------------------------

// The length of the valid SID at p that lies within `room` bytes, else 0.
std::size_t ValidSidLength(const BYTE* p, std::size_t room) {
  if (p == nullptr || room < kSidHeader) return 0;
  if (p[0] != SID_REVISION || p[1] > SID_MAX_SUB_AUTHORITIES) return 0;
  const std::size_t length = kSidHeader + 4u * p[1];
  return length <= room ? length : 0;
}

// ---- Access lists -------------------------------------------------------------

struct AclShape {
  BYTE revision = 0;
  WORD size = 0;
  WORD count = 0;
  std::size_t inUse = 0; // header plus every entry
};

// Checks an access list's header and the chain of its entries: a known
// revision, a DWORD-multiple size of at least the header and within `room`,
// and every entry's header and size inside that size.
bool ReadAclShape(const BYTE* acl, std::size_t room, AclShape& shape) {
  if (acl == nullptr || room < kAclHeader) return false;
  shape.revision = acl[0];
  shape.size = Load<WORD>(acl + offsetof(ACL, AclSize));
  shape.count = Load<WORD>(acl + offsetof(ACL, AceCount));
  if (shape.revision < kMinAclRevision || shape.revision > kMaxAclRevision) return false;
  if (shape.size < kAclHeader || shape.size % 4 != 0 || shape.size > room) return false;
  std::size_t pos = kAclHeader;
  for (WORD i = 0; i < shape.count; ++i) {
    if (pos + kAceHeader > shape.size) return false;
    const WORD aceSize = Load<WORD>(acl + pos + offsetof(ACE_HEADER, AceSize));
    if (aceSize < kAceHeader || aceSize % 4 != 0 || pos + aceSize > shape.size) return false;
    pos += aceSize;
  }
  shape.inUse = pos;
  return true;
}

// The offset of entry `index` of an access list whose shape was read.
std::size_t AceOffset(const BYTE* acl, DWORD index) {
  std::size_t pos = kAclHeader;
  for (DWORD i = 0; i < index; ++i) pos += Load<WORD>(acl + pos + offsetof(ACE_HEADER, AceSize));
  return pos;
}

bool IsObjectAceType(BYTE type) {
  return type >= kFirstObjectAceType && type <= kLastObjectAceType;
}

// The lowest access-list revision that may hold an entry of this type.
DWORD RevisionNeededFor(BYTE type) {
  if (IsObjectAceType(type)) return ACL_REVISION_DS;
  if (type == kCompoundAceType) return 3;
  return ACL_REVISION;
}

// Checks what an entry holds for the kinds whose layout is known: the SID of
// allowed, denied, audit and alarm entries, and the SID behind the optional
// GUIDs of object entries. Other kinds are only held to their size.
bool AceContentValid(const BYTE* ace, WORD size, BYTE aclRevision) {
  const BYTE type = ace[0];
  if (RevisionNeededFor(type) > aclRevision) return false;
  if (type <= SYSTEM_ALARM_ACE_TYPE) {
    constexpr std::size_t sidAt = offsetof(ACCESS_ALLOWED_ACE, SidStart);
    return size >= sidAt && ValidSidLength(ace + sidAt, size - sidAt) != 0;
  }
  if (IsObjectAceType(type)) {
    constexpr std::size_t flagsAt = 8;
    if (size < flagsAt + 4) return false;
    const DWORD flags = Load<DWORD>(ace + flagsAt);
    std::size_t sidAt = flagsAt + 4;
    if (flags & kObjectTypePresent) sidAt += 16;
    if (flags & kInheritedObjectTypePresent) sidAt += 16;
    return size >= sidAt && ValidSidLength(ace + sidAt, size - sidAt) != 0;
  }
  return true;
}

bool AclValid(const BYTE* acl, std::size_t room) {
  AclShape shape;
  if (!ReadAclShape(acl, room, shape)) return false;
  std::size_t pos = kAclHeader;
  for (WORD i = 0; i < shape.count; ++i) {
    const WORD aceSize = Load<WORD>(acl + pos + offsetof(ACE_HEADER, AceSize));
    if (!AceContentValid(acl + pos, aceSize, shape.revision)) return false;
    pos += aceSize;
  }
  return true;
}

// Appends one entry that holds a mask and a SID (allowed, denied).
BOOL AddMaskSidAce(PACL acl, DWORD aceRevision, BYTE type, DWORD accessMask, PSID sid) {
  BYTE* bytes = AsBytes(acl);
  AclShape shape;
  if (!ReadAclShape(bytes, kMaxAclSize, shape)) return Fail(ERROR_INVALID_ACL);
  if (aceRevision < kMinAclRevision || aceRevision > kMaxAclRevision)
    return Fail(ERROR_REVISION_MISMATCH);
  const std::size_t sidLength = ValidSidLength(AsBytes(sid), kMaxSidLength);
  if (sidLength == 0) return Fail(ERROR_INVALID_SID);
  const std::size_t aceSize = offsetof(ACCESS_ALLOWED_ACE, SidStart) + sidLength;
  if (shape.count == 0xFFFF || shape.inUse + aceSize > shape.size)
    return Fail(ERROR_ALLOTTED_SPACE_EXCEEDED);
  BYTE* ace = bytes + shape.inUse;
  ace[0] = type;
  ace[1] = 0;
  Store<WORD>(ace + offsetof(ACE_HEADER, AceSize), static_cast<WORD>(aceSize));
  Store<DWORD>(ace + offsetof(ACCESS_ALLOWED_ACE, Mask), accessMask);
  std::memmove(ace + offsetof(ACCESS_ALLOWED_ACE, SidStart), sid, sidLength);
  Store<WORD>(bytes + offsetof(ACL, AceCount), static_cast<WORD>(shape.count + 1));
  if (bytes[0] < aceRevision) bytes[0] = static_cast<BYTE>(aceRevision);
  return TRUE;
}

// ---- Descriptors ----------------------------------------------------------------

// A descriptor's header with its parts located (null when absent or null).
struct DescriptorView {
  WORD control = 0;
  BYTE sbz1 = 0;
  const BYTE* owner = nullptr;
  const BYTE* group = nullptr;
  const BYTE* sacl = nullptr;
  const BYTE* dacl = nullptr;
  // Self-relative form: how many bytes follow each part's start within the
  // descriptor, and the end of its last part. Absolute form: unbounded.
  std::size_t ownerRoom = kMaxSidLength, groupRoom = kMaxSidLength;
  std::size_t saclRoom = kMaxAclSize, daclRoom = kMaxAclSize;
  std::size_t extent = 0;
};

bool IsSelfRelative(WORD control) { return (control & SE_SELF_RELATIVE) != 0; }

// Locates one part of a self-relative descriptor of `limit` bytes: the
// offset must be DWORD-aligned and past the header, and the part's own
// header and declared size must lie inside the descriptor.
bool LocateRelativePart(const BYTE* sd, std::size_t limit, DWORD offset, bool isAcl,
                        const BYTE*& where, std::size_t& room, std::size_t& extent) {
  where = nullptr;
  if (offset == 0) return true;
  if (offset < kRelativeHeader || offset % 4 != 0 || offset >= limit) return false;
  room = limit - offset;
  const BYTE* part = sd + offset;
  std::size_t size = 0;
  if (isAcl) {
    if (room < kAclHeader) return false;
    size = Load<WORD>(part + offsetof(ACL, AclSize));
    if (size < kAclHeader) return false;
  } else {
    if (room < kSidHeader) return false;
    size = kSidHeader + 4u * part[1];
  }
  if (size > room) return false;
  where = part;
  extent = std::max<std::size_t>(extent, offset + size);
  return true;
}

// Reads a descriptor's header and locates its parts. A self-relative
// descriptor is read within `limit` bytes. The parts' contents are not
// checked here. Returns ERROR_SUCCESS, ERROR_UNKNOWN_REVISION or
// ERROR_INVALID_SECURITY_DESCR.
DWORD ReadDescriptor(const void* descriptor, std::size_t limit, DescriptorView& view) {
  const BYTE* sd = AsBytes(descriptor);
  if (sd == nullptr) return ERROR_INVALID_PARAMETER;
  if (sd[0] != SECURITY_DESCRIPTOR_REVISION) return ERROR_UNKNOWN_REVISION;
  view.sbz1 = sd[1];
  view.control = Load<WORD>(sd + offsetof(SECURITY_DESCRIPTOR, Control));
  const bool saclPresent = (view.control & SE_SACL_PRESENT) != 0;
  const bool daclPresent = (view.control & SE_DACL_PRESENT) != 0;
  if (!IsSelfRelative(view.control)) {
    view.owner = Load<const BYTE*>(sd + offsetof(SECURITY_DESCRIPTOR, Owner));
    view.group = Load<const BYTE*>(sd + offsetof(SECURITY_DESCRIPTOR, Group));
    if (saclPresent) view.sacl = Load<const BYTE*>(sd + offsetof(SECURITY_DESCRIPTOR, Sacl));
    if (daclPresent) view.dacl = Load<const BYTE*>(sd + offsetof(SECURITY_DESCRIPTOR, Dacl));
    return ERROR_SUCCESS;
  }
  if (limit < kRelativeHeader) return ERROR_INVALID_SECURITY_DESCR;
  view.extent = kRelativeHeader;
  auto offset = [&](std::size_t field) { return Load<DWORD>(sd + field); };
  const bool ok =
      LocateRelativePart(sd, limit, offset(offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner)), false,
                         view.owner, view.ownerRoom, view.extent) &&
      LocateRelativePart(sd, limit, offset(offsetof(SECURITY_DESCRIPTOR_RELATIVE, Group)), false,
                         view.group, view.groupRoom, view.extent) &&
      (!saclPresent ||
       LocateRelativePart(sd, limit, offset(offsetof(SECURITY_DESCRIPTOR_RELATIVE, Sacl)), true,
                          view.sacl, view.saclRoom, view.extent)) &&
      (!daclPresent ||
       LocateRelativePart(sd, limit, offset(offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl)), true,
                          view.dacl, view.daclRoom, view.extent));
  return ok ? ERROR_SUCCESS : ERROR_INVALID_SECURITY_DESCR;
}

// Whether every part present in a located descriptor is itself valid.
bool PartsValid(const DescriptorView& view) {
  return (view.owner == nullptr || ValidSidLength(view.owner, view.ownerRoom) != 0) &&
         (view.group == nullptr || ValidSidLength(view.group, view.groupRoom) != 0) &&
         (view.sacl == nullptr || AclValid(view.sacl, view.saclRoom)) &&
         (view.dacl == nullptr || AclValid(view.dacl, view.daclRoom));
}

bool ValidDescriptor(const void* descriptor, std::size_t limit) {
  DescriptorView view;
  return ReadDescriptor(descriptor, limit, view) == ERROR_SUCCESS && PartsValid(view);
}

// The query functions: one part of a descriptor and its flags.
using ViewPart = const BYTE* DescriptorView::*;

BOOL GetSidPart(PSECURITY_DESCRIPTOR descriptor, ViewPart part, WORD defaultedBit, PSID* sid,
                LPBOOL defaulted) {
  if (sid == nullptr || defaulted == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  DescriptorView view;
  if (DWORD error = ReadDescriptor(descriptor, kMaxSelfRelativeLength, view);
      error != ERROR_SUCCESS)
    return Fail(error);
  *sid = const_cast<BYTE*>(view.*part);
  *defaulted = (view.control & defaultedBit) ? TRUE : FALSE;
  return TRUE;
}

BOOL GetAclPart(PSECURITY_DESCRIPTOR descriptor, ViewPart part, WORD presentBit, WORD defaultedBit,
                LPBOOL present, PACL* acl, LPBOOL defaulted) {
  if (present == nullptr || acl == nullptr || defaulted == nullptr)
    return Fail(ERROR_INVALID_PARAMETER);
  DescriptorView view;
  if (DWORD error = ReadDescriptor(descriptor, kMaxSelfRelativeLength, view);
      error != ERROR_SUCCESS)
    return Fail(error);
  const bool isPresent = (view.control & presentBit) != 0;
  *present = isPresent ? TRUE : FALSE;
  *acl = reinterpret_cast<PACL>(const_cast<BYTE*>(view.*part));
  *defaulted = isPresent && (view.control & defaultedBit) ? TRUE : FALSE;
  return TRUE;
}

// The header of an absolute descriptor that the Set functions may change.
DWORD WritableAbsolute(PSECURITY_DESCRIPTOR descriptor) {
  const BYTE* sd = AsBytes(descriptor);
  if (sd == nullptr) return ERROR_INVALID_PARAMETER;
  if (sd[0] != SECURITY_DESCRIPTOR_REVISION) return ERROR_UNKNOWN_REVISION;
  if (IsSelfRelative(Load<WORD>(sd + offsetof(SECURITY_DESCRIPTOR, Control))))
    return ERROR_INVALID_SECURITY_DESCR;
  return ERROR_SUCCESS;
}

void SetControlBits(BYTE* sd, WORD bits, bool on) {
  WORD control = Load<WORD>(sd + offsetof(SECURITY_DESCRIPTOR, Control));
  control = on ? static_cast<WORD>(control | bits) : static_cast<WORD>(control & ~bits);
  Store<WORD>(sd + offsetof(SECURITY_DESCRIPTOR, Control), control);
}

BOOL SetPointerPart(PSECURITY_DESCRIPTOR descriptor, std::size_t field, const void* part,
                    WORD defaultedBit, BOOL defaulted) {
  if (DWORD error = WritableAbsolute(descriptor); error != ERROR_SUCCESS) return Fail(error);
  BYTE* sd = AsBytes(descriptor);
  Store<const void*>(sd + field, part);
  SetControlBits(sd, defaultedBit, defaulted != FALSE);
  return TRUE;
}

BOOL SetAclPart(PSECURITY_DESCRIPTOR descriptor, std::size_t field, WORD presentBit,
                WORD defaultedBit, BOOL present, PACL acl, BOOL defaulted) {
  if (DWORD error = WritableAbsolute(descriptor); error != ERROR_SUCCESS) return Fail(error);
  BYTE* sd = AsBytes(descriptor);
  if (!present) {
    // The list and its defaulted flag are ignored when the list is absent.
    SetControlBits(sd, presentBit, false);
    return TRUE;
  }
  Store<const void*>(sd + field, acl);
  SetControlBits(sd, presentBit, true);
  SetControlBits(sd, defaultedBit, defaulted != FALSE);
  return TRUE;
}

} // namespace

bool IsValidSelfRelativeDescriptor(const void* bytes, std::size_t length) {
  if (bytes == nullptr || length < kRelativeHeader) return false;
  if (!IsSelfRelative(Load<WORD>(AsBytes(bytes) + offsetof(SECURITY_DESCRIPTOR, Control))))
    return false;
  return ValidDescriptor(bytes, length);
}

} // namespace talvern::platform

using namespace talvern::platform;

// ---- SIDs -------------------------------------------------------------------

BOOL IsValidSid(PSID sid) { return ValidSidLength(AsBytes(sid), kMaxSidLength) != 0; }

PUCHAR GetSidSubAuthorityCount(PSID sid) {
  if (!IsValidSid(sid)) {
    SetLastError(ERROR_INVALID_SID);
    return nullptr;
  }
  return AsBytes(sid) + offsetof(SID, SubAuthorityCount);
}

PDWORD GetSidSubAuthority(PSID sid, DWORD subAuthority) {
  if (!IsValidSid(sid)) {
    SetLastError(ERROR_INVALID_SID);
    return nullptr;
  }
  if (subAuthority >= AsBytes(sid)[1]) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  // A SID's sub-authorities are DWORD-aligned wherever the SID itself is.
  return reinterpret_cast<PDWORD>(AsBytes(sid) + offsetof(SID, SubAuthority) + 4 * subAuthority);
}

DWORD GetSidLengthRequired(UCHAR subAuthorityCount) {
  return static_cast<DWORD>(kSidHeader + 4u * subAuthorityCount);
}

DWORD GetLengthSid(PSID sid) {
  const std::size_t length = ValidSidLength(AsBytes(sid), kMaxSidLength);
  if (length == 0) SetLastError(ERROR_INVALID_SID);
  return static_cast<DWORD>(length);
}

BOOL InitializeSid(PSID sid, PSID_IDENTIFIER_AUTHORITY identifierAuthority,
                   BYTE subAuthorityCount) {
  if (sid == nullptr || identifierAuthority == nullptr ||
      subAuthorityCount > SID_MAX_SUB_AUTHORITIES)
    return Fail(ERROR_INVALID_PARAMETER);
  BYTE* bytes = AsBytes(sid);
  bytes[0] = SID_REVISION;
  bytes[1] = subAuthorityCount;
  std::memcpy(bytes + offsetof(SID, IdentifierAuthority), identifierAuthority->Value, 6);
  return TRUE;
}

BOOL CopySid(DWORD destinationSidLength, PSID destinationSid, PSID sourceSid) {
  const std::size_t length = ValidSidLength(AsBytes(sourceSid), kMaxSidLength);
  if (length == 0) return Fail(ERROR_INVALID_SID);
  if (destinationSidLength < length) return Fail(ERROR_INSUFFICIENT_BUFFER);
  if (destinationSid == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::memmove(destinationSid, sourceSid, length);
  return TRUE;
}

BOOL EqualSid(PSID sid1, PSID sid2) {
  const std::size_t length1 = ValidSidLength(AsBytes(sid1), kMaxSidLength);
  const std::size_t length2 = ValidSidLength(AsBytes(sid2), kMaxSidLength);
  if (length1 == 0 || length2 == 0) return Fail(ERROR_INVALID_SID);
  if (length1 == length2 && std::memcmp(sid1, sid2, length1) == 0) return TRUE;
  // Valid but different: a last error of 0 tells this from a failure.
  SetLastError(ERROR_SUCCESS);
  return FALSE;
}

// ---- Access lists -------------------------------------------------------------

BOOL IsValidAcl(PACL acl) { return AclValid(AsBytes(acl), kMaxAclSize); }

BOOL InitializeAcl(PACL acl, DWORD aclLength, DWORD aclRevision) {
  if (acl == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  if (aclLength < kAclHeader) return Fail(ERROR_INSUFFICIENT_BUFFER);
  if (aclLength > kMaxAclSize || aclLength % 4 != 0 || aclRevision < kMinAclRevision ||
      aclRevision > kMaxAclRevision)
    return Fail(ERROR_INVALID_PARAMETER);
  BYTE* bytes = AsBytes(acl);
  bytes[0] = static_cast<BYTE>(aclRevision);
  bytes[1] = 0;
  Store<WORD>(bytes + offsetof(ACL, AclSize), static_cast<WORD>(aclLength));
  Store<WORD>(bytes + offsetof(ACL, AceCount), 0);
  Store<WORD>(bytes + offsetof(ACL, Sbz2), 0);
  return TRUE;
}

BOOL GetAclInformation(PACL acl, LPVOID aclInformation, DWORD aclInformationLength,
                       ACL_INFORMATION_CLASS aclInformationClass) {
  AclShape shape;
  if (!ReadAclShape(AsBytes(acl), kMaxAclSize, shape)) return Fail(ERROR_INVALID_PARAMETER);
  switch (aclInformationClass) {
  case AclRevisionInformation: {
    if (aclInformationLength < sizeof(ACL_REVISION_INFORMATION))
      return Fail(ERROR_INSUFFICIENT_BUFFER);
    if (aclInformation == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const ACL_REVISION_INFORMATION info{shape.revision};
    std::memcpy(aclInformation, &info, sizeof info);
    return TRUE;
  }
  case AclSizeInformation: {
    if (aclInformationLength < sizeof(ACL_SIZE_INFORMATION)) return Fail(ERROR_INSUFFICIENT_BUFFER);
    if (aclInformation == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const ACL_SIZE_INFORMATION info{shape.count, static_cast<DWORD>(shape.inUse),
                                    static_cast<DWORD>(shape.size - shape.inUse)};
    std::memcpy(aclInformation, &info, sizeof info);
    return TRUE;
  }
  }
  return Fail(ERROR_INVALID_PARAMETER);
}

BOOL GetAce(PACL acl, DWORD aceIndex, LPVOID* ace) {
  AclShape shape;
  if (!ReadAclShape(AsBytes(acl), kMaxAclSize, shape) || aceIndex >= shape.count || ace == nullptr)
    return Fail(ERROR_INVALID_PARAMETER);
  *ace = AsBytes(acl) + AceOffset(AsBytes(acl), aceIndex);
  return TRUE;
}

BOOL AddAce(PACL acl, DWORD aceRevision, DWORD startingAceIndex, LPVOID aceList,
            DWORD aceListLength) {
  BYTE* bytes = AsBytes(acl);
  AclShape shape;
  if (!ReadAclShape(bytes, kMaxAclSize, shape)) return Fail(ERROR_INVALID_PARAMETER);
  if (aceRevision < kMinAclRevision || aceRevision > kMaxAclRevision)
    return Fail(ERROR_INVALID_PARAMETER);
  if (aceListLength != 0 && aceList == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  // The new entries must tile the list exactly and suit the revision.
  const BYTE* list = AsBytes(aceList);
  std::size_t pos = 0;
  DWORD added = 0;
  while (pos < aceListLength) {
    if (pos + kAceHeader > aceListLength) return Fail(ERROR_INVALID_PARAMETER);
    const WORD size = Load<WORD>(list + pos + offsetof(ACE_HEADER, AceSize));
    if (size < kAceHeader || size % 4 != 0 || pos + size > aceListLength ||
        RevisionNeededFor(list[pos]) > aceRevision)
      return Fail(ERROR_INVALID_PARAMETER);
    pos += size;
    ++added;
  }
  if (shape.count + added > 0xFFFF) return Fail(ERROR_INVALID_PARAMETER);
  if (shape.inUse + aceListLength > shape.size) return Fail(ERROR_INSUFFICIENT_BUFFER);
  // Copy first: the list may lie inside the access list it is added to.
  const std::vector<BYTE> copy(list, list + aceListLength);
  const DWORD index = std::min<DWORD>(startingAceIndex, shape.count);
  const std::size_t at = AceOffset(bytes, index);
  std::memmove(bytes + at + aceListLength, bytes + at, shape.inUse - at);
  if (!copy.empty()) std::memcpy(bytes + at, copy.data(), copy.size());
  Store<WORD>(bytes + offsetof(ACL, AceCount), static_cast<WORD>(shape.count + added));
  if (bytes[0] < aceRevision) bytes[0] = static_cast<BYTE>(aceRevision);
  return TRUE;
}

BOOL AddAccessAllowedAce(PACL acl, DWORD aceRevision, DWORD accessMask, PSID sid) {
  return AddMaskSidAce(acl, aceRevision, ACCESS_ALLOWED_ACE_TYPE, accessMask, sid);
}

BOOL AddAccessDeniedAce(PACL acl, DWORD aceRevision, DWORD accessMask, PSID sid) {
  return AddMaskSidAce(acl, aceRevision, ACCESS_DENIED_ACE_TYPE, accessMask, sid);
}

// ---- Descriptors ----------------------------------------------------------------

BOOL IsValidSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor) {
  if (!ValidDescriptor(securityDescriptor, kMaxSelfRelativeLength))
    return Fail(ERROR_INVALID_SECURITY_DESCR);
  return TRUE;
}

DWORD GetSecurityDescriptorLength(PSECURITY_DESCRIPTOR securityDescriptor) {
  DescriptorView view;
  if (DWORD error = ReadDescriptor(securityDescriptor, kMaxSelfRelativeLength, view);
      error != ERROR_SUCCESS) {
    SetLastError(error);
    return 0;
  }
  if (IsSelfRelative(view.control)) return static_cast<DWORD>(view.extent);
  // Absolute form: the header and the parts it points to.
  std::size_t length = sizeof(SECURITY_DESCRIPTOR);
  for (const BYTE* sid : {view.owner, view.group})
    if (sid != nullptr) length += kSidHeader + 4u * sid[1];
  for (const BYTE* acl : {view.sacl, view.dacl})
    if (acl != nullptr) length += Load<WORD>(acl + offsetof(ACL, AclSize));
  return static_cast<DWORD>(length);
}

BOOL GetSecurityDescriptorControl(PSECURITY_DESCRIPTOR securityDescriptor,
                                  PSECURITY_DESCRIPTOR_CONTROL control, LPDWORD revision) {
  if (securityDescriptor == nullptr || control == nullptr || revision == nullptr)
    return Fail(ERROR_INVALID_PARAMETER);
  const BYTE* sd = AsBytes(securityDescriptor);
  *revision = sd[0];
  if (sd[0] != SECURITY_DESCRIPTOR_REVISION) return Fail(ERROR_UNKNOWN_REVISION);
  *control = Load<WORD>(sd + offsetof(SECURITY_DESCRIPTOR, Control));
  return TRUE;
}

BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR securityDescriptor, PSID* owner,
                                LPBOOL ownerDefaulted) {
  return GetSidPart(securityDescriptor, &DescriptorView::owner, SE_OWNER_DEFAULTED, owner,
                    ownerDefaulted);
}

BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR securityDescriptor, PSID* group,
                                LPBOOL groupDefaulted) {
  return GetSidPart(securityDescriptor, &DescriptorView::group, SE_GROUP_DEFAULTED, group,
                    groupDefaulted);
}

BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR securityDescriptor, LPBOOL saclPresent,
                               PACL* sacl, LPBOOL saclDefaulted) {
  return GetAclPart(securityDescriptor, &DescriptorView::sacl, SE_SACL_PRESENT, SE_SACL_DEFAULTED,
                    saclPresent, sacl, saclDefaulted);
}

BOOL GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR securityDescriptor, LPBOOL daclPresent,
                               PACL* dacl, LPBOOL daclDefaulted) {
  return GetAclPart(securityDescriptor, &DescriptorView::dacl, SE_DACL_PRESENT, SE_DACL_DEFAULTED,
                    daclPresent, dacl, daclDefaulted);
}

BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, DWORD revision) {
  if (securityDescriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  if (revision != SECURITY_DESCRIPTOR_REVISION) return Fail(ERROR_UNKNOWN_REVISION);
  std::memset(securityDescriptor, 0, sizeof(SECURITY_DESCRIPTOR));
  AsBytes(securityDescriptor)[0] = SECURITY_DESCRIPTOR_REVISION;
  return TRUE;
}

BOOL SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR securityDescriptor, PSID owner,
                                BOOL ownerDefaulted) {
  return SetPointerPart(securityDescriptor, offsetof(SECURITY_DESCRIPTOR, Owner), owner,
                        SE_OWNER_DEFAULTED, ownerDefaulted);
}

BOOL SetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR securityDescriptor, PSID group,
                                BOOL groupDefaulted) {
  return SetPointerPart(securityDescriptor, offsetof(SECURITY_DESCRIPTOR, Group), group,
                        SE_GROUP_DEFAULTED, groupDefaulted);
}

BOOL SetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR securityDescriptor, BOOL saclPresent, PACL sacl,
                               BOOL saclDefaulted) {
  return SetAclPart(securityDescriptor, offsetof(SECURITY_DESCRIPTOR, Sacl), SE_SACL_PRESENT,
                    SE_SACL_DEFAULTED, saclPresent, sacl, saclDefaulted);
}

BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR securityDescriptor, BOOL daclPresent, PACL dacl,
                               BOOL daclDefaulted) {
  return SetAclPart(securityDescriptor, offsetof(SECURITY_DESCRIPTOR, Dacl), SE_DACL_PRESENT,
                    SE_DACL_DEFAULTED, daclPresent, dacl, daclDefaulted);
}

BOOL MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absoluteSecurityDescriptor,
                        PSECURITY_DESCRIPTOR selfRelativeSecurityDescriptor, LPDWORD bufferLength) {
  if (absoluteSecurityDescriptor == nullptr || bufferLength == nullptr)
    return Fail(ERROR_INVALID_PARAMETER);
  const BYTE* absolute = AsBytes(absoluteSecurityDescriptor);
  if (absolute[0] != SECURITY_DESCRIPTOR_REVISION) return Fail(ERROR_UNKNOWN_REVISION);
  if (IsSelfRelative(Load<WORD>(absolute + offsetof(SECURITY_DESCRIPTOR, Control))))
    return Fail(ERROR_BAD_DESCRIPTOR_FORMAT);
  DescriptorView view;
  ReadDescriptor(absoluteSecurityDescriptor, 0, view); // absolute: cannot fail past the checks
  const std::size_t ownerLength = view.owner ? ValidSidLength(view.owner, kMaxSidLength) : 0;
  const std::size_t groupLength = view.group ? ValidSidLength(view.group, kMaxSidLength) : 0;
  if ((view.owner && ownerLength == 0) || (view.group && groupLength == 0))
    return Fail(ERROR_INVALID_SID);
  if ((view.sacl && !AclValid(view.sacl, kMaxAclSize)) ||
      (view.dacl && !AclValid(view.dacl, kMaxAclSize)))
    return Fail(ERROR_INVALID_ACL);
  const std::size_t saclLength = view.sacl ? Load<WORD>(view.sacl + offsetof(ACL, AclSize)) : 0;
  const std::size_t daclLength = view.dacl ? Load<WORD>(view.dacl + offsetof(ACL, AclSize)) : 0;
  const std::size_t needed = kRelativeHeader + saclLength + daclLength + ownerLength + groupLength;
  if (*bufferLength < needed) {
    *bufferLength = static_cast<DWORD>(needed);
    return Fail(ERROR_INSUFFICIENT_BUFFER);
  }
  if (selfRelativeSecurityDescriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);

  // The parts follow the header in the order system access list,
  // discretionary access list, owner, group, with no padding.
  std::vector<BYTE> out(needed, 0);
  out[0] = SECURITY_DESCRIPTOR_REVISION;
  out[1] = view.sbz1;
  Store<WORD>(out.data() + offsetof(SECURITY_DESCRIPTOR_RELATIVE, Control),
              static_cast<WORD>(view.control | SE_SELF_RELATIVE));
  std::size_t pos = kRelativeHeader;
  auto place = [&](const BYTE* part, std::size_t length, std::size_t field) {
    if (part == nullptr) return;
    std::memcpy(out.data() + pos, part, length);
    Store<DWORD>(out.data() + field, static_cast<DWORD>(pos));
    pos += length;
  };
  place(view.sacl, saclLength, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Sacl));
  place(view.dacl, daclLength, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl));
  place(view.owner, ownerLength, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner));
  place(view.group, groupLength, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Group));
  std::memcpy(selfRelativeSecurityDescriptor, out.data(), needed);
  return TRUE;
}
