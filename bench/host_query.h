// Times whole queries of one class through the host, the way iac runs them: the machine
// installed, the plug-in registered, one top-level run per iteration.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "platform/machine.h"
#include "plugin/callbacks.h"
#include "tessilcore/host.h"

namespace bench {

// Reports the instances of the last run as the "instances" counter.
inline void TimeHostQuery(benchmark::State& state, std::shared_ptr<platform::Machine> machine,
                          const std::string& className) {
  platform::Machine::Install(std::move(machine));
  NKestovaTessil20::THost& host = NKestovaTessil20::THost::Instance();
  host.LoadSchema();
  new installedapps_col::TInstalledAppsCallbacks();  // registers; the host owns it
  for (auto _ : state) {
    host.Query({className});
    host.ClearLog();
  }
  state.counters["instances"] = static_cast<double>(host.GetInstances(className, false).size());
  host.Reset();
  platform::Machine::Install(nullptr);
}

}  // namespace bench
