#include "registry/registrysubkeynames.h"

#include <cstring>

#include "platform/machine.h"
#include "registry/RegistryKeyEnum.h"

namespace installedapps_col {
namespace {
// Registry key names have at most 255 characters; this buffer has room for any of them.
constexpr platform::DWORD kNameBufferSize = 4096;
}  // namespace

std::vector<std::string> EnumerateSubKeyNames(const std::string& path) {
  std::vector<std::string> names;
  if (path.empty()) {
    platform::Machine::Current().system().crtAssert("registryKey.size() != 0x00",
                                                    "registrysubkeynames", 66);
  }
  platform::Registry& registry = platform::Machine::Current().registry();
  platform::HKEY key = nullptr;
  OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, path);
  platform::DWORD count = 0;
  if (registry.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr, nullptr) == platform::ERROR_SUCCESS) {
    // Cleared once, and emptied before each call (clearing all 4 KiB per sub-key was a
    // tenth of listing a key of 100,000).
    char name[kNameBufferSize] = {};
    for (platform::DWORD index = 0; index < count; ++index) {
      name[0] = '\0';
      platform::DWORD size = kNameBufferSize;
      // A failed call leaves the buffer empty: the entry is then the parent path and "\".
      registry.RegEnumKeyExA(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
      names.push_back(path + "\\" + std::string(name, strnlen(name, kNameBufferSize)));
    }
  }
  CloseRegistryKey(key);
  return names;
}

}  // namespace installedapps_col
