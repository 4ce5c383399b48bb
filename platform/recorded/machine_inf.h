// Setup-information (INF) files parsed as SetupAPI reads them: [sections], key = value lines,
// comma-separated fields with "quotes", ; comments, \ continuation, and %strkey%
// substitution from [Strings] when a field is read.
#pragma once

#include <map>
#include <string>
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
};

class KPLATFORM_API InfFile {
 public:
  // `text` is in the machine's ANSI code page.
  static InfFile Parse(const std::string& text);

  // Index of a section by name (ignoring case), -1 when missing.
  int findSection(const std::string& name) const;
  const std::vector<InfSection>& sections() const { return sections_; }
  // The value of %strkey% references: [Strings] keys, %% for '%'; unknown ones stay.
  std::string substitute(const std::string& raw) const;
  // The signature of [Version], substituted ("" when missing).
  std::string signature() const;

 private:
  void addLine(const std::string& logical, int* current);

  std::vector<InfSection> sections_;
  std::map<std::string, int> index_;  // lower-case name -> section
};

}  // namespace platform::recorded
