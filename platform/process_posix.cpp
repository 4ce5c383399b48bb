#include "platform/process.h"

#ifndef _WIN32
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace platform {

DWORD ProcessEnvironmentVariableA(const char* name, char* buffer, DWORD size) {
  const char* value = std::getenv(name);
  if (value == nullptr) return 0;
  const std::size_t length = std::strlen(value);
  // Windows: the size needed (with NUL) when it does not fit, else the length.
  if (buffer == nullptr || length + 1 > size) return static_cast<DWORD>(length + 1);
  std::memcpy(buffer, value, length + 1);
  return static_cast<DWORD>(length);
}

std::string ExecutableDirectory() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return ".";
  std::string result(path, static_cast<std::size_t>(length));
  const std::string::size_type slash = result.rfind('/');
  return slash == std::string::npos ? "." : result.substr(0, slash);
}

}  // namespace platform
#endif
