// Extracting whole archives and single entries.
//
// ExpandAll opens the first volume, extracts every entry in archive order and
// closes the archive; Expand takes out one entry found by the search (a
// directory with its whole subtree) and leaves the archive open. Both hand
// the work to DoExpandAll, which extracts one folder level read in order
// through a search handle, and DoExpand, which extracts one entry.
//
// A file's stored data is copied, volume part after volume part, into a
// temporary file; ExecExpand then decodes that file into the output and
// checks size and CRC. Times are set after the contents (for a directory
// after everything inside it), attributes last. An entry that is rejected
// or skipped is still walked through, volume changes included, so that the
// search stays in step with the archive. When an entry fails, what was
// created for it is removed again.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "engine/entry_data.h"
#include "foundation/handles.h"
#include "foundation/paths.h"
#include "operations/extracting_support.h"
#include "operations/item_rules.h"
#include "operations/security.h"
#include "volumes/naming.h"

#include <memory>
#include <new>
#include <vector>

using volume_io::LastErrorOr;

namespace {

constexpr DWORD kCopyLimit = 262144; // largest copy buffer, and largest cluster accepted

// Decodes an entry's stored data, read from `data` starting at `from` (a
// file's position; 0 for memory), into the output, or into nothing when
// `output` is null, with the progress calls and checks of ExecExpand; then
// gives the output its times when they are given. `created` is the output
// when it is open already (just made, empty), else invalid.
bool ExpandDirect(CArchiveFile& archive, const talvern::engine::StoredData& data,
                  std::uint64_t from, const WCHAR* targetDir, const WCHAR* root,
                  const WCHAR* folder, const CArchiveEntry& entry, std::uint64_t passed,
                  const WCHAR* output, DWORD method, const ItemTimes* times, EngineArrays* arrays,
                  ScopedHandle& created) {
  DWORD error = ERROR_SUCCESS;
  bool ok = data.memory != nullptr || volume_io::SeekTo(data.file, from);
  if (!ok) error = LastErrorOr();
  ScopedHandle target(created.Release());
  if (ok && output != nullptr && !target.IsValid()) {
    target.Reset(CreateFileW(output, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!target.IsValid()) {
      error = LastErrorOr();
      ok = false;
    }
  }
  if (ok) {
    const CArchiveSize size(passed);
    const talvern::engine::ProgressTarget progress{&archive, targetDir, root,  folder,
                                                   &entry,   &size,     arrays};
    ok = talvern::engine::ExpandStored(error, progress, data, target.Get(), method, entry.Crc);
  }
  // The times go on while the output is still open, which saves opening
  // it again; nothing is written after them.
  if (ok && times != nullptr && target.IsValid() &&
      !SetFileTime(target.Get(), &times->Creation, &times->LastAccess, &times->LastWrite)) {
    error = LastErrorOr();
    ok = false;
  }
  if (!target.Close() && ok) {
    error = LastErrorOr();
    ok = false;
  }
  if (ok) return true;
  // A cancellation replaces whatever was latched before it.
  if (error == ERROR_CANCELLED) archive.ClearError();
  archive.SetErrorCode(error);
  return false;
}

bool IsDirectoryEntry(const CArchiveEntry& entry) {
  return (entry.FindData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Creates the directory with all missing levels below its root.
bool CreateTree(const CString& path) {
  const CString root = BuildRootPath(path.c_str());
  if (root.empty()) return false;
  return CreateDirectoryTree(root.c_str(), path.c_str(), 1) != 0;
}

// A search handle at the first record of the open volume: null with 6 when
// no volume is open, with 14 when there is no memory for it.
std::unique_ptr<CArchiveFindFile> NewSearch(CArchiveFile& archive) {
  if (!archive.IsOpen()) {
    archive.SetErrorCode(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  std::unique_ptr<CArchiveFindFile> find(new (std::nothrow) CArchiveFindFile());
  if (!find) archive.SetErrorCode(ERROR_OUTOFMEMORY);
  return find;
}

// Lends a rebuilt descriptor to the entry's security block for one call and
// puts the stored bytes back afterwards.
class LentDescriptor {
public:
  LentDescriptor(CArchiveEntry& entry, BYTE* descriptor) : security_(entry.Security) {
    if (security_ != nullptr) {
      saved_ = security_->Data;
      security_->Data = descriptor;
    }
  }
  LentDescriptor(const LentDescriptor&) = delete;
  LentDescriptor& operator=(const LentDescriptor&) = delete;
  ~LentDescriptor() {
    if (security_ != nullptr) security_->Data = saved_;
  }

private:
  CArchiveSecurity* security_;
  BYTE* saved_ = nullptr;
};

// The absolute descriptor to create an output with, from the entry's stored
// bytes; null when there are none, the option is off, or the bytes are not a
// usable descriptor (the output then gets the default security of its
// folder: damaged security data never fails an extraction).
std::unique_ptr<BYTE[]> PrepareDescriptor(const CArchiveEntry& entry, bool restoreSecurity) {
  const CArchiveSecurity* s = entry.Security;
  if (!restoreSecurity || s == nullptr || s->Length == 0 || s->Data == nullptr) return nullptr;
  return BuildAbsoluteSecurityDescriptor(s->Data, s->Length);
}

} // namespace

// ---- Public operations --------------------------------------------------------------

int CArchiveFile::ExpandAll(const WCHAR* targetDir, CSrchFlags srch, CAttrFlags attr) {
  CArchiveEntry entry;
  const int noFirstPrompt = (srch & SrchNoFirstPrompt) ? 1 : 0;
  srch = srch & ~SrchNoFirstPrompt;

  CString target, root;
  if (!PrepareExtractionPaths(targetDir, m_Data->ArchiveName, target, root) || IsBusy()) {
    SetErrorCode(ERROR_PATH_BUSY);
    return 0;
  }
  ClearError();

  const auto run = [&]() -> int {
    if (!ExpandStartNotify()) {
      SetAbort();
      return 0;
    }
    entry.Clear();
    if (!DoDiskChange(root.c_str(), entry, nullptr, 1, noFirstPrompt)) return 0;
    const std::unique_ptr<CArchiveFindFile> find = NewSearch(*this);
    if (!find) return 0;
    if (!CreateTree(target)) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    entry.Clear();
    m_Data->Flags |= FlagBusy;
    const int done = DoExpandAll(target.c_str(), root.c_str(), entry, srch, attr, find.get(), 0);
    m_Data->Flags &= ~FlagBusy;
    return done;
  };

  int result = run();
  if (IsOpen()) {
    if (result)
      result = Close();
    else
      Close();
  }
  ExpandCompleteNotify(result);
  return result;
}

int CArchiveFile::Expand(const WCHAR* targetDir, CArchiveEntry& entry, CSrchFlags srch,
                         CAttrFlags attr) {
  const auto run = [&]() -> int {
    ClearError();
    const bool busy = IsBusy() != 0;
    if (busy) SetErrorCode(ERROR_PATH_BUSY);
    if (!ExpandStartNotify()) {
      SetAbort();
      return 0;
    }
    if (busy) return 0;
    if (targetDir == nullptr || !IsReadable()) {
      SetErrorCode(ERROR_ACCESS_DENIED);
      return 0;
    }
    if (entry.DataOffset.GetValue() == 0) {
      SetErrorCode(ERROR_SEEK_ON_DEVICE);
      return 0;
    }
    CString target, root;
    if (!PrepareExtractionPaths(targetDir, m_Data->ArchiveName, target, root)) {
      SetErrorCode(ERROR_PATH_BUSY);
      return 0;
    }
    const std::unique_ptr<CArchiveFindFile> find = NewSearch(*this);
    if (!find || !FindSetPos(find.get(), entry)) return 0;
    // The entry's folder is created below the target whatever the
    // keep-folder option says, so it must not climb out of it.
    if (!IsContainedFolder(entry.Path)) {
      SetErrorCode(ERROR_BAD_PATHNAME);
      return 0;
    }
    if (!CreateTree(target) ||
        (!entry.Path.empty() &&
         !CreateTree(JoinItemPath(target.c_str(), CString(), entry.Path.c_str())))) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
    m_Data->Flags |= FlagBusy;
    const int done = DoExpand(target.c_str(), root.c_str(), entry, srch, attr, find.get(), 0);
    m_Data->Flags &= ~FlagBusy;
    return done;
  };

  const int result = run();
  ExpandCompleteNotify(result);
  return result;
}

// ---- One folder level ---------------------------------------------------------------------

int CArchiveFile::DoExpandAll(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry,
                              CSrchFlags srch, CAttrFlags attr, CArchiveFindFile* find, int skip) {
  if (find == nullptr) {
    SetErrorCode(ERROR_INVALID_HANDLE);
    return 0;
  }
  const CString prefix = entry.Path;
  CArchiveEntry next;
  for (;;) {
    // Where the next record starts, so that a record of another level can
    // be left for the caller to read again.
    const CArchiveOffset remembered = FindGetPos(find);

    if (!FindNext(find, next)) {
      const DWORD error = GetErrorCode();
      if (!IsContinue()) {
        if (error != ERROR_HANDLE_EOF) return 0;
        ClearError();
        return 1;
      }
      if (error == ERROR_HANDLE_EOF) ClearError();
      if (!DoDiskChange(root, entry, targetDir, 0, 0)) return 0;
      if (!IsOpen()) {
        SetErrorCode(ERROR_INVALID_HANDLE);
        return 0;
      }
      find->NextOffset = VolumeHeader::Size;
      entry.DataOffset = 0;
      SetMediaChanged();
      continue;
    }

    if (lstrcmpiW(next.Path.c_str(), prefix.c_str()) != 0) return FindSetPos(find, &remembered);

    entry = next;
    const int selected = IsDirectoryEntry(entry) ? IsMatchExpandDir(entry, srch, attr)
                                                 : IsMatchExpandFile(entry, srch, attr);
    const int entrySkip = skip || !selected ? 1 : 0;
    if (!DoExpand(targetDir, root, entry, srch, attr, find, entrySkip)) return 0;
    // The entry may have ended on a later volume: continue behind its last
    // part.
    if (IsMediaChanged() && !FindSetPos(find, entry)) return 0;
  }
}

// ---- One entry ------------------------------------------------------------------------------

int CArchiveFile::DoExpand(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry,
                           CSrchFlags srch, CAttrFlags attr, CArchiveFindFile* find, int skip) {
  CArchiveFileData& d = *m_Data;
  const ItemOptions options = ReadItemOptions(attr);
  const bool keepFolder = options.KeepFolder;
  const bool restoreSecurity = options.Security;
  const bool isDirectory = IsDirectoryEntry(entry);
  const DWORD outputAttributes = ApplyAttributeFlags(entry.FindData.dwFileAttributes, attr);
  const ItemTimes times = ResolveItemTimes(entry.FindData, options.KeepTimes, d);
  const CString target = targetDir != nullptr ? CString(targetDir) : CString();
  const CString folder = keepFolder ? entry.Path : CString();

  // One buffer for the whole entry, a multiple of the archive medium's
  // cluster size, so that the copy stays on cluster boundaries.
  const DWORD cluster = VolumeClusterSize(d, root);
  if (cluster == 0 || cluster > kCopyLimit) {
    SetErrorCode(ERROR_OUTOFMEMORY);
    return 0;
  }
  const DWORD bufferSize = kCopyLimit - kCopyLimit % cluster;
  // Taken only when data is copied: a directory, a skipped file and one
  // decoded straight from the archive need none.
  std::unique_ptr<BYTE[]> buffer;

  const DWORD method = entry.CompressType & ~EntryContinuedBit;
  bool ok = true;
  if (!skip) {
    if (find == nullptr) {
      SetErrorCode(ERROR_INVALID_HANDLE);
      ok = false;
    } else if (!CheckExpandType(method)) {
      SetErrorCode(ERROR_INVALID_DATATYPE);
      ok = false;
    }
  }

  CString outputPath = JoinItemPath(target.c_str(), folder, entry.FindData.cFileName);
  const bool createsOutput = keepFolder || !isDirectory;

  // Nothing is created for an entry whose folder or name would put its
  // output outside the target directory.
  if (ok && !skip && createsOutput &&
      !(IsContainedFolder(folder) && IsContainedName(entry.FindData.cFileName))) {
    SetErrorCode(ERROR_BAD_PATHNAME);
    ok = false;
  }

  if (ok && !skip && !ExpandFileNotify(targetDir, root, folder.c_str(), entry)) {
    SetAbort();
    ok = false;
  }

  bool created = false;
  bool timesSet = false;
  if (ok && !skip && createsOutput && !d.TestOnly) {
    const std::unique_ptr<BYTE[]> descriptor = PrepareDescriptor(entry, restoreSecurity);
    CString replacement;
    int r = 0;
    {
      const LentDescriptor lent(entry, descriptor.get());
      r = DoCreate(targetDir, root, folder.c_str(), entry, outputPath.c_str(), replacement);
    }
    if (r <= 0) {
      ok = false;
    } else if (r == 1) {
      created = true;
    } else if (r == 2) {
      created = true;
      outputPath = replacement;
    } else {
      skip = 1;
    }
    // Where permissions and the read-only attribute are one thing, the
    // restored descriptor of a read-only item leaves the new, still empty
    // output without write permission. Its contents must still go in: the
    // output is writable until it gets its stored attributes at the end.
    if (created && descriptor) SetFileAttributesW(outputPath.c_str(), FILE_ATTRIBUTE_NORMAL);
  }

  if (ok && !isDirectory) {
    // ---- A file: stored data into the temporary file, then decoded --------
    // With direct transfer (or when only testing) the data of a file held
    // in one volume is decoded straight from the archive, and that of a
    // split file small enough from memory; the host hears the same
    // progress as with the temporary file.
    const bool direct = !skip && (d.DirectTransfer || d.TestOnly);
    // The output DoCreate left open, when it is this entry's.
    ScopedHandle createdOutput(d.CreatedFile.Release());
    if (!created || !direct || d.CreatedPath != outputPath) createdOutput.Close();
    const bool continued = (entry.CompressType & EntryContinuedBit) != 0;
    enum class Sink { Nothing, Temporary, Memory };
    Sink sink = Sink::Nothing;
    if (!skip && !(direct && !continued))
      sink = direct && entry.PackedSize.GetValue() <= talvern::engine::DirectTransferLimit
                 ? Sink::Memory
                 : Sink::Temporary;
    std::vector<BYTE> memory;

    ScopedTempFile temporary;
    if (sink == Sink::Temporary) {
      // Only a name the call reports as reserved is deleted afterwards: on
      // failure whatever it put in the name is not ours.
      CString reserved;
      if (!GetTempCompressFile(reserved, 0, nullptr)) {
        SetErrorCode(LastErrorOr());
        ok = false;
      } else {
        temporary.Name() = reserved;
        temporary.File().Reset(
            CreateFileW(temporary.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        if (!temporary.File().IsValid()) {
          SetErrorCode(LastErrorOr());
          ok = false;
        }
      }
    }
    // Data that the record reader read ahead with the record is decoded
    // from there; the block is held until the decoding is done.
    const BYTE* heldBytes = nullptr;
    std::shared_ptr<const std::vector<BYTE>> held;
    if (ok && direct && !continued)
      held = d.HeldBytes(entry.DataOffset.GetValue(), entry.DataSize.GetValue(), heldBytes);
    if (ok && sink != Sink::Nothing) {
      buffer.reset(new (std::nothrow) BYTE[bufferSize]);
      if (!buffer) {
        SetErrorCode(ERROR_OUTOFMEMORY);
        ok = false;
      }
    }
    // Decoding straight from the archive needs all of the data there.
    if (ok && direct && !continued && !held) {
      std::uint64_t size = 0;
      if (!volume_io::QuerySize(d.Handle, size)) {
        SetErrorCode(LastErrorOr());
        ok = false;
      } else if (size < entry.DataOffset.GetValue() ||
                 size - entry.DataOffset.GetValue() < entry.DataSize.GetValue()) {
        SetErrorCode(ERROR_HANDLE_EOF);
        ok = false;
      }
    }

    // D: stored-data bytes of this entry passed so far, over all volumes.
    std::uint64_t passed = 0;
    const CArchiveSize zero;
    const auto progress = [&]() {
      if (ExpandNotify(targetDir, root, folder.c_str(), entry, zero, CArchiveSize(passed)))
        return true;
      SetAbort();
      return false;
    };

    if (ok) ok = progress();
    while (ok) {
      // One volume part of the entry.
      std::uint64_t left = entry.DataSize.GetValue();
      if (sink != Sink::Nothing && !volume_io::SeekTo(d.Handle, entry.DataOffset.GetValue())) {
        SetErrorCode(LastErrorOr());
        ok = false;
        break;
      }
      std::uint64_t piece = passed % cluster != 0 ? cluster - passed % cluster : bufferSize;
      while (ok && left > 0) {
        if (piece > left) piece = left;
        const DWORD count = static_cast<DWORD>(piece);
        if (sink != Sink::Nothing) {
          const bool moved =
              volume_io::ReadAll(d.Handle, buffer.get(), count, ERROR_HANDLE_EOF) &&
              (sink == Sink::Memory
                   ? (memory.insert(memory.end(), buffer.get(), buffer.get() + count), true)
                   : volume_io::WriteAll(temporary.File().Get(), buffer.get(), count));
          if (!moved) {
            SetErrorCode(LastErrorOr());
            ok = false;
            break;
          }
        }
        left -= piece;
        if (passed + piece < passed) {
          SetErrorCode(ERROR_SEEK_ON_DEVICE);
          ok = false;
          break;
        }
        passed += piece;
        ok = progress();
        piece = bufferSize;
      }
      if (!ok) break;

      if (entry.CompressType & EntryContinuedBit) {
        // The data goes on in the next volume, whose first record is the
        // rest of this entry.
        if (!DoDiskChange(root, entry, targetDir, 0, 0)) {
          ok = false;
          break;
        }
        SetMediaChanged();
        continue;
      }
      ok = progress();
      if (ok && passed != entry.PackedSize.GetValue()) {
        SetErrorCode(ERROR_HANDLE_EOF);
        ok = false;
      }
      break;
    }

    if (ok && direct) {
      talvern::engine::StoredData data;
      if (sink == Sink::Memory) {
        data.memory = memory.data();
        data.size = memory.size();
      } else if (sink == Sink::Temporary) {
        data.file = temporary.File().Get();
        data.size = passed;
      } else if (held) {
        data.memory = heldBytes;
        data.size = entry.DataSize.GetValue();
      } else {
        data.file = d.Handle;
        data.size = entry.DataSize.GetValue();
      }
      ok = ExpandDirect(*this, data, sink == Sink::Nothing ? entry.DataOffset.GetValue() : 0,
                        targetDir, root, folder.c_str(), entry, passed,
                        d.TestOnly ? nullptr : outputPath.c_str(), method,
                        created ? &times : nullptr, &d.Arrays, createdOutput);
      timesSet = created;
    }
    temporary.File().Close();
    if (ok && !skip && !direct) {
      DWORD error = ERROR_SUCCESS;
      if (!ExecExpand(error, targetDir, root, folder.c_str(), entry, CArchiveSize(passed),
                      outputPath.c_str(), temporary.c_str(), method, entry.Crc)) {
        if (error == ERROR_CANCELLED) ClearError();
        SetErrorCode(error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE);
        ok = false;
      }
    }
  } else if (ok) {
    // ---- A directory: its contents follow as the next records ------------
    if (!entry.Path.empty()) entry.Path += u'\\';
    entry.Path += entry.FindData.cFileName;
    const int contentsSkip = (srch & SrchNoRecurse) ? 1 : skip;
    if (!DoExpandAll(targetDir, root, entry, srch, attr, find, contentsSkip)) ok = false;
  }

  // Times after the contents; only on what this entry created, so that a
  // directory entry extracted without folders touches nothing.
  if (ok && !skip && created && !timesSet) {
    const ScopedHandle item(CreateFileW(
        outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
        OPEN_EXISTING, isDirectory ? FILE_FLAG_BACKUP_SEMANTICS : FILE_ATTRIBUTE_NORMAL, nullptr));
    if (item.IsValid() &&
        !SetFileTime(item.Get(), &times.Creation, &times.LastAccess, &times.LastWrite)) {
      SetErrorCode(LastErrorOr());
      ok = false;
    }
  }

  d.CreatedFile.Close(); // left open when the entry failed before its data
  if (created) {
    if (ok)
      SetFileAttributesW(outputPath.c_str(), outputAttributes);
    else if (isDirectory)
      RemoveDirectoryW(outputPath.c_str());
    else
      DeleteFileW(outputPath.c_str());
  }
  return ok ? 1 : 0;
}
