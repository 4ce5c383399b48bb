// The output formats of `iac collect`. Each renders the whole result into a string, so a
// failure never leaves half an output behind.
#pragma once

#include <string>
#include <vector>

#include "cli/instance_view.h"
#include "tessilcore/host.h"

namespace iac {

enum class Format { kTable, kJson, kJsonl, kMof };

// Parses "table", "json", "jsonl", "mof"; false for anything else.
bool parseFormat(const std::string& text, Format& format);

std::string render(Format format, const std::vector<ClassView>& classes,
                   const std::vector<NKestovaTessil20::TLogRecord>& log, const TextEncoder& encode);

// CIM MOF escaping of a string literal's contents.
std::string mofEscape(const std::string& text);

}  // namespace iac
