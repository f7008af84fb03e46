// The hooks an add calls and in which order, cancellation from each of
// them, and the refusals of the two public operations.
#include "adding/adding_support.h"

#include <gtest/gtest.h>

#include <talvern/platform.h>

#include <memory>

using namespace adding;
using Srch = CArchiveFile::CSrchFlags;

namespace {

// A fixed drive F: over a folder of dir, with 4096-byte clusters.
void MountFixed(const TempDir& dir) {
  talvern::MediumSpec medium;
  medium.HostDir = dir.Host("drive");
  medium.Serial = 0x1234;
  ASSERT_TRUE(talvern::MountDrive(u'F', DRIVE_FIXED, 4096, &medium));
}

} // namespace

TEST(AddingHooks, OrderAndCopyPiecesFollowTheClusters) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  TempDir dir;
  MountFixed(dir);
  WriteFile(dir.Host("source/d/f.bin"), RandomBytes(300000, 3));
  const std::string source = N(dir.Win("source"));

  Host host;
  ASSERT_EQ(host.FileName(WTEXT("F:\\out.arc"), nullptr), 1);
  ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
  // The record of f.bin starts at 20 + 74 and its data at 94 + 84 = 178:
  // the first piece reaches the next cluster boundary (4096), then whole
  // 256 KiB buffers follow.
  EXPECT_EQ(host.Calls,
            (V{"start", "file:F:\\|" + source + "||d", "file:F:\\|" + source + "|d|f.bin",
               "progress:300000/0", "progress:300000/3918", "progress:300000/266062",
               "progress:300000/300000", "progress:300000/300000", "complete:1"}));
  EXPECT_GT(host.EngineProgressCalls, 0);
}

// Where a cancellation comes from: which hook, and at which of its calls.
struct CancelPoint {
  const char* name;
  std::function<void(Host&)> arrange;
};

class AddingCancel : public ::testing::TestWithParam<int> {};

TEST_P(AddingCancel, EachHookStopsTheRunAndLeavesNoTemporaryFile) {
  TempDir dir;
  const std::string tmp = dir.Host("tmp");
  const ScopedTemporaryFolder useTmp(tmp);
  WriteFile(dir.Host("source/a.txt"), std::string(50000, 'a'));
  WriteFile(dir.Host("source/b.txt"), std::string(600000, 'b'));
  const auto noise = RandomBytes(600000, 9);
  WriteFile(dir.Host("source/c.bin"), noise);

  const CancelPoint points[] = {
      {"file hook, second file",
       [](Host& h) {
         h.OnFile = [](const CArchiveEntry& e) { return N(e.FindData.cFileName) != "b.txt"; };
       }},
      {"engine progress",
       [](Host& h) { h.OnProgress = [](auto&, auto, auto, bool engine) { return !engine; }; }},
      {"progress before the data",
       [](Host& h) {
         h.OnProgress = [](auto&, auto, std::uint64_t second, bool engine) {
           return engine || second != 0;
         };
       }},
      {"progress after a buffer",
       [](Host& h) {
         h.OnProgress = [](auto&, std::uint64_t first, std::uint64_t second, bool engine) {
           return engine || first != 600000 || second == 0 || second == 600000;
         };
       }},
      {"progress after the record",
       [](Host& h) {
         // The second call with everything written is the last one.
         auto seen = std::make_shared<int>(0);
         h.OnProgress = [seen](auto& e, std::uint64_t, std::uint64_t second, bool engine) {
           if (engine || N(e.FindData.cFileName) != "c.bin" || second != 600000) return 1;
           return ++*seen == 2 ? 0 : 1;
         };
       }},
      {"engine failure", [](Host& h) { h.FailEngineWith = ERROR_WRITE_FAULT; }},
  };
  const CancelPoint& point = points[GetParam()];
  SCOPED_TRACE(point.name);

  Host host;
  point.arrange(host);
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
  EXPECT_EQ(host.GetErrorCode(), GetParam() == 5 ? ERROR_WRITE_FAULT : ERROR_CANCELLED);
  EXPECT_EQ(host.Calls.back(), "complete:0");
  EXPECT_FALSE(host.IsOpen());
  const std::string tmpAsReported = talvern::WindowsPathToHost(dir.Win("tmp").c_str());
  for (const auto& t : host.TemporaryFiles) EXPECT_EQ(t.rfind(tmpAsReported, 0), 0u) << t;
  EXPECT_EQ(FolderContents(tmp), V{});
  // Whatever remains of the archive holds whole entries only: the item
  // that failed was taken out again.
  if (Exists(dir.Host("out.arc"))) {
    const Volume volume = ReadVolume(dir.Win("out.arc"));
    EXPECT_LT(volume.Entries.size(), 3u);
    for (const auto& e : volume.Entries) {
      EXPECT_EQ(e.CompressType & 0x80000000u, 0u);
      EXPECT_EQ(e.DataSize.GetValue(), e.PackedSize.GetValue()) << FullName(e);
      if (e.CompressType == 0) {
        EXPECT_EQ(volume.Data(e), ReadFile(dir.Host("source/" + FullName(e))));
      }
    }
  }
  EXPECT_EQ(ReadFile(dir.Host("source/c.bin")), noise);
}

INSTANTIATE_TEST_SUITE_P(Points, AddingCancel, ::testing::Range(0, 6));

TEST(AddingHooks, RefusalsOfTheTwoOperations) {
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  {
    Host host; // no archive name: the first volume cannot be created
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_PATH_BUSY);
    EXPECT_EQ(host.Calls, (V{"start", "complete:0"}));
  }
  {
    Host host; // a nested add from a hook is refused; the running one goes on
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    DWORD nested = 0;
    host.OnFile = [&](const CArchiveEntry&) {
      if (host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity) == 0)
        nested = host.GetErrorCode();
      host.ClearError();
      return 1;
    };
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
    EXPECT_EQ(nested, ERROR_PATH_BUSY);
    EXPECT_EQ(ReadVolume(dir.Win("out.arc")).Entries.size(), 1u);
  }
  Host host; // a single add with nothing open, and into a volume open for reading
  CArchiveEntry entry;
  SetName(entry, WTEXT("f.txt"));
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 0);
  EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(host.Calls, (V{"start", "complete:0"}));
  ASSERT_EQ(host.ReadOpen(), 1);
  EXPECT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 0);
  EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
}
