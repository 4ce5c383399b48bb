// Setup-information (INF) files parsed as SetupAPI reads them: [sections], key = value lines,
// comma-separated fields with "quotes", ; comments, \ continuation, and %strkey%
// substitution from [Strings] when a field is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/export.h"

namespace platform::recorded {

struct InfLine {
  bool hasKey = false;
  std::string key;
  std::vector<std::string> fields;  // raw: quotes removed, %strkey% not yet substituted
};

struct InfSection {
  std::string name;
  std::vector<InfLine> lines;
  // Lines by key, built when the section is first searched by key: the hash of each line's
  // substituted, lower-case key and the line's index, in that order. Holding hashes rather
  // than keys keeps it small whatever the substitutions make of the keys.
  std::vector<std::pair<std::size_t, std::uint32_t>> keyIndex;
  bool keyIndexBuilt = false;
};

class KPLATFORM_API InfFile {
 public:
  // `text` is in the machine's ANSI code page.
  static InfFile Parse(const std::string& text);

  // Index of a section by name (ignoring case), -1 when missing.
  int findSection(const std::string& name) const;
  const std::vector<InfSection>& sections() const { return sections_; }
  // Index of the first line of `section` whose substituted key is `key` (ignoring case),
  // -1 when there is none.
  int findLine(int section, const std::string& key);
  // The value of %strkey% references: [Strings] keys, %% for '%'; unknown ones stay. The
  // text is cut at kMaxSubstitutedLength characters or at the raw text's length, whichever is
  // longer, so that references cannot make a field grow past what SetupAPI holds.
  std::string substitute(const std::string& raw) const;
  // The signature of [Version], substituted ("" when missing).
  std::string signature() const;

 private:
  void addLine(const std::string& logical, int* current);

  std::vector<InfSection> sections_;
  std::map<std::string, int> index_;  // lower-case name -> section
  // [Strings] by lower-case key: the first line with that key.
  int stringsSection_ = -1;
  std::unordered_map<std::string, std::size_t> strings_;
};

// SetupAPI's longest string (MAX_INF_STRING_LENGTH).
constexpr std::size_t kMaxSubstitutedLength = 4096;

}  // namespace platform::recorded
