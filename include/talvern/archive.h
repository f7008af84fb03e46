// The archive object: the one object through which a host works with an
// archive. Hosts derive from CArchiveFile and override its virtual members
// (hooks, workers, device requests) to answer questions and show progress.
#pragma once

#include <talvern/entry.h>
#include <talvern/export.h>
#include <talvern/size.h>
#include <talvern/win32.h>

class CArchiveFindFile;   // a search handle: the position of the next record
struct CArchiveFileData;  // the private state block of an archive object
class CEncodeDecodeBase;  // the compression engine, which calls the progress hooks
struct CArchiveFileAccess; // the library's internal access to the state block

class TALVERN_API CArchiveFile {
public:
  // What to select when adding or extracting.
  enum CSrchFlags : DWORD {
    SrchReadOnly = 0x00000001,
    SrchHidden = 0x00000002,
    SrchSystem = 0x00000004,
    SrchDirOnly = 0x00000010,
    SrchArchive = 0x00000020,
    SrchNoRecurse = 0x00008000,
    SrchExcludeReadOnly = 0x00010000,
    SrchExcludeHidden = 0x00020000,
    SrchExcludeSystem = 0x00040000,
    SrchExcludeDir = 0x00100000,
    SrchExcludeArchive = 0x00200000,
    SrchNoFirstPrompt = 0x80000000,
  };

  // Attribute changes and options: bit n clears an attribute or turns an
  // option off, bit n + 16 then inverts it.
  enum CAttrFlags : DWORD {
    AttrClearReadOnly = 0x00000001,
    AttrClearHidden = 0x00000002,
    AttrClearSystem = 0x00000004,
    AttrNoTimes = 0x00000008,
    AttrNoPath = 0x00000010,
    AttrClearArchive = 0x00000020,
    AttrNoSecurity = 0x00000080,
    AttrToggleReadOnly = 0x00010000,
    AttrToggleHidden = 0x00020000,
    AttrToggleSystem = 0x00040000,
    AttrToggleTimes = 0x00080000,
    AttrTogglePath = 0x00100000,
    AttrToggleArchive = 0x00200000,
    AttrToggleSecurity = 0x00800000,
  };

  // Answers of DiskFullNotify.
  enum CDiskFullOperation : DWORD {
    DiskFullStop = 0,
    DiskFullChange = 1,
    DiskFullFormat = 2,
  };

  // Answers of OverwriteNotify.
  enum COverwriteOperation : DWORD {
    OverwriteCancel = 0,
    OverwriteReplace = 1,
    OverwriteSkip = 2,
    OverwriteBackup = 3,
    OverwriteRename = 4,
  };

  CArchiveFile();
  CArchiveFile(const CArchiveFile&) = delete;
  CArchiveFile& operator=(const CArchiveFile&) = delete;

  // ---- Virtual members, in their fixed slot order -------------------------
  virtual ~CArchiveFile();                                                   // 0
  virtual int IsBusy() const;                                                // 1
  virtual int ReadOpen();                                                    // 2
  virtual int WriteOpen(int create, int readable);                           // 3
  virtual int CreateOpen(int overwrite, int readable);                       // 4
  virtual int Flush();                                                       // 5
  virtual int Close();                                                       // 6

protected:
  virtual DWORD GetRequestCompressType(const CArchiveEntry& entry, CSrchFlags srch,
                                       CAttrFlags attr) const;               // 7
  virtual int IsMatchCompressDir(const CArchiveEntry& entry, CSrchFlags srch,
                                 CAttrFlags attr) const;                     // 8
  virtual int IsMatchCompressFile(const CArchiveEntry& entry, CSrchFlags srch,
                                  CAttrFlags attr) const;                    // 9
  virtual int IsMatchExpandDir(const CArchiveEntry& entry, CSrchFlags srch,
                               CAttrFlags attr) const;                       // 10
  virtual int IsMatchExpandFile(const CArchiveEntry& entry, CSrchFlags srch,
                                CAttrFlags attr) const;                      // 11
  virtual int DiskChangeNotify(const WCHAR* root, DWORD diskNo, int forWriting);        // 12
  virtual int InvalidDiskNotify(const WCHAR* root, DWORD diskNo, int forWriting,
                                int foreignFile);                                       // 13
  virtual int AlreadyOpenedNotify(const WCHAR* root);                                   // 14
  virtual int FormatNotify(const WCHAR* path, DWORD number);                            // 15
  virtual UINT GetTempCompressFile(CString& result, UINT unique, const WCHAR* prefix) const; // 16
  virtual CDiskFullOperation DiskFullNotify(const WCHAR* root, int first);              // 17
  virtual int CompressFileNotify(const WCHAR* root, const WCHAR* sourceDir,
                                 const WCHAR* entryPath, const CArchiveEntry& entry);   // 18
  virtual int CompressNotify(const WCHAR* root, const WCHAR* sourceDir,
                             const WCHAR* entryPath, const CArchiveEntry& entry,
                             const CArchiveSize& first, const CArchiveSize& second);    // 19
  virtual int CompressStartNotify();                                                    // 20
  virtual void CompressCompleteNotify(int result);                                      // 21
  virtual int MakeBackupFile(const WCHAR* fileName, CString& result, int existing) const; // 22
  virtual COverwriteOperation OverwriteNotify(const WCHAR* targetDir, const WCHAR* entryPath,
                                              const WIN32_FIND_DATAW& existing,
                                              const WCHAR* root,
                                              const CArchiveEntry& entry);              // 23
  virtual int ExpandFileNotify(const WCHAR* targetDir, const WCHAR* root,
                               const WCHAR* entryPath, const CArchiveEntry& entry);     // 24
  virtual int ExpandNotify(const WCHAR* targetDir, const WCHAR* root, const WCHAR* entryPath,
                           const CArchiveEntry& entry, const CArchiveSize& first,
                           const CArchiveSize& second);                                 // 25
  virtual int ExpandStartNotify();                                                      // 26
  virtual void ExpandCompleteNotify(int result);                                        // 27
  virtual int DoDiskChange(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                           int first, int noFirstPrompt);                               // 28
  virtual int DoDiskFull(const WCHAR* root, CArchiveEntry& entry, const WCHAR* otherPath,
                         int first, int noFirstPrompt);                                 // 29
  virtual int DoCreate(const WCHAR* targetDir, const WCHAR* root, const WCHAR* folder,
                       const CArchiveEntry& entry, const WCHAR* outputPath,
                       CString& replacementName);                                       // 30
  virtual int DoFormat(const WCHAR* path, DWORD diskNo);                                // 31
  virtual int DoFlushMedia(const WCHAR* root);                                          // 32
  virtual int DoEjectMedia(const WCHAR* root, int wasWritable);                         // 33
  virtual int DoLoadMedia(const WCHAR* root, int forWriting);                           // 34
  virtual int DoCompressAll(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry,
                            CSrchFlags srch, CAttrFlags attr);                          // 35
  virtual int DoExpandAll(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry,
                          CSrchFlags srch, CAttrFlags attr, CArchiveFindFile* find,
                          int skip);                                                    // 36
  virtual int DoCompress(const WCHAR* root, const WCHAR* baseDir, CArchiveEntry& entry,
                         CSrchFlags srch, CAttrFlags attr);                             // 37
  virtual int DoExpand(const WCHAR* targetDir, const WCHAR* root, CArchiveEntry& entry,
                       CSrchFlags srch, CAttrFlags attr, CArchiveFindFile* find,
                       int skip);                                                       // 38
  virtual HANDLE ExecDeviceOpen(const WCHAR* root, DWORD access) const;                 // 39
  virtual int ExecDeviceClose(HANDLE device) const;                                     // 40
  virtual int ExecDeviceLock(HANDLE device) const;                                      // 41
  virtual int ExecDeviceUnlock(HANDLE device) const;                                    // 42
  virtual int ExecFlushMedia(HANDLE device) const;                                      // 43
  virtual int ExecEjectMedia(HANDLE device) const;                                      // 44
  virtual int ExecLoadMedia(HANDLE device) const;                                       // 45
  virtual int ExecLockMedia(HANDLE device, int prevent) const;                          // 46
  virtual int IsFormatMediaSupported() const;                                           // 47
  virtual int ExecCheckFormated(const WCHAR* path, DWORD diskNo) const;                 // 48

public:
  virtual DWORD GetCompressType(DWORD requested) const;                                 // 49
  virtual int CheckExpandType(DWORD method) const;                                      // 50

protected:
  virtual int ExecCompress(DWORD& error, const WCHAR* arg1, const WCHAR* arg2,
                           const WCHAR* arg3, const CArchiveEntry& entry,
                           const CArchiveSize& size, const WCHAR* target,
                           const WCHAR* source, DWORD method, DWORD& crc);              // 51
  virtual int ExecExpand(DWORD& error, const WCHAR* arg1, const WCHAR* arg2,
                         const WCHAR* arg3, const CArchiveEntry& entry,
                         const CArchiveSize& size, const WCHAR* target, const WCHAR* source,
                         DWORD method, DWORD crc);                                      // 52

public:
  // ---- File name and limit ---------------------------------------------------
  // Names the archive; a limit with a non-zero value turns on numbered
  // volumes (low half: every volume; high half, when not 0: the first one).
  int FileName(const WCHAR* path, const CArchiveSize* limit);
  const WCHAR* FileName() const;
  const CArchiveSize* LimitSize() const;

  // ---- Default times for added files whose own times are 0 or not kept ----
  void DefaultCreateTime(const FILETIME& time);
  void ClearDefaultCreateTime();
  const FILETIME& DefaultCreateTime() const;
  void DefaultLastWriteTime(const FILETIME& time);
  void ClearDefaultLastWriteTime();
  const FILETIME& DefaultLastWriteTime() const;
  void DefaultLastAccessTime(const FILETIME& time);
  void ClearDefaultLastAccessTime();
  const FILETIME& DefaultLastAccessTime() const;

  // ---- Speed -----------------------------------------------------------------
  // Threads that compress files ahead of the adding walk of CompressAll and
  // Compress (1: none, the default; 0: one per processor). The archive's
  // bytes and the calls of every member a host overrides stay exactly those
  // of a single thread: the walk and all hooks run on the caller's thread,
  // in the same order, with the same arguments.
  void SetCompressThreads(DWORD threads);
  DWORD GetCompressThreads() const;
  // Direct transfer (off by default): adding and extracting move a file's
  // data between the archive and memory (or, for a file held in one
  // volume, straight from the archive) instead of through a temporary
  // file. GetTempCompressFile, ExecCompress and ExecExpand are then not
  // called for such files; every other call, and the progress hooks with
  // their arguments, stay as they are. The file the library's DoCreate
  // makes stays open (shared with no one) until its data is in: a DoCreate
  // override that calls it and then opens the new file needs this off.
  void SetDirectTransfer(int direct);
  int IsDirectTransfer() const;
  // Test only (off by default): extraction decodes every selected file and
  // checks its size and CRC, but creates, changes and writes nothing;
  // DoCreate is not called. Implies direct transfer.
  void SetTestOnly(int testOnly);
  int IsTestOnly() const;
  // Following links (off by default): adding enters a folder reached
  // through a symbolic link or junction and stores what it holds, unless
  // the link leads to the folder it is in or to one above it, which would
  // never end; such a link, and every link when this is off, is stored as
  // an empty folder.
  void SetFollowLinks(int follow);
  int IsFollowLinks() const;
  // Whether the linked folder `source`, met in `folder` (an entry path)
  // below `baseDir`, leads to `baseDir` or a folder on the way to `folder`,
  // so that following it would never end; also 1 when it cannot be looked
  // at. For hosts that walk a tree as adding does.
  static int IsLinkToAncestor(const WCHAR* baseDir, const CString& folder, const CString& source);

  // ---- State -----------------------------------------------------------------
  int IsOpen() const;
  int IsReadable() const;
  int IsWritable() const;
  int IsContinue() const;
  int IsError() const;
  int IsAborted() const;
  int IsMediaChanged() const;
  DWORD GetErrorCode() const;
  CArchiveSize GetArchiveSize();

  void SetErrorCode(DWORD code);
  void ClearError();
  void SetAbort();
  void SetMediaChanged();
  void ClearMediaChanged();

  // ---- Paths -------------------------------------------------------------------
  CString GetFullPath(const WCHAR* path, int* finalComponent = nullptr) const;
  CString GetRootPath(const WCHAR* path) const;

  // ---- Volumes and media -----------------------------------------------------
  int IsRemovable(int forWriting, const WCHAR* root) const;
  int GetMediaInfo(DWORD& serial, DWORD& flags, CString* label, const WCHAR* path) const;
  int IsSameMedia(DWORD serial1, DWORD serial2, DWORD flags1, DWORD flags2,
                  const WCHAR* label1, const WCHAR* label2) const;
  DWORD GetDiskNo() const;
  int Format(const WCHAR* path, DWORD diskNo);

  // ---- Entry search ------------------------------------------------------------
  CArchiveFindFile* FindCreate();
  CArchiveFindFile* FindFirst(CArchiveEntry& entry);
  int FindNext(CArchiveFindFile* find, CArchiveEntry& entry);
  int FindClose(CArchiveFindFile* find);
  CArchiveOffset FindGetPos(CArchiveFindFile* find);
  int FindSetPos(CArchiveFindFile* find, const CArchiveOffset* position);
  int FindSetPos(CArchiveFindFile* find, const CArchiveEntry& entry);

  // ---- Adding and extracting -----------------------------------------------------
  int CompressAll(const WCHAR* sourcePath, CSrchFlags srch, CAttrFlags attr);
  int Compress(const WCHAR* baseDir, CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr);
  int ExpandAll(const WCHAR* targetDir, CSrchFlags srch, CAttrFlags attr);
  int Expand(const WCHAR* targetDir, CArchiveEntry& entry, CSrchFlags srch, CAttrFlags attr);

protected:
  // ---- Record and string I/O on the open volume ------------------------------
  int DoReadEntry(const CArchiveOffset& position, const CArchiveSize& available,
                  CArchiveEntry& entry, CArchiveSize* recordSize);
  int DoWriteEntry(CArchiveEntry& entry, CArchiveSize* recordSize);
  int DoReadString(CArchiveSize& budget, CString& text) const;
  int DoReadString(CArchiveSize& budget, WCHAR* buffer, int capacity) const;
  int DoWriteString(const WCHAR* text) const;
  int CalcWriteStringSize(CArchiveSize& size, const WCHAR* text) const;

private:
  friend class CEncodeDecodeBase;
  friend struct CArchiveFileAccess;

  CArchiveFileData* m_Data;
};

// Bitwise operators that keep the enumeration type of their operands.
#define TALVERN_ENUM_FLAG_OPERATORS(E)                                                 \
  constexpr E operator|(E a, E b) { return static_cast<E>(static_cast<DWORD>(a) |      \
                                                          static_cast<DWORD>(b)); }    \
  constexpr E operator&(E a, E b) { return static_cast<E>(static_cast<DWORD>(a) &      \
                                                          static_cast<DWORD>(b)); }    \
  constexpr E operator^(E a, E b) { return static_cast<E>(static_cast<DWORD>(a) ^      \
                                                          static_cast<DWORD>(b)); }    \
  constexpr E operator~(E a) { return static_cast<E>(~static_cast<DWORD>(a)); }        \
  constexpr E& operator|=(E& a, E b) { return a = a | b; }                             \
  constexpr E& operator&=(E& a, E b) { return a = a & b; }                             \
  constexpr E& operator^=(E& a, E b) { return a = a ^ b; }

TALVERN_ENUM_FLAG_OPERATORS(CArchiveFile::CSrchFlags)
TALVERN_ENUM_FLAG_OPERATORS(CArchiveFile::CAttrFlags)
TALVERN_ENUM_FLAG_OPERATORS(CArchiveFile::CDiskFullOperation)
TALVERN_ENUM_FLAG_OPERATORS(CArchiveFile::COverwriteOperation)

#undef TALVERN_ENUM_FLAG_OPERATORS
