// Any bytes as a numbered set of two or three volumes, read as a host reads
// an archive. The first byte chooses how many volumes, the next two pairs
// (16 bits, low byte first) how long the first and the second are, cut to
// what is there; the last volume has the rest.
#include "fuzz_common.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 5) return 0;
  const std::size_t volumes = 2 + data[0] % 2;
  const std::uint8_t* rest = data + 5;
  const std::size_t length = size - 5;
  const std::size_t first = std::min<std::size_t>(length, data[1] | data[2] << 8);
  const std::size_t second =
      volumes == 2 ? length : std::min<std::size_t>(length, first + (data[3] | data[4] << 8));
  fuzz::ScratchFolder& folder = fuzz::ScratchFolder::Get();
  folder.Clear();
  folder.Write(WTEXT("set.000"), rest, first);
  folder.Write(WTEXT("set.001"), rest + first, second - first);
  if (volumes == 3) folder.Write(WTEXT("set.002"), rest + second, length - second);
  const CArchiveSize limit(1u << 20);
  fuzz::ReadArchive(folder.Path(WTEXT("set.arc")), &limit, volumes);
  return 0;
}
