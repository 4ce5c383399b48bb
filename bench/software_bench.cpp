// Installed software on machines far larger than the examples: thousands of Uninstall
// entries in each view, 2,000 Installer products and 1,000 HotFix keys, so that work which
// grows with the product of those counts shows in the timings. The machines are written by
// scripts/gen-software-machine.py into a temporary folder at the first benchmark that needs
// them.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "bench/host_query.h"
#include "platform/recorded/recorded_machine.h"

namespace {

namespace fs = std::filesystem;

class GeneratedMachines {
 public:
  static GeneratedMachines& Instance() {
    static GeneratedMachines machines;
    return machines;
  }

  ~GeneratedMachines() {
    std::error_code ignored;
    if (!root_.empty()) fs::remove_all(root_, ignored);
  }

  // The folder of the machine with `apps` Uninstall entries per view, or "" when it
  // could not be written.
  std::string Folder(int apps) {
    auto known = folders_.find(apps);
    if (known != folders_.end()) return known->second;
    std::string& folder = folders_[apps];
    if (!MakeRoot()) return folder;
    const std::string out = root_ + "/apps-" + std::to_string(apps);
    const std::string command = std::string("'") + IA_PYTHON3 + "' '" + IA_SOURCE_DIR +
                                "/scripts/gen-software-machine.py' --out '" + out + "' --apps " +
                                std::to_string(apps) + " --products 2000 --hotfixes 1000 --seed 1";
    if (std::system(command.c_str()) == 0) folder = out;
    return folder;
  }

 private:
  bool MakeRoot() {
    if (root_.empty()) {
      std::string pattern = (fs::temp_directory_path() / "ia-software-bench-XXXXXX").string();
      if (mkdtemp(&pattern[0])) root_ = pattern;
    }
    return !root_.empty();
  }

  std::string root_;
  std::map<int, std::string> folders_;
};

std::shared_ptr<platform::recorded::RecordedMachine> LoadGenerated(benchmark::State& state,
                                                                   int apps) {
  const std::string folder = GeneratedMachines::Instance().Folder(apps);
  if (folder.empty()) {
    state.SkipWithError("cannot write the machine (python3 and scripts/gen-software-machine.py)");
    return nullptr;
  }
  try {
    return platform::recorded::RecordedMachine::Load(folder);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return nullptr;
  }
}

// Parsing the 64-bit and Wow6432Node exports is paid once per run of iac; it is timed on
// its own so that the queries below can be read without it.
void SoftwareLoadMachine(benchmark::State& state) {
  const std::string folder = GeneratedMachines::Instance().Folder(static_cast<int>(state.range(0)));
  if (folder.empty()) return state.SkipWithError("cannot write the machine");
  for (auto _ : state) benchmark::DoNotOptimize(platform::recorded::RecordedMachine::Load(folder));
}
BENCHMARK(SoftwareLoadMachine)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void SoftwareQueryApplications(benchmark::State& state) {
  auto machine = LoadGenerated(state, static_cast<int>(state.range(0)));
  if (machine) bench::TimeHostQuery(state, machine, "KestovaSG_InstalledApplication");
}
BENCHMARK(SoftwareQueryApplications)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// The machine's WMI answers a few hot-fix rows, so the registry fallback is not timed here.
void SoftwareQueryFixes(benchmark::State& state) {
  auto machine = LoadGenerated(state, 1000);
  if (machine) bench::TimeHostQuery(state, machine, "KestovaSG_InstalledFix");
}
BENCHMARK(SoftwareQueryFixes)->Unit(benchmark::kMillisecond);

}  // namespace
