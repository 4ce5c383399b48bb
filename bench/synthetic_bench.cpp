// Installed software, environment variables and components on machines far larger than the
// examples (1,000, 10,000 and 100,000 entries), with the registry as .reg exports and as
// hive files, so that work growing faster than the entries shows in the timings. The
// machines are written by scripts/gen-synthetic-machine.py into IA_SYNTHETIC_DIR (the
// environment variable, else the build's synthetic folder) and kept there between runs;
// scripts/bench.sh writes the same folders.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/host_query.h"
#include "platform/recorded/recorded_machine.h"

namespace {

namespace fs = std::filesystem;
using platform::recorded::RecordedMachine;

struct Case {
  const char* name;  // as the generator names it
  std::vector<std::string> classes;
};

const Case kCases[] = {
    {"apps", {"KestovaSG_InstalledApplication"}},
    {"env", {"KestovaSG_SystemEnvironmentVariable", "KestovaSG_UserEnvironmentVariable"}},
    {"components", {"KestovaSG_OSComponent"}},
};
const int kSizes[] = {1000, 10000, 100000};
const char* const kForms[] = {"reg", "hive"};

std::string Root() {
  const char* root = std::getenv("IA_SYNTHETIC_DIR");
  return root != nullptr && *root != '\0' ? root : IA_SYNTHETIC_DIR;
}

// The machine's folder, written with every other machine of its size when missing; ""
// when it cannot be written.
std::string Folder(const std::string& caseName, int entries, const std::string& form) {
  const std::string root = Root();
  const std::string folder = root + "/" + caseName + "-" + std::to_string(entries) + "-" + form;
  if (fs::exists(folder + "/.written-by")) return folder;
  const std::string command = std::string("'") + IA_PYTHON3 + "' '" + IA_SOURCE_DIR +
                              "/scripts/gen-synthetic-machine.py' --all '" + root + "' --sizes " +
                              std::to_string(entries);
  if (std::system(command.c_str()) != 0 || !fs::exists(folder + "/.written-by")) return "";
  return folder;
}

// The one machine kept loaded between a machine's load and query benchmarks: the largest
// take most of a gigabyte, so never two at once.
class LoadedMachine {
 public:
  static LoadedMachine& Instance() {
    static LoadedMachine loaded;
    return loaded;
  }
  std::shared_ptr<RecordedMachine> Get(const std::string& folder) {
    if (folder_ != folder) {
      Drop();
      machine_ = RecordedMachine::Load(folder);
      folder_ = folder;
    }
    return machine_;
  }
  void Keep(const std::string& folder, std::shared_ptr<RecordedMachine> machine) {
    folder_ = folder;
    machine_ = std::move(machine);
  }
  void Drop() {
    machine_.reset();
    folder_.clear();
  }

 private:
  std::string folder_;
  std::shared_ptr<RecordedMachine> machine_;
};

void LoadSynthetic(benchmark::State& state, const std::string& folder) {
  if (folder.empty()) return state.SkipWithError("cannot write the machine");
  LoadedMachine& loaded = LoadedMachine::Instance();
  try {
    for (auto _ : state) {
      state.PauseTiming();
      loaded.Drop();  // freeing the last one is not loading
      state.ResumeTiming();
      std::shared_ptr<RecordedMachine> machine = RecordedMachine::Load(folder);
      state.PauseTiming();
      loaded.Keep(folder, std::move(machine));
      state.ResumeTiming();
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

void QuerySynthetic(benchmark::State& state, const std::string& folder,
                    const std::vector<std::string>& classes) {
  if (folder.empty()) return state.SkipWithError("cannot write the machine");
  std::shared_ptr<RecordedMachine> machine;
  try {
    machine = LoadedMachine::Instance().Get(folder);
  } catch (const std::exception& e) {
    return state.SkipWithError(e.what());
  }
  bench::TimeHostQuery(state, machine, classes);
}

// A hive is read as the calls ask for it, so the first query of a freshly opened machine
// pays for reading the keys it touches; later ones do not. The first query is what a run
// of iac pays.
void FirstQuerySynthetic(benchmark::State& state, const std::string& folder,
                         const std::vector<std::string>& classes) {
  if (folder.empty()) return state.SkipWithError("cannot write the machine");
  LoadedMachine::Instance().Drop();
  try {
    bench::TimeHostQuery(state, RecordedMachine::Load(folder), classes,
                         [&folder] { return RecordedMachine::Load(folder); });
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

// SyntheticLoad/<case>/<form>/<entries> and SyntheticQuery/..., each load right before the
// query of the same machine, and SyntheticFirstQuery/<case>/hive/<entries>. A
// 100,000-entry machine runs three times.
const bool kRegistered = [] {
  for (const Case& c : kCases) {
    for (const int entries : kSizes) {
      for (const char* form : kForms) {
        const std::string suffix = std::string(c.name) + "/" + form + "/" + std::to_string(entries);
        const std::string caseName = c.name;
        const std::vector<std::string> classes = c.classes;
        auto* load = benchmark::RegisterBenchmark(
            ("SyntheticLoad/" + suffix).c_str(), [=](benchmark::State& state) {
              LoadSynthetic(state, Folder(caseName, entries, form));
            });
        auto* query = benchmark::RegisterBenchmark(
            ("SyntheticQuery/" + suffix).c_str(), [=](benchmark::State& state) {
              QuerySynthetic(state, Folder(caseName, entries, form), classes);
            });
        std::vector<benchmark::internal::Benchmark*> all = {load, query};
        if (std::string(form) == "hive") {
          all.push_back(benchmark::RegisterBenchmark(
              ("SyntheticFirstQuery/" + suffix).c_str(), [=](benchmark::State& state) {
                FirstQuerySynthetic(state, Folder(caseName, entries, form), classes);
              }));
        }
        for (auto* b : all) {
          b->Unit(benchmark::kMillisecond);
          if (entries >= 100000) b->Iterations(3);
        }
      }
    }
  }
  return true;
}();

// The machine's WMI answers a few hot-fix rows, so the registry fallback is not timed here.
void SyntheticQueryFixes(benchmark::State& state) {
  QuerySynthetic(state, Folder("apps", 1000, "reg"), {"KestovaSG_InstalledFix"});
}
BENCHMARK(SyntheticQueryFixes)->Unit(benchmark::kMillisecond);

}  // namespace
