// The private state block of an archive object, shared by the library's
// archive, operations and volumes code. Not installed.
#pragma once

#include <talvern/archive.h>

#include "engine/compress_ahead.h"
#include "engine/lz_engine.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

// Status bits of CArchiveFileData::Flags.
constexpr DWORD FlagReadable = 0x00000001;
constexpr DWORD FlagWritable = 0x00000002;
constexpr DWORD FlagHeaderDirty = 0x00000004;
constexpr DWORD FlagMediaChanged = 0x20000000;
constexpr DWORD FlagBusy = 0x40000000;
constexpr DWORD FlagError = 0x80000000;

// Bit of an entry's CompressType: the entry's data goes on in the next
// volume; the low bits are the method.
constexpr DWORD EntryContinuedBit = 0x80000000u;

// Bits of CArchiveFileData::DefaultAnswers: which hooks last answered with
// the library's own body.
constexpr DWORD DefaultAnsweredDiskFull = 0x00000001;  // DiskFullNotify
constexpr DWORD DefaultAnsweredMediumAsk = 0x00000002; // DiskChangeNotify, InvalidDiskNotify

// The 20-byte volume header, in memory.
struct VolumeHeader {
  BYTE Magic[8];             // "ArchFile"
  BYTE Marker;               // 0x1A
  BYTE Version;              // 0
  WORD VolumeWord;           // bits 0-14 volume number, bit 15 continued
  std::uint64_t ArchiveSize; // end of the last record's data

  static constexpr DWORD Size = 20;
  static constexpr WORD ContinueBit = 0x8000;
  static constexpr WORD NumberMask = 0x7FFF;

  // The header of a newly created volume.
  static VolumeHeader Fresh() {
    VolumeHeader h{};
    std::memcpy(h.Magic, "ArchFile", 8);
    h.Marker = 0x1A;
    h.Version = 0;
    h.VolumeWord = 0;
    h.ArchiveSize = Size;
    return h;
  }
  void Zero() { *this = VolumeHeader{}; }

  // Little-endian on-disk form.
  void Store(BYTE out[Size]) const;
  void Load(const BYTE in[Size]);
  // Magic, marker, a version this library reads, and an archive size that
  // covers at least the header.
  bool IsValid() const;
};

struct CArchiveFileData {
  DWORD Flags = 0;
  DWORD ErrorCode = 0;
  CString ArchiveName;
  // With a limit: the name FileName stored, before volume operations
  // replaced it by a volume's name; each new set starts from it again.
  CString BaseName;
  std::unique_ptr<CArchiveSize> Limit;
  FILETIME DefaultCreate{};
  FILETIME DefaultLastWrite{};
  FILETIME DefaultLastAccess{};
  HANDLE Handle = INVALID_HANDLE_VALUE;
  std::uint64_t CommittedSize = 0;
  // The open volume's file was created by this open (it did not exist, or
  // CreateOpen made it anew): only such a file is deleted by a failed close.
  bool CreatedByOpen = false;
  VolumeHeader Header{};
  // Set by the library's own bodies of DiskFullNotify, DiskChangeNotify and
  // InvalidDiskNotify, so that the volume-full handling can tell a question
  // answered by a host from one answered by the defaults (whose exchange
  // would otherwise repeat without end).
  DWORD DefaultAnswers = 0;

  // Speed settings (SetCompressThreads, SetDirectTransfer, SetTestOnly) and
  // the compression ahead of a CompressAll walk while it runs.
  DWORD CompressThreads = 1;
  bool DirectTransfer = false;
  bool TestOnly = false;
  bool FollowLinks = false;
  // Files compressed during the adding walk under way, for copies of them
  // met later (emptied when the walk ends; the workers ahead use it too, so
  // it outlives them).
  talvern::engine::SeenData Seen;
  std::unique_ptr<talvern::engine::CompressAhead> Ahead;
  // The engine's arrays, kept from one entry to the next on the host's
  // thread.
  EngineArrays Arrays;
  // The cluster size of the open volume's medium, asked once per open
  // volume (0: not asked yet); the medium changes only with the volume.
  CString ClusterRoot;
  DWORD ClusterSize = 0;
  // Set while the entry being added already went out in one write, record
  // and data together: writing its record and copying its data then only
  // move past those bytes.
  bool EntryWrittenAhead = false;
  // With direct transfer, the file the library's DoCreate just made for an
  // entry, kept open for its data (and closed once the entry is done), so
  // that it is not opened again by name.
  ScopedHandle CreatedFile;
  CString CreatedPath;
  // The adding walk's copy buffer, kept from item to item.
  std::unique_ptr<BYTE[]> CopyBuffer;
  DWORD CopyBufferSize = 0;

  // Bytes of a volume opened for reading only, read ahead by the record
  // reader, so that the records and the data of small entries cost no read
  // of their own: the file's bytes from ReadAheadStart on. Nothing else
  // writes to such a volume (its handle shares reading only). A reader that
  // lends the bytes out holds the block, and a later read-ahead then takes
  // a new one.
  std::shared_ptr<std::vector<BYTE>> ReadAhead;
  std::uint64_t ReadAheadStart = 0;
  bool UsesReadAhead() const { return (Flags & (FlagReadable | FlagWritable)) == FlagReadable; }
  // The count bytes at position, from the read-ahead or, when it does not
  // hold them, read ahead anew from the open volume up to end (the
  // caller's limit, at least position + count). Null with the last error
  // set when the file cannot be read, ERROR_SEEK_ON_DEVICE when it ends
  // first.
  const BYTE* ReadAheadBytes(std::uint64_t position, DWORD count, std::uint64_t end);
  // The read-ahead block when it holds the count bytes at position (which
  // begin at `bytes`), else null.
  std::shared_ptr<const std::vector<BYTE>> HeldBytes(std::uint64_t position, std::uint64_t count,
                                                     const BYTE*& bytes) const;

  // The effective size limit of the current volume: 0 means no limit.
  // (0xFFFFFFFF is returned as it is; callers treat it as no limit.)
  DWORD EffectiveLimit() const;
};

// The bytes of the entry's record as it is written, with dataSize as its
// data size: ERROR_SUCCESS, or the code of why it cannot be written
// (ERROR_SEEK_ON_DEVICE when it is too large, ERROR_OUTOFMEMORY).
DWORD ComposeEntryRecord(const CArchiveEntry& entry, std::uint64_t dataSize,
                         std::vector<BYTE>& record);

// A search handle: the position of the next record in the open volume.
class CArchiveFindFile {
public:
  CArchiveOffset NextOffset{VolumeHeader::Size};
};

// The library's own access to an archive object's state block, for code
// that is not a member of CArchiveFile (and for white-box tests).
struct CArchiveFileAccess {
  static CArchiveFileData& Data(CArchiveFile& archive) { return *archive.m_Data; }
  static const CArchiveFileData& Data(const CArchiveFile& archive) { return *archive.m_Data; }

  // Calls of protected members for shared code outside the members. Each
  // goes through the virtual table, so a host's override takes effect.
  static int DoLoadMedia(CArchiveFile& a, const WCHAR* root, int forWriting) {
    return a.DoLoadMedia(root, forWriting);
  }
  static int AlreadyOpenedNotify(CArchiveFile& a, const WCHAR* root) {
    return a.AlreadyOpenedNotify(root);
  }
  static HANDLE ExecDeviceOpen(const CArchiveFile& a, const WCHAR* root, DWORD access) {
    return a.ExecDeviceOpen(root, access);
  }
  static int ExecDeviceClose(const CArchiveFile& a, HANDLE device) {
    return a.ExecDeviceClose(device);
  }
  static int ExecDeviceLock(const CArchiveFile& a, HANDLE device) {
    return a.ExecDeviceLock(device);
  }
  static int ExecDeviceUnlock(const CArchiveFile& a, HANDLE device) {
    return a.ExecDeviceUnlock(device);
  }
  static int ExecFlushMedia(const CArchiveFile& a, HANDLE device) {
    return a.ExecFlushMedia(device);
  }
};
