// Speed of the one-shot block functions (method 1) over every file of the
// benchmark corpus: compress and expand, in memory, one core. Counters give
// the ratio (compressed / original) and what each call allocated.
#include <talvern/oneshot.h>

#include <benchmark/benchmark.h>

#include <cstdio>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <vector>

// Every allocation of the process is counted, so that a benchmark can report
// what one call of the library allocated.
namespace {
std::atomic<std::size_t> g_allocations{0};
std::atomic<std::size_t> g_allocatedBytes{0};
} // namespace

void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  g_allocatedBytes.fetch_add(size, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  g_allocatedBytes.fetch_add(size, std::memory_order_relaxed);
  return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Bytes = std::vector<unsigned char>;

Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct Sample {
  std::string name;
  Bytes data;
  Bytes block; // the data compressed with method 1
};

std::vector<Sample>& Samples() {
  static std::vector<Sample> samples;
  return samples;
}

// Runs `call` for every iteration, stops the run when it fails, and
// reports what the last call allocated. Speeds count original bytes, for
// compressing and expanding alike, as for the other tools.
template <class Call>
void Measure(benchmark::State& state, const Sample* sample, const char* failure, Call call) {
  std::size_t allocations = 0, allocated = 0;
  for (auto _ : state) {
    const std::size_t a0 = g_allocations.load(), b0 = g_allocatedBytes.load();
    if (!call()) {
      state.SkipWithError(failure);
      break;
    }
    allocations = g_allocations.load() - a0;
    allocated = g_allocatedBytes.load() - b0;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * sample->data.size()));
  state.counters["allocs"] = static_cast<double>(allocations);
  state.counters["alloc_bytes"] = static_cast<double>(allocated);
}

void Compress(benchmark::State& state, const Sample* sample) {
  Bytes out(sample->data.size() + sample->data.size() / 8 + 64);
  DWORD size = 0;
  Measure(state, sample, "compression failed", [&] {
    DWORD error = 0;
    const int ok =
        GetCompressMemToMem(sample->data.data(), static_cast<DWORD>(sample->data.size()), &error,
                            &size, out.data(), static_cast<DWORD>(out.size()), 1);
    benchmark::DoNotOptimize(out.data());
    return ok != 0;
  });
  state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(sample->data.size());
}

void Expand(benchmark::State& state, const Sample* sample) {
  Bytes out(sample->data.size());
  Measure(state, sample, "expansion failed", [&] {
    DWORD error = 0, size = 0;
    const int ok = GetExpandMemToMem(sample->block.data(), static_cast<DWORD>(sample->block.size()),
                                     &error, &size, out.data(), static_cast<DWORD>(out.size()));
    benchmark::DoNotOptimize(out.data());
    return ok != 0;
  });
}

} // namespace

int main(int argc, char** argv) {
  // TALVERN_BENCH_CORPUS names another corpus folder than the one found at
  // configuration time.
  const char* chosen = std::getenv("TALVERN_BENCH_CORPUS");
  const std::filesystem::path dir(chosen != nullptr && *chosen ? chosen : BENCH_CORPUS_DIR);
  std::vector<std::string> files;
  std::error_code ec;
  if (!dir.empty() && std::filesystem::is_directory(dir, ec))
    for (const auto& e : std::filesystem::directory_iterator(dir))
      if (e.is_regular_file() && e.path().filename() != "README.md")
        files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::fprintf(stderr, "bench_engine: no corpus files in '%s'\n", dir.string().c_str());
    return 1;
  }
  for (const auto& path : files) {
    Sample s;
    s.name = std::filesystem::path(path).filename().string();
    s.data = ReadAll(path);
    s.block.resize(s.data.size() + s.data.size() / 8 + 64);
    DWORD error = 0, size = 0;
    if (!GetCompressMemToMem(s.data.data(), static_cast<DWORD>(s.data.size()), &error, &size,
                             s.block.data(), static_cast<DWORD>(s.block.size()), 1)) {
      std::fprintf(stderr, "bench_engine: cannot compress %s (error %u)\n", path.c_str(), error);
      return 1;
    }
    s.block.resize(size);
    Samples().push_back(std::move(s));
  }
  for (const auto& s : Samples()) {
    benchmark::RegisterBenchmark(("compress/" + s.name).c_str(), Compress, &s);
    benchmark::RegisterBenchmark(("expand/" + s.name).c_str(), Expand, &s);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
