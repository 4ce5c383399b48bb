#include "collectors/software/hot_fix_names.h"

namespace installedapps_col {

HotFixNameMatcher::HotFixNameMatcher() : m_nodes(1) {}

std::size_t HotFixNameMatcher::child(std::size_t node, unsigned char c) const {
  for (const auto& edge : m_nodes[node].children) {
    if (edge.first == c) return edge.second;
  }
  return 0;
}

void HotFixNameMatcher::add(const std::string& text) {
  std::size_t node = 0;
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    std::size_t next = child(node, c);
    if (next == 0) {
      next = m_nodes.size();
      m_nodes[node].children.emplace_back(c, next);
      m_nodes.emplace_back();
    }
    node = next;
  }
  m_nodes[node].end = true;
}

bool HotFixNameMatcher::foundIn(const std::string& name) const {
  if (m_nodes[0].end) return true;
  for (std::size_t start = 0; start < name.size(); ++start) {
    std::size_t node = 0;
    for (std::size_t i = start; i < name.size(); ++i) {
      node = child(node, static_cast<unsigned char>(name[i]));
      if (node == 0) break;
      if (m_nodes[node].end) return true;
    }
  }
  return false;
}

}  // namespace installedapps_col
