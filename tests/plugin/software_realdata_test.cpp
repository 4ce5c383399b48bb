// Installed software on Uninstall exports and a wmic hot-fix listing written by real Windows
// machines, read in place. Each pinned instance was read off the decoded export text.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "collectors/software/installed_app_info.h"
#include "common/constants.h"
#include "plugin/frame_fixture.h"
#include "registry/registrysubkeynames.h"

namespace {

namespace fs = std::filesystem;
using installedapps_col::InstalledAppInfo;
using installedapps_col::TextRecord;

const char kXpExport[] = "reg/xp-Uninstall.reg";
const char kXpListing[] = "wmi/xp-Win32_QuickFixEngineering.wmi";

// The listing's HotFixIDs other than "File 1": the HotFix key names XP keeps for them.
const char* const kListedFixes[] = {"KB980195", "KB980232", "KB980436", "KB981322",
                                    "KB981349", "KB981852", "KB981997", "KB982132",
                                    "KB982214", "KB982665", "XpsEPSC"};

std::string HotFixKeys() {
  std::string reg = "Windows Registry Editor Version 5.00\n";
  for (const char* fix : kListedFixes) {
    reg += std::string(
               "\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\"
               "HotFix\\") +
           fix + "]\n";
  }
  return reg;
}

class RealDataSoftwareTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    root = fs::temp_directory_path() /
           ("realdata_software_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
  }
  void TearDown() override {
    FrameTest::TearDown();
    fs::remove_all(root);
  }

  // Installs a machine made of the real export `reg` (linked, not copied), the wmic
  // listing `wmic` as its Win32_QuickFixEngineering when given, and `extraReg` loaded
  // after the export. Dates come out in UTC. False when a real file is absent.
  bool install(const std::string& reg, const std::string& wmic = "",
               const std::string& extraReg = "") {
    const fs::path data = IA_REALDATA_DIR;
    if (!fs::exists(data / reg) || (!wmic.empty() && !fs::exists(data / wmic))) return false;
    const fs::path dir = root / std::to_string(machines++);
    fs::create_directories(dir / "registry");
    fs::create_symlink(data / reg, dir / "registry" / "1-export.reg");
    if (!extraReg.empty()) std::ofstream(dir / "registry" / "2-extra.reg") << extraReg;
    std::string json =
        R"({"system": {"computerName": "REAL-PC", "crt": {"timezone": 0, "daylight": 0}}})";
    if (!wmic.empty()) {
      fs::create_directories(dir / "wmi");
      fs::create_symlink(data / wmic, dir / "wmi" / "qfe.wmi");
      json.insert(
          json.size() - 1,
          R"(, "wmi": {"classes": {"Win32_QuickFixEngineering": {"wmic": "wmi/qfe.wmi"}}})");
    }
    std::ofstream(dir / "machine.json") << json;
    platform::Machine::Install(platform::recorded::RecordedMachine::Load(dir.string()));
    return true;
  }

  // Each instance of `className` as its properties joined by '|', in query order.
  std::vector<std::string> instances(const std::string& className,
                                     const std::vector<std::string>& properties) {
    host().Query({className});
    std::vector<std::string> out;
    for (const auto& instance : host().GetInstances(className, false)) {
      EXPECT_EQ(property(instance, "SystemID"), "REAL-PC");
      std::string line;
      for (const std::string& name : properties) line += "|" + property(instance, name);
      out.push_back(line.substr(1));
    }
    return out;
  }
  std::vector<std::string> applications() {
    return instances("KestovaSG_InstalledApplication",
                     {"ProductName", "ProductVersion", "ProductIdentifyingNumber",
                      "ProductInstallDate", "ProductVendor", "CollectionID"});
  }
  std::vector<std::string> fixes() {
    return instances(
        "KestovaSG_InstalledFix",
        {"ProductName", "ProductVersion", "ProductInstallDate", "InstalledBy", "ProductVendor"});
  }

  // The records the application collector gives the fix class: the fix-named products.
  std::vector<TextRecord> fixNamedProducts() {
    InstalledAppInfo collector(hostClass("KestovaSG_InstalledApplication"));
    std::vector<TextRecord> records;
    collector.getInfo(records, installedapps_col::kClassInstalledFix);
    return records;
  }

  fs::path root;
  int machines = 0;
};

TEST_F(RealDataSoftwareTest, CountsOfEachExport) {
  const struct {
    const char* file;
    bool hotFixKeys;  // with HotFix keys for the fixes the XP listing names
    std::size_t subKeys, applications, fixNamed;
  } cases[] = {
      // 536 keys: the Uninstall key itself and one grandchild are no entries. 418 entries
      // have a name; 31 repeat an earlier one, 16 contain "Hotfix".
      {kXpExport, false, 534, 371, 16},
      // Nine of the listed KB numbers name an entry, which becomes a fix.
      {kXpExport, true, 534, 362, 25},
      {"reg/mssql-Uninstall.reg", false, 7, 7, 0},
      {"reg/mssql_engine-Uninstall.reg", false, 2, 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + (c.hotFixKeys ? " with HotFix keys" : ""));
    if (!install(c.file, "", c.hotFixKeys ? HotFixKeys() : "")) GTEST_SKIP() << "no " << c.file;
    EXPECT_EQ(installedapps_col::EnumerateSubKeyNames(installedapps_col::kUninstallPath).size(),
              c.subKeys);
    EXPECT_EQ(applications().size(), c.applications);
    EXPECT_EQ(fixNamedProducts().size(), c.fixNamed);
  }
}

TEST_F(RealDataSoftwareTest, InstancesCheckedAgainstTheExportText) {
  const struct {
    const char* file;
    std::vector<std::string> instances;  // name|version|number|date|vendor|collection
  } cases[] = {
      {kXpExport,
       {// A multi-line Comments value ahead of the values read.
        "Security Update for Microsoft .NET Framework 4 Extended (KB2416472)|1||<unset>|"
        "Microsoft Corporation|",
        // VersionMajor "3" and VersionMinor "5" are REG_SZ. This key sorts before
        // {CE2CDD62-...}, which has the same name and DisplayVersion 3.5.30729.
        "Microsoft .NET Framework 3.5 SP1|3.5||<unset>|Microsoft Corporation|",
        // KB892130 sorts before WGA, whose entry has the same name, a version and 20060412.
        "Windows Genuine Advantage Validation Tool (KB892130)|||20090903000000.000000+000|"
        "Microsoft Corporation|",
        // The KB number names no HotFix key here: an application.
        "Security Update for Windows XP (KB980195)|1||20100614000000.000000+000|"
        "Microsoft Corporation|"}},
      // Version 0x05180001 as read, in decimal.
      {"reg/mssql-Uninstall.reg",
       {"Strawberry Perl (64-bit)|5.24.1|85458945|20170622000000.000000+000|"
        "strawberryperl.com project|",
        "Git version 2.12.2.2|2.12.2.2||20170502000000.000000+000|"
        "The Git Development Community|"}},
      // The key is "SQL Server 2017 Database Engine Services"; its DisplayName lacks the year.
      {"reg/mssql_engine-Uninstall.reg",
       {"SQL Server 2011 Database Engine Services|11.0.2100.60||<unset>|Microsoft|",
        "SQL Server Database Engine Services|17.77.6700.34||<unset>|Microsoft|"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    if (!install(c.file)) GTEST_SKIP() << "no " << c.file;
    const std::vector<std::string> found = applications();
    for (const std::string& instance : c.instances) {
      EXPECT_EQ(std::count(found.begin(), found.end(), instance), 1) << instance;
    }
  }
}

TEST_F(RealDataSoftwareTest, XpFirstAndLastApplicationsAndAHotFix) {
  if (!install(kXpExport)) GTEST_SKIP() << "no " << kXpExport;
  const std::vector<std::string> found = applications();
  ASSERT_FALSE(found.empty());
  // VersionMajor 11 is there too; DisplayVersion comes first. No Version, no InstallDate.
  EXPECT_EQ(found.front(), "Adobe Shockwave Player 11|11||<unset>|Adobe Systems, Inc.|");
  // Version 0x0106001e; the last key by name, {FF77941A-...}.
  EXPECT_EQ(found.back(),
            "User Profile Hive Cleanup Service|1.6.30|17170462|20070823000000.000000+000|"
            "Microsoft Corporation|");

  const std::string hotFix = "Hotfix for Windows XP (KB952287)";
  EXPECT_EQ(std::count_if(found.begin(), found.end(),
                          [&](const std::string& line) { return line.rfind(hotFix, 0) == 0; }),
            0);
  const std::vector<TextRecord> fixNamed = fixNamedProducts();
  EXPECT_EQ(std::count(fixNamed.begin(), fixNamed.end(),
                       TextRecord{{"ProductName", hotFix},
                                  {"ProductVersion", "1"},
                                  {"ProductInstallDate", "20080709"},
                                  {"ProductVendor", "Microsoft Corporation"}}),
            1);
}

TEST_F(RealDataSoftwareTest, XpWmicListing) {
  if (!install(kXpExport, kXpListing)) GTEST_SKIP() << "no " << kXpListing;
  const std::vector<std::string> found = fixes();  // name|id|date|by|vendor
  ASSERT_EQ(found.size(), 16u);
  // Five "File 1" rows of empty values lead: no name, installer or date of their own. They
  // share one object path.
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(found[i], "|File 1|<unset>||Microsoft Corporation") << i;
  }
  EXPECT_EQ(found[5],
            "Security Update for Windows XP (KB980195)|KB980195|20110115000000.000000+000|SYSTEM|"
            "Microsoft Corporation");
  // XpsEPSC's InstalledBy and InstalledOn are empty: it keeps the date and the user of the
  // row before, KB982665's, whose installer was a user, not SYSTEM.
  const auto afterId = [](const std::string& line) {
    return line.substr(line.find('|', line.find('|') + 1));
  };
  EXPECT_EQ(found[14].rfind("Security Update for Windows XP (KB982665)|KB982665|20110115", 0), 0u);
  EXPECT_EQ(found[14].find("|SYSTEM|"), std::string::npos) << found[14];
  EXPECT_EQ(found[15],
            "XML Paper Specification Shared Components Pack 1.0|XpsEPSC" + afterId(found[14]));

  // Four messages a row; WMI answered, so the registry was not read and its message is
  // not among them.
  std::vector<std::string> logged;
  for (const std::string& message : messages(3)) {
    if (message.rfind("WindowsFixInfo", 0) == 0) logged.push_back(message);
  }
  ASSERT_EQ(logged.size(), 64u);
  const std::string wmi = "WindowsFixInfo::getPropertiesFromWMI(): ";
  EXPECT_EQ(std::vector<std::string>(logged.begin(), logged.begin() + 4),
            (std::vector<std::string>{wmi + "Description is not String!", wmi + "Hot Fix ID found.",
                                      wmi + "InstalledBy is not String!",
                                      wmi + "Install Date is not String!"}));
}

}  // namespace
