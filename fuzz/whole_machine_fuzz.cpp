// A whole recorded machine: the input is split into the files of a machine folder, the
// folder loaded, every class collected through the host, the machine captured with
// `iac capture` and the capture loaded and collected again. A machine that loads must
// capture, and its capture must load and give the same instances.
//   input: records of name length (1 byte), name (a relative path of [A-Za-z0-9._-] names
//   separated by '/'), data length (4 bytes, little-endian; cut to what is left), data.
//   fuzz/pack_machine.py packs a machine folder this way.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/app.h"
#include "fuzz/fuzz_support.h"
#include "platform/recorded/recorded_machine.h"

namespace {

namespace fs = std::filesystem;
using platform::recorded::RecordedMachine;

bool SafeName(const std::string& name) {
  if (name.empty() || name.front() == '/' || name.back() == '/') return false;
  std::string part;
  for (const char c : name + "/") {
    if (c == '/') {
      if (part.empty() || part == "." || part == "..") return false;
      part.clear();
    } else if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-') {
      part.push_back(c);
    } else {
      return false;
    }
  }
  return true;
}

std::vector<std::pair<std::string, std::string>> Split(const std::uint8_t* data, std::size_t size) {
  std::vector<std::pair<std::string, std::string>> files;
  std::size_t at = 0;
  while (at < size) {
    const std::size_t nameLength = data[at++];
    if (size - at < nameLength + 4) break;
    std::string name(reinterpret_cast<const char*>(data + at), nameLength);
    at += nameLength;
    std::size_t length = 0;
    for (int i = 3; i >= 0; --i) length = length << 8 | data[at + static_cast<std::size_t>(i)];
    at += 4;
    if (length > size - at) length = size - at;
    if (SafeName(name)) files.emplace_back(std::move(name), fuzz::Bytes(data + at, length));
    at += length;
  }
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fs::path source = fuzz::ScratchDir() / "machine";
  const fs::path captured = fuzz::ScratchDir() / "captured";
  fs::remove_all(source);
  fs::remove_all(captured);
  fs::create_directories(source);
  for (const auto& [name, bytes] : Split(data, size)) {
    try {
      fuzz::WriteFile(source / name, bytes);
    } catch (const std::exception&) {  // a name that is already a folder, or the reverse
    }
  }

  std::shared_ptr<RecordedMachine> machine;
  try {
    machine = RecordedMachine::Load(source.string());
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  const std::string instances = fuzz::CollectThroughHost(std::move(machine));

  const std::string from = source.string(), to = captured.string();
  const char* const argv[] = {"iac", "capture", "--machine", from.c_str(), "--out", to.c_str()};
  std::ostringstream out, err;
  const int status = iac::run(6, argv, out, err);
  platform::Machine::Install(nullptr);
  if (status != 0) fuzz::Finding("a machine that loads does not capture: " + err.str());
  try {
    machine = RecordedMachine::Load(to);
  } catch (const std::exception& e) {
    fuzz::Finding(std::string("the capture of a machine that loads does not load: ") + e.what());
  }
  const std::string again = fuzz::CollectThroughHost(std::move(machine));
  if (again != instances)
    fuzz::Finding("the capture answers otherwise than the machine it records:\n--- machine\n" +
                  instances + "--- capture\n" + again);
  return 0;
}
