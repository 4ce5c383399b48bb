// What a query leaves open on the machine it read: nothing, except the performance-data
// queries of the up-time reader, which the collector never closes.
#include <string>

#include "common/system_information.h"
#include "platform/recorded/machine_netapi.h"
#include "platform/recorded/machine_pdh.h"
#include "platform/recorded/machine_setup.h"
#include "platform/recorded/machine_system.h"
#include "platform/recorded/machine_wmi.h"
#include "platform/recorded/recorded_registry.h"
#include "plugin/frame_fixture.h"

namespace {

using platform::recorded::RecordedMachine;

class ResourcesTest : public FrameTest {
 protected:
  // Every open thing on the machine, as "what=count", leaving out what is zero.
  static std::string open(RecordedMachine& m) {
    std::string out;
    auto add = [&out](const char* what, long long count) {
      if (count != 0)
        out += std::string(out.empty() ? "" : " ") + what + "=" + std::to_string(count);
    };
    add("registry keys", static_cast<long long>(m.recordedRegistry().openHandleCount()));
    add("libraries", m.recordedSystem().libraryReferences());
    add("local memory", static_cast<long long>(m.recordedSystem().localAllocations()));
    add("WMI objects", m.recordedWmi().liveObjects());
    add("WMI strings", static_cast<long long>(m.recordedWmi().liveStrings()));
    add("COM initialisations", m.recordedWmi().initializeCount());
    add("INF handles", static_cast<long long>(m.recordedSetup().openInfCount()));
    add("PDH queries", static_cast<long long>(m.recordedPdh().openQueries()));
    add("PDH counters", static_cast<long long>(m.recordedPdh().openCounters()));
    add("netapi buffers", static_cast<long long>(m.recordedNet().outstandingBuffers()));
    return out;
  }
};

TEST_F(ResourcesTest, EachClassClosesWhatItOpens) {
  installedapps_col::SystemInformation dispatcher(host().GetNamespace());
  for (const char* machineName : {"win7-sp1-x64", "xp-sp3", "server2003r2-x64"}) {
    for (const std::string& className : dispatcher.classNames()) {
      SCOPED_TRACE(std::string(machineName) + " " + className);
      auto m =
          RecordedMachine::Load(std::string(IA_SOURCE_DIR "/examples/machines/") + machineName);
      platform::Machine::Install(m);
      host().Query({className});
      // The up-time reader opens a query for the boot time and one for the up time and
      // closes neither; every class that reaches the operating system's instance shows them.
      const bool readsUpTime = className == "KestovaSG_OperatingSystem" ||
                               className == "KestovaSG_OSEnvironmentVariable" ||
                               className == "KestovaSG_OSBaseComponent";
      EXPECT_EQ(open(*m), readsUpTime ? "PDH queries=2" : "");
    }
  }
}

}  // namespace
