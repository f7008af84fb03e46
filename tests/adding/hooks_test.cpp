// The hooks an add calls and in which order, cancellation from each of
// them, the refusals of the two public operations, and single items.
#include "adding/adding_support.h"
#include "security/security_fixtures.h"

#include <gtest/gtest.h>

#include <talvern/platform.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#if !defined(_WIN32)
#include <unistd.h>
#endif

using namespace adding;
using Srch = CArchiveFile::CSrchFlags;
using Attr = CArchiveFile::CAttrFlags;

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

namespace {

// A host that also notes every call of Close.
class ClosingHost : public Host {
public:
  int Close() override {
    Calls.push_back("close");
    return CArchiveFile::Close();
  }
};

} // namespace

// Starting a new archive closes whatever volume the object has (Close is
// called even when none is open, and the error it reports then is
// cleared); a volume the host left open keeps its own header.
TEST(AddingHooks, NewArchiveClosesTheOpenVolumeFirst) {
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  {
    ClosingHost host;
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
    EXPECT_EQ(
        host.Calls,
        (V{"start", "close",
           "file:" + N(dir.Win("source")).substr(0, 3) + "|" + N(dir.Win("source")) + "||f.txt",
           "progress:1/0", "progress:1/1", "progress:1/1", "close", "complete:1"}));
    EXPECT_FALSE(host.IsError());
  }
  {
    // With a limit the host's own volume is named B, the new set's first
    // volume B.000.
    CArchiveSize limit;
    limit.LowPart = 100000;
    ClosingHost host;
    ASSERT_EQ(host.FileName(dir.Win("B.ARC").c_str(), &limit), 1);
    ASSERT_EQ(host.CreateOpen(1, 0), 1);
    CArchiveEntry entry;
    SetName(entry, WTEXT("f.txt"));
    ASSERT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 1);
    host.Calls.clear();
    ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
    EXPECT_EQ(host.CallsStartingWith("close"), (V{"close", "close"}));
    EXPECT_EQ(Names(ReadVolume(dir.Win("B")).Entries), V{"f.txt"});
    EXPECT_EQ(Names(ReadVolume(dir.Win("B.000")).Entries), V{"f.txt"});
  }
}

TEST(AddingHooks, RefusedStartCallsOnlyTheCompletion) {
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  {
    Host host;
    host.OnStart = [] { return 0; };
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.Calls, (V{"start", "complete:0"}));
    EXPECT_EQ(host.GetErrorCode(), ERROR_CANCELLED);
    EXPECT_TRUE(host.IsAborted());
    EXPECT_FALSE(Exists(dir.Host("out.arc")));
  }
  {
    Host host;
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    ASSERT_EQ(host.CreateOpen(1, 0), 1);
    host.OnStart = [] { return 0; };
    CArchiveEntry entry;
    SetName(entry, WTEXT("f.txt"));
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.Calls, (V{"start", "complete:0"}));
    EXPECT_EQ(host.GetErrorCode(), ERROR_CANCELLED);
  }
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
    DWORD nestedAll = 0, nestedOne = 0;
    host.OnFile = [&](const CArchiveEntry&) {
      if (host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity) == 0)
        nestedAll = host.GetErrorCode();
      host.ClearError();
      CArchiveEntry item;
      SetName(item, WTEXT("f.txt"));
      if (host.Compress(dir.Win("source").c_str(), item, Srch{}, kNoSecurity) == 0)
        nestedOne = host.GetErrorCode();
      host.ClearError();
      return 1;
    };
    EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
    EXPECT_EQ(nestedAll, ERROR_PATH_BUSY);
    EXPECT_EQ(nestedOne, ERROR_PATH_BUSY);
    // The refused single add still reports its start and its end.
    EXPECT_EQ(
        host.Calls,
        (V{"start",
           "file:" + N(dir.Win("source")).substr(0, 3) + "|" + N(dir.Win("source")) + "||f.txt",
           "start", "complete:0", "progress:1/0", "progress:1/1", "progress:1/1", "complete:1"}));
    EXPECT_EQ(ReadVolume(dir.Win("out.arc")).Entries.size(), 1u);
  }

  CArchiveEntry entry;
  SetName(entry, WTEXT("f.txt"));
  {
    Host host; // nothing open
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(host.Calls, (V{"start", "complete:0"}));
  }
  {
    Host host; // open for reading only, and no base folder
    ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
    ASSERT_EQ(host.ReadOpen(), 1);
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), entry, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
    ASSERT_EQ(host.WriteOpen(0, 0), 1);
    EXPECT_EQ(host.Compress(nullptr, entry, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
    // A position outside the archive's records.
    CArchiveEntry misplaced = entry;
    misplaced.EntryOffset = host.GetArchiveSize().GetValue() + 1;
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), misplaced, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
    misplaced.EntryOffset = 10;
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), misplaced, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_SEEK_ON_DEVICE);
    // A missing item.
    CArchiveEntry missing;
    SetName(missing, WTEXT("nothing.txt"));
    EXPECT_EQ(host.Compress(dir.Win("source").c_str(), missing, Srch{}, kNoSecurity), 0);
    EXPECT_EQ(host.GetErrorCode(), ERROR_FILE_NOT_FOUND);
    host.Close();
  }
  // None of the refused adds changed the archive.
  EXPECT_EQ(ReadVolume(dir.Win("out.arc")).Entries.size(), 1u);
}

TEST(AddingSingle, ItemsAppendReplaceAndDescendWithThePathKept) {
  TempDir dir;
  WriteFile(dir.Host("base/sub/one.txt"), "first file");
  WriteFile(dir.Host("base/sub/two.log"), std::string(5000, 'z'));
  WriteFile(dir.Host("base/tree/x/y.txt"), "y");

  Host host;
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  ASSERT_EQ(host.CreateOpen(1, 0), 1);
  const CString base = dir.Win("base");

  CArchiveEntry entry;
  entry.Path = WTEXT("sub");
  SetName(entry, WTEXT("one.txt"));
  ASSERT_EQ(host.Compress(base.c_str(), entry, Srch{}, kNoSecurity), 1);
  EXPECT_TRUE(host.IsOpen());
  EXPECT_FALSE(host.IsMediaChanged());
  EXPECT_EQ(N(entry.Path), "sub");
  EXPECT_EQ(entry.EntryOffset.GetValue(), 20u);
  const std::uint64_t secondAt = host.GetArchiveSize().GetValue();

  // A wildcard takes the first match; the host may ask for a method.
  CArchiveEntry wild;
  wild.Path = WTEXT("sub");
  SetName(wild, WTEXT("*.log"));
  wild.CompressType = 2; // not a method of this library: stored as it is
  ASSERT_EQ(host.Compress(base.c_str(), wild, Srch{}, kNoSecurity), 1);
  EXPECT_EQ(N(wild.FindData.cFileName), "two.log");
  EXPECT_EQ(wild.CompressType, 0u);

  // A directory called "." (here the first match of ".*") adds nothing; a
  // real one comes with its subtree.
  CArchiveEntry dot;
  SetName(dot, WTEXT(".*"));
  dot.Path = WTEXT("tree");
  const std::uint64_t before = host.GetArchiveSize().GetValue();
  EXPECT_EQ(host.Compress(base.c_str(), dot, Srch{}, kNoSecurity), 1);
  EXPECT_EQ(host.GetArchiveSize().GetValue(), before);

  // Replacing from the second record on: two.log is dropped.
  CArchiveEntry tree;
  SetName(tree, WTEXT("tree"));
  tree.EntryOffset = secondAt;
  ASSERT_EQ(host.Compress(base.c_str(), tree, Srch{}, kNoSecurity), 1);
  EXPECT_TRUE(tree.Path.empty());
  ASSERT_EQ(host.Close(), 1);

  const Volume volume = ReadVolume(dir.Win("out.arc"));
  EXPECT_EQ(Names(volume.Entries), (V{"sub\\one.txt", "tree", "tree\\x", "tree\\x\\y.txt"}));
  EXPECT_EQ(volume.Data(volume.Entries[0]), ReadFile(dir.Host("base/sub/one.txt")));
}

// The descriptor below names the Linux layer's user and group (uid and gid
// as SIDs); on Windows the system's own descriptors apply.
#if !defined(_WIN32)
namespace {

// A self-relative descriptor owned by this process's user and group, with a
// DACL of two entries.
std::vector<BYTE> KnownDescriptor() {
  using namespace sectest;
  const auto owner = Sid(22, {1, static_cast<std::uint32_t>(getuid())});
  const auto group = Sid(22, {2, static_cast<std::uint32_t>(getgid())});
  Layout l;
  l.owner = owner;
  l.group = group;
  l.dacl = Acl({Ace(0, 0, FILE_ALL_ACCESS, owner), Ace(0, 0, FILE_GENERIC_READ, Everyone())});
  return SelfRelative(l);
}

} // namespace

TEST(AddingSecurity, DescriptorTravelsByteForByteAndNeedsThePrivilege) {
  TALVERN_NEEDS_SIMULATED_DRIVES();
  TempDir dir;
  talvern::SetPrivilegeHeld(SE_SECURITY_NAME, TRUE);
  const std::vector<BYTE> known = KnownDescriptor();
  ASSERT_FALSE(known.empty());
  ASSERT_TRUE(CreateDirectoryW(dir.Win("source").c_str(), nullptr));
  SECURITY_ATTRIBUTES sa{sizeof(SECURITY_ATTRIBUTES), const_cast<BYTE*>(known.data()), FALSE};
  const HANDLE f = CreateFileW(dir.Win("source/secured.txt").c_str(), GENERIC_WRITE, 0, &sa,
                               CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(f, INVALID_HANDLE_VALUE) << GetLastError();
  CloseHandle(f);
  WriteFile(dir.Host("source/folder/plain.txt"), "p");

  Host host;
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, Attr{}), 1) << host.GetErrorCode();
  // The capture enabled the privilege that reading a SACL needs.
  EXPECT_EQ(DescriptorOf(dir.Win("source/secured.txt"), 0x0F), known);
  for (const auto& e : ReadVolume(dir.Win("out.arc")).Entries) {
    std::string relative = FullName(e);
    std::replace(relative.begin(), relative.end(), '\\', '/');
    const CString path = dir.Win("source/" + relative);
    const std::vector<BYTE> expected = DescriptorOf(path, 0x0F);
    ASSERT_NE(e.Security, nullptr);
    ASSERT_GT(e.Security->Length, 0u) << FullName(e); // folders are captured too
    EXPECT_EQ(std::vector<BYTE>(e.Security->Data, e.Security->Data + e.Security->Length), expected)
        << FullName(e);
  }

  // With the option off nothing is captured.
  ASSERT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 1);
  for (const auto& e : ReadVolume(dir.Win("out.arc")).Entries) EXPECT_EQ(e.Security->Length, 0u);

  // Without the privilege the first entry fails before anything is kept.
  talvern::SetPrivilegeHeld(SE_SECURITY_NAME, FALSE);
  TempDir other;
  Host refused;
  ASSERT_EQ(refused.FileName(other.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(refused.CompressAll(dir.Win("source").c_str(), Srch{}, Attr{}), 0);
  EXPECT_EQ(refused.GetErrorCode(), ERROR_NOT_ALL_ASSIGNED);
  EXPECT_EQ(refused.CallsStartingWith("file:").size(), 1u);
  EXPECT_EQ(ReadVolume(other.Win("out.arc")).Entries.size(), 0u);
  // Turning the option off by its partner bit alone works as well.
  EXPECT_EQ(
      refused.CompressAll(dir.Win("source").c_str(), Srch{}, CArchiveFile::AttrToggleSecurity), 1);
}
#endif // !_WIN32

TEST(AddingDecisions, TemporaryFolderTooLongForTheNameBuffer) {
  TempDir dir;
  std::string deep = dir.Host("t");
  while (deep.size() < 300) deep += "/folder-with-a-long-name";
  const ScopedTemporaryFolder useDeep(deep);
  WriteFile(dir.Host("source/f.txt"), "x");

  Host host;
  CString name = WTEXT("left over");
  EXPECT_EQ(host.GetTempCompressFile(name, 0, nullptr), 0u);
  EXPECT_TRUE(name.empty());
  EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);

  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
  EXPECT_EQ(host.GetErrorCode(), ERROR_FILENAME_EXCED_RANGE);
}

// A host's temporary-file member that fails after naming a file: the add
// fails with the reported code, and the file it named was never reserved
// for the add, so it is left alone.
TEST(AddingDecisions, FailedTemporaryFileLeavesTheNameItReportedAlone) {
  TempDir dir;
  WriteFile(dir.Host("source/f.txt"), "x");
  WriteFile(dir.Host("precious"), "the host's own file");
  test::NamesTemporaryThenFails<Host> host;
  host.name = dir.Win("precious");
  ASSERT_EQ(host.FileName(dir.Win("out.arc").c_str(), nullptr), 1);
  EXPECT_EQ(host.CompressAll(dir.Win("source").c_str(), Srch{}, kNoSecurity), 0);
  EXPECT_EQ(host.GetErrorCode(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ReadText(dir.Host("precious")), "the host's own file");
}
