// Extracting with direct transfer and testing only: the host hears what it
// hears through temporary files, the output is the same, and testing
// creates nothing yet finds damaged data.
#include "extracting/fixture.h"

#include <filesystem>

using namespace xt;

namespace {

class DirectTest : public ExtractTest {
protected:
  // Real data, a split file when the archive has volumes, and an empty one.
  void MakeArchive(std::uint64_t limit) {
    unsigned n = 0;
    for (const std::string& file : CorpusFiles())
      WriteFile(tmp.Host((n++ % 2 ? "source/" : "source/d/") +
                         std::filesystem::path(file).filename().string()),
                ReadFile(file));
    WriteFile(tmp.Host("source/d/empty.dat"), "");
    CArchiveFile maker;
    const CArchiveSize size(static_cast<DWORD>(limit));
    ASSERT_TRUE(maker.FileName(Win(tmp.Host("set.arc")).c_str(), limit ? &size : nullptr));
    ASSERT_TRUE(maker.CompressAll(Win(tmp.Host("source")).c_str(), {}, {}));
  }

  struct Outcome {
    int result = 0;
    DWORD error = 0;
    std::vector<std::string> calls;
    std::vector<CArchiveSize> progress;
    int progressCalls = 0;
    std::vector<std::string> tree;
  };

  Outcome Extract(bool direct, bool testOnly, std::uint64_t limit) {
    std::filesystem::remove_all(Out());
    std::filesystem::create_directories(Out());
    Recorder host;
    host.SetDirectTransfer(direct ? 1 : 0);
    host.SetTestOnly(testOnly ? 1 : 0);
    const CArchiveSize size(static_cast<DWORD>(limit));
    EXPECT_TRUE(host.FileName(Win(tmp.Host("set.arc")).c_str(), limit ? &size : nullptr));
    Outcome out;
    out.result = host.ExpandAll(OutWin().c_str(), {}, {});
    out.error = host.GetErrorCode();
    out.calls = host.Calls;
    out.progress = host.Progress;
    out.progressCalls = host.ExpandNotifyCalls;
    if (testOnly) out.tree = ListTree(Out()); // reading a folder may change its times
    return out;
  }
};

void ExpectSameCalls(const auto& actual, const auto& expected) {
  EXPECT_EQ(actual.result, expected.result);
  EXPECT_EQ(actual.error, expected.error);
  EXPECT_EQ(actual.calls, expected.calls);
  EXPECT_EQ(actual.progressCalls, expected.progressCalls);
  ASSERT_EQ(actual.progress.size(), expected.progress.size());
  for (std::size_t i = 0; i < actual.progress.size(); ++i)
    EXPECT_EQ(actual.progress[i].GetValue(), expected.progress[i].GetValue()) << i;
}

} // namespace

TEST_F(DirectTest, SameCallsAndOutputAsThroughTemporaryFiles) {
  // One volume, and a numbered set whose files are split over volumes.
  for (const std::uint64_t limit : {0ull, 300000ull}) {
    std::filesystem::remove_all(tmp.Host("source"));
    MakeArchive(limit);
    const auto viaTemporary = Extract(false, false, limit);
    ASSERT_EQ(viaTemporary.result, 1) << viaTemporary.error;
    EXPECT_TRUE(Temporaries().empty());
    std::filesystem::remove_all(tmp.Host("first"));
    std::filesystem::rename(Out(), tmp.Host("first"));

    // The same files, attributes and times (compared before anything reads
    // them, which may change their last-access times).
    const auto direct = Extract(true, false, limit);
    ExpectSameCalls(direct, viaTemporary);
    EXPECT_EQ(CompareTrees(tmp.Host("first"), Out()), "");
    EXPECT_EQ(CompareTrees(tmp.Host("source"), Out(), false), "");
    EXPECT_TRUE(Temporaries().empty());

    // Testing hears the same and leaves the target as it was.
    const auto tested = Extract(false, true, limit);
    ExpectSameCalls(tested, viaTemporary);
    EXPECT_TRUE(tested.tree.empty());
    EXPECT_TRUE(Temporaries().empty());
  }
}

TEST_F(DirectTest, TestingFindsDamagedData) {
  MakeArchive(0);
  // A byte in the middle of the first compressed file's data.
  Volume volume = ReadVolume(Win(tmp.Host("set.arc")));
  for (const CArchiveEntry& e : volume.Entries)
    if (e.CompressType == 1 && e.DataSize.GetValue() > 100) {
      volume.Bytes[e.DataOffset.GetValue() + e.DataSize.GetValue() / 2] ^= 0x10;
      break;
    }
  WriteFile(tmp.Host("set.arc"), volume.Bytes);
  const auto viaTemporary = Extract(false, false, 0);
  EXPECT_EQ(viaTemporary.result, 0);
  EXPECT_TRUE(viaTemporary.error == ERROR_CRC || viaTemporary.error == ERROR_WRITE_FAULT)
      << viaTemporary.error;
  for (const bool testOnly : {false, true}) {
    const auto direct = Extract(true, testOnly, 0);
    ExpectSameCalls(direct, viaTemporary);
  }
  EXPECT_TRUE(Extract(true, true, 0).tree.empty());
}
