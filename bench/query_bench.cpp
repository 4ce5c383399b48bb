// One query through the whole frame: host, dispatcher, collector, instance building.
#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "bench/host_query.h"
#include "platform/recorded/recorded_machine.h"

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
  bench::TimeHostQuery(state,
                       platform::recorded::RecordedMachine::FromFiles(default_machine::files()),
                       "KestovaSG_PageFile");
}
BENCHMARK(QueryPageFiles)->Unit(benchmark::kMicrosecond);

}  // namespace
