// iac reg query: a registry key and its values, printed the way Windows' `reg query` does.
#pragma once

#include <ostream>
#include <string>

#include "platform/registry.h"

namespace iac {

// `keyPath` is UTF-8 and starts with a root (HKLM, HKEY_LOCAL_MACHINE, HKCU, HKCR, HKU or
// their long names); `recursive` is /s. Reads through the narrow registry calls, so what
// it prints is what the collectors see: ANSI text in `codePage`, printed as UTF-8.
// `view` is KEY_WOW64_64KEY or KEY_WOW64_32KEY to read that registry view (every key,
// sub-keys of /s too, is opened with it), or 0 for the view of the reading process.
// Answers 0, or 1 with a message on `err` when the key cannot be opened.
int RunRegQuery(platform::Registry& reg, const std::string& keyPath, bool recursive,
                std::ostream& out, std::ostream& err, unsigned codePage = 1252,
                platform::REGSAM view = 0);

}  // namespace iac
