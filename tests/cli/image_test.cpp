// Offline volumes: a Windows volume built from a machine's exports (hives written by
// scripts/reg2hive.py) reads as the same registry, and the facts Windows keeps in its hives
// come back through the platform calls.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "iac_run.h"
#include "platform/image/image_machine.h"
#include "platform/machine.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace fs = std::filesystem;

namespace {

// A folder laid out as a Windows volume, its hives written from .reg exports.
class Volume {
 public:
  Volume() {
    static int volumes = 0;
    root = fs::temp_directory_path() /
           ("ia-volume-" + std::to_string(::getpid()) + "-" + std::to_string(volumes++));
    fs::remove_all(root);
    fs::create_directories(root / "Windows" / "System32" / "config");
  }
  ~Volume() { fs::remove_all(root); }

  // Writes the keys of `exports` below `key` as the hive at `path` (relative to the root).
  bool hive(const std::string& key, const std::string& path,
            const std::vector<std::string>& exports) const {
    fs::create_directories((root / path).parent_path());
    std::string command = std::string("python3 " IA_SOURCE_DIR "/scripts/reg2hive.py --root '") +
                          key + "' --out '" + (root / path).string() + "'";
    for (const std::string& e : exports) command += " '" + e + "'";
    return std::system(command.c_str()) == 0;
  }
  void file(const std::string& path, const std::string& bytes) const {
    fs::create_directories((root / path).parent_path());
    std::ofstream(root / path, std::ios::binary) << bytes;
  }
  fs::path root;
};

const char kExample[] = IA_SOURCE_DIR "/examples/machines/win7-sp1-x64";

std::vector<std::string> Exports(const std::string& machine) {
  std::vector<std::string> exports;
  for (const auto& entry : fs::directory_iterator(machine + "/registry"))
    exports.push_back(entry.path().string());
  return exports;
}

}  // namespace

// The example machine's registry, read through a volume of its hives, is the registry of
// the machine folder; so are the classes that only the registry feeds.
TEST(Image, VolumeOfAMachinesHivesReadsAsTheMachine) {
  Volume volume;
  const std::vector<std::string> exports = Exports(kExample);
  ASSERT_TRUE(
      volume.hive("HKEY_LOCAL_MACHINE\\SOFTWARE", "Windows/System32/config/SOFTWARE", exports));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\SYSTEM", "Windows/System32/config/system", exports));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\BCD00000000", "Boot/BCD", exports));
  fs::copy(std::string(kExample) + "/files/C", volume.root, fs::copy_options::recursive);
  const std::string image = "--image '" + volume.root.string() + "'";
  const std::string folder = std::string("--machine '") + kExample + "'";
  for (const char* key : {"HKLM\\SOFTWARE", "HKLM\\SYSTEM", "HKLM\\BCD00000000"}) {
    SCOPED_TRACE(key);
    const IacOutput fromImage = RunIac("reg query " + image + " '" + key + "' /s");
    EXPECT_EQ(fromImage.status, 0) << fromImage.err;
    EXPECT_TRUE(fromImage.out == RunIac("reg query " + folder + " '" + key + "' /s").out);
  }
  for (const char* name : {"KestovaSG_SystemEnvironmentVariable", "KestovaSG_OSSubComponent"}) {
    SCOPED_TRACE(name);
    const std::string query = std::string(" --class ") + name + " --format jsonl";
    const IacOutput fromImage = RunIac("collect " + image + query);
    EXPECT_EQ(fromImage.status, 0) << fromImage.err;
    EXPECT_TRUE(fromImage.out == RunIac("collect " + folder + query).out);
    EXPECT_NE(fromImage.out, "");
  }
}

// What Windows keeps in the hives reaches the calls that answer it on a running machine.
TEST(Image, FactsComeFromTheHives) {
  Volume volume;
  const std::string reg = (volume.root / "facts.reg").string();
  std::ofstream(reg) << R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion]
"CurrentVersion"="6.1"
"CurrentBuildNumber"="7601"
"CSDVersion"="Service Pack 1"
"EditionID"="Professional"
"SystemRoot"="D:\\WINDOWS"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Time Zones\W. Europe Standard Time]
"Std"="W. Europe Standard Time"
"Dlt"="W. Europe Daylight Time"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-21-1-1001]
"ProfileImagePath"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,44,00,72,00,69,00,76,00,\
  65,00,25,00,5c,00,55,00,73,00,65,00,72,00,73,00,5c,00,61,00,6e,00,6e,00,61,00,00,00
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-21-1-1002]
"ProfileImagePath"="D:\\Users\\ben"

[HKEY_LOCAL_MACHINE\SYSTEM\Select]
"Current"=dword:00000002
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\ComputerName\ComputerName]
"ComputerName"="OFFLINE-7"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\ProductOptions]
"ProductType"="WinNT"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Windows]
"CSDVersion"=dword:00000100
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Nls\CodePage]
"ACP"="1251"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Environment]
"PROCESSOR_ARCHITECTURE"="AMD64"
"Path"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,52,00,6f,00,6f,00,74,00,25,00,\
  5c,00,73,00,79,00,73,00,74,00,65,00,6d,00,33,00,32,00,00,00
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Memory Management]
"PagingFiles"=hex(7):3f,00,3a,00,5c,00,70,00,61,00,67,00,65,00,66,00,69,00,6c,00,65,00,\
  2e,00,73,00,79,00,73,00,00,00,45,00,3a,00,5c,00,70,00,2e,00,73,00,79,00,73,00,00,00,00,00
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\TimeZoneInformation]
"Bias"=dword:ffffffc4
"StandardName"="@tzres.dll,-322"
"DaylightName"="@tzres.dll,-321"
"DaylightBias"=dword:ffffffc4
"StandardStart"=hex:00,00,0a,00,00,00,05,00,03,00,00,00,00,00,00,00
"DaylightStart"=hex:00,00,03,00,00,00,05,00,02,00,00,00,00,00,00,00
"TimeZoneKeyName"="W. Europe Standard Time"

[HKEY_CURRENT_USER\Environment]
"Path"="D:\\Tools"
)";
  ASSERT_TRUE(
      volume.hive("HKEY_LOCAL_MACHINE\\SOFTWARE", "Windows/System32/config/SOFTWARE", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\SYSTEM", "Windows/System32/config/SYSTEM", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_CURRENT_USER", "Users/anna/NTUSER.DAT", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_CURRENT_USER", "Users/Ben/ntuser.dat", {}));
  volume.file("pagefile.sys", std::string(3 * 4096 + 100, '\0'));

  for (const char* user : {"anna", "BEN"}) {
    SCOPED_TRACE(user);
    auto machine = platform::image::LoadImage(volume.root.string(), {user});
    platform::System& s = machine->system();
    char text[256] = {};
    platform::DWORD size = sizeof text;
    ASSERT_TRUE(s.GetComputerNameA(text, &size));
    EXPECT_STREQ(text, "OFFLINE-7");
    EXPECT_EQ(s.GetACP(), 1251u);
    platform::OSVERSIONINFOEXA version{};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(s.GetVersionExA(reinterpret_cast<platform::OSVERSIONINFOA*>(&version)));
    EXPECT_EQ(version.dwMajorVersion * 100 + version.dwMinorVersion, 601u);
    EXPECT_EQ(version.dwBuildNumber, 7601u);
    EXPECT_STREQ(version.szCSDVersion, "Service Pack 1");
    EXPECT_EQ(version.wServicePackMajor, 1);
    EXPECT_EQ(version.wProductType, 1);
    EXPECT_EQ(version.wSuiteMask, 0x100);
    platform::DWORD product = 0;
    ASSERT_TRUE(s.GetProductInfo(6, 1, 1, 0, &product));
    EXPECT_EQ(product, 0x30u);
    platform::TIME_ZONE_INFORMATION zone{};
    s.GetTimeZoneInformation(&zone);
    EXPECT_EQ(zone.Bias, -60);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(zone.DaylightName)),
              u"W. Europe Daylight Time");
    EXPECT_EQ(zone.StandardDate.wMonth, 10);
    const char* path = s.getenv("PATH");
    ASSERT_NE(path, nullptr);
    // Only anna's hive adds to Path; the user's own hive is HKEY_CURRENT_USER.
    EXPECT_STREQ(path, std::string(user) == "anna" ? "D:\\WINDOWS\\system32;D:\\Tools"
                                                   : "D:\\WINDOWS\\system32");
    size = sizeof text;
    EXPECT_GT(s.GetSystemWindowsDirectoryA(text, size), 0u);
    EXPECT_STREQ(text, "D:\\WINDOWS");
  }
  // The page file of the system drive ("?:") is sized by its file; E: is on no volume here.
  platform::Machine::Install(platform::image::LoadImage(volume.root.string(), {"anna"}));
  const IacOutput pageFiles = RunIac("collect --image '" + volume.root.string() +
                                     "' --user anna --class KestovaSG_PageFile --format jsonl");
  EXPECT_NE(pageFiles.out.find("D:\\\\pagefile.sys"), std::string::npos) << pageFiles.out;
  EXPECT_EQ(pageFiles.out.find("E:"), std::string::npos);
  platform::Machine::Install(nullptr);

  const IacOutput unknown = RunIac("collect --image '" + volume.root.string() + "' --user carl");
  EXPECT_NE(unknown.status, 0);
  EXPECT_NE(unknown.err.find("no profile named carl (profiles: anna, ben)"), std::string::npos)
      << unknown.err;
}
