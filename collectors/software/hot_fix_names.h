// Whether a product name contains any of a fixed set of texts. A name is compared with
// thousands of hot-fix key names; a trie of those texts walked from every position of the
// name gives the same answer as searching for each text in turn, in time that does not
// grow with the number of texts.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace installedapps_col {

class HotFixNameMatcher {
 public:
  HotFixNameMatcher();
  void add(const std::string& text);  // an empty text is found in every name
  bool foundIn(const std::string& name) const;

 private:
  struct Node {
    std::vector<std::pair<unsigned char, std::size_t>> children;
    bool end = false;
  };
  std::size_t child(std::size_t node, unsigned char c) const;  // 0 when there is none

  std::vector<Node> m_nodes;  // m_nodes[0] is the root
};

}  // namespace installedapps_col
