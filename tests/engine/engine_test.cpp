// The engine's contract with its code format and its streams: creation,
// error values, failing coding operations, failing destinations, aborts and
// progress calls.
#include "engine_test_util.h"

#include <gtest/gtest.h>

#include <vector>

using namespace enginetest;

namespace {

// A memory bit stream over a vector, set up as the drivers do.
struct BitsOver {
  Bytes block;
  CFileBit bits;
  explicit BitsOver(std::size_t size) : block(size) {
    bits.SetMemory(block.data(), block.size());
    bits.Allocate();
  }
  BitsOver(const Bytes& data) : block(data) {
    bits.SetMemory(block.data(), block.size());
    bits.Allocate();
  }
  Bytes Written() {
    bits.Finish();
    return Bytes(block.begin(), block.begin() + static_cast<long>(bits.Position.GetValue()));
  }
};

// Code format 1 that records its calls and fails where told.
class Scripted : public CEncodeDecode1 {
public:
  int charsBeforeFailure = -1; // EncodeChar fails (code 1234) after this many
  bool matchFails = false;     // EncodeMatch stores 2345 and fails
  bool endFails = false;       // EncodeEnd stores 4321 and fails
  int codesBeforeFailure = -1; // DecodeCode reports -2 (code 99) after this many
  bool startFails = false;     // EncodeStart and DecodeStart store 55 and fail
  int abortAfter = -1;         // IsAborted turns TRUE after this many questions
  int endCalls = 0;
  std::vector<DWORD> reads, writes;
  mutable int abortQuestions = 0;

  BOOL EncodeStart(CFileBit* d, DWORD* e) override {
    if (startFails) {
      *e = 55;
      return FALSE;
    }
    return CEncodeDecode1::EncodeStart(d, e);
  }
  BOOL EncodeChar(CFileBit* d, DWORD* e, WORD v) override {
    if (charsBeforeFailure == 0) {
      *e = 1234;
      return FALSE;
    }
    if (charsBeforeFailure > 0) --charsBeforeFailure;
    return CEncodeDecode1::EncodeChar(d, e, v);
  }
  BOOL EncodeMatch(CFileBit* d, DWORD* e, WORD code, WORD position) override {
    if (matchFails) {
      *e = 2345;
      return FALSE;
    }
    return CEncodeDecode1::EncodeMatch(d, e, code, position);
  }
  BOOL EncodeEnd(CFileBit* d, DWORD* e) override {
    ++endCalls;
    if (endFails) {
      *e = 4321;
      return FALSE;
    }
    return CEncodeDecode1::EncodeEnd(d, e);
  }
  BOOL DecodeStart(CFileBit*, DWORD* e) override {
    if (startFails) {
      *e = 55;
      return FALSE;
    }
    return TRUE;
  }
  BOOL DecodeEnd(CFileBit*, DWORD* e) override {
    ++endCalls;
    *e = 777; // dropped when the loop has already failed
    return TRUE;
  }
  int DecodeCode(CFileBit* s, DWORD* e, WORD* code, WORD* position) override {
    if (codesBeforeFailure == 0) {
      *e = 99;
      return -2;
    }
    if (codesBeforeFailure > 0) --codesBeforeFailure;
    return CEncodeDecode1::DecodeCode(s, e, code, position);
  }
  BOOL IsAborted() const override { return abortAfter >= 0 && abortQuestions++ >= abortAfter; }
  void ReadNotify(DWORD count) override {
    reads.push_back(count);
    CEncodeDecode1::ReadNotify(count);
  }
  void WriteNotify(DWORD count) override {
    writes.push_back(count);
    CEncodeDecode1::WriteNotify(count);
  }
};

// A bit stream whose byte side refuses to write.
class RefusingBits : public CFileBit {
public:
  DWORD Write(const void*, DWORD) override {
    LatchError(ERROR_DISK_FULL);
    Flags |= StreamShort;
    return 0;
  }
};

TEST(Engine, CreateChecksItsParameters) {
  CEncodeDecode1 engine;
  EXPECT_FALSE(engine.IsCreated());
  EXPECT_TRUE(engine.Create(13, 256));
  EXPECT_TRUE(engine.IsCreated());
  EXPECT_EQ(8192u, engine.DicSize);
  EXPECT_EQ(0x1FFFu, engine.DicMask);
  EXPECT_EQ(3u, engine.MinMatch);
  EXPECT_FALSE(engine.Create(16, 256));
  EXPECT_FALSE(engine.IsCreated());
  EXPECT_FALSE(engine.Create(13, 257));
  EXPECT_FALSE(engine.Create(13, 3));
  EXPECT_TRUE(engine.Create(9, 64));
  engine.Destroy();
  EXPECT_FALSE(engine.IsCreated());
}

TEST(Engine, WithoutArraysBothLoopsFailWith14) {
  CEncodeDecode1 engine;
  BitsOver out(64);
  CFileCRC source;
  source.SetMemory("abc", 3);
  DWORD error = 5;
  EXPECT_FALSE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ(ERROR_OUTOFMEMORY, error);
  error = 5;
  CFileCRC sink;
  EXPECT_FALSE(engine.Decode(&sink, &out.bits, &error));
  EXPECT_EQ(ERROR_OUTOFMEMORY, error);
  EXPECT_FALSE(engine.Encode(&source, &out.bits, nullptr));
}

TEST(Engine, SuccessKeepsTheCallersErrorValue) {
  CEncodeDecode1 engine;
  engine.Create(13, 256);
  BitsOver out(64);
  CFileCRC source;
  source.SetMemory("abcabc", 6);
  DWORD error = 0xABCD;
  EXPECT_TRUE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ(0xABCDu, error);
  const Bytes stream = out.Written();
  EXPECT_EQ(Compress(FromString("abcabc")), stream);

  CEncodeDecode1 decoder;
  decoder.Create(13, 256);
  BitsOver in(stream);
  Bytes back(6);
  CFileCRC sink;
  sink.SetMemory(back.data(), back.size());
  EXPECT_TRUE(decoder.Decode(&sink, &in.bits, &error));
  EXPECT_EQ(0xABCDu, error);
  EXPECT_EQ(FromString("abcabc"), back);
  EXPECT_EQ(talvern::engine::Crc32Update(0, "abcabc", 6), sink.Crc);
}

TEST(Engine, AFailingCodingOperationStillEndsTheStream) {
  Scripted engine;
  engine.Create(13, 256);
  engine.matchFails = true;
  BitsOver out(64);
  CFileCRC source;
  source.SetMemory("abcabc", 6);
  DWORD error = 0;
  EXPECT_FALSE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ(2345u, error);
  EXPECT_EQ(1, engine.endCalls);
  // Three literals, then the end code that EncodeEnd wrote regardless.
  EXPECT_EQ((Bytes{0x30, 0x98, 0x8C, 0x7F, 0xF0}), out.Written());

  // The end code goes through EncodeChar too: when that is what fails,
  // nothing follows the literals but padding.
  Scripted chars;
  chars.Create(13, 256);
  chars.charsBeforeFailure = 2;
  BitsOver out2(64);
  CFileCRC source2;
  source2.SetMemory("wxyz", 4);
  EXPECT_FALSE(chars.Encode(&source2, &out2.bits, &error));
  EXPECT_EQ(1234u, error);
  EXPECT_EQ((Bytes{0x3B, 0x9E, 0x00}), out2.Written());
}

TEST(Engine, AFailingEndOperationReportsItsCode) {
  Scripted engine;
  engine.Create(13, 256);
  engine.endFails = true;
  BitsOver out(64);
  CFileCRC source;
  source.SetMemory("abc", 3);
  DWORD error = 0;
  EXPECT_FALSE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ(4321u, error);

  Scripted starter;
  starter.Create(13, 256);
  starter.startFails = true;
  error = 0;
  EXPECT_FALSE(starter.Encode(&source, &out.bits, &error));
  EXPECT_EQ(55u, error);
  EXPECT_EQ(1, starter.endCalls);
}

TEST(Engine, DecodeFailuresKeepTheFirstCode) {
  const Bytes stream = Compress(TextLike(5000, 1));
  Scripted engine;
  engine.Create(13, 256);
  engine.codesBeforeFailure = 10;
  BitsOver in(stream);
  Bytes out(5000);
  CFileCRC sink;
  sink.SetMemory(out.data(), out.size());
  DWORD error = 0;
  EXPECT_FALSE(engine.Decode(&sink, &in.bits, &error));
  EXPECT_EQ(99u, error); // DecodeEnd's 777 is dropped
  EXPECT_EQ(1, engine.endCalls);
  EXPECT_GE(sink.Position.GetValue(), 10u); // what was decoded was written out

  Scripted starter;
  starter.Create(13, 256);
  starter.startFails = true;
  error = 0;
  EXPECT_FALSE(starter.Decode(&sink, &in.bits, &error));
  EXPECT_EQ(55u, error);
  EXPECT_EQ(1, starter.endCalls);
}

TEST(Engine, DestinationErrorsFailTheLoops) {
  CEncodeDecode1 engine;
  engine.Create(13, 256);
  RefusingBits out;
  out.Allocate();
  const Bytes data = TextLike(20000, 4);
  CFileCRC source;
  source.SetMemory(data.data(), data.size());
  DWORD error = 0;
  EXPECT_FALSE(engine.Encode(&source, &out, &error));
  EXPECT_EQ(ERROR_DISK_FULL, error);

  const Bytes stream = Compress(data);
  BitsOver in(stream);
  CFileIO sink; // null mode, with a 32-bit offset about to overflow
  sink.Position = 0xFFFFF000u;
  error = 0;
  EXPECT_FALSE(engine.Decode(&sink, &in.bits, &error));
  EXPECT_EQ(ERROR_SEEK_ON_DEVICE, error);
}

TEST(Engine, AnAbortEndsTheStreamProperlyWith1223) {
  const Bytes data = TextLike(3000, 8);
  Scripted engine;
  engine.Create(13, 256);
  engine.abortAfter = 0; // at the first question
  BitsOver out(8192);
  CFileCRC source;
  source.SetMemory(data.data(), data.size());
  DWORD error = 0;
  EXPECT_FALSE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ(ERROR_CANCELLED, error);
  EXPECT_EQ((Bytes{0xFF, 0x80}), out.Written());

  Scripted later;
  later.Create(13, 256);
  later.abortAfter = 100;
  BitsOver out2(8192);
  CFileCRC source2;
  source2.SetMemory(data.data(), data.size());
  EXPECT_FALSE(later.Encode(&source2, &out2.bits, &error));
  const Bytes partial = out2.Written();
  const Bytes back = Expand(partial, data.size());
  EXPECT_GT(back.size(), 50u);
  EXPECT_LT(back.size(), data.size());
  EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
  EXPECT_EQ(Code::End, ParseCodes(partial).back().kind);
}

TEST(Engine, NotifyingStreamsReportEveryTransfer) {
  const Bytes data = TextLike(20000, 3);
  Scripted engine;
  engine.Create(13, 256);
  BitsOver out(30000);
  const CArchiveSize limit(data.size());
  CFileNotifyCRC source(data.data(), &limit);
  source.Target = &engine;
  DWORD error = 0;
  ASSERT_TRUE(engine.Encode(&source, &out.bits, &error));
  EXPECT_EQ((std::vector<DWORD>{8192, 8192, 3616}), engine.reads);
  EXPECT_EQ(talvern::engine::Crc32Update(0, data.data(), data.size()), source.Crc);

  const Bytes stream = out.Written();
  Scripted decoder;
  decoder.Create(13, 256);
  BitsOver in(stream);
  Bytes back(data.size());
  CFileNotifyCRC sink(back.data(), &limit);
  sink.Target = &decoder;
  ASSERT_TRUE(decoder.Decode(&sink, &in.bits, &error));
  // Whole windows of 16384 bytes, then the rest (the sink's limit lets only
  // 3616 of those through).
  EXPECT_EQ((std::vector<DWORD>{16384, 3616}), decoder.writes);
  EXPECT_EQ(data, back);
  EXPECT_EQ(source.Crc, sink.Crc);
}

} // namespace

namespace {

// Bits already waiting in the destination go first, on both paths.
TEST(Engine, PendingBitsInTheDestinationComeFirst) {
  const Bytes data = TextLike(5000, 5);
  for (bool general : {false, true}) {
    SCOPED_TRACE(general);
    VirtualEngine virtualEngine;
    CEncodeDecode1 directEngine;
    CEncodeDecode1& engine = general ? virtualEngine : directEngine;
    engine.Create(13, 256);
    BitsOver out(8000);
    out.bits.WriteBits(3, 5);
    CFileCRC source;
    source.SetMemory(data.data(), data.size());
    ASSERT_TRUE(engine.Encode(&source, &out.bits, nullptr));
    const Bytes written = out.Written();
    // Shifting the stream three bits left gives the plain stream.
    const Bytes plain = Compress(data);
    ASSERT_EQ(0xA0, written[0] & 0xE0);
    for (std::size_t i = 0; i + 1 < written.size() && i < plain.size(); ++i)
      ASSERT_EQ(plain[i], static_cast<std::uint8_t>(written[i] << 3 | written[i + 1] >> 5)) << i;
  }
}

} // namespace
