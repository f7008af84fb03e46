// GetExpandFileToFile on any bytes in one file, into another.
#include "fuzz_common.h"

#include <talvern/oneshot.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t pad = data[0];
  const std::size_t outPad = data[1];
  std::vector<BYTE> contents(pad, 0x5A);
  contents.insert(contents.end(), data + 2, data + size);
  fuzz::ScratchFile& in = fuzz::ScratchFile::Get(0);
  fuzz::ScratchFile& out = fuzz::ScratchFile::Get(1);
  in.Fill(contents.data(), contents.size());
  in.Seek(pad);
  const std::vector<BYTE> head(outPad, 0xA5);
  out.Fill(head.data(), head.size());
  out.Seek(outPad);
  const std::uint32_t claimed = fuzz::ClaimedSize(data + 2, size - 2);
  const DWORD room = claimed < (1u << 20) ? claimed : 1u << 20;
  DWORD error = 0, produced = 7;
  const int ok =
      GetExpandFileToFile(in.Handle(), 0xFFFFFFFFu, &error, &produced, out.Handle(), room);
  FUZZ_CHECK(ok ? produced == claimed : produced == 0 && error != 0);
  FUZZ_CHECK(in.Tell() == pad && out.Tell() == outPad);
  return 0;
}
