// Kernel services of a recorded machine: every answer comes from the "system" block of
// machine.json; a fact that is not recorded fails the call.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/recorded/machine_state.h"
#include "platform/recorded/machine_text.h"
#include "platform/system.h"

namespace platform::recorded {

class Field;

// Last error of a call whose fact machine.json does not hold.
constexpr DWORD kNotRecorded = ERROR_CALL_NOT_IMPLEMENTED;

// A function looked up at run time: missing, or present and answering `error` (0: success).
struct Lookup {
  bool present = false;
  DWORD error = 0;
};

// Windows keeps at most 16 page files; the kernel names each with a UNICODE_STRING, whose
// MaximumLength (the name and its NUL, in bytes) is 16-bit.
constexpr std::size_t kMaxPageFiles = 16;
constexpr std::size_t kMaxPageFileName = 0xFFFF / 2 - 1;

struct PageFileFacts {
  std::string name;        // as EnumPageFilesA reports it, "C:\pagefile.sys"
  std::string kernelName;  // as the kernel stores it, "\??\C:\pagefile.sys"
  std::uint64_t totalSize = 0, inUse = 0, peak = 0;  // pages
};

struct SystemFacts {
  std::optional<std::string> computerName;
  SYSTEM_INFO info{};
  Lookup isWow64Process;
  bool wow64 = false;
  Lookup fsRedirection;

  bool hasVersion = false;
  DWORD versionError = 0;
  OSVERSIONINFOEXA version{};
  std::optional<DWORD> productInfo;

  bool hasMemoryStatus = false;
  DWORD memoryStatusError = 0;
  MEMORYSTATUSEX memoryStatus{};
  bool psapi = false;
  Lookup performanceInfo;
  PERFORMANCE_INFORMATION performance{};
  Lookup enumPageFiles;
  Lookup zwQuerySystemInformation;  // `error` holds the NTSTATUS to answer
  std::vector<PageFileFacts> pageFiles;

  bool hasTimeZone = false;
  TIME_ZONE_INFORMATION timeZone{};
  std::optional<DWORD> timeZoneResult;
  std::optional<std::int64_t> utcMillis;
  std::optional<long> crtTimezone;
  std::optional<int> crtDaylight;

  std::map<std::string, std::string, NoCaseLess> environment;  // ANSI
  std::map<DWORD, std::string> messages;                       // ANSI
  UINT errorMode = 0;
  std::string windowsDirectory, systemDirectory;
};

// One report of the C runtime's assertion reporter.
struct AssertionReport {
  std::string expression;
  std::string file;
  unsigned line = 0;
};

// Reads the "system" block; texts become ANSI in `codePage`.
SystemFacts ReadSystemFacts(const Field& system, UINT codePage);

class KPLATFORM_API RecordedSystem : public System {
 public:
  RecordedSystem(SystemFacts facts, MachineState& state);
  ~RecordedSystem() override;

  HMODULE LoadLibraryA(const char* name) override;
  BOOL FreeLibrary(HMODULE module) override;
  HMODULE GetModuleHandleA(const char* name) override;
  FARPROC GetProcAddress(HMODULE module, const char* name) override;
  DWORD GetLastError() override { return state_.lastError; }
  void SetLastError(DWORD code) override { state_.lastError = code; }

  BOOL GetVersionExA(OSVERSIONINFOA* info) override;
  BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* info, DWORD typeMask, DWORDLONG conditionMask) override;
  DWORDLONG VerSetConditionMask(DWORDLONG conditionMask, DWORD typeMask, BYTE condition) override;
  BOOL GetProductInfo(DWORD major, DWORD minor, DWORD spMajor, DWORD spMinor,
                      DWORD* productType) override;
  HANDLE GetCurrentProcess() override;
  BOOL IsWow64Process(HANDLE process, BOOL* wow64) override;
  void GetSystemInfo(SYSTEM_INFO* info) override;

  BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) override;
  BOOL GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD size) override;
  BOOL EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) override;
  NTSTATUS ZwQuerySystemInformation(ULONG infoClass, void* buffer, ULONG length,
                                    ULONG* returnLength) override;

  DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) override;
  void GetSystemTime(SYSTEMTIME* time) override;
  void GetLocalTime(SYSTEMTIME* time) override;
  void crtTzset() override {}
  long crtTimezone() override;
  int crtDaylight() override;
  std::int64_t crtTime64() override;
  bool crtLocaltime64(std::int64_t seconds, std::tm* out) override;
  // Kept in order, for the tools and tests that show them.
  void crtAssert(const char* expression, const char* file, unsigned line) override;
  const std::vector<AssertionReport>& assertions() const { return assertions_; }
  // What a run left open: LoadLibraryA references not freed, LocalAlloc blocks not freed.
  long libraryReferences() const { return libraryReferences_; }
  std::size_t localAllocations() const { return localAllocations_.size(); }

  BOOL GetComputerNameA(char* buffer, DWORD* size) override;
  DWORD GetEnvironmentVariableA(const char* name, char* buffer, DWORD size) override;
  const char* getenv(const char* name) override;
  DWORD ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) override;
  DWORD FormatMessageA(DWORD flags, const void* source, DWORD messageId, DWORD languageId,
                       char* buffer, DWORD size, void* args) override;
  void* LocalFree(void* memory) override;
  int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideLength,
                          char* narrow, int narrowSize, const char* defaultChar,
                          BOOL* usedDefaultChar) override;
  int MultiByteToWideChar(UINT codePage, DWORD flags, const char* narrow, int narrowLength,
                          WCHAR* wide, int wideSize) override;
  UINT GetACP() override { return state_.codePage; }

  UINT SetErrorMode(UINT mode) override;
  UINT GetSystemWindowsDirectoryA(char* buffer, UINT size) override;
  UINT GetSystemDirectoryA(char* buffer, UINT size) override;
  BOOL Wow64DisableWow64FsRedirection(void** oldValue) override;
  BOOL Wow64RevertWow64FsRedirection(void* oldValue) override;

  std::unique_ptr<std::istream> OpenTextFile(const std::string& path) override;
  std::unique_ptr<std::istream> OpenBinaryFile(const std::string& path) override;

  // The page-file entries of ZwQuerySystemInformation(18), laid out at `base` as Windows
  // x64 lays them out; answers the bytes they take. Writes only when `base` is not null.
  static ULONG LayOutPageFiles(const std::vector<PageFileFacts>& files, BYTE* base);

 private:
  BOOL fail(DWORD code) {
    state_.lastError = code;
    return FALSE;
  }
  UINT copyDirectory(const std::string& text, char* buffer, UINT size);
  std::int64_t localOffsetMinutes(std::int64_t unixSeconds) const;

  SystemFacts facts_;
  MachineState& state_;
  std::set<void*> localAllocations_;
  std::vector<AssertionReport> assertions_;
  long libraryReferences_ = 0;
};

}  // namespace platform::recorded
