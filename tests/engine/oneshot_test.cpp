// The one-shot functions between memory blocks: block layout, the
// validation order and the error codes.
#include "engine_test_util.h"

#include <talvern/oneshot.h>

#include <gtest/gtest.h>

#include <cstring>

using namespace enginetest;

namespace {

struct Result {
  int ok;
  DWORD error;
  DWORD size;
};

Result CompressTo(const void* source, DWORD sourceSize, void* destination, DWORD capacity,
                  DWORD method, DWORD errorIn = 0) {
  Result r{0, errorIn, 0xDEAD};
  r.ok = GetCompressMemToMem(source, sourceSize, &r.error, &r.size, destination, capacity, method);
  return r;
}

Result ExpandTo(const void* source, DWORD sourceSize, void* destination, DWORD capacity,
                DWORD errorIn = 0) {
  Result r{0, errorIn, 0xDEAD};
  r.ok = GetExpandMemToMem(source, sourceSize, &r.error, &r.size, destination, capacity);
  return r;
}

Bytes Block(const Bytes& data, DWORD method) {
  Bytes out(data.size() * 9 / 8 + 64);
  const Result r = CompressTo(data.data(), static_cast<DWORD>(data.size()), out.data(),
                              static_cast<DWORD>(out.size()), method);
  EXPECT_TRUE(r.ok);
  out.resize(r.size);
  return out;
}

void PutLe32(Bytes& block, std::size_t at, DWORD value) {
  for (int i = 0; i < 4; ++i) block[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

TEST(OneShot, PublishedBlocks) {
  EXPECT_EQ((Bytes{0x43, 0x4D, 0x00, 0x00, 0xD0, 0x98, 0x65, 0xCA, 0x03, 0x00, 0x00, 0x00, 0x03,
                   0x00, 0x00, 0x00, 0x61, 0x62, 0x63}),
            Block(FromString("abc"), 0));
  EXPECT_EQ((Bytes{0x43, 0x4D, 0x01, 0x00, 0xEF, 0x38, 0xAC, 0xC3, 0x06, 0x00, 0x00, 0x00,
                   0x08, 0x00, 0x00, 0x00, 0x30, 0x98, 0x8C, 0x70, 0x00, 0x01, 0x7F, 0xC0}),
            Block(FromString("abcabc"), 1));
}

TEST(OneShot, CompressErrors) {
  Bytes out(100);
  Result r = CompressTo("abc", 3, out.data(), 15, 0, 7);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(ERROR_INVALID_USER_BUFFER, r.error);
  EXPECT_EQ(0u, r.size);

  // Room for the header but not for the data: an error, never a cut block,
  // with both methods and with a size query.
  const Bytes data = TextLike(5000, 2);
  const Bytes stream = Block(data, 1);
  for (DWORD method : {0u, 1u}) {
    const DWORD need = static_cast<DWORD>(method ? stream.size() : data.size() + 16);
    Bytes room(need);
    r = CompressTo(data.data(), 5000, room.data(), need - 1, method);
    EXPECT_FALSE(r.ok) << method;
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, r.error);
    EXPECT_EQ(0u, r.size);
    r = CompressTo(data.data(), 5000, nullptr, need - 1, method);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, r.error);
    r = CompressTo(data.data(), 5000, room.data(), need, method);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(need, r.size);
  }
}

TEST(OneShot, ExpandValidatesInOrder) {
  const Bytes data = TextLike(3000, 9);
  const Bytes good = Block(data, 1);
  Bytes out(3000, 0x5A);
  const DWORD size = static_cast<DWORD>(good.size());

  // 13: no block, a short one, a wrong signature (even with other faults).
  EXPECT_EQ(ERROR_INVALID_DATA, ExpandTo(nullptr, 100, out.data(), 3000).error);
  EXPECT_EQ(ERROR_INVALID_DATA, ExpandTo(good.data(), 15, out.data(), 3000).error);
  Bytes bad = good;
  bad[1] = 'N';
  bad[2] = 9;
  EXPECT_EQ(ERROR_INVALID_DATA, ExpandTo(bad.data(), size, out.data(), 3000).error);
  // 1804 before 87: the method is checked first.
  bad = good;
  bad[2] = 2;
  PutLe32(bad, 12, 1000000);
  EXPECT_EQ(ERROR_INVALID_DATATYPE, ExpandTo(bad.data(), size, out.data(), 3000).error);
  bad[3] = 1; // method 0x0101
  EXPECT_EQ(ERROR_INVALID_DATATYPE, ExpandTo(bad.data(), size, out.data(), 3000).error);
  // 87 before 1784.
  bad = good;
  PutLe32(bad, 12, size - 15);
  PutLe32(bad, 8, 1000000);
  EXPECT_EQ(ERROR_INVALID_PARAMETER, ExpandTo(bad.data(), size, out.data(), 3000).error);
  // 1784 when the original does not fit, before anything is written.
  Result r = ExpandTo(good.data(), size, out.data(), 2999, 3);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(ERROR_INVALID_USER_BUFFER, r.error);
  EXPECT_EQ(0u, r.size);
  EXPECT_EQ(Bytes(3000, 0x5A), out);
  // 23 when the CRC differs, after the data was expanded.
  bad = good;
  bad[4] ^= 1;
  r = ExpandTo(bad.data(), size, out.data(), 3000, 3);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(ERROR_CRC, r.error);
  EXPECT_EQ(0u, r.size);
  EXPECT_EQ(data, out);
  // The good block expands and keeps the caller's error value.
  r = ExpandTo(good.data(), size, out.data(), 3000, 3);
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(3u, r.error);
  EXPECT_EQ(3000u, r.size);
  EXPECT_EQ(data, out);
  // Extra bytes after the block are allowed.
  Bytes longer = good;
  longer.resize(good.size() + 10, 0xCC);
  EXPECT_TRUE(ExpandTo(longer.data(), size + 10, out.data(), 3000).ok);
}

} // namespace
