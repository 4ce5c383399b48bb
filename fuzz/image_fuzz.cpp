// Disk and partition images as `iac collect --image` meets them: the input is written to a
// file, each volume found in it is opened, and a few of its directories listed and files
// read. A file's size and the bytes read from it must agree.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/image/volume.h"
#include "platform/recorded/record_error.h"

namespace {

constexpr std::uint64_t kCap = 1 << 20;
constexpr std::size_t kNamesPerDirectory = 8;

void ReadFile(platform::image::Volume& volume, const std::string& path) {
  const auto size = volume.fileSize(path);
  const auto bytes = volume.readFile(path, kCap);
  if (bytes && (!size || *size != bytes->size())) {
    fuzz::Finding(volume.describe() + ": " + path + " reads otherwise than its size says");
  }
}

// The first names of `directory` and of each directory among them.
void Walk(platform::image::Volume& volume, const std::string& directory, int depth) {
  const std::vector<std::string> names = volume.list(directory);
  for (std::size_t i = 0; i < names.size() && i < kNamesPerDirectory; ++i) {
    const std::string path = directory.empty() ? names[i] : directory + "\\" + names[i];
    if (volume.isDirectory(path)) {
      if (depth > 0) Walk(volume, path, depth - 1);
    } else {
      ReadFile(volume, path);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string file = (fuzz::ScratchDir() / "image").string();
  fuzz::WriteFile(file, fuzz::Bytes(data, size));
  std::vector<std::unique_ptr<platform::image::Volume>> volumes;
  try {
    volumes = platform::image::OpenVolumes(file);
  } catch (const platform::RecordError&) {
    return 0;
  }
  for (const auto& volume : volumes) {
    Walk(*volume, "", 2);
    ReadFile(*volume, "windows\\system32\\config\\SOFTWARE");
  }
  try {
    platform::image::OpenWindowsVolume(file);
  } catch (const platform::RecordError&) {
  }
  return 0;
}
