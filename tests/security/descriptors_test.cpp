// SIDs, access lists and descriptors: byte layouts, error codes and the
// checks that keep hostile bytes from being read out of bounds.
#include "platform/security_internal.h"
#include "security/security_fixtures.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

using namespace sectest;

namespace {

PSID P(Bytes& b) { return b.data(); }
PACL A(Bytes& b) { return reinterpret_cast<PACL>(b.data()); }

TEST(Sid, LayoutAndErrors) {
  Bytes sid(16, 0xCC);
  SID_IDENTIFIER_AUTHORITY nt{{0, 0, 0, 0, 0, 5}};
  ASSERT_TRUE(InitializeSid(P(sid), &nt, 2));
  *GetSidSubAuthority(P(sid), 0) = 32;
  *GetSidSubAuthority(P(sid), 1) = 544;
  EXPECT_EQ(sid, Administrators());
  EXPECT_EQ(GetLengthSid(P(sid)), 16u);
  EXPECT_EQ(GetSidLengthRequired(2), 16u);
  EXPECT_EQ(*GetSidSubAuthorityCount(P(sid)), 2);

  SetLastError(0);
  EXPECT_EQ(GetSidSubAuthority(P(sid), 2), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(InitializeSid(P(sid), &nt, 16));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  Bytes copy(16);
  EXPECT_FALSE(CopySid(15, P(copy), P(sid)));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  ASSERT_TRUE(CopySid(16, P(copy), P(sid)));
  EXPECT_TRUE(EqualSid(P(copy), P(sid)));
  Bytes other = LocalSystem();
  SetLastError(99);
  EXPECT_FALSE(EqualSid(P(other), P(sid)));
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

  Bytes badRevision = Administrators(), tooMany = Administrators();
  badRevision[0] = 2;
  tooMany[1] = 16;
  for (Bytes* bad : {&badRevision, &tooMany}) {
    EXPECT_FALSE(IsValidSid(P(*bad)));
    EXPECT_EQ(GetLengthSid(P(*bad)), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SID);
    EXPECT_EQ(GetSidSubAuthorityCount(P(*bad)), nullptr);
    EXPECT_FALSE(EqualSid(P(*bad), P(sid)));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SID);
  }
}

TEST(Acl, LayoutSizesAndErrors) {
  Bytes acl(64, 0xCC);
  EXPECT_FALSE(InitializeAcl(A(acl), 4, ACL_REVISION));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  for (DWORD length : {30u, 0x10000u}) {
    EXPECT_FALSE(InitializeAcl(A(acl), length, ACL_REVISION));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
  EXPECT_FALSE(InitializeAcl(A(acl), 48, 1));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  ASSERT_TRUE(InitializeAcl(A(acl), 48, ACL_REVISION));
  Bytes everyone = Everyone(), admins = Administrators();
  ASSERT_TRUE(AddAccessAllowedAce(A(acl), ACL_REVISION, 0x001F01FF, P(everyone)));
  EXPECT_FALSE(AddAccessDeniedAce(A(acl), ACL_REVISION, 1, P(admins))); // 24 bytes, 20 left
  EXPECT_EQ(GetLastError(), ERROR_ALLOTTED_SPACE_EXCEEDED);
  Bytes expected = Acl({Ace(0, 0, 0x001F01FF, Everyone())}, 2, 20);
  EXPECT_EQ(Bytes(acl.begin(), acl.begin() + 28), Bytes(expected.begin(), expected.begin() + 28));

  ACL_SIZE_INFORMATION size{};
  ASSERT_TRUE(GetAclInformation(A(acl), &size, sizeof size, AclSizeInformation));
  EXPECT_EQ(size.AceCount, 1u);
  EXPECT_EQ(size.AclBytesInUse, 28u);
  EXPECT_EQ(size.AclBytesFree, 20u);
  EXPECT_FALSE(GetAclInformation(A(acl), &size, 8, AclSizeInformation));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_FALSE(GetAclInformation(A(acl), &size, sizeof size, ACL_INFORMATION_CLASS(3)));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  Bytes badSid = Everyone();
  badSid[0] = 7;
  EXPECT_FALSE(AddAccessAllowedAce(A(acl), ACL_REVISION, 1, P(badSid)));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_SID);
  EXPECT_FALSE(AddAccessAllowedAce(A(acl), 5, 1, P(everyone)));
  EXPECT_EQ(GetLastError(), ERROR_REVISION_MISMATCH);
  Bytes broken = acl;
  broken[0] = 9;
  EXPECT_FALSE(AddAccessAllowedAce(A(broken), ACL_REVISION, 1, P(everyone)));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_ACL);

  LPVOID ace = nullptr;
  ASSERT_TRUE(GetAce(A(acl), 0, &ace));
  EXPECT_EQ(ace, acl.data() + 8);
  EXPECT_FALSE(GetAce(A(acl), 1, &ace));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Acl, AddAcePlacesEntriesAndRaisesRevision) {
  const Bytes first = Ace(0, 0, 1, Everyone()), second = Ace(1, 0, 2, LocalSystem()),
              third = Ace(0, 0, 4, Administrators());
  Bytes acl = Acl({first, third}, 2, 64);
  Bytes list = second;
  ASSERT_TRUE(AddAce(A(acl), ACL_REVISION, 1, list.data(), DWORD(list.size())));
  Bytes tail = Ace(0, 0, 8, Everyone());
  ASSERT_TRUE(AddAce(A(acl), ACL_REVISION_DS, MAXDWORD, tail.data(), DWORD(tail.size())));
  Bytes head = Ace(1, 0, 16, Everyone());
  ASSERT_TRUE(AddAce(A(acl), ACL_REVISION, 0, head.data(), DWORD(head.size())));
  Bytes expected = Acl({head, first, second, third, tail}, 4);
  expected[2] = acl[2], expected[3] = acl[3]; // the buffer keeps its size
  EXPECT_EQ(Bytes(acl.begin(), acl.begin() + expected.size()), expected);

  // An entry list that does not tile its length, one that needs a later
  // revision, and one that does not fit.
  Bytes ragged = first;
  EXPECT_FALSE(AddAce(A(acl), ACL_REVISION, 0, ragged.data(), DWORD(ragged.size() - 4)));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  Bytes object{5, 0, 12, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_FALSE(AddAce(A(acl), ACL_REVISION, 0, object.data(), 12));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  Bytes big(80, 0);
  big[2] = 80;
  EXPECT_FALSE(AddAce(A(acl), ACL_REVISION, 0, big.data(), 80));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

TEST(Acl, ValidationLooksInsideEntries) {
  Bytes good = Acl({Ace(0, 0, 1, Everyone()), Ace(1, INHERIT_ONLY_ACE, 2, LocalSystem())});
  EXPECT_TRUE(IsValidAcl(A(good)));
  Bytes badSid = good;
  badSid[8 + 8] = 2; // the first entry's SID revision
  EXPECT_FALSE(IsValidAcl(A(badSid)));
  Bytes shortEntry = good;
  shortEntry[8 + 2] = 12; // the entry ends inside its SID
  EXPECT_FALSE(IsValidAcl(A(shortEntry)));

  // Object entries (SID after the mask, flags and optional GUIDs) need the
  // later revision; entries of kinds the checks do not know pass on size.
  Bytes object{5, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  Append(object, Everyone());
  object[2] = std::uint8_t(object.size());
  EXPECT_FALSE(IsValidAcl(A(*std::make_unique<Bytes>(Acl({object}, 2)))));
  EXPECT_TRUE(IsValidAcl(A(*std::make_unique<Bytes>(Acl({object}, 4)))));
  object[8] = 1; // an object type GUID is said to follow: the SID no longer fits
  EXPECT_FALSE(IsValidAcl(A(*std::make_unique<Bytes>(Acl({object}, 4)))));
  Bytes label = Ace(0x11, 0, 1, Sid(16, {0x3000}));
  EXPECT_TRUE(IsValidAcl(A(*std::make_unique<Bytes>(Acl({label})))));
}

// Builds WindowsLayout() through the Set functions and MakeSelfRelativeSD.
TEST(Descriptor, MakeSelfRelativeGivesThePublishedLayout) {
  Layout l = WindowsLayout();
  SECURITY_DESCRIPTOR absolute;
  ASSERT_TRUE(InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION));
  ASSERT_TRUE(SetSecurityDescriptorOwner(&absolute, P(l.owner), FALSE));
  ASSERT_TRUE(SetSecurityDescriptorGroup(&absolute, P(l.group), FALSE));
  ASSERT_TRUE(SetSecurityDescriptorSacl(&absolute, TRUE, A(l.sacl), FALSE));
  ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, A(l.dacl), FALSE));
  const Bytes expected = SelfRelative(l);

  DWORD length = 0;
  EXPECT_FALSE(MakeSelfRelativeSD(&absolute, nullptr, &length));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  ASSERT_EQ(length, expected.size());
  Bytes relative(length);
  ASSERT_TRUE(MakeSelfRelativeSD(&absolute, relative.data(), &length));
  EXPECT_EQ(relative, expected);
  EXPECT_EQ(GetSecurityDescriptorLength(&absolute),
            sizeof(SECURITY_DESCRIPTOR) + expected.size() - 20);

  // Read back through the query functions.
  PSECURITY_DESCRIPTOR sd = relative.data();
  EXPECT_TRUE(IsValidSecurityDescriptor(sd));
  EXPECT_EQ(GetSecurityDescriptorLength(sd), expected.size());
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  ASSERT_TRUE(GetSecurityDescriptorControl(sd, &control, &revision));
  EXPECT_EQ(control, SE_SELF_RELATIVE | SE_SACL_PRESENT | SE_DACL_PRESENT);
  EXPECT_EQ(revision, 1u);
  PSID owner = nullptr;
  BOOL defaulted = TRUE, present = FALSE;
  ASSERT_TRUE(GetSecurityDescriptorOwner(sd, &owner, &defaulted));
  EXPECT_EQ(owner, relative.data() + 20 + l.sacl.size() + l.dacl.size());
  EXPECT_FALSE(defaulted);
  PACL dacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_EQ(reinterpret_cast<BYTE*>(dacl), relative.data() + 20 + l.sacl.size());

  // What may be done to which form.
  EXPECT_FALSE(SetSecurityDescriptorOwner(sd, nullptr, FALSE));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
  EXPECT_FALSE(MakeSelfRelativeSD(sd, relative.data(), &length));
  EXPECT_EQ(GetLastError(), ERROR_BAD_DESCRIPTOR_FORMAT);
  EXPECT_FALSE(InitializeSecurityDescriptor(&absolute, 2));
  EXPECT_EQ(GetLastError(), ERROR_UNKNOWN_REVISION);
  relative[0] = 2;
  EXPECT_FALSE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
  EXPECT_EQ(GetLastError(), ERROR_UNKNOWN_REVISION);
}

TEST(Descriptor, FlagsAndNullLists) {
  SECURITY_DESCRIPTOR absolute;
  InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
  Bytes owner = LocalSystem();
  ASSERT_TRUE(SetSecurityDescriptorOwner(&absolute, P(owner), TRUE));
  ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, TRUE));
  DWORD length = 64;
  Bytes relative(64);
  ASSERT_TRUE(MakeSelfRelativeSD(&absolute, relative.data(), &length));
  Layout l;
  l.owner = LocalSystem();
  l.nullDacl = true;
  l.extraControl = SE_OWNER_DEFAULTED | SE_DACL_DEFAULTED;
  const Bytes expected = SelfRelative(l);
  EXPECT_EQ(Bytes(relative.begin(), relative.begin() + expected.size()), expected);

  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = reinterpret_cast<PACL>(&absolute);
  ASSERT_TRUE(GetSecurityDescriptorDacl(relative.data(), &present, &dacl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_EQ(dacl, nullptr);
  EXPECT_TRUE(defaulted);

  // Absent: the flag goes, whatever list and defaulted flag come with it.
  ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, FALSE, nullptr, TRUE));
  ASSERT_TRUE(GetSecurityDescriptorDacl(&absolute, &present, &dacl, &defaulted));
  EXPECT_FALSE(present);
  EXPECT_EQ(absolute.Control & (SE_DACL_PRESENT), 0);
}

// Damaged descriptors: each case names the damage.
TEST(Descriptor, CorruptAndTruncatedBytesAreRejected) {
  const Bytes good = SelfRelative(WindowsLayout());
  ASSERT_TRUE(talvern::platform::IsValidSelfRelativeDescriptor(good.data(), good.size()));
  for (std::size_t n = 0; n < good.size(); ++n) {
    const Bytes cut = Exact(good.data(), n);
    EXPECT_FALSE(talvern::platform::IsValidSelfRelativeDescriptor(cut.data(), n)) << n;
  }
  const std::size_t saclAt = 20, daclAt = saclAt + WindowsLayout().sacl.size();
  struct Damage {
    const char* what;
    std::size_t at;
    std::uint32_t value;
    int width;
    bool seenWithoutLength; // whether the damage shows without knowing the length
  };
  const Damage damages[] = {
      {"owner offset inside the header", 4, 8, 4, true},
      {"owner offset not DWORD-aligned", 4, std::uint32_t(good.size() - 17), 4, true},
      {"DACL offset past the end", 16, 0x10000, 4, true},
      {"DACL size past the end", daclAt + 2, 0x200, 2, false},
      {"DACL size not a DWORD multiple", daclAt + 2, 30, 2, true},
      {"more DACL entries than its size holds", daclAt + 4, 9, 2, true},
      {"unknown ACL revision", daclAt, 7, 1, true},
      {"entry size below its header", daclAt + 8 + 2, 2, 2, true},
      {"SID with 16 sub-authorities in an entry", daclAt + 8 + 8 + 1, 16, 1, true},
      {"SACL entry SID revision", saclAt + 8 + 8, 3, 1, true},
      {"descriptor revision", 0, 2, 1, true},
  };
  std::vector<std::uint8_t> padded(talvern::platform::kMaxSelfRelativeLength, 0);
  for (const Damage& d : damages) {
    Bytes bad = good;
    for (int i = 0; i < d.width; ++i) bad[d.at + i] = std::uint8_t(d.value >> (8 * i));
    EXPECT_FALSE(talvern::platform::IsValidSelfRelativeDescriptor(bad.data(), bad.size()))
        << d.what;
    std::copy(bad.begin(), bad.end(), padded.begin());
    if (d.seenWithoutLength) {
      EXPECT_FALSE(IsValidSecurityDescriptor(padded.data())) << d.what;
    }
  }
}

// Random damage to a valid descriptor must never lead any function outside
// the bytes it may read (the sanitizer build watches), and what the check
// that knows the length accepts, the others accept too.
TEST(Descriptor, RandomMutationsNeverReadOutOfBounds) {
  const Bytes good = SelfRelative(WindowsLayout());
  std::mt19937 random(20240611);
  std::vector<std::uint8_t> padded(talvern::platform::kMaxSelfRelativeLength, 0);
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes = good;
    const int edits = 1 + int(random() % 4);
    for (int e = 0; e < edits; ++e) {
      const std::size_t at = random() % bytes.size();
      switch (random() % 3) {
      case 0:
        bytes[at] = std::uint8_t(random());
        break;
      case 1:
        bytes[at] ^= std::uint8_t(1u << (random() % 8));
        break;
      default:
        bytes[at] = std::uint8_t(random() % 2 ? 0xFF : random() % 0x80);
        break;
      }
    }
    const std::size_t length = random() % 8 == 0 ? random() % bytes.size() : bytes.size();
    const Bytes exact = Exact(bytes.data(), length);
    const bool bounded = talvern::platform::IsValidSelfRelativeDescriptor(exact.data(), length);

    // Without the self-relative flag the header holds pointers, which
    // nothing can check; a reader that knows the length refuses such bytes.
    if ((bytes[3] & 0x80) == 0) {
      EXPECT_FALSE(bounded);
      continue;
    }
    std::copy(bytes.begin(), bytes.end(), padded.begin());
    PSECURITY_DESCRIPTOR sd = padded.data();
    const bool unbounded = IsValidSecurityDescriptor(sd);
    if (bounded) {
      ++accepted;
      EXPECT_TRUE(unbounded);
      EXPECT_LE(GetSecurityDescriptorLength(sd), length);
    }
    GetSecurityDescriptorLength(sd);
    PSID sid = nullptr;
    PACL acl = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    if (GetSecurityDescriptorOwner(sd, &sid, &defaulted) && sid) IsValidSid(sid);
    if (GetSecurityDescriptorGroup(sd, &sid, &defaulted) && sid) GetLengthSid(sid);
    for (auto get : {GetSecurityDescriptorSacl, GetSecurityDescriptorDacl}) {
      if (!get(sd, &present, &acl, &defaulted) || acl == nullptr) continue;
      IsValidAcl(acl);
      ACL_SIZE_INFORMATION info{};
      if (!GetAclInformation(acl, &info, sizeof info, AclSizeInformation)) continue;
      for (DWORD i = 0; i < info.AceCount; ++i) {
        LPVOID ace = nullptr;
        ASSERT_TRUE(GetAce(acl, i, &ace));
      }
    }
  }
  EXPECT_GT(accepted, 0); // some damage leaves a valid descriptor
}

} // namespace
