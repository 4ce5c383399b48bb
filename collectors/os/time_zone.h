// KestovaSG_TimeZone: the machine's zone, its daylight-saving state and the current local
// and UTC times.
#pragma once

#include <cstdint>
#include <string>

#include "common/get_info.h"

namespace installedapps_col {

class TTimeZone {
 public:
  TTimeZone();
  void read();
  // "TheTimeZone", "LocalDateTime", "DaylightSaving", "GMTDateTime".
  PropertyMap getProperties();

 private:
  std::string m_name;
  std::uint8_t m_daylightSaving = 0;  // 0 none, 1 standard, 2 daylight, by the daylight bias
  NKestovaTessil20::TCIMDateTime m_local;
  NKestovaTessil20::TCIMDateTime m_gmt;
};

class TTimeZoneinfo : public GetInfo {
 public:
  explicit TTimeZoneinfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;
};

}  // namespace installedapps_col
