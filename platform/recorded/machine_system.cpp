#include "platform/recorded/machine_system.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "platform/recorded/machine_json.h"
#include "platform/recorded/machine_time.h"

namespace platform::recorded {

namespace {

constexpr DWORD ERROR_BAD_LENGTH = 24;
constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_OLD_WIN_VERSION = 1150;
constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
constexpr NTSTATUS STATUS_INVALID_INFO_CLASS = static_cast<NTSTATUS>(0xC0000003u);
constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x400;
constexpr DWORD MB_ERR_INVALID_CHARS = 0x8;
// _localtime64 refuses times after 3000-12-31 23:59:59 UTC.
constexpr std::int64_t kMaxTime64 = 32535215999LL;

// Module handles of the recorded machine: opaque, never dereferenced.
HMODULE ModuleHandle(std::uintptr_t id) {
  return reinterpret_cast<HMODULE>(id << 16);
}
const HMODULE kKernel32 = ModuleHandle(1);
const HMODULE kNtdll = ModuleHandle(2);
const HMODULE kPsapi = ModuleHandle(3);

void Present() {}

std::string ModuleName(const char* name) {
  std::string n = Lower(name ? name : "");
  auto slash = n.find_last_of("\\/");
  if (slash != std::string::npos) n = n.substr(slash + 1);
  if (n.size() < 4 || n.compare(n.size() - 4, 4, ".dll") != 0) n += ".dll";
  return n;
}

Lookup ReadLookup(const Field& f, const char* errorKey) {
  Lookup l;
  if (!f.present() || f.isNull()) return l;
  l.present = true;
  if (f.isBool()) {
    l.present = f.asBool();
  } else {
    f.expectKeys({errorKey});
    l.error = f[errorKey].asCode();
  }
  return l;
}

std::string Ansi(const std::string& utf8, UINT codePage) {
  return WideToAnsi(Utf8ToWide(utf8), codePage);
}

void CopyWide(const std::string& utf8, WCHAR* out, std::size_t capacity, const Field& f) {
  std::u16string w = Utf8ToWide(utf8);
  if (w.size() >= capacity)
    f.fail("expected at most " + std::to_string(capacity - 1) + " characters");
  std::copy(w.begin(), w.end(), out);
  out[w.size()] = 0;
}

SYSTEMTIME ReadRule(const Field& f) {
  f.expectKeys({"year", "month", "dayOfWeek", "day", "hour", "minute", "second", "milliseconds"});
  SYSTEMTIME t{};
  auto w = [&](const char* key, std::uint64_t max) {
    auto v = OptionalUnsigned(f[key], max);
    return static_cast<WORD>(v ? *v : 0);
  };
  t.wYear = w("year", 30827);
  t.wMonth = w("month", 12);
  t.wDayOfWeek = w("dayOfWeek", 6);
  t.wDay = w("day", 31);
  t.wHour = w("hour", 23);
  t.wMinute = w("minute", 59);
  t.wSecond = w("second", 59);
  t.wMilliseconds = w("milliseconds", 999);
  return t;
}

// Windows runs with 4 KiB pages (x86, x64, ARM) or 8 KiB ones (Itanium); 0 leaves the size
// unrecorded, as a capture of a machine without one writes it.
std::uint64_t ReadPageSize(const Field& f) {
  const std::uint64_t size = OptionalUnsigned(f, UINT64_MAX).value_or(0);
  if (size != 0 && size != 4096 && size != 8192)
    f.fail("expected a page size of Windows, 4096 or 8192 (or 0 for none)");
  return size;
}

void ReadVersion(const Field& v, SystemFacts& facts, UINT codePage) {
  facts.hasVersion = true;
  if (v["error"].present()) {
    v.expectKeys({"error"});
    facts.versionError = v["error"].asCode();
    return;
  }
  v.expectKeys({"major", "minor", "build", "platformId", "servicePack", "servicePackMajor",
                "servicePackMinor", "suiteMask", "productType"});
  OSVERSIONINFOEXA& o = facts.version;
  o.dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
  o.dwMajorVersion = static_cast<DWORD>(v["major"].asUnsigned());
  o.dwMinorVersion = static_cast<DWORD>(v["minor"].asUnsigned());
  o.dwBuildNumber = static_cast<DWORD>(OptionalUnsigned(v["build"]).value_or(0));
  o.dwPlatformId =
      static_cast<DWORD>(OptionalUnsigned(v["platformId"]).value_or(VER_PLATFORM_WIN32_NT));
  if (v["servicePack"].present()) {
    std::string sp = Ansi(v["servicePack"].asString(), codePage);
    if (sp.size() >= sizeof(o.szCSDVersion))
      v["servicePack"].fail("expected at most 127 characters");
    std::memcpy(o.szCSDVersion, sp.c_str(), sp.size() + 1);
  }
  o.wServicePackMajor =
      static_cast<WORD>(OptionalUnsigned(v["servicePackMajor"], 0xFFFF).value_or(0));
  o.wServicePackMinor =
      static_cast<WORD>(OptionalUnsigned(v["servicePackMinor"], 0xFFFF).value_or(0));
  o.wSuiteMask = static_cast<WORD>(OptionalUnsigned(v["suiteMask"], 0xFFFF).value_or(0));
  o.wProductType =
      static_cast<BYTE>(OptionalUnsigned(v["productType"], 3).value_or(VER_NT_WORKSTATION));
}

}  // namespace

SystemFacts ReadSystemFacts(const Field& s, UINT codePage) {
  s.expectKeys({"computerName", "codePage", "processor", "isWow64Process", "wow64FsRedirection",
                "version", "productInfo", "memoryStatus", "psapi", "ntQuerySystemInformation",
                "pageFiles", "timeZone", "utcTime", "crt", "environment", "messages", "errorMode",
                "windowsDirectory", "systemDirectory"});
  if (!IsAnsiCodePage(codePage))
    s["codePage"].fail(
        "code page " + std::to_string(codePage) +
        " is not an ANSI code page of Windows (874, 932, 936, 949, 950, 1250 to 1258)");
  SystemFacts f;
  if (s["computerName"].present()) f.computerName = Ansi(s["computerName"].asString(), codePage);

  Field p = s["processor"];
  p.expectKeys({"architecture", "pageSize", "count", "level", "revision"});
  f.info.wProcessorArchitecture =
      static_cast<WORD>(OptionalUnsigned(p["architecture"], 0xFFFF).value_or(0));
  f.info.dwPageSize = static_cast<DWORD>(ReadPageSize(p["pageSize"]));
  f.info.dwNumberOfProcessors = static_cast<DWORD>(OptionalUnsigned(p["count"], 64).value_or(0));
  f.info.wProcessorLevel = static_cast<WORD>(OptionalUnsigned(p["level"], 0xFFFF).value_or(0));
  f.info.wProcessorRevision =
      static_cast<WORD>(OptionalUnsigned(p["revision"], 0xFFFF).value_or(0));

  Field wow = s["isWow64Process"];
  if (wow.present() && !wow.isNull()) {
    f.isWow64Process.present = true;
    if (wow.isBool()) {
      f.wow64 = wow.asBool();
    } else {
      wow.expectKeys({"error"});
      f.isWow64Process.error = wow["error"].asCode();
    }
  }
  f.fsRedirection = ReadLookup(s["wow64FsRedirection"], "error");

  if (s["version"].present()) ReadVersion(s["version"], f, codePage);
  if (s["productInfo"].present()) f.productInfo = static_cast<DWORD>(s["productInfo"].asUnsigned());

  Field m = s["memoryStatus"];
  if (m.present()) {
    f.hasMemoryStatus = true;
    if (m["error"].present()) {
      m.expectKeys({"error"});
      f.memoryStatusError = m["error"].asCode();
    } else {
      m.expectKeys({"memoryLoad", "totalPhys", "availPhys", "totalPageFile", "availPageFile",
                    "totalVirtual", "availVirtual", "availExtendedVirtual"});
      MEMORYSTATUSEX& ms = f.memoryStatus;
      ms.dwLength = sizeof(MEMORYSTATUSEX);
      ms.dwMemoryLoad = static_cast<DWORD>(OptionalUnsigned(m["memoryLoad"], 100).value_or(0));
      auto q = [&](const char* k) { return OptionalUnsigned(m[k], UINT64_MAX).value_or(0); };
      ms.ullTotalPhys = q("totalPhys");
      ms.ullAvailPhys = q("availPhys");
      ms.ullTotalPageFile = q("totalPageFile");
      ms.ullAvailPageFile = q("availPageFile");
      ms.ullTotalVirtual = q("totalVirtual");
      ms.ullAvailVirtual = q("availVirtual");
      ms.ullAvailExtendedVirtual = q("availExtendedVirtual");
    }
  }

  Field ps = s["psapi"];
  if (ps.present() && !ps.isNull()) {
    ps.expectKeys({"performanceInfo", "enumPageFiles"});
    f.psapi = true;
    Field pi = ps["performanceInfo"];
    if (pi.present() && !pi.isNull()) {
      f.performanceInfo.present = true;
      if (pi["error"].present()) {
        pi.expectKeys({"error"});
        f.performanceInfo.error = pi["error"].asCode();
      } else {
        pi.expectKeys({"commitTotal", "commitLimit", "commitPeak", "physicalTotal",
                       "physicalAvailable", "systemCache", "kernelTotal", "kernelPaged",
                       "kernelNonpaged", "pageSize", "handleCount", "processCount", "threadCount"});
        PERFORMANCE_INFORMATION& pf = f.performance;
        pf.cb = sizeof(PERFORMANCE_INFORMATION);
        auto z = [&](const char* k) {
          return static_cast<SIZE_T>(OptionalUnsigned(pi[k], SIZE_MAX).value_or(0));
        };
        pf.CommitTotal = z("commitTotal");
        pf.CommitLimit = z("commitLimit");
        pf.CommitPeak = z("commitPeak");
        pf.PhysicalTotal = z("physicalTotal");
        pf.PhysicalAvailable = z("physicalAvailable");
        pf.SystemCache = z("systemCache");
        pf.KernelTotal = z("kernelTotal");
        pf.KernelPaged = z("kernelPaged");
        pf.KernelNonpaged = z("kernelNonpaged");
        pf.PageSize = static_cast<SIZE_T>(ReadPageSize(pi["pageSize"]));
        pf.HandleCount = static_cast<DWORD>(OptionalUnsigned(pi["handleCount"]).value_or(0));
        pf.ProcessCount = static_cast<DWORD>(OptionalUnsigned(pi["processCount"]).value_or(0));
        pf.ThreadCount = static_cast<DWORD>(OptionalUnsigned(pi["threadCount"]).value_or(0));
      }
    }
    f.enumPageFiles = ReadLookup(ps["enumPageFiles"], "error");
  }
  f.zwQuerySystemInformation = ReadLookup(s["ntQuerySystemInformation"], "status");

  const std::vector<Field> pageFiles = s["pageFiles"].items();
  if (pageFiles.size() > kMaxPageFiles)
    s["pageFiles"].fail("expected at most " + std::to_string(kMaxPageFiles) +
                        " page files, as many as Windows keeps");
  for (const Field& pf : pageFiles) {
    pf.expectKeys({"name", "kernelName", "totalSize", "inUse", "peak"});
    PageFileFacts file;
    file.name = Ansi(pf["name"].asString(), codePage);
    const Field kernelName = pf["kernelName"].present() ? pf["kernelName"] : pf["name"];
    file.kernelName =
        pf["kernelName"].present() ? kernelName.asString() : "\\??\\" + pf["name"].asString();
    file.totalSize = pf["totalSize"].asUnsigned();
    file.inUse = OptionalUnsigned(pf["inUse"]).value_or(0);
    file.peak = OptionalUnsigned(pf["peak"]).value_or(0);
    // The kernel keeps the name as a counted UTF-16 string whose size, NUL included, is 16-bit.
    if (Utf8ToWide(file.kernelName).size() > kMaxPageFileName)
      kernelName.fail("expected a kernel name of at most " + std::to_string(kMaxPageFileName) +
                      " UTF-16 units");
    f.pageFiles.push_back(file);
  }

  Field tz = s["timeZone"];
  if (tz.present() && !tz.isNull()) {
    tz.expectKeys({"bias", "standardName", "standardDate", "standardBias", "daylightName",
                   "daylightDate", "daylightBias", "result"});
    f.hasTimeZone = true;
    TIME_ZONE_INFORMATION& z = f.timeZone;
    z.Bias = static_cast<LONG>(tz["bias"].asSigned(-24 * 60, 24 * 60));
    if (tz["standardName"].present())
      CopyWide(tz["standardName"].asString(), z.StandardName, 32, tz["standardName"]);
    if (tz["daylightName"].present())
      CopyWide(tz["daylightName"].asString(), z.DaylightName, 32, tz["daylightName"]);
    if (tz["standardDate"].present()) z.StandardDate = ReadRule(tz["standardDate"]);
    if (tz["daylightDate"].present()) z.DaylightDate = ReadRule(tz["daylightDate"]);
    if (tz["standardBias"].present())
      z.StandardBias = static_cast<LONG>(tz["standardBias"].asSigned(-1440, 1440));
    if (tz["daylightBias"].present())
      z.DaylightBias = static_cast<LONG>(tz["daylightBias"].asSigned(-1440, 1440));
    if (tz["result"].present()) f.timeZoneResult = tz["result"].asCode();
  }
  if (s["utcTime"].present()) {
    std::int64_t ms = 0;
    if (!ParseIsoTime(s["utcTime"].asString(), &ms) || ms < 0)
      s["utcTime"].fail("expected a UTC time such as 2010-03-15T12:34:56Z");
    f.utcMillis = ms;
  }
  Field crt = s["crt"];
  crt.expectKeys({"timezone", "daylight"});
  if (crt["timezone"].present())
    f.crtTimezone = static_cast<long>(crt["timezone"].asSigned(-86400, 86400));
  if (crt["daylight"].present()) f.crtDaylight = static_cast<int>(crt["daylight"].asUnsigned(1));

  for (const auto& [name, value] : s["environment"].members()) {
    if (name.empty() || name.find('=') != std::string::npos)
      value.fail("a variable name is not empty and holds no '='");
    f.environment[Ansi(name, codePage)] = Ansi(value.asString(), codePage);
  }
  for (const auto& [code, text] : s["messages"].members()) {
    char* end = nullptr;
    unsigned long long id = std::strtoull(code.c_str(), &end, 0);
    if (code.empty() || *end != '\0' || id > UINT32_MAX)
      text.fail("expected a numeric error code as the key");
    f.messages[static_cast<DWORD>(id)] = Ansi(text.asString(), codePage);
  }
  f.errorMode = static_cast<UINT>(OptionalUnsigned(s["errorMode"]).value_or(0));
  if (s["windowsDirectory"].present())
    f.windowsDirectory = Ansi(s["windowsDirectory"].asString(), codePage);
  if (s["systemDirectory"].present())
    f.systemDirectory = Ansi(s["systemDirectory"].asString(), codePage);
  return f;
}

RecordedSystem::RecordedSystem(SystemFacts facts, MachineState& state)
    : facts_(std::move(facts)), state_(state) {}

RecordedSystem::~RecordedSystem() {
  for (void* p : localAllocations_) delete[] static_cast<char*>(p);
}

// --- Modules ---------------------------------------------------------------------------

HMODULE RecordedSystem::LoadLibraryA(const char* name) {
  HMODULE m = GetModuleHandleA(name);
  if (!m) {
    state_.fail(ERROR_MOD_NOT_FOUND);
  } else {
    ++libraryReferences_;
  }
  return m;
}

BOOL RecordedSystem::FreeLibrary(HMODULE module) {
  if (module == kKernel32 || module == kNtdll || (module == kPsapi && facts_.psapi)) {
    --libraryReferences_;
    return TRUE;
  }
  return fail(ERROR_INVALID_HANDLE);
}

HMODULE RecordedSystem::GetModuleHandleA(const char* name) {
  const std::string n = ModuleName(name);
  if (n == "kernel32.dll") return kKernel32;
  if (n == "ntdll.dll") return kNtdll;
  if (n == "psapi.dll" && facts_.psapi) return kPsapi;
  state_.fail(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

FARPROC RecordedSystem::GetProcAddress(HMODULE module, const char* name) {
  const std::string n = name ? name : "";
  bool found = false;
  if (module == kKernel32) {
    found = (n == "IsWow64Process" && facts_.isWow64Process.present) ||
            (n == "GetProductInfo" && facts_.productInfo) ||
            ((n == "Wow64DisableWow64FsRedirection" || n == "Wow64RevertWow64FsRedirection") &&
             facts_.fsRedirection.present);
  } else if (module == kNtdll) {
    found = (n == "ZwQuerySystemInformation" || n == "NtQuerySystemInformation") &&
            facts_.zwQuerySystemInformation.present;
  } else if (module == kPsapi && facts_.psapi) {
    found = (n == "GetPerformanceInfo" && facts_.performanceInfo.present) ||
            (n == "EnumPageFilesA" && facts_.enumPageFiles.present);
  } else {
    state_.fail(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  if (!found) state_.fail(ERROR_PROC_NOT_FOUND);
  return found ? &Present : nullptr;
}

// --- Version and product ---------------------------------------------------------------

BOOL RecordedSystem::GetVersionExA(OSVERSIONINFOA* info) {
  if (!info || (info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA) &&
                info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXA)))
    return fail(ERROR_INSUFFICIENT_BUFFER);
  if (!facts_.hasVersion) return fail(kNotRecorded);
  if (facts_.versionError) return fail(facts_.versionError);
  const DWORD size = info->dwOSVersionInfoSize;
  OSVERSIONINFOEXA v = facts_.version;
  v.dwOSVersionInfoSize = size;
  std::memcpy(info, &v, size);
  return TRUE;
}

namespace {

bool Compare(std::uint64_t have, std::uint64_t want, BYTE condition) {
  switch (condition) {
    case 1:
      return have == want;
    case 2:
      return have > want;
    case 3:
      return have >= want;
    case 4:
      return have < want;
    case 5:
      return have <= want;
    default:
      return false;
  }
}

BYTE ConditionOf(DWORDLONG mask, DWORD type) {
  for (unsigned bit = 0; bit < 8; ++bit)
    if (type == (1u << bit)) return static_cast<BYTE>((mask >> (bit * 3)) & 7);
  return 0;
}

}  // namespace

BOOL RecordedSystem::VerifyVersionInfoA(OSVERSIONINFOEXA* info, DWORD typeMask,
                                        DWORDLONG conditionMask) {
  if (!info || typeMask == 0 || conditionMask == 0) return fail(ERROR_INVALID_PARAMETER);
  if (!facts_.hasVersion || facts_.versionError) return fail(kNotRecorded);
  const OSVERSIONINFOEXA& have = facts_.version;
  bool ok = true;
  // Major, minor and the service pack compare as one number, under the condition of the
  // most significant part asked for: 6.0 >= 5.1 although 0 < 1.
  constexpr DWORD kMajor = 0x2, kMinor = 0x1, kSpMajor = 0x20, kSpMinor = 0x10;
  const DWORD order[4] = {kMajor, kMinor, kSpMajor, kSpMinor};
  const std::uint64_t haveParts[4] = {have.dwMajorVersion, have.dwMinorVersion,
                                      have.wServicePackMajor, have.wServicePackMinor};
  const std::uint64_t wantParts[4] = {info->dwMajorVersion, info->dwMinorVersion,
                                      info->wServicePackMajor, info->wServicePackMinor};
  BYTE condition = 0;
  int cmp = 0;
  for (int i = 0; i < 4; ++i) {
    if (!(typeMask & order[i])) continue;
    if (!condition) condition = ConditionOf(conditionMask, order[i]);
    if (cmp == 0 && haveParts[i] != wantParts[i]) cmp = haveParts[i] < wantParts[i] ? -1 : 1;
  }
  if (condition) ok = ok && Compare(static_cast<std::uint64_t>(cmp + 1), 1, condition);
  if (typeMask & 0x4)
    ok = ok && Compare(have.dwBuildNumber, info->dwBuildNumber, ConditionOf(conditionMask, 0x4));
  if (typeMask & 0x8)
    ok = ok && Compare(have.dwPlatformId, info->dwPlatformId, ConditionOf(conditionMask, 0x8));
  if (typeMask & 0x80)
    ok = ok && Compare(have.wProductType, info->wProductType, ConditionOf(conditionMask, 0x80));
  if (typeMask & 0x40) {
    BYTE c = ConditionOf(conditionMask, 0x40);
    const WORD want = info->wSuiteMask;
    ok = ok && (c == 7 ? (have.wSuiteMask & want) != 0 : (have.wSuiteMask & want) == want);
  }
  return ok ? TRUE : fail(ERROR_OLD_WIN_VERSION);
}

DWORDLONG RecordedSystem::VerSetConditionMask(DWORDLONG mask, DWORD typeMask, BYTE condition) {
  if (!typeMask || !condition) return mask;
  condition &= 7;
  // One type per call, the first of this order that is asked for, as ntdll does.
  const unsigned bits[8] = {7, 6, 3, 2, 1, 0, 5, 4};
  for (unsigned bit : bits)
    if (typeMask & (1u << bit)) return mask | (static_cast<DWORDLONG>(condition) << (bit * 3));
  return mask;
}

BOOL RecordedSystem::GetProductInfo(DWORD, DWORD, DWORD, DWORD, DWORD* productType) {
  if (!facts_.productInfo) return fail(ERROR_PROC_NOT_FOUND);
  if (!productType) return fail(ERROR_INVALID_PARAMETER);
  *productType = *facts_.productInfo;
  return TRUE;
}

HANDLE RecordedSystem::GetCurrentProcess() {
  return reinterpret_cast<HANDLE>(~std::uintptr_t{0});
}

BOOL RecordedSystem::IsWow64Process(HANDLE process, BOOL* wow64) {
  if (!facts_.isWow64Process.present) return fail(ERROR_PROC_NOT_FOUND);
  if (facts_.isWow64Process.error) return fail(facts_.isWow64Process.error);
  if (process != GetCurrentProcess() || !wow64) return fail(ERROR_INVALID_HANDLE);
  *wow64 = facts_.wow64 ? TRUE : FALSE;
  return TRUE;
}

void RecordedSystem::GetSystemInfo(SYSTEM_INFO* info) {
  if (!info) return;
  SYSTEM_INFO s = facts_.info;
  if (s.dwPageSize) {
    s.lpMinimumApplicationAddress = reinterpret_cast<void*>(std::uintptr_t{0x10000});
    s.lpMaximumApplicationAddress = reinterpret_cast<void*>(std::uintptr_t{
        facts_.wow64 || s.wProcessorArchitecture == 0 ? 0x7FFEFFFFu : 0x7FFFFFFEFFFFull});
    s.dwAllocationGranularity = 0x10000;
  }
  const DWORD n = s.dwNumberOfProcessors;
  s.dwActiveProcessorMask = n >= 64 ? ~DWORD_PTR{0} : (DWORD_PTR{1} << n) - 1;
  s.dwProcessorType = s.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64  ? 8664
                      : s.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_IA64 ? 2200
                      : n                                                       ? 586
                                                                                : 0;
  *info = s;
}

// --- Memory and page files -------------------------------------------------------------

BOOL RecordedSystem::GlobalMemoryStatusEx(MEMORYSTATUSEX* status) {
  if (!status || status->dwLength != sizeof(MEMORYSTATUSEX)) return fail(ERROR_INVALID_PARAMETER);
  if (!facts_.hasMemoryStatus) return fail(kNotRecorded);
  if (facts_.memoryStatusError) return fail(facts_.memoryStatusError);
  *status = facts_.memoryStatus;
  return TRUE;
}

BOOL RecordedSystem::GetPerformanceInfo(PERFORMANCE_INFORMATION* info, DWORD size) {
  if (!facts_.performanceInfo.present) return fail(ERROR_PROC_NOT_FOUND);
  if (!info || size != sizeof(PERFORMANCE_INFORMATION)) return fail(ERROR_BAD_LENGTH);
  if (facts_.performanceInfo.error) return fail(facts_.performanceInfo.error);
  *info = facts_.performance;
  return TRUE;
}

BOOL RecordedSystem::EnumPageFilesA(PENUM_PAGE_FILE_CALLBACKA callback, void* context) {
  if (!facts_.enumPageFiles.present) return fail(ERROR_PROC_NOT_FOUND);
  if (facts_.enumPageFiles.error) return fail(facts_.enumPageFiles.error);
  if (!callback) return fail(ERROR_INVALID_PARAMETER);
  for (const PageFileFacts& f : facts_.pageFiles) {
    ENUM_PAGE_FILE_INFORMATION info{};
    info.cb = sizeof(info);
    info.TotalSize = static_cast<SIZE_T>(f.totalSize);
    info.TotalInUse = static_cast<SIZE_T>(f.inUse);
    info.PeakUsage = static_cast<SIZE_T>(f.peak);
    if (!callback(context, &info, f.name.c_str())) break;
  }
  return TRUE;
}

ULONG RecordedSystem::LayOutPageFiles(const std::vector<PageFileFacts>& files, BYTE* base) {
  ULONG offset = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::u16string name = Utf8ToWide(files[i].kernelName);
    const ULONG nameBytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
    // Header, then the name with its NUL; the next entry starts 8-byte aligned.
    const ULONG size =
        (static_cast<ULONG>(sizeof(SYSTEM_PAGEFILE_INFORMATION)) + nameBytes + sizeof(WCHAR) + 7) &
        ~7u;
    if (base) {
      BYTE* at = base + offset;
      SYSTEM_PAGEFILE_INFORMATION e{};
      e.NextEntryOffset = i + 1 < files.size() ? size : 0;
      e.TotalSize = static_cast<ULONG>(files[i].totalSize);
      e.TotalInUse = static_cast<ULONG>(files[i].inUse);
      e.PeakUsage = static_cast<ULONG>(files[i].peak);
      e.PageFileName.Length = static_cast<USHORT>(nameBytes);
      e.PageFileName.MaximumLength = static_cast<USHORT>(nameBytes + sizeof(WCHAR));
      e.PageFileName.Buffer = reinterpret_cast<WCHAR*>(at + sizeof(SYSTEM_PAGEFILE_INFORMATION));
      std::memset(at, 0, size);
      std::memcpy(at, &e, sizeof(e));
      std::memcpy(at + sizeof(e), name.data(), nameBytes);
    }
    offset += size;
  }
  return offset;
}

NTSTATUS RecordedSystem::ZwQuerySystemInformation(ULONG infoClass, void* buffer, ULONG length,
                                                  ULONG* returnLength) {
  if (!facts_.zwQuerySystemInformation.present) return STATUS_NOT_IMPLEMENTED;
  if (facts_.zwQuerySystemInformation.error)
    return static_cast<NTSTATUS>(facts_.zwQuerySystemInformation.error);
  if (infoClass != SystemPageFileInformation) return STATUS_INVALID_INFO_CLASS;
  const ULONG needed = LayOutPageFiles(facts_.pageFiles, nullptr);
  if (returnLength) *returnLength = needed;
  if (length < needed || (needed && !buffer)) return STATUS_INFO_LENGTH_MISMATCH;
  LayOutPageFiles(facts_.pageFiles, static_cast<BYTE*>(buffer));
  return STATUS_SUCCESS;
}

// --- Time --------------------------------------------------------------------------------

// Without a recorded zone the machine's clock and its C runtime share one offset: the
// runtime's, which is UTC unless a crt block says otherwise.
std::int64_t RecordedSystem::localOffsetMinutes(std::int64_t unixSeconds) const {
  if (facts_.hasTimeZone) return LocalOffsetMinutes(facts_.timeZone, unixSeconds);
  return -(facts_.crtTimezone.value_or(0)) / 60;
}

DWORD RecordedSystem::GetTimeZoneInformation(TIME_ZONE_INFORMATION* info) {
  if (!info) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return TIME_ZONE_ID_INVALID;
  }
  if (!facts_.hasTimeZone) {
    state_.fail(kNotRecorded);
    return TIME_ZONE_ID_INVALID;
  }
  *info = facts_.timeZone;
  if (facts_.timeZoneResult) return *facts_.timeZoneResult;
  if (!HasDaylightRule(facts_.timeZone)) return TIME_ZONE_ID_UNKNOWN;
  if (!facts_.utcMillis) return TIME_ZONE_ID_STANDARD;
  return IsDaylight(facts_.timeZone, *facts_.utcMillis / 1000) ? TIME_ZONE_ID_DAYLIGHT
                                                               : TIME_ZONE_ID_STANDARD;
}

void RecordedSystem::GetSystemTime(SYSTEMTIME* time) {
  if (!time) return;
  // Without a recorded clock the machine stands at the start of the FILETIME epoch.
  *time =
      facts_.utcMillis ? ToSystemTime(*facts_.utcMillis) : SYSTEMTIME{1601, 1, 1, 1, 0, 0, 0, 0};
}

void RecordedSystem::GetLocalTime(SYSTEMTIME* time) {
  if (!time) return;
  if (!facts_.utcMillis) return GetSystemTime(time);
  const std::int64_t ms = *facts_.utcMillis;
  *time = ToSystemTime(ms + localOffsetMinutes(ms / 1000) * 60000);
}

long RecordedSystem::crtTimezone() {
  if (facts_.crtTimezone) return *facts_.crtTimezone;
  // A recording without a zone is read as a machine on UTC, by its clock and its runtime
  // alike (the runtime's own fallback, Pacific time, would disagree with GetLocalTime).
  if (!facts_.hasTimeZone) return 0;
  const TIME_ZONE_INFORMATION& z = facts_.timeZone;
  return (z.Bias + (z.StandardDate.wMonth ? z.StandardBias : 0)) * 60L;
}

int RecordedSystem::crtDaylight() {
  if (facts_.crtDaylight) return *facts_.crtDaylight;
  if (!facts_.hasTimeZone) return 0;
  return facts_.timeZone.DaylightDate.wMonth != 0 && facts_.timeZone.DaylightBias != 0;
}

std::int64_t RecordedSystem::crtTime64() {
  return facts_.utcMillis ? *facts_.utcMillis / 1000 : -1;
}

void RecordedSystem::crtAssert(const char* expression, const char* file, unsigned line) {
  assertions_.push_back(AssertionReport{expression ? expression : "", file ? file : "", line});
}

bool RecordedSystem::crtLocaltime64(std::int64_t seconds, std::tm* out) {
  if (!out || seconds < 0 || seconds > kMaxTime64) return false;
  bool dst = false;
  std::int64_t offset;
  if (facts_.hasTimeZone) {
    dst = IsDaylight(facts_.timeZone, seconds);
    offset = LocalOffsetMinutes(facts_.timeZone, seconds) * 60;
  } else {
    offset = -crtTimezone();
  }
  const std::int64_t local = seconds + offset;
  const SYSTEMTIME t = ToSystemTime(local * 1000);
  std::tm tm{};
  tm.tm_year = t.wYear - 1900;
  tm.tm_mon = t.wMonth - 1;
  tm.tm_mday = t.wDay;
  tm.tm_hour = t.wHour;
  tm.tm_min = t.wMinute;
  tm.tm_sec = t.wSecond;
  tm.tm_wday = t.wDayOfWeek;
  tm.tm_yday =
      static_cast<int>(DaysFromCivil(t.wYear, t.wMonth, t.wDay) - DaysFromCivil(t.wYear, 1, 1));
  tm.tm_isdst = dst ? 1 : 0;
  *out = tm;
  return true;
}

// --- Names, environment, text ---------------------------------------------------------

BOOL RecordedSystem::GetComputerNameA(char* buffer, DWORD* size) {
  if (!size) return fail(ERROR_INVALID_PARAMETER);
  if (!facts_.computerName) return fail(kNotRecorded);
  const std::string& name = *facts_.computerName;
  if (!buffer || *size <= name.size()) {
    *size = static_cast<DWORD>(name.size() + 1);
    return fail(ERROR_BUFFER_OVERFLOW);
  }
  std::memcpy(buffer, name.c_str(), name.size() + 1);
  *size = static_cast<DWORD>(name.size());
  return TRUE;
}

DWORD RecordedSystem::GetEnvironmentVariableA(const char* name, char* buffer, DWORD size) {
  auto it = facts_.environment.find(name ? name : "");
  if (it == facts_.environment.end()) {
    state_.fail(ERROR_ENVVAR_NOT_FOUND);
    return 0;
  }
  const std::string& value = it->second;
  if (!buffer || size <= value.size()) return static_cast<DWORD>(value.size() + 1);
  std::memcpy(buffer, value.c_str(), value.size() + 1);
  if (value.empty()) state_.lastError = ERROR_SUCCESS;
  return static_cast<DWORD>(value.size());
}

const char* RecordedSystem::getenv(const char* name) {
  auto it = facts_.environment.find(name ? name : "");
  return it == facts_.environment.end() ? nullptr : it->second.c_str();
}

DWORD RecordedSystem::ExpandEnvironmentStringsA(const char* source, char* destination, DWORD size) {
  if (!source) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return 0;
  }
  // %NAME% of a set variable becomes its value; otherwise the text stays, and the closing
  // '%' may open the next reference ("%NOPE%PATH%" keeps "%NOPE" and expands PATH).
  std::string out;
  const std::string src = source;
  std::size_t i = 0;
  while (i < src.size()) {
    if (src[i] != '%') {
      out.push_back(src[i++]);
      continue;
    }
    std::size_t close = src.find('%', i + 1);
    if (close == std::string::npos) {
      out.append(src, i, std::string::npos);
      break;
    }
    auto it = facts_.environment.find(src.substr(i + 1, close - i - 1));
    if (close > i + 1 && it != facts_.environment.end()) {
      out += it->second;
      i = close + 1;
    } else {
      out.append(src, i, close - i);
      i = close;
    }
  }
  const DWORD needed = static_cast<DWORD>(out.size() + 1);
  // The ANSI call wants one byte more than the text and its NUL, and over-reports by one
  // when the buffer is short; it then leaves an empty string.
  if (!destination || size <= needed) {
    if (destination && size) destination[0] = '\0';
    return needed + 1;
  }
  std::memcpy(destination, out.c_str(), needed);
  return needed;
}

namespace {

const std::map<DWORD, const char*>& BuiltInMessages() {
  static const std::map<DWORD, const char*> table = {
      {0, "The operation completed successfully."},
      {1, "Incorrect function."},
      {2, "The system cannot find the file specified."},
      {3, "The system cannot find the path specified."},
      {5, "Access is denied."},
      {6, "The handle is invalid."},
      {8, "Not enough storage is available to process this command."},
      {87, "The parameter is incorrect."},
      {120, "This function is not supported on this system."},
      {122, "The data area passed to a system call is too small."},
      {126, "The specified module could not be found."},
      {127, "The specified procedure could not be found."},
      {203, "The system could not find the environment option that was entered."},
      {234, "More data is available."},
      {259, "No more data is available."},
      {1150, "The specified program requires a newer version of Windows."},
      {1813, "The specified resource type cannot be found in the image file."},
  };
  return table;
}

}  // namespace

DWORD RecordedSystem::FormatMessageA(DWORD flags, const void*, DWORD messageId, DWORD, char* buffer,
                                     DWORD size, void*) {
  if (!(flags & FORMAT_MESSAGE_FROM_SYSTEM) || !buffer) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string text;
  if (auto it = facts_.messages.find(messageId); it != facts_.messages.end()) {
    text = it->second;
  } else if (auto b = BuiltInMessages().find(messageId); b != BuiltInMessages().end()) {
    text = std::string(b->second) + "\r\n";
  } else {
    state_.fail(ERROR_MR_MID_NOT_FOUND);
    return 0;
  }
  if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
    char* block = new char[std::max<std::size_t>(text.size() + 1, size)];
    std::memcpy(block, text.c_str(), text.size() + 1);
    localAllocations_.insert(block);
    *reinterpret_cast<char**>(buffer) = block;
  } else {
    if (size <= text.size()) {
      state_.fail(ERROR_INSUFFICIENT_BUFFER);
      return 0;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
  }
  return static_cast<DWORD>(text.size());
}

void* RecordedSystem::LocalFree(void* memory) {
  if (!memory) return nullptr;
  if (localAllocations_.erase(memory) == 0) {
    state_.fail(ERROR_INVALID_HANDLE);
    return memory;
  }
  delete[] static_cast<char*>(memory);
  return nullptr;
}

int RecordedSystem::WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide,
                                        int wideLength, char* narrow, int narrowSize,
                                        const char* defaultChar, BOOL* usedDefaultChar) {
  const UINT cp = codePage == CP_ACP ? state_.codePage : codePage;
  if (!wide || wideLength == 0 || narrowSize < 0 || (narrowSize > 0 && !narrow) ||
      !IsSupportedCodePage(cp) || (cp == CP_UTF8 && (defaultChar || usedDefaultChar)) ||
      (flags & ~WC_NO_BEST_FIT_CHARS) != 0) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::size_t length = wideLength < 0 ? std::char_traits<char16_t>::length(wide) + 1
                                      : static_cast<std::size_t>(wideLength);
  bool used = false;
  const char fallback = defaultChar && *defaultChar ? *defaultChar : '?';
  std::string out = WideToAnsiReportingDefault(std::u16string(wide, length), cp, &used, fallback);
  if (usedDefaultChar) *usedDefaultChar = used ? TRUE : FALSE;
  if (narrowSize == 0) return static_cast<int>(out.size());
  if (out.size() > static_cast<std::size_t>(narrowSize)) {
    std::memcpy(narrow, out.data(), static_cast<std::size_t>(narrowSize));
    state_.fail(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(narrow, out.data(), out.size());
  return static_cast<int>(out.size());
}

int RecordedSystem::MultiByteToWideChar(UINT codePage, DWORD flags, const char* narrow,
                                        int narrowLength, WCHAR* wide, int wideSize) {
  const UINT cp = codePage == CP_ACP ? state_.codePage : codePage;
  if (!narrow || narrowLength == 0 || wideSize < 0 || (wideSize > 0 && !wide) ||
      !IsSupportedCodePage(cp) || (flags & ~(MB_ERR_INVALID_CHARS | 0x1u)) != 0) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::size_t length =
      narrowLength < 0 ? std::strlen(narrow) + 1 : static_cast<std::size_t>(narrowLength);
  const std::string in(narrow, length);
  std::u16string out = AnsiToWide(in, cp);
  if ((flags & MB_ERR_INVALID_CHARS) && out.find(u'\xFFFD') != std::u16string::npos &&
      in.find("\xEF\xBF\xBD") == std::string::npos) {
    state_.fail(ERROR_NO_UNICODE_TRANSLATION);
    return 0;
  }
  if (wideSize == 0) return static_cast<int>(out.size());
  if (out.size() > static_cast<std::size_t>(wideSize)) {
    std::copy_n(out.begin(), wideSize, wide);
    state_.fail(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::copy(out.begin(), out.end(), wide);
  return static_cast<int>(out.size());
}

// --- Error mode, directories, redirection, files -------------------------------------

UINT RecordedSystem::SetErrorMode(UINT mode) {
  UINT previous = facts_.errorMode;
  facts_.errorMode = mode;
  return previous;
}

UINT RecordedSystem::copyDirectory(const std::string& text, char* buffer, UINT size) {
  if (text.empty()) {
    state_.fail(kNotRecorded);
    return 0;
  }
  if (!buffer || size <= text.size()) return static_cast<UINT>(text.size() + 1);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<UINT>(text.size());
}

UINT RecordedSystem::GetSystemWindowsDirectoryA(char* buffer, UINT size) {
  return copyDirectory(facts_.windowsDirectory, buffer, size);
}

UINT RecordedSystem::GetSystemDirectoryA(char* buffer, UINT size) {
  return copyDirectory(facts_.systemDirectory, buffer, size);
}

BOOL RecordedSystem::Wow64DisableWow64FsRedirection(void** oldValue) {
  if (!facts_.fsRedirection.present) return fail(ERROR_PROC_NOT_FOUND);
  if (facts_.fsRedirection.error) return fail(facts_.fsRedirection.error);
  if (!oldValue) return fail(ERROR_INVALID_PARAMETER);
  // The old value says whether redirection was already off (1) or on (2).
  *oldValue = reinterpret_cast<void*>(std::uintptr_t{state_.redirectionDisabled ? 1u : 2u});
  state_.redirectionDisabled = true;
  return TRUE;
}

BOOL RecordedSystem::Wow64RevertWow64FsRedirection(void* oldValue) {
  if (!facts_.fsRedirection.present) return fail(ERROR_PROC_NOT_FOUND);
  const auto v = reinterpret_cast<std::uintptr_t>(oldValue);
  if (v != 1 && v != 2) return fail(ERROR_INVALID_PARAMETER);
  state_.redirectionDisabled = v == 1;
  return TRUE;
}

std::unique_ptr<std::istream> RecordedSystem::OpenTextFile(const std::string& path) {
  const std::string* bytes = state_.file(path);
  if (!bytes) {
    state_.fail(ERROR_FILE_NOT_FOUND);
    return nullptr;
  }
  // Text mode, as the C runtime reads on Windows: CR LF becomes LF, and Ctrl-Z ends the file.
  std::string text;
  text.reserve(bytes->size());
  for (std::size_t i = 0; i < bytes->size() && (*bytes)[i] != '\x1a'; ++i)
    if (!((*bytes)[i] == '\r' && i + 1 < bytes->size() && (*bytes)[i + 1] == '\n'))
      text.push_back((*bytes)[i]);
  return std::make_unique<std::istringstream>(text);
}

std::unique_ptr<std::istream> RecordedSystem::OpenBinaryFile(const std::string& path) {
  const std::string* bytes = state_.file(path);
  if (!bytes) {
    state_.fail(ERROR_FILE_NOT_FOUND);
    return nullptr;
  }
  return std::make_unique<std::istringstream>(*bytes);
}

}  // namespace platform::recorded
