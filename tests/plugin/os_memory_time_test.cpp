// Memory, performance and up-time figures of the operating system on recorded machines, and
// the PDH status lines that every counter call leaves in the log.
#include <optional>

#include "collectors/os/memory_utilization.h"
#include "collectors/os/os_performance_params.h"
#include "collectors/os/os_time_info.h"
#include "collectors/os/pdh_status.h"
#include "platform/recorded/machine_pdh.h"
#include "plugin/frame_fixture.h"

namespace {

using namespace platform;
using installedapps_col::PropertyMap;
using NKestovaTessil20::TCIMValue;
using Strings = std::vector<std::string>;

// PDH with no counters whose counter-path call always wants `wants` bytes more.
struct GreedyPdh : recorded::RecordedPdh {
  GreedyPdh() : RecordedPdh(recorded::PdhFacts{}) {}
  DWORD wants = 0;
  std::vector<DWORD> sizes;
  PDH_STATUS PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A*, char*, DWORD* size, DWORD) override {
    sizes.push_back(*size);
    *size = wants;
    return PDH_MORE_DATA;
  }
};

// A recorded machine, with the greedy PDH in place of its own when a test asks for it.
struct OsMachine : Machine {
  explicit OsMachine(const std::string& json)
      : base(recorded::RecordedMachine::FromFiles({{"machine.json", json}})) {}
  std::shared_ptr<Machine> base;
  std::optional<GreedyPdh> greedy;
  Registry& registry() override { return base->registry(); }
  System& system() override { return base->system(); }
  Pdh& pdh() override { return greedy ? *greedy : base->pdh(); }
  NetApi& net() override { return base->net(); }
  Wmi& wmi() override { return base->wmi(); }
  Setup& setup() override { return base->setup(); }
};

// The up-time counter with its type and value, and the statuses forced on its calls.
std::string upTime(const std::string& type, const std::string& value,
                   const std::string& status = "{}") {
  return R"({"counters": {"\\System\\System Up Time": {"type": )" + type + ", \"value\": " + value +
         "}}, \"status\": " + status + "}";
}

class OsMemoryTimeTest : public FrameTest {
 protected:
  // 2010-03-15 12:00:00 UTC, local time equal to UTC unless `system` gives a zone.
  OsMachine& install(const std::string& system, const std::string& pdh = "null") {
    auto machine = std::make_shared<OsMachine>(
        R"({"system": {"utcTime": "2010-03-15T12:00:00Z", "crt": {"timezone": 0})" + system +
        R"(}, "pdh": )" + pdh + "}");
    Machine::Install(machine);
    return *machine;
  }
  // UpTime and LastBootUpTime as CIM text, "-" when absent.
  static std::pair<std::string, std::string> upAndBoot() {
    installedapps_col::OSTimeInfo time;
    PropertyMap up = time.getUpTimeProperties(), boot = time.getBootProperties();
    return {up.count("UpTime") ? up["UpTime"].ToString() : "-",
            boot.count("LastBootUpTime") ? boot["LastBootUpTime"].ToString() : "-"};
  }
};

const char kSuccess[] = "pdhStatus=ERROR_SUCCESS";
const char kNoCounter[] =
    "pdhStatus=PDH_CSTATUS_NO_COUNTER  The specified counter was not found in the specified "
    "object.";
const char kNoObject[] =
    "pdhStatus=PDH_CSTATUS_NO_OBJECT  The specified machine was found, but no matching "
    "performance object was found on that machine.";
const char kInvalidHandle[] = "pdhStatus=PDH_INVALID_HANDLE";
const char kNegativeValue[] = "pdhStatus=PDH_CALC_NEGATIVE_VALUE A counter has a negative value.";
const char kMoreData[] =
    "pdhStatus=PDH_MORE_DATA  The supplied buffer was not large enough to store all of the "
    "counter data. Allocate a larger buffer and execute the function again. ";

TEST_F(OsMemoryTimeTest, PdhStatusLinesKeepTheirBlanks) {
  const std::pair<std::uint32_t, const char*> cases[] = {
      {0, kSuccess},
      {0x800007D2, kMoreData},
      {0xC0000BB9, kNoCounter},
      {0xC0000BB8, kNoObject},
      {0x800007D8, kNegativeValue},
      {0xC0000BBC, kInvalidHandle},
      {0xC0000BBE, "Unable to Determine pdhStatus (pdhStatus= -1073738818)"},
      {2, "Unable to Determine pdhStatus (pdhStatus= 2)"},
  };
  for (const auto& [status, line] : cases) {
    host().ClearLog();
    installedapps_col::logPdhStatus(installedapps_col::LogMessage::instance(),
                                    static_cast<PDH_STATUS>(status));
    EXPECT_EQ(host().GetLog().size(), 1u);
    EXPECT_EQ(messages(4), Strings{line});
  }
}

TEST_F(OsMemoryTimeTest, MemoryInKibibytesTruncated) {
  const Strings names = {"TotalVisibleMemorySize",  "FreePhysicalMemory",
                         "SizeStoredInPagingFiles", "FreeSpaceInPagingFiles",
                         "TotalVirtualMemorySize",  "FreeVirtualMemory"};
  const Strings fields = {"totalPhys",     "availPhys",    "totalPageFile",
                          "availPageFile", "totalVirtual", "availVirtual"};
  const std::pair<unsigned long long, unsigned long long> cases[] = {
      {1073741823, 1048575}, {~0ull, ~0ull >> 10}, {1023, 0}};
  for (const auto& [bytes, kib] : cases) {
    std::string status = R"(, "memoryStatus": {"memoryLoad": 51)";
    for (const std::string& field : fields)
      status += ", \"" + field + "\": " + std::to_string(bytes);
    install(status + "}");
    PropertyMap expected{{"MemoryLoad", TCIMValue(51u)}};
    for (const std::string& name : names) expected[name] = TCIMValue(kib);
    EXPECT_EQ(installedapps_col::MemoryUtilization().getMemoryProperties(), expected) << bytes;
  }
  install(R"(, "memoryStatus": {"error": 5})");
  EXPECT_TRUE(installedapps_col::MemoryUtilization().getMemoryProperties().empty());
  EXPECT_TRUE(host().GetLog().empty());
}

TEST_F(OsMemoryTimeTest, PerformanceScaledByPageSizeCutTo32Bits) {
  struct Case {
    std::uint64_t pageSize, commitTotal, handleCount;
    unsigned handleKiB, commitKiB, pageSizeValue;
  };
  const Case cases[] = {
      {4096, 961046, 1000, 4000, 3844184, 4096},
      {4096, (1ull << 30) + 5, 0, 0, 20, 4096},  // 2^32 + 20 KiB keeps its low 32 bits
      {0, 961046, 1000, 0, 0, 0},
      {8192, 3, 0xFFFFFFFF, 0xFFFFFFF8, 24, 8192},
  };
  for (const Case& c : cases) {
    install(R"(, "version": {"major": 6, "minor": 1}, "psapi": {"performanceInfo": {"pageSize": )" +
            std::to_string(c.pageSize) + ", \"commitTotal\": " + std::to_string(c.commitTotal) +
            ", \"handleCount\": " + std::to_string(c.handleCount) + "}}");
    PropertyMap map = installedapps_col::OSPerformanceParams().getPerformanceProperties();
    ASSERT_EQ(map.size(), 13u);
    EXPECT_EQ(map["HandleCount"], TCIMValue(c.handleKiB)) << c.pageSize;
    EXPECT_EQ(map["CommitTotal"], TCIMValue(c.commitKiB)) << c.pageSize;
    EXPECT_EQ(map["PageSize"], TCIMValue(c.pageSizeValue)) << c.pageSize;
  }
}

TEST_F(OsMemoryTimeTest, NoPerformanceBeforeFiveOneOrWithoutPsapi) {
  const std::string v61 = R"(, "version": {"major": 6, "minor": 1})",
                    psapi = R"(, "psapi": {"performanceInfo": {}})";
  const std::pair<std::string, std::size_t> cases[] = {
      {R"(, "version": {"major": 5, "minor": 1})" + psapi, 13},
      {R"(, "version": {"major": 5, "minor": 0})" + psapi, 0},
      {v61 + R"(, "psapi": {"performanceInfo": {"error": 31}})", 0},
      {v61 + R"(, "psapi": {"enumPageFiles": true})", 0},
      {v61, 0},
  };
  for (const auto& [system, size] : cases) {
    install(system);
    EXPECT_EQ(installedapps_col::OSPerformanceParams().getPerformanceProperties().size(), size)
        << system;
  }
  // The fake's version check fails: psapi is not even loaded.
  Machine::Install(machine);
  machine->fake.has = [](const std::string&) { return true; };
  EXPECT_TRUE(installedapps_col::OSPerformanceParams().getPerformanceProperties().empty());
  EXPECT_EQ(machine->fake.loadCalls, 0);
}

TEST_F(OsMemoryTimeTest, EveryCounterCallLoggedInOrder) {
  install("", upTime("0", "100000",
                     R"({"getCounterInfo": "0xC0000BBC", "getFormattedCounterValue": "0x800007D8",
                         "removeCounter": "0xC0000BB9"})"));
  installedapps_col::OSTimeInfo().getUpTime(false);
  EXPECT_EQ(messages(4),
            (Strings{kSuccess, kSuccess, kInvalidHandle, kSuccess, kNegativeValue, kNoCounter}));

  // A counter that cannot be added is not read: up for no time, so booted now.
  install("", upTime("0", "100000", R"({"addCounter": "0xC0000BB9"})"));
  host().ClearLog();
  EXPECT_EQ(upAndBoot(), std::make_pair(std::string("00000000000000.000000:000"),
                                        std::string("20100315120000.000000+000")));
  EXPECT_EQ(messages(4),
            (Strings{kSuccess, kNoCounter, kInvalidHandle, kSuccess, kNoCounter, kInvalidHandle}));
}

TEST_F(OsMemoryTimeTest, PathAskedForOnceMoreWithABoundedSize) {
  for (DWORD wants : {24u, 0u, 0xFFFFFFFFu}) {
    OsMachine& machine = install("");
    machine.greedy.emplace().wants = wants;
    host().ClearLog();
    EXPECT_EQ(installedapps_col::OSTimeInfo().getUpTime(false).ToString(),
              "00000000000000.000000:000");
    EXPECT_EQ(machine.greedy->sizes,
              (std::vector<DWORD>{2048, std::min<DWORD>(std::max<DWORD>(wants, 1), 65536)}));
    EXPECT_EQ(messages(4), (Strings{kMoreData, kMoreData, kNoObject, kInvalidHandle}));
  }
}

TEST_F(OsMemoryTimeTest, UpTimeIsTheCountersLongMember) {
  struct Case {
    const char *type, *value, *upTime, *boot;
  };
  const Case cases[] = {
      {"0", "100000", "00000001034624.000000:000", "20100314081320.000000+000"},
      {"\"0x30240500\"", "21474936480", "00000001034624.000000:000",  // 5 * 2^32 + 100000
       "20100314081320.000000+000"},
      {"\"0x200\"", "100000.0", "00000001034624.000000:000", "20100314081320.000000+000"},
      // A double's long member is the low half of its bits: 0 here, -2^30 for 3e9.
      {"\"0x300\"", "100000.0", "00000000000000.000000:000", "20100315120000.000000+000"},
      {"\"0xFFFFFFFF\"", "3e9", "-", "20440324013704.000000+000"},
      {"0", "-1", "00000000000015.000000:000", "20100315120001.000000+000"},
      {"0", "-100000", "-", "20100316154640.000000+000"},
      {"0", "-2147483648", "-", "20780402151408.000000+000"},
      {"0", "2147483647", "00024855033815.000000:000", "-"},  // booted before 1970
  };
  for (const Case& c : cases) {
    install("", upTime(c.type, c.value));
    EXPECT_EQ(upAndBoot(), std::make_pair(std::string(c.upTime), std::string(c.boot))) << c.value;
  }
}

TEST_F(OsMemoryTimeTest, UtcOffsetFollowsTheZoneResult) {
  struct Case {
    int bias, daylightBias;
    const char* result;
    std::int16_t offset;
    const char* boot;
  };
  const Case cases[] = {
      {-60, -60, "1", 60, "20100315130000.000000+060"},
      {-60, -60, "2", 120, "20100315130000.000000+120"},
      {300, -60, "2", -240, "20100315070000.000000-240"},
      {-60, -60, "0", 0, "20100315130000.000000+000"},
      {-1440, -1440, "2", 2880, "-"},  // beyond what a CIM date-time holds
  };
  for (const Case& c : cases) {
    // Without daylight rules the standard bias moves no clock, and the offset ignores it.
    install(R"(, "timeZone": {"standardBias": 30, "bias": )" + std::to_string(c.bias) +
            ", \"daylightBias\": " + std::to_string(c.daylightBias) + ", \"result\": " + c.result +
            "}");
    EXPECT_EQ(installedapps_col::OSTimeInfo().getUtcOffset(), c.offset) << c.bias << c.result;
    EXPECT_EQ(upAndBoot().second, c.boot) << c.bias << c.result;
  }
}

}  // namespace
