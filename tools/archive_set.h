// Finding an archive from the name on the command line (one file, or a
// numbered volume set named by its base name or any of its volume files),
// and walking its entries over all of its volumes.
#pragma once

#include "drives.h"
#include "host.h"

#include <talvern/talvern.h>

#include <string>
#include <vector>

namespace tool {

// The archive's name as FileName takes it.
struct ArchiveName {
  CString path;          // library form; a numbered set: its volume 0 (NAME.000)
  bool numbered = false; // a numbered volume set: FileName needs a limit
};

// Finds an existing archive. On failure sets the error code (2 when it
// does not exist, 267 for a folder) and the subject for the message.
bool LocateArchive(const std::string& argument, const Drives& drives, ArchiveName& name,
                   DWORD& error, std::string& subject);

// The name without its extension ("D:\b\data.arc" -> "D:\b\data").
CString WithoutExtension(const CString& path);
// "NAME.hhh" with three hexadecimal digits; sets the number.
bool VolumeNumberOf(const CString& path, DWORD& number);
// The name of volume number of the set whose base name is given.
CString VolumeName(const CString& base, DWORD number);

// Reads a volume's header: whether it is a volume of this format, and its
// volume number and continue bit.
struct VolumeHeader {
  bool valid = false;
  DWORD number = 0;
  bool continues = false;
};
VolumeHeader ReadVolumeHeader(const CString& path);

// One volume of a walked archive.
struct VolumeInfo {
  std::string hostPath;
  std::uint64_t size = 0; // bytes of the volume that belong to the archive
};

// Walks the entries of an archive in their order, across volumes; the
// continuation record of a split entry is not an entry of its own.
class EntryWalker {
public:
  explicit EntryWalker(Host& host) : host_(host) {}
  ~EntryWalker();
  EntryWalker(const EntryWalker&) = delete;
  EntryWalker& operator=(const EntryWalker&) = delete;

  // Opens volume 0. false with the error latched in the host.
  bool Start();
  // 1: the next entry; 0: the end of the archive; -1: an error (latched).
  int Next(CArchiveEntry& entry);
  // Reads the record at offset in volume number volume (going on from the
  // open volume, or starting again when it lies behind).
  bool SeekTo(DWORD volume, const CArchiveOffset& offset, CArchiveEntry& entry);
  const std::vector<VolumeInfo>& Volumes() const { return volumes_; }

private:
  bool OpenNext(CArchiveEntry& last);
  void NoteVolume();

  Host& host_;
  CArchiveFindFile* find_ = nullptr;
  CArchiveEntry last_; // the last record read in the open volume
  std::vector<VolumeInfo> volumes_;
};

} // namespace tool
