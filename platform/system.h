// Kernel services: version, product, memory, page files, time, names, environment, error
// texts, modules and functions looked up at run time, files.
#pragma once

#include <ctime>
#include <istream>
#include <memory>
#include <string>

#include "platform/types.h"

namespace platform {

class System {
 public:
  virtual ~System() = default;

  // Modules and functions that Windows code looks up at run time. A recorded machine can
  // lack any of them: LoadLibraryA / GetModuleHandleA then answer null and
  // GetProcAddress null, with the last error set. A non-null FARPROC only says that the
  // matching member function below may be called; it is not called through.
  virtual HMODULE LoadLibraryA(const char* name) = 0;
  virtual BOOL FreeLibrary(HMODULE module) = 0;
  virtual HMODULE GetModuleHandleA(const char* name) = 0;
  virtual FARPROC GetProcAddress(HMODULE module, const char* name) = 0;

  virtual DWORD GetLastError() = 0;
  virtual void SetLastError(DWORD code) = 0;

  // Version and product.
  virtual BOOL GetVersionExA(OSVERSIONINFOA* info) = 0;  // 148- or 156-byte record
  virtual BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* info, DWORD typeMask,
                                  DWORDLONG conditionMask) = 0;
  virtual DWORDLONG VerSetConditionMask(DWORDLONG conditionMask, DWORD typeMask,
                                        BYTE condition) = 0;
  virtual BOOL GetProductInfo(DWORD major, DWORD minor, DWORD spMajor, DWORD spMinor,
                              DWORD* productType) = 0;  // kernel32, looked up
  virtual HANDLE GetCurrentProcess() = 0;
  virtual BOOL IsWow64Process(HANDLE process, BOOL* wow64) = 0;  // kernel32, looked up
  virtual void GetSystemInfo(SYSTEM_INFO* info) = 0;

  // Memory and page files.
  virtual BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) = 0;
  virtual BOOL GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD size) = 0;      // psapi
  virtual BOOL EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) = 0;  // psapi
  // ntdll; fills `buffer` (entries point into it) or answers
  // STATUS_INFO_LENGTH_MISMATCH when `length` is too small.
  virtual NTSTATUS ZwQuerySystemInformation(ULONG infoClass, void* buffer, ULONG length,
                                            ULONG* returnLength) = 0;

  // Time.
  virtual DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) = 0;
  virtual void GetSystemTime(SYSTEMTIME* time) = 0;
  virtual void GetLocalTime(SYSTEMTIME* time) = 0;
  // The C runtime's view of the machine's zone: _tzset, _timezone (seconds west of UTC),
  // _daylight (the zone has daylight saving), _time64 and _localtime64.
  virtual void crtTzset() = 0;
  virtual long crtTimezone() = 0;
  virtual int crtDaylight() = 0;
  virtual std::int64_t crtTime64() = 0;
  // False where _localtime64 answers null.
  virtual bool crtLocaltime64(std::int64_t seconds, std::tm* out) = 0;
  // The C runtime's assertion reporter: reports a failed check and returns, so that the
  // caller goes on (the host process is never ended for it).
  virtual void crtAssert(const char* expression, const char* file, unsigned line) = 0;

  // Names, environment, text.
  virtual BOOL GetComputerNameA(char* buffer, DWORD* size) = 0;
  virtual DWORD GetEnvironmentVariableA(const char* name, char* buffer, DWORD size) = 0;
  // The process environment as getenv sees it; null when the variable is not set.
  virtual const char* getenv(const char* name) = 0;
  virtual DWORD ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) = 0;
  // With FORMAT_MESSAGE_ALLOCATE_BUFFER, `buffer` is a char** that receives a buffer to
  // be released with LocalFree.
  virtual DWORD FormatMessageA(DWORD flags, const void* source, DWORD messageId, DWORD languageId,
                               char* buffer, DWORD size, void* args) = 0;
  virtual void* LocalFree(void* memory) = 0;
  virtual int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideLength,
                                  char* narrow, int narrowSize, const char* defaultChar,
                                  BOOL* usedDefaultChar) = 0;
  virtual int MultiByteToWideChar(UINT codePage, DWORD flags, const char* narrow, int narrowLength,
                                  WCHAR* wide, int wideSize) = 0;
  virtual UINT GetACP() = 0;

  // Error mode, directories, WOW64 file-system redirection (kernel32, looked up).
  virtual UINT SetErrorMode(UINT mode) = 0;
  virtual UINT GetSystemWindowsDirectoryA(char* buffer, UINT size) = 0;
  virtual UINT GetSystemDirectoryA(char* buffer, UINT size) = 0;
  virtual BOOL Wow64DisableWow64FsRedirection(void** oldValue) = 0;
  virtual BOOL Wow64RevertWow64FsRedirection(void* oldValue) = 0;

  // Text files such as boot.ini: a stream over the file, or null when it cannot be opened.
  virtual std::unique_ptr<std::istream> OpenTextFile(const std::string& path) = 0;
  // The same file's bytes as they are on disk (capture copies files this way: text mode would
  // drop a 0x0D byte before 0x0A and stop at 0x1A, even inside a UTF-16 character).
  virtual std::unique_ptr<std::istream> OpenBinaryFile(const std::string& path) = 0;
};

}  // namespace platform
