#include "collectors/os/os_time_info.h"

#include <cstring>
#include <ctime>
#include <limits>
#include <vector>

#include "collectors/os/pdh_status.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMDateTime;
using platform::DWORD;
using platform::PDH_STATUS;

constexpr DWORD kPathBufferSize = 2048;
constexpr std::size_t kInfoBufferSize = 2048 + sizeof(platform::PDH_COUNTER_INFO_A);
// "\System\System Up Time" needs 23 bytes; a size far beyond any counter path is not
// believed, and the second call gets this much instead.
constexpr DWORD kPathSizeLimit = 65536;

// The counter's type says how wide its raw value is; the value is asked for in the
// format that holds that width.
DWORD FormatForType(DWORD counterType) {
  switch (counterType & 0x300) {
    case 0x100:
      return platform::PDH_FMT_LARGE;
    case 0x300:
      return platform::PDH_FMT_DOUBLE;
    default:
      return platform::PDH_FMT_LONG;
  }
}

// Builds the counter path into `path`, asking once more with the size PDH reports when
// the first buffer is too small. The path always ends within its buffer.
void MakeUpTimePath(platform::Pdh& pdh, LogMessage* log, std::vector<char>& path) {
  char object[] = "System";
  char counter[] = "System Up Time";
  platform::PDH_COUNTER_PATH_ELEMENTS_A elements{nullptr, object, nullptr, nullptr, 0, counter};
  path.assign(kPathBufferSize, '\0');
  DWORD size = kPathBufferSize;
  PDH_STATUS status = pdh.PdhMakeCounterPathA(&elements, path.data(), &size, 0);
  logPdhStatus(log, status);
  if (status == platform::PDH_MORE_DATA) {
    DWORD wanted = size;
    if (wanted == 0) wanted = 1;
    if (wanted > kPathSizeLimit) wanted = kPathSizeLimit;
    path.assign(wanted, '\0');
    size = wanted;
    status = pdh.PdhMakeCounterPathA(&elements, path.data(), &size, 0);
    logPdhStatus(log, status);
  }
  path.back() = '\0';
}

// Seconds since boot, as the counter's 32-bit long member gives them; 0 when the counter
// cannot be read.
platform::LONG ReadUpTimeSeconds(LogMessage* log) {
  platform::Pdh& pdh = platform::Machine::Current().pdh();
  std::vector<char> path;
  MakeUpTimePath(pdh, log, path);

  platform::PDH_HQUERY query = nullptr;
  pdh.PdhOpenQueryA(nullptr, 0, &query);
  platform::PDH_HCOUNTER counter = nullptr;
  platform::PDH_FMT_COUNTERVALUE value{};
  PDH_STATUS status = pdh.PdhAddCounterA(query, path.data(), 0, &counter);
  logPdhStatus(log, status);
  if (status == platform::ERROR_SUCCESS) {
    // 8-byte units: the record holds pointers.
    std::vector<std::uint64_t> info((kInfoBufferSize + 7) / 8, 0);
    auto* record = reinterpret_cast<platform::PDH_COUNTER_INFO_A*>(info.data());
    DWORD size = static_cast<DWORD>(kInfoBufferSize);
    logPdhStatus(log, pdh.PdhGetCounterInfoA(counter, platform::FALSE, &size, record));
    const DWORD counterType = record->dwType;

    status = pdh.PdhCollectQueryData(query);
    logPdhStatus(log, status);
    if (status == platform::ERROR_SUCCESS) {
      DWORD type = 0;
      logPdhStatus(
          log, pdh.PdhGetFormattedCounterValue(counter, FormatForType(counterType), &type, &value));
    }
  }
  // The long member whatever format was asked for: for a large value these are its low
  // 32 bits. Copied rather than read through the union, which may hold another member.
  platform::LONG seconds = 0;
  std::memcpy(&seconds, &value.longValue, sizeof seconds);

  logPdhStatus(log, pdh.PdhRemoveCounter(counter));
  // The query is not closed; PDH releases it with the process.
  return seconds;
}

}  // namespace

OSTimeInfo::OSTimeInfo() : m_log(LogMessage::instance()) {}

TCIMDateTime OSTimeInfo::getUpTime(bool asBootTime) {
  const platform::LONG seconds = ReadUpTimeSeconds(m_log);
  try {
    if (asBootTime) {
      platform::System& system = platform::Machine::Current().system();
      const std::int64_t now = system.crtTime64();
      // A clock at either end of the 64-bit range would overflow; no boot time then.
      if ((seconds > 0 && now < std::numeric_limits<std::int64_t>::min() + seconds) ||
          (seconds < 0 && now > std::numeric_limits<std::int64_t>::max() + seconds)) {
        return TCIMDateTime();
      }
      std::tm local{};
      if (!system.crtLocaltime64(now - seconds, &local)) return TCIMDateTime();
      return TCIMDateTime(
          static_cast<unsigned short>(local.tm_year + 1900),
          static_cast<unsigned short>(local.tm_mon + 1), static_cast<unsigned int>(local.tm_mday),
          static_cast<unsigned short>(local.tm_hour), static_cast<unsigned short>(local.tm_min),
          static_cast<unsigned short>(local.tm_sec), 0, getUtcOffset());
    }
    const std::int32_t minutesTotal = seconds / 60;
    const std::int32_t hoursTotal = minutesTotal / 60;
    const std::int32_t days = hoursTotal / 24;
    if (days < 0) return TCIMDateTime();
    // Each field is cut to 16 bits before its remainder is taken (100000 seconds give a
    // seconds field of 24): the form in which readers of these reports have had it.
    return TCIMDateTime(static_cast<unsigned int>(days),
                        static_cast<unsigned short>(static_cast<std::uint16_t>(hoursTotal) % 24),
                        static_cast<unsigned short>(static_cast<std::uint16_t>(minutesTotal) % 60),
                        static_cast<unsigned short>(static_cast<std::uint16_t>(seconds) % 60), 0);
  } catch (const NKestovaTessil20::TTessilException&) {
    // A date the host cannot hold (year or offset out of range): the property stays unset.
    return TCIMDateTime();
  }
}

std::int16_t OSTimeInfo::getUtcOffset() {
  platform::TIME_ZONE_INFORMATION zone{};
  const DWORD result = platform::Machine::Current().system().GetTimeZoneInformation(&zone);
  // In 64 bits so that no bias overflows; the offset keeps the low 16 bits.
  std::int64_t minutesWest = 0;
  if (result == platform::TIME_ZONE_ID_STANDARD) {
    minutesWest = zone.Bias;
  } else if (result == platform::TIME_ZONE_ID_DAYLIGHT) {
    minutesWest = static_cast<std::int64_t>(zone.Bias) + zone.DaylightBias;
  }
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(-minutesWest));
}

PropertyMap OSTimeInfo::getBootProperties() {
  PropertyMap properties;
  const TCIMDateTime boot = getUpTime(true);
  if (!boot.IsNull()) properties["LastBootUpTime"] = NKestovaTessil20::TCIMValue(boot);
  return properties;
}

PropertyMap OSTimeInfo::getUpTimeProperties() {
  PropertyMap properties;
  const TCIMDateTime upTime = getUpTime(false);
  if (!upTime.IsNull()) properties["UpTime"] = NKestovaTessil20::TCIMValue(upTime);
  return properties;
}

}  // namespace installedapps_col
