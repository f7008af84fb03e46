// Any bytes as one archive volume, read as a host reads an archive.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::ScratchFolder& folder = fuzz::ScratchFolder::Get();
  folder.Clear();
  folder.Write(WTEXT("one.arc"), data, size);
  fuzz::ReadArchive(folder.Path(WTEXT("one.arc")), nullptr, 1);
  return 0;
}
