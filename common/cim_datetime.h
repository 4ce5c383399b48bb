// Turning the three date shapes collectors meet into CIM date-times.
#pragma once

#include <string>

#include "common/log_message.h"
#include "host/cim_value.h"

namespace installedapps_col {

// Minutes east of UTC from the C runtime's zone globals. A zone that has daylight saving
// at all gets one hour more, whatever the date: every date of the year is shifted alike.
short localUtcOffsetMinutes();

// Seconds since 1970 as local time; null when the runtime cannot convert them.
NKestovaTessil20::TCIMDateTime dateTimeFromSeconds(unsigned int secondsSince1970, LogMessage& log);

// "3/15/2010", "3-15-2010" (month, day, year) or "20100315"; null when unusable.
// Host errors other than a malformed date-time (21) are thrown on.
NKestovaTessil20::TCIMDateTime dateTimeFromText(const std::string& text, LogMessage& log);

}  // namespace installedapps_col
