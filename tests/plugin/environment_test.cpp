// Environment variables of the system and of the current user, as the registry holds them.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "plugin/frame_fixture.h"

namespace {

class EnvironmentTest : public FrameTest {
 protected:
  // "name=value" of each instance, in order.
  std::vector<std::string> variables(const std::string& className) {
    host().Query({className});
    std::vector<std::string> out;
    for (const auto& instance : host().GetInstances(className, false)) {
      out.push_back(property(instance, "SettingID") + "=" + property(instance, "SettingValue"));
    }
    return out;
  }
};

const char kRegistry[] = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SYSTEM\Select]
"Current"=dword:00000002

[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet001\Control\Session Manager\Environment]
"Old"="from the other control set"

[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Environment]
"windir"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,52,00,6f,00,6f,00,74,00,25,00,00,00
"Path"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,52,00,6f,00,6f,00,74,00,25,00,5c,00,\
  78,00,3b,00,25,00,4e,00,4f,00,50,00,45,00,25,00,00,00
"ComSpec"="C:\\Windows\\system32\\cmd.exe"
"Empty"=""
"Blob"=hex:01,02
@="default has no name"
"_under"="1"
"ZED"=dword:0000002a

[HKEY_CURRENT_USER\Environment]
"TEMP"=hex(2):25,00,55,00,53,00,45,00,52,00,50,00,52,00,4f,00,46,00,49,00,4c,00,45,00,25,00,00,00
"http_proxy"="http://proxy:3128"
)";

TEST_F(EnvironmentTest, VariablesAsStoredSortedByteWiseAndExpanded) {
  platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
      {{"machine.json", R"({"system": {"environment": {"SystemRoot": "C:\\Windows",
          "USERPROFILE": "C:\\Users\\ann"}}})"},
       {"registry/r.reg", kRegistry}}));
  // %NOPE% is not set anywhere, so it stays; names sort byte-wise: capitals, "_", lower case.
  EXPECT_EQ(variables("KestovaSG_SystemEnvironmentVariable"),
            (std::vector<std::string>{"ComSpec=C:\\Windows\\system32\\cmd.exe",
                                      "Path=C:\\Windows\\x;%NOPE%", "ZED=42", "_under=1",
                                      "windir=C:\\Windows"}));
  EXPECT_EQ(variables("KestovaSG_UserEnvironmentVariable"),
            (std::vector<std::string>{"TEMP=C:\\Users\\ann", "http_proxy=http://proxy:3128"}));
}

TEST_F(EnvironmentTest, AMissingKeyGivesNothing) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Empty());
  EXPECT_TRUE(variables("KestovaSG_SystemEnvironmentVariable").empty());
  EXPECT_TRUE(variables("KestovaSG_UserEnvironmentVariable").empty());
  EXPECT_TRUE(messages(0).empty());
}

// A value of 64 KiB is a value like any other.
TEST_F(EnvironmentTest, ALargeValue) {
  const std::string big(65536, 'v');
  platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
      {{"registry/r.reg",
        "Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\Environment]\n\"BIG\"=\"" +
            big + "\"\n"}}));
  EXPECT_EQ(variables("KestovaSG_UserEnvironmentVariable"), std::vector<std::string>{"BIG=" + big});
}

// Real hives as a machine's SYSTEM and NTUSER.DAT, read in place.
class RealHiveEnvironmentTest : public EnvironmentTest {
 protected:
  void SetUp() override {
    EnvironmentTest::SetUp();
    dir_ = std::filesystem::temp_directory_path() /
           ("ia-env-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++));
    std::filesystem::create_directories(dir_ / "hives");
  }
  void TearDown() override {
    platform::Machine::Install(nullptr);
    std::filesystem::remove_all(dir_);
    EnvironmentTest::TearDown();
  }
  bool mount(const std::string& hive, const std::string& as) {
    const std::string source = std::string(IA_REALDATA_DIR) + "/hives/" + hive;
    if (!std::filesystem::exists(source)) return false;
    std::filesystem::create_symlink(source, dir_ / "hives" / as);
    return true;
  }
  void install() {
    std::ofstream(dir_ / "machine.json")
        << R"({"system": {"environment": {"SystemRoot": "C:\\Windows", "USERPROFILE": "C:\\Users\\u"}}})";
    platform::Machine::Install(platform::recorded::RecordedMachine::Load(dir_.string()));
  }

  std::filesystem::path dir_;
  static int counter_;
};
int RealHiveEnvironmentTest::counter_ = 0;

TEST_F(RealHiveEnvironmentTest, Windows7SystemHive) {
  if (!mount("win7-SYSTEM", "SYSTEM")) GTEST_SKIP() << "no real SYSTEM hive";
  install();
  const std::vector<std::string> found = variables("KestovaSG_SystemEnvironmentVariable");
  ASSERT_EQ(found.size(), 17u);
  EXPECT_EQ(found.front(), "ComSpec=C:\\Windows\\system32\\cmd.exe");
  EXPECT_EQ(found.back(), "windir=C:\\Windows");
}

TEST_F(RealHiveEnvironmentTest, Windows10UserHive) {
  if (!mount("win10-NTUSER-apps.DAT", "NTUSER.DAT")) GTEST_SKIP() << "no real user hive";
  install();
  std::vector<std::string> names;
  std::string temp;
  for (const std::string& v : variables("KestovaSG_UserEnvironmentVariable")) {
    names.push_back(v.substr(0, v.find('=')));
    if (names.back() == "TEMP") temp = v;
  }
  EXPECT_EQ(names, (std::vector<std::string>{"ChocolateyLastPathUpdate", "ChocolateyToolsLocation",
                                             "OneDrive", "Path", "TEMP", "TMP"}));
  EXPECT_EQ(temp, "TEMP=C:\\Users\\u\\AppData\\Local\\Temp");  // %USERPROFILE% expanded
}

}  // namespace
