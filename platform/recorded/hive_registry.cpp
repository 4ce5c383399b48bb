// Hive files through libhivex. The whole hive is copied into the in-memory tree at load:
// the largest real hive (43,000 keys) takes a fraction of a second, and afterwards every
// registry call is a lookup in memory, with no hivex handle to keep or lock.
#include "platform/recorded/hive_registry.h"

#include <hivex.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "platform/recorded/codepage.h"
#include "platform/recorded/record_error.h"

namespace platform::recorded {

namespace {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

class HiveReader {
 public:
  HiveReader(const std::string& path, hive_h* hive) : path_(path), hive_(hive) {}

  void copy(hive_node_h node, RegKey& into, size_t depth) {
    if (depth > kMaxKeyDepth) fail("keys nested deeper than 512 levels");
    into.setLastWriteTime(static_cast<std::uint64_t>(hivex_node_timestamp(hive_, node)));

    errno = 0;
    Malloced<hive_value_h> values(hivex_node_values(hive_, node));
    if (!values) fail("unreadable values");
    for (hive_value_h* v = values.get(); *v; ++v) {
      RegValue value;
      Malloced<char> name(hivex_value_key(hive_, *v));
      if (!name) fail("unreadable value name");
      value.name = Utf8ToWide(name.get());
      // Read the type as a plain integer: real hives hold types outside the enum (such as
      // 0xFFFF0011), which are not valid hive_type values in C++.
      std::underlying_type_t<hive_type> type = 0;
      size_t length = 0;
      Malloced<char> data(
          hivex_value_value(hive_, *v, reinterpret_cast<hive_type*>(&type), &length));
      if (!data && length != 0) fail("unreadable value data");
      value.type = static_cast<DWORD>(type);
      const auto* bytes = reinterpret_cast<const BYTE*>(data.get());
      if (bytes) value.data.assign(bytes, bytes + length);
      into.setValue(std::move(value));
    }

    Malloced<hive_node_h> children(hivex_node_children(hive_, node));
    if (!children) fail("unreadable sub-keys");
    for (hive_node_h* c = children.get(); *c; ++c) {
      Malloced<char> name(hivex_node_name(hive_, *c));
      if (!name) fail("unreadable key name");
      copy(*c, into.ensureSubKey(Utf8ToWide(name.get())), depth + 1);
    }
  }

  [[noreturn]] void fail(const std::string& what) const {
    const int error = errno;
    throw RecordError(path_ + ": not a readable registry hive (" + what +
                      (error ? std::string(": ") + std::strerror(error) : std::string()) + ")");
  }

 private:
  const std::string& path_;
  hive_h* hive_;
};

}  // namespace

bool HiveFilesSupported() {
  return true;
}

void LoadHiveFile(RegistryTree& tree, const std::string& path, Mount where) {
  errno = 0;
  hive_h* hive = hivex_open(path.c_str(), 0);
  if (!hive) {
    const int error = errno;
    throw RecordError(path + ": not a readable registry hive (" +
                      (error ? std::strerror(error) : "unknown error") + ")");
  }
  std::unique_ptr<hive_h, int (*)(hive_h*)> closer(hive, hivex_close);

  const std::vector<std::u16string> parts = SplitPath(MountPath(where));
  RegKey* key = tree.root(parts[0]);
  for (size_t i = 1; i < parts.size(); ++i) key = &key->ensureSubKey(parts[i]);

  HiveReader reader(path, hive);
  const hive_node_h root = hivex_root(hive);
  if (!root) reader.fail("no root key");
  try {
    reader.copy(root, *key, parts.size());
  } catch (...) {
    tree.compact();
    throw;
  }
  tree.compact();
}

}  // namespace platform::recorded
