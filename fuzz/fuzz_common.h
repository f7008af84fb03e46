// Shared pieces of the fuzz targets: a scratch file for the file-based entry
// points, and the check that ends a run when a property fails.
#pragma once

#include <talvern/size.h>
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

// A folder of its own in the temporary folder for the whole run, deleted
// at exit with what is in it.
class ScratchFolder {
public:
  static ScratchFolder& Get();
  // The folder's name followed by `name`.
  CString Path(const WCHAR* name) const;
  // Replaces the file `name` in the folder with these bytes.
  void Write(const WCHAR* name, const std::uint8_t* data, std::size_t size);
  // Deletes every file in the folder.
  void Clear();
  // How many items the folder holds.
  std::size_t Count() const;

private:
  ScratchFolder();
  ~ScratchFolder();
  CString path_; // ends in a separator
};

// Reads the archive `name` (a numbered set when `limit` is given, made of
// `volumes` files in the scratch folder) as a host would: opens it, walks
// its records with the entry search, and tests every entry, decoding
// straight from the archive and through temporary files. Failures are
// expected; what must hold is that every failure latches an error code and
// that nothing is created in the folder.
void ReadArchive(const CString& name, const CArchiveSize* limit, std::size_t volumes);

// The original size a block claims, or 0 when it is not a block.
std::uint32_t ClaimedSize(const std::uint8_t* data, std::size_t size);

} // namespace fuzz
