// The host fails one of its calls: every call that collecting a class makes, in turn, with
// the host's error and with an exhausted heap. The plug-in logs what it is designed to log,
// lets nothing else out, and the query's other class is still collected.
#include <algorithm>
#include <string>
#include <vector>

#include "common/system_information.h"
#include "plugin/frame_fixture.h"
#include "tessilcore/faults.h"

namespace {

using NKestovaTessil20::THostFault;
using NKestovaTessil20::THostFaults;

bool Logged(const std::vector<NKestovaTessil20::TLogRecord>& log, const std::string& text) {
  return std::any_of(log.begin(), log.end(), [&](const NKestovaTessil20::TLogRecord& record) {
    return record.message.find(text) != std::string::npos;
  });
}

// A class queried after `className` (the host runs plain classes before associations)
// whose instances do not depend on those of `className`.
std::string PartnerOf(const std::string& className) {
  if (className == "KestovaSG_PageFile") return "KestovaSG_TimeZone";
  if (className == "KestovaSG_AccountOnSystem" || className == "KestovaSG_CurrentAccountOnSystem") {
    return "KestovaSG_OSEnvironmentVariable";
  }
  if (className == "KestovaSG_OSEnvironmentVariable" || className == "KestovaSG_OSBaseComponent" ||
      className == "KestovaSG_OSSubComponent") {
    return "KestovaSG_AccountOnSystem";
  }
  return "KestovaSG_PageFile";
}

// A machine with one or two of everything, so that every class makes a few dozen host
// calls and walking all of them stays quick.
const char kMachine[] =
    R"json({"system": {"computerName": "SMALL", "windowsDirectory": "C:\\Windows",
  "systemDirectory": "C:\\Windows\\system32", "isWow64Process": false,
  "processor": {"architecture": 9, "pageSize": 4096},
  "version": {"major": 6, "minor": 1, "build": 7601, "platformId": 2,
              "servicePack": "Service Pack 1", "suiteMask": 256, "productType": 1},
  "productInfo": 48, "utcTime": "2012-11-06T09:41:27Z",
  "timeZone": {"bias": -60, "standardName": "W", "daylightName": "S", "daylightBias": -60,
               "standardDate": {"month": 10, "dayOfWeek": 0, "day": 5, "hour": 3},
               "daylightDate": {"month": 3, "dayOfWeek": 0, "day": 5, "hour": 2}},
  "memoryStatus": {"memoryLoad": 5, "totalPhys": 1048576, "availPhys": 1024, "totalPageFile": 2048,
                   "availPageFile": 1024, "totalVirtual": 4096, "availVirtual": 2048,
                   "availExtendedVirtual": 0},
  "psapi": {"performanceInfo": {"pageSize": 4096, "handleCount": 10}, "enumPageFiles": true},
  "pageFiles": [{"name": "C:\\pagefile.sys", "totalSize": 256}],
  "environment": {"USERNAME": "ann", "SystemDrive": "C:", "Path": "C:\\Tools"}},
 "pdh": {"counters": {"\\System\\System Up Time": {"type": "0x30240500", "value": 1000}}},
 "net": {"userName": "ann", "users": {"records": [{"name": "ann", "fullName": "Ann"}]},
         "loggedOn": {"records": [{"username": "ann", "logonDomain": "S", "logonServer": "S"}]}},
 "wmi": {"classes": {"Win32_QuickFixEngineering": [{"Description": "Update", "HotFixID": "KB1",
                                                    "InstalledOn": "3/1/2011"}]}},
 "setup": {"versions": {"C:\\Tools\\ocgen.dll": {"fileVersion": "6.1.7600.16385 (x)",
                                                     "fileDescription": "Setup"}}}})json";

const char kRegistry[] = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\A]
"DisplayName"="App"
"DisplayVersion"="1.0"
"InstallDate"="20100315"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\B]
"DisplayName"="Hotfix B"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion]
"CurrentVersion"="6.1"
"InstallDate"=dword:4d6f4a2b

[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet001\Control\Session Manager\Environment]
"OS"="Windows_NT"

[HKEY_CURRENT_USER\Environment]
"TEMP"="C:\\Temp"
)";

const char kSysoc[] =
    "[Version]\nSignature=\"$Windows NT$\"\n\n[Components]\n"
    "Set=ocgen.dll,OcEntry,set.inf,,7\n";
const char kSetInf[] =
    "[Version]\nSignature=\"$Windows NT$\"\n\n[Optional Components]\nTop\nChild\n\n"
    "[Top]\nOptionDesc=Top\n\n[Child]\nOptionDesc=Child\nParent=Top\n";

class HostFaultsTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    platform::Machine::Install(
        platform::recorded::RecordedMachine::FromFiles({{"machine.json", kMachine},
                                                        {"registry/r.reg", kRegistry},
                                                        {"files/C/Windows/inf/sysoc.inf", kSysoc},
                                                        {"files/C/Windows/inf/set.inf", kSetInf}}));
  }
  void TearDown() override {
    THostFaults::Disarm();
    FrameTest::TearDown();
  }
};

TEST_F(HostFaultsTest, EveryHostCallOfEveryClassFailsInTurn) {
  installedapps_col::SystemInformation dispatcher(host().GetNamespace());
  for (const std::string& className : dispatcher.classNames()) {
    const std::string other = PartnerOf(className);
    // The calls of the class alone come first in a query of both.
    THostFaults::Disarm();
    host().Query({className});
    const std::uint64_t calls = THostFaults::Calls();
    ASSERT_GT(host().GetInstances(className, false).size(), 0u) << className;
    host().Query({className, other});
    const std::size_t otherCount = host().GetInstances(other, false).size();
    ASSERT_GT(otherCount, 0u);
    for (std::uint64_t n = 1; n <= calls; ++n) {
      for (THostFault fault : {THostFault::kTessilException, THostFault::kBadAlloc}) {
        SCOPED_TRACE(className + " call " + std::to_string(n) +
                     (fault == THostFault::kBadAlloc ? " bad_alloc" : " code 7"));
        host().ClearLog();
        THostFaults::Arm(n, fault);
        ASSERT_NO_THROW(host().Query({className, other}));
        const std::string fired = THostFaults::Fired();
        ASSERT_FALSE(fired.empty());
        const auto& log = host().GetLog();
        if (Logged(log, "Host: plug-in query failed")) {
          // Only the dispatcher's own question for the class name is outside its guard.
          EXPECT_EQ(fired, "ICIMClass::GetName");
          continue;
        }
        EXPECT_EQ(host().GetInstances(other, false).size(), otherCount) << fired;
        const bool designed =
            Logged(log, "Encountered an error") || Logged(log, "Exception caught") ||
            Logged(log, "Error processing property") || fired == "ICIMNamespace::GetClass";
        EXPECT_TRUE(designed) << fired;
      }
    }
  }
}

}  // namespace
