#include "fuzz_common.h"

#include <talvern/archive.h>

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

ScratchFolder& ScratchFolder::Get() {
  static ScratchFolder folder;
  return folder;
}

ScratchFolder::ScratchFolder() {
  WCHAR dir[MAX_PATH];
  FUZZ_CHECK(GetTempPathW(MAX_PATH, dir) != 0);
  // A unique name: the temporary file's, taken over by the folder.
  WCHAR name[MAX_PATH];
  FUZZ_CHECK(GetTempFileNameW(dir, WTEXT("FZ"), 0, name) != 0);
  FUZZ_CHECK(DeleteFileW(name) && CreateDirectoryW(name, nullptr));
  path_ = name;
  path_ += u'\\';
}

ScratchFolder::~ScratchFolder() {
  Clear();
  CString folder = path_;
  folder.pop_back();
  RemoveDirectoryW(folder.c_str());
}

CString ScratchFolder::Path(const WCHAR* name) const { return path_ + name; }

void ScratchFolder::Write(const WCHAR* name, const std::uint8_t* data, std::size_t size) {
  HANDLE file = CreateFileW(Path(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  FUZZ_CHECK(file != INVALID_HANDLE_VALUE);
  DWORD written = 0;
  const bool ok =
      size == 0 ||
      (WriteFile(file, data, static_cast<DWORD>(size), &written, nullptr) && written == size);
  CloseHandle(file);
  FUZZ_CHECK(ok);
}

void ScratchFolder::Clear() {
  WIN32_FIND_DATAW data{};
  HANDLE find = FindFirstFileW(Path(WTEXT("*.*")).c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return;
  do {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
      DeleteFileW(Path(data.cFileName).c_str());
  } while (FindNextFileW(find, &data));
  FindClose(find);
}

std::size_t ScratchFolder::Count() const {
  WIN32_FIND_DATAW data{};
  HANDLE find = FindFirstFileW(Path(WTEXT("*.*")).c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  std::size_t count = 0;
  do {
    const CString name = data.cFileName;
    if (name != WTEXT(".") && name != WTEXT("..")) ++count;
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return count;
}

void ReadArchive(const CString& name, const CArchiveSize* limit, std::size_t volumes) {
  ScratchFolder& folder = ScratchFolder::Get();
  {
    CArchiveFile archive;
    FUZZ_CHECK(archive.FileName(name.c_str(), limit));
    if (archive.ReadOpen()) {
      CArchiveEntry entry;
      CArchiveFindFile* find = archive.FindFirst(entry);
      // A search ends: every record lies after the one before it.
      for (int n = 0; find != nullptr && archive.FindNext(find, entry); ++n)
        FUZZ_CHECK(n < 1000000);
      if (find != nullptr) archive.FindClose(find);
      archive.Close();
    } else {
      FUZZ_CHECK(archive.GetErrorCode() != 0);
    }
  }
  for (const int direct : {1, 0}) {
    CArchiveFile archive;
    FUZZ_CHECK(archive.FileName(name.c_str(), limit));
    archive.SetTestOnly(1);
    archive.SetDirectTransfer(direct);
    const int ok = archive.ExpandAll(folder.Path(WTEXT("")).c_str(), {}, {});
    FUZZ_CHECK(ok || archive.GetErrorCode() != 0);
  }
  FUZZ_CHECK(folder.Count() == volumes);
}

std::uint32_t ClaimedSize(const std::uint8_t* data, std::size_t size) {
  if (size < 16 || data[0] != 'C' || data[1] != 'M') return 0;
  return static_cast<std::uint32_t>(data[8]) | static_cast<std::uint32_t>(data[9]) << 8 |
         static_cast<std::uint32_t>(data[10]) << 16 | static_cast<std::uint32_t>(data[11]) << 24;
}

} // namespace fuzz
