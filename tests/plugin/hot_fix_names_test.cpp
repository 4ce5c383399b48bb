// The trie that tells hot-fix names must answer exactly as searching for each key name in
// turn does.
#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "collectors/software/hot_fix_names.h"

namespace {

std::string Without(const std::string& text, int (*test)(int)) {
  std::string kept;
  for (const char c : text) {
    if (!test(static_cast<unsigned char>(c))) kept += c;
  }
  return kept;
}

// The plain scan: "Hotfix", then each key name and its letters-blank-digits form.
bool ScanIsHotFix(const std::string& name, const std::vector<std::string>& keys) {
  if (name.find("Hotfix") != std::string::npos) return true;
  for (const std::string& key : keys) {
    if (!key.empty() && name.find(key) != std::string::npos) return true;
    if (name.find(Without(key, &isdigit) + " " + Without(key, &isalpha)) != std::string::npos) {
      return true;
    }
  }
  return false;
}

installedapps_col::HotFixNameMatcher Matcher(const std::vector<std::string>& keys) {
  installedapps_col::HotFixNameMatcher matcher;
  matcher.add("Hotfix");
  for (const std::string& key : keys) {
    if (!key.empty()) matcher.add(key);
    matcher.add(Without(key, &isdigit) + " " + Without(key, &isalpha));
  }
  return matcher;
}

TEST(HotFixNames, TrieAgreesWithTheScanOnGeneratedNames) {
  std::mt19937 random(20101115);
  auto number = [&random](int digits) {
    std::string text;
    for (int i = 0; i < digits; ++i) text += static_cast<char>('0' + random() % 10);
    return text;
  };
  const char* prefixes[] = {"KB", "Q", "M", "kb", "KB-", "SP"};
  const char* words[] = {"Update", "for", "Windows", "Hotfix", "HotFix", "Security",  "(",
                         ")",      "x64", "KB",      "Q",      " ",      "\xe9t\xe9", "-"};
  for (int round = 0; round < 40; ++round) {
    std::vector<std::string> keys;
    const int keyCount = 1 + static_cast<int>(random() % 30);
    for (int i = 0; i < keyCount; ++i) {
      keys.push_back(prefixes[random() % 6] + number(2 + static_cast<int>(random() % 5)));
    }
    if (round % 10 == 0) keys.push_back("");  // a failed enumeration: its form is " "
    const installedapps_col::HotFixNameMatcher matcher = Matcher(keys);
    for (int n = 0; n < 200; ++n) {
      std::string name;
      const int parts = static_cast<int>(random() % 6);
      for (int p = 0; p < parts; ++p) {
        switch (random() % 3) {
          case 0:
            name += words[random() % 14];
            break;
          case 1:
            name += number(1 + static_cast<int>(random() % 7));
            break;
          default: {
            const std::string& key = keys[random() % keys.size()];
            name += random() % 2 ? key : Without(key, &isdigit) + " " + Without(key, &isalpha);
          }
        }
        if (random() % 2) name += ' ';
      }
      ASSERT_EQ(matcher.foundIn(name), ScanIsHotFix(name, keys)) << "name: " << name;
    }
  }
}

}  // namespace
