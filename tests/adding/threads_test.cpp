// Adding with compression ahead on worker threads and with direct transfer:
// the archive and every call the host hears are those of one thread going
// through temporary files.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

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
  // Files that do not compress are stored as they are, from one byte to
  // more than one copy buffer.
  std::uint32_t seed = 12345;
  for (const std::size_t size : {1u, 700u, 5000u, 300000u}) {
    std::string noise(size, '\0');
    for (char& c : noise) c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 24);
    WriteFile(dir.Host("source/b" + std::to_string(size) + ".bin"), noise);
  }
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
  EXPECT_TRUE(one.archive == Add(dir, 1, false, 0, 1000000).archive);
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

TEST(AddingThreads, CopiesAreStoredAndToldAsTheirFirst) {
  // Files met again later in the walk (the same bytes under other names)
  // take the data of their first: the archive is the one written through
  // temporary files, a copy's progress calls are its first's, and a
  // cancellation in the middle of a copy leaves what it leaves there. A
  // file of the same size and CRC-32 (two words whose CRCs are the same in
  // the same place) is compressed on its own.
  TempDir dir;
  std::string text = ReadText(CorpusFiles().front()).substr(0, 100000);
  std::string changed = text;
  text.replace(50000, 8, "plumless");
  changed.replace(50000, 8, "buckeroo");
  WriteFile(dir.Host("source/a/first.txt"), text);
  WriteFile(dir.Host("source/a/other.txt"), text.substr(0, 30000));
  WriteFile(dir.Host("source/b/changed.txt"), changed);
  WriteFile(dir.Host("source/b/copy.txt"), text);
  WriteFile(dir.Host("source/c/copy.txt"), text);

  // The calls that tell each file's compression (named by its file call;
  // those that tell of writing it to the archive, second count not 0,
  // depend on where it lands), and the number of the call (1-based, over
  // all calls) that is the fifth of b/copy.txt.
  struct Heard {
    std::map<std::string, std::vector<std::string>> calls;
    int fifthOfCopy = 0;
  };
  const auto heard = [](const Outcome& outcome) {
    Heard h;
    std::string file;
    int count = 0;
    for (const std::string& call : outcome.calls) {
      if (call.rfind("file:", 0) == 0) {
        file = call.substr(call.find('|') + 1);
      } else if (call.rfind("engine:", 0) == 0 || call.rfind("progress:", 0) == 0) {
        ++count;
        if (call.size() < 2 || call.compare(call.size() - 2, 2, "/0") != 0) continue;
        auto& calls = h.calls[file];
        calls.push_back(call);
        if (file.find("b|copy.txt") != std::string::npos && calls.size() == 5)
          h.fifthOfCopy = count;
      }
    }
    return h;
  };

  const Outcome viaTemporary = Add(dir, 1, false);
  ASSERT_EQ(viaTemporary.result, 1) << viaTemporary.error;
  for (const DWORD threads : {1u, 2u}) {
    const Outcome direct = Add(dir, threads, true);
    EXPECT_TRUE(direct.archive == viaTemporary.archive) << threads;
    const Heard h = heard(direct);
    ASSERT_EQ(h.calls.size(), 5u);
    const auto& first = h.calls.begin()->second; // a/first.txt is the first file
    ASSERT_GT(first.size(), 10u);
    for (const auto& [file, calls] : h.calls)
      if (file.find("other.txt") == std::string::npos) {
        EXPECT_EQ(calls, first) << file;
      }
  }

  std::vector<std::uint8_t> leftViaTemporary;
  for (const bool isDirect : {false, true}) {
    const int at = heard(Add(dir, 1, isDirect)).fifthOfCopy;
    ASSERT_NE(at, 0);
    const Outcome cancelled = Add(dir, 1, isDirect, at);
    EXPECT_EQ(cancelled.result, 0);
    EXPECT_EQ(cancelled.error, static_cast<DWORD>(ERROR_CANCELLED));
    if (!isDirect) {
      leftViaTemporary = cancelled.archive;
    } else {
      EXPECT_TRUE(cancelled.archive == leftViaTemporary);
    }
  }
}
