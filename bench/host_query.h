// Times whole queries through the host, the way iac runs them: the machine installed, the
// plug-in registered, one top-level run per iteration.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "plugin/callbacks.h"
#include "tessilcore/host.h"

namespace bench {

// Queries `classNames` (none: every class the plug-in serves, as `iac collect` does) and
// reports the instances of the last run as the "instances" counter.
// With `fresh`, each iteration first installs the machine it answers (not timed): a
// machine that reads its registry as it is asked (hives) then pays that in every query.
inline void TimeHostQuery(benchmark::State& state, std::shared_ptr<platform::Machine> machine,
                          std::vector<std::string> classNames,
                          const std::function<std::shared_ptr<platform::Machine>()>& fresh = {}) {
  platform::Machine::Install(std::move(machine));
  NKestovaTessil20::THost& host = NKestovaTessil20::THost::Instance();
  host.LoadSchema();
  new installedapps_col::TInstalledAppsCallbacks();  // registers; the host owns it
  host.InitPlugins();
  if (classNames.empty()) classNames = host.GetPluginClassNames();
  std::size_t instances = 0;
  if (!fresh) {
    // One query first, not timed: what a machine reads once per run (files it opens, keys
    // of a hive) is then read, and every iteration, at every size, times the same work.
    host.Query(classNames);
    host.Query({});
    host.ClearLog();
  }
  for (auto _ : state) {
    if (fresh) {
      state.PauseTiming();
      platform::Machine::Install(nullptr);  // the last one freed before the next is made
      platform::Machine::Install(fresh());
      state.ResumeTiming();
    }
    host.Query(classNames);
    state.PauseTiming();
    instances = 0;
    for (const std::string& name : classNames) instances += host.GetInstances(name, false).size();
    // Releasing this run's instances is not the next query's work: a run of no class
    // empties the store.
    host.Query({});
    host.ClearLog();
    state.ResumeTiming();
  }
  state.counters["instances"] = static_cast<double>(instances);
  host.DeInitPlugins();
  host.Reset();
  platform::Machine::Install(nullptr);
}

inline void TimeHostQuery(benchmark::State& state, std::shared_ptr<platform::Machine> machine,
                          const std::string& className) {
  TimeHostQuery(state, std::move(machine), std::vector<std::string>{className});
}

}  // namespace bench
