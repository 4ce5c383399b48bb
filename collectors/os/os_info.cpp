#include "collectors/os/os_info.h"

#include "collectors/os/memory_utilization.h"
#include "collectors/os/os_configuration.h"
#include "collectors/os/os_performance_params.h"
#include "collectors/os/os_product_info.h"
#include "collectors/os/os_time_info.h"
#include "collectors/os/time_zone.h"
#include "common/constants.h"

namespace installedapps_col {
namespace {

// Adds the entries whose names are not there yet: what was merged first wins.
void Merge(PropertyMap& into, const PropertyMap& from) {
  into.insert(from.begin(), from.end());
}

}  // namespace

OSInfo::OSInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) : GetInfo(std::move(cls)) {}

std::string OSInfo::errorText(const NKestovaTessil20::TTessilException& e) {
  return "OSInfo::getCIMInstances Encountered an error " + kErrorGeneratingInstances + " " +
         std::to_string(e.GetStatusCode().GetCode());
}

PropertyMap OSInfo::operatingSystemProperties(const std::string& className) {
  PropertyMap time;
  {
    OSTimeInfo timeInfo;
    time = timeInfo.getBootProperties();
    Merge(time, timeInfo.getUpTimeProperties());
  }
  const PropertyMap memory = MemoryUtilization().getMemoryProperties();
  const PropertyMap performance = OSPerformanceParams().getPerformanceProperties();
  const PropertyMap product = OSProductInfo(m_class).getProductProperties();

  PropertyMap keys;
  boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns;
  m_class->GetNamespace(ns, {});
  keys["CSName"] =
      NKestovaTessil20::TCIMValue(NKestovaTessil20::TCIMSchemaHelper::GetSystemName(ns));
  keys[kPropName] = NKestovaTessil20::TCIMValue(NKestovaTessil20::TOSSpecific::GetMachineName());
  keys["CSCreationClassName"] = NKestovaTessil20::TCIMValue(kClassComputerSystem);
  keys[kPropCreationClassName] = NKestovaTessil20::TCIMValue(className);

  const PropertyMap boot = OSConfiguration().getProperties();

  PropertyMap properties;
  Merge(properties, time);
  Merge(properties, boot);
  Merge(properties, memory);
  Merge(properties, performance);
  Merge(properties, product);
  Merge(properties, keys);
  return properties;
}

std::uint64_t OSInfo::getCIMInstances() {
  try {
    const std::string className = getClass()->GetName();
    PropertyMap properties;
    if (className == kClassOperatingSystem) {
      properties = operatingSystemProperties(className);
    } else if (className == kClassTimeZone) {
      TTimeZone zone;
      zone.read();
      properties = zone.getProperties();
    }
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    buildInstance(instance, properties, className);
    return 1;
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo(errorText(e));
  }
  return 0;
}

}  // namespace installedapps_col
