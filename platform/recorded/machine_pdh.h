// Performance counters of a recorded machine: counters by path, and the status each call
// answers (to replay a machine on which one of them failed).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/pdh.h"
#include "platform/recorded/machine_text.h"

namespace platform::recorded {

class Field;

struct PdhCounterFacts {
  DWORD type = 0;
  LONGLONG value = 0;
  double doubleValue = 0;
};

struct PdhFacts {
  bool recorded = false;
  // Forced statuses by call: "makeCounterPath", "openQuery", "addCounter", ...
  std::map<std::string, PDH_STATUS> status;
  std::map<std::string, PdhCounterFacts, NoCaseLess> counters;  // by full path
};

PdhFacts ReadPdhFacts(const Field& pdh);

class KPLATFORM_API RecordedPdh : public Pdh {
 public:
  explicit RecordedPdh(PdhFacts facts);
  ~RecordedPdh() override;

  PDH_STATUS PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A* elements, char* path, DWORD* size,
                                 DWORD flags) override;
  PDH_STATUS PdhOpenQueryA(const char* dataSource, DWORD_PTR userData, PDH_HQUERY* query) override;
  PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* path, DWORD_PTR userData,
                            PDH_HCOUNTER* counter) override;
  PDH_STATUS PdhGetCounterInfoA(PDH_HCOUNTER counter, BOOLEAN retrieveExplainText, DWORD* size,
                                PDH_COUNTER_INFO_A* info) override;
  PDH_STATUS PdhCollectQueryData(PDH_HQUERY query) override;
  PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format, DWORD* type,
                                         PDH_FMT_COUNTERVALUE* value) override;
  PDH_STATUS PdhRemoveCounter(PDH_HCOUNTER counter) override;
  PDH_STATUS PdhCloseQuery(PDH_HQUERY query) override;

  // What a run left open.
  std::size_t openQueries() const { return openQueries_; }
  std::size_t openCounters() const { return counters_.size(); }

  // "\\Machine\Object(Parent/Instance#Index)\Counter", the parts that are given.
  static std::string CounterPath(const PDH_COUNTER_PATH_ELEMENTS_A& elements);

 private:
  struct Counter;
  PDH_STATUS forced(const char* call) const;
  Counter* findCounter(PDH_HCOUNTER handle) const;
  // The state of the query behind a handle; null for a handle this machine did not give.
  std::uint8_t* findQuery(PDH_HQUERY handle);

  PdhFacts facts_;
  // One byte per query ever opened (kOpen, kCollected, kClosed), the handle being its index
  // in disguise: the up-time reader never closes its queries, so a process that reads the
  // machine many times keeps them all, and they must stay cheap and quick to find.
  std::vector<std::uint8_t> queries_;
  std::size_t openQueries_ = 0;
  std::set<std::unique_ptr<Counter>> counters_;
};

}  // namespace platform::recorded
