// The product names an inventory has delivered. Hundreds of thousands of names are
// looked up once each: a flat table of their hashes takes one probe per lookup and
// compares texts only where hashes agree, where a node-based set chases two or three
// pointers, each a cache miss once the set outgrows the cache.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace installedapps_col {

class NameSet {
 public:
  // Room for `names` in all without growing.
  void reserve(std::size_t names);
  // True when `name` was not in the set; it is then.
  bool insert(const std::string& name);
  std::size_t size() const { return m_names.size(); }

 private:
  struct Slot {
    std::uint64_t hash = 0;  // 0: free (a name hashing to 0 is kept as 1)
    std::uint32_t index = 0;
  };
  void rebuild(std::size_t slots);

  std::vector<Slot> m_slots;  // a power of two, at most half full
  std::vector<std::string> m_names;
};

}  // namespace installedapps_col
