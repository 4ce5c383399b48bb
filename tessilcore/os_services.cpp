// Machine name and local time of the scanned machine, through the platform seam.
#include "host/plugin.h"
#include "platform/machine.h"
#include "tessilcore/faults.h"

namespace NKestovaTessil20 {

std::string TOSSpecific::GetMachineName() {
  THostFaults::Call("TOSSpecific::GetMachineName");
  char name[256] = {};
  platform::DWORD size = sizeof name;
  if (!platform::Machine::Current().system().GetComputerNameA(name, &size)) return std::string();
  return std::string(name, size < sizeof name ? size : sizeof name - 1);
}

TCIMDateTime TOSSpecific::GetLocalTime() {
  THostFaults::Call("TOSSpecific::GetLocalTime");
  platform::System& system = platform::Machine::Current().system();
  platform::SYSTEMTIME now = {};
  system.GetLocalTime(&now);
  platform::TIME_ZONE_INFORMATION zone = {};
  const platform::DWORD state = system.GetTimeZoneInformation(&zone);
  const long offset = state == platform::TIME_ZONE_ID_DAYLIGHT
                          ? -(static_cast<long>(zone.Bias) + zone.DaylightBias)
                          : -static_cast<long>(zone.Bias);
  if (offset < -999 || offset > 999) return TCIMDateTime();
  try {
    return TCIMDateTime(now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                        static_cast<unsigned int>(now.wMilliseconds) * 1000u,
                        static_cast<short>(offset));
  } catch (const TTessilException&) {
    // A machine that cannot tell the time (a recording without it) has no local time.
    return TCIMDateTime();
  }
}

}  // namespace NKestovaTessil20
