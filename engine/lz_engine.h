// The compression engine: a sliding-dictionary LZ coder with lazy matching
// whose longest-match search runs on a digital search tree of every string in
// the window, updated one position at a time. A derived class chooses how
// literals, matches and the end of data are written (CEncodeDecode1 writes
// code format 1).
//
// The engine also carries the progress context of one archive entry: a
// CFileNotifyCRC stream tells it of every transfer, and it passes the running
// count to the archive object's CompressNotify or ExpandNotify hook.
#pragma once

#include "engine/bitstream.h"
#include "engine/streams.h"

#include <talvern/archive.h>

#include <memory>

class CEncodeDecodeBase;

// A CRC-bearing stream that reports each transfer to an engine.
class CFileNotifyCRC : public virtual CFileCRC {
public:
  // File mode on `handle` (memory mode on `memory`); the limit may be null
  // for none. Target starts null: set it when progress is wanted.
  CFileNotifyCRC(HANDLE handle, const CArchiveSize* limit);
  CFileNotifyCRC(BYTE* memory, const CArchiveSize* limit);
  CFileNotifyCRC(const BYTE* memory, const CArchiveSize* limit);
  ~CFileNotifyCRC() override;

  DWORD Read(void* buffer, DWORD count) override;
  DWORD Write(const void* buffer, DWORD count) override;

  CEncodeDecodeBase* Target = nullptr;
};

// The two arrays of an engine, kept between engines: an engine created with
// a keeper takes them from it when they have the sizes it needs, and gives
// them back when it is destroyed. Work on many small files then allocates
// (and the system maps) the arrays once, not once a file.
struct EngineArrays {
  std::unique_ptr<BYTE[]> NodeBlock;
  std::unique_ptr<BYTE[]> Text;
  std::size_t NodeBytes = 0;
  std::size_t TextBytes = 0;
};

class CEncodeDecodeBase {
public:
  // Results of DecodeCode.
  static constexpr int CodeLiteral = 0;
  static constexpr int CodeMatch = 1;
  static constexpr int CodeEnd = -1;

  CEncodeDecodeBase();
  CEncodeDecodeBase(const CEncodeDecodeBase&) = delete;
  CEncodeDecodeBase& operator=(const CEncodeDecodeBase&) = delete;
  // Frees the arrays, then gives the host one last progress call.
  virtual ~CEncodeDecodeBase();

  // Sets the dictionary size (2^bits, bits 9 to 13) and the longest match
  // (MinMatch + 1 to 256) and allocates the two arrays. FALSE when the
  // parameters are out of range or memory is short; IsCreated says which.
  virtual BOOL Create(BYTE dicBits, WORD maxMatch);
  virtual void Destroy();
  virtual BOOL IsCreated() const;

  // Compress from or expand into an open file through a CFileNotifyCRC on
  // it, continuing the CRC passed in and handing the new one back.
  virtual BOOL EncodeFile(HANDLE source, CFileBit* destination, DWORD* crc, DWORD* error,
                          BOOL notify, const CArchiveSize* limit);
  virtual BOOL DecodeFile(HANDLE destination, CFileBit* source, DWORD* crc, DWORD* error,
                          BOOL notify, const CArchiveSize* limit);

  // The compression and expansion loops. `error` may be null; it keeps its
  // value on success.
  virtual BOOL Encode(CFileIO* source, CFileBit* destination, DWORD* error);
  virtual BOOL Decode(CFileIO* destination, CFileBit* source, DWORD* error);

  // Progress after a read (while compressing) or a write (while expanding).
  virtual void ReadNotify(DWORD count);
  virtual void WriteNotify(DWORD count);
  virtual BOOL IsAborted() const;

  // The coding operations of a code format.
  virtual BOOL EncodeStart(CFileBit* destination, DWORD* error) = 0;
  virtual BOOL EncodeEnd(CFileBit* destination, DWORD* error) = 0;
  virtual BOOL EncodeChar(CFileBit* destination, DWORD* error, WORD value) = 0;
  virtual BOOL EncodeMatch(CFileBit* destination, DWORD* error, WORD lengthCode, WORD position) = 0;
  virtual BOOL DecodeStart(CFileBit* source, DWORD* error) = 0;
  virtual BOOL DecodeEnd(CFileBit* source, DWORD* error) = 0;
  // 0 a literal (byte in the low 8 bits of code), 1 a match, -1 the end of
  // data, below -1 a failure.
  virtual int DecodeCode(CFileBit* source, DWORD* error, WORD* code, WORD* position) = 0;

  // Number of hash chains (HashSize).
  static constexpr unsigned ChainCount = 8192;

  // One node of the tree in Nodes: its parent and its neighbours in its
  // hash chain. Node numbers are 16-bit; 0 is NIL. Prev says where the link
  // that points at the node lies (lz_tree.h tells how).
  struct Node {
    WORD Parent;
    WORD Prev;
    WORD Next;
  };
  // What internal nodes and roots keep besides: the length of the prefix
  // shared below them, their number of children and a recent position.
  struct NodeData {
    BYTE Level;
    BYTE ChildCount;
    WORD Position;
  };

  EngineArrays* Keeper = nullptr;    // where the arrays come from and go back to
  std::unique_ptr<BYTE[]> NodeBlock; // Nodes, HashHeads and NodeInfo, in that order
  std::unique_ptr<BYTE[]> Text;      // the window: 2N + MaxMatch bytes
  Node* Nodes = nullptr;             // 2N records
  NodeData* NodeInfo = nullptr;      // N + 256 records
  WORD* HashHeads = nullptr;         // HashSize chain heads

  WORD Avail = 0;
  WORD Pos = 0;
  WORD TextPos = 0;
  WORD TextEnd = 0;
  WORD LastMatchLen = 0;
  WORD LastMatchPos = 0;
  WORD MatchPos = 0;
  WORD MatchLen = 0;
  DWORD Remainder = 0;
  WORD MaxMatch = 0;
  WORD DicSize = 0;
  WORD DicMask = 0;
  BYTE DicBits = 0;
  // The chains: 8192 of them (mask 0x1FFF, 13 bits). HashShift is the
  // classic spacing of a parent's chains; the chain function in lz_tree.h
  // spreads parents further apart, which gives the same tree.
  WORD HashSize = 0;
  WORD HashMask = 0;
  BYTE HashBits = 0;
  BYTE HashShift = 0;
  WORD MinMatch = 3;

  // Progress context, filled in by the drivers when progress is wanted.
  CArchiveFile* Host = nullptr;
  const WCHAR* NotifyArg1 = nullptr;
  const WCHAR* NotifyArg2 = nullptr;
  const WCHAR* NotifyArg3 = nullptr;
  const CArchiveEntry* NotifyEntry = nullptr;
  const CArchiveSize* NotifySize = nullptr;
  CArchiveSize* NotifyCount = nullptr;
  DWORD Compressing = 0;
  DWORD Aborted = 0;

protected:
  // Removes the oldest string (leaf Pos) and inserts the one at TextPos,
  // leaving the longest earlier match for it in MatchLen and MatchPos.
  void UpdateDictionary();

private:
  // An empty tree for `positions` positions entered from the first one on;
  // enough positions to reach the window's end get the whole tree.
  void InitTree(unsigned positions);
  void Notify(DWORD count, bool compressing);
  BOOL Conclude(bool endOk, const CFileIO* destination, DWORD e, DWORD* error) const;
  BOOL OnFile(HANDLE file, CFileBit* bits, DWORD* crc, DWORD* error, BOOL notify,
              const CArchiveSize* limit, bool encoding);

  template <class Coder, class Shape>
  BOOL EncodeLoop(Coder& coder, CFileIO* source, CFileBit* destination, DWORD* error, Shape shape);
  template <class Coder>
  int DecodeLoop(Coder& coder, CFileIO* destination, CFileBit* source, DWORD& e);
  friend struct VirtualCoder;
  friend struct FormatOneCoder;
};
