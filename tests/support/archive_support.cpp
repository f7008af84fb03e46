#include "support/archive_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace fs = std::filesystem;

namespace test {

DWORD Crc32(const std::vector<std::uint8_t>& bytes) {
  DWORD crc = 0;
  for (std::uint8_t b : bytes) {
    crc ^= b;
    for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc;
}

FILETIME MakeFileTime(std::uint64_t value) {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

std::uint64_t FileTimeValue(const FILETIME& time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

WIN32_FIND_DATAW Look(const std::string& host) {
  WIN32_FIND_DATAW data{};
  const HANDLE h = FindFirstFileW(talvern::HostPathToWindows(host).c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return WIN32_FIND_DATAW{};
  ::FindClose(h);
  return data;
}

std::vector<std::uint8_t> DescriptorOf(const CString& path, DWORD what) {
  DWORD needed = 0;
  GetFileSecurityW(path.c_str(), what, nullptr, 0, &needed);
  std::vector<std::uint8_t> bytes(needed);
  if (!GetFileSecurityW(path.c_str(), what, bytes.data(), needed, &needed)) bytes.clear();
  return bytes;
}

const std::vector<std::uint8_t> kWorkedExample = {
    0x41, 0x72, 0x63, 0x68, 0x46, 0x69, 0x6C, 0x65, 0x1A, 0x00, 0x00, 0x00, 0x68, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x52, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x53, 0x38,
    0x4A, 0x99, 0x20, 0x00, 0x00, 0x00, 0x60, 0x5F, 0x4E, 0x3D, 0x2C, 0x1B, 0xDA, 0x01, 0x60,
    0x5F, 0x4E, 0x3D, 0x2C, 0x1B, 0xDA, 0x01, 0x60, 0x5F, 0x4E, 0x3D, 0x2C, 0x1B, 0xDA, 0x01,
    0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x61, 0x00,
    0x2E, 0x00, 0x74, 0x00, 0x78, 0x00, 0x74, 0x00, 0x00, 0x00, 0x00, 0x00, 0x68, 0x69};

// ---- Volumes written from the format ------------------------------------------------------

namespace {

std::uint64_t HeaderSize(const Item& item) {
  return 72 + 2 * item.Path.size() + 2 * item.Name.size() + item.Security.size();
}

// One record header; the data part (dataSize bytes) follows it.
Bytes Record(const Item& item, std::uint64_t packed, std::uint64_t dataSize, bool continued) {
  const std::uint64_t size = item.IsDirectory() ? 0 : item.Contents.size();
  DWORD crc = item.IsDirectory() ? 0 : Crc32(item.Contents);
  if (item.CorruptCrc) crc ^= 0x00010000u;
  Bytes out;
  out.U32(static_cast<std::uint32_t>(HeaderSize(item)))
      .U32(item.Method | (continued ? 0x80000000u : 0))
      .U32(crc)
      .U32(item.Attributes)
      .U64(item.Creation)
      .U64(item.LastAccess)
      .U64(item.LastWrite)
      .U64(size)
      .U64(packed)
      .U64(dataSize)
      .Str(item.Path)
      .Str(item.Name)
      .U32(static_cast<std::uint32_t>(item.Security.size()))
      .Raw(item.Security);
  return out;
}

void FinishVolume(std::vector<std::uint8_t>& volume, unsigned number, bool continues) {
  const auto header =
      Bytes().Header(volume.size(), static_cast<std::uint16_t>(number | (continues ? 0x8000u : 0)));
  std::copy(header.Get().begin(), header.Get().end(), volume.begin());
}

// The stored data of an item: its contents, or for method 1 the
// compressed stream.
std::vector<std::uint8_t> StoredData(const Item& item) {
  if (item.IsDirectory()) return {};
  if (item.Method != 1) return item.Contents;
  DWORD error = 0, size = 0;
  const DWORD n = static_cast<DWORD>(item.Contents.size());
  // Nine bits per literal at worst, plus the block header and the end code.
  std::vector<std::uint8_t> block(n + n / 4 + 64);
  if (!GetCompressMemToMem(item.Contents.data(), n, &error, &size, block.data(),
                           static_cast<DWORD>(block.size()), 1))
    throw std::runtime_error("compression failed: " + std::to_string(error));
  // The block's 16-byte header is followed by the compressed stream.
  return std::vector<std::uint8_t>(block.begin() + 16, block.begin() + size);
}

} // namespace

Item File(const std::string& path, const std::string& name,
          const std::vector<std::uint8_t>& contents, DWORD method) {
  Item item;
  item.Path = W(path);
  item.Name = W(name);
  item.Contents = contents;
  item.Method = method;
  return item;
}

Item File(const std::string& path, const std::string& name, const std::string& contents,
          DWORD method) {
  return File(path, name, std::vector<std::uint8_t>(contents.begin(), contents.end()), method);
}

Item Dir(const std::string& path, const std::string& name) {
  Item item;
  item.Path = W(path);
  item.Name = W(name);
  item.Attributes = FILE_ATTRIBUTE_DIRECTORY;
  return item;
}

std::vector<std::vector<std::uint8_t>> BuildVolumes(const std::vector<Item>& items,
                                                    std::uint64_t limit) {
  std::vector<std::vector<std::uint8_t>> volumes(1, std::vector<std::uint8_t>(20));
  const auto room = [&]() -> std::uint64_t {
    return limit == 0 ? UINT64_MAX : limit - volumes.back().size();
  };
  const auto nextVolume = [&]() {
    FinishVolume(volumes.back(), static_cast<unsigned>(volumes.size() - 1), true);
    volumes.emplace_back(20);
  };

  for (const Item& item : items) {
    const std::vector<std::uint8_t> data = StoredData(item);
    const std::uint64_t header = HeaderSize(item);
    if (limit != 0 && header + 20 >= limit) throw std::runtime_error("limit too small");
    // A record starts where its header and at least one byte of data fit.
    if (room() < header + (data.empty() ? 0 : 1)) nextVolume();
    std::uint64_t done = 0;
    for (;;) {
      const std::uint64_t part = std::min<std::uint64_t>(data.size() - done, room() - header);
      const bool continued = done + part < data.size();
      const Bytes record = Record(item, data.size(), part, continued);
      auto& v = volumes.back();
      v.insert(v.end(), record.Get().begin(), record.Get().end());
      v.insert(v.end(), data.begin() + static_cast<std::ptrdiff_t>(done),
               data.begin() + static_cast<std::ptrdiff_t>(done + part));
      done += part;
      if (!continued) break;
      nextVolume();
    }
  }
  FinishVolume(volumes.back(), static_cast<unsigned>(volumes.size() - 1), false);
  return volumes;
}

std::string NumberedName(const std::string& hostBase, unsigned number) {
  char ext[8];
  std::snprintf(ext, sizeof ext, ".%03X", number);
  return hostBase + ext;
}

void WriteNumberedVolumes(const std::string& hostBase,
                          const std::vector<std::vector<std::uint8_t>>& volumes) {
  for (size_t i = 0; i < volumes.size(); ++i)
    WriteFile(NumberedName(hostBase, static_cast<unsigned>(i)), volumes[i]);
}

// ---- Volumes read back --------------------------------------------------------------------

std::vector<std::uint8_t> Volume::Data(const CArchiveEntry& entry) const {
  const std::uint64_t at = entry.DataOffset.GetValue();
  const std::uint64_t size = entry.DataSize.GetValue();
  if (at > Bytes.size() || size > Bytes.size() - at) {
    ADD_FAILURE() << "data of " << FullName(entry) << " lies outside the volume";
    return {};
  }
  return std::vector<std::uint8_t>(Bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                   Bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
}

Volume ReadVolume(const CString& path) {
  Volume volume;
  CArchiveFile archive;
  EXPECT_EQ(archive.FileName(path.c_str(), nullptr), 1);
  if (!archive.ReadOpen()) {
    ADD_FAILURE() << "cannot open " << N(path) << ": error " << archive.GetErrorCode();
    return volume;
  }
  volume.Number = archive.GetDiskNo();
  volume.Continues = archive.IsContinue() != 0;
  volume.ArchiveSize = archive.GetArchiveSize().GetValue();
  CArchiveEntry entry;
  CArchiveFindFile* find = archive.FindFirst(entry);
  if (find != nullptr) {
    do {
      volume.Entries.push_back(entry);
    } while (archive.FindNext(find, entry));
    archive.FindClose(find);
  }
  EXPECT_EQ(archive.GetErrorCode(), ERROR_HANDLE_EOF) << "walk of " << N(path);
  archive.Close();
  volume.Bytes = ReadFile(talvern::WindowsPathToHost(path.c_str()));
  return volume;
}

namespace {

// Opens the expansion driver to the tests.
class Expander : public CArchiveFile {
public:
  int Run(DWORD& error, const CArchiveEntry& entry, const WCHAR* target, const WCHAR* source) {
    return ExecExpand(error, nullptr, nullptr, nullptr, entry, CArchiveSize(), target, source,
                      entry.CompressType & 0x7FFFFFFFu, entry.Crc);
  }
};

} // namespace

bool Expand(const std::vector<std::uint8_t>& stored, const CArchiveEntry& entry,
            std::vector<std::uint8_t>& out, DWORD& error) {
  TempDir dir;
  WriteFile(dir.Host("stored"), stored);
  Expander expander;
  error = ERROR_SUCCESS;
  const int ok = expander.Run(error, entry, dir.Win("expanded").c_str(), dir.Win("stored").c_str());
  out = ReadFile(dir.Host("expanded"));
  return ok != 0;
}

void SetName(CArchiveEntry& entry, const CString& name) {
  std::fill(std::begin(entry.FindData.cFileName), std::end(entry.FindData.cFileName), u'\0');
  std::copy(name.begin(), name.end(), entry.FindData.cFileName);
}

std::string FullName(const CArchiveEntry& entry) {
  const std::string name = N(entry.FindData.cFileName);
  return entry.Path.empty() ? name : N(entry.Path) + "\\" + name;
}

std::vector<std::string> Names(const std::vector<CArchiveEntry>& entries) {
  std::vector<std::string> names;
  for (const auto& e : entries) names.push_back(FullName(e));
  return names;
}

// ---- Host trees ---------------------------------------------------------------------------

std::vector<std::string> ListTree(const std::string& hostDir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(hostDir, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    names.push_back(fs::relative(it->path(), hostDir).generic_string());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> FolderContents(const std::string& hostDir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(hostDir, ec))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

namespace {

// Each item of a tree looked up as the walk reaches it, which is before the
// walk lists a folder: listing a folder sets its last-access time.
std::map<std::string, WIN32_FIND_DATAW> LookTree(const std::string& hostDir) {
  std::map<std::string, WIN32_FIND_DATAW> items;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(hostDir, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    items[fs::relative(it->path(), hostDir).generic_string()] = Look(it->path().string());
  return items;
}

} // namespace

std::string CompareTrees(const std::string& expectedHost, const std::string& actualHost,
                         bool metadata) {
  const auto expected = LookTree(expectedHost);
  const auto actual = LookTree(actualHost);
  std::vector<std::string> expectedNames, actualNames;
  for (const auto& item : expected) expectedNames.push_back(item.first);
  for (const auto& item : actual) actualNames.push_back(item.first);
  if (expectedNames != actualNames) {
    std::string message = "names differ; expected:";
    for (const auto& n : expectedNames) message += " " + n;
    message += "; actual:";
    for (const auto& n : actualNames) message += " " + n;
    return message;
  }
  for (const auto& [name, de] : expected) {
    const WIN32_FIND_DATAW& da = actual.at(name);
    const std::string e = expectedHost + "/" + name, a = actualHost + "/" + name;
    const bool isDir = fs::is_directory(e);
    if (isDir != fs::is_directory(a)) return name + ": kind";
    if (!isDir && ReadFile(e) != ReadFile(a)) return name + ": contents";
    if (!metadata) continue;
    if (de.cFileName[0] == 0 || da.cFileName[0] == 0) return name + ": cannot be looked up";
    if (de.dwFileAttributes != da.dwFileAttributes)
      return name + ": attributes " + std::to_string(de.dwFileAttributes) + " vs " +
             std::to_string(da.dwFileAttributes);
    if (FileTimeValue(de.ftCreationTime) != FileTimeValue(da.ftCreationTime))
      return name + ": creation time";
    if (FileTimeValue(de.ftLastWriteTime) != FileTimeValue(da.ftLastWriteTime))
      return name + ": last-write time";
    if (FileTimeValue(de.ftLastAccessTime) != FileTimeValue(da.ftLastAccessTime))
      return name + ": last-access time";
  }
  return std::string();
}

namespace {

// The variable that names the temporary folder: GetTempPathW reads TMP first
// on Windows, the platform layer reads TMPDIR.
#if defined(_WIN32)
constexpr const char* kTempVariable = "TMP";
#else
constexpr const char* kTempVariable = "TMPDIR";
#endif

void SetTemporaryFolderVariable(const char* value) {
#if defined(_WIN32)
  _putenv_s(kTempVariable, value ? value : ""); // "" removes it
#else
  if (value)
    setenv(kTempVariable, value, 1);
  else
    unsetenv(kTempVariable);
#endif
}

} // namespace

ScopedTemporaryFolder::ScopedTemporaryFolder(const std::string& hostDir) {
  const char* previous = std::getenv(kTempVariable);
  hadValue_ = previous != nullptr;
  if (hadValue_) previous_ = previous;
  fs::create_directories(hostDir);
  SetTemporaryFolderVariable(hostDir.c_str());
}

ScopedTemporaryFolder::~ScopedTemporaryFolder() {
  SetTemporaryFolderVariable(hadValue_ ? previous_.c_str() : nullptr);
}

} // namespace test
