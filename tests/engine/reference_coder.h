// A plain, slow model of the engine for the tests and the fuzzers: the dictionary tree kept
// with its classic hash chains ((first byte << 5) + parent, mask 0x1FFF,
// chain heads marked by bit 15 in prev), the compression loop step by step
// with no shortcuts, and the expansion loop one byte at a time. The library's
// engine must produce exactly the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace enginetest {

using Bytes = std::vector<std::uint8_t>;

// Reads a code format 1 stream most significant bit first. Take fails, and
// takes nothing, when the code would run past the last byte.
class CodeReader {
public:
  explicit CodeReader(const Bytes& stream) : stream_(stream), total_(stream.size() * 8) {}
  bool Take(unsigned n, unsigned& value) {
    if (bit_ + n > total_) return false;
    value = 0;
    for (unsigned i = 0; i < n; ++i, ++bit_)
      value = (value << 1) | ((stream_[bit_ / 8] >> (7 - bit_ % 8)) & 1);
    return true;
  }

private:
  const Bytes& stream_;
  std::size_t total_;
  std::size_t bit_ = 0;
};

// The code format 1 stream of `data`, as the engine (13, 256, 3) writes it.
Bytes ReferenceCompress(const Bytes& data);

// Decodes `stream` into at most `limit` bytes: stops at the end code, at a
// code cut off by the end of the stream, or when `limit` bytes are out (the
// rest of the window that was being filled is dropped, as a destination
// with that limit would drop it).
Bytes ReferenceExpand(const Bytes& stream, std::size_t limit);

} // namespace enginetest
