// One query through the whole frame: host, dispatcher, collector, instance building.
#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "platform/machine.h"
#include "platform/recorded/recorded_machine.h"
#include "plugin/callbacks.h"
#include "tessilcore/host.h"

namespace default_machine {
const std::map<std::string, std::string>& files();
}

namespace {

// Loading the recorded machine that iac carries: parse its .reg files and machine.json.
void LoadDefaultMachine(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        platform::recorded::RecordedMachine::FromFiles(default_machine::files()));
  }
}
BENCHMARK(LoadDefaultMachine)->Unit(benchmark::kMillisecond);

void QueryPageFiles(benchmark::State& state) {
  platform::Machine::Install(
      platform::recorded::RecordedMachine::FromFiles(default_machine::files()));
  NKestovaTessil20::THost& host = NKestovaTessil20::THost::Instance();
  host.LoadSchema();
  new installedapps_col::TInstalledAppsCallbacks();  // registers; the host owns it
  for (auto _ : state) {
    host.Query({"KestovaSG_PageFile"});
    host.ClearLog();
  }
  host.Reset();
  platform::Machine::Install(nullptr);
}
BENCHMARK(QueryPageFiles)->Unit(benchmark::kMicrosecond);

}  // namespace
