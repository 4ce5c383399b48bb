// Which Windows the machine runs: the CIM operating-system type and edition numbers, the
// service-pack text, the vendor, and the version key's product id, version, install date,
// owner and build.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "common/get_info.h"
#include "platform/types.h"

namespace installedapps_col {

class OSProductInfo {
 public:
  // `cls` is the operating-system collector's class; its namespace supplies the class
  // whose declared types the texts become.
  explicit OSProductInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);

  std::string getEditionName(const platform::OSVERSIONINFOEXA& version);
  std::uint16_t getOSSubType(const platform::OSVERSIONINFOEXA& version);
  bool isWindowsPE();
  std::uint16_t getOSType(const platform::OSVERSIONINFOEXA& version);

  TextRecord getVersionProperties();   // OSType, OSSubType, FixLevel
  TextRecord getRegistryProperties();  // ProductID, Version, InstallDate, RegisteredOwner, BuildID
  PropertyMap getProductProperties();

 private:
  // GetProductInfo(major, minor, 0, 0) when kernel32 has it; 0 otherwise.
  platform::DWORD productType(const platform::OSVERSIONINFOEXA& version);
  bool is64Bit();
  bool processorIs64Bit();
  bool hasR2Setup();

  boost::shared_ptr<NKestovaTessil20::ICIMClass> m_class;
  LogMessage* m_log;
};

}  // namespace installedapps_col
