// Text conversions for printing: everything iac prints is UTF-8.
#pragma once

#include <string>

#include "cli/instance_view.h"

namespace iac {

std::string utf16ToUtf8(const std::u16string& text);

// Converts from the current machine's ANSI code page.
TextEncoder machineTextEncoder();

}  // namespace iac
