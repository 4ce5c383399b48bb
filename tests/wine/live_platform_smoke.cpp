// Runs every family of the live machine once against the Windows it finds (Wine in CI)
// and checks the answers the collectors build on. One line per check, "INFO" lines for
// facts that differ between Windows and Wine, and a closing "N passed, M failed".
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "platform/win32/live_machine.h"

namespace {

using namespace platform;

int passed = 0;
int failed = 0;

void Check(bool ok, const std::string& name, const std::string& detail = "") {
  (ok ? passed : failed)++;
  std::printf("%s %s%s%s\n", ok ? "PASS" : "FAIL", name.c_str(), detail.empty() ? "" : ": ",
              detail.c_str());
  std::fflush(stdout);
}

void Info(const std::string& name, const std::string& detail) {
  std::printf("INFO %s: %s\n", name.c_str(), detail.c_str());
  std::fflush(stdout);
}

std::string Hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return text;
}

std::string Narrow(System& system, const WCHAR* wide) {
  if (wide == nullptr) return "(null)";
  char text[512] = {};
  system.WideCharToMultiByte(CP_ACP, 0, wide, -1, text, sizeof text - 1, nullptr, nullptr);
  return text;
}

void CheckRegistry(Machine& machine) {
  Registry& reg = machine.registry();
  const char* path = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
  HKEY key = nullptr;
  Check(reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) == ERROR_SUCCESS &&
            key != nullptr,
        "registry open HKLM version key");
  if (key == nullptr) return;

  DWORD values = 0, maxName = 0, maxData = 0;
  LONG rc = reg.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values,
                                 &maxName, &maxData, nullptr, nullptr);
  Check(rc == ERROR_SUCCESS && values > 0 && maxName > 0 && maxData > 0, "registry query info",
        std::to_string(values) + " values");

  DWORD type = 0, size = 0;
  rc = reg.RegQueryValueExA(key, "CurrentVersion", nullptr, &type, nullptr, &size);
  Check(rc == ERROR_SUCCESS && type == REG_SZ && size > 1, "registry size query",
        std::to_string(size) + " bytes");
  std::vector<BYTE> data(size + 1, 0);
  DWORD full = size;
  rc = reg.RegQueryValueExA(key, "CurrentVersion", nullptr, &type, data.data(), &full);
  const std::string version(reinterpret_cast<const char*>(data.data()));
  Check(rc == ERROR_SUCCESS && !version.empty(), "registry read CurrentVersion", version);

  BYTE one[1] = {};
  DWORD shortSize = sizeof one;
  rc = reg.RegQueryValueExA(key, "CurrentVersion", nullptr, &type, one, &shortSize);
  Check(rc == ERROR_MORE_DATA && shortSize == size, "registry short buffer",
        "rc " + std::to_string(rc) + ", size " + std::to_string(shortSize));

  for (const char* name : {"ProductName", "CurrentBuildNumber", "ProductId", "RegisteredOwner",
                           "BuildLabEx", "CSDVersion", "InstallDate"}) {
    char text[256] = {};
    DWORD textSize = sizeof text - 1;
    rc = reg.RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &textSize);
    std::string shown = "rc " + std::to_string(rc);
    if (rc == ERROR_SUCCESS && type == REG_DWORD) {
      DWORD number = 0;
      std::memcpy(&number, text, sizeof number);
      shown = "REG_DWORD " + std::to_string(number);
    } else if (rc == ERROR_SUCCESS) {
      shown = "type " + std::to_string(type) + " \"" + text + "\"";
    }
    Info(std::string("registry ") + name, shown);
  }

  char name[256] = {};
  DWORD nameSize = sizeof name;
  DWORD dataSize = 0;
  rc = reg.RegEnumValueA(key, 0, name, &nameSize, nullptr, &type, nullptr, &dataSize);
  Check(rc == ERROR_SUCCESS && nameSize == std::strlen(name) && nameSize > 0,
        "registry enum value 0", name);
  nameSize = sizeof name;
  Check(reg.RegEnumValueA(key, values, name, &nameSize, nullptr, nullptr, nullptr, nullptr) ==
            ERROR_NO_MORE_ITEMS,
        "registry enum value past the end");
  Check(reg.RegCloseKey(key) == ERROR_SUCCESS, "registry close");

  HKEY software = nullptr;
  rc = reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &software);
  DWORD subKeys = 0;
  if (rc == ERROR_SUCCESS) {
    reg.RegQueryInfoKeyA(software, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr);
    nameSize = sizeof name;
    rc = reg.RegEnumKeyExA(software, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr);
    Check(rc == ERROR_SUCCESS && nameSize == std::strlen(name), "registry enum key 0", name);
    nameSize = 1;
    rc = reg.RegEnumKeyExA(software, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr);
    Check(rc == ERROR_MORE_DATA, "registry enum key short name", "rc " + std::to_string(rc));
    nameSize = sizeof name;
    rc = reg.RegEnumKeyExA(software, subKeys, name, &nameSize, nullptr, nullptr, nullptr, nullptr);
    Check(rc == ERROR_NO_MORE_ITEMS, "registry enum key past the end");
    reg.RegCloseKey(software);
  } else {
    Check(false, "registry open HKLM\\SOFTWARE", "rc " + std::to_string(rc));
  }

  struct View {
    REGSAM sam;
    const char* name;
  };
  for (const View& view : {View{KEY_READ | KEY_WOW64_64KEY, "64-bit view"},
                           View{KEY_READ | KEY_WOW64_32KEY, "32-bit view"}}) {
    HKEY viewKey = nullptr;
    rc = reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, view.sam, &viewKey);
    Check(rc == ERROR_SUCCESS, std::string("registry ") + view.name, "rc " + std::to_string(rc));
    if (viewKey != nullptr) reg.RegCloseKey(viewKey);
  }

  HKEY missing = nullptr;
  rc = reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\NoSuchVendor\\NoSuchKey", 0, KEY_READ,
                         &missing);
  Check(rc == ERROR_FILE_NOT_FOUND, "registry missing key", "rc " + std::to_string(rc));
  for (const char* absent : {"BCD00000000", "SYSTEM\\CurrentControlSet\\Control\\MiniNT",
                             "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\Setup\\Oc "
                             "Manager\\Subcomponents",
                             "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"}) {
    HKEY probe = nullptr;
    rc = reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, absent, 0, KEY_READ, &probe);
    Info(std::string("registry HKLM\\") + absent, rc == ERROR_SUCCESS ? "present" : "absent");
    if (probe != nullptr) reg.RegCloseKey(probe);
  }
}

void CheckVersion(System& system) {
  OSVERSIONINFOA plain{};
  plain.dwOSVersionInfoSize = sizeof plain;
  const BOOL gotPlain = system.GetVersionExA(&plain);
  Check(gotPlain && plain.dwPlatformId == VER_PLATFORM_WIN32_NT && plain.dwMajorVersion >= 5,
        "GetVersionExA 148 bytes",
        std::to_string(plain.dwMajorVersion) + "." + std::to_string(plain.dwMinorVersion) +
            " build " + std::to_string(plain.dwBuildNumber));

  OSVERSIONINFOEXA ex{};
  ex.dwOSVersionInfoSize = sizeof ex;
  const bool ok = system.GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&ex));
  Check(ok && ex.dwMajorVersion == plain.dwMajorVersion &&
            ex.dwMinorVersion == plain.dwMinorVersion && ex.wProductType >= VER_NT_WORKSTATION &&
            ex.wProductType <= VER_NT_SERVER,
        "GetVersionExA 156 bytes",
        "product type " + std::to_string(ex.wProductType) + ", suite " + Hex(ex.wSuiteMask) +
            ", service pack \"" + ex.szCSDVersion + "\"");

  OSVERSIONINFOEXA wanted{};
  wanted.dwOSVersionInfoSize = sizeof wanted;
  wanted.dwMajorVersion = 5;
  wanted.dwMinorVersion = 1;
  DWORDLONG mask = system.VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = system.VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  Check(system.VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, mask) == TRUE,
        "VerifyVersionInfoA at least 5.1");

  HMODULE kernel32 = system.GetModuleHandleA("kernel32.dll");
  Check(kernel32 != nullptr && system.GetProcAddress(kernel32, "GetProductInfo") != nullptr &&
            system.GetProcAddress(kernel32, "IsWow64Process") != nullptr,
        "kernel32 exports GetProductInfo and IsWow64Process");
  DWORD product = 0;
  const BOOL gotProduct = system.GetProductInfo(6, 1, 0, 0, &product);
  Check(gotProduct == TRUE, "GetProductInfo 6.1", "product type " + std::to_string(product));
  BOOL wow64 = 2;
  Check(system.IsWow64Process(system.GetCurrentProcess(), &wow64) == TRUE && wow64 == FALSE,
        "IsWow64Process of a 64-bit process");

  SYSTEM_INFO info{};
  system.GetSystemInfo(&info);
  Check(info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64 && info.dwPageSize == 4096 &&
            info.dwNumberOfProcessors >= 1,
        "GetSystemInfo",
        "architecture " + std::to_string(info.wProcessorArchitecture) + ", " +
            std::to_string(info.dwNumberOfProcessors) + " processors");
}

struct PageFiles {
  int count = 0;
  std::string names;
};

BOOL RecordPageFile(void* context, ENUM_PAGE_FILE_INFORMATION* info, const char* fileName) {
  auto* files = static_cast<PageFiles*>(context);
  ++files->count;
  files->names += std::string(fileName) + " (" + std::to_string(info->TotalSize) + " pages) ";
  return TRUE;
}

void CheckMemory(System& system) {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  const BOOL gotStatus = system.GlobalMemoryStatusEx(&status);
  Check(gotStatus && status.ullTotalPhys > 0 && status.ullAvailPhys <= status.ullTotalPhys &&
            status.dwMemoryLoad <= 100,
        "GlobalMemoryStatusEx",
        std::to_string(status.ullTotalPhys >> 20) + " MiB, page file " +
            std::to_string(status.ullTotalPageFile >> 20) + " MiB");

  HMODULE psapi = system.LoadLibraryA("psapi.dll");
  Check(psapi != nullptr, "LoadLibraryA psapi.dll");
  Check(psapi != nullptr && system.GetProcAddress(psapi, "GetPerformanceInfo") != nullptr &&
            system.GetProcAddress(psapi, "EnumPageFilesA") != nullptr,
        "psapi exports GetPerformanceInfo and EnumPageFilesA");
  Check(psapi != nullptr && system.GetProcAddress(psapi, "NoSuchFunction") == nullptr &&
            system.GetLastError() == static_cast<DWORD>(ERROR_PROC_NOT_FOUND),
        "GetProcAddress of a missing function");

  PERFORMANCE_INFORMATION perf{};
  const BOOL gotPerf = system.GetPerformanceInfo(&perf, sizeof perf);
  Check(gotPerf == TRUE && perf.PageSize == 4096 && perf.PhysicalTotal > 0, "GetPerformanceInfo",
        std::to_string(perf.ProcessCount) + " processes, " + std::to_string(perf.HandleCount) +
            " handles, commit limit " + std::to_string(perf.CommitLimit) + " pages");

  // Wine reports no page file: the collector then has nothing to list, by either route.
  PageFiles files;
  system.SetLastError(0);
  const BOOL enumerated = system.EnumPageFilesA(&RecordPageFile, &files);
  Info("EnumPageFilesA", "answers " + std::to_string(enumerated) + ", last error " +
                             std::to_string(system.GetLastError()) + ", " +
                             std::to_string(files.count) + " files " + files.names);
  Check(files.count == 0, "EnumPageFilesA reports no page files");

  std::vector<unsigned char> buffer(65536);
  ULONG returned = 0;
  const NTSTATUS status18 = system.ZwQuerySystemInformation(
      SystemPageFileInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &returned);
  Info("ZwQuerySystemInformation(18)", "status " + Hex(static_cast<std::uint32_t>(status18)) +
                                           ", returned " + std::to_string(returned));
  Check(status18 != STATUS_SUCCESS || returned == 0,
        "ZwQuerySystemInformation(18) reports no page files");
  Check(system.FreeLibrary(psapi) == TRUE, "FreeLibrary psapi.dll");

  Check(system.LoadLibraryA("no_such_library.dll") == nullptr &&
            system.GetLastError() == static_cast<DWORD>(ERROR_MOD_NOT_FOUND),
        "LoadLibraryA of a missing library");
}

void CheckTime(System& system) {
  TIME_ZONE_INFORMATION zone{};
  const DWORD id = system.GetTimeZoneInformation(&zone);
  Check(id != TIME_ZONE_ID_INVALID, "GetTimeZoneInformation",
        "id " + std::to_string(id) + ", bias " + std::to_string(zone.Bias) + ", daylight bias " +
            std::to_string(zone.DaylightBias) + ", standard \"" +
            Narrow(system, zone.StandardName) + "\", daylight \"" +
            Narrow(system, zone.DaylightName) + "\"");

  SYSTEMTIME utc{}, local{};
  system.GetSystemTime(&utc);
  system.GetLocalTime(&local);
  Check(utc.wYear >= 2020 && utc.wMonth >= 1 && utc.wMonth <= 12 && local.wYear >= 2020,
        "GetSystemTime and GetLocalTime",
        std::to_string(utc.wYear) + "-" + std::to_string(utc.wMonth) + "-" +
            std::to_string(utc.wDay));

  system.crtTzset();
  const std::int64_t now = system.crtTime64();
  std::tm brokenDown{};
  const bool local64 = system.crtLocaltime64(now, &brokenDown);
  Check(now > 1577836800 && local64 && brokenDown.tm_year + 1900 == local.wYear, "C runtime time",
        "timezone " + std::to_string(system.crtTimezone()) + " s, daylight " +
            std::to_string(system.crtDaylight()));
  Check(!system.crtLocaltime64(-1, &brokenDown), "C runtime rejects a negative time");
}

void CheckNamesAndEnvironment(System& system) {
  char computer[64] = {};
  DWORD size = sizeof computer;
  const BOOL gotComputer = system.GetComputerNameA(computer, &size);
  Check(gotComputer == TRUE && size == std::strlen(computer) && size > 0, "GetComputerNameA",
        computer);

  DWORD needed = system.GetEnvironmentVariableA("SystemRoot", nullptr, 0);
  std::string root(needed, '\0');
  const DWORD length = system.GetEnvironmentVariableA("SystemRoot", &root[0], needed);
  Check(needed > 1 && length == needed - 1, "GetEnvironmentVariableA size rules", root.c_str());
  const char* fromCrt = system.getenv("SystemRoot");
  Check(fromCrt != nullptr && root.compare(0, length, fromCrt) == 0, "getenv SystemRoot");
  system.SetLastError(0);
  Check(system.GetEnvironmentVariableA("NO_SUCH_VARIABLE_42", nullptr, 0) == 0 &&
            system.GetLastError() == static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND) &&
            system.getenv("NO_SUCH_VARIABLE_42") == nullptr,
        "missing environment variable");
  Info("environment USERNAME/USERPROFILE/USERDOMAIN",
       std::string(system.getenv("USERNAME") ? system.getenv("USERNAME") : "(unset)") + " / " +
           (system.getenv("USERPROFILE") ? system.getenv("USERPROFILE") : "(unset)") + " / " +
           (system.getenv("USERDOMAIN") ? system.getenv("USERDOMAIN") : "(unset)"));

  // The size answered counts the NUL, short buffer or not.
  const DWORD expandNeeded = system.ExpandEnvironmentStringsA("%SystemDrive%", nullptr, 0);
  char tiny[1] = {};
  const DWORD expandShort = system.ExpandEnvironmentStringsA("%SystemDrive%", tiny, sizeof tiny);
  char drive[254] = {};
  const DWORD expanded = system.ExpandEnvironmentStringsA("%SystemDrive%", drive, sizeof drive);
  Check(expandNeeded == expanded && expandShort == expanded && expanded == std::strlen(drive) + 1 &&
            std::strlen(drive) == 2,
        "ExpandEnvironmentStringsA size rules", drive);
  char kept[64] = {};
  system.ExpandEnvironmentStringsA("%NO_SUCH_VARIABLE_42%\\x", kept, sizeof kept);
  Check(std::string(kept) == "%NO_SUCH_VARIABLE_42%\\x",
        "ExpandEnvironmentStringsA keeps unknown names");

  char* message = nullptr;
  const DWORD chars = system.FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
      nullptr, 2, 0x400, reinterpret_cast<char*>(&message), 0, nullptr);
  std::string text = message != nullptr ? std::string(message, chars) : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  Check(chars > 0 && !text.empty(), "FormatMessageA code 2", text);
  Check(message == nullptr || system.LocalFree(message) == nullptr, "LocalFree of the message");

  Info("GetACP", std::to_string(system.GetACP()));

  char windows[256] = {}, systemDir[256] = {};
  const UINT windowsLength = system.GetSystemWindowsDirectoryA(windows, sizeof windows);
  const UINT systemLength = system.GetSystemDirectoryA(systemDir, sizeof systemDir);
  Check(windowsLength == std::strlen(windows) && windowsLength > 0 &&
            systemLength == std::strlen(systemDir) &&
            std::string(systemDir).compare(0, windowsLength, windows) == 0,
        "system directories", std::string(windows) + ", " + systemDir);

  void* redirection = nullptr;
  system.SetLastError(0);
  const BOOL disabled = system.Wow64DisableWow64FsRedirection(&redirection);
  Info("Wow64DisableWow64FsRedirection", "answers " + std::to_string(disabled) + ", last error " +
                                             std::to_string(system.GetLastError()));
  if (disabled == TRUE) system.Wow64RevertWow64FsRedirection(redirection);

  Check(system.OpenTextFile(std::string(windows) + "\\win.ini") != nullptr, "OpenTextFile win.ini");
  Check(system.OpenTextFile(std::string(drive) + "\\no_such_file.ini") == nullptr,
        "OpenTextFile of a missing file");
  Info("boot.ini", system.OpenTextFile(std::string(drive) + "\\boot.ini") ? "present" : "absent");
}

void CheckPdh(Pdh& pdh) {
  char object[] = "System";
  char counterName[] = "System Up Time";
  PDH_COUNTER_PATH_ELEMENTS_A elements{};
  elements.szObjectName = object;
  elements.szCounterName = counterName;
  char small[4] = {};
  DWORD size = sizeof small;
  PDH_STATUS status = pdh.PdhMakeCounterPathA(&elements, small, &size, 0);
  Check(status == PDH_MORE_DATA && size > sizeof small, "PdhMakeCounterPathA short buffer",
        Hex(static_cast<std::uint32_t>(status)) + ", needs " + std::to_string(size));
  std::vector<char> path(2048, '\0');
  size = static_cast<DWORD>(path.size());
  status = pdh.PdhMakeCounterPathA(&elements, path.data(), &size, 0);
  Check(status == 0 && std::string(path.data()) == "\\System\\System Up Time",
        "PdhMakeCounterPathA", path.data());

  PDH_HQUERY query = nullptr;
  status = pdh.PdhOpenQueryA(nullptr, 0, &query);
  Check(status == 0 && query != nullptr, "PdhOpenQueryA");
  if (status != 0) return;
  PDH_HCOUNTER counter = nullptr;
  status = pdh.PdhAddCounterA(query, path.data(), 0, &counter);
  Info("PdhAddCounterA System Up Time", Hex(static_cast<std::uint32_t>(status)));
  if (status == 0) {
    std::vector<unsigned char> infoBuffer(2048 + 112);
    DWORD infoSize = static_cast<DWORD>(infoBuffer.size());
    auto* info = reinterpret_cast<PDH_COUNTER_INFO_A*>(infoBuffer.data());
    status = pdh.PdhGetCounterInfoA(counter, FALSE, &infoSize, info);
    Info("PdhGetCounterInfoA",
         Hex(static_cast<std::uint32_t>(status)) + ", counter type " + Hex(info->dwType));
    status = pdh.PdhCollectQueryData(query);
    Info("PdhCollectQueryData", Hex(static_cast<std::uint32_t>(status)));
    PDH_FMT_COUNTERVALUE value{};
    DWORD type = 0;
    status = pdh.PdhGetFormattedCounterValue(counter, PDH_FMT_LONG, &type, &value);
    Info("PdhGetFormattedCounterValue", Hex(static_cast<std::uint32_t>(status)) + ", CStatus " +
                                            Hex(value.CStatus) + ", up time " +
                                            std::to_string(value.longValue) + " s");
    Check(status != 0 || value.longValue >= 0, "PDH up-time counter read");
    Check(pdh.PdhRemoveCounter(counter) == 0, "PdhRemoveCounter");
  }
  Check(pdh.PdhCloseQuery(query) == 0, "PdhCloseQuery");
}

void CheckNet(NetApi& net, System& system) {
  // Either a batch with its buffer or a failure without one; never a crash.
  BYTE* buffer = nullptr;
  DWORD read = 0, total = 0, resume = 0;
  NET_API_STATUS status = net.NetUserEnum(nullptr, 3, 0, &buffer, 100, &read, &total, &resume);
  std::string names;
  if ((status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA)) &&
      buffer != nullptr) {
    auto* users = reinterpret_cast<USER_INFO_3*>(buffer);
    for (DWORD i = 0; i < read; ++i) names += Narrow(system, users[i].usri3_name) + " ";
  }
  Info("NetUserEnum level 3", "status " + std::to_string(status) + ", " + std::to_string(read) +
                                  " of " + std::to_string(total) + " " + names);
  Check(
      status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA) || buffer == nullptr,
      "NetUserEnum level 3 answers without crashing");
  if (buffer != nullptr) net.NetApiBufferFree(buffer);

  buffer = nullptr;
  read = total = resume = 0;
  status = net.NetWkstaUserEnum(nullptr, 1, &buffer, MAX_PREFERRED_LENGTH, &read, &total, &resume);
  names.clear();
  if ((status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA)) &&
      buffer != nullptr) {
    auto* users = reinterpret_cast<WKSTA_USER_INFO_1*>(buffer);
    for (DWORD i = 0; i < read; ++i) {
      names += Narrow(system, users[i].wkui1_username) + "@" +
               Narrow(system, users[i].wkui1_logon_domain) + " via " +
               Narrow(system, users[i].wkui1_logon_server) + " ";
    }
  }
  Info("NetWkstaUserEnum level 1", "status " + std::to_string(status) + ", " +
                                       std::to_string(read) + " of " + std::to_string(total) + " " +
                                       names);
  Check(
      status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA) || buffer == nullptr,
      "NetWkstaUserEnum level 1 answers without crashing");
  if (buffer != nullptr) net.NetApiBufferFree(buffer);

  char one[1] = {};
  DWORD size = sizeof one;
  const BOOL tooSmall = net.GetUserNameA(one, &size);
  const DWORD error = system.GetLastError();
  Check(tooSmall == FALSE && error == static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER) && size > 1,
        "GetUserNameA 1-byte buffer", "needs " + std::to_string(size));
  std::vector<char> user(size > 1 ? size : 2, '\0');
  DWORD userSize = static_cast<DWORD>(user.size());
  const BOOL gotUser = net.GetUserNameA(user.data(), &userSize);
  Check(gotUser == TRUE && userSize == size && std::strlen(user.data()) + 1 == userSize,
        "GetUserNameA", user.data());
}

std::string VariantText(System& system, const VARIANT& value) {
  switch (value.vt) {
    case VT_BSTR:
      return "BSTR \"" + Narrow(system, value.bstrVal) + "\"";
    case VT_DATE:
      return "DATE " + std::to_string(value.date);
    case VT_NULL:
      return "NULL";
    case VT_EMPTY:
      return "EMPTY";
    default:
      return "vt " + std::to_string(value.vt);
  }
}

// Rows of one WQL query, each property described; the count, or -1 when a step failed.
int QueryRows(Wmi& wmi, System& system, IWbemServices* services, const WCHAR* query,
              const std::vector<const WCHAR*>& properties, const std::string& label) {
  IEnumWbemClassObject* rows = nullptr;
  const HRESULT hr = services->ExecQuery(
      u"WQL", query, WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, &rows);
  Info("WMI ExecQuery " + label, Hex(static_cast<std::uint32_t>(hr)));
  if (FAILED(hr) || rows == nullptr) return -1;
  int count = 0;
  for (;;) {
    IWbemClassObject* row = nullptr;
    ULONG returned = 0;
    rows->Next(WBEM_INFINITE, 1, &row, &returned);
    if (returned == 0) break;
    ++count;
    std::string described;
    for (const WCHAR* property : properties) {
      VARIANT value;
      wmi.VariantInit(&value);
      CIMTYPE type = 0;
      const HRESULT got = row->Get(property, 0, &value, &type, nullptr);
      described += Narrow(system, property) + "=" +
                   (SUCCEEDED(got) ? VariantText(system, value) : Hex(got)) + " ";
      wmi.VariantClear(&value);
    }
    if (count <= 3) Info("WMI " + label + " row " + std::to_string(count), described);
    VARIANT missing;
    wmi.VariantInit(&missing);
    const HRESULT absent = row->Get(u"NoSuchProperty", 0, &missing, nullptr, nullptr);
    if (count == 1) Check(absent == WBEM_E_NOT_FOUND, "WMI Get of a missing property");
    row->Release();
  }
  rows->Release();
  return count;
}

void CheckWmi(Wmi& wmi, System& system) {
  HRESULT hr = wmi.CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  Check(SUCCEEDED(hr), "CoInitializeEx", Hex(hr));
  if (FAILED(hr)) return;
  hr = wmi.CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  Check(SUCCEEDED(hr) || hr == RPC_E_TOO_LATE, "CoInitializeSecurity", Hex(hr));
  IWbemLocator* locator = nullptr;
  hr = wmi.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator);
  Check(SUCCEEDED(hr) && locator != nullptr, "CoCreateInstance WbemLocator", Hex(hr));
  if (locator != nullptr) {
    IWbemServices* services = nullptr;
    hr = locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                &services);
    Check(SUCCEEDED(hr) && services != nullptr, "ConnectServer ROOT\\CIMV2", Hex(hr));
    if (services != nullptr) {
      hr = wmi.CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                 RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                                 EOAC_NONE);
      Info("CoSetProxyBlanket", Hex(static_cast<std::uint32_t>(hr)));
      const int os = QueryRows(wmi, system, services, u"SELECT * FROM Win32_OperatingSystem",
                               {u"Caption", u"Version", u"InstallDate"}, "Win32_OperatingSystem");
      Check(os == 1, "WMI Win32_OperatingSystem has one row", std::to_string(os));
      const int fixes =
          QueryRows(wmi, system, services, u"SELECT * FROM Win32_QuickFixEngineering",
                    {u"Description", u"HotFixID", u"InstallDate", u"InstalledOn", u"InstalledBy"},
                    "Win32_QuickFixEngineering");
      Check(fixes >= 0, "WMI Win32_QuickFixEngineering query runs",
            std::to_string(fixes) + " rows");
      services->Release();
    }
    locator->Release();
  }
  wmi.CoUninitialize();

  // 40252 days after 1899-12-30 is 15 March 2010.
  SYSTEMTIME date{};
  Check(wmi.VariantTimeToSystemTime(40252.5, &date) == TRUE && date.wYear == 2010 &&
            date.wMonth == 3 && date.wDay == 15 && date.wHour == 12,
        "VariantTimeToSystemTime");
}

void CheckSetup(Setup& setup, System& system) {
  char windows[256] = {};
  system.GetSystemWindowsDirectoryA(windows, sizeof windows);
  const std::string sysoc = std::string(windows) + "\\inf\\sysoc.inf";
  Info("sysoc.inf", setup.SetupOpenInfFileA(sysoc.c_str(), nullptr, INF_STYLE_WIN4, nullptr) ==
                            INVALID_HANDLE_VALUE
                        ? "absent"
                        : "present");
  system.SetLastError(0);
  const HINF none =
      setup.SetupOpenInfFileA("C:\\no_such_dir\\no_such.inf", nullptr, INF_STYLE_WIN4, nullptr);
  Check(none == INVALID_HANDLE_VALUE, "SetupOpenInfFileA of a missing file",
        "last error " + std::to_string(system.GetLastError()));

  // A small INF of our own: the field and line rules the component collector relies on.
  char temp[256] = {};
  system.GetEnvironmentVariableA("TEMP", temp, sizeof temp);
  const std::string infPath = std::string(temp) + "\\live_smoke.inf";
  {
    std::ofstream inf(infPath);
    inf << "[Version]\r\nSignature=\"$Windows NT$\"\r\n\r\n"
        << "[Components]\r\nalpha=alpha.dll,Entry,alpha.inf,,7\r\n"
        << "beta=beta.dll,Entry,beta.inf\r\n\r\n"
        << "[alpha]\r\noptiondesc=Alpha component\r\ntip=Try alpha\r\n";
  }
  HINF inf = setup.SetupOpenInfFileA(infPath.c_str(), nullptr, INF_STYLE_WIN4, nullptr);
  Check(inf != INVALID_HANDLE_VALUE, "SetupOpenInfFileA of a written INF");
  if (inf == INVALID_HANDLE_VALUE) return;
  INFCONTEXT context{};
  Check(setup.SetupFindFirstLineA(inf, "Components", nullptr, &context) == TRUE,
        "SetupFindFirstLineA section");
  Check(setup.SetupGetLineCountA(inf, "Components") == 2, "SetupGetLineCountA");
  Check(setup.SetupGetLineCountA(inf, "NoSuchSection") == -1,
        "SetupGetLineCountA of a missing section");
  char field[256] = {};
  DWORD required = 0;
  bool ok = setup.SetupGetLineByIndexA(inf, "Components", 1, &context) == TRUE &&
            setup.SetupGetStringFieldA(&context, 3, field, sizeof field, &required) == TRUE;
  Check(ok && std::string(field) == "beta.inf" && required == 9,
        "SetupGetStringFieldA field 3 of line 1", field);
  std::strcpy(field, "left over");
  const BOOL beyond = setup.SetupGetStringFieldA(&context, 4, field, sizeof field, nullptr);
  Info("SetupGetStringFieldA beyond the last field",
       "answers " + std::to_string(beyond) + ", buffer \"" + field + "\"");
  ok = setup.SetupGetLineByIndexA(inf, "Components", 0, &context) == TRUE &&
       setup.SetupGetStringFieldA(&context, 0, field, sizeof field, nullptr) == TRUE;
  Check(ok && std::string(field) == "alpha", "SetupGetStringFieldA key of line 0", field);
  system.SetLastError(0);
  ok = setup.SetupGetLineByIndexA(inf, "Components", 2, &context) == FALSE;
  Check(ok, "SetupGetLineByIndexA past the last line", "last error " + Hex(system.GetLastError()));
  ok = setup.SetupFindFirstLineA(inf, "alpha", "optiondesc", &context) == TRUE &&
       setup.SetupGetLineTextA(&context, nullptr, nullptr, nullptr, field, sizeof field, nullptr) ==
           TRUE;
  Check(ok && std::string(field) == "Alpha component", "SetupGetLineTextA by context", field);
  ok =
      setup.SetupGetLineTextA(nullptr, inf, "alpha", "tip", field, sizeof field, &required) == TRUE;
  Check(ok && std::string(field) == "Try alpha" && required == 10,
        "SetupGetLineTextA by section and key", field);
  Check(setup.SetupFindFirstLineA(inf, "alpha", "parent", &context) == FALSE,
        "SetupFindFirstLineA of a missing key");
  setup.SetupCloseInfFile(inf);
  std::remove(infPath.c_str());
}

void CheckVersionResource(Setup& setup, System& system) {
  char systemDir[256] = {};
  system.GetSystemDirectoryA(systemDir, sizeof systemDir);
  const std::string dll = std::string(systemDir) + "\\kernel32.dll";
  DWORD handle = 0;
  const DWORD size = setup.GetFileVersionInfoSizeA(dll.c_str(), &handle);
  Check(size > 0, "GetFileVersionInfoSizeA kernel32.dll", std::to_string(size) + " bytes");
  if (size == 0) return;
  std::vector<unsigned char> block(size);
  Check(setup.GetFileVersionInfoA(dll.c_str(), handle, size, block.data()) == TRUE,
        "GetFileVersionInfoA");
  void* translation = nullptr;
  UINT length = 0;
  const bool found =
      setup.VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &translation, &length) &&
      length >= 4;
  Check(found, "VerQueryValueA translation");
  if (!found) return;
  const auto* pair = static_cast<const WORD*>(translation);
  char sub[64];
  std::snprintf(sub, sizeof sub, "\\StringFileInfo\\%04x%04x\\FileVersion", pair[0], pair[1]);
  void* text = nullptr;
  const BOOL gotVersion = setup.VerQueryValueA(block.data(), sub, &text, &length);
  Check(gotVersion && length > 0, "FileVersion",
        text != nullptr ? static_cast<const char*>(text) : "");
  Check(setup.GetFileVersionInfoSizeA("C:\\no_such_file.dll", &handle) == 0,
        "GetFileVersionInfoSizeA of a missing file");
}

}  // namespace

int main() {
  std::shared_ptr<Machine> machine = win32::MakeLiveMachine();
  CheckRegistry(*machine);
  CheckVersion(machine->system());
  CheckMemory(machine->system());
  CheckTime(machine->system());
  CheckNamesAndEnvironment(machine->system());
  CheckPdh(machine->pdh());
  CheckNet(machine->net(), machine->system());
  CheckWmi(machine->wmi(), machine->system());
  CheckSetup(machine->setup(), machine->system());
  CheckVersionResource(machine->setup(), machine->system());
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
