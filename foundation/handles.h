// Owners of Win32 handles, closed on every way out of the code that opened
// them. Internal to the library.
#pragma once

#include <talvern/win32.h>

#include <utility>

// A handle closed with CloseHandle (files, devices, tokens). Null and
// INVALID_HANDLE_VALUE both mean "none".
class ScopedHandle {
public:
  ScopedHandle() = default;
  explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
  ~ScopedHandle() { Close(); }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;

  HANDLE Get() const { return handle_; }
  bool IsValid() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
  // Where an API stores a new handle; the old one is closed first.
  HANDLE* Receive() {
    Close();
    return &handle_;
  }
  void Reset(HANDLE handle = INVALID_HANDLE_VALUE) {
    Close();
    handle_ = handle;
  }
  // Closes now and reports whether CloseHandle succeeded (true when there
  // was nothing to close).
  bool Close() {
    const bool ok = !IsValid() || CloseHandle(handle_) != 0;
    handle_ = INVALID_HANDLE_VALUE;
    return ok;
  }
  HANDLE Release() { return std::exchange(handle_, INVALID_HANDLE_VALUE); }

private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// A directory enumeration from FindFirstFileW, closed with FindClose. With
// foldersOnly the system may leave out items it knows to be no folder.
class ScopedFind {
public:
  ScopedFind(const WCHAR* pattern, WIN32_FIND_DATAW& data, bool foldersOnly = false)
      : handle_(foldersOnly ? FindFirstFileExW(pattern, FindExInfoStandard, &data,
                                               FindExSearchLimitToDirectories, nullptr, 0)
                            : FindFirstFileW(pattern, &data)) {}
  ~ScopedFind() {
    if (IsValid()) FindClose(handle_);
  }
  ScopedFind(const ScopedFind&) = delete;
  ScopedFind& operator=(const ScopedFind&) = delete;

  bool IsValid() const { return handle_ != INVALID_HANDLE_VALUE; }
  bool Next(WIN32_FIND_DATAW& data) { return FindNextFileW(handle_, &data) != 0; }

private:
  HANDLE handle_;
};

// A temporary file's name, deleted (with its handle closed first) when the
// owner goes away.
class ScopedTempFile {
public:
  ScopedTempFile() = default;
  ~ScopedTempFile() { Remove(); }
  ScopedTempFile(const ScopedTempFile&) = delete;
  ScopedTempFile& operator=(const ScopedTempFile&) = delete;

  CString& Name() { return name_; }
  const WCHAR* c_str() const { return name_.c_str(); }
  bool Exists() const { return !name_.empty(); }
  ScopedHandle& File() { return file_; }
  const ScopedHandle& File() const { return file_; }
  void Remove() {
    file_.Close();
    if (!name_.empty()) DeleteFileW(name_.c_str());
    name_.clear();
  }

private:
  CString name_;
  ScopedHandle file_;
};
