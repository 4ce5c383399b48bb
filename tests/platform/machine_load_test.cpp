// Loading recorded machines: directories, refusals that name file and field, the empty
// machine, the registry inside, and the process-wide current machine.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

std::string Refusal(const std::map<std::string, std::string>& files) {
  try {
    RecordedMachine::FromFiles(files);
  } catch (const RecordError& e) {
    return e.what();
  }
  return "";
}

TEST(MachineLoad, RefusalsNameFileAndField) {
  struct Case {
    std::string json;
    const char* message;
  };
  std::string seventeenPageFiles = R"({"system": {"pageFiles": [)";
  for (int i = 0; i < 17; ++i)
    seventeenPageFiles += std::string(i ? "," : "") + R"({"name": "C:\\p.sys", "totalSize": 1})";
  seventeenPageFiles += "]}}";
  auto pageFile = [](const std::string& fields) {
    return R"({"system": {"pageFiles": [{"totalSize": 1, )" + fields + "}]}}";
  };
  const Case cases[] = {
      {R"({"system": {"version": {"major": -5, "minor": 1}}})",
       "machine.json: system.version.major: expected an unsigned integer"},
      {R"({"system": {"version": {"major": 5}}})",
       "machine.json: system.version.minor: expected an unsigned integer"},
      {R"({"system": {"verson": {}}})", "machine.json: system.verson: unknown key"},
      {R"({"system": {"codePage": 12345}})", "machine.json: system.codePage: code page 12345"},
      {R"({"system": {"codePage": 500}})",
       "machine.json: system.codePage: code page 500 is not an ANSI code page of Windows"},
      {R"({"system": {"codePage": 930}})",
       "machine.json: system.codePage: code page 930 is not an ANSI code page of Windows"},
      {R"({"system": {"codePage": 1047}})",
       "machine.json: system.codePage: code page 1047 is not an ANSI code page of Windows"},
      {R"({"system": {"codePage": 437}})",
       "machine.json: system.codePage: code page 437 is not an ANSI code page of Windows"},
      {R"({"system": {"utcTime": "yesterday"}})",
       "machine.json: system.utcTime: expected a UTC time"},
      {R"({"system": {"utcTime": "2010-01-01T-1:-1:-1Z"}})",
       "machine.json: system.utcTime: expected a UTC time"},
      {R"({"wmi": {"classes": {"X": [{"D": {"date": "2010-01-01T-1:00:00"}}]}}})",
       "machine.json: wmi.classes.X[0].D.date: expected a date"},
      {R"({"system": {"pageFiles": [{"name": "C:\\p.sys"}]}})",
       "machine.json: system.pageFiles[0].totalSize: expected an unsigned integer"},
      {R"({"system": {"processor": {"pageSize": 65536}}})",
       "machine.json: system.processor.pageSize: expected a page size of Windows, 4096 or 8192"},
      {R"({"system": {"psapi": {"performanceInfo": {"pageSize": 9223372036854775808}}}})",
       "machine.json: system.psapi.performanceInfo.pageSize: expected a page size of Windows"},
      {seventeenPageFiles,
       "machine.json: system.pageFiles: expected at most 16 page files, as many as Windows keeps"},
      {pageFile(R"("name": "C:\\p.sys", "kernelName": ")" + std::string(32767, 'k') + "\""),
       "machine.json: system.pageFiles[0].kernelName: expected a kernel name of at most 32766"},
      // Without a kernel name, the kernel's is \??\ and the name.
      {pageFile(R"("name": ")" + std::string(32763, 'n') + "\""),
       "machine.json: system.pageFiles[0].name: expected a kernel name of at most 32766"},
      {R"({"net": {"users": {"records": [{"name": "a", "flags": "x"}]}}})",
       "machine.json: net.users.records[0].flags: expected a result code"},
      {R"({"wmi": {"classes": {"X": {"wmic": "gone.wmi"}}}})",
       "machine.json: wmi.classes.X.wmic: cannot read gone.wmi"},
      {R"({"setup": {"versions": {"x.dll": null}}})",
       "machine.json: setup.versions.x.dll: expected an absolute Windows path"},
      {R"([1, 2])", "machine.json: (top level): expected an object"},
      {R"({"system": )", "machine.json: not JSON"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json.substr(0, 200));
    EXPECT_EQ(Refusal({{"machine.json", c.json}}).rfind(c.message, 0), 0u)
        << Refusal({{"machine.json", c.json}});
  }
  EXPECT_EQ(Refusal({{"hives/SYSTEM", "regf"}}),
            "hives/SYSTEM: not a readable registry hive (no \"regf\" header)");
  EXPECT_THROW(RecordedMachine::Load(IA_SOURCE_DIR "/tests/fixtures/machines/no-such"),
               RecordError);
}

TEST(MachineLoad, EmptyMachineFailsEveryFamily) {
  auto m = RecordedMachine::Empty();
  HKEY key = nullptr;
  EXPECT_EQ(
      m->registry().RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft", 0, KEY_READ, &key),
      ERROR_FILE_NOT_FOUND);

  System& s = m->system();
  OSVERSIONINFOA version{};
  version.dwOSVersionInfoSize = sizeof version;
  EXPECT_FALSE(s.GetVersionExA(&version));
  EXPECT_EQ(s.LoadLibraryA("psapi.dll"), nullptr);
  EXPECT_EQ(s.GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  EXPECT_EQ(s.GetProcAddress(s.GetModuleHandleA("kernel32"), "IsWow64Process"), nullptr);
  EXPECT_EQ(s.GetProcAddress(s.GetModuleHandleA("ntdll.dll"), "ZwQuerySystemInformation"), nullptr);
  MEMORYSTATUSEX memory{};
  memory.dwLength = sizeof memory;
  EXPECT_FALSE(s.GlobalMemoryStatusEx(&memory));
  TIME_ZONE_INFORMATION zone{};
  EXPECT_EQ(s.GetTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID);
  EXPECT_EQ(s.crtTime64(), -1);
  char buffer[64];
  EXPECT_EQ(s.GetEnvironmentVariableA("PATH", buffer, sizeof buffer), 0u);
  EXPECT_EQ(s.GetSystemWindowsDirectoryA(buffer, sizeof buffer), 0u);
  EXPECT_EQ(s.OpenTextFile("C:\\boot.ini"), nullptr);

  PDH_HQUERY query = nullptr;
  PDH_HCOUNTER counter = nullptr;
  ASSERT_EQ(m->pdh().PdhOpenQueryA(nullptr, 0, &query), 0);
  EXPECT_NE(m->pdh().PdhAddCounterA(query, "\\System\\System Up Time", 0, &counter), 0);

  BYTE* records = nullptr;
  DWORD read = 0, total = 0, resume = 0;
  EXPECT_NE(m->net().NetUserEnum(nullptr, 3, 0, &records, 100, &read, &total, &resume),
            NERR_Success);
  EXPECT_NE(
      m->net().NetWkstaUserEnum(nullptr, 1, &records, MAX_PREFERRED_LENGTH, &read, &total, &resume),
      NERR_Success);
  DWORD size = sizeof buffer;
  EXPECT_FALSE(m->net().GetUserNameA(buffer, &size));

  IWbemLocator* locator = nullptr;
  EXPECT_EQ(m->wmi().CoCreateWbemLocator(CLSCTX_INPROC_SERVER, &locator), REGDB_E_CLASSNOTREG);

  EXPECT_EQ(
      m->setup().SetupOpenInfFileA("C:\\WINDOWS\\inf\\sysoc.inf", nullptr, INF_STYLE_WIN4, nullptr),
      INVALID_HANDLE_VALUE);
  EXPECT_EQ(m->setup().GetFileVersionInfoSizeA("C:\\WINDOWS\\system32\\ntbackup.exe", nullptr), 0u);
}

TEST(MachineLoad, DirectoryBringsRegistryFilesAndFacts) {
  auto m = RecordedMachine::Load(IA_SOURCE_DIR "/tests/fixtures/machines/xp-sp3");
  HKEY key = nullptr;
  ASSERT_EQ(
      m->registry().RegOpenKeyExA(
          HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0, KEY_READ, &key),
      ERROR_SUCCESS);
  char name[64];
  DWORD size = sizeof name;
  ASSERT_EQ(m->registry().RegQueryValueExA(key, "ProductName", nullptr, nullptr,
                                           reinterpret_cast<BYTE*>(name), &size),
            ERROR_SUCCESS);
  EXPECT_STREQ(name, "Microsoft Windows XP");
  m->registry().RegCloseKey(key);
  char user[32];
  size = sizeof user;
  EXPECT_TRUE(m->net().GetUserNameA(user, &size));
  EXPECT_NE(m->system().OpenTextFile("C:\\WINDOWS\\INF\\SYSOC.INF"), nullptr);
}

// A machine folder may hold far more than its calls read: a file outside the layout is
// never read, and one under files/ only when a call opens it. The two 64 GiB files are
// sparse; reading either would take the memory of the machine.
TEST(MachineLoad, FolderFilesAreReadWhenUsed) {
  namespace fs = std::filesystem;
  const fs::path dir =
      fs::path(::testing::TempDir()) / ("machine-files-" + std::to_string(::getpid()));
  fs::create_directories(dir / "files" / "C");
  fs::create_directories(dir / "registry");
  std::ofstream(dir / "registry" / "a.reg")
      << "Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\n";
  std::ofstream(dir / "files" / "C" / "boot.ini") << "[boot loader]\ntimeout=30\n";
  for (const fs::path& big : {dir / "notes.bin", dir / "files" / "C" / "pagefile.sys"}) {
    std::ofstream(big).close();
    fs::resize_file(big, std::uintmax_t{64} << 30);
  }
  auto m = RecordedMachine::Load(dir.string());
  HKEY key = nullptr;
  EXPECT_EQ(m->registry().RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\T", 0, KEY_READ, &key),
            ERROR_SUCCESS);
  m->registry().RegCloseKey(key);
  auto in = m->system().OpenTextFile("C:\\BOOT.INI");
  ASSERT_NE(in, nullptr);
  std::string line;
  std::getline(*in, line);
  EXPECT_EQ(line, "[boot loader]");
  fs::remove_all(dir);
}

TEST(MachineLoad, CurrentMachineIsTheInstalledOne) {
  Machine& fallback = Machine::Current();
  auto recorded =
      RecordedMachine::FromFiles({{"machine.json", R"({"system": {"computerName": "A"}})"}});
  EXPECT_EQ(Machine::Install(recorded), nullptr);
  EXPECT_EQ(&Machine::Current(), recorded.get());
  auto other = RecordedMachine::Empty();
  EXPECT_EQ(Machine::Install(other), recorded);
  EXPECT_EQ(Machine::Install(nullptr), other);
  EXPECT_EQ(&Machine::Current(), &fallback);
}

}  // namespace
