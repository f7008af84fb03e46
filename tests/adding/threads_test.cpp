// Adding with compression ahead on worker threads and with direct transfer:
// the archive and every call the host hears are those of one thread going
// through temporary files.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace adding;

namespace {

// Real data in nested folders, many small and empty files, one file too
// large to be compressed ahead into memory and one too large for direct
// transfer.
void MakeCorpusTree(const TempDir& dir) {
  unsigned n = 0;
  for (const std::string& file : CorpusFiles()) {
    const std::string folder = n % 3 == 0 ? "source/" : n % 3 == 1 ? "source/a/" : "source/a/b/";
    WriteFile(dir.Host(folder + std::filesystem::path(file).filename().string()), ReadFile(file));
    ++n;
  }
  for (unsigned i = 0; i < 60; ++i)
    WriteFile(dir.Host("source/small/f" + std::to_string(i) + ".txt"),
              std::string(i * 37 % 500, static_cast<char>('a' + i % 7)) + std::to_string(i));
  WriteFile(dir.Host("source/a/empty.dat"), "");
  std::string large;
  while (large.size() < (9u << 20)) large += "line " + std::to_string(large.size() % 977) + "\n";
  WriteFile(dir.Host("source/large.txt"), large);
  WriteFile(dir.Host("source/a/middle.txt"), large.substr(1000, 3u << 20));
}

struct Outcome {
  int result = 0;
  DWORD error = 0;
  std::vector<std::string> calls;
  std::vector<std::uint8_t> archive;
};

// CompressAll of the tree, into numbered volumes of `limit` bytes when it
// is not 0; cancelAt answers 0 to that progress call (1-based, the
// engine's included).
Outcome Add(const TempDir& dir, DWORD threads, bool direct, int cancelAt = 0, DWORD limit = 0) {
  Host host;
  host.RecordEngineProgress = true;
  host.SetCompressThreads(threads);
  host.SetDirectTransfer(direct ? 1 : 0);
  host.DefaultCreateTime(MakeFileTime(0x01D0000000000000ull));
  int calls = 0;
  host.OnProgress = [&](const CArchiveEntry&, std::uint64_t, std::uint64_t, bool) {
    return ++calls != cancelAt;
  };
  for (unsigned i = 0; i < 100; ++i) std::filesystem::remove(NumberedName(dir.Host("out"), i));
  std::filesystem::remove(dir.Host("out.arc"));
  const CArchiveSize size(limit);
  EXPECT_EQ(host.FileName(dir.Win("out.arc").c_str(), limit ? &size : nullptr), 1);
  Outcome out;
  out.result =
      host.CompressAll(dir.Win("source").c_str(), {}, kNoSecurity | CArchiveFile::AttrNoTimes);
  out.error = host.GetErrorCode();
  out.calls = host.Calls;
  if (Exists(dir.Host("out.arc"))) out.archive = ReadFile(dir.Host("out.arc"));
  for (unsigned i = 0; Exists(NumberedName(dir.Host("out"), i)); ++i) {
    const auto volume = ReadFile(NumberedName(dir.Host("out"), i));
    out.archive.insert(out.archive.end(), volume.begin(), volume.end());
  }
  return out;
}

void ExpectSame(const Outcome& actual, const Outcome& expected, const std::string& what) {
  EXPECT_EQ(actual.result, expected.result) << what;
  EXPECT_EQ(actual.error, expected.error) << what;
  EXPECT_TRUE(actual.archive == expected.archive) << what;
  EXPECT_EQ(actual.calls, expected.calls) << what;
}

} // namespace

TEST(AddingThreads, ArchiveAndCallsAreThoseOfOneThread) {
  TempDir dir;
  MakeCorpusTree(dir);
  const Outcome viaTemporary = Add(dir, 1, false);
  ASSERT_EQ(viaTemporary.result, 1) << viaTemporary.error;
  const Outcome direct = Add(dir, 1, true);
  // Direct transfer writes the same archive without the temporary files.
  EXPECT_TRUE(direct.archive == viaTemporary.archive);
  for (const bool isDirect : {false, true})
    for (const DWORD threads : {2u, 3u, 8u})
      ExpectSame(Add(dir, threads, isDirect), isDirect ? direct : viaTemporary,
                 std::to_string(threads) + " threads, direct " + std::to_string(isDirect));
}

TEST(AddingThreads, NumberedVolumesAreTheSame) {
  TempDir dir;
  MakeCorpusTree(dir);
  const Outcome one = Add(dir, 1, true, 0, 1000000);
  ASSERT_EQ(one.result, 1) << one.error;
  ExpectSame(Add(dir, 8, true, 0, 1000000), one, "numbered volumes");
}

TEST(AddingThreads, CancellingLeavesWhatOneThreadLeaves) {
  TempDir dir;
  MakeCorpusTree(dir);
  for (const bool isDirect : {false, true})
    for (const int cancelAt : {3, 40, 200, 1500}) { // 1500: in large.txt, on every thread
      const Outcome one = Add(dir, 1, isDirect, cancelAt);
      ASSERT_EQ(one.result, 0);
      ASSERT_EQ(one.error, static_cast<DWORD>(ERROR_CANCELLED));
      ExpectSame(Add(dir, 4, isDirect, cancelAt), one,
                 "cancel at " + std::to_string(cancelAt) + ", direct " + std::to_string(isDirect));
    }
}

TEST(AddingThreads, LargeFileOnAllThreadsReadsAsOneEngine) {
  // One file large enough to be compressed on every thread, its size each
  // side of a place where the one engine's window slides: its last read is
  // then empty, short or whole, and the host hears of each.
  TempDir dir;
  std::string text;
  while (text.size() < (9u << 20)) text += "row " + std::to_string(text.size() % 7919) + ";\n";
  constexpr std::size_t slide = 7936 + 8192 * 1024;
  for (const std::size_t size : {slide - 1, slide, slide + 300}) {
    std::filesystem::remove_all(dir.Host("source"));
    WriteFile(dir.Host("source/big.txt"), text.substr(0, size));
    const Outcome one = Add(dir, 1, true);
    ASSERT_EQ(one.result, 1) << one.error;
    ExpectSame(Add(dir, 2, true), one, std::to_string(size) + " bytes");
  }
}
