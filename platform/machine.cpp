// Process-wide current machine.
#include "platform/machine.h"

namespace platform {

Machine::~Machine() = default;

}  // namespace platform
