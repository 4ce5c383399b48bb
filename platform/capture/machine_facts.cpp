#include "platform/capture/machine_facts.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/capture/ansi_text.h"

namespace platform::capture {
namespace {

using Json = nlohmann::ordered_json;

// Bounds on what a machine may hand out, so that a broken one cannot exhaust the capture.
constexpr size_t kMaxRecords = 100000;
constexpr ULONG kMaxPageFileBuffer = 1u << 20;
constexpr size_t kLogonHoursBytes = 21;

Json Failure(DWORD code) {
  return Json{{"error", code}};
}

std::string Hex(std::uint32_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

DWORD Clamp32(std::uint64_t value) {
  return value > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<DWORD>(value);
}

std::string Iso(const SYSTEMTIME& t) {
  char text[96];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", t.wYear, t.wMonth, t.wDay,
                t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return text;
}

Json Rule(const SYSTEMTIME& t) {
  return Json{{"year", t.wYear},           {"month", t.wMonth},
              {"dayOfWeek", t.wDayOfWeek}, {"day", t.wDay},
              {"hour", t.wHour},           {"minute", t.wMinute},
              {"second", t.wSecond},       {"milliseconds", t.wMilliseconds}};
}

// One buffer a NetApi enumeration handed out. Records, and the texts and bytes they point
// at, are read only where they lie inside it: a machine may hand out a pointer to fewer
// bytes than the record promises, and reading on would copy whatever follows into the
// capture.
class NetBuffer {
 public:
  NetBuffer(const BYTE* data, DWORD size)
      : begin_(reinterpret_cast<std::uintptr_t>(data)), size_(size) {}

  // How many of `read` records of `recordSize` bytes it holds.
  DWORD records(DWORD read, size_t recordSize) const {
    return static_cast<DWORD>(std::min<size_t>(read, size_ / recordSize));
  }
  bool holds(const void* at, size_t bytes) const {
    const std::uintptr_t p = reinterpret_cast<std::uintptr_t>(at);
    return p >= begin_ && p - begin_ <= size_ && bytes <= size_ - (p - begin_);
  }
  // A text with its NUL inside the buffer; nothing for null or one that runs out of it.
  std::optional<std::u16string> text(const WCHAR* at) const {
    if (!at || !holds(at, 0)) return std::nullopt;
    const auto* bytes = reinterpret_cast<const unsigned char*>(at);
    const size_t room = (size_ - (reinterpret_cast<std::uintptr_t>(at) - begin_)) / 2;
    std::u16string out;
    for (size_t i = 0; i < room; ++i) {
      const char16_t c = static_cast<char16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
      if (c == u'\0') return out;
      out += c;
    }
    return std::nullopt;
  }

 private:
  std::uintptr_t begin_;
  size_t size_;
};

class FactReader {
 public:
  explicit FactReader(Machine& machine) : m_(machine), s_(machine.system()) {}

  Json system() {
    Json j;
    char name[256] = {};
    DWORD size = sizeof name;
    if (s_.GetComputerNameA(name, &size))
      j["computerName"] = AnsiToUtf8(s_, std::string(name, size));
    j["codePage"] = s_.GetACP();
    SYSTEM_INFO info{};
    s_.GetSystemInfo(&info);
    j["processor"] = {{"architecture", info.wProcessorArchitecture},
                      {"pageSize", info.dwPageSize},
                      {"count", info.dwNumberOfProcessors > 64 ? 64 : info.dwNumberOfProcessors},
                      {"level", info.wProcessorLevel},
                      {"revision", info.wProcessorRevision}};
    HMODULE kernel = s_.GetModuleHandleA("kernel32");
    if (kernel && s_.GetProcAddress(kernel, "IsWow64Process")) {
      BOOL wow64 = FALSE;
      j["isWow64Process"] = s_.IsWow64Process(s_.GetCurrentProcess(), &wow64)
                                ? Json(wow64 != FALSE)
                                : Failure(s_.GetLastError());
    }
    if (kernel && s_.GetProcAddress(kernel, "Wow64DisableWow64FsRedirection") &&
        s_.GetProcAddress(kernel, "Wow64RevertWow64FsRedirection")) {
      void* old = nullptr;
      if (s_.Wow64DisableWow64FsRedirection(&old)) {
        s_.Wow64RevertWow64FsRedirection(old);
        j["wow64FsRedirection"] = true;
      } else {
        j["wow64FsRedirection"] = Failure(s_.GetLastError());
      }
    }
    version(j, kernel);
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    j["memoryStatus"] = s_.GlobalMemoryStatusEx(&memory)
                            ? Json{{"memoryLoad", memory.dwMemoryLoad},
                                   {"totalPhys", memory.ullTotalPhys},
                                   {"availPhys", memory.ullAvailPhys},
                                   {"totalPageFile", memory.ullTotalPageFile},
                                   {"availPageFile", memory.ullAvailPageFile},
                                   {"totalVirtual", memory.ullTotalVirtual},
                                   {"availVirtual", memory.ullAvailVirtual},
                                   {"availExtendedVirtual", memory.ullAvailExtendedVirtual}}
                            : Failure(s_.GetLastError());
    pageFiles(j);
    time(j);
    Json environment = Json::object();
    for (const char* variable : {"USERNAME", "USERPROFILE", "USERDOMAIN", "SystemDrive",
                                 "SystemRoot", "PATH", "windir", "TEMP", "TMP", "ComSpec"}) {
      const char* value = s_.getenv(variable);
      if (value) environment[variable] = AnsiToUtf8(s_, value);
    }
    j["environment"] = environment;
    const UINT mode = s_.SetErrorMode(0);
    s_.SetErrorMode(mode);
    j["errorMode"] = mode;
    char directory[1024];
    UINT length = s_.GetSystemWindowsDirectoryA(directory, sizeof directory);
    if (length > 0 && length < sizeof directory)
      j["windowsDirectory"] = AnsiToUtf8(s_, std::string(directory, length));
    length = s_.GetSystemDirectoryA(directory, sizeof directory);
    if (length > 0 && length < sizeof directory)
      j["systemDirectory"] = AnsiToUtf8(s_, std::string(directory, length));
    return j;
  }

  Json pdh() {
    Pdh& p = m_.pdh();
    Json status = Json::object();
    PDH_COUNTER_PATH_ELEMENTS_A elements{};
    std::string object = "System", counterName = "System Up Time";
    elements.szObjectName = object.data();
    elements.szCounterName = counterName.data();
    std::vector<char> path(2048);
    DWORD size = static_cast<DWORD>(path.size());
    PDH_STATUS result = p.PdhMakeCounterPathA(&elements, path.data(), &size, 0);
    if (result == PDH_MORE_DATA && size > path.size() && size < 65536) {
      path.resize(size);
      result = p.PdhMakeCounterPathA(&elements, path.data(), &size, 0);
    }
    if (result != 0) return Json{{"status", {{"makeCounterPath", Hex(result)}}}};
    const std::string counterPath(path.data());
    PDH_HQUERY query = nullptr;
    if ((result = p.PdhOpenQueryA(nullptr, 0, &query)) != 0)
      return Json{{"status", {{"openQuery", Hex(result)}}}};
    Json counters = Json::object();
    PDH_HCOUNTER counter = nullptr;
    if ((result = p.PdhAddCounterA(query, counterPath.c_str(), 0, &counter)) != 0) {
      status["addCounter"] = Hex(result);
    } else {
      std::vector<BYTE> buffer(2048 + 112);
      DWORD infoSize = static_cast<DWORD>(buffer.size());
      auto* info = reinterpret_cast<PDH_COUNTER_INFO_A*>(buffer.data());
      if ((result = p.PdhGetCounterInfoA(counter, 0, &infoSize, info)) != 0) {
        status["getCounterInfo"] = Hex(result);
      } else if ((result = p.PdhCollectQueryData(query)) != 0) {
        status["collectQueryData"] = Hex(result);
      } else {
        const DWORD type = info->dwType;
        const DWORD sizeBits = type & 0x300;
        const DWORD format = sizeBits == 0x100   ? PDH_FMT_LARGE
                             : sizeBits == 0x300 ? PDH_FMT_DOUBLE
                                                 : PDH_FMT_LONG;
        PDH_FMT_COUNTERVALUE value{};
        DWORD valueType = 0;
        if ((result = p.PdhGetFormattedCounterValue(counter, format, &valueType, &value)) != 0) {
          status["getFormattedCounterValue"] = Hex(result);
        } else {
          Json number = format == PDH_FMT_LARGE    ? Json(value.largeValue)
                        : format == PDH_FMT_DOUBLE ? Json(value.doubleValue)
                                                   : Json(value.longValue);
          counters[AnsiToUtf8(s_, counterPath)] = {{"type", Hex(type)}, {"value", number}};
        }
      }
      p.PdhRemoveCounter(counter);
    }
    p.PdhCloseQuery(query);
    Json j;
    if (!counters.empty()) j["counters"] = counters;
    if (!status.empty()) j["status"] = status;
    return j;
  }

  Json net() {
    NetApi& n = m_.net();
    Json j = Json::object();
    DWORD size = 0;
    char none[1] = {};
    if (!n.GetUserNameA(none, &size) && s_.GetLastError() == ERROR_INSUFFICIENT_BUFFER &&
        size > 0 && size < 4096) {
      std::vector<char> name(size);
      if (n.GetUserNameA(name.data(), &size)) j["userName"] = AnsiToUtf8(s_, name.data());
    }
    j["users"] = enumerate<USER_INFO_3>(
        [&](BYTE** buffer, DWORD* read, DWORD* total, DWORD* resume) {
          return n.NetUserEnum(nullptr, 3, 0, buffer, MAX_PREFERRED_LENGTH, read, total, resume);
        },
        [](const USER_INFO_3& u, const NetBuffer& block) {
          Json r;
          r["name"] = WideToUtf8(block.text(u.usri3_name).value_or(u"").c_str());
          const std::pair<const char*, WCHAR*> texts[] = {{"password", u.usri3_password},
                                                          {"homeDir", u.usri3_home_dir},
                                                          {"comment", u.usri3_comment},
                                                          {"scriptPath", u.usri3_script_path},
                                                          {"fullName", u.usri3_full_name},
                                                          {"usrComment", u.usri3_usr_comment},
                                                          {"parms", u.usri3_parms},
                                                          {"workstations", u.usri3_workstations},
                                                          {"logonServer", u.usri3_logon_server},
                                                          {"profile", u.usri3_profile},
                                                          {"homeDirDrive", u.usri3_home_dir_drive}};
          for (const auto& [key, text] : texts)
            if (const auto value = block.text(text)) r[key] = WideToUtf8(value->c_str());
          const std::pair<const char*, DWORD> numbers[] = {
              {"passwordAge", u.usri3_password_age},
              {"priv", u.usri3_priv},
              {"flags", u.usri3_flags},
              {"authFlags", u.usri3_auth_flags},
              {"lastLogon", u.usri3_last_logon},
              {"lastLogoff", u.usri3_last_logoff},
              {"acctExpires", u.usri3_acct_expires},
              {"maxStorage", u.usri3_max_storage},
              {"unitsPerWeek", u.usri3_units_per_week},
              {"badPwCount", u.usri3_bad_pw_count},
              {"numLogons", u.usri3_num_logons},
              {"countryCode", u.usri3_country_code},
              {"codePage", u.usri3_code_page},
              {"userId", u.usri3_user_id},
              {"primaryGroupId", u.usri3_primary_group_id},
              {"passwordExpired", u.usri3_password_expired}};
          for (const auto& [key, number] : numbers) r[key] = number;
          // Logon hours: 21 bytes, one bit per hour of the week.
          if (block.holds(u.usri3_logon_hours, kLogonHoursBytes))
            r["logonHours"] =
                std::vector<int>(u.usri3_logon_hours, u.usri3_logon_hours + kLogonHoursBytes);
          return r;
        });
    // The account reader asks for 100 bytes a call, and where it stops depends on how many
    // records a call hands out: record that, as the machine answers it.
    if (!j["users"].contains("batchSize")) {
      BYTE* buffer = nullptr;
      DWORD read = 0, total = 0, resume = 0;
      const NET_API_STATUS status =
          n.NetUserEnum(nullptr, 3, 0, &buffer, 100, &read, &total, &resume);
      if ((status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA)) && buffer &&
          read > 1) {
        j["users"]["batchSize"] = read;
      }
      if (buffer) n.NetApiBufferFree(buffer);
    }
    j["loggedOn"] = enumerate<WKSTA_USER_INFO_1>(
        [&](BYTE** buffer, DWORD* read, DWORD* total, DWORD* resume) {
          return n.NetWkstaUserEnum(nullptr, 1, buffer, MAX_PREFERRED_LENGTH, read, total, resume);
        },
        [](const WKSTA_USER_INFO_1& u, const NetBuffer& block) {
          auto text = [&](const WCHAR* at) {
            return WideToUtf8(block.text(at).value_or(u"").c_str());
          };
          return Json{{"username", text(u.wkui1_username)},
                      {"logonDomain", text(u.wkui1_logon_domain)},
                      {"otherDomains", text(u.wkui1_oth_domains)},
                      {"logonServer", text(u.wkui1_logon_server)}};
        });
    return j;
  }

  Json wmi() {
    Wmi& w = m_.wmi();
    Json steps = Json::object();
    Json j;
    HRESULT hr = w.CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return Json{{"steps", {{"coInitializeEx", Hex(static_cast<DWORD>(hr))}}}};
    hr = w.CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    // RPC_E_TOO_LATE says only that this process set security before.
    if (FAILED(hr) && hr != RPC_E_TOO_LATE) {
      steps["coInitializeSecurity"] = Hex(static_cast<DWORD>(hr));
    } else {
      j = queryFixes(w, steps);
    }
    w.CoUninitialize();
    if (!steps.empty()) j["steps"] = steps;
    return j;
  }

 private:
  template <typename Record, typename Call, typename Describe>
  Json enumerate(Call call, Describe describe) {
    NetApi& n = m_.net();
    Json records = Json::array();
    DWORD resume = 0;
    NET_API_STATUS status = 0;
    do {
      BYTE* buffer = nullptr;
      DWORD read = 0, total = 0;
      status = call(&buffer, &read, &total, &resume);
      if ((status == NERR_Success || status == static_cast<DWORD>(ERROR_MORE_DATA)) && buffer) {
        DWORD size = 0;
        const NET_API_STATUS sized = n.NetApiBufferSize(buffer, &size);
        if (sized != NERR_Success) {
          n.NetApiBufferFree(buffer);
          throw std::runtime_error("cannot tell the size of an account list (NetApiBufferSize: " +
                                   std::to_string(sized) + "), so it cannot be read safely");
        }
        const NetBuffer block(buffer, size);
        const auto* entries = reinterpret_cast<const Record*>(buffer);
        const DWORD held = block.records(read, sizeof(Record));
        for (DWORD i = 0; i < held && records.size() < kMaxRecords; ++i)
          records.push_back(describe(entries[i], block));
      }
      if (buffer) n.NetApiBufferFree(buffer);
    } while (status == static_cast<DWORD>(ERROR_MORE_DATA) && resume != 0 &&
             records.size() < kMaxRecords);
    Json j{{"records", records}};
    if (status != NERR_Success && status != static_cast<DWORD>(ERROR_MORE_DATA)) {
      // One record per call, so the reader fails after the same records whatever it asks.
      j["batchSize"] = records.empty() ? 0 : 1;
      j["failAfterBatches"] = records.size();
      j["failStatus"] = status;
    }
    return j;
  }

  Json queryFixes(Wmi& w, Json& steps) {
    IWbemLocator* locator = nullptr;
    HRESULT hr = w.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator);
    if (FAILED(hr)) {
      steps["createLocator"] = Hex(static_cast<DWORD>(hr));
      return Json::object();
    }
    IWbemServices* services = nullptr;
    hr = locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                &services);
    Json rows = Json::array();
    if (FAILED(hr)) {
      steps["connectServer"] = Hex(static_cast<DWORD>(hr));
    } else if (FAILED(hr = w.CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE,
                                               nullptr, RPC_C_AUTHN_LEVEL_CALL,
                                               RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE))) {
      steps["setProxyBlanket"] = Hex(static_cast<DWORD>(hr));
    } else {
      IEnumWbemClassObject* found = nullptr;
      hr = services->ExecQuery(u"WQL", u"SELECT * FROM Win32_QuickFixEngineering",
                               WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
                               &found);
      if (FAILED(hr)) {
        steps["execQuery"] = Hex(static_cast<DWORD>(hr));
      } else {
        IWbemClassObject* row = nullptr;
        ULONG returned = 0;
        while (rows.size() < kMaxRecords &&
               SUCCEEDED(found->Next(WBEM_INFINITE, 1, &row, &returned)) && returned == 1) {
          rows.push_back(describeRow(w, *row));
          row->Release();
        }
        found->Release();
      }
    }
    if (services) services->Release();
    locator->Release();
    if (FAILED(hr)) return Json::object();
    return Json{{"classes", {{"Win32_QuickFixEngineering", rows}}}};
  }

  Json describeRow(Wmi& w, IWbemClassObject& row) {
    Json r = Json::object();
    static const char16_t* const kProperties[] = {
        u"Caption",     u"CSName",      u"Description", u"FixComments", u"HotFixID",
        u"InstallDate", u"InstalledBy", u"InstalledOn", u"Name",        u"ServicePackInEffect",
        u"Status"};
    for (const char16_t* property : kProperties) {
      VARIANT value;
      w.VariantInit(&value);
      if (SUCCEEDED(row.Get(property, 0, &value, nullptr, nullptr))) {
        const std::string key = WideToUtf8(property);
        switch (value.vt) {
          case VT_BSTR:
            r[key] = WideToUtf8(value.bstrVal);
            break;
          case VT_NULL:
            r[key] = nullptr;
            break;
          case VT_I4:
            r[key] = value.lVal;
            break;
          case VT_BOOL:
            r[key] = value.boolVal != 0;
            break;
          case VT_DATE:
            r[key] = {{"oleDate", value.date}};
            break;
          default:
            break;  // a kind the format cannot hold is left out
        }
      }
      w.VariantClear(&value);
    }
    return r;
  }

  void version(Json& j, HMODULE kernel) {
    OSVERSIONINFOEXA v{};
    v.dwOSVersionInfoSize = sizeof v;
    if (!s_.GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&v))) {
      j["version"] = Failure(s_.GetLastError());
      return;
    }
    j["version"] = {
        {"major", v.dwMajorVersion},
        {"minor", v.dwMinorVersion},
        {"build", v.dwBuildNumber},
        {"platformId", v.dwPlatformId},
        {"servicePack",
         AnsiToUtf8(s_, std::string(v.szCSDVersion,
                                    std::find(v.szCSDVersion, v.szCSDVersion + 128, '\0')))},
        {"servicePackMajor", v.wServicePackMajor},
        {"servicePackMinor", v.wServicePackMinor},
        {"suiteMask", v.wSuiteMask},
        {"productType", v.wProductType > 3 ? 0 : v.wProductType}};
    DWORD product = 0;
    if (kernel && s_.GetProcAddress(kernel, "GetProductInfo") &&
        s_.GetProductInfo(v.dwMajorVersion, v.dwMinorVersion, v.wServicePackMajor,
                          v.wServicePackMinor, &product)) {
      j["productInfo"] = product;
    }
  }

  void pageFiles(Json& j) {
    struct PageFile {
      std::string name, kernelName;
      DWORD total = 0, inUse = 0, peak = 0;
    };
    std::vector<PageFile> fromPsapi, fromKernel;
    HMODULE psapi = s_.LoadLibraryA("psapi.dll");
    if (psapi) {
      Json p = Json::object();
      if (s_.GetProcAddress(psapi, "GetPerformanceInfo")) {
        PERFORMANCE_INFORMATION info{};
        p["performanceInfo"] = s_.GetPerformanceInfo(&info, sizeof info)
                                   ? Json{{"commitTotal", info.CommitTotal},
                                          {"commitLimit", info.CommitLimit},
                                          {"commitPeak", info.CommitPeak},
                                          {"physicalTotal", info.PhysicalTotal},
                                          {"physicalAvailable", info.PhysicalAvailable},
                                          {"systemCache", info.SystemCache},
                                          {"kernelTotal", info.KernelTotal},
                                          {"kernelPaged", info.KernelPaged},
                                          {"kernelNonpaged", info.KernelNonpaged},
                                          {"pageSize", info.PageSize},
                                          {"handleCount", info.HandleCount},
                                          {"processCount", info.ProcessCount},
                                          {"threadCount", info.ThreadCount}}
                                   : Failure(s_.GetLastError());
      }
      if (s_.GetProcAddress(psapi, "EnumPageFilesA")) {
        struct Context {
          System* system;
          std::vector<PageFile>* files;
        } context{&s_, &fromPsapi};
        auto callback = [](void* c, ENUM_PAGE_FILE_INFORMATION* info, const char* name) -> BOOL {
          auto* ctx = static_cast<Context*>(c);
          if (!info || !name || ctx->files->size() >= 64) return FALSE;
          ctx->files->push_back({AnsiToUtf8(*ctx->system, name), "", Clamp32(info->TotalSize),
                                 Clamp32(info->TotalInUse), Clamp32(info->PeakUsage)});
          return TRUE;
        };
        p["enumPageFiles"] =
            s_.EnumPageFilesA(callback, &context) ? Json(true) : Failure(s_.GetLastError());
      }
      j["psapi"] = p;
      s_.FreeLibrary(psapi);
    }
    HMODULE ntdll = s_.GetModuleHandleA("ntdll.dll");
    if (ntdll && s_.GetProcAddress(ntdll, "ZwQuerySystemInformation")) {
      std::vector<std::uint64_t> buffer(512);  // 8-byte aligned, as the entries are
      ULONG needed = 0;
      NTSTATUS status = 0;
      for (;;) {
        const ULONG length = static_cast<ULONG>(buffer.size() * sizeof buffer[0]);
        status =
            s_.ZwQuerySystemInformation(SystemPageFileInformation, buffer.data(), length, &needed);
        if (status != STATUS_INFO_LENGTH_MISMATCH || needed <= length ||
            needed > kMaxPageFileBuffer)
          break;
        buffer.resize(needed / sizeof buffer[0] + 1);
      }
      if (status == STATUS_SUCCESS) {
        j["ntQuerySystemInformation"] = true;
        readKernelPageFiles(buffer, needed, fromKernel);
      } else {
        j["ntQuerySystemInformation"] = {{"status", Hex(static_cast<DWORD>(status))}};
      }
    }
    // One list answers both sources: pair them by position when both answer.
    std::vector<PageFile> files = fromPsapi.empty() ? fromKernel : fromPsapi;
    if (fromPsapi.empty()) {
      for (PageFile& f : files)
        f.name = f.kernelName.rfind("\\??\\", 0) == 0 ? f.kernelName.substr(4) : f.kernelName;
    } else if (fromKernel.size() == fromPsapi.size()) {
      for (size_t i = 0; i < files.size(); ++i) files[i].kernelName = fromKernel[i].kernelName;
    }
    if (files.empty()) return;
    Json list = Json::array();
    for (const PageFile& f : files) {
      Json e{{"name", f.name}};
      if (!f.kernelName.empty() && f.kernelName != "\\??\\" + f.name)
        e["kernelName"] = f.kernelName;
      e["totalSize"] = f.total;
      e["inUse"] = f.inUse;
      e["peak"] = f.peak;
      list.push_back(e);
    }
    j["pageFiles"] = list;
  }

  template <typename PageFile>
  static void readKernelPageFiles(const std::vector<std::uint64_t>& buffer, ULONG length,
                                  std::vector<PageFile>& files) {
    const auto* base = reinterpret_cast<const BYTE*>(buffer.data());
    const size_t size = std::min<size_t>(length, buffer.size() * sizeof buffer[0]);
    size_t offset = 0;
    while (files.size() < 64 && offset + sizeof(SYSTEM_PAGEFILE_INFORMATION) <= size) {
      const auto* entry = reinterpret_cast<const SYSTEM_PAGEFILE_INFORMATION*>(base + offset);
      std::u16string name;
      const auto* text = reinterpret_cast<const BYTE*>(entry->PageFileName.Buffer);
      // Only a name that lies inside the buffer is read.
      if (text >= base && text + entry->PageFileName.Length <= base + size) {
        name.assign(entry->PageFileName.Buffer, entry->PageFileName.Length / 2);
      }
      files.push_back(
          {"", WideToUtf8(name.c_str()), entry->TotalSize, entry->TotalInUse, entry->PeakUsage});
      if (entry->NextEntryOffset == 0) break;
      offset += entry->NextEntryOffset;
    }
  }

  void time(Json& j) {
    TIME_ZONE_INFORMATION zone{};
    const DWORD result = s_.GetTimeZoneInformation(&zone);
    if (result != TIME_ZONE_ID_INVALID) {
      j["timeZone"] = {{"bias", zone.Bias},
                       {"standardName", WideToUtf8(std::u16string(zone.StandardName, 31).c_str())},
                       {"standardDate", Rule(zone.StandardDate)},
                       {"standardBias", zone.StandardBias},
                       {"daylightName", WideToUtf8(std::u16string(zone.DaylightName, 31).c_str())},
                       {"daylightDate", Rule(zone.DaylightDate)},
                       {"daylightBias", zone.DaylightBias},
                       {"result", result}};
    }
    SYSTEMTIME now{};
    s_.GetSystemTime(&now);
    // Before 1970 is a clock that was never set; the format holds no such time.
    if (now.wYear >= 1970) j["utcTime"] = Iso(now);
    s_.crtTzset();
    j["crt"] = {{"timezone", s_.crtTimezone()}, {"daylight", s_.crtDaylight() ? 1 : 0}};
  }

  Machine& m_;
  System& s_;
};

}  // namespace

nlohmann::ordered_json CaptureFacts(Machine& machine) {
  FactReader reader(machine);
  Json j;
  j["description"] = "Captured with iac capture.";
  j["system"] = reader.system();
  j["pdh"] = reader.pdh();
  j["net"] = reader.net();
  j["wmi"] = reader.wmi();
  return j;
}

}  // namespace platform::capture
