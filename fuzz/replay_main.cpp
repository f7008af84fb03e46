// Runs a fuzz target over files without libFuzzer: every file named on the
// command line, and every file in every folder named there, once each.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const fs::path p(argv[i]);
    if (fs::is_directory(p)) {
      for (const auto& e : fs::directory_iterator(p))
        if (e.is_regular_file()) inputs.push_back(e.path());
    } else {
      inputs.push_back(p);
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs\n");
    return 1;
  }
  for (const auto& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that reads past it are caught.
    std::vector<std::uint8_t> exact(bytes);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
