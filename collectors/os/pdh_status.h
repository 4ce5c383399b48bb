// The log line for the status of one performance-data helper call.
#pragma once

#include "common/log_message.h"
#include "platform/types.h"

namespace installedapps_col {

// Writes the text of `status` at level 4; a status without a text of its own is logged
// with its signed decimal value.
void logPdhStatus(LogMessage* log, platform::PDH_STATUS status);

}  // namespace installedapps_col
