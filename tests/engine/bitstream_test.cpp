// The bit stream: bit order, padding, the 1024-byte buffer and its edges,
// reading past the end, and turning between reading and writing.
#include "engine/bitstream.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

// A bit stream writing into a vector-backed memory block.
struct Writer {
  Bytes block;
  CFileBit bits;
  explicit Writer(std::size_t capacity = 1 << 16) : block(capacity) {
    bits.SetMemory(block.data(), block.size());
    bits.Allocate();
  }
  Bytes Finish() {
    bits.Finish();
    return Bytes(block.begin(), block.begin() + static_cast<long>(bits.Position.GetValue()));
  }
};

TEST(BitStream, FirstBitsLandAtTheTopOfTheFirstByte) {
  Writer a;
  a.bits.WriteBits(9, 0x1FF);
  EXPECT_EQ((Bytes{0xFF, 0x80}), a.Finish());

  Writer b;
  b.bits.WriteBits(3, 5);
  b.bits.WriteBits(9, 0x100);
  EXPECT_EQ((Bytes{0xB0, 0x00}), b.Finish());

  Writer c;
  c.bits.WriteTopBits(4, 0xA0000000u | 0x0FFFFFFFu); // only the top four bits count
  c.bits.WriteBits(32, 0x12345678u);
  EXPECT_EQ((Bytes{0xA1, 0x23, 0x45, 0x67, 0x80}), c.Finish());
}

TEST(BitStream, AFullBufferIsHandedOnOnlyWhenTheNextByteNeedsRoom) {
  Writer w;
  for (int i = 0; i < 1024; ++i) w.bits.WriteBits(8, static_cast<DWORD>(i));
  EXPECT_EQ(0u, w.bits.Position.GetValue());
  EXPECT_EQ(1024u, w.bits.WriteFill);
  w.bits.WriteBits(4, 0xF);
  EXPECT_EQ(0u, w.bits.Position.GetValue()); // a partial byte needs no room yet
  w.bits.WriteBits(4, 0x1);
  EXPECT_EQ(1024u, w.bits.Position.GetValue());
  EXPECT_EQ(1u, w.bits.WriteFill);
  const Bytes out = w.Finish();
  ASSERT_EQ(1025u, out.size());
  EXPECT_EQ(0xF1, out[1024]);
  EXPECT_EQ(0xFF, out[255]);
}

TEST(BitStream, ReadingPastTheEndGivesZeroBitsAndShort) {
  const BYTE one = 0xFF;
  CFileBit bits;
  bits.SetMemory(&one, 1);
  bits.Allocate();
  EXPECT_EQ(0x1FEu, bits.ReadBits(9));
  EXPECT_TRUE(bits.IsShort());
  EXPECT_EQ(0u, bits.ReadBits(16));
  EXPECT_TRUE(bits.IsShort());
  EXPECT_FALSE(bits.HasError());
}

TEST(BitStream, AShortButNonEmptyRefillIsGoodData) {
  Bytes data(1500);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(i * 7);
  CFileBit bits;
  bits.SetMemory(data.data(), data.size());
  bits.Allocate();
  for (std::size_t i = 0; i < 1024; ++i) ASSERT_EQ(data[i], bits.ReadBits(8));
  EXPECT_FALSE(bits.IsShort());
  EXPECT_EQ(data[1024], bits.ReadBits(8)); // the second refill delivers 476 bytes
  EXPECT_FALSE(bits.IsShort());
  for (std::size_t i = 1025; i < 1500; ++i) ASSERT_EQ(data[i], bits.ReadBits(8));
  EXPECT_FALSE(bits.IsShort());
  EXPECT_EQ(0u, bits.ReadBits(1));
  EXPECT_TRUE(bits.IsShort());
}

TEST(BitStream, FieldsOfEveryWidthSurviveBufferEdges) {
  std::mt19937 random(42);
  std::vector<std::pair<unsigned, DWORD>> fields;
  Writer w(1 << 20);
  for (int i = 0; i < 20000; ++i) {
    const unsigned n = 1 + random() % 32;
    const DWORD value = static_cast<DWORD>(random()) & (n == 32 ? ~0u : (1u << n) - 1);
    fields.emplace_back(n, value);
    w.bits.WriteBits(n, value);
  }
  const Bytes out = w.Finish();
  CFileBit bits;
  bits.SetMemory(out.data(), out.size());
  bits.Allocate();
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const auto [n, value] = fields[i];
    if (i % 2)
      ASSERT_EQ(value, bits.ReadBits(n)) << "field " << i;
    else
      ASSERT_EQ(n == 32 ? value : value << (32 - n), bits.ReadTopBits(n)) << "field " << i;
  }
  EXPECT_FALSE(bits.IsShort());
}

TEST(BitStream, TurningAroundDropsUnreadInputAndPadsOutput) {
  Bytes block = {0xAB, 0xCD, 0xEF};
  CFileBit bits;
  bits.SetMemory(block.data(), block.size());
  bits.Allocate();
  EXPECT_EQ(0xAu, bits.ReadBits(4));
  // Writing now drops what was read ahead; the bytes go where the byte
  // stream stands, after the three bytes its refill took in.
  bits.WriteBits(8, 0x12);
  EXPECT_EQ(0u, bits.ReadFill);
  EXPECT_EQ(0u, bits.ReadBitCount);
  EXPECT_EQ(1u, bits.WriteFill);
  // Reading again hands the pending byte on first.
  EXPECT_EQ(0u, bits.ReadBits(8));
  EXPECT_TRUE(bits.IsShort());
  EXPECT_EQ(0u, bits.WriteFill);
  EXPECT_EQ(3u, bits.Position.GetValue()); // the limit of 3 bytes was already used
}

TEST(BitStream, DestructionFlushesThePartialByte) {
  Bytes block(4);
  {
    CFileBit bits;
    bits.SetMemory(block.data(), block.size());
    bits.Allocate();
    bits.WriteBits(3, 7);
  }
  EXPECT_EQ(0xE0, block[0]);
}

} // namespace
