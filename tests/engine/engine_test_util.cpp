#include "engine_test_util.h"
#include "reference_coder.h"

#include "support/test_support.h"

#include <algorithm>
#include <filesystem>

namespace enginetest {

Bytes FromString(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Compress(const Bytes& data, bool general, EngineArrays* keeper) {
  VirtualEngine virtualEngine;
  CEncodeDecode1 directEngine;
  CEncodeDecode1& engine = general ? virtualEngine : directEngine;
  engine.Keeper = keeper;
  if (!engine.Create(13, 256)) return {};
  Bytes out(data.size() * 9 / 8 + 64);
  CFileBit bits;
  bits.SetMemory(out.data(), out.size());
  bits.Allocate();
  CFileCRC source;
  source.SetMemory(data.data(), data.size());
  DWORD error = 0;
  engine.Encode(&source, &bits, &error);
  bits.Finish();
  out.resize(bits.Position.GetValue());
  return out;
}

Bytes Expand(const Bytes& stream, std::size_t limit, bool general, int* ok, DWORD* error) {
  VirtualEngine virtualEngine;
  CEncodeDecode1 directEngine;
  CEncodeDecode1& engine = general ? virtualEngine : directEngine;
  engine.Create(13, 256);
  Bytes out(limit);
  CFileBit bits;
  bits.SetMemory(stream.data(), stream.size());
  bits.Allocate();
  CFileCRC sink;
  sink.SetMemory(out.data(), out.size());
  DWORD e = error ? *error : 0;
  const int result = engine.Decode(&sink, &bits, &e);
  if (ok) *ok = result;
  if (error) *error = e;
  out.resize(sink.Position.GetValue());
  return out;
}

std::vector<std::string> CorpusFiles() { return test::CorpusFiles(); }

Bytes ReadAll(const std::string& hostPath) { return test::ReadFile(hostPath); }

Bytes TextLike(std::size_t size, std::uint32_t seed) {
  static const char* const words[] = {"the ",   "archive ", "of ",    "and ",    "volume ",
                                      "entry ", "data ",    "to ",    "file ",   "in ",
                                      "a ",     "stream ",  "match ", "window ", "\n"};
  Bytes out;
  out.reserve(size);
  std::uint32_t x = seed ? seed : 1;
  while (out.size() < size) {
    x = x * 1103515245u + 12345u;
    const char* w = words[(x >> 16) % 15];
    for (const char* p = w; *p && out.size() < size; ++p)
      out.push_back(static_cast<std::uint8_t>(*p));
    if (((x >> 8) & 31) == 0) out.push_back(static_cast<std::uint8_t>('0' + (x >> 24) % 10));
  }
  out.resize(size);
  return out;
}

} // namespace enginetest
