// GetExpandFileToMem on any bytes in a file, read from a position inside it.
#include "fuzz_common.h"

#include <talvern/oneshot.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first byte places the block: that many bytes of padding go before it.
  const std::size_t pad = data[0];
  const DWORD sourceSize = data[1] & 1 ? 0xFFFFFFFFu : static_cast<DWORD>(size - 2);
  std::vector<BYTE> contents(pad, 0x5A);
  contents.insert(contents.end(), data + 2, data + size);
  fuzz::ScratchFile& file = fuzz::ScratchFile::Get(0);
  file.Fill(contents.data(), contents.size());
  file.Seek(pad);
  const std::uint32_t claimed = fuzz::ClaimedSize(data + 2, size - 2);
  const std::size_t room = claimed < (1u << 20) ? claimed : 1u << 20;
  std::vector<BYTE> out(room);
  DWORD error = 0, produced = 7;
  const int ok = GetExpandFileToMem(file.Handle(), sourceSize, &error, &produced, out.data(),
                                    static_cast<DWORD>(room));
  FUZZ_CHECK(ok ? produced == claimed : produced == 0 && error != 0);
  FUZZ_CHECK(file.Tell() == pad);
  return 0;
}
