// Text that the narrow "A" calls hand out is in the machine's ANSI code page; the capture
// writes UTF-16 (.reg) and UTF-8 (machine.json), converting through the machine itself so
// that a live machine and a recorded one agree.
#pragma once

#include <string>

#include "platform/system.h"

namespace platform::capture {

std::u16string AnsiToWide(System& system, const std::string& ansi);
std::string AnsiToUtf8(System& system, const std::string& ansi);
std::string WideToUtf8(const WCHAR* wide);

}  // namespace platform::capture
