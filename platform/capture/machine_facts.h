// machine.json of a capture: every fact the collectors ask the System, Pdh, NetApi and Wmi
// families for, recorded as the machine answered it (a failing call as its failure).
#pragma once

#include <nlohmann/json.hpp>

#include "platform/machine.h"

namespace platform::capture {

nlohmann::ordered_json CaptureFacts(Machine& machine);

}  // namespace platform::capture
