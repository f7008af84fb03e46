// The decoder on any bytes: both expansion paths (straight out of the bit
// buffer, and through the virtual operations) must give the bytes of the
// plain model and the same result, within the limit, and end.
#include "engine/code_format1.h"
#include "fuzz_common.h"
#include "tests/engine/reference_coder.h"

#include <cstring>
#include <vector>

namespace {

class GeneralEngine : public CEncodeDecode1 {};

struct Outcome {
  int ok;
  DWORD error;
  std::vector<BYTE> bytes;
  DWORD crc;
};

Outcome Decode(CEncodeDecode1& engine, const std::uint8_t* data, std::size_t size,
               std::size_t limit) {
  Outcome out{0, 0, std::vector<BYTE>(limit), 0};
  FUZZ_CHECK(engine.Create(13, 256));
  CFileBit bits;
  bits.SetMemory(data, size);
  FUZZ_CHECK(bits.Allocate());
  CFileCRC sink;
  sink.SetMemory(out.bytes.data(), out.bytes.size());
  out.ok = engine.Decode(&sink, &bits, &out.error);
  out.bytes.resize(sink.Position.GetValue());
  out.crc = sink.Crc;
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first two bytes choose the output limit (up to 1 MiB).
  const std::size_t limit = (static_cast<std::size_t>(data[0]) << 12 | data[1] << 4) + 1;
  CEncodeDecode1 direct;
  GeneralEngine general;
  const Outcome a = Decode(direct, data + 2, size - 2, limit);
  const Outcome b = Decode(general, data + 2, size - 2, limit);
  FUZZ_CHECK(a.ok == b.ok && a.error == b.error);
  FUZZ_CHECK(a.bytes == b.bytes && a.crc == b.crc);
  FUZZ_CHECK(a.bytes.size() <= limit);
  FUZZ_CHECK(a.bytes ==
             enginetest::ReferenceExpand(enginetest::Bytes(data + 2, data + size), limit));
  return 0;
}
