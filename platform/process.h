// The process that runs the code, as opposed to the machine being inventoried: on a live
// Windows machine they are one, with a recorded machine they are not.
#pragma once

#include <string>

#include "platform/export.h"
#include "platform/types.h"

namespace platform {

// GetEnvironmentVariableA against this process's own environment (same size rules).
KPLATFORM_API DWORD ProcessEnvironmentVariableA(const char* name, char* buffer, DWORD size);

// The folder that holds the running executable, without a trailing separator.
KPLATFORM_API std::string ExecutableDirectory();

}  // namespace platform
