// boot.ini: the input as C:\boot.ini of a Windows XP machine, whose operating-system
// instance then carries the file's lines (BootConfigurationFileContents).
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/recorded_machine.h"

namespace {

const char kMachineJson[] = R"({"system": {
  "version": {"major": 5, "minor": 1, "build": 2600, "platformId": 2, "productType": 1},
  "environment": {"SystemDrive": "C:", "SystemRoot": "C:\\WINDOWS"},
  "windowsDirectory": "C:\\WINDOWS", "systemDirectory": "C:\\WINDOWS\\system32"}})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::shared_ptr<platform::recorded::RecordedMachine> machine;
  try {
    machine = platform::recorded::RecordedMachine::FromFiles(
        {{"machine.json", kMachineJson}, {"files/C/boot.ini", fuzz::Bytes(data, size)}});
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  fuzz::CollectThroughHost(std::move(machine), {"KestovaSG_OperatingSystem"});
  return 0;
}
