#include "collectors/os/memory_utilization.h"

#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMValue;

TCIMValue Kibibytes(platform::DWORDLONG bytes) {
  return TCIMValue(static_cast<unsigned long long>(bytes >> 10));
}

}  // namespace

MemoryUtilization::MemoryUtilization() : m_log(LogMessage::instance()) {}

PropertyMap MemoryUtilization::getMemoryProperties() {
  platform::System& system = platform::Machine::Current().system();
  PropertyMap properties;
  platform::MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  if (!system.GlobalMemoryStatusEx(&status)) {
    m_log->systemErrorText(system.GetLastError());  // made, not logged
    return properties;
  }
  properties["MemoryLoad"] = TCIMValue(static_cast<unsigned int>(status.dwMemoryLoad));
  properties["TotalVisibleMemorySize"] = Kibibytes(status.ullTotalPhys);
  properties["FreePhysicalMemory"] = Kibibytes(status.ullAvailPhys);
  // The commit limit and what is left of it, which the memory status calls the page file.
  properties["SizeStoredInPagingFiles"] = Kibibytes(status.ullTotalPageFile);
  properties["FreeSpaceInPagingFiles"] = Kibibytes(status.ullAvailPageFile);
  properties["TotalVirtualMemorySize"] = Kibibytes(status.ullTotalVirtual);
  properties["FreeVirtualMemory"] = Kibibytes(status.ullAvailVirtual);
  return properties;
}

}  // namespace installedapps_col
