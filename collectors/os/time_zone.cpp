#include "collectors/os/time_zone.h"

#include <vector>

#include "collectors/os/os_info.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

// A zone name in the ANSI code page; the record's 32 characters bound a name that lacks
// its NUL.
std::string ZoneName(const platform::WCHAR (&name)[32]) {
  int length = 0;
  while (length < 32 && name[length] != 0) ++length;
  if (length == 0) return std::string();
  platform::System& system = platform::Machine::Current().system();
  const int size =
      system.WideCharToMultiByte(platform::CP_ACP, 0, name, length, nullptr, 0, nullptr, nullptr);
  if (size <= 0) return std::string();
  std::vector<char> text(static_cast<std::size_t>(size));
  const int written = system.WideCharToMultiByte(platform::CP_ACP, 0, name, length, text.data(),
                                                 size, nullptr, nullptr);
  if (written <= 0) return std::string();
  return std::string(text.data(), static_cast<std::size_t>(written));
}

// The clock in UTC. A clock that is no date (a damaged recording) gives no date-time.
NKestovaTessil20::TCIMDateTime SystemDateTime() {
  platform::SYSTEMTIME now{};
  platform::Machine::Current().system().GetSystemTime(&now);
  try {
    return NKestovaTessil20::TCIMDateTime(now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
                                          now.wSecond, now.wMilliseconds * 1000u, 0);
  } catch (const NKestovaTessil20::TTessilException&) {
    return NKestovaTessil20::TCIMDateTime();
  }
}

}  // namespace

TTimeZone::TTimeZone() = default;

void TTimeZone::read() {
  platform::TIME_ZONE_INFORMATION zone{};
  platform::Machine::Current().system().GetTimeZoneInformation(&zone);
  // The daylight bias decides, not whether daylight time applies now.
  if (zone.DaylightBias == 0) {
    m_daylightSaving = 1;
    m_name = ZoneName(zone.StandardName);
  } else if (zone.DaylightBias == -60) {
    m_daylightSaving = 2;
    m_name = ZoneName(zone.DaylightName);
  } else {
    m_daylightSaving = 0;
    m_name = ZoneName(zone.StandardName);
  }
  m_local = NKestovaTessil20::TOSSpecific::GetLocalTime();
  m_gmt = SystemDateTime();
}

PropertyMap TTimeZone::getProperties() {
  PropertyMap properties;
  properties["TheTimeZone"] = NKestovaTessil20::TCIMValue(m_name);
  if (!m_local.IsNull()) properties["LocalDateTime"] = NKestovaTessil20::TCIMValue(m_local);
  properties["DaylightSaving"] = NKestovaTessil20::TCIMValue(m_daylightSaving);
  if (!m_gmt.IsNull()) properties["GMTDateTime"] = NKestovaTessil20::TCIMValue(m_gmt);
  return properties;
}

TTimeZoneinfo::TTimeZoneinfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t TTimeZoneinfo::getCIMInstances() {
  try {
    const std::string className = getClass()->GetName();
    TTimeZone zone;
    zone.read();
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    buildInstance(instance, zone.getProperties(), className);
    return 1;
  } catch (const NKestovaTessil20::TTessilException& e) {
    // The operating-system collector's text, prefix included.
    m_log->logInfo(OSInfo::errorText(e));
  }
  return 0;
}

}  // namespace installedapps_col
