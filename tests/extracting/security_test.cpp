// Stored security descriptors given to extracted items, and damaged ones
// that must not fail an extraction.
#include "fixture.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace xt {
namespace {

// The self-relative descriptor the system gives for a host file with the
// given permission bits.
std::vector<std::uint8_t> SampleDescriptor(const std::string& host, fs::perms perms) {
  WriteFile(host, "sample");
  fs::permissions(host, perms);
  auto bytes = test::DescriptorOf(talvern::HostPathToWindows(host));
  EXPECT_FALSE(bytes.empty());
  fs::remove(host);
  return bytes;
}

fs::perms PermsOf(const std::string& host) {
  return fs::status(host).permissions() & fs::perms::all;
}

constexpr fs::perms kUnusual = fs::perms::owner_read | fs::perms::owner_write |
                               fs::perms::others_read; // 0604: no default gives that

TEST_F(ExtractTest, DamagedDescriptorsFallBackToDefaultSecurity) {
  const auto good = SampleDescriptor(tmp.Host("sample"), kUnusual);
  std::vector<std::vector<std::uint8_t>> damaged;
  damaged.push_back(RandomBytes(64, 9));                              // noise
  damaged.emplace_back(good.begin(), good.begin() + good.size() / 2); // cut short
  damaged.emplace_back(good.begin(), good.begin() + 19);              // header cut
  auto farOffset = good;
  farOffset[4] = 0xF0; // owner offset far beyond the block
  damaged.push_back(farOffset);
  auto absolute = good;
  absolute[3] &= 0x7F; // no longer marked self-relative: offsets read as pointers
  damaged.push_back(absolute);

  std::vector<Item> items;
  for (size_t i = 0; i < damaged.size(); ++i) {
    Item f = File("", "f" + std::to_string(i), "data " + std::to_string(i));
    f.Security = damaged[i];
    items.push_back(f);
  }
  WriteArchive(items);

  ASSERT_EQ(1, ExpandAll()) << archive.GetErrorCode();
  for (size_t i = 0; i < damaged.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ("data " + std::to_string(i), ReadText(Out("f" + std::to_string(i))));
    EXPECT_NE(kUnusual, PermsOf(Out("f" + std::to_string(i))));
  }
}

} // namespace
} // namespace xt
