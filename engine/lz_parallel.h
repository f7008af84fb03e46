// Compression of one block of data on several threads, writing exactly the
// code format 1 stream that one engine with the drivers' parameters (8192
// byte dictionary, matches up to 256 bytes) writes for it.
//
// The data is cut into chunks. A worker compresses each chunk after it has
// primed an engine of its own with the bytes before the chunk; at a few
// code boundaries near the chunk's start it keeps a copy of its engine. The
// engine that is known to be exact (the one that started at the data's
// start, or a worker it was proved equal to) runs on past its chunk's end
// and compares itself with those copies: where one agrees, the worker's
// codes from there on are the one engine's, and the worker's engine becomes
// the exact one. Where none agrees, the exact engine compresses the chunk
// itself. docs/compression.md tells why the comparison is enough.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace talvern::engine {

// How a block is cut: chunk and history are multiples of 8192, history at
// least 8192 and chunk at least history + 16384.
struct ParallelShape {
  std::size_t chunk = std::size_t{1} << 20;
  std::size_t history = std::size_t{64} << 10;
};

// What the threads did: chunks compressed by workers, and those of them the
// exact engine had to compress again.
struct ParallelReport {
  unsigned chunks = 0;
  unsigned redone = 0;
};

// Blocks smaller than this are compressed on one thread.
constexpr std::size_t ParallelThreshold = std::size_t{4} << 20;

// Receives the stream in order, a piece at a time; false stops the work.
using ParallelSink = std::function<bool(const std::uint8_t* bytes, std::size_t count)>;

// Compresses size bytes at input on `threads` threads (one thread, or data
// shorter than two chunks: the one engine alone) and hands the stream to
// sink as it is joined: codes, end code and padding. The stream is held
// only a chunk or so at a time. False when memory is short or the sink
// stopped.
bool CompressParallel(const std::uint8_t* input, std::size_t size, unsigned threads,
                      const ParallelSink& sink, ParallelReport* report = nullptr,
                      ParallelShape shape = {});

// Fills `buffer` with the next `count` bytes of the data, in order; false
// when it cannot (a read failed, the data ended early, the work is to stop).
using ParallelSource = std::function<bool(std::uint8_t* buffer, std::size_t count)>;

// As above, for `size` bytes read from `source` as the work goes on, on
// this thread between rounds of the workers: memory holds a chunk per
// thread, not the data. False also when the source failed.
bool CompressParallel(std::size_t size, const ParallelSource& source, unsigned threads,
                      const ParallelSink& sink, ParallelReport* report = nullptr,
                      ParallelShape shape = {});

} // namespace talvern::engine
