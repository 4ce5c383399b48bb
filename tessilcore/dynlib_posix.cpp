// Shared libraries through dlopen.
#ifndef _WIN32

#include <dlfcn.h>

#include "tessilcore/dynlib.h"

namespace NKestovaTessil20 {
namespace dynlib {

void* Open(const std::string& path, std::string& error) {
  // Local: the plug-in's own symbols must not satisfy another plug-in's references.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();
    error = reason != nullptr ? reason : "unknown error";
  }
  return library;
}

void Close(void* library) {
  if (library != nullptr) dlclose(library);
}

}  // namespace dynlib
}  // namespace NKestovaTessil20

#endif
