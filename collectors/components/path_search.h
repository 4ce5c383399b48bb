// A component file looked for in the directories of the machine's PATH.
#pragma once

#include <string>

namespace installedapps_col {

// The version (ReadFileVersion) of the first `directory\name` with one, the directories
// taken from PATH left to right, split at each ";". What follows the last ";" is tried
// too, also when it is empty (then "\name"). `description` is that of the last file read.
std::string FindOnPath(const std::string& name, std::string& description);

}  // namespace installedapps_col
