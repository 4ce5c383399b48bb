// A machine that passes every platform call to another and fails one of them, the N-th of
// the run, the way Windows reports that call failing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/machine.h"

namespace testing_machine {

using namespace platform;

// Windows' codes for the failures below that the seam's headers do not name.
constexpr DWORD kErrorInvalidFunction = 1;
constexpr DWORD kErrorBadLength = 24;
constexpr DWORD kErrorBufferOverflow = 111;
constexpr DWORD kErrorMessageNotFound = 317;
constexpr DWORD kErrorOldWinVersion = 1150;

class FaultPlan {
 public:
  std::uint64_t failAt = 0;  // 0: no fault
  std::uint64_t calls = 0;
  std::string failed;  // the call that failed
  // True when this call is the one to fail.
  bool fail(const char* call) {
    ++calls;
    if (failAt == 0 || calls != failAt) return false;
    failed = call;
    return true;
  }
};

#define IA_FAIL(call, result) \
  if (plan_.fail(call)) {     \
    return result;            \
  }

class FaultyRegistry : public Registry {
 public:
  FaultyRegistry(Registry& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  LONG RegOpenKeyExA(HKEY root, const char* subKey, DWORD options, REGSAM sam,
                     HKEY* result) override {
    if (plan_.fail("RegOpenKeyExA")) {
      if (result) *result = nullptr;
      return ERROR_ACCESS_DENIED;
    }
    return inner_.RegOpenKeyExA(root, subKey, options, sam, result);
  }
  LONG RegCloseKey(HKEY key) override {
    IA_FAIL("RegCloseKey", ERROR_INVALID_HANDLE);
    return inner_.RegCloseKey(key);
  }
  LONG RegQueryInfoKeyA(HKEY key, char* c, DWORD* cl, DWORD* r, DWORD* sk, DWORD* msk, DWORD* mcl,
                        DWORD* v, DWORD* mvn, DWORD* mvl, DWORD* sd, FILETIME* t) override {
    IA_FAIL("RegQueryInfoKeyA", ERROR_ACCESS_DENIED);
    return inner_.RegQueryInfoKeyA(key, c, cl, r, sk, msk, mcl, v, mvn, mvl, sd, t);
  }
  LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* length, DWORD* reserved, char* c,
                     DWORD* cl, FILETIME* t) override {
    IA_FAIL("RegEnumKeyExA", ERROR_ACCESS_DENIED);
    return inner_.RegEnumKeyExA(key, index, name, length, reserved, c, cl, t);
  }
  LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* length, DWORD* reserved, DWORD* type,
                     BYTE* data, DWORD* dataLength) override {
    IA_FAIL("RegEnumValueA", ERROR_ACCESS_DENIED);
    return inner_.RegEnumValueA(key, index, name, length, reserved, type, data, dataLength);
  }
  LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                        DWORD* length) override {
    IA_FAIL("RegQueryValueExA", ERROR_ACCESS_DENIED);
    return inner_.RegQueryValueExA(key, name, reserved, type, data, length);
  }

 private:
  Registry& inner_;
  FaultPlan& plan_;
};

// Calls that cannot fail on Windows (void results, the last error, the current process)
// pass through uncounted.
class FaultySystem : public System {
 public:
  FaultySystem(System& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  HMODULE LoadLibraryA(const char* name) override {
    IA_FAIL("LoadLibraryA", failed(ERROR_NOT_ENOUGH_MEMORY, HMODULE{}));
    return inner_.LoadLibraryA(name);
  }
  BOOL FreeLibrary(HMODULE module) override {
    IA_FAIL("FreeLibrary", failed(ERROR_INVALID_HANDLE, FALSE));
    return inner_.FreeLibrary(module);
  }
  HMODULE GetModuleHandleA(const char* name) override {
    IA_FAIL("GetModuleHandleA", failed(ERROR_MOD_NOT_FOUND, HMODULE{}));
    return inner_.GetModuleHandleA(name);
  }
  FARPROC GetProcAddress(HMODULE module, const char* name) override {
    IA_FAIL("GetProcAddress", failed(ERROR_PROC_NOT_FOUND, FARPROC{}));
    return inner_.GetProcAddress(module, name);
  }
  DWORD GetLastError() override { return inner_.GetLastError(); }
  void SetLastError(DWORD code) override { inner_.SetLastError(code); }
  BOOL GetVersionExA(OSVERSIONINFOA* info) override {
    IA_FAIL("GetVersionExA", failed(ERROR_INVALID_PARAMETER, FALSE));
    return inner_.GetVersionExA(info);
  }
  BOOL VerifyVersionInfoA(OSVERSIONINFOEXA* info, DWORD mask, DWORDLONG condition) override {
    IA_FAIL("VerifyVersionInfoA", failed(kErrorOldWinVersion, FALSE));
    return inner_.VerifyVersionInfoA(info, mask, condition);
  }
  DWORDLONG VerSetConditionMask(DWORDLONG mask, DWORD type, BYTE condition) override {
    return inner_.VerSetConditionMask(mask, type, condition);
  }
  BOOL GetProductInfo(DWORD a, DWORD b, DWORD c, DWORD d, DWORD* type) override {
    IA_FAIL("GetProductInfo", FALSE);
    return inner_.GetProductInfo(a, b, c, d, type);
  }
  HANDLE GetCurrentProcess() override { return inner_.GetCurrentProcess(); }
  BOOL IsWow64Process(HANDLE process, BOOL* wow64) override {
    IA_FAIL("IsWow64Process", failed(ERROR_ACCESS_DENIED, FALSE));
    return inner_.IsWow64Process(process, wow64);
  }
  void GetSystemInfo(SYSTEM_INFO* info) override { inner_.GetSystemInfo(info); }
  BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) override {
    IA_FAIL("GlobalMemoryStatusEx", failed(ERROR_INVALID_PARAMETER, FALSE));
    return inner_.GlobalMemoryStatusEx(status);
  }
  BOOL GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD size) override {
    IA_FAIL("GetPerformanceInfo", failed(kErrorBadLength, FALSE));
    return inner_.GetPerformanceInfo(info, size);
  }
  BOOL EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) override {
    IA_FAIL("EnumPageFilesA", failed(ERROR_ACCESS_DENIED, FALSE));
    return inner_.EnumPageFilesA(callback, context);
  }
  NTSTATUS ZwQuerySystemInformation(ULONG c, void* buffer, ULONG length, ULONG* ret) override {
    IA_FAIL("ZwQuerySystemInformation", static_cast<NTSTATUS>(0xC0000022u));
    return inner_.ZwQuerySystemInformation(c, buffer, length, ret);
  }
  DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) override {
    IA_FAIL("GetTimeZoneInformation", failed(ERROR_ACCESS_DENIED, TIME_ZONE_ID_INVALID));
    return inner_.GetTimeZoneInformation(info);
  }
  void GetSystemTime(SYSTEMTIME* time) override { inner_.GetSystemTime(time); }
  void GetLocalTime(SYSTEMTIME* time) override { inner_.GetLocalTime(time); }
  void crtTzset() override { inner_.crtTzset(); }
  long crtTimezone() override { return inner_.crtTimezone(); }
  int crtDaylight() override { return inner_.crtDaylight(); }
  std::int64_t crtTime64() override {
    IA_FAIL("_time64", -1);
    return inner_.crtTime64();
  }
  bool crtLocaltime64(std::int64_t seconds, std::tm* out) override {
    IA_FAIL("_localtime64", false);
    return inner_.crtLocaltime64(seconds, out);
  }
  void crtAssert(const char* e, const char* f, unsigned l) override { inner_.crtAssert(e, f, l); }
  BOOL GetComputerNameA(char* buffer, DWORD* size) override {
    IA_FAIL("GetComputerNameA", failed(kErrorBufferOverflow, FALSE));
    return inner_.GetComputerNameA(buffer, size);
  }
  DWORD GetEnvironmentVariableA(const char* name, char* buffer, DWORD size) override {
    IA_FAIL("GetEnvironmentVariableA", failed(ERROR_ENVVAR_NOT_FOUND, DWORD{0}));
    return inner_.GetEnvironmentVariableA(name, buffer, size);
  }
  const char* getenv(const char* name) override {
    IA_FAIL("getenv", nullptr);
    return inner_.getenv(name);
  }
  DWORD ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) override {
    IA_FAIL("ExpandEnvironmentStringsA", failed(ERROR_NOT_ENOUGH_MEMORY, DWORD{0}));
    return inner_.ExpandEnvironmentStringsA(source, destination, size);
  }
  DWORD FormatMessageA(DWORD flags, const void* source, DWORD id, DWORD language, char* buffer,
                       DWORD size, void* args) override {
    IA_FAIL("FormatMessageA", failed(kErrorMessageNotFound, DWORD{0}));
    return inner_.FormatMessageA(flags, source, id, language, buffer, size, args);
  }
  void* LocalFree(void* memory) override { return inner_.LocalFree(memory); }
  int WideCharToMultiByte(UINT cp, DWORD flags, const WCHAR* wide, int wideLength, char* narrow,
                          int narrowSize, const char* def, BOOL* used) override {
    IA_FAIL("WideCharToMultiByte", failed(ERROR_INSUFFICIENT_BUFFER, 0));
    return inner_.WideCharToMultiByte(cp, flags, wide, wideLength, narrow, narrowSize, def, used);
  }
  int MultiByteToWideChar(UINT cp, DWORD flags, const char* narrow, int narrowLength, WCHAR* wide,
                          int wideSize) override {
    IA_FAIL("MultiByteToWideChar", failed(ERROR_INSUFFICIENT_BUFFER, 0));
    return inner_.MultiByteToWideChar(cp, flags, narrow, narrowLength, wide, wideSize);
  }
  UINT GetACP() override { return inner_.GetACP(); }
  UINT SetErrorMode(UINT mode) override { return inner_.SetErrorMode(mode); }
  UINT GetSystemWindowsDirectoryA(char* buffer, UINT size) override {
    IA_FAIL("GetSystemWindowsDirectoryA", failed(ERROR_ACCESS_DENIED, UINT{0}));
    return inner_.GetSystemWindowsDirectoryA(buffer, size);
  }
  UINT GetSystemDirectoryA(char* buffer, UINT size) override {
    IA_FAIL("GetSystemDirectoryA", failed(ERROR_ACCESS_DENIED, UINT{0}));
    return inner_.GetSystemDirectoryA(buffer, size);
  }
  BOOL Wow64DisableWow64FsRedirection(void** old) override {
    IA_FAIL("Wow64DisableWow64FsRedirection", failed(kErrorInvalidFunction, FALSE));
    return inner_.Wow64DisableWow64FsRedirection(old);
  }
  BOOL Wow64RevertWow64FsRedirection(void* old) override {
    IA_FAIL("Wow64RevertWow64FsRedirection", failed(kErrorInvalidFunction, FALSE));
    return inner_.Wow64RevertWow64FsRedirection(old);
  }
  std::unique_ptr<std::istream> OpenTextFile(const std::string& path) override {
    IA_FAIL("OpenTextFile", nullptr);
    return inner_.OpenTextFile(path);
  }
  std::unique_ptr<std::istream> OpenBinaryFile(const std::string& path) override {
    IA_FAIL("OpenBinaryFile", nullptr);
    return inner_.OpenBinaryFile(path);
  }

 private:
  template <typename T>
  T failed(DWORD error, T result) {
    inner_.SetLastError(error);
    return result;
  }
  System& inner_;
  FaultPlan& plan_;
};

class FaultyPdh : public Pdh {
 public:
  FaultyPdh(Pdh& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  PDH_STATUS PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A* e, char* path, DWORD* size,
                                 DWORD flags) override {
    IA_FAIL("PdhMakeCounterPathA", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhMakeCounterPathA(e, path, size, flags);
  }
  PDH_STATUS PdhOpenQueryA(const char* source, DWORD_PTR data, PDH_HQUERY* query) override {
    IA_FAIL("PdhOpenQueryA", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhOpenQueryA(source, data, query);
  }
  PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* path, DWORD_PTR data,
                            PDH_HCOUNTER* counter) override {
    IA_FAIL("PdhAddCounterA", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhAddCounterA(query, path, data, counter);
  }
  PDH_STATUS PdhGetCounterInfoA(PDH_HCOUNTER counter, BOOLEAN explain, DWORD* size,
                                PDH_COUNTER_INFO_A* info) override {
    IA_FAIL("PdhGetCounterInfoA", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhGetCounterInfoA(counter, explain, size, info);
  }
  PDH_STATUS PdhCollectQueryData(PDH_HQUERY query) override {
    IA_FAIL("PdhCollectQueryData", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhCollectQueryData(query);
  }
  PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format, DWORD* type,
                                         PDH_FMT_COUNTERVALUE* value) override {
    IA_FAIL("PdhGetFormattedCounterValue", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhGetFormattedCounterValue(counter, format, type, value);
  }
  PDH_STATUS PdhRemoveCounter(PDH_HCOUNTER counter) override {
    IA_FAIL("PdhRemoveCounter", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhRemoveCounter(counter);
  }
  PDH_STATUS PdhCloseQuery(PDH_HQUERY query) override {
    IA_FAIL("PdhCloseQuery", PDH_MEMORY_ALLOCATION_FAILURE);
    return inner_.PdhCloseQuery(query);
  }

 private:
  Pdh& inner_;
  FaultPlan& plan_;
};

class FaultyNetApi : public NetApi {
 public:
  FaultyNetApi(NetApi& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  NET_API_STATUS NetUserEnum(const WCHAR* server, DWORD level, DWORD filter, BYTE** buffer,
                             DWORD length, DWORD* read, DWORD* total, DWORD* resume) override {
    if (plan_.fail("NetUserEnum")) {
      if (buffer) *buffer = nullptr;
      return ERROR_ACCESS_DENIED;
    }
    return inner_.NetUserEnum(server, level, filter, buffer, length, read, total, resume);
  }
  NET_API_STATUS NetWkstaUserEnum(const WCHAR* server, DWORD level, BYTE** buffer, DWORD length,
                                  DWORD* read, DWORD* total, DWORD* resume) override {
    if (plan_.fail("NetWkstaUserEnum")) {
      if (buffer) *buffer = nullptr;
      return ERROR_ACCESS_DENIED;
    }
    return inner_.NetWkstaUserEnum(server, level, buffer, length, read, total, resume);
  }
  NET_API_STATUS NetApiBufferFree(void* buffer) override { return inner_.NetApiBufferFree(buffer); }
  BOOL GetUserNameA(char* buffer, DWORD* size) override {
    IA_FAIL("GetUserNameA", FALSE);
    return inner_.GetUserNameA(buffer, size);
  }

 private:
  NetApi& inner_;
  FaultPlan& plan_;
};

// COM's own objects pass through; the calls that set COM up, and the date conversion, fail.
class FaultyWmi : public Wmi {
 public:
  FaultyWmi(Wmi& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  HRESULT CoInitializeEx(void* reserved, DWORD coInit) override {
    IA_FAIL("CoInitializeEx", E_FAIL);
    return inner_.CoInitializeEx(reserved, coInit);
  }
  HRESULT CoInitializeSecurity(void* sd, LONG n, void* s, void* r1, DWORD a, DWORD i, void* l,
                               DWORD c, void* r3) override {
    IA_FAIL("CoInitializeSecurity", E_ACCESSDENIED);
    return inner_.CoInitializeSecurity(sd, n, s, r1, a, i, l, c, r3);
  }
  HRESULT CoCreateWbemLocator(DWORD context, IWbemLocator** locator) override {
    IA_FAIL("CoCreateInstance", REGDB_E_CLASSNOTREG);
    return inner_.CoCreateWbemLocator(context, locator);
  }
  HRESULT CoSetProxyBlanket(IWbemServices* proxy, DWORD a, DWORD z, WCHAR* p, DWORD l, DWORD i,
                            void* info, DWORD c) override {
    IA_FAIL("CoSetProxyBlanket", E_ACCESSDENIED);
    return inner_.CoSetProxyBlanket(proxy, a, z, p, l, i, info, c);
  }
  void CoUninitialize() override { inner_.CoUninitialize(); }
  void VariantInit(VARIANT* value) override { inner_.VariantInit(value); }
  HRESULT VariantClear(VARIANT* value) override { return inner_.VariantClear(value); }
  INT VariantTimeToSystemTime(DATE time, SYSTEMTIME* out) override {
    IA_FAIL("VariantTimeToSystemTime", FALSE);
    return inner_.VariantTimeToSystemTime(time, out);
  }

 private:
  Wmi& inner_;
  FaultPlan& plan_;
};

class FaultySetup : public Setup {
 public:
  FaultySetup(Setup& inner, FaultPlan& plan) : inner_(inner), plan_(plan) {}
  HINF SetupOpenInfFileA(const char* name, const char* cls, DWORD style, UINT* line) override {
    IA_FAIL("SetupOpenInfFileA", INVALID_HANDLE_VALUE);
    return inner_.SetupOpenInfFileA(name, cls, style, line);
  }
  void SetupCloseInfFile(HINF inf) override { inner_.SetupCloseInfFile(inf); }
  BOOL SetupFindFirstLineA(HINF inf, const char* section, const char* key,
                           INFCONTEXT* context) override {
    IA_FAIL("SetupFindFirstLineA", FALSE);
    return inner_.SetupFindFirstLineA(inf, section, key, context);
  }
  LONG SetupGetLineCountA(HINF inf, const char* section) override {
    IA_FAIL("SetupGetLineCountA", -1);
    return inner_.SetupGetLineCountA(inf, section);
  }
  BOOL SetupGetLineByIndexA(HINF inf, const char* section, DWORD index,
                            INFCONTEXT* context) override {
    IA_FAIL("SetupGetLineByIndexA", FALSE);
    return inner_.SetupGetLineByIndexA(inf, section, index, context);
  }
  BOOL SetupGetStringFieldA(INFCONTEXT* context, DWORD field, char* buffer, DWORD size,
                            DWORD* required) override {
    IA_FAIL("SetupGetStringFieldA", FALSE);
    return inner_.SetupGetStringFieldA(context, field, buffer, size, required);
  }
  BOOL SetupGetLineTextA(INFCONTEXT* context, HINF inf, const char* section, const char* key,
                         char* buffer, DWORD size, DWORD* required) override {
    IA_FAIL("SetupGetLineTextA", FALSE);
    return inner_.SetupGetLineTextA(context, inf, section, key, buffer, size, required);
  }
  DWORD GetFileVersionInfoSizeA(const char* name, DWORD* handle) override {
    IA_FAIL("GetFileVersionInfoSizeA", DWORD{0});
    return inner_.GetFileVersionInfoSizeA(name, handle);
  }
  BOOL GetFileVersionInfoA(const char* name, DWORD handle, DWORD length, void* data) override {
    IA_FAIL("GetFileVersionInfoA", FALSE);
    return inner_.GetFileVersionInfoA(name, handle, length, data);
  }
  BOOL VerQueryValueA(const void* block, const char* sub, void** buffer, UINT* length) override {
    IA_FAIL("VerQueryValueA", FALSE);
    return inner_.VerQueryValueA(block, sub, buffer, length);
  }

 private:
  Setup& inner_;
  FaultPlan& plan_;
};

#undef IA_FAIL

class FaultyMachine : public Machine {
 public:
  explicit FaultyMachine(std::shared_ptr<Machine> inner)
      : inner_(std::move(inner)),
        registry_(inner_->registry(), plan),
        system_(inner_->system(), plan),
        pdh_(inner_->pdh(), plan),
        net_(inner_->net(), plan),
        wmi_(inner_->wmi(), plan),
        setup_(inner_->setup(), plan) {}
  Registry& registry() override { return registry_; }
  System& system() override { return system_; }
  Pdh& pdh() override { return pdh_; }
  NetApi& net() override { return net_; }
  Wmi& wmi() override { return wmi_; }
  Setup& setup() override { return setup_; }

  FaultPlan plan;

 private:
  std::shared_ptr<Machine> inner_;
  FaultyRegistry registry_;
  FaultySystem system_;
  FaultyPdh pdh_;
  FaultyNetApi net_;
  FaultyWmi wmi_;
  FaultySetup setup_;
};

}  // namespace testing_machine
