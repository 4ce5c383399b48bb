// Text conversions for printing: everything iac prints is UTF-8.
#pragma once

#include <string>

#include "cli/instance_view.h"

namespace iac {

// Converts from the current machine's ANSI code page.
TextEncoder machineTextEncoder();

}  // namespace iac
