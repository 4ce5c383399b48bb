// Calendar arithmetic for the recorded clock: civil dates, SYSTEMTIME, and the Windows
// daylight-saving rule of a TIME_ZONE_INFORMATION.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "platform/types.h"

namespace platform::recorded {

std::int64_t DaysFromCivil(std::int64_t year, unsigned month, unsigned day);
void CivilFromDays(std::int64_t days, std::int64_t* year, unsigned* month, unsigned* day);

// Milliseconds since 1970-01-01 UTC <-> SYSTEMTIME (day of week filled in).
SYSTEMTIME ToSystemTime(std::int64_t unixMillis);
std::int64_t FromSystemTime(const SYSTEMTIME& time);

// Does the zone observe daylight saving (both transition dates set)?
bool HasDaylightRule(const TIME_ZONE_INFORMATION& zone);
// Whether UTC instant `unixSeconds` falls in daylight time under the zone's rule.
bool IsDaylight(const TIME_ZONE_INFORMATION& zone, std::int64_t unixSeconds);
// Minutes to add to UTC for local time at that instant.
std::int64_t LocalOffsetMinutes(const TIME_ZONE_INFORMATION& zone, std::int64_t unixSeconds);

// 1970-01-01T00:00:00[.fff][Z] (also with a blank for T), every field with exactly its digits
// -> milliseconds; false when malformed or not a real date and time.
bool ParseIsoTime(const std::string& text, std::int64_t* unixMillis);

}  // namespace platform::recorded
