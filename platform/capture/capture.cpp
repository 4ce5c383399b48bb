#include "platform/capture/capture.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "platform/capture/file_capture.h"
#include "platform/capture/machine_facts.h"
#include "platform/capture/reg_writer.h"

namespace platform::capture {
namespace fs = std::filesystem;

CaptureRefused::~CaptureRefused() = default;

namespace {

void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << bytes) || !out.flush()) throw std::runtime_error("cannot write " + path.string());
}

fs::path MakeTemporarySibling(const fs::path& target) {
  std::random_device seed;
  std::mt19937 random(seed());
  for (int attempt = 0; attempt < 100; ++attempt) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".tmp-%04x", static_cast<unsigned>(random() & 0xFFFF));
    fs::path candidate = target;
    candidate += suffix;
    if (fs::create_directory(candidate)) return candidate;
  }
  throw std::runtime_error("cannot make a temporary folder next to " + target.string());
}

// The folder `directory` names. "DIR/", "DIR/." and "DIR//" name DIR, as both Windows and
// POSIX take them: kept as written, the parent of "DIR/" would be DIR itself, and the
// temporary folder would land inside the target.
fs::path TargetFolder(const std::string& directory) {
  fs::path target = fs::absolute(fs::path(directory)).lexically_normal();
  if (!target.has_filename()) target = target.parent_path();
  if (!target.has_filename()) throw CaptureRefused(directory + " is a root folder");
  return target;
}

}  // namespace

void CaptureMachine(Machine& machine, const std::string& directory) {
  const fs::path target = TargetFolder(directory);
  std::error_code error;
  if (fs::exists(target, error)) {
    if (!fs::is_directory(target, error)) throw CaptureRefused(directory + " is not a folder");
    if (!fs::is_empty(target, error)) throw CaptureRefused(directory + " exists and is not empty");
  }

  // Everything is read before anything is written.
  nlohmann::ordered_json facts = CaptureFacts(machine);
  CapturedFiles files = CaptureFiles(machine);
  if (!files.versions.empty()) facts["setup"] = {{"versions", files.versions}};
  const std::string registry = ExportRegistry(machine.registry(), machine.system());

  fs::create_directories(target.parent_path());
  const fs::path temporary = MakeTemporarySibling(target);
  try {
    WriteFile(temporary / "machine.json", facts.dump(2) + "\n");
    WriteFile(temporary / "registry" / "captured.reg", registry);
    for (const auto& [relative, bytes] : files.files) WriteFile(temporary / relative, bytes);
    // An empty target was allowed; a directory cannot be renamed over it everywhere.
    if (fs::exists(target)) fs::remove(target);
    fs::rename(temporary, target);
  } catch (...) {
    fs::remove_all(temporary, error);
    throw;
  }
}

}  // namespace platform::capture
