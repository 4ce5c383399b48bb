#include "collectors/os/os_performance_params.h"

#include <cstdint>
#include <utility>

#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMValue;

// The product wraps in 64 bits and the KiB figure keeps its low 32 bits: the declared
// properties are uint32.
TCIMValue PagesInKibibytes(std::uint64_t count, std::uint64_t pageSize) {
  return TCIMValue(static_cast<unsigned int>(static_cast<std::uint32_t>((count * pageSize) >> 10)));
}

bool AtLeastVersion51(platform::System& system) {
  platform::OSVERSIONINFOEXA version{};
  version.dwOSVersionInfoSize = sizeof version;
  version.dwMajorVersion = 5;
  version.dwMinorVersion = 1;
  platform::DWORDLONG mask = 0;
  mask = system.VerSetConditionMask(mask, platform::VER_MAJORVERSION, platform::VER_GREATER_EQUAL);
  mask = system.VerSetConditionMask(mask, platform::VER_MINORVERSION, platform::VER_GREATER_EQUAL);
  return system.VerifyVersionInfoA(&version,
                                   platform::VER_MAJORVERSION | platform::VER_MINORVERSION,
                                   mask) != platform::FALSE;
}

}  // namespace

OSPerformanceParams::OSPerformanceParams() : m_log(LogMessage::instance()) {}

PropertyMap OSPerformanceParams::getPerformanceProperties() {
  platform::System& system = platform::Machine::Current().system();
  PropertyMap properties;
  if (!AtLeastVersion51(system)) return properties;

  platform::HMODULE psapi = system.LoadLibraryA("psapi.dll");
  if (psapi == nullptr) return properties;
  if (system.GetProcAddress(psapi, "GetPerformanceInfo") == nullptr) {
    system.FreeLibrary(psapi);
    return properties;
  }

  platform::PERFORMANCE_INFORMATION info{};
  if (system.GetPerformanceInfo(&info, sizeof info)) {
    const std::uint64_t pageSize = info.PageSize;
    // The three counts are scaled like the page figures; readers of these properties
    // expect them so.
    const std::pair<const char*, std::uint64_t> figures[] = {
        {"HandleCount", info.HandleCount},     {"ProcessCount", info.ProcessCount},
        {"ThreadCount", info.ThreadCount},     {"CommitTotal", info.CommitTotal},
        {"CommitLimit", info.CommitLimit},     {"CommitPeak", info.CommitPeak},
        {"PhysicalTotal", info.PhysicalTotal}, {"PhysicalAvailable", info.PhysicalAvailable},
        {"SystemCache", info.SystemCache},     {"KernelTotal", info.KernelTotal},
        {"KernelPaged", info.KernelPaged},     {"KernelNonpaged", info.KernelNonpaged},
    };
    for (const auto& [name, count] : figures) properties[name] = PagesInKibibytes(count, pageSize);
    properties["PageSize"] = TCIMValue(static_cast<unsigned int>(pageSize));
  } else {
    m_log->systemErrorText(system.GetLastError());  // made, not logged
  }
  system.FreeLibrary(psapi);
  return properties;
}

}  // namespace installedapps_col
