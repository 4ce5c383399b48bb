// KestovaSG_SystemEnvironmentVariable and KestovaSG_UserEnvironmentVariable: the variables
// as the registry stores them, one instance per value.
#pragma once

#include <string>
#include <vector>

#include "common/get_info.h"

namespace installedapps_col {

class EnvironmentVariableInfo : public GetInfo {
 public:
  explicit EnvironmentVariableInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // The system's variables for KestovaSG_SystemEnvironmentVariable, the current user's
  // for any other class: SettingID and SettingValue, in byte order of the names.
  std::vector<PropertyMap> getVariables(const std::string& className);
};

}  // namespace installedapps_col
