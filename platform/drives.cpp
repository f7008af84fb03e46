// The drive and share tables, full paths, the current directory, and the
// conversions between Windows paths and host paths.
#include "platform/layer.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace talvern::platform {

constexpr std::size_t kMaxWindowsPath = 32767; // longest path the Win32 API takes
constexpr std::size_t kMaxHostName = 255;      // bytes of one host name

std::mutex& StateMutex() {
  static std::mutex* mutex = new std::mutex; // lives until the process ends
  return *mutex;
}

namespace {

bool IsAsciiLetter(WCHAR c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }
int LetterIndex(WCHAR c) {
  if (c >= u'a' && c <= u'z') return c - u'a';
  if (c >= u'A' && c <= u'Z') return c - u'A';
  return -1;
}

CString Lower(const CString& s) {
  CString out = s;
  for (auto& c : out) c = LowerChar(c);
  return out;
}

std::shared_ptr<Medium> HostFolderMedium(const std::string& hostDir, UINT type, DWORD clusterSize) {
  auto m = std::make_shared<Medium>();
  m->hostDir = hostDir;
  m->serialFromHost = true;
  m->fileSystemFlags = FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES |
                       FILE_UNICODE_ON_DISK | FILE_PERSISTENT_ACLS;
  m->clusterSize = clusterSize;
  m->driveType = type;
  return m;
}

} // namespace

State& TheState() {
  static State* state = [] {
    auto* s = new State; // lives until the process ends
    Drive& z = s->drives[25];
    z.mapped = true;
    z.type = DRIVE_FIXED;
    z.clusterSize = 4096;
    z.medium = HostFolderMedium("/", DRIVE_FIXED, 4096);
    return s;
  }();
  return *state;
}

namespace {

std::string HostCwd() {
  std::vector<char> buffer(PATH_MAX + 1);
  if (::getcwd(buffer.data(), buffer.size()) == nullptr) return std::string();
  return std::string(buffer.data());
}

bool HostPathHas(const std::string& dir, const std::string& path) {
  if (dir == "/") return true;
  return path.size() >= dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

// Creates and canonicalises a host folder given to the control interface.
bool PrepareHostDir(const std::string& hostDir, std::string& canonical) {
  if (hostDir.empty()) return Fail(ERROR_INVALID_PARAMETER);
  std::error_code ec;
  std::filesystem::create_directories(hostDir, ec);
  char* real = ::realpath(hostDir.c_str(), nullptr);
  if (real == nullptr) {
    SetLastErrorFromErrno(errno);
    return false;
  }
  canonical = real;
  std::free(real);
  struct stat st {};
  if (::stat(canonical.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY);
  return true;
}

std::shared_ptr<Medium> MakeMedium(const MediumSpec& spec, const std::string& hostDir, UINT type,
                                   DWORD clusterSize) {
  auto m = std::make_shared<Medium>();
  m->hostDir = hostDir;
  m->serial = spec.Serial;
  m->serialFromHost = spec.Serial == 0;
  m->label = spec.Label;
  m->fileSystemFlags = spec.FileSystemFlags;
  m->formatted = spec.Formatted;
  m->writeProtected = spec.WriteProtected;
  m->capacity = spec.Capacity;
  m->clusterSize = clusterSize;
  m->driveType = type;
  return m;
}

// ---- Full paths -------------------------------------------------------------

// Splits an absolute Windows path (backslashes only) into its root ("X:",
// "\\server\share", "\\.\X:" ...) and the rest.
void SplitRoot(const CString& path, CString& root, CString& rest) {
  if (path.size() >= 2 && path[0] == u'\\' && path[1] == u'\\') {
    if (path.size() >= 4 && (path[2] == u'.' || path[2] == u'?') && path[3] == u'\\') {
      // Device namespace: "\\.\" and its first component.
      std::size_t end = path.find(u'\\', 4);
      if (end == CString::npos) end = path.size();
      root = path.substr(0, end);
      rest = path.substr(end);
      return;
    }
    std::size_t serverEnd = path.find(u'\\', 2);
    if (serverEnd == CString::npos) {
      root = path;
      rest.clear();
      return;
    }
    std::size_t shareEnd = path.find(u'\\', serverEnd + 1);
    if (shareEnd == CString::npos) shareEnd = path.size();
    root = path.substr(0, shareEnd);
    rest = path.substr(shareEnd);
    return;
  }
  root = path.substr(0, 2);
  rest = path.substr(2);
}

} // namespace

// Computes the absolute form of a Windows path. Returns 0 or an error code;
// filePart receives the index of the final component, or -1.
DWORD BuildFullPathName(const WCHAR* input, CString& result, long& filePart) {
  filePart = -1;
  if (input == nullptr) return ERROR_INVALID_PARAMETER;
  CString path(input);
  if (path.empty()) return ERROR_INVALID_NAME;
  for (auto& c : path)
    if (c == u'/') c = u'\\';

  // "\\?\" paths are taken literally, as Windows takes them.
  if (path.size() >= 4 && path.compare(0, 4, u"\\\\?\\") == 0) {
    result = CString(input);
    const std::size_t last = result.find_last_of(u'\\');
    if (last != CString::npos && last + 1 < result.size()) filePart = static_cast<long>(last + 1);
    return result.size() >= kMaxWindowsPath ? ERROR_FILENAME_EXCED_RANGE : ERROR_SUCCESS;
  }

  CString absolute;
  const bool unc = path.size() >= 2 && path[0] == u'\\' && path[1] == u'\\';
  const bool drive = path.size() >= 2 && IsAsciiLetter(path[0]) && path[1] == u':';
  if (unc || (drive && path.size() >= 3 && path[2] == u'\\')) {
    absolute = path;
  } else {
    CString cwd = CurrentDirectoryWindows();
    if (drive) {
      // "X:name": relative to the current directory when it is on X:, else to
      // the root of X:.
      const bool onSameDrive =
          cwd.size() >= 2 && cwd[1] == u':' && LetterIndex(cwd[0]) == LetterIndex(path[0]);
      absolute = (onSameDrive ? cwd : CString(path.substr(0, 2)) + u"\\") + u"\\" + path.substr(2);
    } else {
      if (cwd.empty()) return ERROR_PATH_NOT_FOUND;
      if (path[0] == u'\\') {
        CString root, rest;
        SplitRoot(cwd, root, rest);
        absolute = root + path;
      } else {
        absolute = cwd + u"\\" + path;
      }
    }
  }

  CString root, rest;
  SplitRoot(absolute, root, rest);
  const bool trailing = !rest.empty() && rest.back() == u'\\';
  std::vector<CString> parts;
  std::size_t i = 0;
  while (i <= rest.size()) {
    std::size_t next = rest.find(u'\\', i);
    if (next == CString::npos) next = rest.size();
    CString part = rest.substr(i, next - i);
    if (part == u"..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != u".") {
      parts.push_back(std::move(part));
    }
    i = next + 1;
  }

  const bool driveRoot = root.size() == 2 && root[1] == u':';
  result = root;
  if (parts.empty()) {
    if (driveRoot || trailing || (!rest.empty() && !unc))
      result += u'\\';
    else if (unc && !rest.empty())
      result += u'\\';
  } else {
    for (const auto& part : parts) {
      result += u'\\';
      filePart = static_cast<long>(result.size());
      result += part;
    }
    if (trailing) {
      result += u'\\';
      filePart = -1;
    }
  }
  if (parts.empty() && unc && rest.empty()) {
    // "\\server\share" and "\\server": the last name is the final component.
    const std::size_t last = result.find_last_of(u'\\');
    if (last != CString::npos && last >= 2 && last + 1 < result.size())
      filePart = static_cast<long>(last + 1);
  }
  if (result.size() >= kMaxWindowsPath) return ERROR_FILENAME_EXCED_RANGE;
  return ERROR_SUCCESS;
}

std::string NormaliseHostPath(const std::string& path) {
  std::string absolute = path;
  if (absolute.empty() || absolute[0] != '/') absolute = HostCwd() + "/" + absolute;
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i <= absolute.size()) {
    std::size_t next = absolute.find('/', i);
    if (next == std::string::npos) next = absolute.size();
    std::string part = absolute.substr(i, next - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(std::move(part));
    }
    i = next + 1;
  }
  std::string out;
  for (const auto& part : parts) out += "/" + part;
  return out.empty() ? std::string("/") : out;
}

CString PresentHostPath(const std::string& hostPath) {
  const std::string host = NormaliseHostPath(hostPath);
  CString root;
  std::string base;
  {
    std::lock_guard<std::mutex> lock(StateMutex());
    State& s = TheState();
    std::size_t best = 0;
    bool found = false;
    for (int i = 0; i < 26; ++i) {
      const Drive& d = s.drives[static_cast<std::size_t>(i)];
      if (!d.mapped || !d.medium) continue;
      const std::string& dir = d.medium->hostDir;
      const std::size_t length = dir == "/" ? 0 : dir.size();
      if (HostPathHas(dir, host) && (!found || length > best)) {
        found = true;
        best = length;
        root = CString(1, static_cast<WCHAR>(u'A' + i)) + u":";
        base = dir;
      }
    }
    for (const auto& entry : s.shares) {
      const std::string& dir = entry.second.hostDir;
      const std::size_t length = dir == "/" ? 0 : dir.size();
      if (HostPathHas(dir, host) && (!found || length > best)) {
        found = true;
        best = length;
        root = u"\\\\" + entry.second.server + u"\\" + entry.second.share;
        base = dir;
      }
    }
    if (!found) {
      SetLastError(ERROR_PATH_NOT_FOUND);
      return CString();
    }
  }
  CString out = root;
  std::size_t i = base == "/" ? 1 : base.size() + 1;
  if (i >= host.size()) return out + u"\\";
  while (i < host.size()) {
    std::size_t next = host.find('/', i);
    if (next == std::string::npos) next = host.size();
    out += u'\\';
    out += HostNameToWindows(std::string_view(host).substr(i, next - i));
    i = next + 1;
  }
  return out;
}

CString CurrentDirectoryWindows() {
  const std::string host = HostCwd();
  if (host.empty()) {
    SetLastErrorFromErrno(errno);
    return CString();
  }
  {
    std::lock_guard<std::mutex> lock(StateMutex());
    State& s = TheState();
    if (!s.cwdWindows.empty() && s.cwdHost == host) return s.cwdWindows;
  }
  return PresentHostPath(host);
}

std::shared_ptr<Medium> MediumForHostPath(const std::string& hostPath) {
  std::lock_guard<std::mutex> lock(StateMutex());
  std::shared_ptr<Medium> best;
  std::size_t bestLength = 0;
  for (const Drive& d : TheState().drives) {
    if (!d.mapped || !d.medium || !HostPathHas(d.medium->hostDir, hostPath)) continue;
    const std::size_t length = d.medium->hostDir == "/" ? 0 : d.medium->hostDir.size();
    if (!best || length > bestLength) {
      best = d.medium;
      bestLength = length;
    }
  }
  return best;
}

bool Resolve(const WCHAR* windowsPath, ResolvedPath& out) {
  long filePart = -1;
  const DWORD code = BuildFullPathName(windowsPath, out.full, filePart);
  if (code != ERROR_SUCCESS) return Fail(code);
  const CString& full = out.full;

  CString root, rest;
  SplitRoot(full, root, rest);
  std::string base;
  out.drive = 0;
  {
    std::lock_guard<std::mutex> lock(StateMutex());
    State& s = TheState();
    if (root.size() == 2 && root[1] == u':') {
      const int index = LetterIndex(root[0]);
      const Drive& d = s.drives[static_cast<std::size_t>(index)];
      if (!d.mapped) return Fail(ERROR_PATH_NOT_FOUND);
      if (!d.medium) return Fail(ERROR_NOT_READY);
      if (!d.medium->formatted) return Fail(ERROR_UNRECOGNIZED_VOLUME);
      base = d.medium->hostDir;
      out.drive = static_cast<WCHAR>(u'A' + index);
    } else if (root.size() >= 2 && root[0] == u'\\' && root[1] == u'\\') {
      if (root.size() >= 3 && (root[2] == u'.' || root[2] == u'?')) return Fail(ERROR_INVALID_NAME);
      const auto it = s.shares.find(Lower(root.substr(2)));
      if (it == s.shares.end()) return Fail(ERROR_BAD_NETPATH);
      base = it->second.hostDir;
    } else {
      return Fail(ERROR_INVALID_NAME);
    }
  }

  std::string host = base == "/" ? std::string() : base;
  std::size_t i = 0;
  bool any = false;
  while (i < rest.size()) {
    std::size_t next = rest.find(u'\\', i);
    if (next == CString::npos) next = rest.size();
    if (next > i) {
      std::string name;
      if (!WindowsNameToHost(std::u16string_view(rest).substr(i, next - i), name)) return false;
      if (name.size() > kMaxHostName) return Fail(ERROR_FILENAME_EXCED_RANGE);
      host += "/" + name;
      any = true;
    }
    i = next + 1;
  }
  // Appended rather than assigned: GCC 12 at -O2/-O3 reports a false
  // -Wrestrict overlap for `host = "/"` here (its inlined replace path).
  if (host.empty()) host.push_back('/');
  if (host.size() >= PATH_MAX) return Fail(ERROR_FILENAME_EXCED_RANGE);
  out.isRoot = !any;
  out.host = std::move(host);
  out.medium = MediumForHostPath(out.host);
  return true;
}

bool ResolveToHost(const WCHAR* windowsPath, std::string& hostPath) {
  ResolvedPath resolved;
  if (!Resolve(windowsPath, resolved)) return false;
  hostPath = std::move(resolved.host);
  return true;
}

void AddOpenHandle(const std::shared_ptr<Medium>& medium) {
  if (!medium) return;
  std::lock_guard<std::mutex> lock(StateMutex());
  ++medium->openHandles;
}

void ReleaseOpenHandle(const std::shared_ptr<Medium>& medium) {
  if (!medium) return;
  std::lock_guard<std::mutex> lock(StateMutex());
  --medium->openHandles;
}

bool IsLockedByOther(const Medium* medium, const void* self) {
  if (medium == nullptr) return false;
  std::lock_guard<std::mutex> lock(StateMutex());
  return medium->lockOwner != nullptr && medium->lockOwner != self;
}

DWORD WriteCheck(const Medium* medium) {
  return (medium != nullptr && medium->writeProtected) ? ERROR_WRITE_PROTECT : ERROR_SUCCESS;
}

// ---- Access to the tables for the volume functions ----------------------------

bool LookupRoot(const WCHAR* rootPath, bool requireTrailingSeparator, RootInfo& info) {
  CString root;
  if (rootPath == nullptr) {
    const CString cwd = CurrentDirectoryWindows();
    if (cwd.empty()) return Fail(ERROR_PATH_NOT_FOUND);
    CString rest;
    SplitRoot(cwd, root, rest);
    root += u'\\';
  } else {
    root = rootPath;
    for (auto& c : root)
      if (c == u'/') c = u'\\';
  }
  std::lock_guard<std::mutex> lock(StateMutex());
  State& s = TheState();
  info = RootInfo();
  if (root.size() >= 2 && IsAsciiLetter(root[0]) && root[1] == u':') {
    const bool exact = root.size() == 3 && root[2] == u'\\';
    if (!exact && !(root.size() == 2 && !requireTrailingSeparator)) return Fail(ERROR_INVALID_NAME);
    const int index = LetterIndex(root[0]);
    const Drive& d = s.drives[static_cast<std::size_t>(index)];
    if (!d.mapped) return Fail(ERROR_PATH_NOT_FOUND);
    info.letter = static_cast<WCHAR>(u'A' + index);
    info.type = d.type;
    info.clusterSize = d.clusterSize;
    info.medium = d.medium;
    return true;
  }
  if (root.size() > 2 && root[0] == u'\\' && root[1] == u'\\') {
    CString body = root.substr(2);
    if (!body.empty() && body.back() == u'\\')
      body.pop_back();
    else if (requireTrailingSeparator)
      return Fail(ERROR_INVALID_NAME);
    const std::size_t sep = body.find(u'\\');
    if (sep == CString::npos || sep == 0 || sep + 1 >= body.size() ||
        body.find(u'\\', sep + 1) != CString::npos)
      return Fail(ERROR_INVALID_NAME);
    const auto it = s.shares.find(Lower(body));
    if (it == s.shares.end()) return Fail(ERROR_BAD_NETPATH);
    info.type = DRIVE_REMOTE;
    info.clusterSize = 4096;
    info.medium = HostFolderMedium(it->second.hostDir, DRIVE_REMOTE, 4096);
    return true;
  }
  return Fail(ERROR_INVALID_NAME);
}

bool DeviceAccessDenied(WCHAR letter) {
  std::lock_guard<std::mutex> lock(StateMutex());
  return TheState().deviceDenied[static_cast<std::size_t>(LetterIndex(letter))];
}

Drive* MappedDrive(WCHAR letter) {
  const int index = LetterIndex(letter);
  if (index < 0) return nullptr;
  Drive& d = TheState().drives[static_cast<std::size_t>(index)];
  return d.mapped ? &d : nullptr;
}

} // namespace talvern::platform

using namespace talvern::platform;

// ---- Win32 path functions ----------------------------------------------------

DWORD GetFullPathNameW(LPCWSTR fileName, DWORD bufferLength, LPWSTR buffer, LPWSTR* filePart) {
  CString full;
  long part = -1;
  const DWORD code = BuildFullPathName(fileName, full, part);
  if (code != ERROR_SUCCESS) {
    SetLastError(code);
    return 0;
  }
  const auto needed = static_cast<DWORD>(full.size() + 1);
  if (buffer == nullptr || bufferLength < needed) return needed;
  std::copy(full.begin(), full.end(), buffer);
  buffer[full.size()] = 0;
  if (filePart != nullptr) *filePart = part < 0 ? nullptr : buffer + part;
  return needed - 1;
}

DWORD GetCurrentDirectoryW(DWORD bufferLength, LPWSTR buffer) {
  const CString cwd = CurrentDirectoryWindows();
  if (cwd.empty()) return 0;
  const auto needed = static_cast<DWORD>(cwd.size() + 1);
  if (buffer == nullptr || bufferLength < needed) return needed;
  std::copy(cwd.begin(), cwd.end(), buffer);
  buffer[cwd.size()] = 0;
  return needed - 1;
}

BOOL SetCurrentDirectoryW(LPCWSTR pathName) {
  ResolvedPath resolved;
  if (!Resolve(pathName, resolved)) return FALSE;
  struct stat st {};
  if (::stat(resolved.host.c_str(), &st) != 0) {
    SetPathError(errno, resolved.host);
    return FALSE;
  }
  if (!S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY);
  if (::chdir(resolved.host.c_str()) != 0) {
    SetLastErrorFromErrno(errno);
    return FALSE;
  }
  CString full = resolved.full;
  if (!resolved.isRoot && full.size() > 1 && full.back() == u'\\') full.pop_back();
  if (resolved.isRoot && full.back() != u'\\') full += u'\\';
  const std::string host = HostCwd();
  std::lock_guard<std::mutex> lock(StateMutex());
  State& s = TheState();
  s.cwdWindows = full;
  s.cwdHost = host;
  return TRUE;
}

// ---- Control interface ----------------------------------------------------------

namespace talvern {

BOOL MountDrive(WCHAR letter, UINT driveType, DWORD clusterSize, const MediumSpec* medium) {
  const int index = LetterIndex(letter);
  if (index < 0) return Fail(ERROR_INVALID_DRIVE);
  if (driveType < DRIVE_REMOVABLE || driveType > DRIVE_RAMDISK)
    return Fail(ERROR_INVALID_PARAMETER);
  if (clusterSize == 0) clusterSize = 4096;
  if (clusterSize < 512 || (clusterSize & (clusterSize - 1)) != 0 || clusterSize > (1u << 21))
    return Fail(ERROR_INVALID_PARAMETER);
  std::shared_ptr<Medium> m;
  if (medium != nullptr) {
    std::string dir;
    if (!PrepareHostDir(medium->HostDir, dir)) return FALSE;
    m = MakeMedium(*medium, dir, driveType, clusterSize);
  }
  std::lock_guard<std::mutex> lock(StateMutex());
  State& s = TheState();
  Drive& d = s.drives[static_cast<std::size_t>(index)];
  d = Drive();
  d.mapped = true;
  d.type = driveType;
  d.clusterSize = clusterSize;
  d.medium = std::move(m);
  s.dismounts[static_cast<std::size_t>(index)] = 0;
  return TRUE;
}

BOOL InsertMedium(WCHAR letter, const MediumSpec* medium) {
  const int index = LetterIndex(letter);
  if (index < 0) return Fail(ERROR_INVALID_DRIVE);
  std::string dir;
  if (medium != nullptr && !PrepareHostDir(medium->HostDir, dir)) return FALSE;
  std::lock_guard<std::mutex> lock(StateMutex());
  Drive& d = TheState().drives[static_cast<std::size_t>(index)];
  if (!d.mapped) return Fail(ERROR_INVALID_DRIVE);
  d.medium = medium ? MakeMedium(*medium, dir, d.type, d.clusterSize) : nullptr;
  return TRUE;
}

BOOL UnmountDrive(WCHAR letter) {
  const int index = LetterIndex(letter);
  if (index < 0) return Fail(ERROR_INVALID_DRIVE);
  std::lock_guard<std::mutex> lock(StateMutex());
  Drive& d = TheState().drives[static_cast<std::size_t>(index)];
  if (!d.mapped) return Fail(ERROR_INVALID_DRIVE);
  d = Drive();
  return TRUE;
}

BOOL MountShare(const WCHAR* server, const WCHAR* share, const std::string& hostDir) {
  if (server == nullptr || share == nullptr || *server == 0 || *share == 0)
    return Fail(ERROR_INVALID_PARAMETER);
  const CString serverName(server), shareName(share);
  for (const CString* name : {&serverName, &shareName})
    for (WCHAR c : *name)
      if (c == u'\\' || c == u'/') return Fail(ERROR_INVALID_NAME);
  std::string dir;
  if (!PrepareHostDir(hostDir, dir)) return FALSE;
  std::lock_guard<std::mutex> lock(StateMutex());
  TheState().shares[Lower(serverName + u"\\" + shareName)] = Share{serverName, shareName, dir};
  return TRUE;
}

void SetDeviceAccess(WCHAR letter, BOOL allowed) {
  const int index = LetterIndex(letter);
  if (index < 0) return;
  std::lock_guard<std::mutex> lock(StateMutex());
  TheState().deviceDenied[static_cast<std::size_t>(index)] = !allowed;
}

DWORD GetDismountCount(WCHAR letter) {
  const int index = LetterIndex(letter);
  if (index < 0) return 0;
  std::lock_guard<std::mutex> lock(StateMutex());
  return TheState().dismounts[static_cast<std::size_t>(index)];
}

CString HostPathToWindows(const std::string& hostPath) {
  if (hostPath.empty()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return CString();
  }
  return PresentHostPath(hostPath);
}

std::string WindowsPathToHost(const WCHAR* windowsPath) {
  std::string host;
  if (!ResolveToHost(windowsPath, host)) return std::string();
  return host;
}

} // namespace talvern
