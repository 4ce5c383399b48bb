// Property maps to committed instances: fix-up, typed conversion, arrays and dates.
#include <algorithm>

#include "common/get_info.h"
#include "plugin/frame_fixture.h"

namespace {

using installedapps_col::GetInfo;
using installedapps_col::PropertyMap;
using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TCIMValue;

const char kWidgetMof[] = R"(
class Test_Widget
{
  [Key] string Id;
  string Label;
  string Vendor;
  uint32 Count;
  datetime Installed;
  uint16 Codes[];
  string Tags[];
};
)";

class CollectorBaseTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    const auto names = host().GetClassNames();
    if (std::find(names.begin(), names.end(), "Test_Widget") == names.end()) {
      host().LoadSchemaText("widget.mof", kWidgetMof);  // the schema outlives Reset()
    }
    machine->fake.timezoneSeconds = 5 * 3600;  // five hours west of UTC
    info.reset(new GetInfo(hostClass("Test_Widget")));
  }

  boost::shared_ptr<NKestovaTessil20::ICIMInstance> build(const PropertyMap& properties) {
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    info->buildInstance(instance, properties, "Test_Widget");
    return instance;
  }

  TCIMValue convert(const std::string& property, const std::string& text) {
    TCIMValue value;
    info->getCIMValueForProperty(value, property, text);
    return value;
  }

  std::vector<std::string> fixUps() const {
    std::vector<std::string> out;
    for (const std::string& message : messages(3)) {
      if (message.rfind("Fixing up", 0) == 0) out.push_back(message);
    }
    return out;
  }

  std::unique_ptr<GetInfo> info;
};

TEST_F(CollectorBaseTest, FullMapIsSetAsGivenWithoutFixUp) {
  const auto instance = build({{"Id", "w1"},
                               {"Label", "a"},
                               {"Vendor", "v"},
                               {"Count", TCIMValue(7u)},
                               {"Installed", TCIMValue()},
                               {"Codes", TCIMValue()},
                               {"Tags", TCIMValue()}});
  EXPECT_TRUE(fixUps().empty());
  EXPECT_EQ(property(instance, "Label"), "a");
  EXPECT_EQ(property(instance, "Count"), "7");
  EXPECT_TRUE(instance->IsCommitted());
}

TEST_F(CollectorBaseTest, UnsetStringsBecomeEmptyOtherTypesStayUnset) {
  const auto instance = build({{"Id", "w1"}, {"Vendor", TCIMValue()}, {"Codes", TCIMValue()}});
  EXPECT_EQ(property(instance, "Label"), "");
  EXPECT_EQ(property(instance, "Tags"), "");  // a string array too: one empty element
  EXPECT_EQ(property(instance, "Count"), "<unset>");
  EXPECT_EQ(property(instance, "Installed"), "<unset>");
  // Named in the map with a null value: neither set nor fixed up.
  EXPECT_EQ(property(instance, "Vendor"), "<unset>");
  EXPECT_EQ(fixUps(),
            (std::vector<std::string>{"Fixing up instance ...Test_Widget with propertyLabel",
                                      "Fixing up instance ...Test_Widget with propertyTags"}));
}

TEST_F(CollectorBaseTest, FixUpAnswersOneConstantPerFixedProperty) {
  boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
  hostClass("Test_Widget")->CreateInstance(instance, {});
  std::vector<std::string> fixed;
  info->fixUpInstance(fixed, instance,
                      {{"Id", "w1"}, {"Codes", TCIMValue()}, {"Tags", TCIMValue()}});
  EXPECT_EQ(fixed, (std::vector<std::string>{"ProductName", "ProductName"}));
}

struct Conversion {
  const char* property;
  const char* text;
  const char* expected;  // value text; null: a null value
};

class ConversionTest : public CollectorBaseTest,
                       public ::testing::WithParamInterface<Conversion> {};

TEST_P(ConversionTest, TextBecomesTheDeclaredType) {
  const Conversion& c = GetParam();
  const TCIMValue value = convert(c.property, c.text);
  if (c.expected == nullptr) {
    EXPECT_TRUE(value.IsNull()) << value.ToString();
  } else {
    ASSERT_FALSE(value.IsNull());
    EXPECT_EQ(value.ToString(), c.expected);
    const std::string property = c.property;
    EXPECT_EQ(value.IsArray(), property == "Codes" || property == "Tags");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ConversionTest,
    ::testing::Values(Conversion{"Count", "42", "42"}, Conversion{"Label", "x y", "x y"},
                      Conversion{"Undeclared", "1", nullptr},
                      // Empty pieces are dropped; the last piece counts without a comma.
                      Conversion{"Codes", "1,,2,3", "1,2,3"}, Conversion{"Tags", "a,,b,c", "a,b,c"},
                      Conversion{"Tags", "", ""},  // an empty list, not null
                      Conversion{"Installed", "3/15/2010", "20100315000000.000000-300"},
                      Conversion{"Installed", "Mar 15 2010", nullptr}));

TEST_F(CollectorBaseTest, UnconvertibleTextIsLoggedAndLeftNull) {
  EXPECT_TRUE(convert("Count", "lots").IsNull());
  EXPECT_EQ(messages(3),
            std::vector<std::string>{"Error processing property Test_Widget. Count= lots"});
  ASSERT_EQ(messages(0).size(), 1u);
  EXPECT_FALSE(messages(0)[0].empty());
}

TEST_F(CollectorBaseTest, WithoutAClassNothingConvertsAndGetClassThrowsSeven) {
  GetInfo empty{boost::shared_ptr<NKestovaTessil20::ICIMClass>()};
  TCIMValue value("stale");
  empty.getCIMValueForProperty(value, "Count", "1");
  EXPECT_TRUE(value.IsNull());
  try {
    empty.getClass();
    FAIL() << "no exception";
  } catch (const NKestovaTessil20::TTessilException& e) {
    EXPECT_EQ(e.GetStatusCode().GetCode(), 7u);
    EXPECT_EQ(std::string(e.what()), e.GetStatusCode().TranslateStatusCode());
  }
}

// Dates: the three shapes and the zone rules.
struct TextDate {
  const char* text;
  long timezone;
  int daylight;
  const char* expected;  // CIM text; null: a null date-time
};

class TextDateTest : public CollectorBaseTest, public ::testing::WithParamInterface<TextDate> {};

TEST_P(TextDateTest, Parses) {
  const TextDate& c = GetParam();
  machine->fake.timezoneSeconds = c.timezone;
  machine->fake.daylight = c.daylight;
  const TCIMDateTime date = info->getCIMDateTime(std::string(c.text));
  if (c.expected == nullptr) {
    EXPECT_TRUE(date.IsNull()) << date.ToString();
  } else {
    EXPECT_EQ(date.ToString(), c.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, TextDateTest,
    ::testing::Values(
        TextDate{"3/15/2010", 18000, 0, "20100315000000.000000-300"},
        // A zone with daylight saving at all is one hour further east, whatever the date.
        TextDate{"3/15/2010", 18000, 1, "20100315000000.000000-240"},
        TextDate{"1/2/2010", -3600, 0, "20100102000000.000000+060"},
        // Midnight at UTC whatever the zone; the host writes offset -000 as +000.
        TextDate{"20100315", 18000, 0, "20100315000000.000000+000"},
        TextDate{"20101231", 0, 0, "20101231000000.000000+000"},
        // Eight digits that are no date, and digits that are not eight, read as nothing.
        TextDate{"20100230", 0, 0, nullptr}, TextDate{"00000315", 0, 0, nullptr},
        TextDate{"20101315", 0, 0, nullptr}, TextDate{"2010031", 0, 0, nullptr},
        TextDate{"201003150", 0, 0, nullptr}, TextDate{"2010 315", 0, 0, nullptr},
        TextDate{"3-15-2010", 0, 0, "20100315000000.000000+000"},
        TextDate{"3/15/2010/extra", 0, 0, "20100315000000.000000+000"},
        TextDate{"Mar 15 2010", 0, 0, nullptr}, TextDate{"3/15", 0, 0, nullptr},
        TextDate{"", 0, 0, nullptr}));

TEST_F(CollectorBaseTest, DayFirstTextIsRejectedWithOneMessage) {
  EXPECT_TRUE(info->getCIMDateTime(std::string("15-03-2010")).IsNull());
  EXPECT_EQ(messages(3),
            std::vector<std::string>{"InstalledAppInfo::geNKestovaTessil20::TCIMValueForProperty "
                                     "Encountered an unknown date time format ->15-03-2010"});
}

TEST_F(CollectorBaseTest, LettersWithoutSeparatorsLogNothing) {
  info->getCIMDateTime(std::string("Mar 15 2010"));
  EXPECT_TRUE(host().GetLog().empty());
}

struct SecondsDate {
  unsigned int seconds;
  long timezone;
  const char* expected;
};

class SecondsDateTest : public CollectorBaseTest,
                        public ::testing::WithParamInterface<SecondsDate> {};

TEST_P(SecondsDateTest, ConvertsAsLocalTime) {
  const SecondsDate& c = GetParam();
  machine->fake.timezoneSeconds = c.timezone;
  EXPECT_EQ(info->getCIMDateTime(c.seconds).ToString(), c.expected);
  EXPECT_EQ(messages(3).front(), "GetInfo::getCIMDateTime -> dateAsLongMsg");
  EXPECT_EQ(messages(4), std::vector<std::string>{"Successfully parsed the date and/or time"});
}

INSTANTIATE_TEST_SUITE_P(
    Zones, SecondsDateTest,
    ::testing::Values(SecondsDate{1268611200, 0, "20100315000000.000000+000"},
                      // Zero stands for the zone's offset: local midnight, 1 January 1970.
                      SecondsDate{0, 18000, "19700101000000.000000-300"},
                      // East of UTC the negative offset wraps into 2106.
                      SecondsDate{0, -3600, "21060207062816.000000+060"}));

TEST_F(CollectorBaseTest, UnconvertibleSecondsGiveNullAndAMessage) {
  machine->fake.timezoneSeconds = 100;  // the fake fails for times before its zone's epoch
  EXPECT_TRUE(info->getCIMDateTime(50u).IsNull());
  EXPECT_EQ(messages(3).back(), "Date time information was generated incorrectly.");
}

}  // namespace
