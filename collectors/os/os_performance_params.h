// The system performance information of the operating-system instance (psapi), on
// systems from 5.1 on.
#pragma once

#include "common/get_info.h"

namespace installedapps_col {

class OSPerformanceParams {
 public:
  OSPerformanceParams();

  // Thirteen uint32 figures: every count times the page size in KiB, cut to 32 bits, and
  // the page size itself. Empty before 5.1 or when psapi cannot answer.
  PropertyMap getPerformanceProperties();

 private:
  LogMessage* m_log;
};

}  // namespace installedapps_col
