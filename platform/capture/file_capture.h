// The files the collectors open (boot.ini, the component INF files) and the version
// resources they read, taken through the machine's own calls.
#pragma once

#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/machine.h"

namespace platform::capture {

struct CapturedFiles {
  // Relative path under the machine folder ("files/C/boot.ini") -> bytes.
  std::map<std::string, std::string> files;
  // setup.versions of machine.json: Windows path -> version record or null.
  nlohmann::ordered_json versions = nlohmann::ordered_json::object();
};

CapturedFiles CaptureFiles(Machine& machine);

}  // namespace platform::capture
