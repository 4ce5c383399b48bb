// The operating-system and time-zone instances of every example machine, and the
// identification of a 6.0 workstation on real SYSTEM hives, through the built iac.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "cli/iac_run.h"
#include "platform/recorded/hive_registry.h"
#include "platform/recorded/recorded_machine.h"
#include "platform/registry.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Record = std::pair<unsigned, std::string>;  // level, message
using Log = std::vector<Record>;

Log Join(std::initializer_list<Log> parts) {
  Log log;
  for (const Log& part : parts) log.insert(log.end(), part.begin(), part.end());
  return log;
}

// The up-time counter is read twice, for the boot time and for the up time. A read logs
// every PDH status: path, counter, its information, collection, value, removal.
const std::string kPdhSuccess = "pdhStatus=ERROR_SUCCESS";
const Log kCounterReads(12, Record{4, kPdhSuccess});
// Without the counter: the path is made, the counter is not found, and removing the
// counter that was never added fails.
const Log kNoCounter = {
    {4, kPdhSuccess},
    {4,
     "pdhStatus=PDH_CSTATUS_NO_OBJECT  The specified machine was found, but no matching "
     "performance object was found on that machine."},
    {4, "pdhStatus=PDH_INVALID_HANDLE"}};
const Log kNoCounterReads = Join({kNoCounter, kNoCounter});

const Record kVista{3, "Windows Vista detected."};
const Record kMiniNT{3, "MiniNT key found in registry, consider it as Windows PE."};

Log FixLevel(const std::string& servicePack, unsigned size) {
  return {{4, "Service Pack:" + servicePack},
          {4, "Size of Fix Level:" + std::to_string(size)},
          {4, "Did not find fix level, adding property"}};
}

// The boot configuration is searched once for the name and once for the contents.
const Record kCollecting{3, "Collecting Boot Configuration File Properties..."};
const Record kNoBootFile{0, "Could not open Boot.ini file."};
const Log kBootStore = {kCollecting, kCollecting};
const Log kNoBootConfiguration = {kCollecting, kNoBootFile, kCollecting, kNoBootFile};

Log BootIni(unsigned readAttempts) {
  Log log = {kCollecting, kCollecting};
  log.insert(log.end(), readAttempts, Record{3, "Exiting boot.ini info collection routine....2"});
  log.push_back({3, "Exiting boot.ini info collection routine...."});
  return log;
}

// Declared string properties the collector left out, set to "" in declaration order.
Log FixedUp(std::initializer_list<const char*> properties) {
  Log log;
  for (const char* name : properties) {
    log.push_back(
        {3, std::string("Fixing up instance ...KestovaSG_OperatingSystem with property") + name});
  }
  return log;
}
const Log kNoBootFixUps = FixedUp({"BootConfigurationFileName", "BootConfigurationFileContents"});

// The plug-in's own start and end, around every query.
bool IsFrame(const std::string& message) {
  return message.rfind("TInstalledAppsCallbacks::", 0) == 0 ||
         message == "Normal exit from plugin.";
}

const char* const kQuery =
    " --class KestovaSG_OperatingSystem --class KestovaSG_TimeZone --format json --log-level 4";

struct Collected {
  Json operatingSystem;
  Json timeZone;
  Log log;  // without the frame's lines
};

// Runs the query on a machine folder; each class must give exactly one instance.
void Collect(const std::string& machine, Collected& collected) {
  const IacOutput run = RunIac("collect --machine " + machine + kQuery);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");  // no assertion report
  const Json document = Json::parse(run.out);
  const Json& instances = document.at("instances");
  ASSERT_EQ(instances.size(), 2u) << instances;
  EXPECT_EQ(instances[0]["class"], "KestovaSG_OperatingSystem");
  EXPECT_EQ(instances[1]["class"], "KestovaSG_TimeZone");
  collected.operatingSystem = instances[0]["properties"];
  collected.timeZone = instances[1]["properties"];
  for (const Json& record : document.at("log")) {
    const std::string message = record["message"];
    if (!IsFrame(message)) collected.log.emplace_back(record["level"].get<unsigned>(), message);
  }
}

// Property by property, so that a failure names the property; one the row does not list
// must be absent. JSON values of different types (a number, its text) are not equal.
void ExpectProperties(const Json& actual, const Json& expected) {
  for (const auto& [name, value] : expected.items()) {
    EXPECT_EQ(actual.contains(name) ? actual[name] : Json(), value) << name;
  }
  for (const auto& [name, value] : actual.items()) {
    EXPECT_TRUE(expected.contains(name)) << "unexpected " << name << " = " << value;
  }
}

// Every operating-system instance carries these.
const Json kEveryMachine = Json::parse(R"({
  "CSCreationClassName": "KestovaSG_ComputerSystem",
  "CreationClassName": "KestovaSG_OperatingSystem",
  "ProductVendor": "Microsoft Corporation"})");

// A recording without a zone and a clock: GetTimeZoneInformation fails, the zero-filled
// record has a daylight bias of 0 (state 1, the empty standard name), and both clocks
// stand at the FILETIME epoch.
const char* const kNoZone = R"({"TheTimeZone": "", "DaylightSaving": 1,
  "LocalDateTime": "16010101000000.000000+000", "GMTDateTime": "16010101000000.000000+000"})";

struct MachineOs {
  const char* machine;          // under examples/machines
  const char* operatingSystem;  // JSON: every property besides those of kEveryMachine
  const char* timeZone;         // JSON: every property
  Log log;                      // every level, the frame's lines left out
};

void PrintTo(const MachineOs& row, std::ostream* out) {
  *out << row.machine;
}

class OsMachinesTest : public ::testing::TestWithParam<MachineOs> {};

TEST_P(OsMachinesTest, OperatingSystemTimeZoneAndLog) {
  const MachineOs& c = GetParam();
  Collected collected;
  ASSERT_NO_FATAL_FAILURE(
      Collect(std::string(IA_SOURCE_DIR "/examples/machines/") + c.machine, collected));
  Json expected = kEveryMachine;
  expected.update(Json::parse(c.operatingSystem));
  {
    SCOPED_TRACE("KestovaSG_OperatingSystem");
    ExpectProperties(collected.operatingSystem, expected);
  }
  {
    SCOPED_TRACE("KestovaSG_TimeZone");
    ExpectProperties(collected.timeZone, Json::parse(c.timeZone));
  }
  EXPECT_EQ(collected.log, c.log);
}

// GoogleTest names allow letters, digits and '_' only.
std::string TestName(std::string text) {
  for (char& c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return text;
}

std::string RowName(const ::testing::TestParamInfo<MachineOs>& info) {
  return TestName(info.param.machine);
}

// Without a clock (every machine but win7) _time64 fails, so there is no boot time, and
// without the up-time counter the interval is zero. Memory figures come only where a
// memory status is recorded, performance figures only where psapi is; psapi's pages are
// 4096 bytes, so every count reads four times its value (handles and threads too).
INSTANTIATE_TEST_SUITE_P(
    Machines, OsMachinesTest,
    ::testing::Values(
        // Boot store: the display order names three loaders, read as A, B, B. Up 352817 s
        // at 2012-11-06 09:41:27 UTC, standard time in W. Europe: booted 2012-11-02
        // 07:41:10 UTC, 08:41:10 local. The interval is 4 days, 98 % 24 = 2 hours, 5880 % 60
        // = 0 minutes, and (352817 % 65536) % 60 = 57 seconds where 17 would be right.
        // The daylight bias of -60 names the zone by its daylight name in November too.
        MachineOs{"win7-sp1-x64",
                  R"({"CSName": "WKS-0142", "Name": "WKS-0142",
  "LastBootUpTime": "20121102084110.000000+060", "UpTime": "00000004020057.000000:000",
  "BootConfigurationFileName": "Windows Boot Manager",
  "BootConfigurationFileContents": [
    "Installed OS :Windows 7 Professional\n\n",
    "Installed OS :Windows Vista (TM) Business\n\n",
    "Installed OS :Windows Vista (TM) Business\n\n",
    "Windows Boot Manager: Windows Boot Manager\n\n",
    "Memory Test: Windows Memory Diagnostic\nLocation: \\boot\\memtest.exe\n\n",
    "Windows Resume: Windows Resume Application\nLocation: \\Windows\\system32\\winresume.exe\n\n"],
  "MemoryLoad": 51, "TotalVisibleMemorySize": 8370452, "FreePhysicalMemory": 4026752,
  "SizeStoredInPagingFiles": 11516180, "FreeSpaceInPagingFiles": 7671996,
  "TotalVirtualMemorySize": 8589934464, "FreeVirtualMemory": 8589862632,
  "HandleCount": 98068, "ProcessCount": 312, "ThreadCount": 4172,
  "CommitTotal": 3844184, "CommitLimit": 11516180, "CommitPeak": 4816932,
  "PhysicalTotal": 8370452, "PhysicalAvailable": 4026752, "SystemCache": 3249380,
  "KernelTotal": 395060, "KernelPaged": 284936, "KernelNonpaged": 110124, "PageSize": 4096,
  "OSType": 83, "OSSubType": 17, "FixLevel": "Service Pack 1",
  "ProductID": "00371-OEM-8992671-00524", "Version": "6.1", "InstallDate": 1268647523,
  "RegisteredOwner": "Marta Kowalczyk", "BuildID": "7601"})",
                  R"({"TheTimeZone": "W. Europe Daylight Time", "DaylightSaving": 2,
  "LocalDateTime": "20121106104127.000000+060", "GMTDateTime": "20121106094127.000000+000"})",
                  Join({kCounterReads, FixLevel("Service Pack 1", 14), kBootStore})},
        // boot.ini: seven lines, one blank; the eighth read attempt finds the end.
        MachineOs{"xp-sp3",
                  R"({"CSName": "LAB-XP3", "Name": "LAB-XP3",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "C:\\boot.ini",
  "BootConfigurationFileContents": [
    "[boot loader]", "timeout=30", "default=multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS",
    "[operating systems]",
    "multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS=\"Microsoft Windows XP Professional\" /noexecute=optin /fastdetect",
    "C:\\CMDCONS\\BOOTSECT.DAT=\"Microsoft Windows Recovery Console\" /cmdcons"],
  "HandleCount": 33368, "ProcessCount": 124, "ThreadCount": 1608,
  "CommitTotal": 393216, "CommitLimit": 2490368, "CommitPeak": 524288,
  "PhysicalTotal": 1048128, "PhysicalAvailable": 480180, "SystemCache": 240492,
  "KernelTotal": 60936, "KernelPaged": 44080, "KernelNonpaged": 16856, "PageSize": 4096,
  "OSType": 67, "OSSubType": 4, "FixLevel": "Service Pack 3",
  "ProductID": "76487-OEM-0011903-00102", "Version": "5.1", "InstallDate": 1144238400,
  "RegisteredOwner": "Lab Admin", "BuildID": "2600"})",
                  kNoZone, Join({kNoCounterReads, FixLevel("Service Pack 3", 14), BootIni(8)})},
        // 5.2 server, 64-bit by IsWow64Process although GetSystemInfo says x86, R2Setup
        // present: 73. Suite 0x0112 has the enterprise bit.
        MachineOs{"server2003r2-x64",
                  R"({"CSName": "SRV-FILE02", "Name": "SRV-FILE02",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "", "BootConfigurationFileContents": [""],
  "OSType": 73, "OSSubType": 6, "FixLevel": "Service Pack 2",
  "ProductID": "69763-OEM-2216143-00000", "Version": "5.2", "InstallDate": 1183370400,
  "RegisteredOwner": "IT Operations", "BuildID": "3790"})",
                  kNoZone,
                  Join({kNoCounterReads, FixLevel("Service Pack 2", 14), kNoBootConfiguration,
                        kNoBootFixUps})},
        // 6.0 x64 workstation without the personal bit: "Professional" reported as 12.
        MachineOs{"vista-sp2",
                  R"({"CSName": "DESK-017", "Name": "DESK-017",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "", "BootConfigurationFileContents": [""],
  "OSType": 75, "OSSubType": 12, "FixLevel": "Service Pack 2",
  "ProductID": "89580-OEM-7332157-00204", "Version": "6.0", "InstallDate": 1209544200,
  "RegisteredOwner": "Front Desk", "BuildID": "6002"})",
                  kNoZone,
                  Join({kNoCounterReads,
                        {kVista},
                        FixLevel("Service Pack 2", 14),
                        kNoBootConfiguration,
                        kNoBootFixUps})},
        // 6.1 server with the datacenter bit (suite 0x0192): 82, Datacenter Edition.
        MachineOs{"server2008r2",
                  R"({"CSName": "HV-HOST01", "Name": "HV-HOST01",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "", "BootConfigurationFileContents": [""],
  "OSType": 82, "OSSubType": 5, "FixLevel": "Service Pack 1",
  "ProductID": "00496-OEM-8400735-20393", "Version": "6.1", "InstallDate": 1300000000,
  "RegisteredOwner": "Data Centre", "BuildID": "7601"})",
                  kNoZone,
                  Join({kNoCounterReads, FixLevel("Service Pack 1", 14), kNoBootConfiguration,
                        kNoBootFixUps})},
        // MiniNT under ControlSet001 (Select\Current 1), x64: 80. Not 74/75, so the
        // edition stays 4. The empty ProductId is not read, so it is fixed up.
        MachineOs{"winpe-6.0",
                  R"({"CSName": "MININT-6K2F0QJ", "Name": "MININT-6K2F0QJ",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "", "BootConfigurationFileContents": [""],
  "OSType": 80, "OSSubType": 4, "FixLevel": "Service Pack 1",
  "ProductID": "", "Version": "6.0", "InstallDate": 1221648000,
  "RegisteredOwner": "Windows User", "BuildID": "6001"})",
                  kNoZone,
                  Join({kNoCounterReads,
                        {kVista, kMiniNT},
                        FixLevel("Service Pack 1", 14),
                        kNoBootConfiguration,
                        FixedUp({"BootConfigurationFileName", "BootConfigurationFileContents",
                                 "ProductID"})})},
        // "Preinstallation" and "win7" in the version key, x86: 79. No service pack: the
        // raw text is empty, the fix level is the 26-character stand-in.
        MachineOs{"winpe-6.1",
                  R"({"CSName": "MININT-A31Q7", "Name": "MININT-A31Q7",
  "UpTime": "00000000000000.000000:000",
  "BootConfigurationFileName": "", "BootConfigurationFileContents": [""],
  "HandleCount": 16400, "ProcessCount": 72, "ThreadCount": 960,
  "CommitTotal": 163840, "CommitLimit": 786432, "CommitPeak": 204800,
  "PhysicalTotal": 524288, "PhysicalAvailable": 262144, "SystemCache": 81920,
  "KernelTotal": 32768, "KernelPaged": 24576, "KernelNonpaged": 8192, "PageSize": 4096,
  "OSType": 79, "OSSubType": 4, "FixLevel": "No service packs installed",
  "ProductID": "", "Version": "6.1", "InstallDate": 1247529600,
  "RegisteredOwner": "Windows User", "BuildID": "7600"})",
                  kNoZone,
                  Join({kNoCounterReads, FixLevel("", 26), kNoBootConfiguration,
                        FixedUp({"BootConfigurationFileName", "BootConfigurationFileContents",
                                 "ProductID"})})}),
    RowName);

// A 6.0 workstation whose SYSTEM hive is a real one: MiniNT is looked up through
// CurrentControlSet, which the hive's Select\Current resolves.
enum class AddedMiniNT { None, InCurrentSet, InOtherSet };

struct RealHive {
  const char* hive;       // under the real data's hives/
  unsigned architecture;  // GetSystemInfo: 9 x64, 0 x86
  AddedMiniNT added;      // a .reg adds Control\MiniNT to a control set
  unsigned osType;
  unsigned osSubType;
  Log identification;  // the Vista and MiniNT lines
};

void PrintTo(const RealHive& row, std::ostream* out) {
  *out << row.hive << " arch " << row.architecture;
}

std::string HiveRowName(const ::testing::TestParamInfo<RealHive>& info) {
  const char* const added[] = {"", "_MiniNTInCurrentSet", "_MiniNTInOtherSet"};
  return TestName(std::string(info.param.hive) + (info.param.architecture == 9 ? "_x64" : "_x86") +
                  added[static_cast<int>(info.param.added)]);
}

class RealHiveTest : public ::testing::TestWithParam<RealHive> {
 protected:
  void SetUp() override {
    hive = fs::path(IA_REALDATA_DIR) / "hives" / GetParam().hive;
    if (!platform::recorded::HiveFilesSupported()) GTEST_SKIP() << "built without libhivex";
    if (!fs::is_regular_file(hive)) GTEST_SKIP() << "no " << hive;
    static unsigned machines = 0;
    machine = fs::temp_directory_path() /
              ("os_real_hive_" + std::to_string(::getpid()) + "_" + std::to_string(machines++));
    fs::remove_all(machine);
    fs::create_directories(machine / "hives");
  }
  void TearDown() override {
    if (!machine.empty()) fs::remove_all(machine);
  }

  // The number of the current control set, as the machine's registry answers it.
  unsigned CurrentControlSet() const {
    const auto recorded = platform::recorded::RecordedMachine::Load(machine.string());
    platform::Registry& registry = recorded->registry();
    platform::HKEY select = nullptr;
    EXPECT_EQ(registry.RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, "SYSTEM\\Select", 0,
                                     platform::KEY_READ, &select),
              platform::ERROR_SUCCESS);
    platform::DWORD current = 0, size = sizeof current;
    EXPECT_EQ(registry.RegQueryValueExA(select, "Current", nullptr, nullptr,
                                        reinterpret_cast<platform::BYTE*>(&current), &size),
              platform::ERROR_SUCCESS);
    registry.RegCloseKey(select);
    return current;
  }

  fs::path hive;
  fs::path machine;
};

TEST_P(RealHiveTest, MiniNTThroughTheCurrentControlSet) {
  const RealHive& c = GetParam();
  fs::create_symlink(hive, machine / "hives" / "SYSTEM");
  std::ofstream(machine / "machine.json")
      << R"({"system": {"computerName": "REAL-HIVE", "processor": {"architecture": )"
      << c.architecture << R"(, "pageSize": 4096},
  "version": {"major": 6, "minor": 0, "build": 6002, "platformId": 2,
              "servicePack": "Service Pack 2", "suiteMask": 256, "productType": 1}}})";
  if (c.added != AddedMiniNT::None) {
    const unsigned current = CurrentControlSet();
    const unsigned set = c.added == AddedMiniNT::InCurrentSet ? current : (current == 1 ? 2 : 1);
    char controlSet[32];
    std::snprintf(controlSet, sizeof controlSet, "ControlSet%03u", set);
    fs::create_directories(machine / "registry");
    std::ofstream(machine / "registry" / "minint.reg")
        << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SYSTEM\\" << controlSet
        << "\\Control\\MiniNT]\n";
  }
  Collected collected;
  ASSERT_NO_FATAL_FAILURE(Collect(machine.string(), collected));
  EXPECT_EQ(collected.operatingSystem["OSType"], c.osType);
  EXPECT_EQ(collected.operatingSystem["OSSubType"], c.osSubType);
  Log identification;
  for (const Record& record : collected.log) {
    if (record == kVista || record == kMiniNT) identification.push_back(record);
  }
  EXPECT_EQ(identification, c.identification);
}

INSTANTIATE_TEST_SUITE_P(
    Hives, RealHiveTest,
    ::testing::Values(
        // Windows 7 (Select\Current 1, ControlSet001 and 002) has no MiniNT key: the plain
        // 6.0 workstation, 75 and the business edition. The key in the current set makes
        // it Windows PE (79 on x86, edition as it is); in the other set it changes nothing.
        RealHive{"win7-SYSTEM", 9, AddedMiniNT::None, 75, 12, {kVista}},
        RealHive{"win7-SYSTEM", 0, AddedMiniNT::InCurrentSet, 79, 4, {kVista, kMiniNT}},
        RealHive{"win7-SYSTEM", 9, AddedMiniNT::InOtherSet, 75, 12, {kVista}},
        // Windows 10 1709 itself keeps Control\MiniNT (AllowRefsFormatOverNoMirrorVolume) in
        // ControlSet001, its current set, so any 6.0 machine with this hive is taken for
        // Windows PE.
        RealHive{"win10-1709-SYSTEM", 9, AddedMiniNT::None, 80, 4, {kVista, kMiniNT}},
        RealHive{"win10-1709-SYSTEM", 0, AddedMiniNT::None, 79, 4, {kVista, kMiniNT}}),
    HiveRowName);

}  // namespace
