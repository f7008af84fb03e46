// The Win32 API subset that talvern and its hosts use.
//
// On Windows this is the system's own API. Everywhere else the talvern
// library supplies these functions itself, over POSIX, with the behaviour
// documented in docs/platform.md: the rest of the library is written as if
// it ran on Windows so that it stays one code base for both.
#pragma once

#include <talvern/export.h>

#include <cstdint>
#include <string>

#if defined(_WIN32)

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winioctl.h>

// Wide string literal in the platform's WCHAR type.
#define WTEXT(x) L"" x

using CString = std::basic_string<WCHAR>;

#else // !_WIN32

// ---------------------------------------------------------------------------
// Types
// ---------------------------------------------------------------------------

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using ULONG = std::uint32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using INT = int;
using BOOL = int;
using BOOLEAN = std::uint8_t;
using UCHAR = std::uint8_t;
using USHORT = std::uint16_t;
using WCHAR = char16_t;
using DWORD64 = std::uint64_t;
using ULONGLONG = std::uint64_t;
using LONGLONG = std::int64_t;
using SIZE_T = std::size_t;
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = std::uintptr_t;

using HANDLE = void*;
using PHANDLE = HANDLE*;
using LPVOID = void*;
using LPCVOID = const void*;
using PVOID = void*;
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;
using LPDWORD = DWORD*;
using PDWORD = DWORD*;
using PLONG = LONG*;
using LPBYTE = BYTE*;
using LPBOOL = BOOL*;
using PBOOL = BOOL*;
using PUCHAR = UCHAR*;

// Wide string literal in the platform's WCHAR type.
#define WTEXT(x) u"" x

// The library's wide string: UTF-16 code units with value semantics.
using CString = std::basic_string<WCHAR>;

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define MAXDWORD 0xFFFFFFFFu
#define WINAPI

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(~static_cast<std::uintptr_t>(0)))
#define INVALID_FILE_ATTRIBUTES (static_cast<DWORD>(0xFFFFFFFFu))
#define INVALID_FILE_SIZE (static_cast<DWORD>(0xFFFFFFFFu))
#define INVALID_SET_FILE_POINTER (static_cast<DWORD>(0xFFFFFFFFu))

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
using PFILETIME = FILETIME*;
using LPFILETIME = FILETIME*;

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME*;

struct WIN32_FIND_DATAW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[MAX_PATH];
  WCHAR cAlternateFileName[14];
};
// What a handle's file or folder is: attributes, times, size, and the
// volume serial number and file index that together name it on the system.
struct BY_HANDLE_FILE_INFORMATION {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD dwVolumeSerialNumber;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD nNumberOfLinks;
  DWORD nFileIndexHigh;
  DWORD nFileIndexLow;
};
using LPBY_HANDLE_FILE_INFORMATION = BY_HANDLE_FILE_INFORMATION*;

using LPWIN32_FIND_DATAW = WIN32_FIND_DATAW*;
using PWIN32_FIND_DATAW = WIN32_FIND_DATAW*;

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;
using PSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

struct OVERLAPPED;
using LPOVERLAPPED = OVERLAPPED*;

struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress;
  LPVOID lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};
using LPSYSTEM_INFO = SYSTEM_INFO*;

struct PREVENT_MEDIA_REMOVAL {
  BOOLEAN PreventMediaRemoval;
};

// --- Security types (the binary layouts Windows publishes) -----------------

struct LUID {
  DWORD LowPart;
  LONG HighPart;
};
using PLUID = LUID*;

struct LUID_AND_ATTRIBUTES {
  LUID Luid;
  DWORD Attributes;
};

struct TOKEN_PRIVILEGES {
  DWORD PrivilegeCount;
  LUID_AND_ATTRIBUTES Privileges[1];
};
using PTOKEN_PRIVILEGES = TOKEN_PRIVILEGES*;

struct SID_IDENTIFIER_AUTHORITY {
  BYTE Value[6];
};
using PSID_IDENTIFIER_AUTHORITY = SID_IDENTIFIER_AUTHORITY*;

// A SID: revision 1, sub-authority count, 6-byte authority (big-endian), then
// the sub-authorities as little-endian 32-bit values.
struct SID {
  BYTE Revision;
  BYTE SubAuthorityCount;
  SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
  DWORD SubAuthority[1];
};
using PSID = void*;

struct ACL {
  BYTE AclRevision;
  BYTE Sbz1;
  WORD AclSize;
  WORD AceCount;
  WORD Sbz2;
};
using PACL = ACL*;

struct ACE_HEADER {
  BYTE AceType;
  BYTE AceFlags;
  WORD AceSize;
};
using PACE_HEADER = ACE_HEADER*;

using ACCESS_MASK = DWORD;

struct ACCESS_ALLOWED_ACE {
  ACE_HEADER Header;
  ACCESS_MASK Mask;
  DWORD SidStart;
};
struct ACCESS_DENIED_ACE {
  ACE_HEADER Header;
  ACCESS_MASK Mask;
  DWORD SidStart;
};
struct SYSTEM_AUDIT_ACE {
  ACE_HEADER Header;
  ACCESS_MASK Mask;
  DWORD SidStart;
};

enum ACL_INFORMATION_CLASS { AclRevisionInformation = 1, AclSizeInformation = 2 };

struct ACL_REVISION_INFORMATION {
  DWORD AclRevision;
};
struct ACL_SIZE_INFORMATION {
  DWORD AceCount;
  DWORD AclBytesInUse;
  DWORD AclBytesFree;
};

using SECURITY_DESCRIPTOR_CONTROL = WORD;
using PSECURITY_DESCRIPTOR_CONTROL = WORD*;
using SECURITY_INFORMATION = DWORD;
using PSECURITY_INFORMATION = DWORD*;

// Absolute form: the pointers point anywhere in memory.
struct SECURITY_DESCRIPTOR {
  BYTE Revision;
  BYTE Sbz1;
  SECURITY_DESCRIPTOR_CONTROL Control;
  PSID Owner;
  PSID Group;
  PACL Sacl;
  PACL Dacl;
};

// Self-relative form: the parts follow the header, located by byte offsets.
struct SECURITY_DESCRIPTOR_RELATIVE {
  BYTE Revision;
  BYTE Sbz1;
  SECURITY_DESCRIPTOR_CONTROL Control;
  DWORD Owner;
  DWORD Group;
  DWORD Sacl;
  DWORD Dacl;
};
using PSECURITY_DESCRIPTOR = void*;

// ---------------------------------------------------------------------------
// Constants
// ---------------------------------------------------------------------------

// Error codes
#define ERROR_SUCCESS 0u
#define NO_ERROR 0u
#define ERROR_INVALID_FUNCTION 1u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_DATA 13u
#define ERROR_OUTOFMEMORY 14u
#define ERROR_INVALID_DRIVE 15u
#define ERROR_NOT_SAME_DEVICE 17u
#define ERROR_NO_MORE_FILES 18u
#define ERROR_WRITE_PROTECT 19u
#define ERROR_NOT_READY 21u
#define ERROR_CRC 23u
#define ERROR_BAD_LENGTH 24u
#define ERROR_SEEK 25u
#define ERROR_WRITE_FAULT 29u
#define ERROR_READ_FAULT 30u
#define ERROR_GEN_FAILURE 31u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_LOCK_VIOLATION 33u
#define ERROR_WRONG_DISK 34u
#define ERROR_HANDLE_EOF 38u
#define ERROR_HANDLE_DISK_FULL 39u
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_BAD_NETPATH 53u
#define ERROR_FILE_EXISTS 80u
#define ERROR_CANNOT_MAKE 82u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_BROKEN_PIPE 109u
#define ERROR_OPEN_FAILED 110u
#define ERROR_BUFFER_OVERFLOW 111u
#define ERROR_DISK_FULL 112u
#define ERROR_CALL_NOT_IMPLEMENTED 120u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_NEGATIVE_SEEK 131u
#define ERROR_SEEK_ON_DEVICE 132u
#define ERROR_DIR_NOT_EMPTY 145u
#define ERROR_PATH_BUSY 148u
#define ERROR_BAD_PATHNAME 161u
#define ERROR_NOT_LOCKED 158u
#define ERROR_BUSY 170u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_FILE_TOO_LARGE 223u
#define ERROR_DIRECTORY 267u
#define ERROR_INVALID_ADDRESS 487u
#define ERROR_OPERATION_ABORTED 995u
#define ERROR_NOACCESS 998u
#define ERROR_UNRECOGNIZED_VOLUME 1005u
#define ERROR_FILE_INVALID 1006u
#define ERROR_NO_TOKEN 1008u
#define ERROR_IO_DEVICE 1117u
#define ERROR_MAPPED_ALIGNMENT 1132u
#define ERROR_TOO_MANY_LINKS 1142u
#define ERROR_CANCELLED 1223u
#define ERROR_NOT_ALL_ASSIGNED 1300u
#define ERROR_UNKNOWN_REVISION 1305u
#define ERROR_REVISION_MISMATCH 1306u
#define ERROR_INVALID_OWNER 1307u
#define ERROR_INVALID_PRIMARY_GROUP 1308u
#define ERROR_NO_SUCH_PRIVILEGE 1313u
#define ERROR_PRIVILEGE_NOT_HELD 1314u
#define ERROR_NONE_MAPPED 1332u
#define ERROR_INVALID_ACL 1336u
#define ERROR_INVALID_SID 1337u
#define ERROR_INVALID_SECURITY_DESCR 1338u
#define ERROR_ALLOTTED_SPACE_EXCEEDED 1344u
#define ERROR_BAD_DESCRIPTOR_FORMAT 1361u
#define RPC_S_SERVER_UNAVAILABLE 1722u
#define ERROR_INVALID_USER_BUFFER 1784u
#define ERROR_INVALID_DATATYPE 1804u
#define ERROR_CANT_RESOLVE_FILENAME 1921u

// Access rights
#define DELETE 0x00010000u
#define READ_CONTROL 0x00020000u
#define WRITE_DAC 0x00040000u
#define WRITE_OWNER 0x00080000u
#define SYNCHRONIZE 0x00100000u
#define STANDARD_RIGHTS_REQUIRED 0x000F0000u
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000u
#define ACCESS_SYSTEM_SECURITY 0x01000000u
#define MAXIMUM_ALLOWED 0x02000000u
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u

#define FILE_READ_DATA 0x0001u
#define FILE_LIST_DIRECTORY 0x0001u
#define FILE_WRITE_DATA 0x0002u
#define FILE_ADD_FILE 0x0002u
#define FILE_APPEND_DATA 0x0004u
#define FILE_ADD_SUBDIRECTORY 0x0004u
#define FILE_READ_EA 0x0008u
#define FILE_WRITE_EA 0x0010u
#define FILE_EXECUTE 0x0020u
#define FILE_TRAVERSE 0x0020u
#define FILE_DELETE_CHILD 0x0040u
#define FILE_READ_ATTRIBUTES 0x0080u
#define FILE_WRITE_ATTRIBUTES 0x0100u
#define FILE_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FFu)
#define FILE_GENERIC_READ                                                                          \
  (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE                                                                         \
  (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA |               \
   FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE                                                                       \
  (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

// Sharing, dispositions, attributes and flags of CreateFileW
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u

#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u

#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_SYSTEM 0x00000004u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_DEVICE 0x00000040u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_ATTRIBUTE_TEMPORARY 0x00000100u
#define FILE_ATTRIBUTE_SPARSE_FILE 0x00000200u
#define FILE_ATTRIBUTE_REPARSE_POINT 0x00000400u
#define FILE_ATTRIBUTE_COMPRESSED 0x00000800u
#define FILE_ATTRIBUTE_OFFLINE 0x00001000u
#define FILE_ATTRIBUTE_NOT_CONTENT_INDEXED 0x00002000u
#define FILE_ATTRIBUTE_ENCRYPTED 0x00004000u

#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_NO_BUFFERING 0x20000000u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000u
#define FILE_FLAG_POSIX_SEMANTICS 0x01000000u
#define FILE_FLAG_OPEN_REPARSE_POINT 0x00200000u

// Reparse tag that searches report in dwReserved0 for a symbolic link.
#define IO_REPARSE_TAG_SYMLINK 0xA000000Cu

#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

// File mapping
#define PAGE_READONLY 0x02u
#define PAGE_READWRITE 0x04u
#define PAGE_WRITECOPY 0x08u
#define FILE_MAP_COPY 0x0001u
#define FILE_MAP_WRITE 0x0002u
#define FILE_MAP_READ 0x0004u
#define FILE_MAP_ALL_ACCESS 0x000F001Fu

// Processor architectures reported by GetSystemInfo
#define PROCESSOR_ARCHITECTURE_INTEL 0u
#define PROCESSOR_ARCHITECTURE_ARM 5u
#define PROCESSOR_ARCHITECTURE_AMD64 9u
#define PROCESSOR_ARCHITECTURE_ARM64 12u
#define PROCESSOR_ARCHITECTURE_UNKNOWN 0xFFFFu

// Drives, volumes and devices
#define DRIVE_UNKNOWN 0u
#define DRIVE_NO_ROOT_DIR 1u
#define DRIVE_REMOVABLE 2u
#define DRIVE_FIXED 3u
#define DRIVE_REMOTE 4u
#define DRIVE_CDROM 5u
#define DRIVE_RAMDISK 6u

#define SEM_FAILCRITICALERRORS 0x0001u
#define SEM_NOGPFAULTERRORBOX 0x0002u
#define SEM_NOALIGNMENTFAULTEXCEPT 0x0004u
#define SEM_NOOPENFILEERRORBOX 0x8000u

#define FILE_CASE_SENSITIVE_SEARCH 0x00000001u
#define FILE_CASE_PRESERVED_NAMES 0x00000002u
#define FILE_UNICODE_ON_DISK 0x00000004u
#define FILE_PERSISTENT_ACLS 0x00000008u
#define FILE_READ_ONLY_VOLUME 0x00080000u

#define FSCTL_LOCK_VOLUME 0x00090018u
#define FSCTL_UNLOCK_VOLUME 0x0009001Cu
#define FSCTL_DISMOUNT_VOLUME 0x00090020u
#define IOCTL_DISK_MEDIA_REMOVAL 0x00074804u
#define IOCTL_DISK_EJECT_MEDIA 0x00074808u
#define IOCTL_DISK_LOAD_MEDIA 0x0007480Cu

// Tokens, privileges and security information
#define TOKEN_ASSIGN_PRIMARY 0x0001u
#define TOKEN_DUPLICATE 0x0002u
#define TOKEN_IMPERSONATE 0x0004u
#define TOKEN_QUERY 0x0008u
#define TOKEN_QUERY_SOURCE 0x0010u
#define TOKEN_ADJUST_PRIVILEGES 0x0020u
#define TOKEN_ADJUST_GROUPS 0x0040u
#define TOKEN_ADJUST_DEFAULT 0x0080u

#define SE_PRIVILEGE_ENABLED_BY_DEFAULT 0x00000001u
#define SE_PRIVILEGE_ENABLED 0x00000002u
#define SE_PRIVILEGE_REMOVED 0x00000004u

#define SE_SECURITY_NAME u"SeSecurityPrivilege"
#define SE_BACKUP_NAME u"SeBackupPrivilege"
#define SE_RESTORE_NAME u"SeRestorePrivilege"
#define SE_TAKE_OWNERSHIP_NAME u"SeTakeOwnershipPrivilege"
#define SE_CHANGE_NOTIFY_NAME u"SeChangeNotifyPrivilege"

#define OWNER_SECURITY_INFORMATION 0x00000001u
#define GROUP_SECURITY_INFORMATION 0x00000002u
#define DACL_SECURITY_INFORMATION 0x00000004u
#define SACL_SECURITY_INFORMATION 0x00000008u

#define SECURITY_DESCRIPTOR_REVISION 1u
#define SECURITY_DESCRIPTOR_REVISION1 1u
#define SECURITY_DESCRIPTOR_MIN_LENGTH (sizeof(SECURITY_DESCRIPTOR))

#define SE_OWNER_DEFAULTED 0x0001u
#define SE_GROUP_DEFAULTED 0x0002u
#define SE_DACL_PRESENT 0x0004u
#define SE_DACL_DEFAULTED 0x0008u
#define SE_SACL_PRESENT 0x0010u
#define SE_SACL_DEFAULTED 0x0020u
#define SE_DACL_AUTO_INHERIT_REQ 0x0100u
#define SE_SACL_AUTO_INHERIT_REQ 0x0200u
#define SE_DACL_AUTO_INHERITED 0x0400u
#define SE_SACL_AUTO_INHERITED 0x0800u
#define SE_DACL_PROTECTED 0x1000u
#define SE_SACL_PROTECTED 0x2000u
#define SE_RM_CONTROL_VALID 0x4000u
#define SE_SELF_RELATIVE 0x8000u

#define SID_REVISION 1u
#define SID_MAX_SUB_AUTHORITIES 15u
#define ACL_REVISION 2u
#define ACL_REVISION_DS 4u

#define ACCESS_ALLOWED_ACE_TYPE 0x0u
#define ACCESS_DENIED_ACE_TYPE 0x1u
#define SYSTEM_AUDIT_ACE_TYPE 0x2u
#define SYSTEM_ALARM_ACE_TYPE 0x3u

#define OBJECT_INHERIT_ACE 0x01u
#define CONTAINER_INHERIT_ACE 0x02u
#define NO_PROPAGATE_INHERIT_ACE 0x04u
#define INHERIT_ONLY_ACE 0x08u
#define INHERITED_ACE 0x10u
#define SUCCESSFUL_ACCESS_ACE_FLAG 0x40u
#define FAILED_ACCESS_ACE_FLAG 0x80u

// ---------------------------------------------------------------------------
// Functions
// ---------------------------------------------------------------------------

// Errors
TALVERN_API DWORD GetLastError();
TALVERN_API void SetLastError(DWORD code);

// Files and folders
TALVERN_API HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                               LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                               DWORD flagsAndAttributes, HANDLE templateFile);
TALVERN_API BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                          LPOVERLAPPED overlapped);
TALVERN_API BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
                           LPOVERLAPPED overlapped);
TALVERN_API DWORD SetFilePointer(HANDLE file, LONG distanceToMove, PLONG distanceToMoveHigh,
                                 DWORD moveMethod);
TALVERN_API DWORD GetFileSize(HANDLE file, LPDWORD fileSizeHigh);
TALVERN_API BOOL SetEndOfFile(HANDLE file);
TALVERN_API BOOL FlushFileBuffers(HANDLE file);
TALVERN_API BOOL CloseHandle(HANDLE object);
TALVERN_API BOOL GetFileInformationByHandle(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information);
TALVERN_API BOOL GetFileTime(HANDLE file, LPFILETIME creationTime, LPFILETIME lastAccessTime,
                             LPFILETIME lastWriteTime);
TALVERN_API BOOL SetFileTime(HANDLE file, const FILETIME* creationTime,
                             const FILETIME* lastAccessTime, const FILETIME* lastWriteTime);
TALVERN_API BOOL DeleteFileW(LPCWSTR fileName);
TALVERN_API BOOL MoveFileW(LPCWSTR existingFileName, LPCWSTR newFileName);
TALVERN_API BOOL CreateDirectoryW(LPCWSTR pathName, LPSECURITY_ATTRIBUTES securityAttributes);
TALVERN_API BOOL RemoveDirectoryW(LPCWSTR pathName);
TALVERN_API DWORD GetFileAttributesW(LPCWSTR fileName);
TALVERN_API BOOL SetFileAttributesW(LPCWSTR fileName, DWORD fileAttributes);
TALVERN_API HANDLE FindFirstFileW(LPCWSTR fileName, LPWIN32_FIND_DATAW findData);
// FindFirstFileW with a level of detail and a search operation. The layer
// fills WIN32_FIND_DATAW at both levels; FindExSearchLimitToDirectories
// leaves out the items it knows to be no folder without examining them
// (as on Windows, a caller still checks each result's folder attribute).
// FIND_FIRST_EX_LARGE_FETCH is accepted as a hint; other flags are 87.
enum FINDEX_INFO_LEVELS { FindExInfoStandard = 0, FindExInfoBasic = 1 };
enum FINDEX_SEARCH_OPS {
  FindExSearchNameMatch = 0,
  FindExSearchLimitToDirectories = 1,
  FindExSearchLimitToDevices = 2
};
constexpr DWORD FIND_FIRST_EX_LARGE_FETCH = 0x00000002;
TALVERN_API HANDLE FindFirstFileExW(LPCWSTR fileName, FINDEX_INFO_LEVELS infoLevel, LPVOID findData,
                                    FINDEX_SEARCH_OPS searchOp, LPVOID searchFilter,
                                    DWORD additionalFlags);
TALVERN_API BOOL FindNextFileW(HANDLE findFile, LPWIN32_FIND_DATAW findData);
TALVERN_API BOOL FindClose(HANDLE findFile);
TALVERN_API DWORD GetFullPathNameW(LPCWSTR fileName, DWORD bufferLength, LPWSTR buffer,
                                   LPWSTR* filePart);
TALVERN_API DWORD GetCurrentDirectoryW(DWORD bufferLength, LPWSTR buffer);
TALVERN_API BOOL SetCurrentDirectoryW(LPCWSTR pathName);
TALVERN_API DWORD GetTempPathW(DWORD bufferLength, LPWSTR buffer);
TALVERN_API UINT GetTempFileNameW(LPCWSTR pathName, LPCWSTR prefixString, UINT unique,
                                  LPWSTR tempFileName);

// File mapping
TALVERN_API HANDLE CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protect,
                                      DWORD maximumSizeHigh, DWORD maximumSizeLow, LPCWSTR name);
TALVERN_API LPVOID MapViewOfFile(HANDLE fileMappingObject, DWORD desiredAccess,
                                 DWORD fileOffsetHigh, DWORD fileOffsetLow,
                                 SIZE_T numberOfBytesToMap);
TALVERN_API BOOL UnmapViewOfFile(LPCVOID baseAddress);
TALVERN_API void GetSystemInfo(LPSYSTEM_INFO systemInfo);

// Volumes, media and devices
TALVERN_API UINT GetDriveTypeW(LPCWSTR rootPathName);
TALVERN_API BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer,
                                       DWORD volumeNameSize, LPDWORD volumeSerialNumber,
                                       LPDWORD maximumComponentLength, LPDWORD fileSystemFlags,
                                       LPWSTR fileSystemNameBuffer, DWORD fileSystemNameSize);
TALVERN_API BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster,
                                   LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                                   LPDWORD totalNumberOfClusters);
TALVERN_API UINT SetErrorMode(UINT mode);
TALVERN_API BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, LPVOID inBuffer,
                                 DWORD inBufferSize, LPVOID outBuffer, DWORD outBufferSize,
                                 LPDWORD bytesReturned, LPOVERLAPPED overlapped);

// Strings
TALVERN_API int lstrlenW(LPCWSTR string);
TALVERN_API int lstrcmpW(LPCWSTR string1, LPCWSTR string2);
TALVERN_API int lstrcmpiW(LPCWSTR string1, LPCWSTR string2);
TALVERN_API LPWSTR CharNextW(LPCWSTR current);
TALVERN_API LPWSTR CharUpperW(LPWSTR string);
TALVERN_API int wsprintfW(LPWSTR buffer, LPCWSTR format, ...);

// Time, arithmetic and threads
TALVERN_API void GetSystemTime(LPSYSTEMTIME systemTime);
TALVERN_API BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime);
TALVERN_API BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime);
TALVERN_API LONG CompareFileTime(const FILETIME* fileTime1, const FILETIME* fileTime2);
TALVERN_API int MulDiv(int number, int numerator, int denominator);
TALVERN_API void Sleep(DWORD milliseconds);

// Security
TALVERN_API HANDLE GetCurrentProcess();
TALVERN_API BOOL OpenProcessToken(HANDLE processHandle, DWORD desiredAccess, PHANDLE tokenHandle);
TALVERN_API BOOL LookupPrivilegeValueW(LPCWSTR systemName, LPCWSTR name, PLUID luid);
TALVERN_API BOOL AdjustTokenPrivileges(HANDLE tokenHandle, BOOL disableAllPrivileges,
                                       PTOKEN_PRIVILEGES newState, DWORD bufferLength,
                                       PTOKEN_PRIVILEGES previousState, LPDWORD returnLength);
TALVERN_API BOOL GetFileSecurityW(LPCWSTR fileName, SECURITY_INFORMATION requestedInformation,
                                  PSECURITY_DESCRIPTOR securityDescriptor, DWORD length,
                                  LPDWORD lengthNeeded);
TALVERN_API BOOL IsValidSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor);
TALVERN_API DWORD GetSecurityDescriptorLength(PSECURITY_DESCRIPTOR securityDescriptor);
TALVERN_API BOOL GetSecurityDescriptorControl(PSECURITY_DESCRIPTOR securityDescriptor,
                                              PSECURITY_DESCRIPTOR_CONTROL control,
                                              LPDWORD revision);
TALVERN_API BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR securityDescriptor, PSID* owner,
                                            LPBOOL ownerDefaulted);
TALVERN_API BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR securityDescriptor, PSID* group,
                                            LPBOOL groupDefaulted);
TALVERN_API BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR securityDescriptor,
                                           LPBOOL saclPresent, PACL* sacl, LPBOOL saclDefaulted);
TALVERN_API BOOL GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR securityDescriptor,
                                           LPBOOL daclPresent, PACL* dacl, LPBOOL daclDefaulted);
TALVERN_API BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor,
                                              DWORD revision);
TALVERN_API BOOL SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR securityDescriptor, PSID owner,
                                            BOOL ownerDefaulted);
TALVERN_API BOOL SetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR securityDescriptor, PSID group,
                                            BOOL groupDefaulted);
TALVERN_API BOOL SetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR securityDescriptor,
                                           BOOL saclPresent, PACL sacl, BOOL saclDefaulted);
TALVERN_API BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR securityDescriptor,
                                           BOOL daclPresent, PACL dacl, BOOL daclDefaulted);
TALVERN_API BOOL MakeSelfRelativeSD(PSECURITY_DESCRIPTOR absoluteSecurityDescriptor,
                                    PSECURITY_DESCRIPTOR selfRelativeSecurityDescriptor,
                                    LPDWORD bufferLength);
TALVERN_API BOOL IsValidSid(PSID sid);
TALVERN_API PUCHAR GetSidSubAuthorityCount(PSID sid);
TALVERN_API PDWORD GetSidSubAuthority(PSID sid, DWORD subAuthority);
TALVERN_API DWORD GetSidLengthRequired(UCHAR subAuthorityCount);
TALVERN_API DWORD GetLengthSid(PSID sid);
TALVERN_API BOOL InitializeSid(PSID sid, PSID_IDENTIFIER_AUTHORITY identifierAuthority,
                               BYTE subAuthorityCount);
TALVERN_API BOOL CopySid(DWORD destinationSidLength, PSID destinationSid, PSID sourceSid);
TALVERN_API BOOL EqualSid(PSID sid1, PSID sid2);
TALVERN_API BOOL IsValidAcl(PACL acl);
TALVERN_API BOOL InitializeAcl(PACL acl, DWORD aclLength, DWORD aclRevision);
TALVERN_API BOOL GetAclInformation(PACL acl, LPVOID aclInformation, DWORD aclInformationLength,
                                   ACL_INFORMATION_CLASS aclInformationClass);
TALVERN_API BOOL GetAce(PACL acl, DWORD aceIndex, LPVOID* ace);
TALVERN_API BOOL AddAce(PACL acl, DWORD aceRevision, DWORD startingAceIndex, LPVOID aceList,
                        DWORD aceListLength);
TALVERN_API BOOL AddAccessAllowedAce(PACL acl, DWORD aceRevision, DWORD accessMask, PSID sid);
TALVERN_API BOOL AddAccessDeniedAce(PACL acl, DWORD aceRevision, DWORD accessMask, PSID sid);

#endif // _WIN32
