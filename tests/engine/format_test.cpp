// Code format 1 as the encoder writes it and the decoder reads it: the
// published examples, each coding rule checked against a brute-force parse,
// the window slides, and decoding of odd and hostile streams.
#include "engine_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace enginetest;

namespace {

// Builds a stream code by code, most significant bit first.
class StreamBuilder {
public:
  StreamBuilder& Literal(unsigned byte) { return Bits(9, byte); }
  StreamBuilder& Match(unsigned length, unsigned distance) {
    return Bits(9, length + 253).Bits(13, distance - 1);
  }
  StreamBuilder& End() { return Bits(9, 0x1FF); }
  StreamBuilder& Bits(unsigned n, unsigned value) {
    for (unsigned i = n; i-- > 0;) {
      if (bit_ % 8 == 0) bytes_.push_back(0);
      if ((value >> i) & 1) bytes_.back() |= static_cast<std::uint8_t>(0x80 >> (bit_ % 8));
      ++bit_;
    }
    return *this;
  }
  const Bytes& Get() const { return bytes_; }

private:
  Bytes bytes_;
  std::size_t bit_ = 0;
};

// The longest match for position i among the 8191 strings before it,
// capped at 256 bytes and at the end of the data.
unsigned LongestMatch(const Bytes& data, std::size_t i) {
  const std::size_t cap = std::min<std::size_t>(256, data.size() - i);
  unsigned best = 0;
  for (std::size_t d = 1; d < 8192 && d <= i; ++d) {
    unsigned l = 0;
    while (l < cap && data[i - d + l] == data[i + l]) ++l;
    best = std::max(best, l);
  }
  return best;
}

// Checks that the stream follows the coding rules: a match is coded where
// the longest match is at least 3 bytes and the next position has none
// longer, and then it is that longest match; every other byte is a literal.
// The codes must rebuild the data.
void ExpectLazyParse(const Bytes& data) {
  const Bytes stream = Compress(data);
  const auto codes = ParseCodes(stream);
  ASSERT_FALSE(codes.empty());
  ASSERT_EQ(Code::End, codes.back().kind);
  Bytes rebuilt;
  std::size_t i = 0;
  for (std::size_t k = 0; k + 1 < codes.size(); ++k) {
    const Code& c = codes[k];
    ASSERT_LT(i, data.size());
    const unsigned here = LongestMatch(data, i);
    const unsigned next = i + 1 < data.size() ? LongestMatch(data, i + 1) : 0;
    const bool wantMatch = here >= 3 && next <= here;
    if (c.kind == Code::Literal) {
      ASSERT_FALSE(wantMatch) << "literal at " << i << ", longest " << here << ", next " << next;
      ASSERT_EQ(data[i], c.value);
      rebuilt.push_back(static_cast<std::uint8_t>(c.value));
      ++i;
    } else {
      ASSERT_TRUE(wantMatch) << "match at " << i;
      ASSERT_EQ(here, c.value) << "match length at " << i;
      ASSERT_LE(c.distance, i);
      ASSERT_LT(c.distance, 8192u); // the oldest string has left the window
      for (unsigned l = 0; l < c.value; ++l)
        rebuilt.push_back(rebuilt[rebuilt.size() - c.distance]);
      i += c.value;
    }
  }
  EXPECT_EQ(data, rebuilt);
}

Bytes Random(std::size_t size, std::uint32_t seed) {
  std::mt19937 random(seed);
  Bytes out(size);
  for (auto& b : out) b = static_cast<std::uint8_t>(random());
  return out;
}

TEST(CodeFormat1, PublishedExamples) {
  EXPECT_EQ(Compress({}), (Bytes{0xFF, 0x80}));
  EXPECT_EQ(Compress({0x78}), (Bytes{0x3C, 0x7F, 0xC0}));
  EXPECT_EQ(Compress(FromString("abcabc")),
            (Bytes{0x30, 0x98, 0x8C, 0x70, 0x00, 0x01, 0x7F, 0xC0}));
  EXPECT_EQ(Compress(Bytes(300, 0x41)), (Bytes{0x20, 0xFF, 0x40, 0x01, 0x28, 0x00, 0x07, 0xFC}));
}

TEST(CodeFormat1, ShortRepeatsAndLiteralFF) {
  // Two repeated bytes are not worth a match, three are.
  const auto two = ParseCodes(Compress(FromString("xyQxy")));
  ASSERT_EQ(6u, two.size());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Code::Literal, two[i].kind);
  const auto three = ParseCodes(Compress(FromString("xyzQxyz")));
  ASSERT_EQ(6u, three.size());
  EXPECT_EQ(Code::Match, three[4].kind);
  EXPECT_EQ(3u, three[4].value);
  EXPECT_EQ(4u, three[4].distance);
  // 0xFF is the nine bits 0 1111 1111, not the end code.
  EXPECT_EQ(Compress({0xFF}), (Bytes{0x7F, 0xFF, 0xC0}));
}

// The code that begins at byte `index` of the data.
Code CodeAt(const std::vector<Code>& codes, std::size_t index) {
  std::size_t at = 0;
  for (const auto& c : codes) {
    if (at == index) return c;
    at += c.kind == Code::Match ? c.value : 1;
  }
  return {Code::End, 0, 0};
}

TEST(CodeFormat1, LazyMatchingAndEqualLengths) {
  // At byte 10 the match "abc" (3) loses to "bcdef" (5) one byte on.
  const auto lazy = ParseCodes(Compress(FromString("abcXbcdefYabcdefZ")));
  EXPECT_EQ(Code::Literal, CodeAt(lazy, 10).kind);
  EXPECT_EQ(Code::Match, CodeAt(lazy, 11).kind);
  EXPECT_EQ(5u, CodeAt(lazy, 11).value);
  EXPECT_EQ(7u, CodeAt(lazy, 11).distance);
  // Equal length one byte on ("abcd" at byte 12, "bcde" at 13): the
  // earlier match is taken.
  const auto equal = ParseCodes(Compress(FromString("abcdQXYbcdeRabcdeS")));
  EXPECT_EQ(Code::Match, CodeAt(equal, 12).kind);
  EXPECT_EQ(4u, CodeAt(equal, 12).value);
  EXPECT_EQ(12u, CodeAt(equal, 12).distance);
  EXPECT_EQ(Code::Literal, CodeAt(equal, 16).kind);
}

TEST(CodeFormat1, CodingRulesHoldAcrossBothWindowSlides) {
  // Text crosses the first slide (7936 bytes in) and the second (16128).
  ExpectLazyParse(TextLike(20000, 7));
  // Random bytes with copies placed so that matches span the slides and
  // runs give 256-byte matches.
  Bytes data = Random(17000, 3);
  std::copy_n(data.begin() + 100, 600, data.begin() + 7700);
  std::copy_n(data.begin() + 9000, 500, data.begin() + 15900);
  std::fill_n(data.begin() + 12000, 700, 0x55);
  ExpectLazyParse(data);
}

TEST(CodeFormat1, CodingRulesHoldOnCorpusSamples) {
  const auto files = CorpusFiles();
  ASSERT_FALSE(files.empty()) << "benchmark corpus not found";
  for (const auto& f : files) {
    Bytes d = ReadAll(f);
    d.resize(std::min<std::size_t>(d.size(), 24000));
    SCOPED_TRACE(f);
    ExpectLazyParse(d);
  }
}

TEST(CodeFormat1, LongestMatchesAre256Bytes) {
  Bytes data = Random(600, 9);
  std::copy_n(data.begin(), 300, data.begin() + 300);
  const auto codes = ParseCodes(Compress(data));
  unsigned longest = 0;
  for (const auto& c : codes) {
    if (c.kind == Code::Match) longest = std::max(longest, c.value);
  }
  EXPECT_EQ(256u, longest);
  EXPECT_EQ(data, Expand(Compress(data), data.size()));
}

// The compressed bytes of every corpus file, as sizes and CRC-32s: any
// change to the encoder that alters a single output bit shows here.
TEST(CodeFormat1, CorpusStreamsAreUnchanged) {
  const struct {
    const char* name;
    std::size_t size;
    DWORD crc;
  } expected[] = {
      {"alice29.txt", 77612, 0x1B166DC6u},
      {"asyoulik.txt", 69855, 0x1A3BC285u},
      {"fireworks.jpeg", 138175, 0xAED578BDu},
      {"geo.protodata", 21626, 0x773DB490u},
      {"html", 18840, 0x2BC59FDDu},
      {"html_x_4", 74850, 0x75931ABDu},
      {"kppkn.gtb", 52218, 0x9EE137C6u},
      {"lcet10.txt", 208410, 0xD04F8ECDu},
      {"paper-100k.pdf", 90898, 0x24F36F1Fu},
      {"plrabn12.txt", 282911, 0x72A52795u},
      {"urls.10K", 333744, 0x14DE1977u},
  };
  const auto files = CorpusFiles();
  ASSERT_EQ(std::size(expected), files.size()) << "benchmark corpus not found or changed";
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(files[i]);
    const Bytes data = ReadAll(files[i]);
    const Bytes direct = Compress(data);
    EXPECT_EQ(expected[i].size, direct.size());
    EXPECT_EQ(expected[i].crc, talvern::engine::Crc32Update(0, direct.data(), direct.size()));
    // The general path through the virtual operations gives the same bytes,
    // and both decoders give the data back.
    EXPECT_EQ(direct, Compress(data, true));
    // No match reaches before the data or further back than the window.
    std::size_t at = 0;
    for (const auto& c : ParseCodes(direct)) {
      if (c.kind == Code::Match) {
        ASSERT_LE(c.distance, at);
        ASSERT_LT(c.distance, 8192u);
      }
      at += c.kind == Code::Match ? c.value : 1;
    }
    EXPECT_EQ(data, Expand(direct, data.size()));
    EXPECT_EQ(data, Expand(direct, data.size(), true));
  }
}

TEST(CodeFormat1, RoundTripsOfRandomData) {
  std::mt19937 random(1);
  for (std::size_t size :
       {1u, 2u, 3u, 255u, 256u, 257u, 7935u, 7936u, 7937u, 8192u, 16128u, 16129u, 16384u, 40000u}) {
    SCOPED_TRACE(size);
    Bytes data(size);
    // A mix of random bytes and repeats of earlier stretches.
    for (std::size_t i = 0; i < size; ++i)
      data[i] = (i > 300 && random() % 4 == 0) ? data[i - 1 - random() % 300]
                                               : static_cast<std::uint8_t>(random() % 7);
    const Bytes stream = Compress(data);
    EXPECT_EQ(stream, Compress(data, true));
    EXPECT_EQ(data, Expand(stream, size));
    const Bytes noise = Random(size, static_cast<std::uint32_t>(size));
    EXPECT_EQ(noise, Expand(Compress(noise), size));
    EXPECT_LE(Compress(noise).size(), size * 9 / 8 + 3);
  }
}

TEST(CodeFormat1, DecoderCopiesOverlapsAndSpacesBeforeTheStart) {
  // Before the first byte the window holds spaces.
  StreamBuilder before;
  before.Match(5, 100).Literal('x').End();
  EXPECT_EQ(FromString("     x"), Expand(before.Get(), 100));
  // Distance 1 repeats the last byte; distance 2 repeats a pair.
  StreamBuilder runs;
  runs.Literal('a').Match(10, 1).Literal('b').Literal('c').Match(6, 2).End();
  EXPECT_EQ(FromString("aaaaaaaaaaabcbcbcbc"), Expand(runs.Get(), 100));
  // Code 0x1FE, never written, reads as a match of 257 bytes.
  StreamBuilder longest;
  longest.Literal('z').Bits(9, 0x1FE).Bits(13, 0).End();
  EXPECT_EQ(Bytes(258, 'z'), Expand(longest.Get(), 1000));
}

TEST(CodeFormat1, DecoderCopiesAcrossTheWindowEnd) {
  // 16380 literals, then a match that runs across the end of the 16384-byte
  // window, then one whose source runs across it.
  StreamBuilder b;
  Bytes expected;
  for (int i = 0; i < 16380; ++i) {
    const unsigned v = (i * 31 + i / 7) & 0xFF;
    b.Literal(v);
    expected.push_back(static_cast<std::uint8_t>(v));
  }
  b.Match(10, 1000);
  for (int i = 0; i < 10; ++i) expected.push_back(expected[expected.size() - 1000]);
  for (int i = 0; i < 20; ++i) {
    b.Literal(i);
    expected.push_back(static_cast<std::uint8_t>(i));
  }
  b.Match(40, 30);
  for (int i = 0; i < 40; ++i) expected.push_back(expected[expected.size() - 30]);
  b.Match(200, 8000);
  for (int i = 0; i < 200; ++i) expected.push_back(expected[expected.size() - 8000]);
  b.End();
  EXPECT_EQ(expected, Expand(b.Get(), 100000));
  EXPECT_EQ(expected, Expand(b.Get(), 100000, true));
}

TEST(CodeFormat1, TruncatedStreamsDecodeTheirCompleteCodes) {
  const Bytes data = TextLike(3000, 5);
  const Bytes stream = Compress(data);
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    const Bytes part(stream.begin(), stream.begin() + static_cast<long>(cut));
    int ok = 0;
    DWORD error = 77;
    const Bytes out = Expand(part, data.size() + 10, false, &ok, &error);
    ASSERT_TRUE(ok) << cut;
    ASSERT_EQ(77u, error);
    ASSERT_LE(out.size(), data.size());
    ASSERT_TRUE(std::equal(out.begin(), out.end(), data.begin())) << cut;
    ASSERT_EQ(out, Expand(part, data.size() + 10, true)) << cut;
  }
  EXPECT_EQ(data, Expand(stream, data.size() + 10));
}

TEST(CodeFormat1, DecoderStopsAtTheDestinationLimit) {
  const Bytes data = TextLike(50000, 2);
  int ok = 0;
  const Bytes out = Expand(Compress(data), 20000, false, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(Bytes(data.begin(), data.begin() + 20000), out);
}

TEST(CodeFormat1, BothDecodersAgreeOnHostileStreams) {
  std::mt19937 random(11);
  for (int round = 0; round < 300; ++round) {
    Bytes stream(random() % 3000);
    for (auto& b : stream) b = static_cast<std::uint8_t>(random());
    if (round % 3 == 0) {
      for (auto& b : stream) b &= 0x7F; // mostly literals and long outputs
    }
    const std::size_t limit = random() % 70000;
    int okDirect = 0, okGeneral = 0;
    const Bytes direct = Expand(stream, limit, false, &okDirect);
    const Bytes general = Expand(stream, limit, true, &okGeneral);
    ASSERT_EQ(general, direct) << "round " << round;
    ASSERT_EQ(okGeneral, okDirect);
    ASSERT_LE(direct.size(), limit);
  }
}

} // namespace
