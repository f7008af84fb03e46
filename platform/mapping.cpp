// File mapping over mmap, and the system information that goes with it.
#include "platform/layer.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace talvern::platform {
namespace {

constexpr std::uint64_t kGranularity = 65536;

class MappingObject : public HandleObject {
public:
  ~MappingObject() override {
    if (fd >= 0) ::close(fd);
    ReleaseOpenHandle(medium);
  }
  int fd = -1;
  std::uint64_t size = 0;
  DWORD protect = PAGE_READONLY;
  std::shared_ptr<Medium> medium;
};

std::mutex& ViewMutex() {
  static std::mutex* mutex = new std::mutex; // lives until the process ends
  return *mutex;
}

std::map<const void*, std::size_t>& Views() {
  static auto* views = new std::map<const void*, std::size_t>; // lives until the process ends
  return *views;
}

} // namespace
} // namespace talvern::platform

using namespace talvern::platform;

HANDLE CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES /*attributes*/, DWORD protect,
                          DWORD maximumSizeHigh, DWORD maximumSizeLow, LPCWSTR name) {
  if (name != nullptr && name[0] != 0) return FailHandle(ERROR_NOT_SUPPORTED, nullptr);
  const DWORD page = protect & 0xFF;
  if (page != PAGE_READONLY && page != PAGE_READWRITE && page != PAGE_WRITECOPY)
    return FailHandle(ERROR_INVALID_PARAMETER, nullptr);
  std::uint64_t size = (static_cast<std::uint64_t>(maximumSizeHigh) << 32) | maximumSizeLow;

  auto mapping = std::make_unique<MappingObject>();
  mapping->protect = page;
  if (file == INVALID_HANDLE_VALUE) {
    // Backed by memory alone.
    if (size == 0) return FailHandle(ERROR_INVALID_PARAMETER, nullptr);
    mapping->fd = ::memfd_create("talvern-mapping", MFD_CLOEXEC);
    if (mapping->fd < 0 || ::ftruncate(mapping->fd, static_cast<off_t>(size)) != 0) {
      SetLastErrorFromErrno(errno);
      return nullptr;
    }
    mapping->size = size;
    return RegisterHandle(std::move(mapping));
  }

  auto* f = FindHandleAs<FileObject>(file);
  if (f == nullptr) return FailHandle(ERROR_INVALID_HANDLE, nullptr);
  if (f->isDirectory || !f->canRead || (page == PAGE_READWRITE && !f->canWrite))
    return FailHandle(ERROR_ACCESS_DENIED, nullptr);
  struct stat st {};
  if (::fstat(f->fd, &st) != 0) {
    SetLastErrorFromErrno(errno);
    return nullptr;
  }
  const auto fileSize = static_cast<std::uint64_t>(st.st_size);
  if (size == 0) size = fileSize;
  if (size == 0) return FailHandle(ERROR_FILE_INVALID, nullptr);
  if (size > fileSize) {
    // Only a writable mapping may grow its file.
    if (page != PAGE_READWRITE) return FailHandle(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    if (f->medium && f->medium->capacity != 0) {
      std::lock_guard<std::mutex> lock(f->medium->accounting);
      if (const DWORD code = CheckGrowth(*f->medium, fileSize, size))
        return FailHandle(code, nullptr);
      if (::ftruncate(f->fd, static_cast<off_t>(size)) != 0) {
        SetLastErrorFromErrno(errno);
        return nullptr;
      }
    } else if (::ftruncate(f->fd, static_cast<off_t>(size)) != 0) {
      SetLastErrorFromErrno(errno);
      return nullptr;
    }
  }
  mapping->fd = ::fcntl(f->fd, F_DUPFD_CLOEXEC, 0);
  if (mapping->fd < 0) {
    SetLastErrorFromErrno(errno);
    return nullptr;
  }
  mapping->size = size;
  mapping->medium = f->medium;
  AddOpenHandle(mapping->medium);
  return RegisterHandle(std::move(mapping));
}

LPVOID MapViewOfFile(HANDLE fileMappingObject, DWORD desiredAccess, DWORD fileOffsetHigh,
                     DWORD fileOffsetLow, SIZE_T numberOfBytesToMap) {
  auto* m = FindHandleAs<MappingObject>(fileMappingObject);
  if (m == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  const std::uint64_t offset = (static_cast<std::uint64_t>(fileOffsetHigh) << 32) | fileOffsetLow;
  if (offset % kGranularity != 0) {
    SetLastError(ERROR_MAPPED_ALIGNMENT);
    return nullptr;
  }
  std::uint64_t length = numberOfBytesToMap;
  if (length == 0) length = offset < m->size ? m->size - offset : 0;
  if (length == 0 || offset + length > m->size || offset + length < offset) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  const bool copy = (desiredAccess & FILE_MAP_COPY) != 0 && !(desiredAccess & FILE_MAP_WRITE);
  const bool write = (desiredAccess & FILE_MAP_WRITE) != 0;
  if (write && m->protect == PAGE_READONLY) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  int prot = PROT_READ;
  int flags = MAP_SHARED;
  if (copy || (write && m->protect == PAGE_WRITECOPY)) {
    prot |= PROT_WRITE;
    flags = MAP_PRIVATE;
  } else if (write) {
    prot |= PROT_WRITE;
  }
  void* view = ::mmap(nullptr, static_cast<std::size_t>(length), prot, flags, m->fd,
                      static_cast<off_t>(offset));
  if (view == MAP_FAILED) {
    SetLastErrorFromErrno(errno);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(ViewMutex());
  Views()[view] = static_cast<std::size_t>(length);
  return view;
}

BOOL UnmapViewOfFile(LPCVOID baseAddress) {
  std::size_t length = 0;
  {
    std::lock_guard<std::mutex> lock(ViewMutex());
    const auto it = Views().find(baseAddress);
    if (it == Views().end()) return Fail(ERROR_INVALID_ADDRESS);
    length = it->second;
    Views().erase(it);
  }
  ::munmap(const_cast<void*>(baseAddress), length);
  return TRUE;
}

void GetSystemInfo(LPSYSTEM_INFO systemInfo) {
  if (systemInfo == nullptr) return;
  *systemInfo = SYSTEM_INFO();
#if defined(__x86_64__)
  systemInfo->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
#elif defined(__aarch64__)
  systemInfo->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_ARM64;
#elif defined(__i386__)
  systemInfo->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_INTEL;
#elif defined(__arm__)
  systemInfo->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_ARM;
#else
  systemInfo->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_UNKNOWN;
#endif
  const long page = ::sysconf(_SC_PAGESIZE);
  systemInfo->dwPageSize = page > 0 ? static_cast<DWORD>(page) : 4096;
  systemInfo->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(kGranularity);
  systemInfo->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(
      sizeof(void*) == 8 ? std::uintptr_t{0x00007FFFFFFEFFFFull} : std::uintptr_t{0x7FFEFFFF});
  const long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
  systemInfo->dwNumberOfProcessors = processors > 0 ? static_cast<DWORD>(processors) : 1;
  const DWORD count = systemInfo->dwNumberOfProcessors < 64 ? systemInfo->dwNumberOfProcessors : 64;
  systemInfo->dwActiveProcessorMask = count >= 64 ? ~DWORD_PTR{0} : ((DWORD_PTR{1} << count) - 1);
  systemInfo->dwAllocationGranularity = static_cast<DWORD>(kGranularity);
}
