// Opening and closing shared libraries. Kept apart so that only one small file sees
// <windows.h>. Internal.
#pragma once

#include <string>

namespace NKestovaTessil20 {
namespace dynlib {

// Null on failure, with the loader's reason in `error`.
void* Open(const std::string& path, std::string& error);
void Close(void* library);

}  // namespace dynlib
}  // namespace NKestovaTessil20
