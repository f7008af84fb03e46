// Capturing an item's descriptor into an entry, and rebuilding stored bytes
// into an absolute descriptor for file creation.
#include "operations/security.h"
#include "platform/security_internal.h"
#include "security/security_fixtures.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <random>

using namespace sectest;

namespace {

Bytes EntryBytes(const CArchiveEntry& entry) {
  if (entry.Security == nullptr || entry.Security->Data == nullptr) return {};
  return Bytes(entry.Security->Data, entry.Security->Data + entry.Security->Length);
}

TEST(CaptureSecurity, FailsWithoutThePrivilegeAndEmptiesTheBlock) {
  talvern::SetPrivilegeHeld(WTEXT("SeSecurityPrivilege"), FALSE);
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "x");
  CArchiveEntry entry;
  entry.Security->Data = new BYTE[3]{1, 2, 3};
  entry.Security->Length = 3;
  EXPECT_EQ(CaptureSecurity(dir.Win("f").c_str(), entry), ERROR_NOT_ALL_ASSIGNED);
  EXPECT_EQ(entry.Security->Length, 0u);
  EXPECT_EQ(entry.Security->Data, nullptr);
}

// What the rebuilt array holds: an absolute descriptor, then its own copies
// of group, owner, SACL and DACL, in that order.
TEST(BuildAbsolute, CopiesEveryPartInOrder) {
  Layout l = WindowsLayout();
  l.dacl = Acl({Ace(0, 0, 1, DomainUser()), Ace(1, 0, 2, Everyone()), Ace(0, 0, 3, LocalSystem())},
               2, 12); // free space in a stored list is not copied
  const Bytes stored = SelfRelative(l);
  auto built = BuildAbsoluteSecurityDescriptor(stored.data());
  ASSERT_TRUE(built);
  PSECURITY_DESCRIPTOR sd = built.get();
  ASSERT_TRUE(IsValidSecurityDescriptor(sd));
  SECURITY_DESCRIPTOR header;
  std::memcpy(&header, sd, sizeof header);
  EXPECT_EQ(header.Control, SE_SACL_PRESENT | SE_DACL_PRESENT);
  BYTE* base = built.get();
  const std::size_t groupAt = sizeof(SECURITY_DESCRIPTOR), ownerAt = groupAt + l.group.size();
  const std::size_t saclAt = ownerAt + l.owner.size(), daclAt = saclAt + l.sacl.size();
  EXPECT_EQ(header.Group, base + groupAt);
  EXPECT_EQ(header.Owner, base + ownerAt);
  EXPECT_EQ(reinterpret_cast<BYTE*>(header.Sacl), base + saclAt);
  EXPECT_EQ(reinterpret_cast<BYTE*>(header.Dacl), base + daclAt);
  EXPECT_EQ(Bytes(base + groupAt, base + ownerAt), l.group);
  EXPECT_EQ(Bytes(base + ownerAt, base + saclAt), l.owner);
  EXPECT_EQ(Bytes(base + saclAt, base + daclAt), l.sacl);
  Bytes compactDacl = l.dacl;
  compactDacl.resize(l.dacl.size() - 12);
  compactDacl[2] = std::uint8_t(compactDacl.size());
  EXPECT_EQ(Bytes(base + daclAt, base + daclAt + compactDacl.size()), compactDacl);
  EXPECT_EQ(CalcAclSize(header.Dacl), compactDacl.size());
}

TEST(BuildAbsolute, KeepsPresenceAndDefaultedFlags) {
  Layout l;
  l.owner = LocalSystem();
  l.nullDacl = true;
  l.extraControl = SE_OWNER_DEFAULTED | SE_DACL_DEFAULTED;
  auto built = BuildAbsoluteSecurityDescriptor(SelfRelative(l).data());
  ASSERT_TRUE(built);
  BOOL present = FALSE, defaulted = FALSE;
  PACL acl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(built.get(), &present, &acl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_EQ(acl, nullptr);
  EXPECT_TRUE(defaulted);
  ASSERT_TRUE(GetSecurityDescriptorSacl(built.get(), &present, &acl, &defaulted));
  EXPECT_FALSE(present);
  PSID group = built.get();
  ASSERT_TRUE(GetSecurityDescriptorGroup(built.get(), &group, &defaulted));
  EXPECT_EQ(group, nullptr);
  // Made self-relative again it is the stored descriptor.
  DWORD length = 256;
  Bytes again(length);
  ASSERT_TRUE(MakeSelfRelativeSD(built.get(), again.data(), &length));
  again.resize(SelfRelative(l).size());
  EXPECT_EQ(again, SelfRelative(l));
}

TEST(BuildAbsolute, DamagedBytesGiveNull) {
  const Bytes good = SelfRelative(WindowsLayout());
  ASSERT_TRUE(BuildAbsoluteSecurityDescriptor(good.data(), DWORD(good.size())));
  for (std::size_t n = 0; n < good.size(); ++n) {
    const Bytes cut = Exact(good.data(), n);
    EXPECT_FALSE(BuildAbsoluteSecurityDescriptor(cut.data(), DWORD(n))) << n;
  }
  Bytes bad = good;
  bad[20] = 9; // SACL revision
  EXPECT_FALSE(BuildAbsoluteSecurityDescriptor(bad.data()));
  bad = good;
  bad[3] &= 0x7F; // no longer self-relative: the header would hold pointers
  EXPECT_FALSE(BuildAbsoluteSecurityDescriptor(bad.data(), DWORD(bad.size())));

  // Random damage to a stored block never reads past it.
  std::mt19937 random(7);
  for (int round = 0; round < 5000; ++round) {
    Bytes bytes = good;
    for (int e = 0; e < 3; ++e) bytes[random() % bytes.size()] = std::uint8_t(random());
    const Bytes exact = Exact(bytes.data(), bytes.size());
    auto built = BuildAbsoluteSecurityDescriptor(exact.data(), DWORD(exact.size()));
    if (built) {
      EXPECT_TRUE(IsValidSecurityDescriptor(built.get()));
    }
  }
}

// The way a descriptor takes from a file through an archive entry onto a
// new file, and back: the bytes are those captured.
TEST(BuildAbsolute, CaptureRestoreCaptureKeepsTheBytes) {
  talvern::SetPrivilegeHeld(WTEXT("SeSecurityPrivilege"), TRUE);
  test::TempDir dir;
  test::WriteFile(dir.Host("a"), "x");
  test::WriteFile(dir.Host("b"), "x");
  const Bytes given = SelfRelative(WindowsLayout());
  ASSERT_EQ(talvern::platform::ApplySecurityOnCreate(dir.Host("a"), false,
                                                     const_cast<BYTE*>(given.data())),
            ERROR_SUCCESS);
  CArchiveEntry entry;
  ASSERT_EQ(CaptureSecurity(dir.Win("a").c_str(), entry), ERROR_SUCCESS);
  EXPECT_EQ(EntryBytes(entry), given);
  EXPECT_TRUE(talvern::platform::IsPrivilegeEnabled(WTEXT("SeSecurityPrivilege")));
  auto built = BuildAbsoluteSecurityDescriptor(entry.Security->Data, entry.Security->Length);
  ASSERT_TRUE(built);
  ASSERT_EQ(talvern::platform::ApplySecurityOnCreate(dir.Host("b"), false, built.get()),
            ERROR_SUCCESS);
  CArchiveEntry again;
  ASSERT_EQ(CaptureSecurity(dir.Win("b").c_str(), again), ERROR_SUCCESS);
  EXPECT_EQ(EntryBytes(again), given);
}

} // namespace
