// Whole inventories through the host: every class the plug-in serves, on the machine iac
// carries and on each example machine, with loading each machine timed on its own.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/host_query.h"
#include "platform/recorded/recorded_machine.h"

namespace default_machine {
const std::map<std::string, std::string>& files();
}

namespace {

using platform::recorded::RecordedMachine;

// Loading the recorded machine that iac carries: parse its .reg files and machine.json.
void LoadDefaultMachine(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(RecordedMachine::FromFiles(default_machine::files()));
}
BENCHMARK(LoadDefaultMachine)->Unit(benchmark::kMillisecond);

void InventoryDefaultMachine(benchmark::State& state) {
  bench::TimeHostQuery(state, RecordedMachine::FromFiles(default_machine::files()),
                       std::vector<std::string>());
}
BENCHMARK(InventoryDefaultMachine)->Unit(benchmark::kMillisecond);

void QueryPageFiles(benchmark::State& state) {
  bench::TimeHostQuery(state, RecordedMachine::FromFiles(default_machine::files()),
                       "KestovaSG_PageFile");
}
BENCHMARK(QueryPageFiles)->Unit(benchmark::kMicrosecond);

// One pair of benchmarks per folder of examples/machines, in name order.
const bool kExampleMachines = [] {
  namespace fs = std::filesystem;
  std::vector<std::string> folders;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(IA_SOURCE_DIR "/examples/machines", error)) {
    if (entry.is_directory()) folders.push_back(entry.path().string());
  }
  std::sort(folders.begin(), folders.end());
  for (const std::string& folder : folders) {
    const std::string name = fs::path(folder).filename().string();
    benchmark::RegisterBenchmark(("LoadExampleMachine/" + name).c_str(),
                                 [folder](benchmark::State& state) {
                                   for (auto _ : state)
                                     benchmark::DoNotOptimize(RecordedMachine::Load(folder));
                                 })
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("InventoryExampleMachine/" + name).c_str(),
                                 [folder](benchmark::State& state) {
                                   bench::TimeHostQuery(state, RecordedMachine::Load(folder),
                                                        std::vector<std::string>());
                                 })
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
