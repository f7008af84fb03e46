// Moving to a volume of the archive while reading: the first one when an
// extraction starts, the next one when reading runs off the end of a
// volume.
//
// With a size limit the volumes are numbered files (NAME.000, NAME.001, ...,
// possibly in advancing DISKn folders); without one every volume has the
// archive's own name on another medium. On a removable drive the host is
// asked to insert the medium first (DiskChangeNotify) and again after every
// failed attempt (InvalidDiskNotify). A volume is accepted only when its
// header belongs to the same archive and carries the expected number, and,
// when an entry's data continues into it, when it starts with that entry's
// continuation record.
#include "archive/archive_data.h"
#include "foundation/paths.h"
#include "operations/extracting_support.h"
#include "volumes/media_query.h"
#include "volumes/naming.h"

#include <cstring>

namespace {

bool SameTime(const FILETIME& a, const FILETIME& b) { return CompareFileTime(&a, &b) == 0; }

// Whether record is the continuation of split: everything that describes
// the entry agrees; positions, sizes of the parts and the folder do not
// take part.
bool IsContinuationOf(const CArchiveEntry& record, const CArchiveEntry& split) {
  const WIN32_FIND_DATAW& r = record.FindData;
  const WIN32_FIND_DATAW& s = split.FindData;
  return record.PackedSize.GetValue() == split.PackedSize.GetValue() &&
         (record.CompressType & ~EntryContinuedBit) == (split.CompressType & ~EntryContinuedBit) &&
         record.Crc == split.Crc && r.dwFileAttributes == s.dwFileAttributes &&
         SameTime(r.ftCreationTime, s.ftCreationTime) &&
         SameTime(r.ftLastAccessTime, s.ftLastAccessTime) &&
         SameTime(r.ftLastWriteTime, s.ftLastWriteTime) && r.nFileSizeHigh == s.nFileSizeHigh &&
         r.nFileSizeLow == s.nFileSizeLow && lstrcmpW(r.cFileName, s.cFileName) == 0 &&
         lstrcmpW(r.cAlternateFileName, s.cAlternateFileName) == 0;
}

} // namespace

int CArchiveFile::DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                               int first, int noFirstPrompt) {
  CArchiveFileData& d = *m_Data;

  // ---- Preparation -------------------------------------------------------------------------
  const int wasWritable = !first && IsOpen() && (d.Flags & FlagWritable) ? 1 : 0;
  int prompting = IsRemovable(wasWritable, root);
  if (otherPath != nullptr) {
    // Extracting onto the archive's own medium: the medium cannot be
    // changed, so the host is never asked to.
    const MediaIdentity archiveMedium = ReadMediaIdentity(*this, root);
    const MediaIdentity otherMedium = ReadMediaIdentity(*this, otherPath);
    if (IsSameIdentity(*this, archiveMedium, otherMedium)) prompting = 0;
  }

  // The first volume must carry a fresh volume's identity; a later one the
  // identity of the volume before it. (The header of an open volume is
  // left alone until that volume is closed, so that closing it never
  // writes a header that is not its own.)
  const VolumeHeader expected = first ? VolumeHeader::Fresh() : d.Header;
  const CArchiveEntry split(entry);
  const bool continues = (split.CompressType & EntryContinuedBit) != 0;

  DWORD volume = 0;
  if (!first) {
    if (!d.Limit &&
        (!prompting || !IsOpen() || !(d.Header.VolumeWord & VolumeHeader::ContinueBit))) {
      SetErrorCode(ERROR_HANDLE_EOF);
      return 0;
    }
    volume = (IsOpen() ? d.Header.VolumeWord & VolumeHeader::NumberMask : 0) + 1u;
  }

  if (IsError()) return 0;
  if (IsOpen()) {
    Close();
    if (IsError()) return 0;
  }
  if (first) d.Header = VolumeHeader::Fresh();

  int skip = noFirstPrompt;
  // A new set always starts from the name the host gave, not from the last
  // volume an earlier operation of this object used.
  if (first && d.Limit && !d.BaseName.empty()) d.ArchiveName = d.BaseName;
  if (d.Limit && !d.ArchiveName.empty()) {
    if (!first) {
      // Numbered files are tried before anyone is asked.
      RemoveExtension(d.ArchiveName);
      skip = 1;
    }
    if (!BuildVolumeName(d.ArchiveName, volume, first ? 0 : 1)) {
      SetErrorCode(ERROR_HANDLE_EOF);
      return 0;
    }
  }

  // ---- Attempts ------------------------------------------------------------------------------
  bool askFirst = true;
  for (;;) {
    if (prompting && !skip) {
      const int answer = askFirst ? DiskChangeNotify(root, volume + 1, 0)
                                  : InvalidDiskNotify(root, volume + 1, 0, 0);
      askFirst = false;
      if (!answer) {
        SetAbort();
        return 0;
      }
    }
    skip = 0;
    ClearError();

    const int opened = wasWritable ? WriteOpen(0, 1) : ReadOpen();
    if (opened) {
      const VolumeHeader& h = d.Header;
      const bool sameArchive =
          std::memcmp(h.Magic, expected.Magic, sizeof(h.Magic)) == 0 &&
          h.Marker == expected.Marker &&
          (first ? h.Version <= expected.Version : h.Version == expected.Version);
      if (sameArchive && GetDiskNo() == volume) {
        CArchiveFindFile* find = FindFirst(entry);
        if (find != nullptr) {
          FindClose(find);
          if (!continues || IsContinuationOf(entry, split)) return 1;
        } else if (!continues) {
          // An empty volume is in order when nothing continues into it.
          if (GetErrorCode() == ERROR_HANDLE_EOF) ClearError();
          return 1;
        }
      }
      SetErrorCode(ERROR_WRONG_DISK);
      Close();
    }
    if (!prompting) return 0;
  }
}
