// Text helpers of the recorded machine, over the code-page conversions of codepage.h.
#pragma once

#include <string>

#include "platform/recorded/codepage.h"
#include "platform/types.h"

namespace platform::recorded {

// WideToAnsi that also tells whether a character had no mapping (and became '?').
std::string WideToAnsiReportingDefault(const std::u16string& text, UINT codePage, bool* usedDefault,
                                       char defaultChar = '?');

// ASCII-only case folding, as Windows compares names of variables, keys and files.
std::string Lower(std::string text);
bool EqualsNoCase(const std::string& a, const std::string& b);
struct NoCaseLess {
  bool operator()(const std::string& a, const std::string& b) const;
};

}  // namespace platform::recorded
