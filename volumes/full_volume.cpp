// Continuing on a new volume when the current one is full, and creating the
// first volume of a new archive.
//
// Moving on finishes the current volume (marked as continuing; an entry
// whose data is being split gets its record rewritten with the part written
// so far), closes it, names the next volume, lets the host decide what to do
// with a removable medium, creates the new volume and writes the split
// entry's continuation record at its start. A file of the volume's name that
// is not this archive's volume with that number is never overwritten.
#include "archive/archive_data.h"
#include "archive/volume_io.h"
#include "foundation/paths.h"
#include "volumes/media_query.h"
#include "volumes/naming.h"

#include <cstring>

namespace {

// Magic, marker and version: what every volume of one archive shares.
struct VolumeIdentity {
  BYTE Magic[8];
  BYTE Marker;
  BYTE Version;

  static VolumeIdentity Of(const VolumeHeader& h) {
    VolumeIdentity id{};
    std::memcpy(id.Magic, h.Magic, sizeof id.Magic);
    id.Marker = h.Marker;
    id.Version = h.Version;
    return id;
  }
  bool Matches(const VolumeHeader& h) const {
    return std::memcmp(Magic, h.Magic, sizeof Magic) == 0 && Marker == h.Marker &&
           Version == h.Version;
  }
  void ApplyTo(VolumeHeader& h) const {
    std::memcpy(h.Magic, Magic, sizeof Magic);
    h.Marker = Marker;
    h.Version = Version;
  }
};

// What one attempt goes on with after the host's answers.
enum class Step { EndAttempt, Format, Create };

} // namespace

int CArchiveFile::DoDiskFull(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                             int first, int noFirstPrompt) {
  CArchiveFileData& d = *m_Data;

  CString ownRoot;
  if (root == nullptr) {
    ownRoot = BuildRootPath(d.ArchiveName.c_str());
    if (!ownRoot.empty()) root = ownRoot.c_str();
  }

  // The header of a new archive is set up only once its first volume
  // exists, so that a volume the host left open is closed below with its
  // own header.
  const int wasReadable = first ? 0 : IsReadable();

  int prompting = root != nullptr && GetDriveTypeW(root) == DRIVE_REMOVABLE ? 1 : 0;
  if (prompting && otherPath != nullptr) {
    // The files being added lie on the archive's own medium: it cannot be
    // changed.
    if (IsSameIdentity(*this, ReadMediaIdentity(*this, root), ReadMediaIdentity(*this, otherPath)))
      prompting = 0;
  }

  if (IsError()) return 0;
  // A volume that already goes on in a further one is not the end of its
  // set: a new volume after it would overwrite the set's next volume.
  if (!first && IsContinue()) {
    SetErrorCode(ERROR_ACCESS_DENIED);
    return 0;
  }

  DWORD volume = 0;
  ClearError();
  if (!first) {
    d.Flags |= FlagHeaderDirty;
    d.Header.VolumeWord |= VolumeHeader::ContinueBit;
    if ((entry.CompressType & EntryContinuedBit) && !DoWriteEntry(entry, nullptr)) return 0;
    volume = (IsOpen() ? (d.Header.VolumeWord & VolumeHeader::NumberMask) : 0) + 1;
  }

  const VolumeIdentity saved = VolumeIdentity::Of(first ? VolumeHeader::Fresh() : d.Header);
  if (volume & VolumeHeader::ContinueBit) SetErrorCode(ERROR_DISK_FULL);

  // The full volume's header is written with the continuing mark. A new
  // archive closes whatever the object has open; with nothing open the
  // close reports an error, which does not concern the new archive.
  if (!IsError()) {
    Close();
    if (first) ClearError();
  }
  // A new set always starts from the name the host gave, not from the last
  // volume an earlier operation of this object used.
  if (first && d.Limit && !d.BaseName.empty()) d.ArchiveName = d.BaseName;
  if (!IsError() && d.Limit && !d.ArchiveName.empty()) {
    if (!first) RemoveExtension(d.ArchiveName);
    if (!BuildVolumeName(d.ArchiveName, volume, first ? 0 : 1)) SetErrorCode(ERROR_DISK_FULL);
  }
  if (IsError()) return 0;

  const DWORD diskNo = volume + 1;
  int askFirst = 1;
  int result = 0;
  int skip = noFirstPrompt;
  DWORD answer = DiskFullStop;
  bool defaultFullAnswer = false;

  for (;;) {
    ClearError();
    bool askedHost = false;
    Step step = Step::EndAttempt;

    if (prompting && !skip) {
      askedHost = true;
      if (askFirst) {
        result = 0;
        d.DefaultAnswers &= ~DefaultAnsweredDiskFull;
        answer = static_cast<DWORD>(DiskFullNotify(root, first)) & 0xFFFFu;
        defaultFullAnswer = (d.DefaultAnswers & DefaultAnsweredDiskFull) != 0;
      }
      if (answer == DiskFullChange) {
        d.DefaultAnswers &= ~DefaultAnsweredMediumAsk;
        int inserted;
        if (askFirst) {
          askFirst = 0;
          inserted = DiskChangeNotify(root, diskNo, 1);
        } else {
          inserted = InvalidDiskNotify(root, diskNo, 1, result);
        }
        if (!inserted) {
          // The library's own answers would put the same two questions
          // again for ever: with nobody to insert a medium, give up.
          if (defaultFullAnswer && (d.DefaultAnswers & DefaultAnsweredMediumAsk)) {
            SetAbort();
            return 0;
          }
          askFirst = 1;
        } else if (ExecCheckFormated(root, diskNo)) {
          result = 1;
          step = Step::Create;
        } else {
          step = Step::Format;
        }
      } else if (answer == DiskFullFormat) {
        step = Step::Format;
      } else {
        askedHost = false; // any other answer stops
      }
    } else if (!first && !d.Limit) {
      // A full medium that cannot be changed, and no numbered volumes.
      SetErrorCode(ERROR_DISK_FULL);
    } else {
      result = 1;
      step = Step::Create;
    }

    if (step == Step::Format) {
      if (!FormatNotify(root, diskNo)) {
        askFirst = 1;
      } else {
        askFirst = 0;
        if (!DoFormat(root, diskNo)) {
          if (IsError() && GetErrorCode() == ERROR_CANCELLED) askFirst = 1;
        } else if (ExecCheckFormated(root, diskNo)) {
          result = 1;
          step = Step::Create;
        }
      }
      if (step != Step::Create) {
        if (answer == DiskFullFormat) InvalidDiskNotify(root, diskNo, 1, result);
        continue;
      }
    }

    if (step == Step::Create) {
      bool create = true;
      const DWORD attributes = GetFileAttributesW(d.ArchiveName.c_str());
      if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        // Only this archive's own volume with this number is overwritten.
        if (!ReadOpen()) {
          create = false;
        } else {
          const bool sameArchive = first ? d.Header.IsValid() : saved.Matches(d.Header);
          const bool ours = sameArchive && GetDiskNo() == volume;
          Close();
          create = ours;
        }
      } else {
        const CString volumeRoot = BuildRootPath(d.ArchiveName.c_str());
        if (volumeRoot.empty())
          SetErrorCode(ERROR_OUTOFMEMORY);
        else if (!CreateDirectoryTree(volumeRoot.c_str(), d.ArchiveName.c_str(), 0))
          SetErrorCode(volume_io::LastErrorOr());
      }

      if (create) {
        if (!CreateOpen(1, wasReadable)) {
          result = 0;
        } else {
          saved.ApplyTo(d.Header);
          d.Header.VolumeWord = static_cast<WORD>(volume);
          d.Flags |= FlagHeaderDirty;
          entry.EntryOffset = d.Header.ArchiveSize;
          entry.DataSize = 0;
          entry.CompressType &= ~EntryContinuedBit;
          if (first) return result;
          if (DoWriteEntry(entry, nullptr)) return result;
          // The new volume could not take the record: it is removed.
          Close();
          result = 0;
        }
      }
    }

    skip = 0;
    if (!askedHost) return result;
  }
}
