// Entry records and their strings on the open volume: reading, writing and
// sizing them.
//
// A record is a 64-byte fixed part, the folder path and the name as counted
// UTF-16LE strings, a 4-byte security block length and the block itself;
// its stored data follows at the record's header size H. Writers produce
// H exactly; readers accept a larger H and skip what they do not consume.
#include "archive/archive_data.h"
#include "archive/volume_io.h"

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

using namespace volume_io;

namespace {

constexpr DWORD kFixedPart = 64;
constexpr std::uint64_t kMaxHeaderSize = 0xFFFFFFFFu;
constexpr int kNameCapacity = MAX_PATH; // cFileName, terminator included

// Offsets inside the fixed part of a record.
enum : DWORD {
  kOffHeaderSize = 0,
  kOffCompressType = 4,
  kOffCrc = 8,
  kOffAttributes = 12,
  kOffCreation = 16,
  kOffLastAccess = 24,
  kOffLastWrite = 32,
  kOffSizeLow = 40,
  kOffSizeHigh = 44,
  kOffPackedSize = 48,
  kOffDataSize = 56,
};

FILETIME ToFileTime(std::uint64_t v) {
  return FILETIME{static_cast<DWORD>(v), static_cast<DWORD>(v >> 32)};
}
std::uint64_t FromFileTime(const FILETIME& t) {
  return (static_cast<std::uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

// Length of a string in code units as the format stores it: the low 16 bits.
DWORD StoredLength(const WCHAR* text) {
  return text != nullptr ? static_cast<DWORD>(lstrlenW(text)) & 0xFFFFu : 0;
}

// Length of the entry's own name: up to its terminator, never past the
// 260 code units of cFileName.
DWORD NameLength(const WIN32_FIND_DATAW& data) {
  DWORD n = 0;
  while (n < static_cast<DWORD>(kNameCapacity) && data.cFileName[n] != 0) ++n;
  return n;
}

// Appends a counted UTF-16LE string (count already reduced to 16 bits).
void AppendString(std::vector<BYTE>& out, const WCHAR* text, DWORD count) {
  const size_t at = out.size();
  out.resize(at + 2 + 2 * static_cast<size_t>(count));
  PutLE16(out.data() + at, static_cast<std::uint16_t>(count));
  for (DWORD i = 0; i < count; ++i) PutLE16(out.data() + at + 2 + 2 * i, text[i]);
}

// Adds b to a, reporting a carry out of 64 bits.
bool AddChecked(std::uint64_t& a, std::uint64_t b) {
  const std::uint64_t sum = a + b;
  const bool carry = sum < a;
  a = sum;
  return !carry;
}

// Reads ahead from a record's start: enough for the records and the data
// of small entries that follow it.
constexpr DWORD kRecordReadAhead = 65536;

// Where DoReadEntry takes a record's bytes from, in order: the read-ahead
// of a volume opened for reading only, else the file at its position.
class RecordBytes {
public:
  RecordBytes(CArchiveFileData& data, std::uint64_t position, std::uint64_t available)
      : data_(data), next_(position), end_(position + available) {}

  // Positions the file (for reading it directly). False with the last error.
  bool Start() { return data_.UsesReadAhead() || SeekTo(data_.Handle, next_); }

  // Exactly count bytes; false with the last error of the failing read, or
  // ERROR_SEEK_ON_DEVICE when the bytes end first.
  bool Read(BYTE* out, DWORD count) {
    if (count == 0) return true;
    if (!data_.UsesReadAhead()) return ReadAll(data_.Handle, out, count, ERROR_SEEK_ON_DEVICE);
    const BYTE* bytes = data_.ReadAheadBytes(next_, count, std::max(end_, next_ + count));
    if (bytes == nullptr) return false;
    std::copy_n(bytes, count, out);
    next_ += count;
    return true;
  }

private:
  CArchiveFileData& data_;
  std::uint64_t next_;
  std::uint64_t end_;
};

// A counted string, its bytes taken by read(buffer, count): the budget is
// checked before each part, the text allocated before its bytes are checked
// against the budget. False with the last error set.
template <class Read> bool ReadCountedString(Read read, std::uint64_t& budget, CString& text) {
  text.clear();
  if (budget < 2) {
    SetLastError(ERROR_SEEK_ON_DEVICE);
    return false;
  }
  budget -= 2;
  BYTE count[2];
  if (!read(count, 2)) return false;
  const DWORD n = GetLE16(count);
  if (n == 0) return true;
  std::vector<BYTE> bytes;
  CString result;
  try {
    bytes.resize(2 * static_cast<size_t>(n));
    result.resize(n);
  } catch (const std::bad_alloc&) {
    SetLastError(ERROR_OUTOFMEMORY);
    return false;
  }
  if (budget < 2ull * n) {
    SetLastError(ERROR_SEEK_ON_DEVICE);
    return false;
  }
  budget -= 2ull * n;
  if (!read(bytes.data(), 2 * n)) return false;
  for (DWORD i = 0; i < n; ++i) result[i] = static_cast<WCHAR>(GetLE16(bytes.data() + 2 * i));
  text = std::move(result);
  return true;
}

} // namespace

// ---- Read-ahead --------------------------------------------------------------------------

const BYTE* CArchiveFileData::ReadAheadBytes(std::uint64_t position, DWORD count,
                                             std::uint64_t end) {
  const BYTE* held = nullptr;
  if (HeldBytes(position, count, held)) return held;
  // A block still lent out stays as it is; the new bytes go into another.
  if (!ReadAhead || ReadAhead.use_count() > 1) ReadAhead = std::make_shared<std::vector<BYTE>>();
  const std::uint64_t want =
      std::max<std::uint64_t>(count, std::min<std::uint64_t>(kRecordReadAhead, end - position));
  DWORD got = 0;
  try {
    ReadAhead->resize(static_cast<size_t>(want));
  } catch (const std::bad_alloc&) {
    ReadAhead.reset();
    SetLastError(ERROR_OUTOFMEMORY);
    return nullptr;
  }
  ReadAheadStart = position;
  const bool read = SeekTo(Handle, position) &&
                    ReadFile(Handle, ReadAhead->data(), static_cast<DWORD>(want), &got, nullptr);
  ReadAhead->resize(read ? got : 0);
  if (!read) return nullptr;
  if (got < count) {
    SetLastError(ERROR_SEEK_ON_DEVICE);
    return nullptr;
  }
  return ReadAhead->data();
}

std::shared_ptr<const std::vector<BYTE>>
CArchiveFileData::HeldBytes(std::uint64_t position, std::uint64_t count, const BYTE*& bytes) const {
  if (!ReadAhead || ReadAhead->empty() || position < ReadAheadStart ||
      position - ReadAheadStart > ReadAhead->size() ||
      count > ReadAhead->size() - (position - ReadAheadStart))
    return nullptr;
  bytes = ReadAhead->data() + (position - ReadAheadStart);
  return ReadAhead;
}

// ---- Strings ---------------------------------------------------------------------------

int CArchiveFile::DoReadString(CArchiveSize& budget, CString& text) const {
  std::uint64_t left = budget.GetValue();
  const bool ok = ReadCountedString(
      [&](BYTE* buffer, DWORD count) {
        return ReadAll(m_Data->Handle, buffer, count, ERROR_SEEK_ON_DEVICE);
      },
      left, text);
  budget = left;
  return ok ? 1 : 0;
}

int CArchiveFile::DoReadString(CArchiveSize& budget, WCHAR* buffer, int capacity) const {
  if (buffer != nullptr && capacity >= 1)
    std::fill(buffer, buffer + capacity, static_cast<WCHAR>(0));
  CString text;
  const int ok = DoReadString(budget, text);
  if (ok && buffer != nullptr && capacity >= 2 && !text.empty()) {
    const size_t count = std::min(text.size(), static_cast<size_t>(capacity - 1));
    std::copy_n(text.begin(), count, buffer);
  }
  return ok;
}

int CArchiveFile::DoWriteString(const WCHAR* text) const {
  const DWORD n = StoredLength(text);
  std::vector<BYTE> bytes;
  AppendString(bytes, text, n);
  return WriteAll(m_Data->Handle, bytes.data(), static_cast<DWORD>(bytes.size())) ? 1 : 0;
}

int CArchiveFile::CalcWriteStringSize(CArchiveSize& size, const WCHAR* text) const {
  std::uint64_t value = size.GetValue();
  const bool ok = AddChecked(value, 2) && AddChecked(value, 2ull * StoredLength(text));
  size = value;
  return ok ? 1 : 0;
}

// ---- Records -----------------------------------------------------------------------------

int CArchiveFile::DoReadEntry(const CArchiveOffset& position, const CArchiveSize& available,
                              CArchiveEntry& entry, CArchiveSize* recordSize) {
  // Taken before anything is reset: the caller may pass the entry's own
  // EntryOffset, or one size for the bytes available and the record length.
  const std::uint64_t pos = position.GetValue();
  const std::uint64_t avail = available.GetValue();
  entry.Clear();
  if (recordSize != nullptr) *recordSize = 0;
  auto fail = [&](DWORD code) {
    entry.Clear();
    SetErrorCode(code);
    return 0;
  };

  // The bytes come from the read-ahead where the volume is open for
  // reading only; they are the file's bytes at the same places.
  RecordBytes in(*m_Data, pos, avail);
  if (!in.Start()) return fail(LastErrorOr());
  if (avail < kFixedPart) return fail(ERROR_SEEK_ON_DEVICE);

  BYTE fixed[kFixedPart];
  if (!in.Read(fixed, kFixedPart)) return fail(LastErrorOr());

  const std::uint64_t headerSize = GetLE32(fixed + kOffHeaderSize);
  const std::uint64_t dataSize = GetLE64(fixed + kOffDataSize);
  if (headerSize > avail || dataSize > avail - headerSize || headerSize < kFixedPart)
    return fail(ERROR_SEEK_ON_DEVICE);
  std::uint64_t dataOffset = pos;
  if (!AddChecked(dataOffset, headerSize)) return fail(ERROR_SEEK_ON_DEVICE);

  entry.EntryOffset = pos;
  entry.DataOffset = dataOffset;
  entry.DataSize = dataSize;
  entry.PackedSize = GetLE64(fixed + kOffPackedSize);
  entry.CompressType = GetLE32(fixed + kOffCompressType);
  entry.Crc = GetLE32(fixed + kOffCrc);
  WIN32_FIND_DATAW& fd = entry.FindData;
  fd.dwFileAttributes = GetLE32(fixed + kOffAttributes);
  fd.ftCreationTime = ToFileTime(GetLE64(fixed + kOffCreation));
  fd.ftLastAccessTime = ToFileTime(GetLE64(fixed + kOffLastAccess));
  fd.ftLastWriteTime = ToFileTime(GetLE64(fixed + kOffLastWrite));
  fd.nFileSizeLow = GetLE32(fixed + kOffSizeLow);
  fd.nFileSizeHigh = GetLE32(fixed + kOffSizeHigh);

  std::uint64_t left = headerSize - kFixedPart;
  const auto fromRecord = [&](BYTE* buffer, DWORD count) { return in.Read(buffer, count); };
  if (!ReadCountedString(fromRecord, left, entry.Path)) return fail(LastErrorOr());

  std::fill(std::begin(fd.cFileName), std::end(fd.cFileName), static_cast<WCHAR>(0));
  CString name;
  if (!ReadCountedString(fromRecord, left, name)) return fail(LastErrorOr());
  std::copy_n(name.begin(), std::min(name.size(), static_cast<size_t>(kNameCapacity - 1)),
              fd.cFileName);

  if (left < 4) return fail(ERROR_SEEK_ON_DEVICE);
  BYTE lengthBytes[4];
  if (!in.Read(lengthBytes, 4)) return fail(LastErrorOr());
  const DWORD blockLength = GetLE32(lengthBytes);
  const std::uint64_t blockRoom = left - 4;

  if (entry.Security == nullptr) {
    entry.Security = new (std::nothrow) CArchiveSecurity();
    if (entry.Security == nullptr) return fail(ERROR_OUTOFMEMORY);
  }
  if (blockLength != 0) {
    // The length is tested against the header before anything is allocated,
    // so that a damaged length cannot ask for gigabytes.
    if (blockLength > blockRoom) return fail(ERROR_SEEK_ON_DEVICE);
    std::unique_ptr<BYTE[]> block(new (std::nothrow) BYTE[blockLength]);
    if (!block) return fail(ERROR_OUTOFMEMORY);
    std::fill_n(block.get(), blockLength, BYTE{0});
    if (!in.Read(block.get(), blockLength)) return fail(LastErrorOr());
    entry.Security->Data = block.release();
    entry.Security->Length = blockLength;
  }

  if (recordSize != nullptr) *recordSize = headerSize + dataSize;
  return 1;
}

DWORD ComposeEntryRecord(const CArchiveEntry& entry, std::uint64_t dataSize,
                         std::vector<BYTE>& record) {
  const DWORD pathLength = StoredLength(entry.Path.c_str());
  const DWORD nameLength = NameLength(entry.FindData) & 0xFFFFu;
  const bool hasBlock = entry.Security != nullptr && entry.Security->Data != nullptr;
  const DWORD blockLength = hasBlock ? entry.Security->Length : 0;

  std::uint64_t headerSize = kFixedPart;
  if (!AddChecked(headerSize, 2 + 2ull * pathLength) ||
      !AddChecked(headerSize, 2 + 2ull * nameLength) || !AddChecked(headerSize, 4) ||
      !AddChecked(headerSize, blockLength) || headerSize > kMaxHeaderSize)
    return ERROR_SEEK_ON_DEVICE;

  record.clear();
  try {
    record.reserve(static_cast<size_t>(headerSize));
  } catch (const std::bad_alloc&) {
    return ERROR_OUTOFMEMORY;
  }
  record.resize(kFixedPart);
  BYTE* fixed = record.data();
  const WIN32_FIND_DATAW& fd = entry.FindData;
  PutLE32(fixed + kOffHeaderSize, static_cast<DWORD>(headerSize));
  PutLE32(fixed + kOffCompressType, entry.CompressType);
  PutLE32(fixed + kOffCrc, entry.Crc);
  PutLE32(fixed + kOffAttributes, fd.dwFileAttributes);
  PutLE64(fixed + kOffCreation, FromFileTime(fd.ftCreationTime));
  PutLE64(fixed + kOffLastAccess, FromFileTime(fd.ftLastAccessTime));
  PutLE64(fixed + kOffLastWrite, FromFileTime(fd.ftLastWriteTime));
  PutLE32(fixed + kOffSizeLow, fd.nFileSizeLow);
  PutLE32(fixed + kOffSizeHigh, fd.nFileSizeHigh);
  PutLE64(fixed + kOffPackedSize, entry.PackedSize.GetValue());
  PutLE64(fixed + kOffDataSize, dataSize);
  AppendString(record, entry.Path.c_str(), pathLength);
  AppendString(record, fd.cFileName, nameLength);
  const size_t at = record.size();
  record.resize(at + 4);
  PutLE32(record.data() + at, blockLength);
  if (blockLength != 0)
    record.insert(record.end(), entry.Security->Data, entry.Security->Data + blockLength);
  return ERROR_SUCCESS;
}

int CArchiveFile::DoWriteEntry(CArchiveEntry& entry, CArchiveSize* recordSize) {
  if (recordSize != nullptr) *recordSize = 0;
  const std::uint64_t entryOffset = entry.EntryOffset.GetValue();
  entry.DataOffset = entryOffset;
  const HANDLE file = m_Data->Handle;
  if (!SeekTo(file, entryOffset)) {
    SetErrorCode(LastErrorOr());
    return 0;
  }

  // The record goes out in one write, so that a medium without room for it
  // takes none of it.
  std::vector<BYTE> record;
  if (const DWORD code = ComposeEntryRecord(entry, entry.DataSize.GetValue(), record)) {
    SetErrorCode(code);
    return 0;
  }
  const std::uint64_t headerSize = record.size();

  const DWORD limit = m_Data->EffectiveLimit();
  if (limit != 0 && limit != 0xFFFFFFFFu) {
    std::uint64_t end = entryOffset;
    if (!AddChecked(end, headerSize)) {
      SetErrorCode(ERROR_SEEK_ON_DEVICE);
      return 0;
    }
    if (end > limit) {
      SetErrorCode(ERROR_DISK_FULL);
      return 0;
    }
  }

  // When the record went out with its data already, this only moves past it.
  if (m_Data->EntryWrittenAhead) {
    if (!SkipAhead(file, static_cast<DWORD>(headerSize))) {
      SetErrorCode(LastErrorOr());
      return 0;
    }
  } else if (!WriteAll(file, record.data(), static_cast<DWORD>(record.size()))) {
    SetErrorCode(LastErrorOr());
    return 0;
  }

  std::uint64_t dataOffset = entryOffset;
  const bool offsetFits = AddChecked(dataOffset, headerSize);
  std::uint64_t recordEnd = dataOffset;
  if (!offsetFits || !AddChecked(recordEnd, entry.DataSize.GetValue())) {
    SetErrorCode(ERROR_SEEK_ON_DEVICE);
    return 0;
  }
  entry.DataOffset = dataOffset;
  // Cannot carry: it is at most recordEnd.
  if (recordSize != nullptr) *recordSize = headerSize + entry.DataSize.GetValue();
  if (recordEnd > m_Data->Header.ArchiveSize) {
    m_Data->Header.ArchiveSize = recordEnd;
    m_Data->Flags |= FlagHeaderDirty;
  }
  return 1;
}
