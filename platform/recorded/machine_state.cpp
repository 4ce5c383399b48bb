#include "platform/recorded/machine_state.h"

namespace platform::recorded {

std::string MachineState::redirect(const std::string& windowsPath) const {
  if (!wow64Process || redirectionDisabled || windowsDirectory.empty()) return windowsPath;
  const std::string system32 = FileSource::Key(windowsDirectory + "\\system32");
  const std::string key = FileSource::Key(windowsPath);
  if (system32.empty() || key.compare(0, system32.size(), system32) != 0 ||
      (key.size() > system32.size() && key[system32.size()] != '/'))
    return windowsPath;
  // Keys are "c/windows/system32/..."; rebuild as a Windows path on SysWOW64.
  std::string rest = key.substr(system32.size());
  std::string path = windowsDirectory + "\\SysWOW64" + rest;
  for (char& c : path)
    if (c == '/') c = '\\';
  return path;
}

}  // namespace platform::recorded
