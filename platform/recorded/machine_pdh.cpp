#include "platform/recorded/machine_pdh.h"

#include <cstring>

#include "platform/recorded/machine_json.h"

namespace platform::recorded {

struct RecordedPdh::Counter {
  PDH_HQUERY query;
  std::string path;
  PdhCounterFacts facts;
  DWORD_PTR userData;
};

namespace {

constexpr std::uint8_t kOpen = 1, kCollected = 2, kClosed = 3;
// Handles are small numbers far from any address: 0x10000 + 16 x index.
constexpr std::uintptr_t kQueryBase = 0x10000, kQueryStep = 16;

constexpr PDH_STATUS PDH_NO_DATA = static_cast<PDH_STATUS>(0x800007D5u);
constexpr PDH_STATUS PDH_INVALID_DATA = static_cast<PDH_STATUS>(0xC0000BC6u);

const char* const kCalls[] = {"makeCounterPath", "openQuery",        "addCounter",
                              "getCounterInfo",  "collectQueryData", "getFormattedCounterValue",
                              "removeCounter",   "closeQuery"};

// One recorded number answers every format, so it must fit PDH_FMT_LARGE's LONGLONG. The
// bounds are -2^63 and 2^63: the largest LONGLONG is not a double, and a double that rounds
// up to 2^63 does not convert.
LONGLONG LargeValue(const Field& value) {
  const double d = value.asNumber();
  constexpr double kLimit = 9223372036854775808.0;
  if (!(d >= -kLimit && d < kLimit))
    value.fail("expected a number within the range of a 64-bit integer");
  return static_cast<LONGLONG>(d);
}

}  // namespace

PdhFacts ReadPdhFacts(const Field& pdh) {
  PdhFacts f;
  if (!pdh.present() || pdh.isNull()) return f;
  f.recorded = true;
  pdh.expectKeys({"status", "counters"});
  Field status = pdh["status"];
  status.expectKeys(
      {kCalls[0], kCalls[1], kCalls[2], kCalls[3], kCalls[4], kCalls[5], kCalls[6], kCalls[7]});
  for (const auto& [call, code] : status.members())
    f.status[call] = static_cast<PDH_STATUS>(code.asCode());
  for (const auto& [path, c] : pdh["counters"].members()) {
    c.expectKeys({"type", "value"});
    PdhCounterFacts counter;
    counter.type = c["type"].asCode();
    const Field value = c["value"];
    counter.doubleValue = value.asNumber();
    if (value.json().is_number_integer()) {
      counter.value = value.asSigned(INT64_MIN, INT64_MAX);
      counter.doubleValue = static_cast<double>(counter.value);
    } else {
      counter.value = LargeValue(value);
    }
    f.counters[path] = counter;
  }
  return f;
}

RecordedPdh::RecordedPdh(PdhFacts facts) : facts_(std::move(facts)) {}
RecordedPdh::~RecordedPdh() = default;

PDH_STATUS RecordedPdh::forced(const char* call) const {
  auto it = facts_.status.find(call);
  return it == facts_.status.end() ? PDH_CSTATUS_VALID_DATA : it->second;
}

std::string RecordedPdh::CounterPath(const PDH_COUNTER_PATH_ELEMENTS_A& e) {
  std::string path;
  if (e.szMachineName && *e.szMachineName) {
    if (e.szMachineName[0] != '\\') path += "\\\\";
    path += e.szMachineName;
  }
  path += "\\";
  path += e.szObjectName;
  if (e.szInstanceName && *e.szInstanceName) {
    path += "(";
    if (e.szParentInstance && *e.szParentInstance) path += std::string(e.szParentInstance) + "/";
    path += e.szInstanceName;
    if (e.dwInstanceIndex) path += "#" + std::to_string(e.dwInstanceIndex);
    path += ")";
  }
  path += "\\";
  path += e.szCounterName;
  return path;
}

PDH_STATUS RecordedPdh::PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A* elements, char* path,
                                            DWORD* size, DWORD) {
  if (PDH_STATUS s = forced("makeCounterPath")) return s;
  if (!elements || !size || !elements->szObjectName || !elements->szCounterName)
    return PDH_INVALID_ARGUMENT;
  const std::string text = CounterPath(*elements);
  const DWORD needed = static_cast<DWORD>(text.size() + 1);
  if (!path || *size < needed) {
    *size = needed;
    return PDH_MORE_DATA;
  }
  std::memcpy(path, text.c_str(), needed);
  *size = needed;
  return PDH_CSTATUS_VALID_DATA;
}

PDH_STATUS RecordedPdh::PdhOpenQueryA(const char*, DWORD_PTR, PDH_HQUERY* query) {
  if (PDH_STATUS s = forced("openQuery")) return s;
  if (!query) return PDH_INVALID_ARGUMENT;
  *query = reinterpret_cast<PDH_HQUERY>(kQueryBase + kQueryStep * queries_.size());
  queries_.push_back(kOpen);
  ++openQueries_;
  return PDH_CSTATUS_VALID_DATA;
}

std::uint8_t* RecordedPdh::findQuery(PDH_HQUERY handle) {
  const auto value = reinterpret_cast<std::uintptr_t>(handle);
  if (value < kQueryBase || (value - kQueryBase) % kQueryStep != 0) return nullptr;
  const std::size_t index = (value - kQueryBase) / kQueryStep;
  if (index >= queries_.size() || queries_[index] == kClosed) return nullptr;
  return &queries_[index];
}

PDH_STATUS RecordedPdh::PdhAddCounterA(PDH_HQUERY query, const char* path, DWORD_PTR userData,
                                       PDH_HCOUNTER* counter) {
  if (PDH_STATUS s = forced("addCounter")) return s;
  if (!findQuery(query)) return PDH_INVALID_HANDLE;
  if (!path || !counter) return PDH_INVALID_ARGUMENT;
  auto it = facts_.counters.find(path);
  if (it == facts_.counters.end()) return PDH_CSTATUS_NO_OBJECT;
  auto c = std::make_unique<Counter>(Counter{query, path, it->second, userData});
  *counter = reinterpret_cast<PDH_HCOUNTER>(c.get());
  counters_.insert(std::move(c));
  return PDH_CSTATUS_VALID_DATA;
}

RecordedPdh::Counter* RecordedPdh::findCounter(PDH_HCOUNTER handle) const {
  for (const auto& c : counters_)
    if (reinterpret_cast<PDH_HCOUNTER>(c.get()) == handle) return c.get();
  return nullptr;
}

PDH_STATUS RecordedPdh::PdhGetCounterInfoA(PDH_HCOUNTER handle, BOOLEAN, DWORD* size,
                                           PDH_COUNTER_INFO_A* info) {
  if (PDH_STATUS s = forced("getCounterInfo")) return s;
  Counter* c = findCounter(handle);
  if (!c) return PDH_INVALID_HANDLE;
  if (!size) return PDH_INVALID_ARGUMENT;
  // The record, then the full path in the caller's buffer.
  const DWORD needed =
      static_cast<DWORD>(offsetof(PDH_COUNTER_INFO_A, DataBuffer) + c->path.size() + 1);
  if (!info || *size < needed) {
    *size = needed;
    return PDH_MORE_DATA;
  }
  std::memset(info, 0, needed);
  info->dwLength = needed;
  info->dwType = c->facts.type;
  info->CVersion = 0x0501;
  info->CStatus = PDH_CSTATUS_VALID_DATA;
  info->dwUserData = c->userData;
  char* text = reinterpret_cast<char*>(info) + offsetof(PDH_COUNTER_INFO_A, DataBuffer);
  std::memcpy(text, c->path.c_str(), c->path.size() + 1);
  info->szFullPath = text;
  *size = needed;
  return PDH_CSTATUS_VALID_DATA;
}

PDH_STATUS RecordedPdh::PdhCollectQueryData(PDH_HQUERY query) {
  if (PDH_STATUS s = forced("collectQueryData")) return s;
  std::uint8_t* state = findQuery(query);
  if (!state) return PDH_INVALID_HANDLE;
  bool any = false;
  for (const auto& c : counters_) any = any || c->query == query;
  if (!any) return PDH_NO_DATA;
  *state = kCollected;
  return PDH_CSTATUS_VALID_DATA;
}

PDH_STATUS RecordedPdh::PdhGetFormattedCounterValue(PDH_HCOUNTER handle, DWORD format, DWORD* type,
                                                    PDH_FMT_COUNTERVALUE* value) {
  if (PDH_STATUS s = forced("getFormattedCounterValue")) return s;
  Counter* c = findCounter(handle);
  if (!c) return PDH_INVALID_HANDLE;
  if (!value) return PDH_INVALID_ARGUMENT;
  if (type) *type = c->facts.type;
  const std::uint8_t* state = findQuery(c->query);
  if (!state || *state != kCollected) {
    value->CStatus = static_cast<DWORD>(PDH_CSTATUS_INVALID_DATA);
    return PDH_INVALID_DATA;
  }
  value->CStatus = PDH_CSTATUS_VALID_DATA;
  if (format & PDH_FMT_LONG) {
    value->longValue = static_cast<LONG>(c->facts.value);
  } else if (format & PDH_FMT_DOUBLE) {
    value->doubleValue = c->facts.doubleValue;
  } else if (format & PDH_FMT_LARGE) {
    value->largeValue = c->facts.value;
  } else {
    return PDH_INVALID_ARGUMENT;
  }
  return PDH_CSTATUS_VALID_DATA;
}

PDH_STATUS RecordedPdh::PdhRemoveCounter(PDH_HCOUNTER handle) {
  if (PDH_STATUS s = forced("removeCounter")) return s;
  for (auto it = counters_.begin(); it != counters_.end(); ++it) {
    if (reinterpret_cast<PDH_HCOUNTER>(it->get()) == handle) {
      counters_.erase(it);
      return PDH_CSTATUS_VALID_DATA;
    }
  }
  return PDH_INVALID_HANDLE;
}

PDH_STATUS RecordedPdh::PdhCloseQuery(PDH_HQUERY query) {
  if (PDH_STATUS s = forced("closeQuery")) return s;
  std::uint8_t* state = findQuery(query);
  if (!state) return PDH_INVALID_HANDLE;
  for (auto c = counters_.begin(); c != counters_.end();)
    c = (*c)->query == query ? counters_.erase(c) : std::next(c);
  *state = kClosed;
  --openQueries_;
  return PDH_CSTATUS_VALID_DATA;
}

}  // namespace platform::recorded
