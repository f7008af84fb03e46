// Helpers shared by the test programs: temporary folders, host files and
// string conversions.
#pragma once

#include <talvern/talvern.h>

#include <cstdint>
#include <string>
#include <vector>

// Skips a test that puts archives on the simulated drives, shares or media
// of the Linux platform layer, or sets its privileges (the control functions
// of talvern/platform.h): Windows has the real ones, which tests cannot
// create, and there those functions answer FALSE.
#if defined(_WIN32)
#define TALVERN_NEEDS_SIMULATED_DRIVES()                                                           \
  GTEST_SKIP() << "needs the simulated drives of the Linux platform layer"
#else
#define TALVERN_NEEDS_SIMULATED_DRIVES() static_cast<void>(0)
#endif

// Skips a test whose checks Windows under Wine cannot meet, for the reason
// given: on a Linux file system Wine cannot keep a set creation time, gives
// every file the archive attribute and no folder the read-only one.
#define TALVERN_SKIP_UNDER_WINE(why)                                                               \
  if (test::UnderWine()) GTEST_SKIP() << "under Wine, " why

namespace test {

// True when a Windows build runs under Wine.
bool UnderWine();

// A fresh host folder under $TMPDIR (or /tmp), removed with its contents
// when the object goes away.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The folder as a host path (no trailing slash).
  const std::string& Host() const { return host_; }
  // A host path below the folder.
  std::string Host(const std::string& relative) const { return host_ + "/" + relative; }
  // The folder, or a path below it, in the library's Windows form.
  CString Win() const;
  CString Win(const std::string& relative) const;

private:
  std::string host_;
};

// UTF-8 / ASCII to the library's wide string, and back.
CString W(const std::string& text);
std::string N(const CString& text);
std::string N(const WCHAR* text);

// Host file helpers (parents are created).
void WriteFile(const std::string& hostPath, const std::string& contents);
void WriteFile(const std::string& hostPath, const std::vector<std::uint8_t>& contents);
std::vector<std::uint8_t> ReadFile(const std::string& hostPath);
std::string ReadText(const std::string& hostPath);
bool Exists(const std::string& hostPath);

// Deterministic pseudo-random bytes.
std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed);

// The files of the benchmark corpus (host paths), sorted by name; none when
// the corpus folder is missing.
std::vector<std::string> CorpusFiles();

} // namespace test
