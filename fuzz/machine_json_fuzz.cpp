// machine.json: every fact that is not registry. A record that loads is then collected in
// full, since most facts are only interpreted when a collector asks for them (page files,
// counters, accounts, time zones).
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/recorded_machine.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::shared_ptr<platform::recorded::RecordedMachine> machine;
  try {
    machine =
        platform::recorded::RecordedMachine::FromFiles({{"machine.json", fuzz::Bytes(data, size)}});
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  fuzz::CollectThroughHost(std::move(machine));
  return 0;
}
