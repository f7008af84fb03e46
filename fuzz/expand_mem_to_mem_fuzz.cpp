// GetExpandMemToMem on any bytes, into a destination of the claimed size
// (or one byte less, or none).
#include "fuzz_common.h"

#include <talvern/oneshot.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const int mode = data[0] % 3;
  ++data;
  --size;
  const std::uint32_t claimed = fuzz::ClaimedSize(data, size);
  std::size_t room = claimed < (1u << 20) ? claimed : 1u << 20;
  if (mode == 1 && room > 0) --room;
  std::vector<BYTE> out(room);
  DWORD error = 0, produced = 7;
  const int ok = GetExpandMemToMem(data, static_cast<DWORD>(size), &error, &produced,
                                   mode == 2 ? nullptr : out.data(), static_cast<DWORD>(room));
  FUZZ_CHECK(ok ? produced == claimed && claimed <= room : produced == 0 && error != 0);
  return 0;
}
