// Installed software from registry and WMI data that no well-behaved installer writes: each
// input gives a bounded answer that stays within its data.
#include <string>
#include <vector>

#include "plugin/frame_fixture.h"

namespace {

class HostileSoftwareTest : public FrameTest {
 protected:
  std::vector<std::string> collect(const std::string& className,
                                   const std::vector<std::string>& properties) {
    host().Query({className});
    std::vector<std::string> out;
    for (const auto& instance : host().GetInstances(className, false)) {
      std::string line;
      for (const std::string& name : properties) line += property(instance, name) + "|";
      out.push_back(line);
    }
    return out;
  }
};

TEST_F(HostileSoftwareTest, MalformedValuesStayWithinTheirData) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Load(
      IA_SOURCE_DIR "/tests/fixtures/machines/hostile-software"));
  const std::vector<std::string> found =
      collect("KestovaSG_InstalledApplication",
              {"ProductName", "ProductVersion", "ProductIdentifyingNumber", "ProductVendor"});
  const std::string big(17000, 'B');
  // A HotFix key named "%" makes every name with a "%" a fix.
  EXPECT_EQ(found, (std::vector<std::string>{
                       "Odd Dwords||513||",  // a DWORD of no byte is no major version
                       big + big + "|||%NOSUCH%|",
                       "Long Key Name||||",
                       "Eight Byte Major|6.2|||",
                       "No NUL|1.|||",
                       "Odd List|||No End|",
                       "Blank Version| | ||",
                       "Negative Version|-1.255.65535|-1||",
                       "Overflowing Version|99999999999|99999999999||",
                   }));
}

TEST_F(HostileSoftwareTest, WmiTextsAreCutAndBadDatesLeftOut) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Load(
      IA_SOURCE_DIR "/tests/fixtures/machines/hostile-software"));
  EXPECT_EQ(collect("KestovaSG_InstalledFix",
                    {"ProductName", "ProductVersion", "ProductInstallDate", "InstalledBy"}),
            (std::vector<std::string>{std::string(1023, 'x') + "|KB111111|<unset>||",
                                      "Far Date|KB2|<unset>||", "No Date|KB3|<unset>||"}));
}

std::string RegHeader() {
  return "Windows Registry Editor Version 5.00\n\n";
}

TEST_F(HostileSoftwareTest, LargeValuesAndManySubKeys) {
  const std::string key =
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
  std::string reg = RegHeader();
  // A name of 16 MiB (with its NUL, in UTF-16) is still a name.
  reg += key + "\\Huge]\n\"DisplayName\"=\"" + std::string((8u << 20) - 1, 'h') + "\"\n\n";
  for (int i = 0; i < 100000; ++i) {
    reg += key + "\\K" + std::to_string(i) + "]\n\"DisplayName\"=\"P" + std::to_string(i % 50000) +
           "\"\n\n";
  }
  platform::Machine::Install(
      platform::recorded::RecordedMachine::FromFiles({{"registry/software.reg", reg}}));
  host().Query({"KestovaSG_InstalledApplication"});
  const auto instances = host().GetInstances("KestovaSG_InstalledApplication", false);
  ASSERT_EQ(instances.size(), 50001u);
  EXPECT_EQ(property(instances[0], "ProductName").size(), (8u << 20) - 1);
  EXPECT_EQ(property(instances[1], "ProductName"), "P0");  // K0, then K1, K10, K100 ...
  EXPECT_EQ(property(instances[2], "ProductName"), "P1");
  EXPECT_EQ(property(instances[3], "ProductName"), "P10");
}

}  // namespace
