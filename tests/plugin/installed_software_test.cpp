// Installed applications and fixes through the whole frame, on small recorded machines.
#include <string>
#include <vector>

#include "collectors/software/installed_app_info.h"
#include "collectors/software/installed_fix_info.h"
#include "plugin/frame_fixture.h"

namespace {

using installedapps_col::InstalledAppInfo;
using installedapps_col::LogMessage;
using installedapps_col::TextRecord;
using installedapps_col::WindowsFixInfo;

const char kApps[] = R"reg(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB958644]
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB976932]

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Legacy]
"DisplayName"="Legacy Driver"
"VersionMajor"=dword:00000003
"VersionMinor"=dword:0000000b

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\App1]
"DisplayName"="Shared Tool"
"DisplayVersion"="2.0"
"Publisher"="North"
"InstallDate"="20100315"
"Version"=dword:02000000

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\App2]
"DisplayName"="Shared Tool"
"DisplayVersion"="1.0"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\a-NoName]
"VersionMajor"=dword:00000001

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Dated]
"DisplayName"="Dated App"
"InstallDate"="3/15/2010"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\DayFirst]
"DisplayName"="Day First"
"InstallDate"="15-03-2010"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Fix1]
"DisplayName"="Security Update for Windows (KB958644)"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Fix2]
"DisplayName"="Update KB 976932 for Windows"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Fix3]
"DisplayName"="Hotfix for Office"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Fix4]
"DisplayName"="hotfix helper"
"CollectionID"="own"

[HKEY_LOCAL_MACHINE\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\Shared]
"DisplayName"="Shared Tool"
"DisplayVersion"="9.9"

[HKEY_LOCAL_MACHINE\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\WowApp]
"DisplayName"="Wow App"
"DisplayVersion"="1.5"

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P1]
"ProductName"="Installer App"
"Version"=dword:05000d8c
"DisplayName"="not read here"

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P2]
"ProductName"="Wow App"
"Version"=dword:01000000

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P3]
"ProductName"="Big App"
"Version"=dword:80010002

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P4]
"ProductName"="Office KB958644 Fix"
"Version"=dword:0c000000

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P5]
"ProductName"="Text Version"
"Version"="1.2.3"

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P6]
"ProductName"="Word Version"
"Version"="beta"
)reg";

const char kSystem[] =
    R"("system": {"computerName": "LAB-7", "crt": {"timezone": 18000, "daylight": 0}})";

class InstalledSoftwareTest : public FrameTest {
 protected:
  void install(const std::string& registry, const std::string& wmi = "") {
    std::string json = std::string("{") + kSystem;
    if (!wmi.empty()) json += ", \"wmi\": " + wmi;
    json += "}";
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
        {{"machine.json", json}, {"registry/software.reg", registry}}));
  }

  // Each instance as "name|version|identifying number|date|vendor|collection".
  std::vector<std::string> applications() {
    host().Query({"KestovaSG_InstalledApplication"});
    std::vector<std::string> out;
    for (const auto& i : host().GetInstances("KestovaSG_InstalledApplication", false)) {
      EXPECT_EQ(property(i, "SystemID"), "LAB-7");
      out.push_back(property(i, "ProductName") + "|" + property(i, "ProductVersion") + "|" +
                    property(i, "ProductIdentifyingNumber") + "|" +
                    property(i, "ProductInstallDate") + "|" + property(i, "ProductVendor") + "|" +
                    property(i, "CollectionID"));
    }
    return out;
  }

  // Each instance as "name|version|date|by|vendor".
  std::vector<std::string> fixes() {
    host().Query({"KestovaSG_InstalledFix"});
    std::vector<std::string> out;
    for (const auto& i : host().GetInstances("KestovaSG_InstalledFix", false)) {
      out.push_back(property(i, "ProductName") + "|" + property(i, "ProductVersion") + "|" +
                    property(i, "ProductInstallDate") + "|" + property(i, "InstalledBy") + "|" +
                    property(i, "ProductVendor"));
    }
    return out;
  }

  static std::vector<std::string> names(const std::vector<TextRecord>& records) {
    std::vector<std::string> out;
    for (const auto& record : records) {
      const auto name = record.find("ProductName");
      out.push_back(name == record.end() ? "<none>" : name->second);
    }
    return out;
  }

  std::vector<std::string> messagesStartingWith(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const auto& record : THost::Instance().GetLog()) {
      if (record.message.rfind(prefix, 0) == 0) out.push_back(record.message);
    }
    return out;
  }
};

TEST_F(InstalledSoftwareTest, ApplicationsInSourceOrderEachNameOnce) {
  install(kApps);
  EXPECT_EQ(applications(), (std::vector<std::string>{
                                "Shared Tool|2.0|33554432|20100315000000.000000+000|North|",
                                "Dated App|||20100315000000.000000-300||",
                                "Day First|||<unset>||",
                                "hotfix helper|||<unset>||own",
                                "Legacy Driver|3.11||<unset>||",
                                "Wow App|1.5||<unset>||",
                                "Installer App|5.0.3468|83889548|<unset>||",
                                "Big App|128.1.2|2147549186|<unset>||",
                                "Text Version|0.0.1|1.2.3|<unset>||",
                                "Word Version|beta|beta|<unset>||",
                            }));
  EXPECT_EQ(messagesStartingWith("InstalledAppInfo::geNKestovaTessil20"),
            std::vector<std::string>{"InstalledAppInfo::geNKestovaTessil20::TCIMValueForProperty "
                                     "Encountered an unknown date time format ->15-03-2010"});
}

TEST_F(InstalledSoftwareTest, NamesSeenByOneTestAreNeverGivenByTheOther) {
  install(kApps);
  InstalledAppInfo collector(hostClass("KestovaSG_InstalledApplication"));
  std::vector<TextRecord> records;
  collector.getInfo(records, "KestovaSG_InstalledFix");
  EXPECT_EQ(names(records), (std::vector<std::string>{"Security Update for Windows (KB958644)",
                                                      "Update KB 976932 for Windows",
                                                      "Hotfix for Office", "Office KB958644 Fix"}));
  host().ClearLog();
  collector.getInfo(records, "KestovaSG_InstalledApplication");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(messages(3), std::vector<std::string>{
                             "InstalledAppInfo::getInfo - Unable to build a list of installed "
                             "applications."});
  // Any other class name keeps every record, named or not, without remembering them.
  collector.getInfo(records, "KestovaSG_InstalledRPM");
  EXPECT_EQ(records.size(), 18u);
}

TEST_F(InstalledSoftwareTest, HotFixNamesMatchPlainSpacedAndHotfix) {
  install(kApps);
  InstalledAppInfo collector(hostClass("KestovaSG_InstalledApplication"));
  struct Case {
    const char* name;
    bool fix;
  } cases[] = {{"KB958644", true},  {"Update KB 958644", true}, {"xKB976932y", true},
               {"Hotfix", true},    {"HotFix for x", false},    {"KB95864", false},
               {"KB 97693", false}, {"kb958644", false},        {"", false}};
  for (const Case& c : cases) EXPECT_EQ(collector.isHotFixName(c.name), c.fix) << c.name;
}

TEST_F(InstalledSoftwareTest, MissingSourcesAreLoggedAndSkipped) {
  install(
      "Windows Registry Editor Version 5.00\n\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\Installer\\Products\\P1]\n"
      "\"ProductName\"=\"Only\"\n");
  EXPECT_EQ(applications(), std::vector<std::string>{"Only|||<unset>||"});
  const std::string noSubKeys =
      "InstalledAppInfo::getInfo - Unable to enumerate the sub-keys of the desired key.";
  EXPECT_EQ(messagesStartingWith("InstalledAppInfo"),
            (std::vector<std::string>{noSubKeys, noSubKeys}));

  install("Windows Registry Editor Version 5.00\n");
  host().ClearLog();
  EXPECT_TRUE(applications().empty());
  EXPECT_EQ(messagesStartingWith("InstalledAppInfo"),
            (std::vector<std::string>{
                noSubKeys, noSubKeys, noSubKeys,
                "InstalledAppInfo::getInfo - Unable to build a list of installed applications."}));
}

// An Updates tree whose parents enumerate in another order than the walk visits them:
// each level is kept by parent path in byte order, so "Gamma" comes before "beta".
const char kUpdates[] = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\beta\KB2478663]
"Description"="Shared Update"
"InstalledBy"="beta-admin"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Gamma\KB2478663]
"Description"="Shared Update"
"InstalledBy"="gamma-admin"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB100]
"InstalledBy"="nobody"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB2479943\FileList\0]
"Description"="not a fix"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB2479943]
"Description"="Security Update KB2479943"
"InstalledDate"="3/9/2011"
"InstalledBy"="SYSTEM"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB958644\filelist]
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB958644\More\KB1]
"Description"="Nested Fix"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Updates\Windows 7\SP1\KB958644]
"Description"="Security Update KB958644"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\KB958644]
"Description"="uninstall text loses"
"Publisher"="Microsoft Corporation"
"DisplayVersion"="1"
)";

TEST_F(InstalledSoftwareTest, RegistryFixesFollowTheWalk) {
  install(kUpdates);
  WindowsFixInfo reader;
  std::vector<TextRecord> records;
  reader.getInfo(records);
  const std::string updates = "SOFTWARE\\Microsoft\\Updates\\";
  EXPECT_EQ(
      reader.fixKeys(),
      (std::vector<std::string>{
          updates + "Gamma\\KB2478663", updates + "beta\\KB2478663",
          updates + "Windows 7\\SP1\\KB100", updates + "Windows 7\\SP1\\KB2479943",
          updates + "Windows 7\\SP1\\KB958644", updates + "Windows 7\\SP1\\KB958644\\More\\KB1"}));
  // A filelist key ends the walk below it; other sub-keys of a fix key are walked on.
  EXPECT_EQ(fixes(), (std::vector<std::string>{
                         "Shared Update||<unset>|gamma-admin|",
                         "Security Update KB2479943||20110309000000.000000-300|SYSTEM|",
                         "Security Update KB958644|1|<unset>||Microsoft Corporation",
                         "Nested Fix||<unset>||"}));
}

TEST_F(InstalledSoftwareTest, AMissingUpdatesKeyIsItselfAFixKey) {
  install("Windows Registry Editor Version 5.00\n");
  WindowsFixInfo reader;
  std::vector<TextRecord> records;
  reader.getInfo(records);
  EXPECT_EQ(reader.fixKeys(), std::vector<std::string>{"SOFTWARE\\Microsoft\\Updates"});
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(reader.translateValueNames({{"Description", "d"}, {"Other", "o"}}),
            (TextRecord{{"ProductName", "d"}}));
}

const char kRows[] = R"({"classes": {"Win32_QuickFixEngineering": [
  {"Description": "Security Update", "HotFixID": "KB1", "InstalledBy": "admin",
   "InstalledOn": "3/15/2010", "InstallDate": null},
  {"Description": "Update", "HotFixID": "KB2", "InstalledBy": null,
   "InstallDate": {"date": "2010-03-15T06:00:00"}, "InstalledOn": "1/1/2001"},
  {"HotFixID": "KB3", "Description": 7},
  {"Description": "Long", "HotFixID": "KB4", "InstalledBy": "LONGTEXT"}
]}})";

TEST_F(InstalledSoftwareTest, WmiRowsCarryOverWhatTheyLack) {
  std::string rows = kRows;
  rows.replace(rows.find("LONGTEXT"), 8, std::string(1500, 'x'));
  install(kUpdates, rows);
  EXPECT_EQ(fixes(),
            (std::vector<std::string>{
                "Security Update|KB1|20100315000000.000000-300|admin|Microsoft Corporation",
                "Update|KB2|20100315000000.000000-300|admin|Microsoft Corporation",
                "Update|KB3|20100315000000.000000-300|admin|Microsoft Corporation",
                "Long|KB4|20100315000000.000000-300|" + std::string(1023, 'x') +
                    "|Microsoft Corporation"}));
  const std::string p = "WindowsFixInfo::getPropertiesFromWMI(): ";
  EXPECT_EQ(messagesStartingWith("WindowsFixInfo"),
            (std::vector<std::string>{
                p + "Description found.", p + "Hot Fix ID found.", p + "InstalledBy found.",
                p + "Install Date is not String!",  //
                p + "Description found.", p + "Hot Fix ID found.", p + "InstalledBy is not String!",
                p + "Install Date Found!",  //
                p + "Description is not String!", p + "Hot Fix ID found.",
                p + "InstalledBy is not String!", p + "Install Date is not String!",  //
                p + "Description found.", p + "Hot Fix ID found.", p + "InstalledBy found.",
                p + "Install Date is not String!"}));
}

TEST_F(InstalledSoftwareTest, AnOleDateIsFormattedWithPaddedMonthAndDay) {
  install(kUpdates, R"({"classes": {"Win32_QuickFixEngineering": [
    {"Description": "d", "HotFixID": "KB1", "InstallDate": {"date": "2010-03-05T23:59:59"}}]}})");
  WindowsFixInfo reader;
  std::vector<TextRecord> records;
  reader.getPropertiesFromWMI(records);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].at("ProductInstallDate"), " 3/ 5/2010");
}

TEST_F(InstalledSoftwareTest, EachFailingWmiStepFallsBackToTheRegistry) {
  const std::string p = "WindowsFixInfo::getPropertiesFromWMI() ";
  struct Case {
    const char* step;
    const char* code;
    std::string message;  // empty: no failure
  } cases[] = {
      {"coInitializeEx", "0x80004005", p + "Failed to Initialize COM."},
      {"coInitializeSecurity", "0x80070005",
       p + "Failed to initialize security. error code: 80070005"},
      {"coInitializeSecurity", "0x80010119", ""},
      {"createLocator", "0x80040154", p + "Failed to create IWbemLocator object."},
      {"connectServer", "0x8004100E", p + "Could not connect."},
      {"setProxyBlanket", "0x80070005", p + "Could not set proxy blanket."},
      {"execQuery", "0x80041017", p + "Query for Win32_QuickFixEngineering failed."},
  };
  for (const Case& c : cases) {
    install(kUpdates, std::string(R"({"steps": {")") + c.step + R"(": ")" + c.code +
                          R"("}, "classes": {"Win32_QuickFixEngineering": [
                              {"Description": "From WMI", "HotFixID": "KB9"}]}})");
    host().ClearLog();
    const std::vector<std::string> found = fixes();
    const std::vector<std::string> logged = messagesStartingWith("WindowsFixInfo");
    if (c.message.empty()) {
      EXPECT_EQ(found, std::vector<std::string>{"From WMI|KB9|<unset>||Microsoft Corporation"});
      continue;
    }
    EXPECT_EQ(found.size(), 4u) << c.step;
    EXPECT_EQ(logged, (std::vector<std::string>{
                          c.message, "WindowsFixInfo::getInfo(): try to get hot fixes from WMI."}))
        << c.step;
  }
}

TEST_F(InstalledSoftwareTest, WmiMessagesPassTheClosedGate) {
  install(kUpdates, R"({"classes": {"Win32_QuickFixEngineering": []}})");
  LogMessage::setLoggingGate(nullptr);
  EXPECT_EQ(fixes().size(), 4u);
  EXPECT_EQ(messages(3),
            std::vector<std::string>{"WindowsFixInfo::getInfo(): try to get hot fixes from WMI."});
  host().ClearLog();
  install("Windows Registry Editor Version 5.00\n");
  applications();
  EXPECT_TRUE(messages(3).empty());  // the application collector's messages need the gate
}

}  // namespace
