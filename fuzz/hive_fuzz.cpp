// Hive files: the input as a machine's hives/SOFTWARE, loaded from a folder (libhivex reads
// files), then every key and value of HKLM\SOFTWARE listed as `iac reg query /s` lists them,
// in both registry views.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include "cli/reg_query.h"
#include "fuzz/fuzz_support.h"
#include "platform/recorded/recorded_machine.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::filesystem::path folder = fuzz::ScratchDir() / "hive";
  fuzz::WriteFile(folder / "hives" / "SOFTWARE", fuzz::Bytes(data, size));
  std::shared_ptr<platform::recorded::RecordedMachine> machine;
  try {
    machine = platform::recorded::RecordedMachine::Load(folder.string());
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  for (platform::REGSAM view : {platform::KEY_WOW64_64KEY, platform::KEY_WOW64_32KEY}) {
    std::ostringstream out, err;
    iac::RunRegQuery(machine->registry(), "HKLM\\SOFTWARE", true, out, err, 1252, view);
  }
  return 0;
}
