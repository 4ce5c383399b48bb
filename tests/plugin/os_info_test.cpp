// The operating-system and time-zone instances through the whole frame.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "plugin/frame_fixture.h"

namespace {

class OSInfoTest : public FrameTest {
 protected:
  // Every property of every instance of the class, as "name=value".
  std::vector<std::string> shown(const std::string& className) {
    host().Query({className});
    std::vector<std::string> out;
    for (const auto& instance : host().GetInstances(className, false)) {
      for (const auto& view : THost::ListProperties(instance)) {
        out.push_back(view.name + "=" + property(instance, view.name));
      }
    }
    return out;
  }
};

TEST_F(OSInfoTest, AMachineThatAnswersNothingStillHasItsOperatingSystem) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Empty());
  const std::vector<std::string> properties = shown("KestovaSG_OperatingSystem");
  const std::vector<std::string> expected = {
      "CSCreationClassName=KestovaSG_ComputerSystem",
      "CSName=",
      "CreationClassName=KestovaSG_OperatingSystem",
      "Name=",
      "LastBootUpTime=<unset>",
      "UpTime=00000000000000.000000:000",
      "BootConfigurationFileName=",
      "BootConfigurationFileContents=",
  };
  ASSERT_GE(properties.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(properties.begin(), properties.begin() + 8), expected);
  for (const std::string& p : properties) {
    if (p.rfind("FixLevel", 0) == 0 || p.rfind("ProductVendor", 0) == 0) {
      EXPECT_TRUE(p == "FixLevel=" || p == "ProductVendor=Microsoft Corporation") << p;
    }
  }
}

TEST_F(OSInfoTest, TheDaylightBiasChoosesStateAndName) {
  struct Case {
    int daylightBias;
    const char* zone;
    const char* state;
  } cases[] = {{0, "TheTimeZone=Std", "DaylightSaving=1"},
               {-60, "TheTimeZone=Dst", "DaylightSaving=2"},
               {-30, "TheTimeZone=Std", "DaylightSaving=0"}};
  for (const Case& c : cases) {
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
        {{"machine.json",
          R"({"system": {"utcTime": "2010-01-15T12:00:00Z", "timeZone": {
            "bias": 300, "standardName": "Std", "daylightName": "Dst", "daylightBias": )" +
              std::to_string(c.daylightBias) +
              R"(, "standardDate": {"month": 11, "dayOfWeek": 0, "day": 1, "hour": 2},
            "daylightDate": {"month": 3, "dayOfWeek": 0, "day": 2, "hour": 2}}}})"}}));
    const std::vector<std::string> properties = shown("KestovaSG_TimeZone");
    EXPECT_EQ(properties,
              (std::vector<std::string>{c.zone, c.state, "LocalDateTime=20100115070000.000000-300",
                                        "GMTDateTime=20100115120000.000000+000"}))
        << c.daylightBias;
  }
}

// A live machine's record can fill all 32 characters of a name.
TEST_F(OSInfoTest, AZoneNameOfThirtyTwoCharactersWithoutItsNul) {
  machine->fake.timeZone = [](platform::TIME_ZONE_INFORMATION* zone) {
    for (auto& c : zone->StandardName) c = u'Z';
    for (auto& c : zone->DaylightName) c = u'D';
    return platform::TIME_ZONE_ID_STANDARD;
  };
  const std::vector<std::string> properties = shown("KestovaSG_TimeZone");
  ASSERT_FALSE(properties.empty());
  EXPECT_EQ(properties[0], "TheTimeZone=" + std::string(32, 'Z'));
}

// A recorded machine answers with its own clock and zone: the process's zone changes
// nothing.
TEST_F(OSInfoTest, InstancesDoNotDependOnTheProcessTimeZone) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  std::vector<std::string> runs[2];
  const char* zones[2] = {"America/New_York", "Asia/Tokyo"};
  for (int i = 0; i < 2; ++i) {
    ::setenv("TZ", zones[i], 1);
    ::tzset();
    platform::Machine::Install(
        platform::recorded::RecordedMachine::Load(IA_SOURCE_DIR "/examples/machines/win7-sp1-x64"));
    runs[i] = shown("KestovaSG_OperatingSystem");
    for (const std::string& p : shown("KestovaSG_TimeZone")) runs[i].push_back(p);
  }
  if (saved) {
    ::setenv("TZ", previous.c_str(), 1);
  } else {
    ::unsetenv("TZ");
  }
  ::tzset();
  EXPECT_EQ(runs[0], runs[1]);
  EXPECT_NE(std::find(runs[0].begin(), runs[0].end(), "LocalDateTime=20121106104127.000000+060"),
            runs[0].end());
}

}  // namespace
