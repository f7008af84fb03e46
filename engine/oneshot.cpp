// The eight one-shot functions. All of them come down to the two memory
// forms; the file forms map the wanted range of a file at its current
// position and call those on the views.
#include <talvern/oneshot.h>

#include "engine/block.h"

#include <cstring>
#include <limits>

using talvern::engine::BlockHeader;

namespace {

// The method a block records for a requested one.
WORD BlockMethod(DWORD requested) {
  switch (requested) {
  case talvern::engine::MethodStored:
    return 0;
  case talvern::engine::MethodFormat1:
    return 1;
  case talvern::engine::MethodDefault:
    return 1;
  default:
    return 0;
  }
}

bool LooksLikeBlock(const BYTE* source, DWORD sourceSize) {
  return source != nullptr && sourceSize >= BlockHeader::Size && source[0] == 'C' &&
         source[1] == 'M';
}

BOOL CompressMem(const BYTE* source, DWORD sourceSize, DWORD& error, DWORD* resultSize,
                 BYTE* destination, DWORD destinationSize, DWORD method) {
  if (destinationSize < BlockHeader::Size) {
    error = ERROR_INVALID_USER_BUFFER;
    return FALSE;
  }
  BlockHeader header;
  header.Signature = BlockHeader::SignatureValue;
  header.CompressType = BlockMethod(method);
  header.OriginalSize = source != nullptr ? sourceSize : 0;
  if (destination != nullptr) header.Store(destination);
  if (!talvern::engine::CompressBlock(error, source, header.OriginalSize, header,
                                      destination != nullptr ? destination + BlockHeader::Size
                                                             : nullptr,
                                      destinationSize - BlockHeader::Size))
    return FALSE;
  if (destination != nullptr) header.Store(destination);
  if (resultSize != nullptr) *resultSize = header.CompressedSize + BlockHeader::Size;
  return TRUE;
}

// Validates a block of `sourceSize` bytes against `capacity` bytes of room
// and expands it when there is a destination.
BOOL ExpandMem(const BYTE* source, DWORD sourceSize, DWORD& error, DWORD* resultSize,
               BYTE* destination, DWORD capacity) {
  if (!LooksLikeBlock(source, sourceSize)) {
    error = ERROR_INVALID_DATA;
    return FALSE;
  }
  BlockHeader header;
  header.Load(source);
  if (header.CompressType != 0 && header.CompressType != 1) {
    error = ERROR_INVALID_DATATYPE;
    return FALSE;
  }
  if (header.CompressedSize > sourceSize - BlockHeader::Size) {
    error = ERROR_INVALID_PARAMETER;
    return FALSE;
  }
  if (header.OriginalSize > capacity) {
    error = ERROR_INVALID_USER_BUFFER;
    return FALSE;
  }
  if (destination != nullptr &&
      !talvern::engine::ExpandBlock(error, header, source + BlockHeader::Size, destination))
    return FALSE;
  if (resultSize != nullptr) *resultSize = header.OriginalSize;
  return TRUE;
}

// How much file room expanding `source` needs, capped at `destinationSize`:
// its original size when it looks like a block, else nothing.
DWORD ExpandRoom(const BYTE* source, DWORD sourceSize, DWORD destinationSize) {
  if (!LooksLikeBlock(source, sourceSize)) return 0;
  BlockHeader header;
  header.Load(source);
  return header.OriginalSize < destinationSize ? header.OriginalSize : destinationSize;
}

// A mapped range of a file. The range starts at the file's current position,
// which is read and never moved.
class FileView {
public:
  FileView() = default;
  FileView(const FileView&) = delete;
  FileView& operator=(const FileView&) = delete;
  ~FileView() { Close(); }

  // Maps `wanted` bytes for reading (lowered to what the file holds from
  // the position on) or for writing (growing the file when it is shorter).
  // An invalid handle gives an empty view for writing (a size query) and
  // error 6 for reading.
  bool Open(DWORD& error, bool writing, HANDLE file, DWORD& wanted);
  void Close();

  BYTE* Data() const { return data_; }
  DWORD Size() const { return size_; }

private:
  HANDLE mapping_ = INVALID_HANDLE_VALUE;
  void* view_ = nullptr;
  BYTE* data_ = nullptr;
  DWORD size_ = 0;
};

void FileView::Close() {
  if (view_ != nullptr) UnmapViewOfFile(view_);
  if (mapping_ != INVALID_HANDLE_VALUE && mapping_ != nullptr) CloseHandle(mapping_);
  mapping_ = INVALID_HANDLE_VALUE;
  view_ = nullptr;
  data_ = nullptr;
  size_ = 0;
}

bool FileView::Open(DWORD& error, bool writing, HANDLE file, DWORD& wanted) {
  Close();
  if (file == INVALID_HANDLE_VALUE) {
    if (writing) return true;
    error = ERROR_INVALID_HANDLE;
    return false;
  }

  // A low half of 0xFFFFFFFF is a valid answer; only the last error tells.
  LONG high = 0;
  SetLastError(NO_ERROR);
  const DWORD low = SetFilePointer(file, 0, &high, FILE_CURRENT);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) {
    error = GetLastError();
    return false;
  }
  const std::uint64_t position = static_cast<std::uint64_t>(static_cast<DWORD>(high)) << 32 | low;

  if (!writing) {
    DWORD sizeHigh = 0;
    SetLastError(NO_ERROR);
    const DWORD sizeLow = GetFileSize(file, &sizeHigh);
    if (sizeLow == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
      error = GetLastError();
      return false;
    }
    const std::uint64_t fileSize = static_cast<std::uint64_t>(sizeHigh) << 32 | sizeLow;
    const std::uint64_t there = position < fileSize ? fileSize - position : 0;
    if (there < wanted) wanted = static_cast<DWORD>(there);
  }
  if (position > std::numeric_limits<std::uint64_t>::max() - wanted) {
    error = ERROR_SEEK_ON_DEVICE;
    return false;
  }
  // Nothing to map: an empty view. (A mapping of zero bytes on an empty
  // file is refused by the system, and nothing would be read or written.)
  if (wanted == 0) return true;

  const std::uint64_t end = position + wanted;
  HANDLE mapping =
      CreateFileMappingW(file, nullptr, writing ? PAGE_READWRITE : PAGE_READONLY,
                         static_cast<DWORD>(end >> 32), static_cast<DWORD>(end), nullptr);
  if (mapping == nullptr || mapping == INVALID_HANDLE_VALUE) {
    error = GetLastError();
    return false;
  }
  mapping_ = mapping;

  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  const DWORD granularity = info.dwAllocationGranularity != 0 ? info.dwAllocationGranularity : 1;
  const DWORD offset = static_cast<DWORD>(position) % granularity;
  const DWORD alignedLow = static_cast<DWORD>(position) - offset;
  const std::uint64_t length = std::uint64_t{offset} + wanted;
  if (length > std::numeric_limits<SIZE_T>::max()) {
    // The range cannot be addressed by this process at all.
    error = ERROR_NOT_ENOUGH_MEMORY;
    return false;
  }
  void* view =
      MapViewOfFile(mapping, writing ? FILE_MAP_ALL_ACCESS : FILE_MAP_READ,
                    static_cast<DWORD>(position >> 32), alignedLow, static_cast<SIZE_T>(length));
  if (view == nullptr) {
    error = GetLastError();
    return false;
  }
  view_ = view;
  data_ = static_cast<BYTE*>(view) + offset;
  size_ = wanted;
  return true;
}

// Every function starts from the caller's error value and a result size of
// 0, and stores the value back at the end (changed only on failure).
struct Call {
  Call(DWORD* error, DWORD* resultSize) : caller(error), value(error ? *error : 0) {
    if (resultSize != nullptr) *resultSize = 0;
  }
  int Finish(BOOL ok) {
    if (caller != nullptr) *caller = value;
    return ok ? TRUE : FALSE;
  }

  DWORD* caller; // where the error value goes back to
  DWORD value;   // the error value while the call runs
};

} // namespace

int GetCompressMemToMem(const void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                        void* destination, DWORD destinationSize, DWORD method) {
  Call call(error, resultSize);
  return call.Finish(CompressMem(static_cast<const BYTE*>(source), sourceSize, call.value,
                                 resultSize, static_cast<BYTE*>(destination), destinationSize,
                                 method));
}

int GetExpandMemToMem(const void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                      void* destination, DWORD destinationSize) {
  Call call(error, resultSize);
  return call.Finish(ExpandMem(static_cast<const BYTE*>(source), sourceSize, call.value, resultSize,
                               static_cast<BYTE*>(destination), destinationSize));
}

int GetCompressFileToMem(void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                         void* destination, DWORD destinationSize, DWORD method) {
  Call call(error, resultSize);
  FileView in;
  DWORD size = sourceSize;
  BOOL ok = in.Open(call.value, false, source, size);
  if (ok)
    ok = CompressMem(in.Data(), size, call.value, resultSize, static_cast<BYTE*>(destination),
                     destinationSize, method);
  in.Close();
  return call.Finish(ok);
}

int GetExpandMemToFile(const void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                       void* destination, DWORD destinationSize) {
  Call call(error, resultSize);
  const BYTE* block = static_cast<const BYTE*>(source);
  DWORD room = ExpandRoom(block, sourceSize, destinationSize);
  FileView out;
  BOOL ok = out.Open(call.value, true, destination, room);
  if (ok) {
    if (resultSize != nullptr) *resultSize = 0;
    ok = ExpandMem(block, sourceSize, call.value, resultSize, out.Data(), room);
  }
  out.Close();
  return call.Finish(ok);
}

int GetCompressMemToFile(const void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                         void* destination, DWORD destinationSize, DWORD method) {
  Call call(error, resultSize);
  FileView out;
  DWORD room = destinationSize;
  BOOL ok = out.Open(call.value, true, destination, room);
  if (ok)
    ok = CompressMem(static_cast<const BYTE*>(source), sourceSize, call.value, resultSize,
                     out.Data(), destinationSize, method);
  out.Close();
  return call.Finish(ok);
}

int GetExpandFileToMem(void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                       void* destination, DWORD destinationSize) {
  Call call(error, resultSize);
  FileView in;
  DWORD size = sourceSize;
  BOOL ok = in.Open(call.value, false, source, size);
  if (ok)
    ok = ExpandMem(in.Data(), size, call.value, resultSize, static_cast<BYTE*>(destination),
                   destinationSize);
  in.Close();
  return call.Finish(ok);
}

int GetCompressFileToFile(void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                          void* destination, DWORD destinationSize, DWORD method) {
  Call call(error, resultSize);
  FileView in;
  FileView out;
  DWORD size = sourceSize;
  DWORD room = destinationSize;
  BOOL ok =
      in.Open(call.value, false, source, size) && out.Open(call.value, true, destination, room);
  if (ok)
    ok = CompressMem(in.Data(), size, call.value, resultSize, out.Data(), destinationSize, method);
  out.Close();
  in.Close();
  return call.Finish(ok);
}

int GetExpandFileToFile(void* source, DWORD sourceSize, DWORD* error, DWORD* resultSize,
                        void* destination, DWORD destinationSize) {
  Call call(error, resultSize);
  FileView in;
  FileView out;
  DWORD size = sourceSize;
  BOOL ok = in.Open(call.value, false, source, size);
  DWORD room = ok ? ExpandRoom(in.Data(), size, destinationSize) : 0;
  if (ok) ok = out.Open(call.value, true, destination, room);
  if (ok) ok = ExpandMem(in.Data(), size, call.value, resultSize, out.Data(), room);
  out.Close();
  in.Close();
  return call.Finish(ok);
}
