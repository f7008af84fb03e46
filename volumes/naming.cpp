// Volume file names, media identity, removable drives and cluster sizes.
#include "volumes/naming.h"

#include "archive/archive_data.h"
#include "foundation/paths.h"
#include "volumes/media_query.h"

namespace {

constexpr DWORD kMaxVolumeFileNumber = 0xFFF;
// Room for the number of a renumbered disk folder.
constexpr int kMaxDiskFolderDigits = 19;
constexpr DWORD kLabelCapacity = MAX_PATH + 1;

bool IsDigit(WCHAR c) { return c >= u'0' && c <= u'9'; }

// Decimal text of value, zero-padded to at least width digits.
CString PaddedDecimal(std::uint64_t value, int width) {
  CString digits;
  do {
    digits.insert(digits.begin(), static_cast<WCHAR>(u'0' + value % 10));
    value /= 10;
  } while (value != 0);
  if (static_cast<int>(digits.size()) < width)
    digits.insert(0, static_cast<size_t>(width) - digits.size(), u'0');
  return digits;
}

// The folder text[start, end) is a disk folder: DISK or DISC in any case,
// then decimal digits only. On success prefixEnd is the index after the
// four-character prefix.
bool IsDiskFolder(const CString& text, int start, int end, int& prefixEnd) {
  int i = start;
  for (int count = 0; count < 4; ++count) {
    if (i >= end) return false;
    i = NextCharIndex(text, i);
  }
  if (i > end || i - start != 4) return false;
  const CString prefix = text.substr(static_cast<size_t>(start), 4);
  if (lstrcmpiW(prefix.c_str(), WTEXT("DISK")) != 0 &&
      lstrcmpiW(prefix.c_str(), WTEXT("DISC")) != 0)
    return false;
  for (int j = i; j < end; ++j)
    if (!IsDigit(text[static_cast<size_t>(j)])) return false;
  prefixEnd = i;
  return true;
}

} // namespace

int BuildVolumeName(CString& name, DWORD number, int advanceDiskFolder) {
  if (number > kMaxVolumeFileNumber) return 0;
  static const WCHAR kHex[] = WTEXT("0123456789ABCDEF");
  name += u'.';
  name += kHex[(number >> 8) & 0xF];
  name += kHex[(number >> 4) & 0xF];
  name += kHex[number & 0xF];
  if (!advanceDiskFolder || name.empty()) return 1;

  // The folder that holds the volume file: between the last two separators.
  const int last = FindLastSeparator(name, 1, -1);
  if (last < 0) return 1;
  const int start = FindLastSeparator(name, 0, last);
  if (start < 0) return 1;
  int digitsStart = 0;
  if (!IsDiskFolder(name, start, last, digitsStart)) return 1;

  const int digitCount = last - digitsStart;
  std::uint64_t value = 0;
  for (int j = digitsStart; j < last; ++j)
    value = value * 10 + (name[static_cast<size_t>(j)] - u'0');
  // The folder number is a 32-bit count: a folder whose number (or its
  // successor) does not fit, or whose digits do not fit the room for the
  // new number, is left as it is and the volume stays beside the previous
  // one.
  if (digitCount > kMaxDiskFolderDigits || value >= 0xFFFFFFFFull) return 1;
  const CString next = PaddedDecimal(value + 1, digitCount);
  if (static_cast<int>(next.size()) > kMaxDiskFolderDigits) return 1;
  name.replace(static_cast<size_t>(digitsStart), static_cast<size_t>(digitCount), next);
  return 1;
}

BOOL QueryVolumeInformationQuietly(const WCHAR* root, WCHAR* label, DWORD labelSize, DWORD* serial,
                                   DWORD* flags) {
  const UINT previous = SetErrorMode(SEM_FAILCRITICALERRORS);
  SetErrorMode(previous | SEM_FAILCRITICALERRORS);
  const BOOL ok = GetVolumeInformationW(root, label, labelSize, serial, nullptr, flags, nullptr, 0);
  const DWORD error = GetLastError();
  SetErrorMode(previous);
  SetLastError(error);
  return ok;
}

DWORD GetClusterSize(const WCHAR* root) {
  DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, totalClusters = 0;
  if (!GetDiskFreeSpaceW(root, &sectorsPerCluster, &bytesPerSector, &freeClusters, &totalClusters))
    return 0;
  const std::uint64_t size = static_cast<std::uint64_t>(sectorsPerCluster) * bytesPerSector;
  if (size == 0 || size > 0xFFFFFFFFull) return 0;
  return static_cast<DWORD>(size);
}

DWORD VolumeClusterSize(CArchiveFileData& data, const WCHAR* root) {
  if (data.Handle == INVALID_HANDLE_VALUE) return GetClusterSize(root);
  if (data.ClusterSize == 0 || data.ClusterRoot != root) {
    data.ClusterRoot = root;
    data.ClusterSize = GetClusterSize(root);
  }
  return data.ClusterSize;
}

int CArchiveFile::IsRemovable(int forWriting, const WCHAR* root) const {
  CString own;
  if (root == nullptr) {
    own = BuildRootPath(m_Data->ArchiveName.c_str());
    if (own.empty()) return 0;
    root = own.c_str();
  }
  const UINT type = GetDriveTypeW(root);
  return type == DRIVE_REMOVABLE || (type == DRIVE_CDROM && !forWriting) ? 1 : 0;
}

int CArchiveFile::GetMediaInfo(DWORD& serial, DWORD& flags, CString* label,
                               const WCHAR* path) const {
  // The root first: path may be the label's own text, which is emptied below.
  const CString root = BuildRootPath(path != nullptr ? path : m_Data->ArchiveName.c_str());
  serial = 0;
  flags = 0;
  if (label != nullptr) label->clear();
  if (root.empty()) return 0;

  WCHAR buffer[kLabelCapacity] = {};
  const BOOL ok =
      QueryVolumeInformationQuietly(root.c_str(), label != nullptr ? buffer : nullptr,
                                    label != nullptr ? kLabelCapacity : 0, &serial, &flags);

  if (!ok) {
    serial = 0;
    flags = 0;
  }
  if (label != nullptr) {
    if (ok) {
      *label = buffer;
    } else {
      CString upper = root;
      CharUpperW(upper.data());
      *label = upper;
    }
  }
  return ok;
}

int CArchiveFile::IsSameMedia(DWORD serial1, DWORD serial2, DWORD flags1, DWORD flags2,
                              const WCHAR* label1, const WCHAR* label2) const {
  if (serial1 != serial2 || flags1 != flags2) return 0;
  static const WCHAR kEmpty[] = {0};
  return lstrcmpW(label1 != nullptr ? label1 : kEmpty, label2 != nullptr ? label2 : kEmpty) == 0
             ? 1
             : 0;
}

DWORD CArchiveFile::GetDiskNo() const {
  return IsOpen() ? static_cast<DWORD>(m_Data->Header.VolumeWord & VolumeHeader::NumberMask) : 0;
}
