// Byte streams and the CRC-32: transfer limits, modes, latched errors, and
// the CRC over every path (table, eight-byte steps, continuation).
#include "engine/entry_data.h"
#include "engine/streams.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

using talvern::engine::Crc32Table;
using talvern::engine::Crc32Update;

namespace {

// The CRC one bit at a time, straight from the polynomial.
DWORD BitwiseCrc(DWORD crc, const std::vector<BYTE>& data) {
  for (BYTE b : data) {
    crc ^= b;
    for (int k = 0; k < 8; ++k) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
  }
  return crc;
}

TEST(Crc32, KnownValuesAndTable) {
  const char* digits = "123456789";
  EXPECT_EQ(0x2DFD2D88u, Crc32Update(0, digits, 9));
  EXPECT_EQ(0u, Crc32Update(0, digits, 0));
  EXPECT_EQ(0u, Crc32Update(0, nullptr, 0));
  const DWORD* table = Crc32Table();
  EXPECT_EQ(0u, table[0]);
  EXPECT_EQ(0x77073096u, table[1]);
  EXPECT_EQ(0xEDB88320u, table[128]);
  EXPECT_EQ(0x2D02EF8Du, table[255]);
}

TEST(Crc32, EveryLengthAndAlignmentMatchesTheBitwiseSum) {
  std::vector<BYTE> data(100);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(i * 37 + 11);
  for (std::size_t start = 0; start < 9; ++start) {
    for (std::size_t length = 0; start + length <= data.size(); ++length) {
      std::vector<BYTE> piece(data.begin() + start, data.begin() + start + length);
      ASSERT_EQ(BitwiseCrc(0x1234567u, piece), Crc32Update(0x1234567u, data.data() + start, length))
          << "start " << start << " length " << length;
    }
  }
}

TEST(Crc32, ContinuesOverPieces) {
  std::vector<BYTE> data(1000);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<BYTE>(i ^ (i >> 3));
  const DWORD whole = Crc32Update(0, data.data(), data.size());
  DWORD crc = 0;
  for (std::size_t at = 0, step = 1; at < data.size(); at += step, step = step % 13 + 1)
    crc = Crc32Update(crc, data.data() + at, std::min(step, data.size() - at));
  EXPECT_EQ(whole, crc);
}

TEST(Crc32, TableIsBuiltOnceWhenFirstUsedByManyThreads) {
  // Each test runs in a fresh process, so the table is not built yet here.
  const char* digits = "123456789";
  std::vector<DWORD> results(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < results.size(); ++i)
    threads.emplace_back([&, i] {
      CFileCRC stream;
      results[i] = stream.UpdateCrc(digits, 9);
    });
  for (auto& t : threads) t.join();
  for (DWORD r : results) EXPECT_EQ(0x2DFD2D88u, r);
}

TEST(FileIO, FreshStreamAndZeroCounts) {
  CFileIO s;
  EXPECT_EQ(nullptr, s.Memory);
  EXPECT_EQ(0u, s.Position.GetValue());
  EXPECT_EQ(INVALID_HANDLE_VALUE, s.Handle);
  EXPECT_EQ(~std::uint64_t{0}, s.Remaining.GetValue());
  EXPECT_EQ(0u, s.Flags);
  EXPECT_EQ(0u, s.Error);

  BYTE block[4] = {1, 2, 3, 4};
  s.SetMemory(block, 4);
  BYTE buffer[4] = {};
  EXPECT_EQ(0u, s.Read(buffer, 0));
  EXPECT_EQ(0u, s.Write(buffer, 0));
  EXPECT_EQ(0u, s.Position.GetValue());
  EXPECT_EQ(4u, s.Remaining.GetValue());
  EXPECT_EQ(0u, s.Flags);
}

TEST(FileIO, MemoryReadStopsAtTheLimit) {
  const BYTE block[6] = {10, 20, 30, 40, 50, 60};
  CFileIO s;
  s.SetMemory(block, 6);
  BYTE buffer[8] = {};
  EXPECT_EQ(4u, s.Read(buffer, 4));
  EXPECT_FALSE(s.IsShort());
  EXPECT_EQ(2u, s.Read(buffer + 4, 4));
  EXPECT_TRUE(s.IsShort());
  EXPECT_FALSE(s.HasError());
  EXPECT_EQ(0, std::memcmp(buffer, block, 6));
  EXPECT_EQ(6u, s.Position.GetValue());
  EXPECT_EQ(0u, s.Remaining.GetValue());
  EXPECT_EQ(0u, s.Read(buffer, 4));
  EXPECT_EQ(6u, s.Position.GetValue());
}

TEST(FileIO, ZeroRemainingTransfersNothing) {
  BYTE block[4] = {};
  CFileIO s;
  s.SetMemory(block, 0);
  const BYTE data[2] = {7, 8};
  EXPECT_EQ(0u, s.Write(data, 2));
  EXPECT_TRUE(s.IsShort());
  EXPECT_EQ(0u, s.Position.GetValue());
  EXPECT_EQ(0, block[0]);
}

TEST(FileIO, NullModeCountsAndDeliversZeros) {
  CFileIO s;
  BYTE buffer[5];
  std::memset(buffer, 0xAA, sizeof buffer);
  EXPECT_EQ(5u, s.Read(buffer, 5));
  for (BYTE b : buffer) EXPECT_EQ(0, b);
  EXPECT_EQ(5u, s.Position.GetValue());
  EXPECT_EQ(3u, s.Write(buffer, 3));
  EXPECT_EQ(8u, s.Position.GetValue());
  EXPECT_EQ(~std::uint64_t{0} - 8, s.Remaining.GetValue());

  CFileIO limited;
  limited.SetNull(4);
  EXPECT_EQ(4u, limited.Write(buffer, 5));
  EXPECT_TRUE(limited.IsShort());
}

TEST(FileIO, OffsetsBeyond32BitsLatch132ButStillCount) {
  BYTE block[16] = {};
  CFileIO s;
  s.SetMemory(block, 16);
  s.Position = 0xFFFFFFF0u; // the next 16 bytes would pass offset 0xFFFFFFFF
  const BYTE data[17] = {};
  EXPECT_EQ(16u, s.Write(data, 17));
  EXPECT_TRUE(s.HasError());
  EXPECT_EQ(ERROR_SEEK_ON_DEVICE, s.Error);
  EXPECT_EQ(0x100000000ull, s.Position.GetValue());
  EXPECT_EQ(0u, s.Remaining.GetValue());
  EXPECT_TRUE(s.IsShort());

  CFileIO null;
  null.Position = 0xFFFFFFFFFFFFFFFEull;
  BYTE buffer[4];
  EXPECT_EQ(4u, null.Read(buffer, 4));
  EXPECT_EQ(ERROR_SEEK_ON_DEVICE, null.Error);
  EXPECT_EQ(2u, null.Position.GetValue()); // wrapped past 2^64
}

TEST(FileIO, DataDecodedForTestingHasNo32BitLimit) {
  // Testing an entry of more than 4 GiB passes positions beyond 32 bits.
  talvern::engine::DiscardStream s;
  s.Position = 0xFFFFFFF0u;
  const BYTE data[32] = {'a'};
  EXPECT_EQ(32u, s.Write(data, 32));
  EXPECT_FALSE(s.HasError());
  EXPECT_EQ(0x100000010ull, s.Position.GetValue());
  EXPECT_EQ(talvern::engine::Crc32Update(0, data, 32), s.Crc);
}

TEST(FileIO, FirstErrorWins) {
  CFileIO s;
  s.LatchError(ERROR_DISK_FULL);
  s.LatchError(ERROR_ACCESS_DENIED);
  EXPECT_TRUE(s.HasError());
  EXPECT_EQ(ERROR_DISK_FULL, s.Error);
}

TEST(FileCRC, WritingSumsEveryByteHandedIn) {
  BYTE block[4] = {};
  CFileCRC s;
  s.SetMemory(block, 4);
  const BYTE data[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(4u, s.Write(data, 10));
  EXPECT_TRUE(s.IsShort());
  EXPECT_EQ(Crc32Update(0, data, 10), s.Crc);
  EXPECT_EQ(0, std::memcmp(block, data, 4));
}

TEST(FileCRC, ReadingSumsOnlyWhatWasDelivered) {
  const BYTE data[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  CFileCRC s;
  s.SetMemory(data, 6);
  BYTE buffer[10];
  EXPECT_EQ(6u, s.Read(buffer, 10));
  EXPECT_EQ(Crc32Update(0, data, 6), s.Crc);
  EXPECT_EQ(s.Crc, s.UpdateCrc(data, 0));
}

} // namespace
