// WMI listings: the input as the wmic export that machine.json names for
// Win32_QuickFixEngineering, queried through the seam as the fix reader queries it (every
// property of every row, strings read whole, dates converted), then the installed fixes
// collected through the host.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/machine_wmi.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;

const char kMachineJson[] =
    R"({"wmi": {"classes": {"Win32_QuickFixEngineering": {"wmic": "wmi/qfe.wmi"}}}})";

// Win32_QuickFixEngineering's properties, and one it does not have.
const char16_t* const kProperties[] = {
    u"Caption",     u"CSName",        u"Description", u"FixComments", u"HotFixID",
    u"InstallDate", u"InstalledBy",   u"InstalledOn", u"Name",        u"ServicePackInEffect",
    u"Status",      u"NoSuchProperty"};

void ReadRow(Wmi& wmi, IWbemClassObject& row) {
  for (const char16_t* name : kProperties) {
    VARIANT value;
    wmi.VariantInit(&value);
    if (FAILED(row.Get(name, 0, &value, nullptr, nullptr))) continue;
    if (value.vt == VT_BSTR && value.bstrVal != nullptr) {
      std::u16string text(value.bstrVal);
      (void)text;
    } else if (value.vt == VT_DATE) {
      SYSTEMTIME time{};
      wmi.VariantTimeToSystemTime(value.date, &time);
    }
    wmi.VariantClear(&value);
  }
}

void QueryFixes(Wmi& wmi) {
  if (FAILED(wmi.CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return;
  IWbemLocator* locator = nullptr;
  IWbemServices* services = nullptr;
  IEnumWbemClassObject* rows = nullptr;
  wmi.CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                           RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  if (SUCCEEDED(wmi.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator)) && locator &&
      SUCCEEDED(locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr,
                                       nullptr, &services)) &&
      services &&
      SUCCEEDED(wmi.CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                      RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                                      EOAC_NONE)) &&
      SUCCEEDED(services->ExecQuery(u"WQL", u"SELECT * FROM Win32_QuickFixEngineering",
                                    WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
                                    &rows)) &&
      rows) {
    for (;;) {
      IWbemClassObject* row = nullptr;
      ULONG returned = 0;
      rows->Next(WBEM_INFINITE, 1, &row, &returned);
      if (returned == 0 || row == nullptr) break;
      ReadRow(wmi, *row);
      row->Release();
    }
  }
  if (rows) rows->Release();
  if (services) services->Release();
  if (locator) locator->Release();
  wmi.CoUninitialize();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::shared_ptr<recorded::RecordedMachine> machine;
  try {
    machine = recorded::RecordedMachine::FromFiles(
        {{"machine.json", kMachineJson}, {"wmi/qfe.wmi", fuzz::Bytes(data, size)}});
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  QueryFixes(machine->wmi());
  fuzz::CollectThroughHost(machine, {"KestovaSG_InstalledFix"});
  // COM objects and strings the reader took, it gives back.
  const recorded::RecordedWmi& wmi = machine->recordedWmi();
  if (wmi.liveObjects() != 0 || wmi.liveStrings() != 0)
    fuzz::Finding(std::to_string(wmi.liveObjects()) + " WMI objects and " +
                  std::to_string(wmi.liveStrings()) + " strings left after the fix reader");
  return 0;
}
