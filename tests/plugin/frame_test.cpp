// The plug-in's face toward the host: identity, life cycle, logging gate and dispatch.
#include <algorithm>
#include <cstdlib>
#include <new>

#include "common/system_information.h"
#include "plugin/frame_fixture.h"

namespace {

using installedapps_col::LogMessage;
using installedapps_col::SystemInformation;

// Two page files on the fake machine, reported through psapi.
void givePageFiles(testing_machine::FakeMachine& machine) {
  machine.fake.has = [](const std::string& name) {
    return name == "psapi.dll" || name == "psapi.dll!EnumPageFilesA" ||
           name == "psapi.dll!GetPerformanceInfo";
  };
  machine.fake.enumPageFiles = [](platform::PENUM_PAGE_FILE_CALLBACKA callback, void* context) {
    platform::ENUM_PAGE_FILE_INFORMATION info{};
    info.TotalSize = 100;
    callback(context, &info, "C:\\pagefile.sys");
    callback(context, &info, "D:\\pagefile.sys");
    return platform::TRUE;
  };
  machine.fake.performanceInfo = [](platform::PERFORMANCE_INFORMATION* info) {
    info->PageSize = 4096;
    return platform::TRUE;
  };
}

TEST_F(FrameTest, LifeCycleMessagesAreRunTogether) {
  callbacks->Init();
  callbacks->DeInit();
  EXPECT_EQ(messages(3), (std::vector<std::string>{
                             "TInstalledAppsCallbacks::Init -Initializing the plugin.",
                             "TInstalledAppsCallbacks::DeInit -De-Initializing the plugin."}));
}

TEST_F(FrameTest, RegistrationFillsTheProviderFieldThatOpensTheGate) {
  ASSERT_NE(callbacks->providerHandle(), nullptr);
  EXPECT_EQ(LogMessage::loggingGate(), callbacks->providerHandle());
  // The host writes the handle right after the two interface table pointers.
  void* const* words =
      reinterpret_cast<void* const*>(static_cast<NKestovaTessil20::IPluginCallbacks*>(callbacks));
  EXPECT_EQ(words[2], callbacks->providerHandle());
}

TEST_F(FrameTest, ClosedGateEmptyMessagesAndBadLevelsWriteNothing) {
  LogMessage* log = LogMessage::instance();
  LogMessage::setLoggingGate(nullptr);
  callbacks->Init();
  log->logError("lost");
  LogMessage::setLoggingGate(callbacks->providerHandle());
  log->logInfo("");
  log->log(5, "beyond the levels");
  EXPECT_TRUE(host().GetLog().empty());
  log->logDebug("kept");
  ASSERT_EQ(host().GetLog().size(), 1u);
  EXPECT_EQ(host().GetLog()[0].level, 4u);
}

TEST_F(FrameTest, EmptyQueryStillExitsNormally) {
  std::vector<boost::shared_ptr<NKestovaTessil20::ICIMClass>> none;
  callbacks->QueryInstances(host().GetNamespace(), none);
  EXPECT_EQ(messages(3), std::vector<std::string>{"Normal exit from plugin."});
}

TEST_F(FrameTest, UnknownAndUnservedClassesAreSkippedSilently) {
  givePageFiles(*machine);
  host().Query({"KestovaSG_NoSuchClass", "KestovaSG_PageFile", "KestovaSG_InstalledRPM"});
  EXPECT_EQ(host().GetInstances("KestovaSG_PageFile", false).size(), 2u);
  EXPECT_TRUE(host().GetInstances("KestovaSG_InstalledRPM", false).empty());
  for (const auto& record : host().GetLog()) {
    EXPECT_EQ(record.message.find("NoSuchClass"), std::string::npos) << record.message;
    EXPECT_EQ(record.message.find("Exception"), std::string::npos) << record.message;
  }
}

TEST_F(FrameTest, ThrowingCollectorIsLoggedAndTheNextClassIsServed) {
  givePageFiles(*machine);
  machine->fake.onLoadLibrary = [this] {
    if (machine->fake.loadCalls == 1) throw std::bad_alloc();
  };
  std::vector<boost::shared_ptr<NKestovaTessil20::ICIMClass>> classes{
      hostClass("KestovaSG_PageFile"), hostClass("KestovaSG_PageFile")};
  callbacks->QueryInstances(host().GetNamespace(), classes);

  std::vector<std::string> caught;
  for (const std::string& message : messages(3)) {
    if (message.rfind("Exception caught", 0) == 0) caught.push_back(message);
  }
  EXPECT_EQ(caught, std::vector<std::string>{"Exception caughtCollecting data for class "
                                             "KestovaSG_PageFile std::bad_alloc"});
  EXPECT_EQ(host().GetInstances("KestovaSG_PageFile", false).size(), 2u);
  EXPECT_EQ(messages(3).back(), "Normal exit from plugin.");
}

struct ExcludeCase {
  const char* value;  // null: unset
  bool served;
};

class ExcludeAppsTest : public FrameTest, public ::testing::WithParamInterface<ExcludeCase> {};

TEST_P(ExcludeAppsTest, PresenceWithContentLeavesInstalledApplicationsOut) {
  const ExcludeCase& c = GetParam();
  if (c.value == nullptr) {
    ::unsetenv("TESSIL_EXCLUDEAPPS");
  } else {
    ::setenv("TESSIL_EXCLUDEAPPS", c.value, 1);
  }
  SystemInformation information(host().GetNamespace());
  EXPECT_EQ(information.servesInstalledApplications(), c.served);
  const std::vector<std::string> served = information.classNames();
  EXPECT_EQ(std::count(served.begin(), served.end(), "KestovaSG_InstalledApplication"),
            c.served ? 1 : 0);
  ::unsetenv("TESSIL_EXCLUDEAPPS");
}

const std::string kLongValue(32767, 'x');  // too long for the plug-in's buffer, still a value

INSTANTIATE_TEST_SUITE_P(Values, ExcludeAppsTest,
                         ::testing::Values(ExcludeCase{nullptr, true}, ExcludeCase{"", true},
                                           ExcludeCase{"0", false}, ExcludeCase{"no", false},
                                           ExcludeCase{kLongValue.c_str(), false}));

}  // namespace
