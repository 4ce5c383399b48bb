// .reg exports: any bytes either load or are refused with a RecordError, under a single-byte
// and a double-byte code page (REGEDIT4 text is read in the machine's code page).
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/reg_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz::Bytes(data, size);
  for (unsigned codePage : {1252u, 932u}) {
    platform::recorded::RegistryTree tree;
    try {
      platform::recorded::ApplyRegFile(tree, "fuzz.reg", bytes, codePage);
    } catch (const platform::RecordError&) {
    }
  }
  return 0;
}
