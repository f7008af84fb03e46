// The C interface: handles, entry lists, extraction, creation and the
// one-shot functions over the C++ archive object. Nothing thrown inside
// leaves a function: every entry point turns it into an error code.
#include <talvern/talvern_c.h>

#include "capi/capi_glob.h"
#include "capi/capi_host.h"

#include <talvern/talvern.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

// What an open archive holds is named outside an anonymous namespace, since
// the archive's own type (declared in the C header) keeps it.
namespace talvern::capi {

// Bit of an entry's CompressType: its data goes on in the next volume.
constexpr DWORD kContinuedBit = 0x80000000u;

// The separator of Windows paths as a WCHAR (char16_t or wchar_t).
constexpr WCHAR kSep = static_cast<WCHAR>('\\');

// One entry of an open archive: the C view and the strings it points to.
struct EntryRecord {
  std::string path, name, folder;
  CString relative; // "FOLDER\NAME" as stored
  CString key;      // the same, upper-cased
  bool isDirectory = false;
  talvern_entry view{};
};

// Turns whatever escaped from the library's C++ side into a code.
template <typename F> std::uint32_t Guard(F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint64_t TimeValue(const FILETIME& time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// Creates a folder with every missing level above it.
DWORD CreateFolders(const Host& host, const CString& full) {
  const std::size_t start = host.GetRootPath(full.c_str()).size();
  for (std::size_t at = full.find(u'\\', start);; at = full.find(u'\\', at + 1)) {
    const CString level = full.substr(0, at);
    if (!CreateDirectoryW(level.c_str(), nullptr)) {
      const DWORD code = GetLastError();
      const DWORD attributes = GetFileAttributesW(level.c_str());
      if (attributes == INVALID_FILE_ATTRIBUTES) return code != 0 ? code : ERROR_PATH_NOT_FOUND;
      if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_DIRECTORY;
    }
    if (at == CString::npos) return 0;
  }
}

// A library path made absolute; empty (with the last error) when the host
// path cannot be expressed.
CString FullPath(const Host& host, const char* path) {
  const CString library = talvern::capi::ToLibrary(path);
  if (library.empty()) return library;
  return host.GetFullPath(library.c_str());
}

DWORD LastErrorOr(DWORD fallback) {
  const DWORD code = GetLastError();
  return code != ERROR_SUCCESS ? code : fallback;
}

// A new empty folder below the system's temporary folder, removed with
// everything in it when the object goes.
class TempFolder {
public:
  DWORD Create() {
    std::error_code error;
    const std::filesystem::path base = std::filesystem::temp_directory_path(error);
    if (error) return ERROR_PATH_NOT_FOUND;
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
      const std::filesystem::path candidate = base / ("talvern-" + std::to_string(random()));
      if (std::filesystem::create_directory(candidate, error)) {
        path_ = candidate;
        return 0;
      }
    }
    return ERROR_CANNOT_MAKE;
  }
  ~TempFolder() {
    std::error_code error;
    if (!path_.empty()) std::filesystem::remove_all(path_, error);
  }
  std::string Utf8() const {
    const std::u8string text = path_.u8string();
    return std::string(text.begin(), text.end());
  }

private:
  std::filesystem::path path_;
};

// Adds up the bytes of the files below a folder, for the progress total.
// Folders reached through links are not entered, as adding does not.
std::uint64_t CountTree(const CString& folder) {
  std::uint64_t total = 0;
  WIN32_FIND_DATAW data{};
  const CString pattern = folder + WTEXT("\\*.*");
  const HANDLE find = FindFirstFileW(pattern.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  do {
    const WCHAR* name = data.cFileName;
    if (name[0] == u'.' && (name[1] == 0 || (name[1] == u'.' && name[2] == 0))) continue;
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
      total += (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    else if (!(data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      total += CountTree(folder + kSep + name);
  } while (FindNextFileW(find, &data));
  FindClose(find);
  return total;
}

// One item to add under its own name: its folder and its find data.
struct Item {
  CString folder;
  CString name;
  bool isDirectory = false;
  std::uint64_t bytes = 0;
};

DWORD MakeItem(const Host& host, const char* path, Item& item) {
  if (path == nullptr) return ERROR_INVALID_PARAMETER;
  CString full = FullPath(host, path);
  while (full.size() > 3 && full.back() == u'\\') full.pop_back();
  const std::size_t at = full.find_last_of(u'\\');
  if (full.empty() || at == CString::npos || at + 1 == full.size())
    return LastErrorOr(ERROR_INVALID_NAME);
  item.folder = full.substr(0, at);
  item.name = full.substr(at + 1);
  if (item.name.size() >= MAX_PATH) return ERROR_FILENAME_EXCED_RANGE;
  WIN32_FIND_DATAW data{};
  const HANDLE find = FindFirstFileW(full.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return LastErrorOr(ERROR_FILE_NOT_FOUND);
  FindClose(find);
  item.isDirectory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  item.bytes = item.isDirectory
                   ? CountTree(full)
                   : (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  return 0;
}

// An entry that names one item for Compress: its name, nothing else.
CArchiveEntry NamedEntry(const CString& name) {
  CArchiveEntry entry;
  name.copy(entry.FindData.cFileName, name.size());
  return entry;
}

constexpr CArchiveFile::CAttrFlags kAttr = CArchiveFile::AttrNoSecurity;
constexpr CArchiveFile::CSrchFlags kNoFlags = static_cast<CArchiveFile::CSrchFlags>(0);

// The limit that turns on numbered volumes without capping them.
const CArchiveSize kNoCap(0xFFFFFFFFull);

} // namespace talvern::capi

using namespace talvern::capi;

// An open archive: its name, the callbacks and the list of its entries.
struct talvern_archive {
  explicit talvern_archive(const talvern_callbacks* callbacks) : host(callbacks) {}
  Host host;
  ArchiveName name;
  std::vector<EntryRecord> entries;
  std::string failed;

  int Name() { return host.FileName(name.path.c_str(), name.numbered ? &kNoCap : nullptr); }
  DWORD Fail() {
    const DWORD code = host.FailureCode();
    failed = host.FailedName();
    if (host.IsOpen()) host.Close();
    host.ClearError();
    return code;
  }
  DWORD ReadEntries();
  DWORD Expand(const CString& target, const std::vector<bool>& selected, bool test,
               CArchiveFile::CAttrFlags attr);
};

// Walks the records of every volume in order. The continuation record of
// an entry split across volumes is the rest of that entry, not one of its
// own.
DWORD talvern_archive::ReadEntries() {
  if (!Name()) return LastErrorOr(ERROR_PATH_BUSY);
  host.BeginJob(0);
  CArchiveEntry entry;
  if (!host.OpenFirstVolume(entry)) return Fail();
  // The search handle is closed on every way out.
  struct Search {
    Host& host;
    CArchiveFindFile* find;
    ~Search() {
      if (find != nullptr) host.FindClose(find);
    }
    CArchiveFindFile* get() const { return find; }
  } find{host, host.FindCreate()};
  if (find.get() == nullptr) return Fail();
  CArchiveEntry last;
  while (true) {
    if (host.FindNext(find.get(), entry)) {
      last = entry;
      EntryRecord record;
      record.path = talvern::capi::EntryName(entry.Path, entry.FindData.cFileName);
      record.name = talvern::ToUtf8(entry.FindData.cFileName);
      record.folder = talvern::capi::EntryName(CString(), entry.Path.c_str());
      record.relative = entry.Path.empty() ? CString() : entry.Path + kSep;
      record.relative += entry.FindData.cFileName;
      record.key = talvern::capi::EntryKey(entry.Path, entry.FindData.cFileName);
      record.isDirectory = talvern::capi::IsDirectory(entry);
      talvern_entry& v = record.view;
      v.size = talvern::capi::EntrySize(entry);
      v.packed_size = entry.PackedSize.GetValue();
      v.method = entry.CompressType & 0x7FFFFFFFu;
      v.crc = entry.Crc;
      v.attributes = entry.FindData.dwFileAttributes;
      v.is_dir = record.isDirectory ? 1 : 0;
      v.creation_time = TimeValue(entry.FindData.ftCreationTime);
      v.last_access_time = TimeValue(entry.FindData.ftLastAccessTime);
      v.last_write_time = TimeValue(entry.FindData.ftLastWriteTime);
      v.volume = host.GetDiskNo();
      entries.push_back(std::move(record));
      continue;
    }
    if (host.GetErrorCode() != ERROR_HANDLE_EOF) return Fail();
    host.ClearError();
    if (!host.IsContinue()) break;
    const bool continued = (last.CompressType & kContinuedBit) != 0;
    CArchiveEntry first = last;
    if (!host.OpenNextVolume(first)) return Fail();
    const CArchiveOffset start(0);
    if (!(continued ? host.FindSetPos(find.get(), first) : host.FindSetPos(find.get(), &start)))
      return Fail();
    last = first;
  }
  host.FindClose(find.find);
  find.find = nullptr;
  host.Close();
  host.ClearError();
  for (EntryRecord& record : entries) {
    record.view.path = record.path.c_str();
    record.view.name = record.name.c_str();
    record.view.folder = record.folder.c_str();
  }
  return 0;
}

// Extracts (or tests) the selected entries: the selected folders bring
// what lies below them, and the folders above a selected entry are
// created.
DWORD talvern_archive::Expand(const CString& target, const std::vector<bool>& selected, bool test,
                              CArchiveFile::CAttrFlags attr) {
  std::uint64_t total = 0;
  std::unordered_set<CString> files, folders;
  bool all = true;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const EntryRecord& record = entries[i];
    bool take = selected.empty() || selected[i];
    // Below a selected folder?
    if (!take) {
      for (std::size_t at = record.key.find_last_of(u'\\'); at != CString::npos && !take;
           at = at == 0 ? CString::npos : record.key.find_last_of(u'\\', at - 1))
        take = folders.count(record.key.substr(0, at)) != 0;
    }
    if (!take) {
      all = false;
      continue;
    }
    files.insert(record.key);
    if (record.isDirectory) folders.insert(record.key);
    if (!record.isDirectory) total += record.view.size;
  }
  // The folders on the way to every selected entry.
  std::unordered_set<CString> above;
  for (const CString& key : files)
    for (std::size_t at = key.find_last_of(u'\\'); at != CString::npos;
         at = at == 0 ? CString::npos : key.find_last_of(u'\\', at - 1))
      above.insert(key.substr(0, at));
  if (all)
    host.SelectAll();
  else
    host.Select(std::move(files), std::move(above));
  host.SetTestOnly(test ? 1 : 0);
  if (!Name()) return LastErrorOr(ERROR_PATH_BUSY);
  host.BeginJob(total);
  failed.clear();
  const int ok = host.ExpandAll(target.c_str(), CArchiveFile::SrchNoFirstPrompt, attr | kAttr);
  host.EndJob(ok != 0);
  host.SetTestOnly(0);
  host.SelectAll();
  if (!ok) return Fail();
  if (host.IsOpen() && !host.Close()) return Fail();
  return 0;
}

// The functions keep the C linkage their declarations give them.

const char* talvern_version(void) { return TALVERN_VERSION_STRING; }

void talvern_free(void* block) { std::free(block); }

uint32_t talvern_open(const char* path, const talvern_callbacks* callbacks,
                      talvern_archive** archive) {
  if (archive == nullptr) return ERROR_INVALID_PARAMETER;
  *archive = nullptr;
  if (path == nullptr) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    auto handle = std::make_unique<talvern_archive>(nullptr);
    if (const DWORD code = handle->host.SetCallbacks(callbacks)) return code;
    const CString full = FullPath(handle->host, path);
    if (full.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    if (const DWORD code = talvern::capi::LocateArchive(full, handle->name)) return code;
    if (const DWORD code = handle->ReadEntries()) return code;
    *archive = handle.release();
    return 0;
  });
}

void talvern_close(talvern_archive* archive) { delete archive; }

uint32_t talvern_set_callbacks(talvern_archive* archive, const talvern_callbacks* callbacks) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  return archive->host.SetCallbacks(callbacks);
}

uint32_t talvern_entry_count(const talvern_archive* archive, size_t* count) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  if (count == nullptr) return ERROR_INVALID_PARAMETER;
  *count = archive->entries.size();
  return 0;
}

uint32_t talvern_entry_at(const talvern_archive* archive, size_t index,
                          const talvern_entry** entry) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  if (entry == nullptr || index >= archive->entries.size()) return ERROR_INVALID_PARAMETER;
  *entry = &archive->entries[index].view;
  return 0;
}

namespace {

// Index of the last entry named path, or entries.size().
std::size_t FindEntry(const talvern_archive& archive, const char* path) {
  std::string name = path;
  std::replace(name.begin(), name.end(), '/', '\\');
  while (!name.empty() && name.back() == '\\') name.pop_back();
  CString key = talvern::FromUtf8(name);
  if (!key.empty()) CharUpperW(key.data());
  for (std::size_t i = archive.entries.size(); i-- > 0;)
    if (archive.entries[i].key == key) return i;
  return archive.entries.size();
}

} // namespace

uint32_t talvern_find(const talvern_archive* archive, const char* path,
                      const talvern_entry** entry) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  if (path == nullptr || entry == nullptr) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    *entry = nullptr;
    const std::size_t index = FindEntry(*archive, path);
    if (index == archive->entries.size()) return ERROR_FILE_NOT_FOUND;
    *entry = &archive->entries[index].view;
    return 0;
  });
}

uint32_t talvern_test(talvern_archive* archive) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  return Guard([&]() -> std::uint32_t {
    // Testing creates nothing: any existing folder serves as the target.
    TempFolder scratch;
    if (const DWORD code = scratch.Create()) return code;
    const CString target = talvern::capi::ToLibrary(scratch.Utf8().c_str());
    return archive->Expand(target, {}, true, static_cast<CArchiveFile::CAttrFlags>(0));
  });
}

uint32_t talvern_extract(talvern_archive* archive, const char* target, const char* const* select,
                         size_t count, uint32_t flags) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  if (target == nullptr || (count != 0 && select == nullptr)) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    archive->failed.clear();
    std::vector<bool> selected;
    if (count != 0) {
      selected.assign(archive->entries.size(), false);
      for (std::size_t s = 0; s < count; ++s) {
        if (select[s] == nullptr) return ERROR_INVALID_PARAMETER;
        bool hit = false;
        if (flags & TALVERN_EXTRACT_NAMES) {
          const std::size_t index = FindEntry(*archive, select[s]);
          hit = index < archive->entries.size();
          if (hit) selected[index] = true;
        } else {
          const talvern::capi::Pattern pattern(select[s]);
          for (std::size_t i = 0; i < archive->entries.size(); ++i) {
            const talvern_entry& v = archive->entries[i].view;
            if (pattern.Matches(v.path, v.name)) {
              selected[i] = true;
              hit = true;
            }
          }
        }
        if (!hit) {
          archive->failed = select[s];
          return ERROR_FILE_NOT_FOUND;
        }
      }
    }
    const CString full = FullPath(archive->host, target);
    if (full.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    if (const DWORD code = CreateFolders(archive->host, full)) return code;
    CArchiveFile::CAttrFlags attr = static_cast<CArchiveFile::CAttrFlags>(0);
    if (flags & TALVERN_EXTRACT_FLAT) attr = attr | CArchiveFile::AttrNoPath;
    if (flags & TALVERN_EXTRACT_NO_TIMES) attr = attr | CArchiveFile::AttrNoTimes;
    return archive->Expand(full, selected, false, attr);
  });
}

uint32_t talvern_read(talvern_archive* archive, const char* path, void** data, size_t* size) {
  if (archive == nullptr) return ERROR_INVALID_HANDLE;
  if (path == nullptr || data == nullptr || size == nullptr) return ERROR_INVALID_PARAMETER;
  *data = nullptr;
  *size = 0;
  return Guard([&]() -> std::uint32_t {
    archive->failed.clear();
    const std::size_t index = FindEntry(*archive, path);
    if (index == archive->entries.size()) {
      archive->failed = path;
      return ERROR_FILE_NOT_FOUND;
    }
    const EntryRecord& record = archive->entries[index];
    if (record.isDirectory) {
      archive->failed = record.path;
      return ERROR_DIRECTORY;
    }
    // The entry goes to a folder of its own, keeping its folders, so that
    // no other item can stand where it lands.
    TempFolder scratch;
    if (const DWORD code = scratch.Create()) return code;
    const CString target = talvern::capi::ToLibrary(scratch.Utf8().c_str());
    std::vector<bool> selected(archive->entries.size(), false);
    selected[index] = true;
    if (const DWORD code = archive->Expand(target, selected, false, CArchiveFile::AttrNoTimes))
      return code;
    const CString output = target + kSep + record.relative;
    const HANDLE file = CreateFileW(output.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return LastErrorOr(ERROR_FILE_NOT_FOUND);
    const std::uint64_t bytes = record.view.size;
    void* block = bytes < SIZE_MAX ? std::malloc(static_cast<std::size_t>(bytes) + 1) : nullptr;
    DWORD code = block == nullptr ? ERROR_NOT_ENOUGH_MEMORY : 0;
    for (std::uint64_t done = 0; code == 0 && done < bytes;) {
      const DWORD chunk = static_cast<DWORD>(std::min<std::uint64_t>(bytes - done, 1u << 30));
      DWORD read = 0;
      if (!ReadFile(file, static_cast<char*>(block) + done, chunk, &read, nullptr))
        code = LastErrorOr(ERROR_READ_FAULT);
      else if (read == 0)
        code = ERROR_READ_FAULT;
      done += read;
    }
    CloseHandle(file);
    if (code != 0) {
      std::free(block);
      return code;
    }
    *data = block;
    *size = static_cast<std::size_t>(bytes);
    return 0;
  });
}

const char* talvern_failed_name(const talvern_archive* archive) {
  return archive == nullptr ? "" : archive->failed.c_str();
}

// ---- Creating and adding ---------------------------------------------------------------

namespace {

// Names a new archive in the host: refuses an existing one unless asked to
// replace it.
DWORD NameNew(Host& host, const char* archive, uint64_t volumeSize, uint32_t flags, CString& full) {
  if (archive == nullptr) return ERROR_INVALID_PARAMETER;
  if (volumeSize > 0xFFFFFFFEull) return ERROR_INVALID_PARAMETER;
  full = FullPath(host, archive);
  if (full.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
  const bool numbered = volumeSize != 0;
  CString existing = full;
  if (numbered) {
    const std::size_t dot = full.find_last_of(u'.');
    const std::size_t separator = full.find_last_of(u'\\');
    existing =
        (dot != CString::npos && dot > separator ? full.substr(0, dot) : full) + WTEXT(".000");
  }
  const DWORD attributes = GetFileAttributesW(existing.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES) {
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) return ERROR_DIRECTORY;
    if (!(flags & TALVERN_CREATE_REPLACE)) return ERROR_FILE_EXISTS;
  }
  const CArchiveSize limit(volumeSize);
  if (!host.FileName(full.c_str(), numbered ? &limit : nullptr))
    return LastErrorOr(ERROR_PATH_BUSY);
  host.SkipArchive(host.FileName(), numbered);
  host.SetStore((flags & TALVERN_CREATE_STORE) != 0);
  host.SetMode(Host::Mode::Write);
  return 0;
}

// After a failed create: the volumes written are removed. After a create
// that replaced a numbered set: the old set's volumes beyond the new last
// one are removed.
std::uint32_t Finish(Host& host, bool ok, bool numbered) {
  if (host.IsOpen()) {
    if (ok)
      ok = host.Close() != 0;
    else
      host.Close();
  }
  host.EndJob(ok);
  const CString last = host.FileName();
  DWORD lastNumber = 0;
  if (numbered) talvern::capi::VolumeNumberOf(last, lastNumber);
  if (ok) {
    if (numbered) talvern::capi::DeleteVolumes(last, true, lastNumber + 1);
    return 0;
  }
  const DWORD code = host.FailureCode();
  talvern::capi::DeleteVolumes(last, numbered, 0);
  return code;
}

} // namespace

uint32_t talvern_create(const char* archive, const char* tree, uint64_t volume_size, uint32_t flags,
                        const talvern_callbacks* callbacks) {
  if (tree == nullptr) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    Host host(nullptr);
    if (const DWORD code = host.SetCallbacks(callbacks)) return code;
    const CString source = FullPath(host, tree);
    if (source.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    const DWORD attributes = GetFileAttributesW(source.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_DIRECTORY;
    CString full;
    if (const DWORD code = NameNew(host, archive, volume_size, flags, full)) return code;
    host.SetSourceBase(source);
    host.BeginJob(CountTree(source));
    const int ok = host.CompressAll(source.c_str(), CArchiveFile::SrchNoFirstPrompt, kAttr);
    return Finish(host, ok != 0, volume_size != 0);
  });
}

uint32_t talvern_create_from_list(const char* archive, const char* const* paths, size_t count,
                                  uint64_t volume_size, uint32_t flags,
                                  const talvern_callbacks* callbacks) {
  if (paths == nullptr && count != 0) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    Host host(nullptr);
    if (const DWORD code = host.SetCallbacks(callbacks)) return code;
    std::vector<Item> items(count);
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (const DWORD code = MakeItem(host, paths[i], items[i])) return code;
      total += items[i].bytes;
    }
    CString full;
    if (const DWORD code = NameNew(host, archive, volume_size, flags, full)) return code;
    host.BeginJob(total);
    bool ok = host.CreateFirstVolume() && host.IsOpen();
    for (std::size_t i = 0; ok && i < items.size(); ++i) {
      CArchiveEntry entry = NamedEntry(items[i].name);
      host.SetSourceBase(items[i].folder);
      ok = host.Compress(items[i].folder.c_str(), entry, kNoFlags, kAttr) && host.Flush();
    }
    return Finish(host, ok, volume_size != 0);
  });
}

uint32_t talvern_add(const char* archive, const char* const* paths, size_t count, uint32_t flags,
                     const talvern_callbacks* callbacks) {
  if (archive == nullptr || (paths == nullptr && count != 0)) return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    Host host(nullptr);
    if (const DWORD code = host.SetCallbacks(callbacks)) return code;
    const CString path = FullPath(host, archive);
    if (path.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    ArchiveName name;
    if (const DWORD code = talvern::capi::LocateArchive(path, name)) return code;
    std::vector<Item> items(count);
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (const DWORD code = MakeItem(host, paths[i], items[i])) return code;
      total += items[i].bytes;
    }
    if (!host.FileName(name.path.c_str(), name.numbered ? &kNoCap : nullptr))
      return LastErrorOr(ERROR_PATH_BUSY);
    host.SkipArchive(host.FileName(), name.numbered);
    host.SetStore((flags & TALVERN_CREATE_STORE) != 0);
    host.BeginJob(total);
    // Appending happens on the last volume: walk to it.
    CArchiveEntry first;
    bool ok = host.OpenFirstVolume(first) && host.WriteOpen(0, 1);
    while (ok && host.IsContinue()) {
      CArchiveEntry none;
      ok = host.OpenNextVolume(none) != 0;
    }
    // Each item is committed on its own.
    for (std::size_t i = 0; ok && i < items.size(); ++i) {
      CArchiveEntry entry = NamedEntry(items[i].name);
      host.SetSourceBase(items[i].folder);
      ok = host.Compress(items[i].folder.c_str(), entry, kNoFlags, kAttr) && host.Flush();
    }
    if (ok && host.IsOpen()) ok = host.Close() != 0;
    host.EndJob(ok);
    if (ok) return 0;
    const DWORD code = host.FailureCode();
    if (host.IsOpen()) host.Close();
    return code;
  });
}

// ---- One-shot blocks -------------------------------------------------------------------

uint32_t talvern_file_open(const char* path, int mode, talvern_file** file) {
  if (file == nullptr) return ERROR_INVALID_PARAMETER;
  *file = nullptr;
  if (path == nullptr || (mode != TALVERN_FILE_READ && mode != TALVERN_FILE_WRITE))
    return ERROR_INVALID_PARAMETER;
  return Guard([&]() -> std::uint32_t {
    const CString library = talvern::capi::ToLibrary(path);
    if (library.empty()) return LastErrorOr(ERROR_PATH_NOT_FOUND);
    const bool write = mode == TALVERN_FILE_WRITE;
    const HANDLE handle =
        CreateFileW(library.c_str(), GENERIC_READ | (write ? GENERIC_WRITE : 0), FILE_SHARE_READ,
                    nullptr, write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return LastErrorOr(ERROR_OPEN_FAILED);
    *file = reinterpret_cast<talvern_file*>(handle);
    return 0;
  });
}

uint32_t talvern_file_close(talvern_file* file) {
  if (file == nullptr) return ERROR_INVALID_HANDLE;
  return CloseHandle(reinterpret_cast<HANDLE>(file)) ? 0 : LastErrorOr(ERROR_INVALID_HANDLE);
}

namespace {

// A file argument: a NULL destination asks for the size only.
void* FileArgument(talvern_file* file) {
  return file == nullptr ? static_cast<void*>(INVALID_HANDLE_VALUE) : static_cast<void*>(file);
}

template <typename F> std::uint32_t OneShot(uint32_t* resultSize, F&& call) {
  return Guard([&]() -> std::uint32_t {
    DWORD error = 0;
    DWORD size = 0;
    const int ok = call(&error, &size);
    if (resultSize != nullptr) *resultSize = ok ? size : 0;
    if (ok) return 0;
    return error != 0 ? error : ERROR_GEN_FAILURE;
  });
}

} // namespace

uint32_t talvern_compress_mem_to_mem(const void* source, uint32_t source_size, void* destination,
                                     uint32_t destination_size, uint32_t method,
                                     uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetCompressMemToMem(source, source_size, e, r, destination, destination_size, method);
  });
}

uint32_t talvern_expand_mem_to_mem(const void* source, uint32_t source_size, void* destination,
                                   uint32_t destination_size, uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetExpandMemToMem(source, source_size, e, r, destination, destination_size);
  });
}

uint32_t talvern_compress_file_to_mem(talvern_file* source, uint32_t source_size, void* destination,
                                      uint32_t destination_size, uint32_t method,
                                      uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetCompressFileToMem(FileArgument(source), source_size, e, r, destination,
                                destination_size, method);
  });
}

uint32_t talvern_expand_mem_to_file(const void* source, uint32_t source_size,
                                    talvern_file* destination, uint32_t destination_size,
                                    uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetExpandMemToFile(source, source_size, e, r, FileArgument(destination),
                              destination_size);
  });
}

uint32_t talvern_compress_mem_to_file(const void* source, uint32_t source_size,
                                      talvern_file* destination, uint32_t destination_size,
                                      uint32_t method, uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetCompressMemToFile(source, source_size, e, r, FileArgument(destination),
                                destination_size, method);
  });
}

uint32_t talvern_expand_file_to_mem(talvern_file* source, uint32_t source_size, void* destination,
                                    uint32_t destination_size, uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetExpandFileToMem(FileArgument(source), source_size, e, r, destination,
                              destination_size);
  });
}

uint32_t talvern_compress_file_to_file(talvern_file* source, uint32_t source_size,
                                       talvern_file* destination, uint32_t destination_size,
                                       uint32_t method, uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetCompressFileToFile(FileArgument(source), source_size, e, r, FileArgument(destination),
                                 destination_size, method);
  });
}

uint32_t talvern_expand_file_to_file(talvern_file* source, uint32_t source_size,
                                     talvern_file* destination, uint32_t destination_size,
                                     uint32_t* result_size) {
  return OneShot(result_size, [&](DWORD* e, DWORD* r) {
    return GetExpandFileToFile(FileArgument(source), source_size, e, r, FileArgument(destination),
                               destination_size);
  });
}
