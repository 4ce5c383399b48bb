// CIM date-times: points in time with a UTC offset, and intervals.
#include <cstdio>

#include "host/cim_value.h"

namespace NKestovaTessil20 {

namespace {

[[noreturn]] void Malformed(const std::string& detail) {
  throw TTessilException(kStatusInvalidDateTime, detail);
}

bool IsLeapYear(unsigned int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned int DaysInMonth(unsigned int year, unsigned int month) {
  static const unsigned int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads `count` decimal digits at `pos`; false when any of them is not a digit.
bool ReadDigits(const std::string& text, std::size_t pos, std::size_t count, unsigned int& out) {
  out = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    out = out * 10 + static_cast<unsigned int>(text[i] - '0');
  }
  return true;
}

// `what` names the value in the message; made only when it is needed, as dates are set
// by the hundred thousand and are nearly always well-formed.
template <typename What>
void CheckTimeOfDay(unsigned int hour, unsigned int minute, unsigned int second,
                    unsigned int microseconds, const What& what) {
  if (hour > 23 || minute > 59 || second > 59 || microseconds > 999999) {
    Malformed(what() + ": time of day out of range");
  }
}

}  // namespace

TCIMDateTime::TCIMDateTime(const std::string& cimText) {
  if (cimText.size() != 25) Malformed("'" + cimText + "': not 25 characters");
  unsigned int head = 0, hour = 0, minute = 0, second = 0, micro = 0, offset = 0;
  bool digits = ReadDigits(cimText, 0, 8, head) && ReadDigits(cimText, 8, 2, hour) &&
                ReadDigits(cimText, 10, 2, minute) && ReadDigits(cimText, 12, 2, second) &&
                cimText[14] == '.' && ReadDigits(cimText, 15, 6, micro) &&
                ReadDigits(cimText, 22, 3, offset);
  if (!digits) Malformed("'" + cimText + "': not a CIM date-time");
  const char sign = cimText[21];
  if (sign == ':') {
    // Intervals carry ":000" where points carry their offset.
    if (offset != 0) Malformed("'" + cimText + "': interval must end in :000");
    CheckTimeOfDay(hour, minute, second, micro, [&cimText] { return "'" + cimText + "'"; });
    *this =
        TCIMDateTime(head, static_cast<unsigned short>(hour), static_cast<unsigned short>(minute),
                     static_cast<unsigned short>(second), micro);
    return;
  }
  if (sign != '+' && sign != '-') Malformed("'" + cimText + "': no UTC offset sign");
  const unsigned int year = head / 10000;
  const unsigned int month = head / 100 % 100;
  const unsigned int day = head % 100;
  const int signedOffset = sign == '-' ? -static_cast<int>(offset) : static_cast<int>(offset);
  Set(static_cast<unsigned short>(year), static_cast<unsigned short>(month), day,
      static_cast<unsigned short>(hour), static_cast<unsigned short>(minute),
      static_cast<unsigned short>(second), micro, static_cast<short>(signedOffset));
}

TCIMDateTime::TCIMDateTime(unsigned short year, unsigned short month, unsigned int day,
                           unsigned short hour, unsigned short minute, unsigned short second,
                           unsigned int microseconds, short utcOffsetMinutes) {
  Set(year, month, day, hour, minute, second, microseconds, utcOffsetMinutes);
}

TCIMDateTime::TCIMDateTime(unsigned int days, unsigned short hours, unsigned short minutes,
                           unsigned short seconds, unsigned int microseconds) {
  if (days > 99999999) Malformed("interval of " + std::to_string(days) + " days");
  CheckTimeOfDay(hours, minutes, seconds, microseconds, [] { return std::string("interval"); });
  null_ = false;
  interval_ = true;
  year_ = days;
  month_ = 0;
  day_ = 0;
  hour_ = hours;
  minute_ = minutes;
  second_ = seconds;
  microseconds_ = microseconds;
  offset_ = 0;
}

void TCIMDateTime::Set(unsigned short year, unsigned short month, unsigned int day,
                       unsigned short hour, unsigned short minute, unsigned short second,
                       unsigned int microseconds, short utcOffsetMinutes) {
  const auto what = [&] {
    return "date " + std::to_string(year) + "-" + std::to_string(month) + "-" + std::to_string(day);
  };
  // Year 0 is rejected: it is what an unset date looks like, not a calendar year.
  if (year < 1 || year > 9999) Malformed(what() + ": year out of range");
  if (month < 1 || month > 12) Malformed(what() + ": month out of range");
  if (day < 1 || day > DaysInMonth(year, month)) Malformed(what() + ": day out of range");
  CheckTimeOfDay(hour, minute, second, microseconds, what);
  if (utcOffsetMinutes < -999 || utcOffsetMinutes > 999) {
    Malformed(what() + ": UTC offset of " + std::to_string(utcOffsetMinutes) + " minutes");
  }
  null_ = false;
  interval_ = false;
  year_ = year;
  month_ = month;
  day_ = day;
  hour_ = hour;
  minute_ = minute;
  second_ = second;
  microseconds_ = microseconds;
  offset_ = utcOffsetMinutes;
}

std::string TCIMDateTime::ToString() const {
  if (null_) return std::string();
  char text[96];  // room for any unsigned field, though checked fields never need it
  if (interval_) {
    std::snprintf(text, sizeof text, "%08u%02u%02u%02u.%06u:000", year_, hour_, minute_, second_,
                  microseconds_);
  } else {
    const char sign = offset_ < 0 ? '-' : '+';
    const unsigned int magnitude = static_cast<unsigned int>(offset_ < 0 ? -offset_ : offset_);
    std::snprintf(text, sizeof text, "%04u%02u%02u%02u%02u%02u.%06u%c%03u", year_, month_, day_,
                  hour_, minute_, second_, microseconds_, sign, magnitude);
  }
  return text;
}

bool TCIMDateTime::operator==(const TCIMDateTime& other) const {
  if (null_ || other.null_) return null_ == other.null_;
  return interval_ == other.interval_ && year_ == other.year_ && month_ == other.month_ &&
         day_ == other.day_ && hour_ == other.hour_ && minute_ == other.minute_ &&
         second_ == other.second_ && microseconds_ == other.microseconds_ &&
         offset_ == other.offset_;
}

}  // namespace NKestovaTessil20
