#include "common/cim_datetime.h"

#include <algorithm>
#include <boost/tokenizer.hpp>
#include <cctype>
#include <ctime>
#include <sstream>
#include <vector>

#include "host/status.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TTessilException;

std::vector<std::string> split(const std::string& text, const char* separator) {
  boost::char_separator<char> separators(separator);
  boost::tokenizer<boost::char_separator<char>> tokens(text, separators);
  return std::vector<std::string>(tokens.begin(), tokens.end());
}

// A part that is not a number reads as 0.
unsigned short datePart(const std::string& text) {
  std::istringstream stream(text);
  unsigned short value = 0;
  if (!(stream >> value)) value = 0;
  return value;
}

bool hasLetter(const std::string& text) {
  for (char c : text) {
    if (std::isalpha(static_cast<unsigned char>(c))) return true;
  }
  return false;
}

}  // namespace

short localUtcOffsetMinutes() {
  platform::System& system = platform::Machine::Current().system();
  system.crtTzset();
  const long westMinutes = system.crtTimezone() / 60;
  if (system.crtDaylight() != 0) return static_cast<short>(-(westMinutes - 60));
  return static_cast<short>(-westMinutes);
}

TCIMDateTime dateTimeFromSeconds(unsigned int secondsSince1970, LogMessage& log) {
  log.logInfo("GetInfo::getCIMDateTime -> dateAsLongMsg");
  platform::System& system = platform::Machine::Current().system();
  system.crtTzset();
  // Zero stands for "no date"; it becomes the zone's offset, i.e. local midnight of
  // 1 January 1970 west of UTC (and a date in 2106 east of it).
  unsigned int seconds = secondsSince1970;
  if (seconds == 0) seconds = static_cast<unsigned int>(system.crtTimezone());

  TCIMDateTime result;
  std::tm local{};
  if (!system.crtLocaltime64(static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds)),
                             &local)) {
    log.logInfo("Date time information was generated incorrectly.");
    return result;
  }
  result.Set(static_cast<unsigned short>(local.tm_year + 1900),
             static_cast<unsigned short>(local.tm_mon + 1), static_cast<unsigned>(local.tm_mday),
             static_cast<unsigned short>(local.tm_hour), static_cast<unsigned short>(local.tm_min),
             static_cast<unsigned short>(local.tm_sec), 0, localUtcOffsetMinutes());
  log.logDebug("Successfully parsed the date and/or time");
  return result;
}

TCIMDateTime dateTimeFromText(const std::string& text, LogMessage& log) {
  TCIMDateTime result;
  if (text.empty()) return result;
  try {
    // Most dates are eight digits with no separator: neither split can find two parts.
    const bool separated =
        std::any_of(text.begin(), text.end(), [](char c) { return c == '/' || c == '-'; });
    std::vector<std::string> parts;
    if (separated) parts = split(text, "/");
    if (separated && parts.size() <= 1) parts = split(text, "-");
    if (parts.size() <= 1) {
      if (hasLetter(text)) return result;
      // An eight-digit date: midnight, UTC offset zero.
      return TCIMDateTime(text + "000000.000000-000");
    }
    if (parts.size() < 3) return result;
    // Month, day, year, whichever separator: 2010-03-15 is month 2010.
    const unsigned short month = datePart(parts[0]);
    const unsigned short day = datePart(parts[1]);
    const unsigned short year = datePart(parts[2]);
    result = TCIMDateTime(year, month, day, 0, 0, 0, 0, localUtcOffsetMinutes());
  } catch (const TTessilException& e) {
    if (e.GetStatusCode().GetCode() != NKestovaTessil20::kStatusInvalidDateTime) {
      throw TTessilException(e);
    }
    log.logInfo(
        "InstalledAppInfo::geNKestovaTessil20::TCIMValueForProperty "
        "Encountered an unknown date time format ->" +
        text);
    return TCIMDateTime();
  }
  return result;
}

}  // namespace installedapps_col
