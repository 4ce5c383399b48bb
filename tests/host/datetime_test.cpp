// CIM date-time texts, numeric construction and their limits.
#include <gtest/gtest.h>

#include "host/cim_value.h"

using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TTessilException;

namespace {

std::uint32_t CodeOf(const std::string& text) {
  try {
    TCIMDateTime parsed(text);
  } catch (const TTessilException& e) {
    return e.GetStatusCode();
  }
  return 0;
}

TEST(DateTimeText, RoundTrips) {
  const char* texts[] = {
      "20100315000000.000000+000", "20100315235959.999999-300", "99991231120000.123456+999",
      "00010101000000.000000-999", "20000229010203.000004+060",  // 2000 is a leap year
      "00000001000000.000000:000", "99999999235959.999999:000",  // intervals
  };
  for (const char* text : texts) {
    TCIMDateTime parsed(text);
    EXPECT_FALSE(parsed.IsNull()) << text;
    EXPECT_EQ(parsed.ToString(), text);
    EXPECT_EQ(TCIMDateTime(parsed.ToString()), parsed) << text;
  }
}

TEST(DateTimeText, NegativeZeroOffsetIsZero) {
  // What an eight-digit date text becomes: midnight, offset -000.
  TCIMDateTime parsed("20100315000000.000000-000");
  EXPECT_EQ(parsed, TCIMDateTime(2010, 3, 15, 0, 0, 0, 0, 0));
  EXPECT_EQ(parsed.UtcOffsetMinutes(), 0);
  EXPECT_EQ(parsed.ToString(), "20100315000000.000000+000");
}

TEST(DateTimeText, PointAndIntervalFields) {
  TCIMDateTime point("20100315134501.250000-300");
  EXPECT_EQ(point, TCIMDateTime(2010, 3, 15, 13, 45, 1, 250000, -300));
  EXPECT_FALSE(point.IsInterval());
  TCIMDateTime interval("00000001034624.000000:000");
  EXPECT_TRUE(interval.IsInterval());
  EXPECT_EQ(interval, TCIMDateTime(1, 3, 46, 24, 0));
  EXPECT_NE(interval, TCIMDateTime(1, 3, 46, 25, 0));
}

TEST(DateTimeText, MalformedTextsAreCode21) {
  const char* texts[] = {
      "",
      "20100315",                    // short
      "20100315000000.000000+0000",  // long
      "20101315000000.000000+000",   // month 13
      "20100015000000.000000+000",   // month 0
      "20100100000000.000000+000",   // day 0
      "20100132000000.000000+000",   // day 32
      "20100431000000.000000+000",   // April has 30 days
      "20100229000000.000000+000",   // 2010 is not a leap year
      "19000229000000.000000+000",   // nor is 1900
      "20100315240000.000000+000",   // hour 24
      "20100315006000.000000+000",   // minute 60
      "20100315000060.000000+000",   // second 60
      "00000315000000.000000+000",   // year 0
      "20100315000000,000000+000",   // no point
      "20100315000000.000000*000",   // no sign
      "2010031500000a.000000+000",   // letter
      " 0100315000000.000000+000",   // blank
      "00000001240000.000000:000",   // interval hour 24
      "00000001000000.000000:001",   // interval must end in :000
  };
  for (const char* text : texts) EXPECT_EQ(CodeOf(text), 21u) << "'" << text << "'";
}

TEST(DateTimeNumbers, OutOfRangeFieldsAreCode21) {
  struct Case {
    unsigned short year, month;
    unsigned int day;
    unsigned short hour, minute, second;
    unsigned int micro;
    short offset;
  };
  const Case cases[] = {
      {2010, 15, 3, 0, 0, 0, 0, 0},  // 15-03-2010 read as month 15
      {2010, 0, 1, 0, 0, 0, 0, 0},       {2010, 2, 29, 0, 0, 0, 0, 0},
      {2010, 1, 0, 0, 0, 0, 0, 0},       {2010, 1, 1, 24, 0, 0, 0, 0},
      {2010, 1, 1, 0, 60, 0, 0, 0},      {2010, 1, 1, 0, 0, 60, 0, 0},
      {2010, 1, 1, 0, 0, 0, 1000000, 0}, {2010, 1, 1, 0, 0, 0, 0, 1000},
      {2010, 1, 1, 0, 0, 0, 0, -1000},   {10000, 1, 1, 0, 0, 0, 0, 0},
      {0, 1, 1, 0, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    try {
      TCIMDateTime(c.year, c.month, c.day, c.hour, c.minute, c.second, c.micro, c.offset);
      ADD_FAILURE() << c.year << "-" << c.month << "-" << c.day << " accepted";
    } catch (const TTessilException& e) {
      EXPECT_EQ(e.GetStatusCode(), 21u);
    }
  }
  EXPECT_NO_THROW(TCIMDateTime(2012, 2, 29, 23, 59, 59, 999999, -999));
}

TEST(DateTimeNumbers, SetReplacesAndFailedSetKeepsValue) {
  TCIMDateTime value;
  EXPECT_TRUE(value.IsNull());
  value.Set(2010, 3, 15, 1, 2, 3, 4, 60);
  EXPECT_EQ(value.ToString(), "20100315010203.000004+060");
  EXPECT_THROW(value.Set(2010, 15, 3, 0, 0, 0, 0, 0), TTessilException);
  EXPECT_EQ(value.ToString(), "20100315010203.000004+060");
  EXPECT_THROW(TCIMDateTime(0, 24, 0, 0, 0), TTessilException);
}

}  // namespace
