// Kernel services of the live machine: kernel32 and advapi32 directly; psapi, ntdll and
// the newer kernel32 entry points looked up at run time; the C runtime's clock and zone.
#include "platform/system.h"
#include "platform/win32/live_families.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

namespace {
// Our constants, taken before <windows.h> turns the same names into macros.
namespace ours {
constexpr platform::BOOL kTrue = platform::TRUE;
constexpr platform::BOOL kFalse = platform::FALSE;
constexpr platform::LONG kErrorProcNotFound = platform::ERROR_PROC_NOT_FOUND;
constexpr platform::LONG kErrorInsufficientBuffer = platform::ERROR_INSUFFICIENT_BUFFER;
constexpr platform::LONG kErrorMoreData = platform::ERROR_MORE_DATA;
constexpr platform::LONG kErrorEnvvarNotFound = platform::ERROR_ENVVAR_NOT_FOUND;
constexpr platform::LONG kErrorModNotFound = platform::ERROR_MOD_NOT_FOUND;
constexpr platform::NTSTATUS kStatusNotImplemented = platform::STATUS_NOT_IMPLEMENTED;
constexpr platform::DWORD kVerMinorVersion = platform::VER_MINORVERSION;
constexpr platform::DWORD kVerMajorVersion = platform::VER_MAJORVERSION;
constexpr platform::BYTE kVerGreaterEqual = platform::VER_GREATER_EQUAL;
constexpr platform::DWORD kVerPlatformWin32Nt = platform::VER_PLATFORM_WIN32_NT;
constexpr platform::BYTE kVerNtWorkstation = platform::VER_NT_WORKSTATION;
constexpr platform::BYTE kVerNtDomainController = platform::VER_NT_DOMAIN_CONTROLLER;
constexpr platform::BYTE kVerNtServer = platform::VER_NT_SERVER;
constexpr platform::WORD kArchIntel = platform::PROCESSOR_ARCHITECTURE_INTEL;
constexpr platform::WORD kArchIa64 = platform::PROCESSOR_ARCHITECTURE_IA64;
constexpr platform::WORD kArchAmd64 = platform::PROCESSOR_ARCHITECTURE_AMD64;
constexpr platform::DWORD kTzUnknown = platform::TIME_ZONE_ID_UNKNOWN;
constexpr platform::DWORD kTzStandard = platform::TIME_ZONE_ID_STANDARD;
constexpr platform::DWORD kTzDaylight = platform::TIME_ZONE_ID_DAYLIGHT;
constexpr platform::DWORD kTzInvalid = platform::TIME_ZONE_ID_INVALID;
constexpr platform::DWORD kFmAllocateBuffer = platform::FORMAT_MESSAGE_ALLOCATE_BUFFER;
constexpr platform::DWORD kFmIgnoreInserts = platform::FORMAT_MESSAGE_IGNORE_INSERTS;
constexpr platform::DWORD kFmFromSystem = platform::FORMAT_MESSAGE_FROM_SYSTEM;
constexpr platform::UINT kCpAcp = platform::CP_ACP;
constexpr platform::UINT kCpUtf8 = platform::CP_UTF8;
constexpr platform::UINT kSemFailCriticalErrors = platform::SEM_FAILCRITICALERRORS;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there.
#define PSAPI_VERSION 1  // psapi.dll's own names, not kernel32's K32 aliases
#include <windows.h>

#include <psapi.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kTrue == TRUE && ours::kFalse == FALSE, "BOOL values");
static_assert(ours::kErrorProcNotFound == ERROR_PROC_NOT_FOUND, "error code");
static_assert(ours::kErrorInsufficientBuffer == ERROR_INSUFFICIENT_BUFFER, "error code");
static_assert(ours::kErrorMoreData == ERROR_MORE_DATA, "error code");
static_assert(ours::kErrorEnvvarNotFound == ERROR_ENVVAR_NOT_FOUND, "error code");
static_assert(ours::kErrorModNotFound == ERROR_MOD_NOT_FOUND, "error code");
static_assert(ours::kVerMinorVersion == VER_MINORVERSION, "version mask");
static_assert(ours::kVerMajorVersion == VER_MAJORVERSION, "version mask");
static_assert(ours::kVerGreaterEqual == VER_GREATER_EQUAL, "version condition");
static_assert(ours::kVerPlatformWin32Nt == VER_PLATFORM_WIN32_NT, "platform id");
static_assert(ours::kVerNtWorkstation == VER_NT_WORKSTATION, "product type");
static_assert(ours::kVerNtDomainController == VER_NT_DOMAIN_CONTROLLER, "product type");
static_assert(ours::kVerNtServer == VER_NT_SERVER, "product type");
static_assert(ours::kArchIntel == PROCESSOR_ARCHITECTURE_INTEL, "architecture");
static_assert(ours::kArchIa64 == PROCESSOR_ARCHITECTURE_IA64, "architecture");
static_assert(ours::kArchAmd64 == PROCESSOR_ARCHITECTURE_AMD64, "architecture");
static_assert(ours::kTzUnknown == TIME_ZONE_ID_UNKNOWN, "time zone id");
static_assert(ours::kTzStandard == TIME_ZONE_ID_STANDARD, "time zone id");
static_assert(ours::kTzDaylight == TIME_ZONE_ID_DAYLIGHT, "time zone id");
static_assert(ours::kTzInvalid == TIME_ZONE_ID_INVALID, "time zone id");
static_assert(ours::kFmAllocateBuffer == FORMAT_MESSAGE_ALLOCATE_BUFFER, "message flag");
static_assert(ours::kFmIgnoreInserts == FORMAT_MESSAGE_IGNORE_INSERTS, "message flag");
static_assert(ours::kFmFromSystem == FORMAT_MESSAGE_FROM_SYSTEM, "message flag");
static_assert(ours::kCpAcp == CP_ACP && ours::kCpUtf8 == CP_UTF8, "code page");
static_assert(ours::kSemFailCriticalErrors == SEM_FAILCRITICALERRORS, "error mode");
// ntstatus.h is not part of <windows.h>; the value is the documented one.
static_assert(ours::kStatusNotImplemented == static_cast<LONG>(0xC0000002L), "NTSTATUS");

#define SAME_LAYOUT(ours_type, win_type, field)                                      \
  static_assert(offsetof(platform::ours_type, field) == offsetof(::win_type, field), \
                #ours_type "::" #field)

static_assert(sizeof(platform::FILETIME) == sizeof(::FILETIME), "FILETIME");
static_assert(sizeof(platform::SYSTEMTIME) == sizeof(::SYSTEMTIME), "SYSTEMTIME");
SAME_LAYOUT(SYSTEMTIME, SYSTEMTIME, wMilliseconds);
static_assert(sizeof(platform::OSVERSIONINFOA) == sizeof(::OSVERSIONINFOA), "OSVERSIONINFOA");
static_assert(sizeof(platform::OSVERSIONINFOEXA) == sizeof(::OSVERSIONINFOEXA), "OSVERSIONINFOEXA");
SAME_LAYOUT(OSVERSIONINFOEXA, OSVERSIONINFOEXA, szCSDVersion);
SAME_LAYOUT(OSVERSIONINFOEXA, OSVERSIONINFOEXA, wServicePackMajor);
SAME_LAYOUT(OSVERSIONINFOEXA, OSVERSIONINFOEXA, wSuiteMask);
SAME_LAYOUT(OSVERSIONINFOEXA, OSVERSIONINFOEXA, wProductType);
static_assert(sizeof(platform::SYSTEM_INFO) == sizeof(::SYSTEM_INFO), "SYSTEM_INFO");
SAME_LAYOUT(SYSTEM_INFO, SYSTEM_INFO, wProcessorArchitecture);
SAME_LAYOUT(SYSTEM_INFO, SYSTEM_INFO, dwPageSize);
SAME_LAYOUT(SYSTEM_INFO, SYSTEM_INFO, dwActiveProcessorMask);
SAME_LAYOUT(SYSTEM_INFO, SYSTEM_INFO, dwNumberOfProcessors);
SAME_LAYOUT(SYSTEM_INFO, SYSTEM_INFO, wProcessorRevision);
static_assert(sizeof(platform::MEMORYSTATUSEX) == sizeof(::MEMORYSTATUSEX), "MEMORYSTATUSEX");
SAME_LAYOUT(MEMORYSTATUSEX, MEMORYSTATUSEX, ullTotalPhys);
SAME_LAYOUT(MEMORYSTATUSEX, MEMORYSTATUSEX, ullAvailExtendedVirtual);
static_assert(sizeof(platform::PERFORMANCE_INFORMATION) == sizeof(::PERFORMANCE_INFORMATION),
              "PERFORMANCE_INFORMATION");
SAME_LAYOUT(PERFORMANCE_INFORMATION, PERFORMANCE_INFORMATION, CommitTotal);
SAME_LAYOUT(PERFORMANCE_INFORMATION, PERFORMANCE_INFORMATION, PageSize);
SAME_LAYOUT(PERFORMANCE_INFORMATION, PERFORMANCE_INFORMATION, ThreadCount);
static_assert(sizeof(platform::ENUM_PAGE_FILE_INFORMATION) == sizeof(::ENUM_PAGE_FILE_INFORMATION),
              "ENUM_PAGE_FILE_INFORMATION");
SAME_LAYOUT(ENUM_PAGE_FILE_INFORMATION, ENUM_PAGE_FILE_INFORMATION, TotalSize);
SAME_LAYOUT(ENUM_PAGE_FILE_INFORMATION, ENUM_PAGE_FILE_INFORMATION, PeakUsage);
static_assert(sizeof(platform::TIME_ZONE_INFORMATION) == sizeof(::TIME_ZONE_INFORMATION),
              "TIME_ZONE_INFORMATION");
SAME_LAYOUT(TIME_ZONE_INFORMATION, TIME_ZONE_INFORMATION, StandardDate);
SAME_LAYOUT(TIME_ZONE_INFORMATION, TIME_ZONE_INFORMATION, DaylightName);
SAME_LAYOUT(TIME_ZONE_INFORMATION, TIME_ZONE_INFORMATION, DaylightBias);
#undef SAME_LAYOUT

namespace platform::win32 {
namespace {

// Signatures of the functions looked up at run time.
using IsWow64ProcessFn = ::BOOL(WINAPI*)(::HANDLE, ::PBOOL);
using GetProductInfoFn = ::BOOL(WINAPI*)(::DWORD, ::DWORD, ::DWORD, ::DWORD, ::PDWORD);
using GetPerformanceInfoFn = ::BOOL(WINAPI*)(::PPERFORMANCE_INFORMATION, ::DWORD);
using EnumPageFilesAFn = ::BOOL(WINAPI*)(::PENUM_PAGE_FILE_CALLBACKA, ::LPVOID);
using ZwQuerySystemInformationFn = ::LONG(NTAPI*)(::ULONG, ::PVOID, ::ULONG, ::PULONG);
using Wow64DisableFn = ::BOOL(WINAPI*)(::PVOID*);
using Wow64RevertFn = ::BOOL(WINAPI*)(::PVOID);

// Finds `name` in `module`. kernel32 and ntdll are always mapped; psapi is loaded once
// and kept, so the pointer stays valid for the life of the process and may be cached.
template <typename Fn>
Fn Lookup(const char* module, const char* name, bool load) {
  ::HMODULE handle = load ? ::LoadLibraryA(module) : ::GetModuleHandleA(module);
  if (handle == nullptr) return nullptr;
  // Through void(*)(): a cast between unrelated function types would warn.
  return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(::GetProcAddress(handle, name)));
}

// The answer of a looked-up function that this Windows lacks.
BOOL Missing() {
  ::SetLastError(ERROR_PROC_NOT_FOUND);
  return FALSE;
}

// EnumPageFilesA calls back with Windows' types; this carries the caller's callback
// through and hands it ours.
struct PageFileCallback {
  PENUM_PAGE_FILE_CALLBACKA callback;
  void* context;
};
::BOOL CALLBACK PageFileTrampoline(::LPVOID context, ::PENUM_PAGE_FILE_INFORMATION info,
                                   ::LPCSTR fileName) {
  auto* call = static_cast<PageFileCallback*>(context);
  return call->callback(call->context, reinterpret_cast<ENUM_PAGE_FILE_INFORMATION*>(info),
                        fileName);
}

class LiveSystem final : public System {
 public:
  HMODULE LoadLibraryA(const char* name) override {
    return reinterpret_cast<HMODULE>(::LoadLibraryA(name));
  }
  BOOL FreeLibrary(HMODULE module) override {
    return ::FreeLibrary(reinterpret_cast<::HMODULE>(module));
  }
  HMODULE GetModuleHandleA(const char* name) override {
    return reinterpret_cast<HMODULE>(::GetModuleHandleA(name));
  }
  FARPROC GetProcAddress(HMODULE module, const char* name) override {
    return reinterpret_cast<FARPROC>(::GetProcAddress(reinterpret_cast<::HMODULE>(module), name));
  }

  DWORD GetLastError() override { return ::GetLastError(); }
  void SetLastError(DWORD code) override { ::SetLastError(code); }

  BOOL GetVersionExA(OSVERSIONINFOA* info) override {
    // The size field tells Windows which of the two records it was given.
    return ::GetVersionExA(reinterpret_cast<::LPOSVERSIONINFOA>(info));
  }
  BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* info, DWORD typeMask,
                          DWORDLONG conditionMask) override {
    return ::VerifyVersionInfoA(reinterpret_cast<::LPOSVERSIONINFOEXA>(info), typeMask,
                                conditionMask);
  }
  DWORDLONG VerSetConditionMask(DWORDLONG conditionMask, DWORD typeMask, BYTE condition) override {
    return ::VerSetConditionMask(conditionMask, typeMask, condition);
  }
  BOOL GetProductInfo(DWORD major, DWORD minor, DWORD spMajor, DWORD spMinor,
                      DWORD* productType) override {
    static const auto fn = Lookup<GetProductInfoFn>("kernel32.dll", "GetProductInfo", false);
    if (fn == nullptr) return Missing();
    return fn(major, minor, spMajor, spMinor, As<::DWORD>(productType));
  }
  HANDLE GetCurrentProcess() override { return ::GetCurrentProcess(); }
  BOOL IsWow64Process(HANDLE process, BOOL* wow64) override {
    static const auto fn = Lookup<IsWow64ProcessFn>("kernel32.dll", "IsWow64Process", false);
    if (fn == nullptr) return Missing();
    return fn(process, As<::BOOL>(wow64));
  }
  void GetSystemInfo(SYSTEM_INFO* info) override {
    ::GetSystemInfo(reinterpret_cast<::LPSYSTEM_INFO>(info));
  }

  BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) override {
    return ::GlobalMemoryStatusEx(reinterpret_cast<::LPMEMORYSTATUSEX>(status));
  }
  BOOL GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD size) override {
    static const auto fn = Lookup<GetPerformanceInfoFn>("psapi.dll", "GetPerformanceInfo", true);
    if (fn == nullptr) return Missing();
    return fn(reinterpret_cast<::PPERFORMANCE_INFORMATION>(info), size);
  }
  BOOL EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) override {
    static const auto fn = Lookup<EnumPageFilesAFn>("psapi.dll", "EnumPageFilesA", true);
    if (fn == nullptr) return Missing();
    PageFileCallback call{callback, context};
    return fn(&PageFileTrampoline, &call);
  }
  NTSTATUS ZwQuerySystemInformation(ULONG infoClass, void* buffer, ULONG length,
                                    ULONG* returnLength) override {
    static const auto fn =
        Lookup<ZwQuerySystemInformationFn>("ntdll.dll", "ZwQuerySystemInformation", false);
    if (fn == nullptr) return ours::kStatusNotImplemented;
    // The records Windows writes have our layout, names pointing into `buffer`.
    return fn(infoClass, buffer, length, As<::ULONG>(returnLength));
  }

  DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) override {
    return ::GetTimeZoneInformation(reinterpret_cast<::LPTIME_ZONE_INFORMATION>(info));
  }
  void GetSystemTime(SYSTEMTIME* time) override {
    ::GetSystemTime(reinterpret_cast<::LPSYSTEMTIME>(time));
  }
  void GetLocalTime(SYSTEMTIME* time) override {
    ::GetLocalTime(reinterpret_cast<::LPSYSTEMTIME>(time));
  }
  void crtTzset() override { ::_tzset(); }
  long crtTimezone() override { return _timezone; }
  int crtDaylight() override { return _daylight; }
  std::int64_t crtTime64() override { return ::_time64(nullptr); }
  bool crtLocaltime64(std::int64_t seconds, std::tm* out) override {
    const __time64_t time = seconds;
    return ::_localtime64_s(out, &time) == 0;
  }

  // The runtime's own reporter ends the process after its report; a collector inside the
  // host's process must not, so the same text goes to the standard error stream and to an
  // attached debugger, and the caller goes on.
  void crtAssert(const char* expression, const char* file, unsigned line) override {
    char text[1024];
    std::snprintf(text, sizeof text, "Assertion failed: %s, file %s, line %u\n",
                  expression ? expression : "", file ? file : "", line);
    std::fputs(text, stderr);
    std::fflush(stderr);
    ::OutputDebugStringA(text);
  }

  BOOL GetComputerNameA(char* buffer, DWORD* size) override {
    return ::GetComputerNameA(buffer, As<::DWORD>(size));
  }
  DWORD GetEnvironmentVariableA(const char* name, char* buffer, DWORD size) override {
    return ::GetEnvironmentVariableA(name, buffer, size);
  }
  const char* getenv(const char* name) override { return std::getenv(name); }
  DWORD ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) override {
    return ::ExpandEnvironmentStringsA(source, destination, size);
  }
  DWORD FormatMessageA(DWORD flags, const void* source, DWORD messageId, DWORD languageId,
                       char* buffer, DWORD size, void* args) override {
    return ::FormatMessageA(flags, source, messageId, languageId, buffer, size,
                            static_cast<va_list*>(args));
  }
  void* LocalFree(void* memory) override { return ::LocalFree(memory); }
  int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideLength,
                          char* narrow, int narrowSize, const char* defaultChar,
                          BOOL* usedDefaultChar) override {
    return ::WideCharToMultiByte(codePage, flags, As<::WCHAR>(wide), wideLength, narrow, narrowSize,
                                 defaultChar, As<::BOOL>(usedDefaultChar));
  }
  int MultiByteToWideChar(UINT codePage, DWORD flags, const char* narrow, int narrowLength,
                          WCHAR* wide, int wideSize) override {
    return ::MultiByteToWideChar(codePage, flags, narrow, narrowLength, As<::WCHAR>(wide),
                                 wideSize);
  }
  UINT GetACP() override { return ::GetACP(); }

  UINT SetErrorMode(UINT mode) override { return ::SetErrorMode(mode); }
  UINT GetSystemWindowsDirectoryA(char* buffer, UINT size) override {
    return ::GetSystemWindowsDirectoryA(buffer, size);
  }
  UINT GetSystemDirectoryA(char* buffer, UINT size) override {
    return ::GetSystemDirectoryA(buffer, size);
  }
  BOOL Wow64DisableWow64FsRedirection(void** oldValue) override {
    static const auto fn =
        Lookup<Wow64DisableFn>("kernel32.dll", "Wow64DisableWow64FsRedirection", false);
    if (fn == nullptr) return Missing();
    return fn(oldValue);
  }
  BOOL Wow64RevertWow64FsRedirection(void* oldValue) override {
    static const auto fn =
        Lookup<Wow64RevertFn>("kernel32.dll", "Wow64RevertWow64FsRedirection", false);
    if (fn == nullptr) return Missing();
    return fn(oldValue);
  }

  std::unique_ptr<std::istream> OpenTextFile(const std::string& path) override {
    // The C runtime opens files shared (deny none), so a file in use can still be read.
    auto file = std::make_unique<std::ifstream>(path);
    if (!file->is_open()) return nullptr;
    return file;
  }
  std::unique_ptr<std::istream> OpenBinaryFile(const std::string& path) override {
    auto file = std::make_unique<std::ifstream>(path, std::ios::binary);
    if (!file->is_open()) return nullptr;
    return file;
  }
};

}  // namespace

std::unique_ptr<System> MakeLiveSystem() {
  return std::make_unique<LiveSystem>();
}

}  // namespace platform::win32
