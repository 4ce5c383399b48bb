// When the system started and how long it has been up, from the "System Up Time"
// performance counter.
#pragma once

#include <cstdint>

#include "common/get_info.h"

namespace installedapps_col {

class OSTimeInfo {
 public:
  OSTimeInfo();

  // The boot time (local, with the zone's offset) or the up time as an interval. Each call
  // reads the counter anew and logs the status of every counter call. Null when the time
  // cannot be expressed (no clock, a negative interval, an offset beyond CIM's range).
  NKestovaTessil20::TCIMDateTime getUpTime(bool asBootTime);

  // Minutes east of UTC, from the time-zone bias; daylight saving counts only while the
  // zone says it is in effect.
  std::int16_t getUtcOffset();

  // "LastBootUpTime"; empty when getUpTime(true) is null.
  PropertyMap getBootProperties();
  // "UpTime", an interval; empty when getUpTime(false) is null.
  PropertyMap getUpTimeProperties();

 private:
  LogMessage* m_log;
};

}  // namespace installedapps_col
