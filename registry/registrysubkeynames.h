// The full paths of a registry key's sub-keys.
#pragma once

#include <string>
#include <vector>

namespace installedapps_col {

// path + "\" + name for every sub-key of HKEY_LOCAL_MACHINE\path, in the order the
// registry enumerates them; empty when the key cannot be opened or has none.
std::vector<std::string> EnumerateSubKeyNames(const std::string& path);

}  // namespace installedapps_col
