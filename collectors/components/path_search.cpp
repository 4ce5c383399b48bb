#include "collectors/components/path_search.h"

#include <unordered_set>

#include "collectors/components/file_version.h"
#include "platform/machine.h"

namespace installedapps_col {

std::string FindOnPath(const std::string& name, std::string& description) {
  const char* variable = platform::Machine::Current().system().getenv("PATH");
  // An unset PATH reads as an empty one.
  const std::string path = variable ? variable : "";
  // A directory named twice answers the same the second time: a PATH of thousands of
  // empty pieces costs one read, not thousands.
  std::unordered_set<std::string> tried;
  std::string version;
  description.clear();
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = path.find(';', start);
    const std::string directory =
        path.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (tried.insert(directory).second) {
      version = ReadFileVersion(directory + "\\" + name, description);
      if (!version.empty()) return version;
    }
    if (end == std::string::npos) return version;
    start = end + 1;
  }
}

}  // namespace installedapps_col
