// KestovaSG_OperatingSystem: one instance made of the time, boot configuration, memory,
// performance and product figures and the four keys.
#pragma once

#include <string>

#include "common/get_info.h"

namespace installedapps_col {

class OSInfo : public GetInfo {
 public:
  explicit OSInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // What the operating-system and time-zone collectors log for a host error.
  static std::string errorText(const NKestovaTessil20::TTessilException& e);

 private:
  PropertyMap operatingSystemProperties(const std::string& className);
};

}  // namespace installedapps_col
