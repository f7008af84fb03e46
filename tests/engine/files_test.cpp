// The engine on real files: file-mode streams, the one-shot file variants
// at a non-zero file position (which they never move), and the archive
// object's ExecCompress and ExecExpand with their progress calls.
#include "engine_test_util.h"

#include "support/test_support.h"

#include <talvern/oneshot.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace enginetest;

namespace {

// An open file handle, closed at the end of the scope.
class File {
public:
  File(const CString& path, DWORD access, DWORD disposition)
      : handle_(CreateFileW(path.c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                            nullptr)) {}
  ~File() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  HANDLE Get() const { return handle_; }
  std::uint64_t Tell() const {
    LONG high = 0;
    const DWORD low = SetFilePointer(handle_, 0, &high, FILE_CURRENT);
    return static_cast<std::uint64_t>(static_cast<DWORD>(high)) << 32 | low;
  }
  void Seek(std::uint64_t at) const {
    LONG high = static_cast<LONG>(at >> 32);
    SetFilePointer(handle_, static_cast<LONG>(at), &high, FILE_BEGIN);
  }

private:
  HANDLE handle_;
};

constexpr DWORD ReadWrite = GENERIC_READ | GENERIC_WRITE;

Bytes Concat(const Bytes& a, const Bytes& b) {
  Bytes out = a;
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

Bytes MemBlock(const Bytes& data, DWORD method) {
  Bytes out(data.size() + data.size() / 8 + 64);
  DWORD size = 0, error = 0;
  EXPECT_TRUE(GetCompressMemToMem(data.data(), static_cast<DWORD>(data.size()), &error, &size,
                                  out.data(), static_cast<DWORD>(out.size()), method));
  out.resize(size);
  return out;
}

// ---- File-mode streams ----------------------------------------------------------

TEST(FileStreams, ReadsStopAtTheEndOfTheFileWithoutError) {
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "0123456789");
  File f(dir.Win("f"), GENERIC_READ, OPEN_EXISTING);
  f.Seek(4);
  CFileCRC s;
  s.SetFile(f.Get());
  BYTE buffer[16] = {};
  EXPECT_EQ(6u, s.Read(buffer, 16));
  EXPECT_TRUE(s.IsShort());
  EXPECT_FALSE(s.HasError());
  EXPECT_EQ("456789", std::string(buffer, buffer + 6));
  EXPECT_EQ(talvern::engine::Crc32Update(0, "456789", 6), s.Crc);
  EXPECT_EQ(6u, s.Position.GetValue());

  CFileIO limited;
  f.Seek(0);
  limited.SetFile(f.Get(), 3);
  EXPECT_EQ(3u, limited.Read(buffer, 16));
  EXPECT_TRUE(limited.IsShort());
  EXPECT_EQ(3u, f.Tell()); // the stream reads on from where the file stands
}

TEST(FileStreams, SystemFailuresAreLatched) {
  test::TempDir dir;
  test::WriteFile(dir.Host("f"), "abc");
  File f(dir.Win("f"), GENERIC_READ, OPEN_EXISTING);
  CFileIO s;
  s.SetFile(f.Get());
  const BYTE data[4] = {1, 2, 3, 4};
  EXPECT_EQ(0u, s.Write(data, 4)); // opened for reading only
  EXPECT_TRUE(s.HasError());
  EXPECT_EQ(ERROR_ACCESS_DENIED, s.Error);
  EXPECT_TRUE(s.IsShort());
  EXPECT_EQ(0u, s.Position.GetValue());
  EXPECT_EQ(~std::uint64_t{0}, s.Remaining.GetValue());

  CFileIO closed;
  closed.SetFile(reinterpret_cast<HANDLE>(0x7FFF0000));
  BYTE buffer[4];
  EXPECT_EQ(0u, closed.Read(buffer, 4));
  EXPECT_EQ(ERROR_INVALID_HANDLE, closed.Error);
}

// ---- One-shot file variants ------------------------------------------------------

TEST(OneShotFiles, CompressFileToMemTakesWhatIsLeftAndKeepsThePosition) {
  test::TempDir dir;
  const Bytes data = TextLike(5000, 4);
  test::WriteFile(dir.Host("src"), data);
  File f(dir.Win("src"), GENERIC_READ, OPEN_EXISTING);
  f.Seek(4990);
  Bytes out(200);
  DWORD error = 9, size = 0;
  ASSERT_TRUE(GetCompressFileToMem(f.Get(), 100, &error, &size, out.data(), 200, 1));
  EXPECT_EQ(9u, error);
  EXPECT_EQ(4990u, f.Tell());
  out.resize(size);
  EXPECT_EQ(MemBlock(Bytes(data.end() - 10, data.end()), 1), out);

  // At a position past the granule (65536) and far into a larger file.
  const Bytes big = TextLike(200000, 5);
  test::WriteFile(dir.Host("big"), big);
  File g(dir.Win("big"), GENERIC_READ, OPEN_EXISTING);
  g.Seek(70001);
  Bytes block(60000);
  ASSERT_TRUE(GetCompressFileToMem(g.Get(), 50000, &error, &size, block.data(), 60000, 0xFFFF));
  block.resize(size);
  EXPECT_EQ(MemBlock(Bytes(big.begin() + 70001, big.begin() + 120001), 1), block);
  EXPECT_EQ(70001u, g.Tell());

  // At the end of the file: an empty block.
  g.Seek(200000);
  ASSERT_TRUE(GetCompressFileToMem(g.Get(), 100, &error, &size, block.data(), 60000, 1));
  EXPECT_EQ(18u, size);
  // An empty file too.
  test::WriteFile(dir.Host("empty"), "");
  File e(dir.Win("empty"), GENERIC_READ, OPEN_EXISTING);
  ASSERT_TRUE(GetCompressFileToMem(e.Get(), 100, &error, &size, block.data(), 60000, 0));
  EXPECT_EQ(16u, size);
}

TEST(OneShotFiles, InvalidSourceHandlesFailWith6) {
  Bytes out(100);
  DWORD error = 0, size = 5;
  EXPECT_FALSE(GetCompressFileToMem(INVALID_HANDLE_VALUE, 10, &error, &size, out.data(), 100, 1));
  EXPECT_EQ(ERROR_INVALID_HANDLE, error);
  EXPECT_EQ(0u, size);
  error = 0;
  EXPECT_FALSE(GetExpandFileToMem(INVALID_HANDLE_VALUE, 10, &error, &size, out.data(), 100));
  EXPECT_EQ(ERROR_INVALID_HANDLE, error);
  error = 0;
  EXPECT_FALSE(
      GetCompressFileToFile(INVALID_HANDLE_VALUE, 10, &error, &size, INVALID_HANDLE_VALUE, 100, 1));
  EXPECT_EQ(ERROR_INVALID_HANDLE, error);
  error = 0;
  EXPECT_FALSE(
      GetExpandFileToFile(INVALID_HANDLE_VALUE, 10, &error, &size, INVALID_HANDLE_VALUE, 100));
  EXPECT_EQ(ERROR_INVALID_HANDLE, error);
}

TEST(OneShotFiles, CompressMemToFileWritesAtThePositionAndGrowsTheFile) {
  test::TempDir dir;
  const Bytes data = TextLike(3000, 7);
  const Bytes block = MemBlock(data, 1);
  const Bytes head(100, 0xAB);
  test::WriteFile(dir.Host("dst"), head);
  File f(dir.Win("dst"), ReadWrite, OPEN_EXISTING);
  f.Seek(100);
  DWORD error = 0, size = 0;
  ASSERT_TRUE(GetCompressMemToFile(data.data(), 3000, &error, &size, f.Get(), 4000, 1));
  EXPECT_EQ(block.size(), size);
  EXPECT_EQ(100u, f.Tell());
  CloseHandle(f.Get()); // the view is gone; the file holds the mapped room
  const Bytes file = test::ReadFile(dir.Host("dst"));
  ASSERT_EQ(4100u, file.size()); // grown to the mapped room, not cut to the block
  EXPECT_EQ(Concat(head, block), Bytes(file.begin(), file.begin() + 100 + size));

  // An invalid destination handle makes a size query.
  size = 0;
  ASSERT_TRUE(
      GetCompressMemToFile(data.data(), 3000, &error, &size, INVALID_HANDLE_VALUE, 0xFFFFFFFFu, 1));
  EXPECT_EQ(block.size(), size);
}

TEST(OneShotFiles, FileToFileBothWays) {
  test::TempDir dir;
  const Bytes data = TextLike(70000, 8);
  test::WriteFile(dir.Host("src"), Concat(Bytes(33, 1), data));
  test::WriteFile(dir.Host("packed"), Bytes(7, 2));
  DWORD error = 0, size = 0;
  {
    File src(dir.Win("src"), GENERIC_READ, OPEN_EXISTING);
    File packed(dir.Win("packed"), ReadWrite, OPEN_EXISTING);
    src.Seek(33);
    packed.Seek(7);
    ASSERT_TRUE(GetCompressFileToFile(src.Get(), 70000, &error, &size, packed.Get(), 80000, 1));
    EXPECT_EQ(33u, src.Tell());
    EXPECT_EQ(7u, packed.Tell());
  }
  const DWORD packedSize = size;
  const Bytes block = MemBlock(data, 1);
  EXPECT_EQ(block.size(), packedSize);
  test::WriteFile(dir.Host("out"), Bytes(5, 3));
  {
    File packed(dir.Win("packed"), GENERIC_READ, OPEN_EXISTING);
    File out(dir.Win("out"), ReadWrite, OPEN_EXISTING);
    packed.Seek(7);
    out.Seek(5);
    // The source size may run past the block: the header says how much.
    ASSERT_TRUE(GetExpandFileToFile(packed.Get(), 0xFFFFFFFFu, &error, &size, out.Get(), 100000));
    EXPECT_EQ(70000u, size);
    EXPECT_EQ(7u, packed.Tell());
    EXPECT_EQ(5u, out.Tell());
  }
  const Bytes out = test::ReadFile(dir.Host("out"));
  ASSERT_EQ(70005u, out.size()); // mapped for the original size, not the room offered
  EXPECT_EQ(data, Bytes(out.begin() + 5, out.end()));
  EXPECT_EQ(0u, error);
}

TEST(OneShotFiles, ExpandFromAndIntoFiles) {
  test::TempDir dir;
  const Bytes data = TextLike(4000, 9);
  const Bytes block = MemBlock(data, 1);
  test::WriteFile(dir.Host("packed"), Concat(Bytes(11, 0), block));
  File packed(dir.Win("packed"), GENERIC_READ, OPEN_EXISTING);
  packed.Seek(11);
  Bytes out(4000);
  DWORD error = 0, size = 0;
  ASSERT_TRUE(GetExpandFileToMem(packed.Get(), static_cast<DWORD>(block.size()), &error, &size,
                                 out.data(), 4000));
  EXPECT_EQ(data, out);
  EXPECT_EQ(11u, packed.Tell());
  // Cut short by the end of the file, the block is no longer whole: 87.
  packed.Seek(12);
  EXPECT_FALSE(GetExpandFileToMem(packed.Get(), static_cast<DWORD>(block.size()), &error, &size,
                                  out.data(), 4000));
  EXPECT_EQ(ERROR_INVALID_DATA, error); // from one byte in, it does not start with "CM"
  packed.Seek(11);
  EXPECT_FALSE(GetExpandFileToMem(packed.Get(), static_cast<DWORD>(block.size()) - 1, &error, &size,
                                  out.data(), 4000));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, error);

  test::WriteFile(dir.Host("out"), "");
  {
    File dst(dir.Win("out"), ReadWrite, OPEN_EXISTING);
    ASSERT_TRUE(GetExpandMemToFile(block.data(), static_cast<DWORD>(block.size()), &error, &size,
                                   dst.Get(), 0xFFFFFFFFu));
    EXPECT_EQ(4000u, size);
    // Too little room: 1784, checked against the room that was mapped.
    EXPECT_FALSE(GetExpandMemToFile(block.data(), static_cast<DWORD>(block.size()), &error, &size,
                                    dst.Get(), 3999));
    EXPECT_EQ(ERROR_INVALID_USER_BUFFER, error);
    EXPECT_EQ(0u, size);
    // Not a block at all: 13, with nothing mapped.
    EXPECT_FALSE(GetExpandMemToFile("xyz", 3, &error, &size, dst.Get(), 100));
    EXPECT_EQ(ERROR_INVALID_DATA, error);
  }
  EXPECT_EQ(data, test::ReadFile(dir.Host("out")));
  // A size query through an invalid handle.
  ASSERT_TRUE(GetExpandMemToFile(block.data(), static_cast<DWORD>(block.size()), &error, &size,
                                 INVALID_HANDLE_VALUE, 0xFFFFFFFFu));
  EXPECT_EQ(4000u, size);
}

// ---- ExecCompress and ExecExpand ---------------------------------------------------

// An archive object that records its progress hooks and can refuse one.
class HookArchive : public CArchiveFile {
public:
  using CArchiveFile::ExecCompress;
  using CArchiveFile::ExecExpand;

  struct Call {
    bool compressing;
    std::string a1, a2, a3;
    const CArchiveEntry* entry;
    std::uint64_t first, second;
  };
  std::vector<Call> calls;
  int refuseAt = -1; // index of the call that answers 0

  int CompressNotify(const WCHAR* a1, const WCHAR* a2, const WCHAR* a3, const CArchiveEntry& e,
                     const CArchiveSize& first, const CArchiveSize& second) override {
    return Record(true, a1, a2, a3, e, first, second);
  }
  int ExpandNotify(const WCHAR* a1, const WCHAR* a2, const WCHAR* a3, const CArchiveEntry& e,
                   const CArchiveSize& first, const CArchiveSize& second) override {
    return Record(false, a1, a2, a3, e, first, second);
  }
  std::vector<std::uint64_t> Counts() const {
    std::vector<std::uint64_t> out;
    for (const auto& c : calls) out.push_back(c.first);
    return out;
  }

private:
  int Record(bool compressing, const WCHAR* a1, const WCHAR* a2, const WCHAR* a3,
             const CArchiveEntry& e, const CArchiveSize& first, const CArchiveSize& second) {
    calls.push_back({compressing, test::N(a1), test::N(a2), test::N(a3), &e, first.GetValue(),
                     second.GetValue()});
    return static_cast<int>(calls.size()) - 1 == refuseAt ? 0 : 1;
  }
};

CArchiveEntry EntryOfSize(std::uint64_t size) {
  CArchiveEntry e;
  e.FindData.nFileSizeHigh = static_cast<DWORD>(size >> 32);
  e.FindData.nFileSizeLow = static_cast<DWORD>(size);
  return e;
}

struct Driver {
  test::TempDir dir;
  HookArchive archive;
  CString a1 = test::W("root"), a2 = test::W("base"), a3 = test::W("folder");
  CArchiveSize size{12345};

  int Compress(const std::string& source, const std::string& target, DWORD method,
               const CArchiveEntry& entry, DWORD& error, DWORD& crc) {
    return archive.ExecCompress(error, a1.c_str(), a2.c_str(), a3.c_str(), entry, size,
                                dir.Win(target).c_str(), dir.Win(source).c_str(), method, crc);
  }
  int Expand(const std::string& source, const std::string& target, DWORD method,
             const CArchiveEntry& entry, DWORD& error, DWORD crc) {
    return archive.ExecExpand(error, a1.c_str(), a2.c_str(), a3.c_str(), entry, size,
                              dir.Win(target).c_str(), dir.Win(source).c_str(), method, crc);
  }
};

TEST(ArchiveDrivers, CompressReportsEveryReadAndTheEnd) {
  Driver d;
  const Bytes data = TextLike(20000, 1);
  test::WriteFile(d.dir.Host("in"), data);
  const CArchiveEntry entry = EntryOfSize(20000);
  DWORD error = 77, crc = 0;
  ASSERT_TRUE(d.Compress("in", "packed", 1, entry, error, crc));
  EXPECT_EQ(77u, error);
  EXPECT_EQ(talvern::engine::Crc32Update(0, data.data(), data.size()), crc);
  EXPECT_EQ(Compress(data), test::ReadFile(d.dir.Host("packed")));
  // The start, after each read of 8192 bytes, and the engine's last call.
  EXPECT_EQ((std::vector<std::uint64_t>{0, 8192, 16384, 20000, 20000}), d.archive.Counts());
  for (const auto& c : d.archive.calls) {
    EXPECT_TRUE(c.compressing);
    EXPECT_EQ("root", c.a1);
    EXPECT_EQ("base", c.a2);
    EXPECT_EQ("folder", c.a3);
    EXPECT_EQ(&entry, c.entry);
    EXPECT_EQ(12345u, c.second);
  }

  // Expanding it back reports each 16384-byte window and the rest.
  d.archive.calls.clear();
  ASSERT_TRUE(d.Expand("packed", "out", 1, entry, error, crc));
  EXPECT_EQ(data, test::ReadFile(d.dir.Host("out")));
  EXPECT_EQ((std::vector<std::uint64_t>{0, 16384, 20000, 20000}), d.archive.Counts());
  for (const auto& c : d.archive.calls) EXPECT_FALSE(c.compressing);
}

TEST(ArchiveDrivers, EmptyFilesAndTheStoredMethod) {
  Driver d;
  test::WriteFile(d.dir.Host("empty"), "");
  DWORD error = 0, crc = 99;
  ASSERT_TRUE(d.Compress("empty", "packed", 1, EntryOfSize(0), error, crc));
  EXPECT_EQ(0u, crc);
  EXPECT_EQ((Bytes{0xFF, 0x80}), test::ReadFile(d.dir.Host("packed")));
  EXPECT_GE(d.archive.calls.size(), 3u);

  // Method 0 copies the file unchanged and calls no hook.
  Driver s;
  const Bytes data = TextLike(10000, 2);
  test::WriteFile(s.dir.Host("in"), data);
  ASSERT_TRUE(s.Compress("in", "copy", 0, EntryOfSize(10000), error, crc));
  EXPECT_EQ(data, test::ReadFile(s.dir.Host("copy")));
  EXPECT_EQ(talvern::engine::Crc32Update(0, data.data(), data.size()), crc);
  ASSERT_TRUE(s.Expand("copy", "back", 0, EntryOfSize(10000), error, crc));
  EXPECT_EQ(data, test::ReadFile(s.dir.Host("back")));
  EXPECT_TRUE(s.archive.calls.empty());
}

TEST(ArchiveDrivers, ARefusingHookLeavesAProperlyEndedStream) {
  const Bytes data = TextLike(30000, 3);
  for (int refuse : {1, 2}) {
    SCOPED_TRACE(refuse);
    Driver d;
    test::WriteFile(d.dir.Host("in"), data);
    d.archive.refuseAt = refuse; // the answer after the first (or second) read
    DWORD error = 0, crc = 5;
    EXPECT_FALSE(d.Compress("in", "packed", 1, EntryOfSize(30000), error, crc));
    EXPECT_EQ(ERROR_CANCELLED, error);
    EXPECT_EQ(5u, crc);
    const Bytes packed = test::ReadFile(d.dir.Host("packed"));
    if (refuse == 1) {
      EXPECT_EQ((Bytes{0xFF, 0x80}), packed); // seen before the first code
    } else {
      const Bytes back = Expand(packed, data.size());
      EXPECT_GE(back.size(), 7936u);
      EXPECT_LT(back.size(), data.size());
      EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
      EXPECT_EQ(Code::End, ParseCodes(packed).back().kind);
    }
  }

  Driver x;
  test::WriteFile(x.dir.Host("packed"), Compress(data));
  x.archive.refuseAt = 1;
  DWORD error = 0;
  EXPECT_FALSE(x.Expand("packed", "out", 1, EntryOfSize(30000), error, 0));
  EXPECT_EQ(ERROR_CANCELLED, error);
  // The first full window, and what the code that filled it still produced.
  const Bytes out = test::ReadFile(x.dir.Host("out"));
  EXPECT_GE(out.size(), 16384u);
  EXPECT_LT(out.size(), 16384u + 257);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), data.begin()));
}

TEST(ArchiveDrivers, FailuresAndTheirCodes) {
  Driver d;
  const Bytes data = TextLike(5000, 4);
  test::WriteFile(d.dir.Host("in"), data);
  DWORD error = 0, crc = 0;
  // An unknown method, after both files were opened.
  EXPECT_FALSE(d.Compress("in", "m5", 5, EntryOfSize(5000), error, crc));
  EXPECT_EQ(ERROR_INVALID_DATATYPE, error);
  EXPECT_TRUE(test::Exists(d.dir.Host("m5")));
  EXPECT_TRUE(test::ReadFile(d.dir.Host("m5")).empty());
  EXPECT_FALSE(d.Expand("in", "x5", 5, EntryOfSize(5000), error, crc));
  EXPECT_EQ(ERROR_INVALID_DATATYPE, error);
  // The source changed size since the entry was made: 29 after the target
  // was written.
  for (DWORD method : {0u, 1u}) {
    EXPECT_FALSE(d.Compress("in", "changed", method, EntryOfSize(4999), error, crc));
    EXPECT_EQ(ERROR_WRITE_FAULT, error);
    EXPECT_FALSE(test::ReadFile(d.dir.Host("changed")).empty());
  }
  // A missing source: its code, and no target.
  EXPECT_FALSE(d.Compress("missing", "none", 1, EntryOfSize(0), error, crc));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, error);
  EXPECT_FALSE(test::Exists(d.dir.Host("none")));
  // A target that cannot be created.
  EXPECT_FALSE(d.Compress("in", "no/such/folder/t", 1, EntryOfSize(5000), error, crc));
  EXPECT_EQ(ERROR_PATH_NOT_FOUND, error);

  ASSERT_TRUE(d.Compress("in", "packed", 1, EntryOfSize(5000), error, crc));
  const DWORD good = crc;
  // A wrong CRC: 23, after the whole target was written.
  EXPECT_FALSE(d.Expand("packed", "out", 1, EntryOfSize(5000), error, good ^ 1));
  EXPECT_EQ(ERROR_CRC, error);
  EXPECT_EQ(data, test::ReadFile(d.dir.Host("out")));
  // A truncated source: too few bytes come out, 29.
  Bytes packed = test::ReadFile(d.dir.Host("packed"));
  packed.resize(packed.size() / 2);
  test::WriteFile(d.dir.Host("half"), packed);
  EXPECT_FALSE(d.Expand("half", "out2", 1, EntryOfSize(5000), error, good));
  EXPECT_EQ(ERROR_WRITE_FAULT, error);
  EXPECT_FALSE(d.Expand("in", "out3", 0, EntryOfSize(4000), error, good));
  EXPECT_EQ(ERROR_WRITE_FAULT, error);
  // And the good one keeps the caller's value.
  error = 31;
  EXPECT_TRUE(d.Expand("packed", "out4", 1, EntryOfSize(5000), error, good));
  EXPECT_EQ(31u, error);
}

} // namespace

namespace {

TEST(ArchiveDrivers, MethodMapping) {
  HookArchive archive;
  EXPECT_EQ(0u, archive.GetCompressType(0));
  EXPECT_EQ(1u, archive.GetCompressType(1));
  EXPECT_EQ(0u, archive.GetCompressType(2));
  EXPECT_EQ(1u, archive.GetCompressType(0xFFFF));
  EXPECT_TRUE(archive.CheckExpandType(0));
  EXPECT_TRUE(archive.CheckExpandType(1));
  EXPECT_FALSE(archive.CheckExpandType(2));
  EXPECT_FALSE(archive.CheckExpandType(0xFFFF));
}

// The engine's own file entry points: a CRC carried in and out, a limit,
// and progress calls only when asked for.
TEST(FileStreams, EngineFileEntryPoints) {
  class Counting : public CEncodeDecode1 {
  public:
    int reads = 0, writes = 0;
    void ReadNotify(DWORD count) override {
      if (count) ++reads;
    }
    void WriteNotify(DWORD count) override {
      if (count) ++writes;
    }
  };
  test::TempDir dir;
  const Bytes data = TextLike(30000, 12);
  test::WriteFile(dir.Host("in"), data);
  Bytes packed(40000);
  DWORD crc = 0x1234, error = 0;
  Counting encoder;
  encoder.Create(13, 256);
  {
    File in(dir.Win("in"), GENERIC_READ, OPEN_EXISTING);
    CFileBit bits;
    bits.SetMemory(packed.data(), packed.size());
    bits.Allocate();
    const CArchiveSize limit(20000);
    ASSERT_TRUE(encoder.EncodeFile(in.Get(), &bits, &crc, &error, TRUE, &limit));
    bits.Finish();
    packed.resize(bits.Position.GetValue());
  }
  EXPECT_EQ(talvern::engine::Crc32Update(0x1234, data.data(), 20000), crc);
  EXPECT_EQ(3, encoder.reads);
  EXPECT_EQ(Compress(Bytes(data.begin(), data.begin() + 20000)), packed);

  Counting decoder;
  decoder.Create(13, 256);
  {
    File out(dir.Win("out"), ReadWrite, CREATE_ALWAYS);
    CFileBit bits;
    bits.SetMemory(packed.data(), packed.size());
    bits.Allocate();
    DWORD back = 0;
    ASSERT_TRUE(decoder.DecodeFile(out.Get(), &bits, &back, &error, FALSE, nullptr));
    EXPECT_EQ(talvern::engine::Crc32Update(0, data.data(), 20000), back);
  }
  EXPECT_EQ(0, decoder.writes);
  EXPECT_EQ(Bytes(data.begin(), data.begin() + 20000), test::ReadFile(dir.Host("out")));
}

} // namespace

namespace {

// Files the mapping cannot use: the system's code comes back, nothing
// else changes.
TEST(OneShotFiles, MappingFailuresReportTheSystemsCode) {
  test::TempDir dir;
  const Bytes data = TextLike(1000, 3);
  test::WriteFile(dir.Host("f"), data);
  Bytes out(2000);
  DWORD error = 0, size = 9;
  {
    File writeOnly(dir.Win("f"), GENERIC_WRITE, OPEN_EXISTING);
    EXPECT_FALSE(GetCompressFileToMem(writeOnly.Get(), 1000, &error, &size, out.data(), 2000, 1));
    EXPECT_EQ(ERROR_ACCESS_DENIED, error);
    EXPECT_EQ(0u, size);
  }
  {
    File readOnly(dir.Win("f"), GENERIC_READ, OPEN_EXISTING);
    error = 0;
    EXPECT_FALSE(GetCompressMemToFile(data.data(), 1000, &error, &size, readOnly.Get(), 2000, 1));
    EXPECT_EQ(ERROR_ACCESS_DENIED, error);
    EXPECT_EQ(0u, size);
  }
  EXPECT_EQ(data, test::ReadFile(dir.Host("f")));
  // A handle that is not open at all fails in SetFilePointer.
  error = 0;
  EXPECT_FALSE(GetCompressFileToMem(reinterpret_cast<HANDLE>(0x7FFF0000), 10, &error, &size,
                                    out.data(), 2000, 1));
  EXPECT_EQ(ERROR_INVALID_HANDLE, error);
}

} // namespace
