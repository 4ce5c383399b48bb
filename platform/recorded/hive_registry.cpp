// Hive files through libhivex. The whole hive is copied into the in-memory tree at load:
// the largest real hive (43,000 keys) takes a fraction of a second, and afterwards every
// registry call is a lookup in memory, with no hivex handle to keep or lock.
#include "platform/recorded/hive_registry.h"

#include <hivex.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <type_traits>
#include <unordered_set>

#include "platform/recorded/codepage.h"
#include "platform/recorded/record_error.h"

namespace platform::recorded {

namespace {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// A hive is a file of cells that point at each other, so a damaged or crafted one can
// make a key list the same child twice or its own ancestor, or point many values at one
// large cell. Each key is therefore copied once (a second way to it is refused) and the
// copy is held to the hive's size by a LoadBudget.
class HiveReader {
 public:
  HiveReader(const std::string& path, hive_h* hive, std::uint64_t fileSize, std::u16string mount)
      : file_(path), hive_(hive), budget_(fileSize), mount_(std::move(mount)) {}

  void copy(hive_node_h node, RegKey& into, size_t depth) {
    if (depth > kMaxKeyDepth) failAt("keys nested deeper than 512 levels");
    if (!visited_.insert(node).second) {
      failAt("reached a second time through the sub-key lists, but a key has one parent");
    }
    into.setLastWriteTime(static_cast<std::uint64_t>(hivex_node_timestamp(hive_, node)));

    errno = 0;
    Malloced<hive_value_h> values(hivex_node_values(hive_, node));
    if (!values) fail("unreadable values");
    for (hive_value_h* v = values.get(); *v; ++v) {
      RegValue value;
      Malloced<char> name(hivex_value_key(hive_, *v));
      if (!name) fail("unreadable value name");
      value.name = Utf8ToWide(name.get());
      if (value.name.size() > kMaxValueNameLength) {
        failAt("value name longer than 16,383 characters: " + QuoteForMessage(value.name));
      }
      // Read the type as a plain integer: real hives hold types outside the enum (such as
      // 0xFFFF0011), which are not valid hive_type values in C++.
      std::underlying_type_t<hive_type> type = 0;
      size_t length = 0;
      if (hivex_value_type(hive_, *v, reinterpret_cast<hive_type*>(&type), &length) != 0) {
        fail("unreadable value type");
      }
      if (length > kMaxValueSize) {
        failAt("value " + QuoteForMessage(value.name) + " larger than 16 MiB (" +
               std::to_string(length) + " bytes)");
      }
      Malloced<char> data(
          hivex_value_value(hive_, *v, reinterpret_cast<hive_type*>(&type), &length));
      if (!data && length != 0) fail("unreadable value data");
      value.type = static_cast<DWORD>(type);
      const auto* bytes = reinterpret_cast<const BYTE*>(data.get());
      if (bytes) value.data.assign(bytes, bytes + length);
      if (!budget_.chargeValue(value)) overBudget();
      into.setValue(std::move(value));
    }

    Malloced<hive_node_h> children(hivex_node_children(hive_, node));
    if (!children) fail("unreadable sub-keys");
    for (hive_node_h* c = children.get(); *c; ++c) {
      Malloced<char> name(hivex_node_name(hive_, *c));
      if (!name) fail("unreadable key name");
      std::u16string wide = Utf8ToWide(name.get());
      // The kernel never makes such a key; regedit and the registry calls refuse the
      // name. A hive holding one is damaged, and reading on would show a key no
      // Windows could (reg query would reopen the parent for an empty name).
      if (const char* fault = KeyNameFault(wide)) {
        failAt(std::string("sub-key with ") + fault + ": " + QuoteForMessage(wide));
      }
      if (!budget_.chargeKey(wide)) overBudget();
      RegKey& child = into.ensureSubKey(wide);
      keys_.push_back(std::move(wide));
      copy(*c, child, depth + 1);
      keys_.pop_back();
    }
  }

  [[noreturn]] void fail(const std::string& what) const {
    const int error = errno;
    throw RecordError(file_ + ": not a readable registry hive (" + what +
                      (error ? std::string(": ") + std::strerror(error) : std::string()) + ")");
  }

  // A fault of the key being read, named by its path (the last few names of it).
  [[noreturn]] void failAt(const std::string& what) const {
    std::string key = WideToUtf8(mount_);
    const size_t shown = 8;
    if (keys_.size() > shown) key += "\\...";
    for (size_t i = keys_.size() > shown ? keys_.size() - shown : 0; i < keys_.size(); ++i) {
      const std::string quoted = QuoteForMessage(keys_[i]);
      key += "\\" + quoted.substr(1, quoted.size() - 2);
    }
    throw RecordError(file_ + ": not a registry hive Windows can hold (key " + key + ": " + what +
                      ")");
  }

  [[noreturn]] void overBudget() const {
    failAt("the keys and values so far take more than " + std::to_string(budget_.limit() >> 20) +
           " MiB in memory (16 MiB and 8 bytes per byte of the file)");
  }

 private:
  const std::string& file_;
  hive_h* hive_;
  LoadBudget budget_;
  std::u16string mount_;
  std::unordered_set<hive_node_h> visited_;
  std::vector<std::u16string> keys_;  // from the mount point to the key being read
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

  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(path, ec);
  HiveReader reader(path, hive, ec ? 0 : static_cast<std::uint64_t>(size), MountPath(where));
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
