// Walks a hive through libhivex and through our reader side by side: the hive tests and
// the hive fuzz target hold the reader to the same keys, values and bytes.
#pragma once

#include <hivex.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <type_traits>

#include "platform/recorded/codepage.h"
#include "platform/recorded/registry_model.h"

namespace ia_test {

using platform::DWORD;
using platform::recorded::RegKey;
using platform::recorded::WideToUtf8;

struct Freed {
  void operator()(void* p) const { std::free(p); }
};

// Walks libhivex's tree and ours side by side; the first difference, or "".
class HivexDiffer {
 public:
  explicit HivexDiffer(hive_h* hive) : hive_(hive) {}
  size_t keys = 0, values = 0;

  std::string compare(hive_node_h node, const RegKey& key, const std::string& path) {
    ++keys;
    const std::int64_t time = hivex_node_timestamp(hive_, node);
    if (time >= 0 && static_cast<std::uint64_t>(time) != key.lastWriteTime())
      return path + ": time";
    std::unique_ptr<hive_value_h, Freed> theirValues(hivex_node_values(hive_, node));
    if (!theirValues) return path + ": libhivex cannot list the values";
    size_t n = 0;
    for (; theirValues.get()[n]; ++n) {
      if (n >= key.valueCount()) return path + ": fewer values";
      const hive_value_h v = theirValues.get()[n];
      const platform::recorded::RegValue& ours = key.value(n);
      std::unique_ptr<char, Freed> name(hivex_value_key(hive_, v));
      const std::string where = path + " value " + (name ? name.get() : "?");
      // libhivex converts names to UTF-8 C strings: it gives none for what is no valid
      // UTF-16, and a name holding a NUL ends there.
      if (!name || (ours.name().find(u'\0') != std::u16string::npos &&
                    name.get() == WideToUtf8(ours.name().substr(0, ours.name().find(u'\0')))))
        return where + ": libhivex cannot convert the name";
      if (name.get() != WideToUtf8(ours.name())) return where + ": name";
      // A plain integer: real hives hold types outside the enum (such as 0xFFFF0011).
      std::underlying_type_t<hive_type> type = 0;
      size_t length = 0;
      std::unique_ptr<char, Freed> data(
          hivex_value_value(hive_, v, reinterpret_cast<hive_type*>(&type), &length));
      if (static_cast<DWORD>(type) != ours.type()) return where + ": type";
      const std::string theirs = data ? std::string(data.get(), length) : std::string();
      if (theirs != std::string(ours.data().begin(), ours.data().end())) return where + ": data";
      ++values;
    }
    if (n != key.valueCount()) return path + ": more values";
    std::unique_ptr<hive_node_h, Freed> children(hivex_node_children(hive_, node));
    if (!children) return path + ": libhivex cannot list the sub-keys";
    // By name: a list a damaged hive holds out of order, libhivex hands on as it is, and
    // ours puts in Windows' order.
    std::map<std::string, const RegKey*> ours;
    for (size_t i = 0; i < key.subKeyCount(); ++i)
      ours.emplace(WideToUtf8(key.subKey(i).name()), &key.subKey(i));
    size_t c = 0;
    for (; children.get()[c]; ++c) {
      std::unique_ptr<char, Freed> name(hivex_node_name(hive_, children.get()[c]));
      if (!name) return path + ": libhivex cannot convert a sub-key's name";
      auto sub = ours.find(name.get());
      if (sub == ours.end()) return path + "\\" + name.get() + ": not among ours";
      const std::string difference =
          compare(children.get()[c], *sub->second, path + "\\" + sub->first);
      if (!difference.empty()) return difference;
    }
    if (c != key.subKeyCount()) return path + ": more sub-keys";
    return {};
  }

 private:
  hive_h* hive_;
};

}  // namespace ia_test
