// Typed values: parsing from text per type, text form, arrays, equality.
#include <gtest/gtest.h>

#include "host/cim_value.h"

using NKestovaTessil20::ECIMType;
using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TCIMReference;
using NKestovaTessil20::TCIMValue;
using NKestovaTessil20::TTessilException;
using Type = TCIMValue::TCIMType;
namespace nk = NKestovaTessil20;

namespace {

// 0 when the text parses, else the status code.
std::uint32_t ParseCode(ECIMType type, const std::string& text) {
  try {
    TCIMValue parsed(type, text, {});
  } catch (const TTessilException& e) {
    return e.GetStatusCode();
  }
  return 0;
}

TEST(ValueNumbers, BoundsOfEveryIntegerType) {
  struct Case {
    ECIMType type;
    const char* min;
    const char* max;
    const char* belowMin;
    const char* aboveMax;
  };
  const Case cases[] = {
      {nk::eCIMTypeUInt8, "0", "255", "-1", "256"},
      {nk::eCIMTypeUInt16, "0", "65535", "-1", "65536"},
      {nk::eCIMTypeUInt32, "0", "4294967295", "-1", "4294967296"},
      {nk::eCIMTypeUInt64, "0", "18446744073709551615", "-1", "18446744073709551616"},
      {nk::eCIMTypeSInt8, "-128", "127", "-129", "128"},
      {nk::eCIMTypeSInt16, "-32768", "32767", "-32769", "32768"},
      {nk::eCIMTypeSInt32, "-2147483648", "2147483647", "-2147483649", "2147483648"},
      {nk::eCIMTypeSInt64, "-9223372036854775808", "9223372036854775807", "-9223372036854775809",
       "9223372036854775808"},
  };
  for (const Case& c : cases) {
    const std::string name = Type(c.type).ToString();
    EXPECT_EQ(TCIMValue(c.type, c.min, {}).ToString(), c.min) << name;
    EXPECT_EQ(TCIMValue(c.type, c.max, {}).ToString(), c.max) << name;
    EXPECT_EQ(TCIMValue(c.type, c.max, {}).GetType(), Type(c.type)) << name;
    EXPECT_EQ(ParseCode(c.type, c.belowMin), 22u) << name << " " << c.belowMin;
    EXPECT_EQ(ParseCode(c.type, c.aboveMax), 22u) << name << " " << c.aboveMax;
    EXPECT_EQ(ParseCode(c.type, "99999999999999999999999"), 22u) << name;
  }
}

TEST(ValueNumbers, OnlyPlainDecimalTextIsANumber) {
  const char* notNumbers[] = {"", " 5", "5 ", "0x10", "5a", "1.0", "+", "-", "1e3", "--1"};
  for (const char* text : notNumbers) {
    EXPECT_EQ(ParseCode(nk::eCIMTypeUInt32, text), 20u) << "'" << text << "'";
    EXPECT_EQ(ParseCode(nk::eCIMTypeSInt32, text), 20u) << "'" << text << "'";
  }
  EXPECT_EQ(TCIMValue(nk::eCIMTypeUInt32, "+5", {}).GetUnsigned(), 5u);
  EXPECT_EQ(TCIMValue(nk::eCIMTypeUInt32, "007", {}).GetUnsigned(), 7u);
  EXPECT_EQ(TCIMValue(nk::eCIMTypeUInt32, "-0", {}).GetUnsigned(), 0u);
  EXPECT_EQ(TCIMValue(nk::eCIMTypeSInt16, "-42", {}).GetSigned(), -42);
}

TEST(ValueNumbers, Reals) {
  EXPECT_DOUBLE_EQ(TCIMValue(nk::eCIMTypeReal64, "-1.5e3", {}).GetReal(), -1500.0);
  EXPECT_DOUBLE_EQ(TCIMValue(nk::eCIMTypeReal64, ".25", {}).GetReal(), 0.25);
  EXPECT_EQ(TCIMValue(nk::eCIMTypeReal32, "0.1", {}).ToString(), "0.1");
  EXPECT_EQ(TCIMValue(0.1).ToString(), "0.1");
  EXPECT_EQ(ParseCode(nk::eCIMTypeReal32, "1e39"), 22u);
  EXPECT_EQ(ParseCode(nk::eCIMTypeReal64, "1e400"), 22u);
  for (const char* text : {"", "e5", "1e", "inf", "nan", "1.5 ", "0x1p3"}) {
    EXPECT_EQ(ParseCode(nk::eCIMTypeReal64, text), 20u) << "'" << text << "'";
  }
}

TEST(ValueText, OtherScalarTypes) {
  for (const char* text : {"true", "TRUE", "True", "1"}) {
    EXPECT_TRUE(TCIMValue(nk::eCIMTypeBoolean, text, {}).GetBoolean()) << text;
  }
  for (const char* text : {"false", "FALSE", "0"}) {
    EXPECT_FALSE(TCIMValue(nk::eCIMTypeBoolean, text, {}).GetBoolean()) << text;
  }
  EXPECT_EQ(ParseCode(nk::eCIMTypeBoolean, "yes"), 3u);
  EXPECT_EQ(ParseCode(nk::eCIMTypeBoolean, "2"), 3u);

  EXPECT_EQ(TCIMValue(nk::eCIMTypeString, " as is ", {}).GetString(), " as is ");
  EXPECT_EQ(TCIMValue(nk::eCIMTypeChar16, "x", {}).GetString(), "x");
  EXPECT_EQ(ParseCode(nk::eCIMTypeChar16, "xy"), 3u);
  EXPECT_EQ(TCIMValue(nk::eCIMTypeDateTime, "20100315000000.000000-000", {}).GetDateTime(),
            TCIMDateTime(2010, 3, 15, 0, 0, 0, 0, 0));
  EXPECT_EQ(ParseCode(nk::eCIMTypeDateTime, "20101503000000.000000+000"), 21u);
  EXPECT_EQ(ParseCode(nk::eCIMTypeReference, "Class.Key"), 23u);
}

TEST(ValueText, TextFormAndTypeNames) {
  EXPECT_EQ(TCIMValue(true).ToString(), "true");
  EXPECT_EQ(static_cast<std::string>(TCIMValue(static_cast<unsigned char>(200))), "200");
  EXPECT_EQ(TCIMValue(-5).ToString(), "-5");
  EXPECT_EQ(TCIMValue(TCIMDateTime(1, 2, 3, 4, 5)).ToString(), "00000001020304.000005:000");
  EXPECT_EQ(TCIMValue(TCIMReference("A.k=\"v\"")).ToString(), "A.k=\"v\"");
  EXPECT_EQ(TCIMValue().ToString(), "");

  // Width decides the type of long and unsigned long, so size_t values stay whole.
  EXPECT_EQ(TCIMValue(static_cast<unsigned long>(5)).GetType(),
            Type(sizeof(long) == 8 ? nk::eCIMTypeUInt64 : nk::eCIMTypeUInt32));

  for (int t = nk::eCIMTypeBoolean; t <= nk::eCIMTypeReference; ++t) {
    const Type type(static_cast<ECIMType>(t));
    EXPECT_EQ(Type(type.ToString()), type) << type.ToString();
  }
  EXPECT_EQ(Type("STRING"), Type(nk::eCIMTypeString));
  EXPECT_THROW(Type("text"), TTessilException);
}

TEST(ValueText, NullsAndAccessorMismatch) {
  EXPECT_TRUE(TCIMValue().IsNull());
  EXPECT_TRUE(TCIMValue(TCIMDateTime()).IsNull());
  EXPECT_TRUE(TCIMValue(static_cast<const char*>(nullptr)).IsNull());
  EXPECT_FALSE(TCIMValue("").IsNull());
  try {
    TCIMValue("text").GetUnsigned();
    ADD_FAILURE() << "string read as a number";
  } catch (const TTessilException& e) {
    EXPECT_EQ(e.GetStatusCode(), 4u);
  }
  EXPECT_THROW(TCIMValue(5u).GetSigned(), TTessilException);
  EXPECT_THROW(TCIMValue(5u).GetElements(), TTessilException);
}

TEST(ValueArrays, BuildSetAndCompare) {
  std::vector<TCIMValue> words = {TCIMValue("a"), TCIMValue("b"), TCIMValue("c")};
  TCIMValue array(nk::eCIMTypeString, 3, words);
  EXPECT_TRUE(array.IsArray());
  EXPECT_EQ(array.GetType(), Type(nk::eCIMTypeString));
  EXPECT_EQ(array.GetElements().size(), 3u);
  EXPECT_EQ(array.ToString(), "a,b,c");
  EXPECT_THROW(array.GetString(), TTessilException);

  TCIMValue set;
  set.Set(nk::eCIMTypeString, 3, words);
  EXPECT_EQ(set, array);
  EXPECT_NE(set, TCIMValue("a,b,c"));
  set.Set(nk::eCIMTypeString, 2, {TCIMValue("a"), TCIMValue("b")});
  EXPECT_NE(set, array);

  TCIMValue empty(nk::eCIMTypeUInt32, 0, {});
  EXPECT_FALSE(empty.IsNull());
  EXPECT_EQ(empty.ToString(), "");

  EXPECT_THROW(TCIMValue(nk::eCIMTypeString, 2, words), TTessilException);  // count
  EXPECT_THROW(TCIMValue(nk::eCIMTypeString, 1, {TCIMValue(1u)}), TTessilException);
}

TEST(ValueCompare, TypeAndValueBothCount) {
  EXPECT_EQ(TCIMValue("x"), TCIMValue(std::string("x")));
  EXPECT_NE(TCIMValue(5u), TCIMValue(5ull));  // uint32 is not uint64
  EXPECT_NE(TCIMValue(5u), TCIMValue(6u));
  EXPECT_EQ(TCIMValue(), TCIMValue());
  EXPECT_NE(TCIMValue(), TCIMValue(""));
}

}  // namespace
