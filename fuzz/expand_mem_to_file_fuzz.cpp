// GetExpandMemToFile on any bytes, into a file at a position inside it.
#include "fuzz_common.h"

#include <talvern/oneshot.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t pad = data[0];
  ++data;
  --size;
  fuzz::ScratchFile& file = fuzz::ScratchFile::Get(0);
  const std::vector<BYTE> head(pad, 0xA5);
  file.Fill(head.data(), head.size());
  file.Seek(pad);
  const std::uint32_t claimed = fuzz::ClaimedSize(data, size);
  const DWORD room = claimed < (1u << 20) ? claimed + (pad & 1) : 1u << 20;
  DWORD error = 0, produced = 7;
  const int ok =
      GetExpandMemToFile(data, static_cast<DWORD>(size), &error, &produced, file.Handle(), room);
  FUZZ_CHECK(ok ? produced == claimed : produced == 0 && error != 0);
  FUZZ_CHECK(file.Tell() == pad);
  return 0;
}
