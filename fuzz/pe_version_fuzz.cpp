// PE files as a volume holds them: the version resource looked for through the resource
// tree, and when one is found, read back as VerQueryValueA reads it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/machine_version.h"
#include "platform/recorded/pe_version.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto block = platform::recorded::VersionBlockFromPe(fuzz::Bytes(data, size));
  if (!block) return 0;
  if (block->size() > platform::recorded::kMaxVersionBlock) fuzz::Finding("block over 64 KiB");
  platform::recorded::VersionValue value;
  for (const char* path :
       {"\\", "\\VarFileInfo\\Translation", "\\StringFileInfo\\040904b0\\FileVersion"}) {
    if (platform::recorded::FindVersionValue(block->data(), block->size(), path, &value) &&
        value.offset + value.length > block->size() && !value.isText)
      fuzz::Finding(std::string("value past the block at ") + path);
  }
  return 0;
}
