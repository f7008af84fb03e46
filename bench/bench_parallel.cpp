// Compression of one large block on 1, 2 and 4 threads, side by side:
//
//     bench_parallel FILE [ROUNDS [CHUNK_KIB]]
//
// Each round compresses FILE (read into memory, and handed to the engine a
// stretch at a time as the archive drivers hand it a file) once per thread
// count, in turn, so that a busy moment of the machine falls on all of them alike.
// Printed: the median and spread of the times, the speed-up against one
// thread, the share of chunks the exact engine had to redo, and the peak
// memory above the input. Every stream is checked against one thread's.
#include "engine/lz_parallel.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

long PeakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench_parallel FILE [ROUNDS]\n");
    return 2;
  }
  // Read at its size, so that the peak memory before the work is the input.
  std::ifstream file(argv[1], std::ios::binary | std::ios::ate);
  std::vector<unsigned char> input(file ? static_cast<std::size_t>(file.tellg()) : 0);
  if (!file || !file.seekg(0) ||
      !file.read(reinterpret_cast<char*>(input.data()),
                 static_cast<std::streamsize>(input.size()))) {
    std::fprintf(stderr, "bench_parallel: cannot read %s\n", argv[1]);
    return 1;
  }
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  talvern::engine::ParallelShape shape;
  if (argc > 3) shape.chunk = static_cast<std::size_t>(std::atoi(argv[3])) << 10;
  const unsigned counts[] = {1, 2, 4};
  std::vector<double> times[3];
  std::vector<unsigned char> first;
  talvern::engine::ParallelReport reports[3];
  const long before = PeakKiB();
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < 3; ++i) {
      // The first run keeps its stream (room reserved, so that growing it
      // copies nothing); every later one is compared with it as it comes.
      const bool keep = first.empty();
      if (keep) first.reserve(input.size() + 64);
      std::size_t at = 0;
      bool same = true;
      talvern::engine::ParallelReport report;
      const auto start = std::chrono::steady_clock::now();
      // Read a round at a time, as the archive drivers read a file.
      std::size_t read = 0;
      const bool ok = talvern::engine::CompressParallel(
          input.size(),
          [&](std::uint8_t* buffer, std::size_t count) {
            std::memcpy(buffer, input.data() + read, count);
            read += count;
            return true;
          },
          counts[i],
          [&](const std::uint8_t* bytes, std::size_t count) {
            if (keep) {
              first.insert(first.end(), bytes, bytes + count);
            } else {
              same = same && at + count <= first.size() &&
                     std::equal(bytes, bytes + count, first.begin() + static_cast<long>(at));
              at += count;
            }
            return true;
          },
          &report, shape);
      times[i].push_back(
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      if (!ok) return 1;
      if (!keep && (!same || at != first.size())) {
        std::fprintf(stderr, "%u threads wrote other bytes\n", counts[i]);
        return 1;
      }
      reports[i] = report;
    }
  }
  std::printf("%zu bytes -> %zu bytes, %d rounds\n", input.size(), first.size(), rounds);
  std::vector<double> one = times[0];
  std::sort(one.begin(), one.end());
  const double base = one[one.size() / 2];
  for (int i = 0; i < 3; ++i) {
    std::sort(times[i].begin(), times[i].end());
    const double median = times[i][times[i].size() / 2];
    std::printf("%u thread%s: median %.2f s (%.2f to %.2f), %.2fx, %u of %u chunks redone\n",
                counts[i], counts[i] == 1 ? " " : "s", median, times[i].front(), times[i].back(),
                base / median, reports[i].redone, reports[i].chunks);
  }
  std::printf("peak memory above the input and one output: %ld KiB\n",
              PeakKiB() - before - static_cast<long>(first.size() / 1024));
  return 0;
}
