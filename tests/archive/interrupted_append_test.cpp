// A process that dies in the middle of an append leaves a volume that
// still lists exactly the entries it had before; the next append takes the
// unfinished record's place.
#include "archive/archive_test_util.h"

// A writer killed mid-append is a POSIX child process here (fork, SIGKILL).
#if !defined(_WIN32)

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace test;

namespace {

TEST(InterruptedAppend, VolumeKeepsItsEntriesAfterAKilledWriter) {
  TempDir dir;
  const CString name = dir.Win("i.arc");
  const std::string host = dir.Host("i.arc");
  {
    RecordArchive a;
    ASSERT_TRUE(a.FileName(name.c_str(), nullptr));
    ASSERT_TRUE(a.CreateOpen(1, 1));
    for (const char* n : {"first", "second"}) {
      CArchiveEntry e = FileEntry(W(n), WTEXT("folder"), 100);
      ASSERT_TRUE(AppendEntry(a, e, RandomBytes(100, 1)));
    }
    ASSERT_TRUE(a.Close());
  }
  const std::vector<std::uint8_t> committed = ReadFile(host);

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Records and data go out, the header is never flushed, and the
    // process dies without any clean-up.
    RecordArchive a;
    if (!a.FileName(name.c_str(), nullptr) || !a.WriteOpen(0, 1)) _exit(2);
    for (const char* n : {"third", "fourth"}) {
      CArchiveEntry e = FileEntry(W(n), CString(), 5000);
      if (!AppendEntry(a, e, RandomBytes(5000, 2))) _exit(3);
    }
    FlushFileBuffers(a.Handle());
    kill(getpid(), SIGKILL);
    _exit(4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "child exit code " << WEXITSTATUS(status);
  ASSERT_EQ(WTERMSIG(status), SIGKILL);

  // The records are there on disk, but the header still ends the archive
  // where it ended before.
  const std::vector<std::uint8_t> after = ReadFile(host);
  ASSERT_GT(after.size(), committed.size() + 10000);
  EXPECT_TRUE(std::equal(committed.begin(), committed.end(), after.begin()));

  RecordArchive reader;
  ASSERT_TRUE(reader.FileName(name.c_str(), nullptr));
  ASSERT_TRUE(reader.ReadOpen());
  EXPECT_EQ(reader.GetArchiveSize().GetValue(), committed.size());
  EXPECT_EQ(ListEntries(reader), (std::vector<std::string>{"folder\\first", "folder\\second"}));
  ASSERT_TRUE(reader.Close());

  // The next append overwrites the unfinished records and the commit trims
  // what is left of them.
  RecordArchive writer;
  ASSERT_TRUE(writer.FileName(name.c_str(), nullptr));
  ASSERT_TRUE(writer.WriteOpen(0, 1));
  CArchiveEntry e = FileEntry(WTEXT("later"), CString(), 1);
  ASSERT_TRUE(AppendEntry(writer, e, AsBytes("!")));
  EXPECT_EQ(e.EntryOffset.GetValue(), committed.size());
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(ReadFile(host).size(), committed.size() + 72 + 10 + 1);
  ASSERT_TRUE(writer.ReadOpen());
  EXPECT_EQ(ListEntries(writer),
            (std::vector<std::string>{"folder\\first", "folder\\second", "later"}));
}

} // namespace

#endif // !_WIN32
