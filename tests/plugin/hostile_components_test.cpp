// Component setup data that no setup program writes: long fields and texts, INF files that
// name themselves, %strings% that name each other, odd version resources and registry
// values, a PATH of 32 KiB and a sysoc.inf of 100,000 lines. Each gives a bounded answer.
#include <chrono>
#include <string>
#include <vector>

#include "collectors/components/os_component_info.h"
#include "plugin/component_machine.h"
#include "plugin/frame_fixture.h"

namespace {

using component_machine::kInfHeader;
using component_machine::MachineJson;
using installedapps_col::OSComponentInfo;
using Lines = std::vector<std::string>;

class HostileComponentsTest : public FrameTest {
 protected:
  Lines collect(const Lines& properties) {
    OSComponentInfo(hostClass("KestovaSG_OSComponent")).getCIMInstances();
    Lines out;
    for (const auto& instance : host().GetInstances("KestovaSG_OSComponent", false)) {
      std::string line;
      for (const std::string& name : properties) {
        const std::string value = property(instance, name);
        line += (value.size() > 40 ? std::to_string(value.size()) + " bytes" : value) + "|";
      }
      out.push_back(line);
    }
    return out;
  }
};

TEST_F(HostileComponentsTest, TheFixtureMachine) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Load(
      IA_SOURCE_DIR "/tests/fixtures/machines/hostile-components"));
  const Lines shown = collect({"Name", "INFName", "DLLName", "Version", "ProductName", "Tip",
                               "Parent", "ComponentInstalled", "Hidden"});
  const std::string kSelf = "Self|C:\\W\\inf\\self.inf|self.dll|1.2.3|%SELF%||Self|1|false|";
  const std::string kLoop =
      "Loop|C:\\W\\inf\\strings.inf|strings.dll|10240 bytes|%B%|%C%%%D|%UNKNOWN%|0|false|";
  const std::string kLongId = "|C:\\W\\inf\\strings.inf|strings.dll|10240 bytes||||0|false|";
  EXPECT_EQ(shown, (Lines{
                       // Line 1, then line 2 whose 1,000-character fields keep line 1's.
                       kSelf,
                       kSelf,
                       kSelf,
                       kSelf,
                       // The last line, twice; an id of 300 characters does not fit.
                       kLoop,
                       kLongId,
                       kLoop,
                       kLongId,
                       // A FileVersion of "" on the first PATH directory is passed over.
                       "ntbackup||ntbackup.exe|5.1.2600.5512|Backup|||2|<unset>|",
                   }));
  EXPECT_EQ(messages(3)[0], "bpName = ntbackup. version = 5.1.2600.5512");
}

// 100,000 lines naming one INF file and 100 setup DLLs that exist nowhere, with a PATH of
// 32 KiB: each DLL is looked for once, each PATH directory once per DLL.
TEST_F(HostileComponentsTest, LargeComponentListAndPath) {
  std::string sysoc = kInfHeader + "[Components]\n";
  for (int i = 0; i < 100000; ++i)
    sysoc += "C" + std::to_string(i) + "=d" + std::to_string(i % 100) + ".dll,E,c.inf\n";
  std::string path;
  for (int i = 0; i < 50; ++i) path += "C:\\\\D" + std::to_string(i) + ";" + std::string(600, ';');
  auto spied = component_machine::InstallSpied(
      {{"machine.json", MachineJson(path, "")},
       {"files/C/W/inf/sysoc.inf", sysoc},
       {"files/C/W/inf/c.inf", kInfHeader + "[Optional Components]\nOne\n[One]\nOptionDesc=1\n"}});
  const auto started = std::chrono::steady_clock::now();
  const auto records = OSComponentInfo(hostClass("KestovaSG_OSComponent")).getInfo("");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_EQ(records.size(), 100001u);  // the last line twice
  EXPECT_EQ(records[0].at("DLLName"), "d0.dll");
  EXPECT_EQ(records[100000].at("DLLName"), "d99.dll");
  EXPECT_EQ(records[100000].at("Version"), "");
  // Per DLL: the Setup folder, and PATH's 50 directories and its empty piece; ntbackup.exe
  // on PATH.
  EXPECT_EQ(spied->spy.versionReads.size(), 100u * (1 + 51) + 51u);
  RecordProperty("seconds", std::to_string(seconds));
}

}  // namespace
