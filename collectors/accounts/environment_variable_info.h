// KestovaSG_SystemEnvironmentVariable and KestovaSG_UserEnvironmentVariable: the variables
// as the registry stores them, one instance per value.
#pragma once

#include <functional>
#include <string>

#include "common/get_info.h"

namespace installedapps_col {

class EnvironmentVariableInfo : public GetInfo {
 public:
  explicit EnvironmentVariableInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // The system's variables for KestovaSG_SystemEnvironmentVariable, the current user's
  // for any other class: SettingID and SettingValue, in byte order of the names, each
  // handed to `take` as soon as it is made. A list of them all, made before the first
  // instance, was a tenth of a query of 100,000 variables, and the part that grew faster
  // than the variables: memory beyond what the caches hold.
  void getVariables(const std::string& className, const std::function<void(PropertyMap)>& take);
};

}  // namespace installedapps_col
