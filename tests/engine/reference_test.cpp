// The engine against the plain model of reference_coder.cpp: every output
// byte of the encoder, on the corpus and on data built to stress the tree
// (long runs, repeated 256-byte strings, tiny alphabets, both window
// slides), and every byte the decoders make of hostile streams.
#include "engine_test_util.h"
#include "reference_coder.h"

#include "engine/streams.h"

#include <gtest/gtest.h>

#include <random>

using namespace enginetest;

namespace {

// Bytes drawn from `alphabet` symbols, with stretches copied from up to
// `reach` bytes back.
Bytes Mixed(std::size_t size, unsigned alphabet, std::size_t reach, std::uint32_t seed) {
  std::mt19937 random(seed);
  Bytes out(size);
  for (std::size_t i = 0; i < size; ++i) {
    if (i > reach && random() % 8 == 0) {
      const std::size_t from = i - 1 - random() % reach;
      const std::size_t length = std::min<std::size_t>(size - i, 1 + random() % 300);
      for (std::size_t k = 0; k < length; ++k) out[i + k] = out[from + k];
      i += length - 1;
    } else {
      out[i] = static_cast<std::uint8_t>('a' + random() % alphabet);
    }
  }
  return out;
}

void ExpectSameStream(const Bytes& data) {
  const Bytes expected = ReferenceCompress(data);
  ASSERT_EQ(expected, Compress(data));
  ASSERT_EQ(expected, Compress(data, true));
}

// The CRC-32 a bit at a time, continuing `crc`.
std::uint32_t CrcBitByBit(std::uint32_t crc, const std::uint8_t* p, std::size_t n) {
  while (n-- != 0) {
    crc ^= *p++;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc;
}

// The streams the format's description gives as examples.
TEST(Reference, PublishedExamples) {
  EXPECT_EQ(Compress({}), (Bytes{0xFF, 0x80}));
  EXPECT_EQ(Compress({0x78}), (Bytes{0x3C, 0x7F, 0xC0}));
  EXPECT_EQ(Compress({0xFF}), (Bytes{0x7F, 0xFF, 0xC0}));
  EXPECT_EQ(Compress(FromString("abcabc")),
            (Bytes{0x30, 0x98, 0x8C, 0x70, 0x00, 0x01, 0x7F, 0xC0}));
  EXPECT_EQ(Compress(Bytes(300, 0x41)), (Bytes{0x20, 0xFF, 0x40, 0x01, 0x28, 0x00, 0x07, 0xFC}));
}

TEST(Reference, EncoderGivesTheModelsBytesOnTheCorpus) {
  const auto files = CorpusFiles();
  ASSERT_FALSE(files.empty()) << "benchmark corpus not found";
  for (const auto& f : files) {
    SCOPED_TRACE(f);
    const Bytes data = ReadAll(f);
    ASSERT_EQ(ReferenceCompress(data), Compress(data));
  }
}

TEST(Reference, EncoderGivesTheModelsBytesOnStressData) {
  // Sizes around the slides (7936 and 8192 + 7936 bytes in) and the ends
  // of the look-ahead.
  for (std::size_t size : {0u, 1u, 2u, 3u, 4u, 255u, 256u, 257u, 7935u, 7936u, 7937u, 8191u, 8192u,
                           8193u, 16127u, 16128u, 16129u, 16384u, 24321u}) {
    SCOPED_TRACE(size);
    ExpectSameStream(Mixed(size, 3, 2000, static_cast<std::uint32_t>(size)));
  }
  // One long run: every string is the same 256 bytes, replaced again and
  // again through forwarding links.
  ExpectSameStream(Bytes(40000, 0x41));
  // Runs of many lengths, and short periods (abab..., abcabc...).
  Bytes runs;
  for (unsigned k = 1; runs.size() < 60000; ++k) runs.insert(runs.end(), k % 700, 'a' + k % 5);
  ExpectSameStream(runs);
  Bytes periods;
  for (unsigned period = 1; period < 40; ++period)
    for (unsigned i = 0; i < 1500; ++i) periods.push_back(static_cast<std::uint8_t>(i % period));
  ExpectSameStream(periods);
  // Tiny alphabets grow deep trees with many splits and merges; copies from
  // far back give long matches whose sources leave the window.
  for (unsigned alphabet : {2u, 4u, 16u}) {
    SCOPED_TRACE(alphabet);
    ExpectSameStream(Mixed(70000, alphabet, 9000, alphabet));
  }
  // A block that repeats at exactly the window's distance, and at one byte
  // more and less.
  std::mt19937 random(5);
  Bytes block(8192);
  for (auto& b : block) b = static_cast<std::uint8_t>(random() % 4);
  for (std::size_t shift : {8191u, 8192u, 8193u}) {
    SCOPED_TRACE(shift);
    Bytes data(block);
    data.insert(data.end(), block.begin(), block.begin() + static_cast<long>(shift - 8192 + 8000));
    data.insert(data.end(), block.begin(), block.end());
    ExpectSameStream(data);
  }
}

TEST(Reference, EngineOnArraysUsedBeforeGivesTheModelsBytes) {
  // Arrays handed from engine to engine keep what the last compression left
  // in them: a small input, which sets up only the part of the tree it can
  // reach, must not meet any of it. Sizes at the end of the first window
  // (7936 positions with the first) and far below it, after inputs that
  // filled the whole tree.
  EngineArrays keeper;
  const Bytes filler = Mixed(70000, 4, 9000, 1);
  for (std::size_t size : {0u, 1u, 100u, 3000u, 7934u, 7935u, 7936u, 7937u, 20000u, 5u}) {
    SCOPED_TRACE(size);
    for (const bool general : {false, true}) {
      ASSERT_EQ(ReferenceCompress(filler), Compress(filler, general, &keeper));
      const Bytes data = Mixed(size, 3, 2000, static_cast<std::uint32_t>(size));
      ASSERT_EQ(ReferenceCompress(data), Compress(data, general, &keeper));
    }
  }
}

TEST(Reference, DecodersGiveTheModelsBytesOnHostileStreams) {
  std::mt19937 random(21);
  for (int round = 0; round < 400; ++round) {
    Bytes stream(random() % 4000);
    for (auto& b : stream) b = static_cast<std::uint8_t>(random());
    if (round % 3 == 0) {
      for (auto& b : stream) b |= 0x80; // mostly matches, far and near
    }
    const std::size_t limit = round % 5 == 0 ? 1u << 20 : random() % 70000;
    const Bytes expected = ReferenceExpand(stream, limit);
    ASSERT_EQ(expected, Expand(stream, limit)) << "round " << round;
    ASSERT_EQ(expected, Expand(stream, limit, true)) << "round " << round;
  }
  // And the streams the encoder writes.
  const Bytes data = Mixed(50000, 4, 9000, 8);
  const Bytes stream = Compress(data);
  EXPECT_EQ(data, ReferenceExpand(stream, data.size()));
  EXPECT_EQ(data, Expand(stream, data.size()));
}

} // namespace

// The CRC update, whichever way the processor lets it go (eight bytes a
// step, or blocks of 64 and 16 bytes by carry-less multiplication), agrees
// with the bit-by-bit definition at every length and alignment, continuing
// any running value.
TEST(Reference, CrcOfEveryLengthAndAlignment) {
  const Bytes data = Mixed(3000, 200, 100, 5);
  std::mt19937 random(6);
  for (std::size_t offset = 0; offset < 16; ++offset)
    for (std::size_t n = 0; offset + n <= data.size(); n += n < 260 ? 1 : 61) {
      const std::uint32_t start = random();
      ASSERT_EQ(talvern::engine::Crc32Update(start, data.data() + offset, n),
                CrcBitByBit(start, data.data() + offset, n))
          << offset << "+" << n;
    }
}
