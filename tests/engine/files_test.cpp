// The one-shot file variants at a non-zero file position, which they never
// move.
#include "engine/entry_data.h"
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
#if !defined(_WIN32) // the Linux layer makes the file sparse; Windows would write 4 GiB
  // 50 bytes left after a position beyond 4 GiB.
  File far(dir.Win("far"), ReadWrite, CREATE_NEW);
  far.Seek((std::uint64_t{1} << 32) + 100);
  DWORD put = 0;
  ASSERT_TRUE(WriteFile(far.Get(), data.data(), 50, &put, nullptr));
  far.Seek((std::uint64_t{1} << 32) + 100);
  ASSERT_TRUE(GetCompressFileToMem(far.Get(), 100, &error, &size, block.data(), 60000, 1));
  block.resize(size);
  EXPECT_EQ(MemBlock(Bytes(data.begin(), data.begin() + 50), 1), block);
#endif
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

} // namespace

TEST(SeenFiles, KeepTheNewestWithinTheirBudgetAndMatchOnlyTheSameBytes) {
  // Four files of 1000 bytes where three fit: the oldest goes, the others
  // are found by their bytes; a file of the same size and CRC with other
  // bytes is not; nothing is found once emptied.
  talvern::engine::SeenData seen(4000);
  const auto file = [](std::uint8_t fill) { return std::vector<BYTE>(1000, fill); };
  const auto dataOf = [](std::uint8_t fill) {
    talvern::engine::CompressedData data;
    data.bytes.assign(100, fill);
    data.packed = 100;
    data.reads = {1000, 0};
    data.crc = fill;
    data.bytesRead = 1000;
    return data;
  };
  for (std::uint8_t fill = 1; fill <= 4; ++fill) seen.Keep(file(fill), fill, dataOf(fill));
  talvern::engine::CompressedData found;
  EXPECT_FALSE(seen.Find(file(1).data(), 1000, 1, found));
  for (std::uint8_t fill = 2; fill <= 4; ++fill) {
    ASSERT_TRUE(seen.Find(file(fill).data(), 1000, fill, found)) << int{fill};
    EXPECT_EQ(found.bytes, dataOf(fill).bytes);
    EXPECT_EQ(found.reads, dataOf(fill).reads);
  }
  EXPECT_FALSE(seen.Find(file(9).data(), 1000, 3, found)); // the CRC of a kept file
  seen.Clear();
  EXPECT_FALSE(seen.Find(file(4).data(), 1000, 4, found));
}
