// Byte builders shared by the security tests: SIDs, entries and
// descriptors written out by hand, so that the functions under test are
// checked against the published layouts rather than against themselves.
#pragma once

#include <talvern/talvern.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace sectest {

using Bytes = std::vector<std::uint8_t>;

inline void Put16(Bytes& out, std::uint16_t v) {
  out.push_back(std::uint8_t(v));
  out.push_back(std::uint8_t(v >> 8));
}
inline void Put32(Bytes& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(std::uint8_t(v >> (8 * i)));
}
inline void Append(Bytes& out, const Bytes& more) {
  out.insert(out.end(), more.begin(), more.end());
}

// S-1-<authority>-<subs...>
inline Bytes Sid(std::uint8_t authority, std::initializer_list<std::uint32_t> subs) {
  Bytes sid{1, std::uint8_t(subs.size()), 0, 0, 0, 0, 0, authority};
  for (std::uint32_t s : subs) Put32(sid, s);
  return sid;
}

inline Bytes Everyone() { return Sid(1, {0}); }
inline Bytes Administrators() { return Sid(5, {32, 544}); }
inline Bytes LocalSystem() { return Sid(5, {18}); }
inline Bytes DomainUser() { return Sid(5, {21, 1111, 2222, 3333, 1001}); }
inline Bytes DomainUsers() { return Sid(5, {21, 1111, 2222, 3333, 513}); }

// An entry holding a mask and a SID: allowed (0), denied (1), audit (2).
inline Bytes Ace(std::uint8_t type, std::uint8_t flags, std::uint32_t mask, const Bytes& sid) {
  Bytes ace{type, flags};
  Put16(ace, std::uint16_t(8 + sid.size()));
  Put32(ace, mask);
  Append(ace, sid);
  return ace;
}

inline Bytes Acl(std::initializer_list<Bytes> aces, std::uint8_t revision = 2,
                 std::size_t slack = 0) {
  std::size_t size = 8 + slack;
  for (const Bytes& a : aces) size += a.size();
  Bytes acl{revision, 0};
  Put16(acl, std::uint16_t(size));
  Put16(acl, std::uint16_t(aces.size()));
  Put16(acl, 0);
  for (const Bytes& a : aces) Append(acl, a);
  acl.resize(size, 0);
  return acl;
}

// A self-relative descriptor laid out as the system lays one out: header,
// then SACL, DACL, owner and group. Empty parts are absent; `nullDacl`
// marks a present DACL without a list.
struct Layout {
  Bytes owner, group, sacl, dacl;
  bool nullDacl = false;
  std::uint16_t extraControl = 0;
};

inline Bytes SelfRelative(const Layout& l) {
  std::uint16_t control = 0x8000 | l.extraControl;
  if (!l.sacl.empty()) control |= SE_SACL_PRESENT;
  if (!l.dacl.empty() || l.nullDacl) control |= SE_DACL_PRESENT;
  std::uint32_t pos = 20, saclAt = 0, daclAt = 0, ownerAt = 0, groupAt = 0;
  auto place = [&](const Bytes& part, std::uint32_t& at) {
    if (!part.empty()) at = pos, pos += std::uint32_t(part.size());
  };
  place(l.sacl, saclAt);
  place(l.dacl, daclAt);
  place(l.owner, ownerAt);
  place(l.group, groupAt);
  Bytes sd{1, 0};
  Put16(sd, control);
  Put32(sd, ownerAt);
  Put32(sd, groupAt);
  Put32(sd, saclAt);
  Put32(sd, daclAt);
  Append(sd, l.sacl);
  Append(sd, l.dacl);
  Append(sd, l.owner);
  Append(sd, l.group);
  return sd;
}

// A descriptor as a Windows machine would give one for a user's file:
// domain owner and group, three access entries (one inheritable) and an
// audit entry.
inline Layout WindowsLayout() {
  Layout l;
  l.owner = DomainUser();
  l.group = DomainUsers();
  l.dacl = Acl({Ace(0, 0, 0x001F01FF, DomainUser()), Ace(1, 0, 0x00000002, Everyone()),
                Ace(0, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, 0x001200A9, Administrators())});
  l.sacl = Acl({Ace(2, FAILED_ACCESS_ACE_FLAG, 0x00010000, Everyone())});
  return l;
}

// A byte array with exactly the size of the data, so that the sanitizer
// sees any read past its end.
inline std::vector<std::uint8_t> Exact(const std::uint8_t* data, std::size_t n) {
  return std::vector<std::uint8_t>(data, data + n);
}

} // namespace sectest
