// Windows data types, constants and records as the collectors use them, laid out as on
// 64-bit Windows. Only platform/win32/ includes <windows.h>, and it must include this
// header first: several names here are macros there.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using DWORDLONG = std::uint64_t;
using ULONGLONG = std::uint64_t;
using LONGLONG = std::int64_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using USHORT = std::uint16_t;
using UINT = std::uint32_t;
using INT = std::int32_t;
using BOOL = std::int32_t;
using BOOLEAN = std::uint8_t;
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using HRESULT = std::int32_t;
using NTSTATUS = std::int32_t;
using NET_API_STATUS = DWORD;
using PDH_STATUS = LONG;
using REGSAM = DWORD;
using WCHAR = char16_t;  // UTF-16 code unit, as wchar_t is on Windows
using HANDLE = void*;
using HMODULE = struct HINSTANCE__*;
using HKEY = struct HKEY__*;
using FARPROC = void (*)();

constexpr BOOL TRUE = 1;
constexpr BOOL FALSE = 0;

inline HKEY PredefinedKey(std::uint32_t value) {
  return reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(value));
}
inline const HKEY HKEY_CLASSES_ROOT = PredefinedKey(0x80000000u);
inline const HKEY HKEY_CURRENT_USER = PredefinedKey(0x80000001u);
inline const HKEY HKEY_LOCAL_MACHINE = PredefinedKey(0x80000002u);
inline const HKEY HKEY_USERS = PredefinedKey(0x80000003u);
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

// Win32 error codes.
constexpr LONG ERROR_SUCCESS = 0;
constexpr LONG ERROR_FILE_NOT_FOUND = 2;
constexpr LONG ERROR_PATH_NOT_FOUND = 3;
constexpr LONG ERROR_ACCESS_DENIED = 5;
constexpr LONG ERROR_INVALID_HANDLE = 6;
constexpr LONG ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr LONG ERROR_BAD_FORMAT = 11;
constexpr LONG ERROR_INVALID_PARAMETER = 87;
constexpr LONG ERROR_CALL_NOT_IMPLEMENTED = 120;
constexpr LONG ERROR_INSUFFICIENT_BUFFER = 122;
constexpr LONG ERROR_MOD_NOT_FOUND = 126;
constexpr LONG ERROR_PROC_NOT_FOUND = 127;
constexpr LONG ERROR_MORE_DATA = 234;
constexpr LONG ERROR_NO_MORE_ITEMS = 259;
constexpr LONG ERROR_ENVVAR_NOT_FOUND = 203;
constexpr LONG ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;
constexpr LONG ERROR_LINE_NOT_FOUND = static_cast<LONG>(0xE0000102u);  // SetupAPI
constexpr LONG ERROR_SECTION_NOT_FOUND = static_cast<LONG>(0xE0000101u);
constexpr LONG ERROR_INVALID_PARAMETER_SETUP = ERROR_INVALID_PARAMETER;
constexpr NET_API_STATUS NERR_Success = 0;

// Registry access masks and value types.
constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_READ = 0x20019;
constexpr REGSAM KEY_WOW64_64KEY = 0x0100;
constexpr REGSAM KEY_WOW64_32KEY = 0x0200;
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
constexpr DWORD REG_LINK = 6;
constexpr DWORD REG_MULTI_SZ = 7;
constexpr DWORD REG_RESOURCE_LIST = 8;
constexpr DWORD REG_FULL_RESOURCE_DESCRIPTOR = 9;
constexpr DWORD REG_RESOURCE_REQUIREMENTS_LIST = 10;
constexpr DWORD REG_QWORD = 11;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

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

// GetVersionExA takes either record; dwOSVersionInfoSize (148 or 156) says which.
struct OSVERSIONINFOA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  char szCSDVersion[128];
};
struct OSVERSIONINFOEXA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  char szCSDVersion[128];
  WORD wServicePackMajor;
  WORD wServicePackMinor;
  WORD wSuiteMask;
  BYTE wProductType;
  BYTE wReserved;
};
static_assert(sizeof(OSVERSIONINFOA) == 148, "OSVERSIONINFOA layout");
static_assert(sizeof(OSVERSIONINFOEXA) == 156, "OSVERSIONINFOEXA layout");

constexpr DWORD VER_MINORVERSION = 0x0000001;
constexpr DWORD VER_MAJORVERSION = 0x0000002;
constexpr BYTE VER_GREATER_EQUAL = 3;
constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
constexpr BYTE VER_NT_WORKSTATION = 1;
constexpr BYTE VER_NT_DOMAIN_CONTROLLER = 2;
constexpr BYTE VER_NT_SERVER = 3;

struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  void* lpMinimumApplicationAddress;
  void* lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};
constexpr WORD PROCESSOR_ARCHITECTURE_INTEL = 0;
constexpr WORD PROCESSOR_ARCHITECTURE_IA64 = 6;
constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;

struct MEMORYSTATUSEX {
  DWORD dwLength;
  DWORD dwMemoryLoad;
  DWORDLONG ullTotalPhys;
  DWORDLONG ullAvailPhys;
  DWORDLONG ullTotalPageFile;
  DWORDLONG ullAvailPageFile;
  DWORDLONG ullTotalVirtual;
  DWORDLONG ullAvailVirtual;
  DWORDLONG ullAvailExtendedVirtual;
};
static_assert(sizeof(MEMORYSTATUSEX) == 64, "MEMORYSTATUSEX layout");

struct PERFORMANCE_INFORMATION {
  DWORD cb;
  SIZE_T CommitTotal;
  SIZE_T CommitLimit;
  SIZE_T CommitPeak;
  SIZE_T PhysicalTotal;
  SIZE_T PhysicalAvailable;
  SIZE_T SystemCache;
  SIZE_T KernelTotal;
  SIZE_T KernelPaged;
  SIZE_T KernelNonpaged;
  SIZE_T PageSize;
  DWORD HandleCount;
  DWORD ProcessCount;
  DWORD ThreadCount;
};
static_assert(sizeof(PERFORMANCE_INFORMATION) == 104, "PERFORMANCE_INFORMATION layout");

struct ENUM_PAGE_FILE_INFORMATION {
  DWORD cb;
  DWORD Reserved;
  SIZE_T TotalSize;
  SIZE_T TotalInUse;
  SIZE_T PeakUsage;
};
// Answers TRUE to be called for the next page file.
using PENUM_PAGE_FILE_CALLBACKA = BOOL (*)(void* context, ENUM_PAGE_FILE_INFORMATION* info,
                                           const char* fileName);

// ZwQuerySystemInformation class 18 (page-file information): entries of this shape,
// each name's buffer pointing into the caller's buffer.
constexpr ULONG SystemPageFileInformation = 18;
constexpr NTSTATUS STATUS_SUCCESS = 0;
constexpr NTSTATUS STATUS_INFO_LENGTH_MISMATCH = static_cast<NTSTATUS>(0xC0000004u);
constexpr NTSTATUS STATUS_NOT_IMPLEMENTED = static_cast<NTSTATUS>(0xC0000002u);
struct UNICODE_STRING {
  USHORT Length;         // bytes
  USHORT MaximumLength;  // bytes
  WCHAR* Buffer;
};
struct SYSTEM_PAGEFILE_INFORMATION {
  ULONG NextEntryOffset;
  ULONG TotalSize;
  ULONG TotalInUse;
  ULONG PeakUsage;
  UNICODE_STRING PageFileName;
};
static_assert(sizeof(SYSTEM_PAGEFILE_INFORMATION) == 32, "SYSTEM_PAGEFILE_INFORMATION layout");

struct TIME_ZONE_INFORMATION {
  LONG Bias;
  WCHAR StandardName[32];
  SYSTEMTIME StandardDate;
  LONG StandardBias;
  WCHAR DaylightName[32];
  SYSTEMTIME DaylightDate;
  LONG DaylightBias;
};
static_assert(sizeof(TIME_ZONE_INFORMATION) == 172, "TIME_ZONE_INFORMATION layout");
constexpr DWORD TIME_ZONE_ID_UNKNOWN = 0;
constexpr DWORD TIME_ZONE_ID_STANDARD = 1;
constexpr DWORD TIME_ZONE_ID_DAYLIGHT = 2;
constexpr DWORD TIME_ZONE_ID_INVALID = 0xFFFFFFFFu;

// FormatMessageA flags.
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x0100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x0200;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;

constexpr UINT CP_ACP = 0;
constexpr UINT CP_UTF8 = 65001;
constexpr UINT SEM_FAILCRITICALERRORS = 0x0001;

}  // namespace platform
