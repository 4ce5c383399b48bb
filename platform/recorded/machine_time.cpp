#include "platform/recorded/machine_time.h"

#include <string>

namespace platform::recorded {

// Howard Hinnant's days-from-civil: proleptic Gregorian, day 0 = 1970-01-01.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void CivilFromDays(std::int64_t z, std::int64_t* year, unsigned* month, unsigned* day) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *day = doy - (153 * mp + 2) / 5 + 1;
  *month = mp < 10 ? mp + 3 : mp - 9;
  *year = static_cast<std::int64_t>(yoe) + era * 400 + (*month <= 2);
}

namespace {

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

unsigned DaysInMonth(std::int64_t year, unsigned month) {
  static const unsigned days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : days[(month - 1) % 12];
}

// The local wall-clock second (as seconds since 1970 of that wall clock) at which a
// transition rule fires in `year`. Day-of-week rules: wDay is the occurrence, 5 = last.
std::int64_t RuleWallSeconds(const SYSTEMTIME& rule, std::int64_t year) {
  unsigned month = rule.wMonth < 1 ? 1 : rule.wMonth > 12 ? 12 : rule.wMonth;
  unsigned day = rule.wDay;
  if (rule.wYear == 0) {
    std::int64_t first = DaysFromCivil(year, month, 1);
    unsigned firstDow = static_cast<unsigned>(((first % 7) + 11) % 7);  // 1970-01-01: Thursday
    unsigned occurrence = rule.wDay < 1 ? 1 : rule.wDay > 5 ? 5 : rule.wDay;
    day = 1 + (rule.wDayOfWeek % 7 + 7 - firstDow) % 7 + (occurrence - 1) * 7;
    while (day > DaysInMonth(year, month)) day -= 7;
  }
  return DaysFromCivil(year, month, day) * 86400 + rule.wHour * 3600 + rule.wMinute * 60 +
         rule.wSecond;
}

}  // namespace

SYSTEMTIME ToSystemTime(std::int64_t unixMillis) {
  std::int64_t days = FloorDiv(unixMillis, 86400000);
  std::int64_t rest = unixMillis - days * 86400000;
  std::int64_t year;
  unsigned month, day;
  CivilFromDays(days, &year, &month, &day);
  SYSTEMTIME t{};
  t.wYear = static_cast<WORD>(year);
  t.wMonth = static_cast<WORD>(month);
  t.wDay = static_cast<WORD>(day);
  t.wDayOfWeek = static_cast<WORD>(((days % 7) + 11) % 7);
  t.wHour = static_cast<WORD>(rest / 3600000);
  t.wMinute = static_cast<WORD>(rest / 60000 % 60);
  t.wSecond = static_cast<WORD>(rest / 1000 % 60);
  t.wMilliseconds = static_cast<WORD>(rest % 1000);
  return t;
}

std::int64_t FromSystemTime(const SYSTEMTIME& t) {
  return (DaysFromCivil(t.wYear, t.wMonth, t.wDay) * 86400 + t.wHour * 3600 + t.wMinute * 60 +
          t.wSecond) *
             1000 +
         t.wMilliseconds;
}

bool HasDaylightRule(const TIME_ZONE_INFORMATION& zone) {
  return zone.StandardDate.wMonth != 0 && zone.DaylightDate.wMonth != 0;
}

bool IsDaylight(const TIME_ZONE_INFORMATION& zone, std::int64_t unixSeconds) {
  if (!HasDaylightRule(zone)) return false;
  const std::int64_t standardOffset = -(zone.Bias + zone.StandardBias) * 60LL;
  const std::int64_t daylightOffset = -(zone.Bias + zone.DaylightBias) * 60LL;
  std::int64_t year;
  unsigned month, day;
  CivilFromDays(FloorDiv(unixSeconds + standardOffset, 86400), &year, &month, &day);
  // Daylight begins at the standard wall clock's DaylightDate and ends at the daylight
  // wall clock's StandardDate.
  const std::int64_t start = RuleWallSeconds(zone.DaylightDate, year) - standardOffset;
  const std::int64_t end = RuleWallSeconds(zone.StandardDate, year) - daylightOffset;
  if (start < end) return unixSeconds >= start && unixSeconds < end;
  return !(unixSeconds >= end && unixSeconds < start);  // southern hemisphere
}

std::int64_t LocalOffsetMinutes(const TIME_ZONE_INFORMATION& zone, std::int64_t unixSeconds) {
  if (IsDaylight(zone, unixSeconds)) return -(zone.Bias + zone.DaylightBias);
  return -(zone.Bias + (HasDaylightRule(zone) ? zone.StandardBias : 0));
}

namespace {

// Exactly `count` decimal digits at `pos`: no sign and no blank, which a scanf conversion
// would take ("T-1:-1:-1" read as 22:58:59 of the day before).
bool Digits(const std::string& text, std::size_t& pos, std::size_t count, int* value) {
  if (pos > text.size() || text.size() - pos < count) return false;
  int v = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  pos += count;
  *value = v;
  return true;
}

bool Literal(const std::string& text, std::size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

}  // namespace

bool ParseIsoTime(const std::string& text, std::int64_t* unixMillis) {
  int y, mo, d, h = 0, mi = 0, s = 0, ms = 0;
  std::size_t pos = 0;
  if (!Digits(text, pos, 4, &y) || !Literal(text, pos, '-') || !Digits(text, pos, 2, &mo) ||
      !Literal(text, pos, '-') || !Digits(text, pos, 2, &d))
    return false;
  if (Literal(text, pos, 'T') || Literal(text, pos, ' ')) {
    if (!Digits(text, pos, 2, &h) || !Literal(text, pos, ':') || !Digits(text, pos, 2, &mi) ||
        !Literal(text, pos, ':') || !Digits(text, pos, 2, &s))
      return false;
    if (Literal(text, pos, '.')) {
      int digits = 0;
      for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos, ++digits)
        if (digits < 3) ms = ms * 10 + (text[pos] - '0');
      if (digits == 0) return false;
      for (; digits < 3; ++digits) ms *= 10;
    }
  }
  Literal(text, pos, 'Z');
  if (pos != text.size()) return false;
  if (mo < 1 || mo > 12 || d < 1 || d > static_cast<int>(DaysInMonth(y, mo)) || h > 23 || mi > 59 ||
      s > 59)
    return false;
  *unixMillis = (DaysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s) * 1000 + ms;
  return true;
}

}  // namespace platform::recorded
