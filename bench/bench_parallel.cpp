// Compression of one large block on 1, 2 and 4 threads, side by side:
//
//     bench_parallel FILE [ROUNDS]
//
// Each round compresses FILE (read into memory) once per thread count, in
// turn, so that a busy moment of the machine falls on all of them alike.
// Printed: the median and spread of the times, the speed-up against one
// thread, the share of chunks the exact engine had to redo, and the peak
// memory above the input. Every stream is checked against one thread's.
#include "engine/lz_parallel.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
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
  std::ifstream file(argv[1], std::ios::binary);
  const std::vector<unsigned char> input((std::istreambuf_iterator<char>(file)), {});
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  const unsigned counts[] = {1, 2, 4};
  std::vector<double> times[3];
  std::vector<unsigned char> first;
  talvern::engine::ParallelReport reports[3];
  const long before = PeakKiB();
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < 3; ++i) {
      std::vector<unsigned char> out;
      talvern::engine::ParallelReport report;
      const auto start = std::chrono::steady_clock::now();
      const bool ok = talvern::engine::CompressParallel(
          input.data(), input.size(), counts[i],
          [&](const std::uint8_t* bytes, std::size_t count) {
            out.insert(out.end(), bytes, bytes + count);
            return true;
          },
          &report);
      times[i].push_back(
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      if (!ok) return 1;
      if (first.empty()) first = out;
      if (out != first) {
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
