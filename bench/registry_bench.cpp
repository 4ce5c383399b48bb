// Loading and reading recorded registries: what every recorded run pays first.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/recorded/recorded_registry.h"

namespace {

using platform::recorded::Mount;
using platform::recorded::RecordedRegistry;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The largest real hive here: 43,211 keys.
void LoadLargeSystemHive(benchmark::State& state) {
  const std::string path = IA_REALDATA_DIR "/hives/win10-1709-SYSTEM";
  if (!std::ifstream(path)) return state.SkipWithError("no real data");
  for (auto _ : state) {
    RecordedRegistry registry;
    registry.loadHive(path, Mount::System);
    benchmark::DoNotOptimize(registry);
  }
}
BENCHMARK(LoadLargeSystemHive)->Unit(benchmark::kMillisecond);

// A real UTF-16 regedit export: 536 keys with multi-line strings.
void ParseXpUninstallExport(benchmark::State& state) {
  const std::string bytes = readFile(IA_REALDATA_DIR "/reg/xp-Uninstall.reg");
  if (bytes.empty()) return state.SkipWithError("no real data");
  for (auto _ : state) {
    RecordedRegistry registry;
    registry.loadRegFile("xp-Uninstall.reg", bytes);
    benchmark::DoNotOptimize(registry);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(ParseXpUninstallExport)->Unit(benchmark::kMillisecond);

// Walking every sub-key and value of the Uninstall key the way collectors do: open, ask
// for sizes, enumerate with buffers of the reported size.
void EnumerateUninstallKey(benchmark::State& state) {
  const std::string bytes = readFile(IA_REALDATA_DIR "/reg/xp-Uninstall.reg");
  if (bytes.empty()) return state.SkipWithError("no real data");
  RecordedRegistry registry;
  registry.loadRegFile("xp-Uninstall.reg", bytes);
  const std::string root = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
  for (auto _ : state) {
    platform::HKEY key = nullptr;
    registry.RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, root.c_str(), 0, platform::KEY_READ, &key);
    platform::DWORD subKeys = 0;
    registry.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr);
    std::size_t values = 0;
    for (platform::DWORD i = 0; i < subKeys; ++i) {
      char name[4096];
      platform::DWORD length = sizeof name;
      registry.RegEnumKeyExA(key, i, name, &length, nullptr, nullptr, nullptr, nullptr);
      platform::HKEY sub = nullptr;
      if (registry.RegOpenKeyExA(key, name, 0, platform::KEY_READ, &sub) != 0) continue;
      platform::DWORD count = 0, maxName = 0, maxData = 0;
      registry.RegQueryInfoKeyA(sub, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count,
                                &maxName, &maxData, nullptr, nullptr);
      std::string valueName(maxName + 1, '\0'), data(maxData + 1, '\0');
      for (platform::DWORD v = 0; v < count; ++v) {
        platform::DWORD nameLength = maxName + 1, dataLength = maxData + 1, type = 0;
        values +=
            registry.RegEnumValueA(sub, v, &valueName[0], &nameLength, nullptr, &type,
                                   reinterpret_cast<platform::BYTE*>(&data[0]), &dataLength) == 0;
      }
      registry.RegCloseKey(sub);
    }
    registry.RegCloseKey(key);
    benchmark::DoNotOptimize(values);
  }
}
BENCHMARK(EnumerateUninstallKey)->Unit(benchmark::kMillisecond);

}  // namespace
