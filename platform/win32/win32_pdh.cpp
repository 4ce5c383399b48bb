// Performance counters of the live machine (pdh.dll). Kept apart from the network calls:
// <pdh.h> and <lm.h> do not build together.
#include "platform/pdh.h"
#include "platform/win32/live_families.h"

namespace {
// Our constants, taken before <pdh.h> and <pdhmsg.h> turn the same names into macros.
namespace ours {
constexpr platform::PDH_STATUS kValidData = platform::PDH_CSTATUS_VALID_DATA;
constexpr platform::PDH_STATUS kNewData = platform::PDH_CSTATUS_NEW_DATA;
constexpr platform::PDH_STATUS kNoMachine = platform::PDH_CSTATUS_NO_MACHINE;
constexpr platform::PDH_STATUS kNoInstance = platform::PDH_CSTATUS_NO_INSTANCE;
constexpr platform::PDH_STATUS kMoreData = platform::PDH_MORE_DATA;
constexpr platform::PDH_STATUS kNoObject = platform::PDH_CSTATUS_NO_OBJECT;
constexpr platform::PDH_STATUS kNoCounter = platform::PDH_CSTATUS_NO_COUNTER;
constexpr platform::PDH_STATUS kInvalidData = platform::PDH_CSTATUS_INVALID_DATA;
constexpr platform::PDH_STATUS kMemoryAllocationFailure = platform::PDH_MEMORY_ALLOCATION_FAILURE;
constexpr platform::PDH_STATUS kInvalidHandle = platform::PDH_INVALID_HANDLE;
constexpr platform::PDH_STATUS kInvalidArgument = platform::PDH_INVALID_ARGUMENT;
constexpr platform::PDH_STATUS kBadCounterName = platform::PDH_CSTATUS_BAD_COUNTERNAME;
constexpr platform::DWORD kFmtLong = platform::PDH_FMT_LONG;
constexpr platform::DWORD kFmtDouble = platform::PDH_FMT_DOUBLE;
constexpr platform::DWORD kFmtLarge = platform::PDH_FMT_LARGE;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there.
#include <windows.h>

#include <pdh.h>
#include <pdhmsg.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kValidData == static_cast<LONG>(PDH_CSTATUS_VALID_DATA), "status");
static_assert(ours::kNewData == static_cast<LONG>(PDH_CSTATUS_NEW_DATA), "status");
static_assert(ours::kNoMachine == static_cast<LONG>(PDH_CSTATUS_NO_MACHINE), "status");
static_assert(ours::kNoInstance == static_cast<LONG>(PDH_CSTATUS_NO_INSTANCE), "status");
static_assert(ours::kMoreData == static_cast<LONG>(PDH_MORE_DATA), "status");
static_assert(ours::kNoObject == static_cast<LONG>(PDH_CSTATUS_NO_OBJECT), "status");
static_assert(ours::kNoCounter == static_cast<LONG>(PDH_CSTATUS_NO_COUNTER), "status");
static_assert(ours::kInvalidData == static_cast<LONG>(PDH_CSTATUS_INVALID_DATA), "status");
static_assert(ours::kMemoryAllocationFailure == static_cast<LONG>(PDH_MEMORY_ALLOCATION_FAILURE),
              "status");
static_assert(ours::kInvalidHandle == static_cast<LONG>(PDH_INVALID_HANDLE), "status");
static_assert(ours::kInvalidArgument == static_cast<LONG>(PDH_INVALID_ARGUMENT), "status");
static_assert(ours::kBadCounterName == static_cast<LONG>(PDH_CSTATUS_BAD_COUNTERNAME), "status");
static_assert(ours::kFmtLong == PDH_FMT_LONG && ours::kFmtDouble == PDH_FMT_DOUBLE &&
                  ours::kFmtLarge == PDH_FMT_LARGE,
              "format");

static_assert(sizeof(platform::PDH_COUNTER_PATH_ELEMENTS_A) ==
                  sizeof(::PDH_COUNTER_PATH_ELEMENTS_A),
              "PDH_COUNTER_PATH_ELEMENTS_A");
static_assert(offsetof(platform::PDH_COUNTER_PATH_ELEMENTS_A, dwInstanceIndex) ==
                  offsetof(::PDH_COUNTER_PATH_ELEMENTS_A, dwInstanceIndex),
              "PDH_COUNTER_PATH_ELEMENTS_A::dwInstanceIndex");
static_assert(offsetof(platform::PDH_COUNTER_PATH_ELEMENTS_A, szCounterName) ==
                  offsetof(::PDH_COUNTER_PATH_ELEMENTS_A, szCounterName),
              "PDH_COUNTER_PATH_ELEMENTS_A::szCounterName");
static_assert(sizeof(platform::PDH_COUNTER_INFO_A) == sizeof(::PDH_COUNTER_INFO_A),
              "PDH_COUNTER_INFO_A");
static_assert(offsetof(platform::PDH_COUNTER_INFO_A, szFullPath) ==
                  offsetof(::PDH_COUNTER_INFO_A, szFullPath),
              "PDH_COUNTER_INFO_A::szFullPath");
static_assert(offsetof(platform::PDH_COUNTER_INFO_A, szMachineName) ==
                  offsetof(::PDH_COUNTER_INFO_A, CounterPath.szMachineName),
              "PDH_COUNTER_INFO_A::szMachineName");
static_assert(offsetof(platform::PDH_COUNTER_INFO_A, szCounterName) ==
                  offsetof(::PDH_COUNTER_INFO_A, CounterPath.szCounterName),
              "PDH_COUNTER_INFO_A::szCounterName");
static_assert(offsetof(platform::PDH_COUNTER_INFO_A, szExplainText) ==
                  offsetof(::PDH_COUNTER_INFO_A, szExplainText),
              "PDH_COUNTER_INFO_A::szExplainText");
static_assert(offsetof(platform::PDH_COUNTER_INFO_A, DataBuffer) ==
                  offsetof(::PDH_COUNTER_INFO_A, DataBuffer),
              "PDH_COUNTER_INFO_A::DataBuffer");
static_assert(sizeof(platform::PDH_FMT_COUNTERVALUE) == sizeof(::PDH_FMT_COUNTERVALUE),
              "PDH_FMT_COUNTERVALUE");
static_assert(offsetof(platform::PDH_FMT_COUNTERVALUE, longValue) ==
                  offsetof(::PDH_FMT_COUNTERVALUE, longValue),
              "PDH_FMT_COUNTERVALUE::longValue");
static_assert(offsetof(platform::PDH_FMT_COUNTERVALUE, largeValue) ==
                  offsetof(::PDH_FMT_COUNTERVALUE, largeValue),
              "PDH_FMT_COUNTERVALUE::largeValue");

namespace platform::win32 {
namespace {

// Query and counter handles are opaque on both sides.
::PDH_HQUERY ToWin(PDH_HQUERY query) {
  return reinterpret_cast<::PDH_HQUERY>(query);
}
::PDH_HCOUNTER ToWin(PDH_HCOUNTER counter) {
  return reinterpret_cast<::PDH_HCOUNTER>(counter);
}

class LivePdh final : public Pdh {
 public:
  PDH_STATUS PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A* elements, char* path, DWORD* size,
                                 DWORD flags) override {
    return ::PdhMakeCounterPathA(reinterpret_cast<::PPDH_COUNTER_PATH_ELEMENTS_A>(elements), path,
                                 As<::DWORD>(size), flags);
  }
  PDH_STATUS PdhOpenQueryA(const char* dataSource, DWORD_PTR userData, PDH_HQUERY* query) override {
    return ::PdhOpenQueryA(dataSource, userData, reinterpret_cast<::PDH_HQUERY*>(query));
  }
  PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* path, DWORD_PTR userData,
                            PDH_HCOUNTER* counter) override {
    return ::PdhAddCounterA(ToWin(query), path, userData,
                            reinterpret_cast<::PDH_HCOUNTER*>(counter));
  }
  PDH_STATUS PdhGetCounterInfoA(PDH_HCOUNTER counter, BOOLEAN retrieveExplainText, DWORD* size,
                                PDH_COUNTER_INFO_A* info) override {
    return ::PdhGetCounterInfoA(ToWin(counter), retrieveExplainText, As<::DWORD>(size),
                                reinterpret_cast<::PPDH_COUNTER_INFO_A>(info));
  }
  PDH_STATUS PdhCollectQueryData(PDH_HQUERY query) override {
    return ::PdhCollectQueryData(ToWin(query));
  }
  PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format, DWORD* type,
                                         PDH_FMT_COUNTERVALUE* value) override {
    return ::PdhGetFormattedCounterValue(ToWin(counter), format, As<::DWORD>(type),
                                         reinterpret_cast<::PPDH_FMT_COUNTERVALUE>(value));
  }
  PDH_STATUS PdhRemoveCounter(PDH_HCOUNTER counter) override {
    return ::PdhRemoveCounter(ToWin(counter));
  }
  PDH_STATUS PdhCloseQuery(PDH_HQUERY query) override { return ::PdhCloseQuery(ToWin(query)); }
};

}  // namespace

std::unique_ptr<Pdh> MakeLivePdh() {
  return std::make_unique<LivePdh>();
}

}  // namespace platform::win32
