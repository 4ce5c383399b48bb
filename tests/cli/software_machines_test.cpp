// Installed applications and fixes of every example machine, and of the machines whose WMI
// hot-fix query fails at one step, through the built iac and its plug-in.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "cli/iac_run.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

struct MachineSoftware {
  const char* machine;  // below the source tree
  Names applications;   // ProductName of each instance, in order
  Names fixes;
  Names fixLog;  // every logged message that starts with "WindowsFixInfo", in order
};

// Test names and failure messages name the machine, not the row's bytes.
void PrintTo(const MachineSoftware& row, std::ostream* out) {
  *out << row.machine;
}

const std::string kWmi = "WindowsFixInfo::getPropertiesFromWMI()";
const std::string kTryWmi = "WindowsFixInfo::getInfo(): try to get hot fixes from WMI.";

// A failed WMI step, then the registry is read.
Names failedAt(const std::string& message) {
  return {kWmi + " " + message, kTryWmi};
}

// What reading each WMI row logs. A row is written "DHBd": Description, HotFixID and
// InstalledBy were strings, InstallDate was a date; '-' where it was not.
Names wmiRows(std::initializer_list<const char*> rows) {
  const char* found[] = {"Description found.", "Hot Fix ID found.", "InstalledBy found.",
                         "Install Date Found!"};
  const char* missing[] = {"Description is not String!", "Hot Fix ID is not String!",
                           "InstalledBy is not String!", "Install Date is not String!"};
  Names log;
  for (const char* row : rows) {
    for (std::size_t i = 0; i < 4; ++i) {
      log.push_back(kWmi + ": " + (row[i] == '-' ? missing[i] : found[i]));
    }
  }
  return log;
}

// The wmi-fails machines share one registry: the HotFix keys make both security updates
// fixes, leaving one application; when WMI gives nothing, the Updates walk finds the two
// fix keys, completed from their uninstall entries.
const Names kQfeApplications = {"Contoso Scan Station"};
const Names kQfeRegistryFixes = {"Security Update for Windows XP (KB2079403)",
                                 "Security Update for Windows XP (KB2115168)"};

class SoftwareMachinesTest : public ::testing::TestWithParam<MachineSoftware> {};

TEST_P(SoftwareMachinesTest, ApplicationsFixesAndTheWmiLog) {
  const MachineSoftware& c = GetParam();
  const IacOutput run =
      RunIac(std::string("collect --machine " IA_SOURCE_DIR "/") + c.machine +
             " --class KestovaSG_InstalledApplication --class KestovaSG_InstalledFix --format json"
             " --log-level 4");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");  // no assertion report

  const auto document = nlohmann::json::parse(run.out);
  Names applications, fixes, fixLog;
  for (const auto& instance : document.at("instances")) {
    const std::string name = instance["properties"]["ProductName"];
    (instance["class"] == "KestovaSG_InstalledApplication" ? applications : fixes).push_back(name);
  }
  for (const auto& record : document.at("log")) {
    const std::string message = record["message"];
    if (message.rfind("WindowsFixInfo", 0) == 0) fixLog.push_back(message);
  }
  // The lists pin the instance count of each class as well as the order.
  EXPECT_EQ(applications, c.applications);
  EXPECT_EQ(fixes, c.fixes);
  EXPECT_EQ(fixLog, c.fixLog);
}

std::string RowName(const ::testing::TestParamInfo<MachineSoftware>& info) {
  std::string name = fs::path(info.param.machine).filename().string();
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(
    Machines, SoftwareMachinesTest,
    ::testing::Values(
        // Uninstall (23 keys), Wow6432Node\Uninstall (19), Installer\Products (11). Left out:
        // three unnamed keys, four fix names (HotFix keys KB2488113, KB958644, "KB 976932";
        // "Hotfix"), and names already given (Client Profile and Vireo Update Service from the
        // 32-bit view, the second Java Auto Updater and Adventure Works keys, seven products).
        MachineSoftware{"examples/machines/win7-sp1-x64",
                        {"Intel(R) Graphics Media Accelerator Driver",
                         "Microsoft .NET Framework 4 Client Profile",
                         "Northwind Gigabit Ethernet Driver",
                         "OpenVPN 2.1.4",
                         "Fabrikam PDF Print Driver",
                         "Contoso Scan Station",
                         "Tamarack High Definition Audio Driver",
                         "Microsoft Visual C++ 2010  x64 Redistributable - 10.0.40219",
                         "7-Zip 9.20 (x64 edition)",
                         "Vireo Runtime Environment 3.1 (x64)",
                         "Intel(R) Management Engine Components hotfix 6.2",
                         "Vireo Update Service",
                         "Proseware Shared Components",
                         "Microsoft .NET Framework 4 Extended",
                         "Litware Office Connector 4.2",
                         "Contoso Smart Card Middleware",
                         "Mozilla Firefox 10.0.2 (x86 en-US)",
                         "Notepad++",
                         "Pellucid Image Viewer 4.7",
                         "Proseware Barcode Fonts",
                         "VLC media player 1.1.11",
                         "Wingtip Label Designer 2.0",
                         "Microsoft Visual C++ 2008 Redistributable - x86 9.0.30729.4148",
                         "Java(TM) 6 Update 31",
                         "Adventure Works Sync Client",
                         "Java Auto Updater",
                         "Vireo Runtime Environment 3.1 (x86)",
                         "Fourth Coffee Time Tracker 2.3",
                         "Microsoft Office Professional Plus 2010",
                         "Update for Microsoft Office 2010 (KB2553347) 32-Bit Edition",
                         "Adobe Reader X (10.1.2)",
                         "Microsoft Application Error Reporting",
                         "Adobe Refresh Manager",
                         "Contoso Smart Card Minidriver",
                         "Microsoft Silverlight"},
                        // Six JSON rows; the "File 1" row's Description is an empty string.
                        {"Security Update", "Update", "Update", "Security Update", "Hotfix", ""},
                        wmiRows({"DHB-", "DHB-", "DH--", "DHBd", "DHB-", "DHB-"})},
        // 16 uninstall entries, eight of them fixes through their HotFix keys; the IE8
        // update stays an application, its key being "KB2183461-IE8". The two Installer
        // products repeat uninstall names.
        MachineSoftware{
            "examples/machines/xp-sp3",
            {"GPL Ghostscript 8.54", "Security Update for Windows Internet Explorer 8 (KB2183461)",
             "Security Update for Windows Media Player 6.4 (KB925398)",
             "Mozilla Firefox 10.0.2 (x86 en-US)", "Windows XP Service Pack 3",
             "Security Update for Microsoft .NET Framework 4 Extended (KB2416472)",
             "Microsoft .NET Framework 2.0 Service Pack 2",
             "HighMAT Extension to Microsoft Windows XP CD Writing Wizard"},
            // wmic rows; the leading "File 1" row has no Description.
            {"", "Security Update for Windows Internet Explorer 8 (KB2183461)",
             "Hotfix for Windows XP (KB2443685)", "Security Update for Windows XP (KB2479943)",
             "Security Update for Windows XP (KB923689)", "Hotfix for Windows XP (KB952287)",
             "Security Update for Windows XP (KB958644)", "Hotfix for Windows XP (KB969084)",
             "Update for Microsoft Windows (KB971513)",
             "XML Paper Specification Shared Components Pack 1.0"},
            wmiRows({"-H--", "DHB-", "DHB-", "DHB-", "DHB-", "DHB-", "DH--", "DHB-", "DHB-",
                     "DH--"})},
        // A 32-bit reader: both uninstall sources give the 32-bit list, so the 64-bit-only
        // storage manager is not seen; the backup agent comes from Installer\Products. The
        // 32-bit KB2079403 entry is a fix through the (64-bit) HotFix key.
        MachineSoftware{"examples/machines/server2003r2-x64",
                        {"Fabrikam Print Server Tools", "Contoso Antivirus Server Edition 10.1",
                         "Northwind Backup Agent 7.2 (x64)"},
                        {"Security Update for Windows Server 2003 (KB2079403)"},
                        failedAt("Could not connect.")},
        MachineSoftware{"examples/machines/server2008r2",
                        {"Northwind Server Agent 5.0 (x64)", "Tamarack RAID Manager",
                         "Contoso Antivirus Server Edition 11.0"},
                        {},
                        failedAt("Failed to create IWbemLocator object.")},
        MachineSoftware{"examples/machines/vista-sp2",
                        {"Northwind Gigabit Ethernet Driver",
                         "Tamarack High Definition Audio Driver", "Pellucid Image Viewer 4.2",
                         "Wingtip Label Designer 1.5", "Litware Office Connector 4.0"},
                        {},
                        failedAt("Failed to create IWbemLocator object.")},
        MachineSoftware{"examples/machines/winpe-6.0",
                        {},
                        {},
                        failedAt("Failed to create IWbemLocator object.")},
        MachineSoftware{"examples/machines/winpe-6.1",
                        {},
                        {},
                        failedAt("Failed to create IWbemLocator object.")},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-coInitializeEx", kQfeApplications,
                        kQfeRegistryFixes, failedAt("Failed to Initialize COM.")},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-coInitializeSecurity", kQfeApplications,
                        kQfeRegistryFixes,
                        failedAt("Failed to initialize security. error code: 80070005")},
        // Security already set is no failure: the two WMI rows, and no registry.
        MachineSoftware{"tests/fixtures/machines/wmi-fails-coInitializeSecurity-too-late",
                        kQfeApplications,
                        {"Security Update", "Update"},
                        wmiRows({"DHB-", "DHB-"})},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-createLocator", kQfeApplications,
                        kQfeRegistryFixes, failedAt("Failed to create IWbemLocator object.")},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-connectServer", kQfeApplications,
                        kQfeRegistryFixes, failedAt("Could not connect.")},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-setProxyBlanket", kQfeApplications,
                        kQfeRegistryFixes, failedAt("Could not set proxy blanket.")},
        MachineSoftware{"tests/fixtures/machines/wmi-fails-execQuery", kQfeApplications,
                        kQfeRegistryFixes, failedAt("Query for Win32_QuickFixEngineering failed.")},
        // Every step succeeds but no row comes: only the registry's message.
        MachineSoftware{"tests/fixtures/machines/wmi-fails-no-rows",
                        kQfeApplications,
                        kQfeRegistryFixes,
                        {kTryWmi}}),
    RowName);

}  // namespace
