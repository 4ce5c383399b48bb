// WMI of a recorded machine: the steps, the rows and their variants, date conversion.
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/recorded/machine_wmi.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

std::shared_ptr<RecordedMachine> WithWmi(const std::string& wmi) {
  return RecordedMachine::FromFiles({{"machine.json", "{\"wmi\": " + wmi + "}"}});
}

const char* kRows = R"("classes": {"Win32_QuickFixEngineering": [
    {"HotFixID": "KB1", "InstallDate": {"date": "2010-03-15T06:00:00"}, "Description": null},
    {"HotFixID": "KB2", "InstalledOn": "1/15/2011"}]})";

// Runs the steps as the hot-fix reader does; answers the index of the failing step (6 when
// all pass) and the HotFixIDs read.
int RunSteps(Wmi& wmi, std::vector<std::string>* ids) {
  if (FAILED(wmi.CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return 0;
  HRESULT hr = wmi.CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                        RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  if (FAILED(hr) && hr != RPC_E_TOO_LATE) return wmi.CoUninitialize(), 1;
  IWbemLocator* locator = nullptr;
  if (FAILED(wmi.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator)))
    return wmi.CoUninitialize(), 2;
  IWbemServices* services = nullptr;
  int failed = 6;
  IEnumWbemClassObject* rows = nullptr;
  if (FAILED(locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                    &services))) {
    failed = 3;
  } else if (FAILED(wmi.CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                          RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE,
                                          nullptr, EOAC_NONE))) {
    failed = 4;
  } else if (FAILED(services->ExecQuery(u"WQL", u"SELECT * FROM Win32_QuickFixEngineering",
                                        WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                        nullptr, &rows))) {
    failed = 5;
  } else {
    IWbemClassObject* row = nullptr;
    ULONG returned = 0;
    while (SUCCEEDED(rows->Next(WBEM_INFINITE, 1, &row, &returned)) && returned == 1) {
      VARIANT v;
      wmi.VariantInit(&v);
      if (row->Get(u"HotFixID", 0, &v, nullptr, nullptr) == S_OK && v.vt == VT_BSTR) {
        std::u16string w(v.bstrVal);
        ids->emplace_back(w.begin(), w.end());
      }
      wmi.VariantClear(&v);
      row->Release();
    }
    rows->Release();
  }
  if (services) services->Release();
  locator->Release();
  wmi.CoUninitialize();
  return failed;
}

TEST(MachineWmi, EachStepCanFail) {
  const char* steps[] = {"coInitializeEx", "coInitializeSecurity", "createLocator",
                         "connectServer",  "setProxyBlanket",      "execQuery"};
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(steps[i]);
    auto m =
        WithWmi(std::string(R"({"steps": {")") + steps[i] + R"(": "0x80070005"}, )" + kRows + "}");
    std::vector<std::string> ids;
    EXPECT_EQ(RunSteps(m->wmi(), &ids), i);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(m->recordedWmi().liveObjects(), 0);
    EXPECT_EQ(m->recordedWmi().initializeCount(), 0);
  }
  // Security already set by the host is not a failure.
  auto m =
      WithWmi(std::string(R"({"steps": {"coInitializeSecurity": "0x80010119"}, )") + kRows + "}");
  std::vector<std::string> ids;
  EXPECT_EQ(RunSteps(m->wmi(), &ids), 6);
  EXPECT_EQ(ids, (std::vector<std::string>{"KB1", "KB2"}));
  EXPECT_EQ(m->recordedWmi().liveObjects(), 0);
  EXPECT_EQ(m->recordedWmi().liveStrings(), 0u);
}

TEST(MachineWmi, RowsAnswerWithTheirVariantTypes) {
  auto m = WithWmi(std::string("{") + kRows + "}");
  Wmi& wmi = m->wmi();
  IWbemLocator* locator = nullptr;
  IWbemServices* services = nullptr;
  IEnumWbemClassObject* rows = nullptr;
  ASSERT_EQ(wmi.CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator), S_OK);
  EXPECT_EQ(locator->ConnectServer(u"ROOT\\DEFAULT", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                   &services),
            WBEM_E_INVALID_NAMESPACE);
  ASSERT_EQ(locator->ConnectServer(u"root\\cimv2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                   &services),
            S_OK);
  EXPECT_EQ(services->ExecQuery(u"WQL", u"SELECT * FROM Win32_Nothing", 0, nullptr, &rows),
            WBEM_E_INVALID_CLASS);
  ASSERT_EQ(
      services->ExecQuery(u"WQL", u"select * from win32_quickfixengineering", 0, nullptr, &rows),
      S_OK);
  IWbemClassObject* row = nullptr;
  ULONG returned = 0;
  ASSERT_EQ(rows->Next(WBEM_INFINITE, 1, &row, &returned), S_OK);
  VARIANT v;
  wmi.VariantInit(&v);
  ASSERT_EQ(row->Get(u"InstallDate", 0, &v, nullptr, nullptr), S_OK);
  ASSERT_EQ(v.vt, VT_DATE);
  SYSTEMTIME t{};
  ASSERT_TRUE(wmi.VariantTimeToSystemTime(v.date, &t));
  EXPECT_EQ(t.wYear, 2010);
  EXPECT_EQ(t.wMonth, 3);
  EXPECT_EQ(t.wDay, 15);
  EXPECT_EQ(t.wHour, 6);
  EXPECT_EQ(row->Get(u"Description", 0, &v, nullptr, nullptr), S_OK);
  EXPECT_EQ(v.vt, VT_NULL);
  EXPECT_EQ(row->Get(u"InstalledBy", 0, &v, nullptr, nullptr), WBEM_E_NOT_FOUND);
  row->Release();
  ASSERT_EQ(rows->Next(WBEM_INFINITE, 1, &row, &returned), S_OK);
  row->Release();
  EXPECT_EQ(rows->Next(WBEM_INFINITE, 1, &row, &returned), WBEM_S_FALSE);
  EXPECT_EQ(returned, 0u);
  rows->Release();
  services->Release();
  locator->Release();
  EXPECT_EQ(m->recordedWmi().liveObjects(), 0);
}

TEST(MachineWmi, OleDatesConvertAsOleaut32Does) {
  struct Case {
    DATE date;
    bool ok;
    int year, month, day, hour, minute, second;
  };
  const Case cases[] = {
      {0.0, true, 1899, 12, 30, 0, 0, 0},
      {2.5, true, 1900, 1, 1, 12, 0, 0},
      {-1.25, true, 1899, 12, 29, 6, 0, 0},  // the fraction counts forward from the day
      {40252.75, true, 2010, 3, 15, 18, 0, 0},
      {40252.999988, true, 2010, 3, 15, 23, 59, 59},  // whole seconds, rounded
      {2958465.0, true, 9999, 12, 31, 0, 0, 0},
      {2958466.0, false, 0, 0, 0, 0, 0, 0},
      {-657435.0, false, 0, 0, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.date);
    SYSTEMTIME t{};
    ASSERT_EQ(recorded::OleDateToSystemTime(c.date, &t), c.ok);
    if (!c.ok) continue;
    EXPECT_EQ(t.wYear, c.year);
    EXPECT_EQ(t.wMonth, c.month);
    EXPECT_EQ(t.wDay, c.day);
    EXPECT_EQ(t.wHour, c.hour);
    EXPECT_EQ(t.wMinute, c.minute);
    EXPECT_EQ(t.wSecond, c.second);
  }
  EXPECT_DOUBLE_EQ(recorded::OleDateFromUnixMillis(-2209161600000LL - 18 * 3600000LL), -1.25);
}

TEST(MachineWmi, WmicExportImports) {
  std::ifstream in(IA_REALDATA_DIR "/wmi/xp-Win32_QuickFixEngineering.wmi", std::ios::binary);
  if (!in) GTEST_SKIP() << "real data not available";
  std::ostringstream bytes;
  bytes << in.rdbuf();
  auto rows = recorded::ImportWmicList(bytes.str());
  ASSERT_EQ(rows.size(), 16u);
  int file1 = 0;
  for (const auto& row : rows) {
    for (const auto& [name, value] : row.properties) {
      if (name == "HotFixID" && value.text == u"File 1") ++file1;
      if (name == "Description" && value.text.empty()) {
        EXPECT_EQ(value.vt, VT_NULL);
      }
    }
  }
  EXPECT_GT(file1, 0);
  // The same file referenced from machine.json.
  auto m = RecordedMachine::FromFiles(
      {{"machine.json",
        R"({"wmi": {"classes": {"Win32_QuickFixEngineering": {"wmic": "wmi/qfe.wmi"}}}})"},
       {"wmi/qfe.wmi", bytes.str()}});
  std::vector<std::string> ids;
  EXPECT_EQ(RunSteps(m->wmi(), &ids), 6);
  EXPECT_EQ(ids.size(), 16u);
  EXPECT_EQ(ids.back(), "XpsEPSC");
}

}  // namespace
