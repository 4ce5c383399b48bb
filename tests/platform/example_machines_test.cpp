// The example machines under examples/machines: each loads, and answers the facts the
// operating-system identification rules and the default machine's collectors depend on.
// A typo in an export or in machine.json shows up here rather than as a wrong inventory.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/recorded/recorded_machine.h"

using platform::BYTE;
using platform::DWORD;
using platform::HKEY;
using platform::Machine;
using platform::recorded::RecordedMachine;
namespace fs = std::filesystem;

namespace {

const std::string kMachines = IA_SOURCE_DIR "/examples/machines";
const char kCurrentVersion[] = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

std::shared_ptr<RecordedMachine> LoadExample(const std::string& name) {
  return RecordedMachine::Load(kMachines + "/" + name);
}

// A value read as the collectors read it: in the 64-bit view whatever the reader's bitness.
// Null when the key or the value is missing.
std::unique_ptr<std::string> ReadValue(Machine& m, const std::string& path, const char* value,
                                       DWORD* type = nullptr) {
  auto& reg = m.registry();
  HKEY key = nullptr;
  if (reg.RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, path.c_str(), 0,
                        platform::KEY_READ | platform::KEY_WOW64_64KEY, &key) != 0)
    return nullptr;
  DWORD size = 0, t = 0;
  std::unique_ptr<std::string> out;
  if (reg.RegQueryValueExA(key, value, nullptr, &t, nullptr, &size) == 0) {
    std::string data(size, '\0');
    if (reg.RegQueryValueExA(key, value, nullptr, &t, reinterpret_cast<BYTE*>(&data[0]), &size) ==
        0) {
      data.resize(size);
      if (t == platform::REG_SZ && !data.empty() && data.back() == '\0') data.pop_back();
      out = std::make_unique<std::string>(data);
      if (type) *type = t;
    }
  }
  reg.RegCloseKey(key);
  return out;
}

bool KeyExists(Machine& m, const std::string& path) {
  HKEY key = nullptr;
  if (m.registry().RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, path.c_str(), 0,
                                 platform::KEY_READ | platform::KEY_WOW64_64KEY, &key) != 0)
    return false;
  m.registry().RegCloseKey(key);
  return true;
}

std::string Text(Machine& m, const std::string& path, const char* value) {
  auto v = ReadValue(m, path, value);
  return v ? *v : "<missing>";
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

TEST(ExampleMachines, EveryDirectoryLoads) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kMachines))
    if (entry.is_directory()) names.push_back(entry.path().filename().string());
  ASSERT_GE(names.size(), 7u);
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(LoadExample(name));
  }
}

// What the identification rules read, machine by machine: version text and record, product
// type, suite mask, architecture, WOW64, GetProductInfo, and the R2 / MiniNT / PE markers.
TEST(ExampleMachines, IdentificationFacts) {
  const struct {
    const char* name;
    const char* currentVersion;
    DWORD major, minor;
    BYTE productType;
    platform::WORD suiteMask;
    platform::WORD architecture;
    bool wow64;
    bool productInfo;
    bool r2;
    bool miniNT;
    bool peMarkers;  // ProductName holds "Preinstallation" and BuildLabEx "win7"
  } cases[] = {
      {"win7-sp1-x64", "6.1", 6, 1, 1, 0x0100, 9, false, true, false, false, false},
      {"xp-sp3", "5.1", 5, 1, 1, 0x0100, 0, false, false, false, false, false},
      {"server2003r2-x64", "5.2", 5, 2, 3, 0x0112, 0, true, false, true, false, false},
      {"vista-sp2", "6.0", 6, 0, 1, 0x0100, 9, false, true, false, false, false},
      {"server2008r2", "6.1", 6, 1, 3, 0x0192, 9, false, true, false, false, false},
      {"winpe-6.0", "6.0", 6, 0, 1, 0x0100, 9, false, true, false, true, false},
      {"winpe-6.1", "6.1", 6, 1, 1, 0x0100, 0, false, true, false, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = LoadExample(c.name);
    auto& sys = m->system();

    EXPECT_EQ(Text(*m, kCurrentVersion, "CurrentVersion"), c.currentVersion);
    platform::OSVERSIONINFOEXA v{};
    v.dwOSVersionInfoSize = sizeof v;
    ASSERT_TRUE(sys.GetVersionExA(reinterpret_cast<platform::OSVERSIONINFOA*>(&v)));
    EXPECT_EQ(v.dwMajorVersion, c.major);
    EXPECT_EQ(v.dwMinorVersion, c.minor);
    EXPECT_EQ(v.dwPlatformId, 2u);
    EXPECT_EQ(v.wProductType, c.productType);
    EXPECT_EQ(v.wSuiteMask, c.suiteMask);
    EXPECT_EQ(Text(*m, kCurrentVersion, "CurrentBuildNumber"), std::to_string(v.dwBuildNumber));

    platform::SYSTEM_INFO info{};
    sys.GetSystemInfo(&info);
    EXPECT_EQ(info.wProcessorArchitecture, c.architecture);
    platform::BOOL wow64 = -1;
    ASSERT_TRUE(sys.IsWow64Process(sys.GetCurrentProcess(), &wow64));
    EXPECT_EQ(wow64 != 0, c.wow64);

    auto kernel32 = sys.GetModuleHandleA("kernel32.dll");
    EXPECT_EQ(sys.GetProcAddress(kernel32, "GetProductInfo") != nullptr, c.productInfo);

    EXPECT_EQ(ReadValue(*m, "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\R2Setup",
                        "R2BuildNumber") != nullptr,
              c.r2);
    EXPECT_EQ(KeyExists(*m, "SYSTEM\\CurrentControlSet\\Control\\MiniNT"), c.miniNT);
    const std::string product = Text(*m, kCurrentVersion, "ProductName");
    const std::string lab = Text(*m, kCurrentVersion, "BuildLabEx");
    EXPECT_EQ(Contains(product, "Preinstallation") && Contains(lab, "win7"), c.peMarkers)
        << product << " / " << lab;
  }
}

TEST(ExampleMachines, BootConfigurationSource) {
  const struct {
    const char* name;
    bool bootIni;
    bool bcd;
  } cases[] = {
      {"win7-sp1-x64", false, true},
      {"xp-sp3", true, false},
      {"server2008r2", false, false},
  };
  const std::string order =
      "BCD00000000\\Objects\\{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements\\24000001";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = LoadExample(c.name);
    EXPECT_EQ(m->system().OpenTextFile("C:\\boot.ini") != nullptr, c.bootIni);
    EXPECT_EQ(ReadValue(*m, order, "Element") != nullptr, c.bcd);
  }
}

// The default machine is the one `iac` runs without --machine; its quirks are what the
// collectors' end-to-end runs rely on.
class ExampleDefaultMachine : public ::testing::Test {
 protected:
  void SetUp() override { m = LoadExample("win7-sp1-x64"); }
  std::shared_ptr<RecordedMachine> m;
};

TEST_F(ExampleDefaultMachine, PageFilesAsRecorded) {
  std::vector<std::pair<std::string, platform::SIZE_T>> seen;
  auto record = [](void* context, platform::ENUM_PAGE_FILE_INFORMATION* info,
                   const char* name) -> platform::BOOL {
    static_cast<decltype(seen)*>(context)->emplace_back(name, info->TotalSize);
    return 1;
  };
  ASSERT_TRUE(m->system().EnumPageFilesA(record, &seen));
  const decltype(seen) expected = {{"D:\\pagefile.sys", 524288}, {"C:\\pagefile.sys", 262144}};
  EXPECT_EQ(seen, expected);
}

TEST_F(ExampleDefaultMachine, BootDisplayOrderHoldsThreeBracedIds) {
  DWORD type = 0;
  auto order = ReadValue(
      *m, "BCD00000000\\Objects\\{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements\\24000001",
      "Element", &type);
  ASSERT_TRUE(order);
  EXPECT_EQ(type, platform::REG_MULTI_SZ);
  EXPECT_EQ(order->size(), 3u * 39 + 1);  // three 38-character ids, each with its NUL, and one more
  std::istringstream ids(*order);
  std::string id;
  while (std::getline(ids, id, '\0')) {
    if (id.empty()) continue;
    SCOPED_TRACE(id);
    EXPECT_EQ(Text(*m, "BCD00000000\\Objects\\" + id + "\\Elements\\12000002", "Element"),
              "\\Windows\\system32\\winload.exe");
  }
}

TEST_F(ExampleDefaultMachine, CurrentControlSetFollowsSelect) {
  // ControlSet002 says 2 processors; reading it would mean Select\Current was ignored.
  EXPECT_EQ(Text(*m, "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment",
                 "NUMBER_OF_PROCESSORS"),
            "4");
}

TEST_F(ExampleDefaultMachine, ComponentFilesAndVersions) {
  auto& setup = m->setup();
  auto sysoc = setup.SetupOpenInfFileA("C:\\Windows\\inf\\sysoc.inf", nullptr,
                                       platform::INF_STYLE_WIN4, nullptr);
  ASSERT_NE(sysoc, platform::INVALID_HANDLE_VALUE);
  EXPECT_EQ(setup.SetupGetLineCountA(sysoc, "Components"), 7);
  setup.SetupCloseInfFile(sysoc);

  const struct {
    const char* path;
    bool present;
  } files[] = {
      {"C:\\Windows\\inf\\games.inf", true},   {"C:\\Windows\\inf\\accessor.inf", true},
      {"C:\\Windows\\inf\\netoc.inf", true},   {"C:\\Windows\\inf\\fxsocm.inf", true},
      {"C:\\Windows\\inf\\wbemoc.inf", false},  // named by sysoc.inf, deliberately absent
  };
  for (const auto& f : files) {
    SCOPED_TRACE(f.path);
    auto inf = setup.SetupOpenInfFileA(f.path, nullptr, platform::INF_STYLE_WIN4, nullptr);
    EXPECT_EQ(inf != platform::INVALID_HANDLE_VALUE, f.present);
    if (inf != platform::INVALID_HANDLE_VALUE) setup.SetupCloseInfFile(inf);
  }

  const struct {
    const char* path;
    bool hasVersion;
  } dlls[] = {
      {"C:\\Windows\\System32\\Setup\\ocgen.dll", true},
      {"C:\\Windows\\System32\\Setup\\netoc.dll", false},  // only on PATH
      {"C:\\Windows\\System32\\netoc.dll", true},
      {"C:\\Program Files\\Windows NT\\ntbackup\\ntbackup.exe", true},
  };
  for (const auto& d : dlls) {
    SCOPED_TRACE(d.path);
    DWORD handle = 0;
    EXPECT_EQ(setup.GetFileVersionInfoSizeA(d.path, &handle) > 0, d.hasVersion);
  }
}

// iac compiles the default machine in as a map of relative path -> content.
TEST_F(ExampleDefaultMachine, LoadsFromEmbeddedFiles) {
  const fs::path root = kMachines + "/win7-sp1-x64";
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    ASSERT_NE(entry.path().parent_path().filename(), "hives") << "hive files cannot be embedded";
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    files[fs::relative(entry.path(), root).generic_string()] = bytes.str();
  }
  auto embedded = RecordedMachine::FromFiles(files);
  for (const char* value : {"ProductName", "BuildLabEx", "ProductId"}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(Text(*embedded, kCurrentVersion, value), Text(*m, kCurrentVersion, value));
  }
  EXPECT_NE(embedded->system().OpenTextFile("C:\\Windows\\inf\\sysoc.inf"), nullptr);
}
