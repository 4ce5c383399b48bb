// The first source of installed fixes: every row of Win32_QuickFixEngineering in
// ROOT\CIMV2. COM is set up and torn down within each call.
#include <cstdio>
#include <cstring>

#include "collectors/software/installed_fix_info.h"
#include "common/constants.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using namespace platform;

const char kPrefix[] = "WindowsFixInfo::getPropertiesFromWMI";
const std::string kMicrosoft = "Microsoft Corporation";
constexpr std::size_t kTextBufferSize = 1024;
constexpr std::size_t kDateBufferSize = 256;

// These messages go to the host's logger directly, not through the plug-in's gate.
void Log(const std::string& message) {
  NKestovaTessil20::ILogger* logger = NKestovaTessil20::TRootObject::GetCoreLogger();
  if (logger != nullptr) logger->Log(3, message);
}

std::string Message(const char* text) {
  return std::string(kPrefix) + text;
}

// A WMI string in the ANSI code page, through a zeroed buffer of 1024 bytes: a longer text
// is cut to the 1023 bytes that fit before the buffer's last NUL.
std::string Narrow(System& system, const VARIANT& value) {
  char buffer[kTextBufferSize] = {};
  if (value.bstrVal == nullptr) return std::string();
  const int needed =
      system.WideCharToMultiByte(CP_ACP, 0, value.bstrVal, -1, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return std::string();
  if (static_cast<std::size_t>(needed) <= kTextBufferSize) {
    system.WideCharToMultiByte(CP_ACP, 0, value.bstrVal, -1, buffer, kTextBufferSize, nullptr,
                               nullptr);
  } else {
    std::string whole(static_cast<std::size_t>(needed), '\0');
    system.WideCharToMultiByte(CP_ACP, 0, value.bstrVal, -1, &whole[0], needed, nullptr, nullptr);
    std::memcpy(buffer, whole.data(), kTextBufferSize - 1);
  }
  return std::string(buffer, strnlen(buffer, kTextBufferSize - 1));
}

}  // namespace

std::vector<TextRecord>& WindowsFixInfo::getPropertiesFromWMI(std::vector<TextRecord>& records) {
  Wmi& wmi = Machine::Current().wmi();
  System& system = Machine::Current().system();

  if (FAILED(wmi.CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    Log(Message("() Failed to Initialize COM."));
    return records;
  }
  const HRESULT security =
      wmi.CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                               RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  // The host may have set the process's security already.
  if (FAILED(security) && security != RPC_E_TOO_LATE) {
    char code[16];
    std::snprintf(code, sizeof code, "%lx",
                  static_cast<unsigned long>(static_cast<std::uint32_t>(security)));
    Log(Message("() Failed to initialize security. error code: ") + code);
    wmi.CoUninitialize();
    return records;
  }
  IWbemLocator* locator = nullptr;
  if (FAILED(wmi.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator)) || locator == nullptr) {
    Log(Message("() Failed to create IWbemLocator object."));
    wmi.CoUninitialize();
    return records;
  }
  IWbemServices* services = nullptr;
  if (FAILED(locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                    &services)) ||
      services == nullptr) {
    Log(Message("() Could not connect."));
    locator->Release();
    wmi.CoUninitialize();
    return records;
  }
  if (FAILED(wmi.CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                   RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                                   EOAC_NONE))) {
    Log(Message("() Could not set proxy blanket."));
    services->Release();
    locator->Release();
    wmi.CoUninitialize();
    return records;
  }
  IEnumWbemClassObject* rows = nullptr;
  if (FAILED(services->ExecQuery(u"WQL", u"SELECT * FROM Win32_QuickFixEngineering",
                                 WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
                                 &rows)) ||
      rows == nullptr) {
    Log(Message("() Query for Win32_QuickFixEngineering failed."));
    services->Release();
    locator->Release();
    wmi.CoUninitialize();
    return records;
  }

  // One record for all rows: a row that lacks a property keeps the previous row's value.
  TextRecord record;
  while (true) {
    IWbemClassObject* row = nullptr;
    ULONG returned = 0;
    rows->Next(WBEM_INFINITE, 1, &row, &returned);
    if (returned == 0 || row == nullptr) break;

    VARIANT description, hotFixId, installDate, installedOn, installedBy;
    for (VARIANT* value : {&description, &hotFixId, &installDate, &installedOn, &installedBy}) {
      wmi.VariantInit(value);
    }
    row->Get(u"Description", 0, &description, nullptr, nullptr);
    row->Get(u"HotFixID", 0, &hotFixId, nullptr, nullptr);
    row->Get(u"InstallDate", 0, &installDate, nullptr, nullptr);
    row->Get(u"InstalledOn", 0, &installedOn, nullptr, nullptr);
    row->Get(u"InstalledBy", 0, &installedBy, nullptr, nullptr);

    if (description.vt == VT_BSTR) {
      record[kPropProductName] = Narrow(system, description);
      Log(Message("(): Description found."));
    } else {
      Log(Message("(): Description is not String!"));
    }
    if (hotFixId.vt == VT_BSTR) {
      record[kPropProductVersion] = Narrow(system, hotFixId);
      Log(Message("(): Hot Fix ID found."));
    } else {
      Log(Message("(): Hot Fix ID is not String!"));
    }
    if (installedBy.vt == VT_BSTR) {
      record[kPropInstalledBy] = Narrow(system, installedBy);
      Log(Message("(): InstalledBy found."));
    } else {
      Log(Message("(): InstalledBy is not String!"));
    }
    if (installDate.vt == VT_DATE) {
      SYSTEMTIME time{};
      wmi.VariantTimeToSystemTime(installDate.date, &time);
      char date[kDateBufferSize] = {};
      std::snprintf(date, sizeof date, "%2d/%2d/%4d", time.wMonth, time.wDay, time.wYear);
      record[kPropProductInstallDate] = date;
      Log(Message("(): Install Date Found!"));
    } else {
      if (installedOn.vt == VT_BSTR) record[kPropProductInstallDate] = Narrow(system, installedOn);
      // Logged whichever way this branch went.
      Log(Message("(): Install Date is not String!"));
    }

    record[kPropProductVendor] = kMicrosoft;
    records.push_back(record);
    for (VARIANT* value : {&description, &hotFixId, &installDate, &installedOn, &installedBy}) {
      wmi.VariantClear(value);
    }
    row->Release();
  }

  services->Release();
  locator->Release();
  rows->Release();
  wmi.CoUninitialize();
  return records;
}

}  // namespace installedapps_col
