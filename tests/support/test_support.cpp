#include "support/test_support.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace test {

TempDir::TempDir() {
#if defined(_WIN32)
  // No mkdtemp: a name of the process id and a counter is tried until one
  // is new.
  const fs::path root = fs::temp_directory_path();
  static unsigned counter = 0;
  fs::path folder;
  do {
    folder = root / ("talvern-test-" + std::to_string(GetCurrentProcessId()) + "-" +
                     std::to_string(++counter));
  } while (!fs::create_directories(folder));
  host_ = fs::canonical(folder).generic_string();
#else
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/talvern-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  host_ = fs::canonical(buffer.data()).string();
#endif
}

TempDir::~TempDir() {
  std::error_code ec;
  // Give back write permission everywhere so that the removal cannot fail.
  for (auto it = fs::recursive_directory_iterator(
           host_, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(host_, ec);
}

bool UnderWine() {
#if defined(_WIN32)
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
  return false;
#endif
}

CString TempDir::Win() const { return talvern::HostPathToWindows(host_); }
CString TempDir::Win(const std::string& relative) const {
  return talvern::HostPathToWindows(Host(relative));
}

CString W(const std::string& text) { return talvern::FromUtf8(text); }
std::string N(const CString& text) { return talvern::ToUtf8(text.c_str()); }
std::string N(const WCHAR* text) { return text ? talvern::ToUtf8(text) : std::string(); }

void WriteFile(const std::string& hostPath, const std::string& contents) {
  fs::create_directories(fs::path(hostPath).parent_path());
  std::ofstream out(hostPath, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

void WriteFile(const std::string& hostPath, const std::vector<std::uint8_t>& contents) {
  WriteFile(hostPath, std::string(contents.begin(), contents.end()));
}

std::vector<std::uint8_t> ReadFile(const std::string& hostPath) {
  std::ifstream in(hostPath, std::ios::binary);
  return std::vector<std::uint8_t>((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string& hostPath) {
  auto bytes = ReadFile(hostPath);
  return std::string(bytes.begin(), bytes.end());
}

bool Exists(const std::string& hostPath) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(hostPath, ec));
}

std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed) {
  std::vector<std::uint8_t> out(count);
  std::uint32_t x = seed ? seed : 0x9E3779B9u;
  for (auto& b : out) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<std::uint8_t>(x >> 24);
  }
  return out;
}

std::vector<std::string> CorpusFiles() {
  std::vector<std::string> files;
  std::error_code ec;
  if (!fs::is_directory(TALVERN_CORPUS_DIR, ec)) return files;
  for (const auto& e : fs::directory_iterator(TALVERN_CORPUS_DIR))
    if (e.is_regular_file() && e.path().filename() != "README.md")
      files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

} // namespace test
