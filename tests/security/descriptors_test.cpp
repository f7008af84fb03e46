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
  ACL_REVISION_INFORMATION revision{};
  ASSERT_TRUE(GetAclInformation(A(acl), &revision, sizeof revision, AclRevisionInformation));
  EXPECT_EQ(revision.AclRevision, 2u);
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
