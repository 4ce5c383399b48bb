// The registry parts the collectors read, exported as a regedit file that a recorded
// machine loads back with the same keys, value names, kinds and data.
#pragma once

#include <string>

#include "platform/registry.h"
#include "platform/system.h"

namespace platform::capture {

// A walk stops at these bounds, so that a hostile or broken registry cannot make the
// capture run away; what lies beyond them is left out.
struct RegistryLimits {
  unsigned maxDepth = 32;
  unsigned maxKeys = 100000;
  unsigned maxValues = 500000;
  DWORD maxValueBytes = 4u << 20;
};

// "Windows Registry Editor Version 5.00" text, UTF-16LE with a byte-order mark.
std::string ExportRegistry(Registry& registry, System& system, const RegistryLimits& limits = {});

}  // namespace platform::capture
