#include "platform/recorded/recorded_machine.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "platform/recorded/hive_registry.h"
#include "platform/recorded/machine_json.h"
#include "platform/recorded/machine_netapi.h"
#include "platform/recorded/machine_pdh.h"
#include "platform/recorded/machine_setup.h"
#include "platform/recorded/machine_state.h"
#include "platform/recorded/machine_system.h"
#include "platform/recorded/machine_wmi.h"
#include "platform/recorded/recorded_registry.h"

namespace platform::recorded {

namespace fs = std::filesystem;

struct RecordedMachine::Parts {
  MachineState state;
  RecordedRegistry registry;
  std::unique_ptr<RecordedSystem> system;
  std::unique_ptr<RecordedPdh> pdh;
  std::unique_ptr<RecordedNetApi> net;
  std::unique_ptr<RecordedWmi> wmi;
  std::unique_ptr<RecordedSetup> setup;
};

namespace {

constexpr const char* kMachineJson = "machine.json";

std::string ReadFile(const fs::path& path, const std::string& name) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  if (!in || !(bytes << in.rdbuf())) {
    // An empty file reads as a failed stream insertion; tell it from an unreadable one.
    std::error_code ec;
    if (in && fs::file_size(path, ec) == 0 && !ec) return "";
    throw RecordError(name + ": cannot read the file");
  }
  return bytes.str();
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::optional<Mount> HiveMount(const std::string& name) {
  const std::string n = Lower(name);
  if (n == "software") return Mount::Software;
  if (n == "system") return Mount::System;
  if (n == "ntuser.dat") return Mount::NtUser;
  if (n == "bcd") return Mount::Bcd;
  return std::nullopt;
}

}  // namespace

RecordedMachine::RecordedMachine(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
RecordedMachine::~RecordedMachine() = default;

std::shared_ptr<RecordedMachine> RecordedMachine::Empty() {
  return Build({}, {});
}

std::shared_ptr<RecordedMachine> RecordedMachine::FromFiles(
    const std::map<std::string, std::string>& files) {
  for (const auto& [name, bytes] : files)
    if (StartsWith(name, "hives/"))
      throw RecordError(name + ": hive files are read only from a machine directory");
  return Build(files, {});
}

std::shared_ptr<RecordedMachine> RecordedMachine::Load(const std::string& directory) {
  std::error_code ec;
  if (!fs::is_directory(directory, ec))
    throw RecordError(directory + ": no such machine directory");
  const fs::path root(directory);
  std::map<std::string, std::string> files;
  std::map<std::string, std::string> hives;
  for (auto it = fs::recursive_directory_iterator(root, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    // Lexical, so that a linked file keeps its place in the machine (relative() would
    // resolve the link).
    const std::string relative = it->path().lexically_relative(root).generic_string();
    if (StartsWith(relative, "hives/")) {
      hives[relative] = it->path().string();
    } else {
      files[relative] = ReadFile(it->path(), relative);
    }
  }
  if (ec) throw RecordError(directory + ": cannot list the machine directory: " + ec.message());
  return Build(files, hives);
}

std::shared_ptr<RecordedMachine> RecordedMachine::Build(
    const std::map<std::string, std::string>& files,
    const std::map<std::string, std::string>& hives) {
  auto parts = std::make_unique<Parts>();
  MachineState& state = parts->state;

  nlohmann::json json = nlohmann::json::object();
  if (auto it = files.find(kMachineJson); it != files.end()) {
    try {
      json = nlohmann::json::parse(it->second);
    } catch (const nlohmann::json::exception& e) {
      throw RecordError(std::string(kMachineJson) + ": not JSON: " + e.what());
    }
  }
  const Field top(&json, kMachineJson, "");
  if (!json.is_object()) top.fail("expected an object");
  top.expectKeys({"$schema", "description", "system", "pdh", "net", "wmi", "setup"});

  Field codePage = top["system"]["codePage"];
  state.codePage =
      static_cast<UINT>(OptionalUnsigned(codePage, 65535).value_or(kDefaultAnsiCodePage));
  if (!IsSupportedCodePage(state.codePage) || state.codePage == CP_UTF8)
    codePage.fail("code page " + std::to_string(state.codePage) + " is not supported here");

  auto machineFile = [&files](const std::string& path) -> const std::string* {
    auto it = files.find(path);
    return it == files.end() ? nullptr : &it->second;
  };
  SystemFacts system = ReadSystemFacts(top["system"], state.codePage);
  state.wow64Process = system.wow64;
  state.windowsDirectory = system.windowsDirectory;
  PdhFacts pdh = ReadPdhFacts(top["pdh"]);
  NetFacts net = ReadNetFacts(top["net"], state.codePage);
  WmiFacts wmi = ReadWmiFacts(top["wmi"], machineFile);
  SetupFacts setup = ReadSetupFacts(top["setup"]);

  parts->registry.setCodePage(state.codePage);
  parts->registry.setProcessIs32Bit(system.wow64);
  // Exports in name order, so a later one can add to or override an earlier one.
  for (const auto& [name, bytes] : files) {
    if (StartsWith(name, "files/")) {
      state.files.add(name.substr(6), bytes);
    } else if (StartsWith(name, "registry/")) {
      if (name.size() > 4 && Lower(name.substr(name.size() - 4)) == ".reg")
        parts->registry.loadRegFile(name, bytes);
    }
  }
  for (const auto& [name, path] : hives) {
    const auto mount = HiveMount(name.substr(6));
    if (!mount)
      throw RecordError(name +
                        ": not a hive this machine mounts (SOFTWARE, SYSTEM, NTUSER.DAT, BCD)");
    if (!HiveFilesSupported())
      throw RecordError(name + ": hive files cannot be read in this build");
    parts->registry.loadHive(path, *mount);
  }

  parts->system = std::make_unique<RecordedSystem>(std::move(system), state);
  parts->pdh = std::make_unique<RecordedPdh>(std::move(pdh));
  parts->net = std::make_unique<RecordedNetApi>(std::move(net), state);
  parts->wmi = std::make_unique<RecordedWmi>(std::move(wmi));
  parts->setup = std::make_unique<RecordedSetup>(std::move(setup), state);
  return std::shared_ptr<RecordedMachine>(new RecordedMachine(std::move(parts)));
}

Registry& RecordedMachine::registry() {
  return parts_->registry;
}
System& RecordedMachine::system() {
  return *parts_->system;
}
Pdh& RecordedMachine::pdh() {
  return *parts_->pdh;
}
NetApi& RecordedMachine::net() {
  return *parts_->net;
}
Wmi& RecordedMachine::wmi() {
  return *parts_->wmi;
}
Setup& RecordedMachine::setup() {
  return *parts_->setup;
}
RecordedRegistry& RecordedMachine::recordedRegistry() {
  return parts_->registry;
}
RecordedNetApi& RecordedMachine::recordedNet() {
  return *parts_->net;
}
RecordedWmi& RecordedMachine::recordedWmi() {
  return *parts_->wmi;
}
RecordedSetup& RecordedMachine::recordedSetup() {
  return *parts_->setup;
}

}  // namespace platform::recorded
