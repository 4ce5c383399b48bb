#include "collectors/software/name_set.h"

#include <functional>

namespace installedapps_col {
namespace {

std::uint64_t HashOf(const std::string& name) {
  const std::uint64_t hash = std::hash<std::string>()(name);
  return hash == 0 ? 1 : hash;
}

}  // namespace

void NameSet::reserve(std::size_t names) {
  std::size_t slots = 16;
  while (slots < names * 2) slots *= 2;
  if (slots > m_slots.size()) rebuild(slots);
  m_names.reserve(names);
}

bool NameSet::insert(const std::string& name) {
  if ((m_names.size() + 1) * 2 > m_slots.size()) rebuild(m_slots.empty() ? 16 : m_slots.size() * 2);
  const std::uint64_t hash = HashOf(name);
  const std::size_t mask = m_slots.size() - 1;
  std::size_t s = hash & mask;
  for (; m_slots[s].hash != 0; s = (s + 1) & mask) {
    if (m_slots[s].hash == hash && m_names[m_slots[s].index] == name) return false;
  }
  m_slots[s] = Slot{hash, static_cast<std::uint32_t>(m_names.size())};
  m_names.push_back(name);
  return true;
}

void NameSet::rebuild(std::size_t slots) {
  std::vector<Slot> old(slots);
  old.swap(m_slots);
  const std::size_t mask = slots - 1;
  for (const Slot& slot : old) {
    if (slot.hash == 0) continue;
    std::size_t s = slot.hash & mask;
    while (m_slots[s].hash != 0) s = (s + 1) & mask;
    m_slots[s] = slot;
  }
}

}  // namespace installedapps_col
