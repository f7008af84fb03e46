// Compress-then-expand of any data with both methods: the block must expand
// to the data, and the encoder's two paths must write the bytes of the plain
// model.
#include "engine/code_format1.h"
#include "engine/lz_parallel.h"
#include "fuzz_common.h"
#include "tests/engine/reference_coder.h"

#include <talvern/oneshot.h>

#include <vector>

namespace {

class GeneralEngine : public CEncodeDecode1 {};

std::vector<BYTE> Stream(CEncodeDecode1& engine, const std::uint8_t* data, std::size_t size) {
  FUZZ_CHECK(engine.Create(13, 256));
  std::vector<BYTE> out(size + size / 8 + 16);
  CFileBit bits;
  bits.SetMemory(out.data(), out.size());
  FUZZ_CHECK(bits.Allocate());
  CFileCRC source;
  source.SetMemory(data, size);
  DWORD error = 0;
  FUZZ_CHECK(engine.Encode(&source, &bits, &error));
  bits.Finish();
  FUZZ_CHECK(!bits.IsShort());
  out.resize(bits.Position.GetValue());
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CEncodeDecode1 direct;
  GeneralEngine general;
  const std::vector<BYTE> stream = Stream(direct, data, size);
  FUZZ_CHECK(stream == Stream(general, data, size));
  FUZZ_CHECK(stream == enginetest::ReferenceCompress(enginetest::Bytes(data, data + size)));

  // The input over and over, long enough for three chunks of the smallest
  // cut: compressed on three threads, it gives the one engine's bytes.
  if (size >= 16) {
    std::vector<BYTE> tiled;
    while (tiled.size() < 56 * 1024) tiled.insert(tiled.end(), data, data + size);
    std::vector<BYTE> parallel;
    FUZZ_CHECK(talvern::engine::CompressParallel(
        tiled.data(), tiled.size(), 3,
        [&](const std::uint8_t* bytes, std::size_t count) {
          parallel.insert(parallel.end(), bytes, bytes + count);
          return true;
        },
        nullptr, talvern::engine::ParallelShape{3 * 8192, 8192}));
    FUZZ_CHECK(parallel == Stream(direct, tiled.data(), tiled.size()));
  }

  const DWORD length = static_cast<DWORD>(size);
  for (DWORD method : {0u, 1u}) {
    std::vector<BYTE> block(size + size / 8 + 64);
    DWORD error = 0, produced = 0;
    FUZZ_CHECK(GetCompressMemToMem(data, length, &error, &produced, block.data(),
                                   static_cast<DWORD>(block.size()), method));
    DWORD query = 0;
    FUZZ_CHECK(GetCompressMemToMem(data, length, &error, &query, nullptr, 0xFFFFFFFFu, method));
    FUZZ_CHECK(query == produced);
    std::vector<BYTE> back(size);
    DWORD expanded = 0;
    FUZZ_CHECK(GetExpandMemToMem(block.data(), produced, &error, &expanded, back.data(), length));
    FUZZ_CHECK(expanded == length);
    FUZZ_CHECK(std::vector<BYTE>(data, data + size) == back);
    // One byte too little room is an error, never a cut block.
    if (produced > 16) {
      FUZZ_CHECK(
          !GetCompressMemToMem(data, length, &error, &query, block.data(), produced - 1, method));
      FUZZ_CHECK(error == ERROR_INSUFFICIENT_BUFFER && query == 0);
    }
  }
  return 0;
}
