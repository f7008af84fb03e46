// Compression on several threads writes the one engine's stream, byte for
// byte, whatever the data, the cut into chunks and the number of threads.
#include "engine/block.h"
#include "engine/lz_parallel.h"
#include "engine/streams.h"
#include "engine_test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

namespace enginetest {
namespace {

using talvern::engine::ParallelReport;
using talvern::engine::ParallelShape;

// From the data in memory, or (streamed) handed over a stretch at a time,
// as a file is read; a stream stops after `failAfter` bytes and counts in
// `askedAfterStop` the calls that still came.
bool CompressParallel(const Bytes& data, unsigned threads, Bytes& out, ParallelReport* report,
                      ParallelShape shape, bool streamed = false, std::size_t failAfter = SIZE_MAX,
                      int* askedAfterStop = nullptr) {
  const auto sink = [&](const std::uint8_t* bytes, std::size_t count) {
    out.insert(out.end(), bytes, bytes + count);
    return true;
  };
  if (!streamed)
    return talvern::engine::CompressParallel(data.data(), data.size(), threads, sink, report,
                                             shape);
  std::size_t read = 0;
  bool stopped = false;
  const auto source = [&](std::uint8_t* buffer, std::size_t count) {
    if (stopped && askedAfterStop != nullptr) ++*askedAfterStop;
    if (count > data.size() - read || read + count > failAfter) return !(stopped = true);
    std::memcpy(buffer, data.data() + read, count);
    read += count;
    return true;
  };
  return talvern::engine::CompressParallel(data.size(), source, threads, sink, report, shape) &&
         read == data.size();
}

// All corpus files one after the other, then text-like and random bytes,
// so that chunks start in every kind of data.
Bytes Mixed() {
  Bytes all;
  for (const std::string& file : CorpusFiles()) {
    const Bytes bytes = ReadAll(file);
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  for (const Bytes& more : {TextLike(300000, 7), TextLike(200000, 8)})
    all.insert(all.end(), more.begin(), more.end());
  std::mt19937 random(9);
  for (int i = 0; i < 100000; ++i) all.push_back(static_cast<std::uint8_t>(random()));
  return all;
}

TEST(ParallelTest, WritesTheOneEngineStream) {
  const Bytes data = Mixed();
  const Bytes one = Compress(data);
  struct Case {
    std::size_t chunk, history;
    unsigned threads;
  };
  // From a short history (many chunks redone) to the default one.
  const Case cases[] = {{3 * 8192, 8192, 2},   {3 * 8192, 8192, 8}, {5 * 8192, 16384, 3},
                        {12 * 8192, 32768, 2}, {1 << 20, 65536, 1}, {1 << 20, 65536, 2}};
  for (const Case& c : cases)
    for (const bool streamed : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.chunk << "/" << c.history << " on " << c.threads
                                      << (streamed ? " streamed" : ""));
      Bytes parallel;
      ParallelReport report;
      ASSERT_TRUE(CompressParallel(data, c.threads, parallel, &report,
                                   ParallelShape{c.chunk, c.history}, streamed));
      EXPECT_TRUE(one == parallel);
      EXPECT_EQ(c.threads > 1, report.chunks > 0);
      // With the default history at least half the chunks join the one engine's state and
      // need not be compressed again.
      if (c.history == 65536 && c.threads > 1) {
        EXPECT_LE(report.redone * 2, report.chunks);
      }
    }
  // A source that fails stops the work, whether the workers or the exact
  // engine alone were reading, and is not asked again (a host that refused
  // hears no more).
  for (const std::size_t failAfter : {std::size_t{100}, data.size() / 2, data.size() - 1}) {
    Bytes parallel;
    int askedAfterStop = 0;
    EXPECT_FALSE(CompressParallel(data, 2, parallel, nullptr, ParallelShape{5 * 8192, 16384}, true,
                                  failAfter, &askedAfterStop));
    EXPECT_EQ(askedAfterStop, 0) << failAfter;
  }
}

TEST(ParallelTest, ChunksCutAtRandomPlacesOfOneFile) {
  // Random cuts of random slices of the data: the end of the data falls
  // anywhere in a chunk, also within its last 8192 bytes.
  const Bytes all = Mixed();
  std::mt19937 random(2026);
  const unsigned threads[] = {1, 2, 3, 8};
  for (int round = 0; round < 300; ++round) {
    const std::size_t size = 20000 + random() % 120000;
    const std::size_t from = random() % (all.size() - size);
    const Bytes data(all.begin() + from, all.begin() + from + size);
    const std::size_t history = 8192 * (1 + random() % 4);
    const std::size_t chunk = history + 8192 * (2 + random() % 6);
    SCOPED_TRACE(testing::Message() << from << "+" << size << " " << chunk << "/" << history);
    Bytes parallel;
    ASSERT_TRUE(CompressParallel(data, threads[round % 4], parallel, nullptr,
                                 ParallelShape{chunk, history}, round % 2 == 1));
    ASSERT_TRUE(Compress(data) == parallel);
  }
  // A file where 64 KiB of history does not always bring a worker to the
  // one engine's state, cut at forty places: joined or redone, every byte
  // is the one engine's.
  bool found = false;
  for (const std::string& file : CorpusFiles()) {
    if (file.find("geo.protodata") == std::string::npos) continue;
    found = true;
    const Bytes whole = ReadAll(file);
    for (std::size_t from = 0; from + 100000 <= whole.size(); from += 457) {
      SCOPED_TRACE(testing::Message() << file << " from " << from);
      const Bytes data(whole.begin() + static_cast<std::ptrdiff_t>(from), whole.end());
      Bytes parallel;
      ASSERT_TRUE(CompressParallel(data, 2, parallel, nullptr, ParallelShape{81920, 65536}));
      ASSERT_TRUE(Compress(data) == parallel);
    }
  }
  EXPECT_TRUE(found);
}

} // namespace
} // namespace enginetest

namespace enginetest {
namespace {

TEST(ParallelTest, LargeOneShotBlocksUseEveryCoreAndKeepTheirBytes) {
  Bytes data = TextLike(5u << 20, 21);
  const Bytes one = Compress(data);
  talvern::engine::BlockHeader header;
  header.CompressType = talvern::engine::MethodFormat1;
  Bytes out(data.size());
  DWORD error = 0;
  ASSERT_TRUE(talvern::engine::CompressBlock(error, data.data(), static_cast<DWORD>(data.size()),
                                             header, out.data(), static_cast<DWORD>(out.size())));
  out.resize(header.CompressedSize);
  EXPECT_TRUE(one == out);
  EXPECT_EQ(talvern::engine::Crc32Update(0, data.data(), data.size()), header.Crc);
  // Too small a destination fails as with one engine.
  EXPECT_FALSE(talvern::engine::CompressBlock(error, data.data(), static_cast<DWORD>(data.size()),
                                              header, out.data(), 1000));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), error);
}

} // namespace
} // namespace enginetest
