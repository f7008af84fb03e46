// Shared pieces of the fuzz targets: a scratch file for the file-based entry
// points, and the check that ends a run when a property fails.
#pragma once

#include <talvern/win32.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

// Ends the run with a message: libFuzzer records the input as a crash.
#define FUZZ_CHECK(condition)                                                                      \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::fprintf(stderr, "check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);          \
      std::abort();                                                                                \
    }                                                                                              \
  } while (0)

// One temporary file for the whole run, opened for reading and writing and
// deleted at exit. Fill replaces its contents.
class ScratchFile {
public:
  static ScratchFile& Get(int which);
  HANDLE Handle() const { return handle_; }
  void Fill(const std::uint8_t* data, std::size_t size);
  void Seek(std::uint64_t position);
  std::uint64_t Tell() const;

private:
  ScratchFile();
  ~ScratchFile();
  HANDLE handle_ = INVALID_HANDLE_VALUE;
  WCHAR path_[MAX_PATH] = {};
};

// The original size a block claims, or 0 when it is not a block.
std::uint32_t ClaimedSize(const std::uint8_t* data, std::size_t size);

} // namespace fuzz
