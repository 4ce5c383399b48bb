// The global memory status of the operating-system instance: load in percent, sizes in KiB.
#pragma once

#include "common/get_info.h"

namespace installedapps_col {

class MemoryUtilization {
 public:
  MemoryUtilization();

  // "MemoryLoad" (uint32) and six uint64 sizes in KiB; empty when the status cannot be read.
  PropertyMap getMemoryProperties();

 private:
  LogMessage* m_log;
};

}  // namespace installedapps_col
