#include "platform/recorded/recorded_machine.h"

#include "platform/recorded/hive_file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <vector>

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

// What a machine is built from: its files by relative path (with '/'), in name order, and
// how to read one. A directory's files are read only when the machine uses them (one .reg
// export at a time, files/ when a call opens them), so that whatever else lies in the
// folder costs nothing and memory follows what is loaded.
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

// Into a buffer of the file's size: no stream copies, so a large export costs its size once.
std::string ReadFile(const fs::path& path, const std::string& name) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : -1;
  if (size < 0) throw RecordError(name + ": cannot read the file");
  std::string bytes;
  try {
    bytes.resize(static_cast<size_t>(size));
  } catch (const std::exception&) {  // bad_alloc or length_error
    throw RecordError(name + ": too large to read (" + std::to_string(size) + " bytes)");
  }
  in.seekg(0);
  if (size > 0 && !in.read(&bytes[0], size)) throw RecordError(name + ": cannot read the file");
  return bytes;
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
  if (n == "sam") return Mount::Sam;
  return std::nullopt;
}

}  // namespace

RecordedMachine::RecordedMachine(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
RecordedMachine::~RecordedMachine() = default;

std::shared_ptr<RecordedMachine> RecordedMachine::Empty() {
  return Build(Source{});
}

std::shared_ptr<RecordedMachine> RecordedMachine::FromFiles(
    const std::map<std::string, std::string>& files) {
  Source source;
  for (const auto& [name, bytes] : files) source.names.push_back(name);
  source.read = [&files](const std::string& name) { return files.at(name); };
  return Build(source);
}

std::shared_ptr<RecordedMachine> RecordedMachine::Load(const std::string& directory) {
  std::error_code ec;
  if (!fs::is_directory(directory, ec))
    throw RecordError(directory + ": no such machine directory");
  const fs::path root(directory);
  std::map<std::string, fs::path> paths;
  for (auto it = fs::recursive_directory_iterator(root, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    // Lexical, so that a linked file keeps its place in the machine (relative() would
    // resolve the link).
    paths[it->path().lexically_relative(root).generic_string()] = it->path();
  }
  if (ec) throw RecordError(directory + ": cannot list the machine directory: " + ec.message());
  Source source;
  for (const auto& entry : paths) source.names.push_back(entry.first);
  source.read = [&paths](const std::string& name) { return ReadFile(paths.at(name), name); };
  source.diskPath = [&paths](const std::string& name) { return paths.at(name).string(); };
  return Build(source);
}

std::shared_ptr<RecordedMachine> RecordedMachine::FromSource(const Source& source) {
  return Build(source);
}

std::shared_ptr<RecordedMachine> RecordedMachine::Build(const Source& source) {
  auto parts = std::make_unique<Parts>();
  MachineState& state = parts->state;

  auto has = [&source](const std::string& name) {
    return std::binary_search(source.names.begin(), source.names.end(), name);
  };
  nlohmann::json json = nlohmann::json::object();
  if (has(kMachineJson)) {
    try {
      json = nlohmann::json::parse(source.read(kMachineJson));
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

  // Files that machine.json names (wmic exports), each read once.
  std::map<std::string, std::string> named;
  auto machineFile = [&](const std::string& path) -> const std::string* {
    if (!has(path)) return nullptr;
    auto it = named.find(path);
    if (it == named.end()) it = named.emplace(path, source.read(path)).first;
    return &it->second;
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
  for (const std::string& name : source.names) {
    if (StartsWith(name, "files/")) {
      if (source.diskPath) {
        state.files.addFile(name.substr(6), source.diskPath(name));
      } else {
        state.files.add(name.substr(6), source.read(name));
      }
    } else if (StartsWith(name, "registry/")) {
      if (name.size() > 4 && Lower(name.substr(name.size() - 4)) == ".reg")
        parts->registry.loadRegFile(name, source.read(name));
    }
  }
  for (const std::string& name : source.names) {
    if (!StartsWith(name, "hives/")) continue;
    const auto mount = HiveMount(name.substr(6));
    if (!mount)
      throw RecordError(
          name + ": not a hive this machine mounts (SOFTWARE, SYSTEM, NTUSER.DAT, BCD, SAM)");
    if (source.openHive) {
      parts->registry.loadHive(source.openHive(name), name, *mount);
    } else if (source.diskPath) {
      parts->registry.loadHive(source.diskPath(name), *mount);
    } else {
      parts->registry.loadHive(HiveFile::FromBytes(source.read(name), name), name, *mount);
    }
  }

  if (source.findFile) state.files.setFallback(source.findFile);
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
RecordedPdh& RecordedMachine::recordedPdh() {
  return *parts_->pdh;
}
RecordedSystem& RecordedMachine::recordedSystem() {
  return *parts_->system;
}

}  // namespace platform::recorded
