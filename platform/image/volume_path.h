// A volume path split into its names, as both kinds of volume walk it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace platform::image {

// The names of `path` ('\' or '/' between them) with "." dropped and ".." taken back
// lexically, as Windows does; nullopt when ".." would climb above the root or a name holds
// a NUL.
inline std::optional<std::vector<std::string>> SplitVolumePath(const std::string& path) {
  std::vector<std::string> names;
  std::string name;
  for (std::size_t i = 0; i <= path.size(); ++i) {
    const char c = i < path.size() ? path[i] : '/';
    if (c == '\0') return std::nullopt;
    if (c != '/' && c != '\\') {
      name += c;
      continue;
    }
    if (name == "..") {
      if (names.empty()) return std::nullopt;
      names.pop_back();
    } else if (!name.empty() && name != ".") {
      names.push_back(name);
    }
    name.clear();
  }
  return names;
}

}  // namespace platform::image
