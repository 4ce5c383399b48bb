#include "collectors/accounts/environment_variable_info.h"

#include <utility>

#include "common/constants.h"
#include "registry/RegistryKeyEnum.h"

namespace installedapps_col {
namespace {

const std::string kSystemEnvironment =
    "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";
const std::string kUserEnvironment = "Environment";

}  // namespace

EnvironmentVariableInfo::EnvironmentVariableInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

void EnvironmentVariableInfo::getVariables(const std::string& className,
                                           const std::function<void(PropertyMap)>& take) {
  const bool system = className == kClassSystemEnvironmentVariable;
  platform::HKEY key = nullptr;
  OpenRegistryKey(key, system ? platform::HKEY_LOCAL_MACHINE : platform::HKEY_CURRENT_USER,
                  system ? kSystemEnvironment : kUserEnvironment);
  const RegistryValueList values = EnumerateValueList(key);
  CloseRegistryKey(key);
  for (const auto& value : values) {
    PropertyMap properties;
    properties.reserve(2);
    properties["SettingID"] = NKestovaTessil20::TCIMValue(value.first);
    properties["SettingValue"] = NKestovaTessil20::TCIMValue(value.second);
    take(std::move(properties));
  }
}

std::uint64_t EnvironmentVariableInfo::getCIMInstances() {
  const std::string className = getClass()->GetName();
  std::uint64_t count = 0;
  getVariables(className, [this, &className, &count](PropertyMap properties) {
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    buildInstance(instance, std::move(properties), className);
    ++count;
  });
  return count;
}

}  // namespace installedapps_col
