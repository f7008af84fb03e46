#include "fuzz_common.h"

namespace fuzz {

ScratchFile& ScratchFile::Get(int which) {
  static ScratchFile files[2];
  return files[which & 1];
}

ScratchFile::ScratchFile() {
  WCHAR dir[MAX_PATH];
  FUZZ_CHECK(GetTempPathW(MAX_PATH, dir) != 0);
  FUZZ_CHECK(GetTempFileNameW(dir, WTEXT("FZ"), 0, path_) != 0);
  handle_ = CreateFileW(path_, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
  FUZZ_CHECK(handle_ != INVALID_HANDLE_VALUE);
}

ScratchFile::~ScratchFile() {
  if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  DeleteFileW(path_);
}

void ScratchFile::Seek(std::uint64_t position) {
  LONG high = static_cast<LONG>(position >> 32);
  SetFilePointer(handle_, static_cast<LONG>(position), &high, FILE_BEGIN);
}

std::uint64_t ScratchFile::Tell() const {
  LONG high = 0;
  const DWORD low = SetFilePointer(handle_, 0, &high, FILE_CURRENT);
  return static_cast<std::uint64_t>(static_cast<DWORD>(high)) << 32 | low;
}

void ScratchFile::Fill(const std::uint8_t* data, std::size_t size) {
  Seek(0);
  FUZZ_CHECK(SetEndOfFile(handle_));
  DWORD written = 0;
  if (size != 0)
    FUZZ_CHECK(WriteFile(handle_, data, static_cast<DWORD>(size), &written, nullptr) &&
               written == size);
}

std::uint32_t ClaimedSize(const std::uint8_t* data, std::size_t size) {
  if (size < 16 || data[0] != 'C' || data[1] != 'M') return 0;
  return static_cast<std::uint32_t>(data[8]) | static_cast<std::uint32_t>(data[9]) << 8 |
         static_cast<std::uint32_t>(data[10]) << 16 | static_cast<std::uint32_t>(data[11]) << 24;
}

} // namespace fuzz
