#include "fuzz/fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "plugin/callbacks.h"
#include "tessilcore/host.h"

namespace fuzz {

namespace fs = std::filesystem;

std::string Bytes(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

const fs::path& ScratchDir() {
  struct Scratch {
    fs::path path;
    Scratch() {
      path = fs::temp_directory_path() / ("ia_fuzz_" + std::to_string(::getpid()));
      fs::create_directories(path);
    }
    ~Scratch() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  };
  static const Scratch scratch;
  return scratch.path;
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush())
    throw std::runtime_error("cannot write " + path.string());
}

std::string CollectThroughHost(std::shared_ptr<platform::Machine> machine,
                               const std::vector<std::string>& classes) {
  using NKestovaTessil20::THost;
  THost& host = THost::Instance();
  static const bool registered = [&host] {
    host.LoadSchema();
    new installedapps_col::TInstalledAppsCallbacks();  // registers; the host owns it
    host.InitPlugins();
    // The host deletes the callbacks object only when told to: without this the leak check
    // at exit reports it.
    std::atexit([] { NKestovaTessil20::THost::Instance().UnloadPlugins(); });
    return true;
  }();
  (void)registered;

  platform::Machine::Install(std::move(machine));
  const std::vector<std::string> names = classes.empty() ? host.GetPluginClassNames() : classes;
  host.Query(names);
  std::string text;
  for (const std::string& name : names) {
    for (const auto& instance : host.GetInstances(name, false)) {
      text += name + "\n";
      for (const NKestovaTessil20::TPropertyView& view : THost::ListProperties(instance))
        text += "  " + view.name + " = " + (view.value.IsNull() ? "null" : view.value.ToString()) +
                "\n";
    }
  }
  host.ClearLog();
  platform::Machine::Install(nullptr);
  return text;
}

void Finding(const std::string& what) {
  std::fprintf(stderr, "fuzz finding: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace fuzz
