// The version resource inside a PE file (an .exe, .dll or .sys as it lies on a volume):
// the VS_VERSIONINFO block GetFileVersionInfoA hands out, found through the resource
// directory. The file is untrusted: every offset, count and size is checked against the
// bytes before it is followed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/types.h"

namespace platform::recorded {

// The first version resource of the file (type 16, its first name, its first language);
// nullopt when the bytes are no PE file or hold none that lies within them.
KPLATFORM_API std::optional<std::vector<BYTE>> VersionBlockFromPe(const std::string& file);

}  // namespace platform::recorded
