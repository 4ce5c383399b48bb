#include "cli/text.h"

#include "platform/machine.h"
#include "platform/recorded/codepage.h"

namespace iac {

TextEncoder machineTextEncoder() {
  return [](const std::string& narrow) -> std::string {
    bool ascii = true;
    for (char c : narrow) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) return narrow;
    const unsigned codePage = platform::Machine::Current().system().GetACP();
    return platform::recorded::WideToUtf8(platform::recorded::AnsiToWide(narrow, codePage));
  };
}

}  // namespace iac
