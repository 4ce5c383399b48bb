#include "platform/process.h"

// <windows.h> after our headers: several of our names are macros there.
#include <windows.h>

namespace platform {

DWORD ProcessEnvironmentVariableA(const char* name, char* buffer, DWORD size) {
  return ::GetEnvironmentVariableA(name, buffer, size);
}

std::string ExecutableDirectory() {
  char path[MAX_PATH];
  const DWORD length = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return ".";
  std::string result(path, length);
  const std::string::size_type slash = result.find_last_of("\\/");
  return slash == std::string::npos ? "." : result.substr(0, slash);
}

}  // namespace platform
