// A machine whose System answers are set by each test; every other family, and every
// System call a test leaves alone, fails as on a machine with nothing to report.
#pragma once

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "platform/recorded/recorded_machine.h"

namespace testing_machine {

using namespace platform;

// Module handles and function addresses a test can make present.
inline HMODULE fakeModule(int n) {
  return reinterpret_cast<HMODULE>(static_cast<std::uintptr_t>(0x1000 + n));
}
inline void presentFunction() {}

class FakeSystem : public System {
 public:
  // Present modules and functions ("psapi.dll", "psapi.dll!EnumPageFilesA", ...).
  std::function<bool(const std::string&)> has = [](const std::string&) { return false; };
  std::function<BOOL(PENUM_PAGE_FILE_CALLBACKA, void*)> enumPageFiles;
  std::function<BOOL(PERFORMANCE_INFORMATION*)> performanceInfo;
  std::function<NTSTATUS(void*, ULONG, ULONG*)> pageFileInformation;
  DWORD pageSize = 4096;
  long timezoneSeconds = 0;  // _timezone: seconds west of UTC
  int daylight = 0;
  DWORD lastError = 0;
  int loadCalls = 0;
  std::function<void()> onLoadLibrary;

  HMODULE LoadLibraryA(const char* name) override {
    ++loadCalls;
    if (onLoadLibrary) onLoadLibrary();
    return moduleFor(name);
  }
  BOOL FreeLibrary(HMODULE) override { return TRUE; }
  HMODULE GetModuleHandleA(const char* name) override { return moduleFor(name); }
  FARPROC GetProcAddress(HMODULE module, const char* name) override {
    for (const auto& known : modules_) {
      if (fakeModule(known.second) == module && has(known.first + "!" + name)) {
        return &presentFunction;
      }
    }
    lastError = ERROR_PROC_NOT_FOUND;
    return nullptr;
  }
  DWORD GetLastError() override { return lastError; }
  void SetLastError(DWORD code) override { lastError = code; }
  std::function<BOOL(OSVERSIONINFOA*)> version;  // unset: the call fails
  BOOL GetVersionExA(OSVERSIONINFOA* info) override { return version ? version(info) : FALSE; }
  BOOL VerifyVersionInfoA(OSVERSIONINFOEXA*, DWORD, DWORDLONG) override { return FALSE; }
  DWORDLONG VerSetConditionMask(DWORDLONG mask, DWORD, BYTE) override { return mask; }
  BOOL GetProductInfo(DWORD, DWORD, DWORD, DWORD, DWORD*) override { return FALSE; }
  HANDLE GetCurrentProcess() override { return nullptr; }
  // Unset: the call answers FALSE with the process not under WOW64.
  std::function<BOOL(BOOL*)> isWow64;
  int isWow64Calls = 0;
  BOOL IsWow64Process(HANDLE, BOOL* wow64) override {
    ++isWow64Calls;
    if (!isWow64) {
      *wow64 = FALSE;
      return FALSE;
    }
    return isWow64(wow64);
  }
  void GetSystemInfo(SYSTEM_INFO* info) override {
    *info = SYSTEM_INFO{};
    info->dwPageSize = pageSize;
  }
  BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX*) override { return FALSE; }
  BOOL GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD) override {
    return performanceInfo ? performanceInfo(info) : FALSE;
  }
  BOOL EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) override {
    return enumPageFiles ? enumPageFiles(callback, context) : FALSE;
  }
  NTSTATUS ZwQuerySystemInformation(ULONG, void* buffer, ULONG length, ULONG* returned) override {
    return pageFileInformation ? pageFileInformation(buffer, length, returned)
                               : STATUS_NOT_IMPLEMENTED;
  }
  std::function<DWORD(TIME_ZONE_INFORMATION*)> timeZone;  // unset: the call fails
  DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) override {
    return timeZone ? timeZone(info) : TIME_ZONE_ID_INVALID;
  }
  void GetSystemTime(SYSTEMTIME* time) override { *time = SYSTEMTIME{2010, 3, 1, 15, 12, 0, 0, 0}; }
  void GetLocalTime(SYSTEMTIME* time) override { GetSystemTime(time); }
  void crtTzset() override {}
  long crtTimezone() override { return timezoneSeconds; }
  int crtDaylight() override { return daylight; }
  std::int64_t crtTime64() override { return 1268654400; }
  std::vector<std::string> assertions;  // "expression file:line"
  void crtAssert(const char* expression, const char* file, unsigned line) override {
    assertions.push_back(std::string(expression) + " " + file + ":" + std::to_string(line));
  }
  // Local time as the runtime would give it for a zone without daylight saving.
  bool crtLocaltime64(std::int64_t seconds, std::tm* out) override {
    const std::int64_t local = seconds - timezoneSeconds;
    if (local < 0) return false;
    std::int64_t days = local / 86400, rest = local % 86400;
    out->tm_hour = static_cast<int>(rest / 3600);
    out->tm_min = static_cast<int>(rest % 3600 / 60);
    out->tm_sec = static_cast<int>(rest % 60);
    int year = 1970;
    auto leap = [](int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; };
    while (days >= (leap(year) ? 366 : 365)) days -= leap(year++) ? 366 : 365;
    static const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    while (days >= kMonthDays[month] + (month == 1 && leap(year))) {
      days -= kMonthDays[month] + (month == 1 && leap(year));
      ++month;
    }
    out->tm_year = year - 1900;
    out->tm_mon = month;
    out->tm_mday = static_cast<int>(days) + 1;
    return true;
  }
  BOOL GetComputerNameA(char* buffer, DWORD* size) override {
    const char name[] = "TESTPC";
    if (*size < sizeof name) return FALSE;
    std::memcpy(buffer, name, sizeof name);
    *size = sizeof name - 1;
    return TRUE;
  }
  DWORD GetEnvironmentVariableA(const char*, char*, DWORD) override { return 0; }
  const char* getenv(const char*) override { return nullptr; }
  // Unset: the call fails.
  std::function<DWORD(const char*, char*, DWORD)> expand;
  std::vector<DWORD> expandSizes;  // the buffer size of each call
  DWORD ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) override {
    expandSizes.push_back(size);
    return expand ? expand(source, destination, size) : 0;
  }
  DWORD FormatMessageA(DWORD, const void*, DWORD, DWORD, char*, DWORD, void*) override { return 0; }
  void* LocalFree(void*) override { return nullptr; }
  // Latin-1 both ways: enough for page-file names.
  int WideCharToMultiByte(UINT, DWORD, const WCHAR* wide, int length, char* narrow, int size,
                          const char*, BOOL*) override {
    if (narrow == nullptr || size == 0) return length;
    const int n = length < size ? length : size;
    for (int i = 0; i < n; ++i) narrow[i] = wide[i] < 0x100 ? static_cast<char>(wide[i]) : '?';
    return n;
  }
  int MultiByteToWideChar(UINT, DWORD, const char* narrow, int length, WCHAR* wide,
                          int size) override {
    if (wide == nullptr || size == 0) return length;
    const int n = length < size ? length : size;
    for (int i = 0; i < n; ++i) wide[i] = static_cast<unsigned char>(narrow[i]);
    return n;
  }
  UINT GetACP() override { return 1252; }
  UINT SetErrorMode(UINT) override { return 0; }
  UINT GetSystemWindowsDirectoryA(char*, UINT) override { return 0; }
  UINT GetSystemDirectoryA(char*, UINT) override { return 0; }
  BOOL Wow64DisableWow64FsRedirection(void**) override { return FALSE; }
  BOOL Wow64RevertWow64FsRedirection(void*) override { return FALSE; }
  std::unique_ptr<std::istream> OpenTextFile(const std::string&) override { return nullptr; }
  std::unique_ptr<std::istream> OpenBinaryFile(const std::string&) override { return nullptr; }

 private:
  HMODULE moduleFor(const char* name) {
    for (const auto& known : modules_) {
      if (known.first == name && has(known.first)) return fakeModule(known.second);
    }
    lastError = ERROR_MOD_NOT_FOUND;
    return nullptr;
  }
  const std::pair<std::string, int> modules_[3] = {
      {"psapi.dll", 1}, {"ntdll.dll", 2}, {"kernel32", 3}};
};

// The fake System beside another machine's other families: by default an empty recorded
// machine's, or those of the machine a test puts in `backing`.
class FakeMachine : public Machine {
 public:
  FakeSystem fake;
  std::shared_ptr<Machine> backing = recorded::RecordedMachine::Empty();
  Registry& registry() override { return backing->registry(); }
  System& system() override { return fake; }
  Pdh& pdh() override { return backing->pdh(); }
  NetApi& net() override { return backing->net(); }
  Wmi& wmi() override { return backing->wmi(); }
  Setup& setup() override { return backing->setup(); }
};

}  // namespace testing_machine
