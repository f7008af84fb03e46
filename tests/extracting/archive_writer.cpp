#include "archive_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace xt {

namespace {

void Put16(std::vector<std::uint8_t>& out, std::uint32_t v) {
  out.push_back(static_cast<std::uint8_t>(v));
  out.push_back(static_cast<std::uint8_t>(v >> 8));
}
void Put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void Put64(std::vector<std::uint8_t>& out, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void PutString(std::vector<std::uint8_t>& out, const CString& s) {
  Put16(out, static_cast<std::uint32_t>(s.size()));
  for (WCHAR c : s) Put16(out, c);
}

std::uint64_t HeaderSize(const Item& item) {
  return 72 + 2 * item.Path.size() + 2 * item.Name.size() + item.Security.size();
}

// One record header; the data part (dataSize bytes) follows it.
std::vector<std::uint8_t> Record(const Item& item, std::uint64_t packed, std::uint64_t dataSize,
                                 bool continued) {
  std::vector<std::uint8_t> out;
  const std::uint64_t size = item.IsDirectory() ? 0 : item.Contents.size();
  DWORD crc = item.IsDirectory() ? 0 : Crc32(item.Contents);
  if (item.CorruptCrc) crc ^= 0x00010000u;
  Put32(out, static_cast<std::uint32_t>(HeaderSize(item)));
  Put32(out, item.Method | (continued ? 0x80000000u : 0));
  Put32(out, crc);
  Put32(out, item.Attributes);
  Put64(out, item.Creation);
  Put64(out, item.LastAccess);
  Put64(out, item.LastWrite);
  Put32(out, static_cast<std::uint32_t>(size));
  Put32(out, static_cast<std::uint32_t>(size >> 32));
  Put64(out, packed);
  Put64(out, dataSize);
  PutString(out, item.Path);
  PutString(out, item.Name);
  Put32(out, static_cast<std::uint32_t>(item.Security.size()));
  out.insert(out.end(), item.Security.begin(), item.Security.end());
  return out;
}

void FinishVolume(std::vector<std::uint8_t>& volume, unsigned number, bool continues) {
  std::vector<std::uint8_t> header;
  const char magic[] = "ArchFile";
  header.insert(header.end(), magic, magic + 8);
  header.push_back(0x1A);
  header.push_back(0);
  Put16(header, number | (continues ? 0x8000u : 0));
  Put64(header, volume.size());
  std::copy(header.begin(), header.end(), volume.begin());
}

} // namespace

Item File(const std::string& path, const std::string& name,
          const std::vector<std::uint8_t>& contents, DWORD method) {
  Item item;
  item.Path = test::W(path);
  item.Name = test::W(name);
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
  item.Path = test::W(path);
  item.Name = test::W(name);
  item.Attributes = FILE_ATTRIBUTE_DIRECTORY;
  return item;
}

DWORD Crc32(const std::vector<std::uint8_t>& data) {
  DWORD crc = 0;
  for (std::uint8_t b : data) {
    crc ^= b;
    for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc;
}

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
      const auto record = Record(item, data.size(), part, continued);
      auto& v = volumes.back();
      v.insert(v.end(), record.begin(), record.end());
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
    test::WriteFile(NumberedName(hostBase, static_cast<unsigned>(i)), volumes[i]);
}

std::vector<std::string> RealFiles() { return test::CorpusFiles(); }

std::vector<std::string> ListTree(const std::string& hostDir) {
  std::vector<std::string> names;
  if (!fs::exists(hostDir)) return names;
  for (const auto& e : fs::recursive_directory_iterator(hostDir))
    names.push_back(fs::relative(e.path(), hostDir).generic_string());
  std::sort(names.begin(), names.end());
  return names;
}

namespace {

bool FindData(const std::string& host, WIN32_FIND_DATAW& data) {
  const CString win = talvern::HostPathToWindows(host);
  const HANDLE h = FindFirstFileW(win.c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return false;
  ::FindClose(h);
  return true;
}

std::uint64_t Value(const FILETIME& t) {
  return (static_cast<std::uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

} // namespace

std::string CompareTrees(const std::string& expectedHost, const std::string& actualHost) {
  const auto expected = ListTree(expectedHost);
  const auto actual = ListTree(actualHost);
  if (expected != actual) {
    std::string message = "names differ; expected:";
    for (const auto& n : expected) message += " " + n;
    message += "; actual:";
    for (const auto& n : actual) message += " " + n;
    return message;
  }
  for (const auto& name : expected) {
    const std::string e = expectedHost + "/" + name, a = actualHost + "/" + name;
    WIN32_FIND_DATAW de{}, da{};
    if (!FindData(e, de) || !FindData(a, da)) return name + ": cannot be looked up";
    if (de.dwFileAttributes != da.dwFileAttributes)
      return name + ": attributes " + std::to_string(de.dwFileAttributes) + " vs " +
             std::to_string(da.dwFileAttributes);
    if (Value(de.ftCreationTime) != Value(da.ftCreationTime)) return name + ": creation time";
    if (Value(de.ftLastWriteTime) != Value(da.ftLastWriteTime)) return name + ": last-write time";
    if (Value(de.ftLastAccessTime) != Value(da.ftLastAccessTime))
      return name + ": last-access time";
    if (!(de.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && test::ReadFile(e) != test::ReadFile(a))
      return name + ": contents";
  }
  return std::string();
}

// ---- Recorder -------------------------------------------------------------------------------

int Recorder::DiskChangeNotify(const WCHAR*, DWORD diskNo, int forWriting) {
  Calls.push_back("DiskChange " + std::to_string(diskNo) + " " + std::to_string(forWriting));
  return OnMedia ? OnMedia(diskNo, false) : DiskChangeAnswer;
}

int Recorder::InvalidDiskNotify(const WCHAR*, DWORD diskNo, int forWriting, int foreign) {
  Calls.push_back("InvalidDisk " + std::to_string(diskNo) + " " + std::to_string(forWriting) + " " +
                  std::to_string(foreign));
  return OnMedia ? OnMedia(diskNo, true) : InvalidDiskAnswer;
}

CArchiveFile::COverwriteOperation Recorder::OverwriteNotify(const WCHAR*, const WCHAR*,
                                                            const WIN32_FIND_DATAW& existing,
                                                            const WCHAR*, const CArchiveEntry&) {
  Calls.push_back("Overwrite " + test::N(existing.cFileName));
  if (OnOverwrite) OnOverwrite();
  if (OverwriteAnswers.empty()) return OverwriteReplace;
  const DWORD answer = OverwriteAnswers[std::min(overwriteIndex_, OverwriteAnswers.size() - 1)];
  ++overwriteIndex_;
  return static_cast<COverwriteOperation>(answer);
}

int Recorder::ExpandFileNotify(const WCHAR*, const WCHAR*, const WCHAR*,
                               const CArchiveEntry& entry) {
  Calls.push_back("ExpandFile " + test::N(entry.FindData.cFileName));
  return ExpandFileAnswer;
}

int Recorder::ExpandNotify(const WCHAR*, const WCHAR*, const WCHAR*, const CArchiveEntry&,
                           const CArchiveSize&, const CArchiveSize& second) {
  ++ExpandNotifyCalls;
  Progress.push_back(second);
  return CancelAtExpandNotify == ExpandNotifyCalls ? 0 : 1;
}

int Recorder::ExpandStartNotify() {
  Calls.push_back("ExpandStart");
  return 1;
}

void Recorder::ExpandCompleteNotify(int result) {
  Calls.push_back("ExpandComplete " + std::to_string(result));
}

int Recorder::DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                           int first, int noFirstPrompt) {
  ++DiskChangeCalls;
  Calls.push_back("DoDiskChange " + std::to_string(first));
  return CArchiveFile::DoDiskChange(root, entry, otherPath, first, noFirstPrompt);
}

// ---- ScopedTempFolder -------------------------------------------------------------------------

ScopedTempFolder::ScopedTempFolder(const std::string& hostDir) {
  fs::create_directories(hostDir);
  if (const char* p = std::getenv("TMPDIR")) {
    previous_ = p;
    hadPrevious_ = true;
  }
  setenv("TMPDIR", hostDir.c_str(), 1);
}

ScopedTempFolder::~ScopedTempFolder() {
  if (hadPrevious_)
    setenv("TMPDIR", previous_.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

} // namespace xt
