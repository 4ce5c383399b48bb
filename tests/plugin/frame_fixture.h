// Host, fake machine and a registered callbacks object for frame and collector tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/log_message.h"
#include "plugin/callbacks.h"
#include "plugin/fake_machine.h"
#include "tessilcore/host.h"

class FrameTest : public ::testing::Test {
 protected:
  using THost = NKestovaTessil20::THost;

  void SetUp() override {
    host().Reset();
    host().LoadSchema();
    machine = std::make_shared<testing_machine::FakeMachine>();
    platform::Machine::Install(machine);
    // Registers itself; from here the host owns it.
    callbacks = new installedapps_col::TInstalledAppsCallbacks();
    host().ClearLog();
  }
  void TearDown() override {
    platform::Machine::Install(nullptr);
    host().Reset();
    installedapps_col::LogMessage::setLoggingGate(nullptr);
  }

  static THost& host() { return THost::Instance(); }

  boost::shared_ptr<NKestovaTessil20::ICIMClass> hostClass(const std::string& name) {
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls;
    host().GetNamespace()->GetClass(cls, name, {});
    return cls;
  }

  // Messages logged at `level`, in order.
  std::vector<std::string> messages(unsigned int level) const {
    std::vector<std::string> out;
    for (const auto& record : THost::Instance().GetLog()) {
      if (record.level == level) out.push_back(record.message);
    }
    return out;
  }

  // A property of a committed instance as text; "<unset>" when it has no value.
  static std::string property(const boost::shared_ptr<NKestovaTessil20::ICIMInstance>& instance,
                              const std::string& name) {
    boost::shared_ptr<NKestovaTessil20::ICIMProperty> handle;
    instance->GetProperty(handle, name, {});
    const NKestovaTessil20::TCIMValue value = handle->GetValue();
    return value.IsNull() ? "<unset>" : value.ToString();
  }

  std::shared_ptr<testing_machine::FakeMachine> machine;
  installedapps_col::TInstalledAppsCallbacks* callbacks = nullptr;
};
