// The boot configuration of the operating-system instance: the boot.ini file a machine
// starts from and its lines, or, on a machine that boots through the boot store, the boot
// manager and a summary of its entries.
#pragma once

#include <string>
#include <vector>

#include "common/get_info.h"

namespace installedapps_col {

class OSConfiguration {
 public:
  OSConfiguration();

  // The "Element" value of HKEY_LOCAL_MACHINE\path as text; empty when the key or value
  // is missing, longer than 8192 bytes, or neither REG_SZ nor REG_MULTI_SZ. A string list
  // is walked as a list of braced identifiers (see the .cpp).
  std::string readBcdElement(const std::string& path);

  // One paragraph per display-order entry, then the boot manager, the memory test and
  // the resume entry; each ends with a blank line. Missing elements give empty texts.
  std::vector<std::string> getBcdSummary();

  // Mode 0: the file name (or "Windows Boot Manager"); mode 1: the lines (a string array);
  // any other mode, or nothing to report: a null value.
  NKestovaTessil20::TCIMValue getBootConfiguration(int mode);

  // "BootConfigurationFileName" and "BootConfigurationFileContents"; null values are left
  // out.
  PropertyMap getProperties();

 private:
  LogMessage* m_log;
};

}  // namespace installedapps_col
