#include "platform/recorded/machine_inf.h"

#include <algorithm>
#include <functional>

#include "platform/recorded/machine_text.h"

namespace platform::recorded {

namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

// One field: blanks around it dropped, quotes removed ("" inside quotes is a quote), blanks
// inside kept.
class FieldBuilder {
 public:
  void quoted(char c) { text_.push_back(c), kept_ = text_.size(); }
  void plain(char c) {
    if (IsSpace(c) && text_.empty()) return;
    text_.push_back(c);
    if (!IsSpace(c)) kept_ = text_.size();
  }
  std::string take() {
    std::string out = text_.substr(0, kept_);
    text_.clear();
    kept_ = 0;
    return out;
  }

 private:
  std::string text_;
  std::size_t kept_ = 0;
};

}  // namespace

InfFile InfFile::Parse(const std::string& text) {
  InfFile inf;
  int current = -1;
  std::string logical;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    // A line ends at LF or CR LF: a quote left open would otherwise keep the CR, and the
    // file would read otherwise once copied in text mode (as capture copies it).
    if (end < text.size() && !line.empty() && line.back() == '\r') line.pop_back();
    // Cut the comment (outside quotes) and look for a continuation backslash before it.
    bool inQuotes = false;
    std::size_t cut = line.size();
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '"') inQuotes = !inQuotes;
      if (line[i] == ';' && !inQuotes) {
        cut = i;
        break;
      }
    }
    line.resize(cut);
    std::size_t last = line.find_last_not_of(" \t\r");
    if (last != std::string::npos && line[last] == '\\' && !inQuotes) {
      logical += line.substr(0, last);
      continue;
    }
    logical += line;
    inf.addLine(logical, &current);
    logical.clear();
  }
  if (!logical.empty()) inf.addLine(logical, &current);
  inf.stringsSection_ = inf.findSection("Strings");
  if (inf.stringsSection_ >= 0) {
    const auto& lines = inf.sections_[static_cast<std::size_t>(inf.stringsSection_)].lines;
    for (std::size_t i = 0; i < lines.size(); ++i)
      if (lines[i].hasKey) inf.strings_.emplace(Lower(lines[i].key), i);
  }
  return inf;
}

void InfFile::addLine(const std::string& logical, int* current) {
  std::size_t first = logical.find_first_not_of(" \t\r");
  if (first == std::string::npos) return;
  if (logical[first] == '[') {
    std::size_t close = logical.find(']', first);
    std::string name = logical.substr(
        first + 1, close == std::string::npos ? std::string::npos : close - first - 1);
    std::size_t a = name.find_first_not_of(" \t"), b = name.find_last_not_of(" \t");
    name = a == std::string::npos ? "" : name.substr(a, b - a + 1);
    // A section named twice continues where it was.
    auto it = index_.find(Lower(name));
    if (it != index_.end()) {
      *current = it->second;
    } else {
      *current = static_cast<int>(sections_.size());
      index_[Lower(name)] = *current;
      sections_.emplace_back();
      sections_.back().name = name;
    }
    return;
  }
  if (*current < 0) return;  // text before the first section is ignored

  InfLine line;
  FieldBuilder field;
  bool inQuotes = false;
  for (std::size_t i = 0; i < logical.size(); ++i) {
    const char c = logical[i];
    if (c == '"') {
      if (inQuotes && i + 1 < logical.size() && logical[i + 1] == '"') {
        field.quoted('"');  // "" inside quotes is one quote
        ++i;
      } else {
        inQuotes = !inQuotes;
      }
      continue;
    }
    if (inQuotes) {
      field.quoted(c);
    } else if (c == '=' && !line.hasKey && line.fields.empty()) {
      line.hasKey = true;
      line.key = field.take();
    } else if (c == ',') {
      line.fields.push_back(field.take());
    } else {
      field.plain(c);
    }
  }
  line.fields.push_back(field.take());
  if (!line.hasKey && line.fields.size() == 1 && line.fields[0].empty()) return;
  sections_[static_cast<std::size_t>(*current)].lines.push_back(std::move(line));
}

int InfFile::findSection(const std::string& name) const {
  auto it = index_.find(Lower(name));
  return it == index_.end() ? -1 : it->second;
}

int InfFile::findLine(int section, const std::string& key) {
  if (section < 0 || static_cast<std::size_t>(section) >= sections_.size()) return -1;
  InfSection& s = sections_[static_cast<std::size_t>(section)];
  const std::hash<std::string> hash;
  if (!s.keyIndexBuilt) {
    for (std::size_t i = 0; i < s.lines.size(); ++i)
      if (s.lines[i].hasKey)
        s.keyIndex.emplace_back(hash(Lower(substitute(s.lines[i].key))),
                                static_cast<std::uint32_t>(i));
    std::sort(s.keyIndex.begin(), s.keyIndex.end());
    s.keyIndexBuilt = true;
  }
  const std::string wanted = Lower(key);
  const std::size_t wantedHash = hash(wanted);
  auto at = std::lower_bound(s.keyIndex.begin(), s.keyIndex.end(),
                             std::make_pair(wantedHash, std::uint32_t{0}));
  // Lines of one hash in line order; another key with the same hash is passed over.
  for (; at != s.keyIndex.end() && at->first == wantedHash; ++at)
    if (Lower(substitute(s.lines[at->second].key)) == wanted) return static_cast<int>(at->second);
  return -1;
}

std::string InfFile::substitute(const std::string& raw) const {
  const std::size_t limit = std::max(raw.size(), kMaxSubstitutedLength);
  std::string out;
  std::size_t i = 0;
  while (i < raw.size() && out.size() < limit) {
    if (raw[i] != '%') {
      out.push_back(raw[i++]);
      continue;
    }
    std::size_t close = raw.find('%', i + 1);
    if (close == std::string::npos) {
      out.append(raw, i, std::string::npos);
      break;
    }
    if (close == i + 1) {
      out.push_back('%');
    } else {
      const auto found = strings_.find(Lower(raw.substr(i + 1, close - i - 1)));
      if (found == strings_.end()) {
        out.append(raw, i, close - i + 1);
      } else {
        const std::vector<std::string>& fields =
            sections_[static_cast<std::size_t>(stringsSection_)].lines[found->second].fields;
        if (!fields.empty()) out.append(fields[0], 0, limit - std::min(limit, out.size()));
      }
    }
    i = close + 1;
  }
  if (out.size() > limit) out.resize(limit);
  return out;
}

std::string InfFile::signature() const {
  const int version = findSection("Version");
  if (version < 0) return "";
  for (const InfLine& l : sections_[static_cast<std::size_t>(version)].lines)
    if (l.hasKey && Lower(l.key) == "signature" && !l.fields.empty())
      return substitute(l.fields[0]);
  return "";
}

}  // namespace platform::recorded
