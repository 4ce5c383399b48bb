// One platform call of a run fails, every call in turn, the way Windows reports it: each
// class still gives its designed, degraded result, and nothing crashes.
#include <string>

#include "common/system_information.h"
#include "plugin/faulty_machine.h"
#include "plugin/frame_fixture.h"

namespace {

TEST_F(FrameTest, EveryPlatformCallOfEveryClassFailsInTurn) {
  auto faulty = std::make_shared<testing_machine::FaultyMachine>(
      platform::recorded::RecordedMachine::Load(IA_SOURCE_DIR "/examples/machines/xp-sp3"));
  platform::Machine::Install(faulty);
  const std::vector<std::string> classes =
      installedapps_col::SystemInformation(host().GetNamespace()).classNames();
  for (const std::string& className : classes) {
    faulty->plan.failAt = 0;
    faulty->plan.calls = 0;
    host().Query({className});
    const std::uint64_t calls = faulty->plan.calls;
    for (std::uint64_t n = 1; n <= calls; ++n) {
      SCOPED_TRACE(className + " call " + std::to_string(n));
      faulty->plan.failAt = n;
      faulty->plan.calls = 0;
      faulty->plan.failed.clear();
      host().ClearLog();
      ASSERT_NO_THROW(host().Query({className}));
      EXPECT_FALSE(faulty->plan.failed.empty());
      for (const auto& record : host().GetLog()) {
        // A failing call is a degraded answer, never an error that reaches the host.
        EXPECT_EQ(record.message.find("Host: plug-in query failed"), std::string::npos)
            << faulty->plan.failed;
        EXPECT_EQ(record.message.find("Exception caught"), std::string::npos)
            << faulty->plan.failed;
      }
    }
  }
}

}  // namespace
