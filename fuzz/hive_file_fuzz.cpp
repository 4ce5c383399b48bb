// The hive reader on its own, over the input's bytes in memory: mounted, then every key and
// value read (as a full walk of the registry would). When the reader finds nothing damaged
// and libhivex reads the same bytes without an error, both must see the same keys, values
// and bytes.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/hive_file.h"
#include "platform/recorded/hive_registry.h"
#include "platform/recorded/record_error.h"

#ifdef IA_HAVE_HIVEX
#include "tests/support/hivex_differ.h"
#endif

using platform::recorded::RegKey;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz::Bytes(data, size);
  platform::recorded::RegistryTree tree;
  try {
    platform::recorded::MountHive(tree, platform::recorded::HiveFile::FromBytes(bytes, "input"),
                                  "input", platform::recorded::Mount::Software);
  } catch (const platform::RecordError&) {
    return 0;  // no hive at all
  }
  const RegKey* software = tree.find(u"HKLM\\SOFTWARE");
  std::function<void(const RegKey&)> walk = [&](const RegKey& key) {
    for (size_t i = 0; i < key.valueCount(); ++i) (void)key.value(i).data().size();
    for (size_t i = 0; i < key.subKeyCount(); ++i) walk(key.subKey(i));
  };
  walk(*software);
#ifdef IA_HAVE_HIVEX
  if (!tree.damage().empty()) return 0;
  const std::filesystem::path file = fuzz::ScratchDir() / "hive_file";
  fuzz::WriteFile(file, bytes);
  hive_h* hive = hivex_open(file.c_str(), 0);
  if (hive == nullptr) return 0;
  // libhivex stops at faults this reader leaves to Windows' rules (an li list, a key
  // libhivex cannot list): only a tree it reads whole is compared.
  ia_test::HivexDiffer differ(hive);
  const std::string difference = differ.compare(hivex_root(hive), *software, "SOFTWARE");
  hivex_close(hive);
  if (!difference.empty() && difference.find("libhivex cannot") == std::string::npos)
    fuzz::Finding("the hive reader and libhivex differ at " + difference);
#endif
  return 0;
}
