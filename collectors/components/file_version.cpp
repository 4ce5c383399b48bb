#include "collectors/components/file_version.h"

#include <cstdio>
#include <vector>

#include "platform/machine.h"

namespace installedapps_col {
namespace {

// A string value of the resource: at most `length` characters, up to the first NUL.
bool QueryString(platform::Setup& setup, const std::vector<char>& block, const char* query,
                 std::string& text) {
  void* value = nullptr;
  platform::UINT length = 0;
  if (!setup.VerQueryValueA(block.data(), query, &value, &length) || length == 0 || !value)
    return false;
  const char* chars = static_cast<const char*>(value);
  std::size_t size = 0;
  while (size < length && chars[size] != '\0') ++size;
  text.assign(chars, size);
  return true;
}

}  // namespace

std::string ReadFileVersion(const std::string& path, std::string& description) {
  platform::Setup& setup = platform::Machine::Current().setup();
  std::string version;
  description.clear();
  platform::DWORD handle = 0;
  const platform::DWORD size = setup.GetFileVersionInfoSizeA(path.c_str(), &handle);
  if (size == 0) return version;
  std::vector<char> block(size);
  if (!setup.GetFileVersionInfoA(path.c_str(), handle, size, block.data())) return version;

  void* value = nullptr;
  platform::UINT length = 0;
  // Without a translation there is no string table to name.
  if (!setup.VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &value, &length) ||
      length < 2 * sizeof(platform::WORD) || !value)
    return version;
  const auto* translation = static_cast<const unsigned char*>(value);
  const unsigned language = translation[0] | (translation[1] << 8);
  const unsigned codePage = translation[2] | (translation[3] << 8);

  char query[64];
  std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\FileVersion", language, codePage);
  if (QueryString(setup, block, query, version)) version = version.substr(0, version.find(' '));
  std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\FileDescription", language,
                codePage);
  QueryString(setup, block, query, description);
  return version;
}

bool WithoutFsRedirection(const std::function<void()>& read) {
  platform::System& system = platform::Machine::Current().system();
  const platform::HMODULE kernel = system.LoadLibraryA("kernel32.dll");
  if (!kernel) return false;
  bool ran = false;
  // Both or neither: turning redirection off with no way back would leave it off.
  if (system.GetProcAddress(kernel, "Wow64DisableWow64FsRedirection") &&
      system.GetProcAddress(kernel, "Wow64RevertWow64FsRedirection")) {
    void* previous = nullptr;
    if (system.Wow64DisableWow64FsRedirection(&previous) == platform::TRUE) {
      read();
      system.Wow64RevertWow64FsRedirection(previous);
      ran = true;
    }
  }
  system.FreeLibrary(kernel);
  return ran;
}

}  // namespace installedapps_col
