// Performance counters of a recorded machine: counter paths and recorded statuses.
#include <string>

#include <gtest/gtest.h>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

std::shared_ptr<RecordedMachine> WithPdh(const std::string& pdh) {
  return RecordedMachine::FromFiles({{"machine.json", "{\"pdh\": " + pdh + "}"}});
}

const char* kUpTime =
    R"({"counters": {"\\System\\System Up Time": {"type": "0x30240500", "value": 100000}}})";

TEST(MachinePdh, MakeCounterPathAsksForMoreRoom) {
  auto m = WithPdh(kUpTime);
  char object[] = "System", counter[] = "System Up Time", instance[] = "_Total", parent[] = "cpu",
       machine[] = "BOX";
  struct Case {
    PDH_COUNTER_PATH_ELEMENTS_A elements;
    const char* path;
  };
  const Case cases[] = {
      {{nullptr, object, nullptr, nullptr, 0, counter}, "\\System\\System Up Time"},
      {{machine, object, instance, nullptr, 0, counter}, "\\\\BOX\\System(_Total)\\System Up Time"},
      {{nullptr, object, instance, parent, 2, counter}, "\\System(cpu/_Total#2)\\System Up Time"},
  };
  for (Case c : cases) {
    SCOPED_TRACE(c.path);
    const DWORD needed = static_cast<DWORD>(std::string(c.path).size() + 1);
    char small[4];
    DWORD size = sizeof small;
    EXPECT_EQ(m->pdh().PdhMakeCounterPathA(&c.elements, small, &size, 0), PDH_MORE_DATA);
    EXPECT_EQ(size, needed);
    std::string buffer(size, 'x');
    ASSERT_EQ(m->pdh().PdhMakeCounterPathA(&c.elements, buffer.data(), &size, 0), 0);
    EXPECT_STREQ(buffer.c_str(), c.path);
  }
}

TEST(MachinePdh, UpTimeReadsThroughTheQuery) {
  auto m = WithPdh(kUpTime);
  Pdh& pdh = m->pdh();
  PDH_HQUERY query = nullptr;
  PDH_HCOUNTER counter = nullptr;
  ASSERT_EQ(pdh.PdhOpenQueryA(nullptr, 0, &query), 0);
  ASSERT_EQ(pdh.PdhAddCounterA(query, "\\system\\system up time", 0, &counter), 0);
  alignas(8) BYTE info[2048 + 112];
  DWORD size = sizeof info;
  ASSERT_EQ(
      pdh.PdhGetCounterInfoA(counter, FALSE, &size, reinterpret_cast<PDH_COUNTER_INFO_A*>(info)),
      0);
  EXPECT_EQ(reinterpret_cast<PDH_COUNTER_INFO_A*>(info)->dwType, 0x30240500u);
  PDH_FMT_COUNTERVALUE value{};
  DWORD type = 0;
  // Before collecting there is no valid value.
  EXPECT_NE(pdh.PdhGetFormattedCounterValue(counter, PDH_FMT_LARGE, &type, &value), 0);
  ASSERT_EQ(pdh.PdhCollectQueryData(query), 0);
  ASSERT_EQ(pdh.PdhGetFormattedCounterValue(counter, PDH_FMT_LARGE, &type, &value), 0);
  EXPECT_EQ(value.largeValue, 100000);
  EXPECT_EQ(pdh.PdhRemoveCounter(counter), 0);
  EXPECT_EQ(pdh.PdhRemoveCounter(counter), PDH_INVALID_HANDLE);
  EXPECT_EQ(pdh.PdhAddCounterA(query, "\\Memory\\Pages/sec", 0, &counter), PDH_CSTATUS_NO_OBJECT);
}

TEST(MachinePdh, RecordedStatusesReplaceTheAnswers) {
  struct Case {
    const char* call;
    PDH_STATUS status;
    int step;  // which of the calls below answers it
  };
  const Case cases[] = {{"addCounter", PDH_CSTATUS_NO_COUNTER, 0},
                        {"collectQueryData", PDH_CSTATUS_INVALID_DATA, 1},
                        {"getFormattedCounterValue", PDH_CSTATUS_NO_INSTANCE, 2},
                        {"removeCounter", PDH_INVALID_HANDLE, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.call);
    auto m = WithPdh(std::string(R"({"status": {")") + c.call +
                     "\": " + std::to_string(static_cast<std::uint32_t>(c.status)) +
                     R"(}, "counters": {"\\System\\System Up Time": {"type": 0, "value": 1}}})");
    Pdh& pdh = m->pdh();
    PDH_HQUERY query = nullptr;
    PDH_HCOUNTER counter = nullptr;
    PDH_FMT_COUNTERVALUE value{};
    pdh.PdhOpenQueryA(nullptr, 0, &query);
    const PDH_STATUS statuses[] = {
        pdh.PdhAddCounterA(query, "\\System\\System Up Time", 0, &counter),
        pdh.PdhCollectQueryData(query),
        pdh.PdhGetFormattedCounterValue(counter, PDH_FMT_LONG, nullptr, &value),
        pdh.PdhRemoveCounter(counter)};
    for (int i = 0; i < 4 && i <= c.step; ++i)
      EXPECT_EQ(statuses[i], i == c.step ? c.status : 0) << "call " << i;
  }
}

// A counter's value answers every format: PDH_FMT_LARGE takes it toward zero. One that the
// formats cannot all carry is refused, with the counter named.
TEST(MachinePdh, CounterValueMustFitEveryFormat) {
  struct Case {
    const char* value;    // JSON text, or null for none
    const char* refusal;  // null: loads, and answers `large` and `real`
    LONGLONG large;
    double real;
  };
  const char* const kOutOfRange = "expected a number within the range of a 64-bit integer";
  const Case cases[] = {
      {nullptr, "expected a number", 0, 0},
      {"1e300", kOutOfRange, 0, 0},
      {"-1e19", kOutOfRange, 0, 0},
      // The largest 64-bit integer written as a double rounds up to 2^63.
      {"9223372036854775807.0", kOutOfRange, 0, 0},
      {"9223372036854775808", "expected an integer between", 0, 0},
      {"-9223372036854775808.0", nullptr, INT64_MIN, -9223372036854775808.0},
      {"9223372036854775807", nullptr, INT64_MAX, 9223372036854775807.0},
      {"-2.75", nullptr, -2, -2.75},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(none)");
    const std::string counter =
        c.value ? std::string(R"({"type": 0, "value": )") + c.value + "}" : R"({"type": 0})";
    const std::string pdh = R"({"counters": {"\\System\\Up": )" + counter + "}}";
    if (c.refusal) {
      try {
        WithPdh(pdh);
        ADD_FAILURE() << "loaded";
      } catch (const RecordError& e) {
        EXPECT_EQ(
            std::string(e.what()).rfind(
                std::string("machine.json: pdh.counters.\\System\\Up.value: ") + c.refusal, 0),
            0u)
            << e.what();
      }
      continue;
    }
    auto m = WithPdh(pdh);
    PDH_HQUERY query = nullptr;
    PDH_HCOUNTER handle = nullptr;
    ASSERT_EQ(m->pdh().PdhOpenQueryA(nullptr, 0, &query), 0);
    ASSERT_EQ(m->pdh().PdhAddCounterA(query, "\\System\\Up", 0, &handle), 0);
    ASSERT_EQ(m->pdh().PdhCollectQueryData(query), 0);
    PDH_FMT_COUNTERVALUE value{};
    ASSERT_EQ(m->pdh().PdhGetFormattedCounterValue(handle, PDH_FMT_LARGE, nullptr, &value), 0);
    EXPECT_EQ(value.largeValue, c.large);
    ASSERT_EQ(m->pdh().PdhGetFormattedCounterValue(handle, PDH_FMT_DOUBLE, nullptr, &value), 0);
    EXPECT_EQ(value.doubleValue, c.real);
  }
}

}  // namespace
