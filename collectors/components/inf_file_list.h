// The master setup file's list of component INF files.
#pragma once

#include <string>
#include <vector>

namespace installedapps_col {

class LogMessage;

struct InfListEntry {
  std::string infName, dllName, hidden;  // hidden: "true" or "false"
};

// One entry per line of sysoc.inf's [Components] section that names an INF file (field 3),
// with its setup DLL (field 1) and whether field 4 (the HIDE flag) has text. The walk takes
// one index more than the section has lines, and fields missing from a line (or too long
// for their buffer) keep the text read before, so the last line can be listed twice.
std::vector<InfListEntry> ReadINFFileList(const std::string& infDirectory, LogMessage& log);

}  // namespace installedapps_col
