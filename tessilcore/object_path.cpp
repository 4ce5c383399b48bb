// Object paths of instances.
#include "tessilcore/object_path.h"

#include <algorithm>
#include <cctype>

namespace NKestovaTessil20 {
namespace path {

namespace {

// CIM names and keys compare without regard to ASCII case; the C library's tolower would
// also follow the process's locale, and costs a call per character.
char Lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsIdentifierStart(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool IsIdentifierChar(char c) {
  return IsIdentifierStart(c) || (c >= '0' && c <= '9');
}

// Characters an unquoted key value (number or boolean) may hold.
bool IsBareValueChar(char c) {
  return IsIdentifierChar(c) || c == '-' || c == '+' || c == '.';
}

}  // namespace

bool LessNoCase(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return Lower(x) < Lower(y); });
}

bool EqualNoCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return Lower(x) == Lower(y); });
}

bool IsIdentifier(const std::string& text) {
  if (text.empty() || !IsIdentifierStart(text[0])) return false;
  return std::all_of(text.begin(), text.end(), IsIdentifierChar);
}

std::string Quote(const std::string& value) {
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

std::string Build(const std::string& className, std::vector<TKey> keys) {
  if (keys.empty()) return className + "=@";
  std::stable_sort(keys.begin(), keys.end(),
                   [](const TKey& a, const TKey& b) { return LessNoCase(a.name, b.name); });
  std::string out = className;
  char separator = '.';
  for (const TKey& key : keys) {
    out += separator;
    out += key.name;
    out += '=';
    out += key.quoted ? Quote(key.text) : key.text;
    separator = ',';
  }
  return out;
}

bool Parse(const std::string& text, std::string& className, std::vector<TKey>& keys) {
  keys.clear();
  std::size_t pos = 0;
  while (pos < text.size() && IsIdentifierChar(text[pos])) ++pos;
  className = text.substr(0, pos);
  if (!IsIdentifier(className) || pos == text.size()) return false;
  if (text.compare(pos, std::string::npos, "=@") == 0) return true;
  if (text[pos] != '.') return false;
  ++pos;
  while (true) {
    const std::size_t nameStart = pos;
    while (pos < text.size() && IsIdentifierChar(text[pos])) ++pos;
    TKey key;
    key.name = text.substr(nameStart, pos - nameStart);
    if (!IsIdentifier(key.name) || pos == text.size() || text[pos] != '=') return false;
    ++pos;
    if (pos < text.size() && text[pos] == '"') {
      ++pos;
      bool closed = false;
      while (pos < text.size()) {
        const char c = text[pos++];
        if (c == '"') {
          closed = true;
          break;
        }
        if (c == '\\') {
          if (pos == text.size() || (text[pos] != '"' && text[pos] != '\\')) return false;
          key.text += text[pos++];
        } else {
          key.text += c;
        }
      }
      if (!closed) return false;
    } else {
      key.quoted = false;
      const std::size_t valueStart = pos;
      while (pos < text.size() && IsBareValueChar(text[pos])) ++pos;
      key.text = text.substr(valueStart, pos - valueStart);
      if (key.text.empty()) return false;
    }
    keys.push_back(std::move(key));
    if (pos == text.size()) return true;
    if (text[pos] != ',') return false;
    ++pos;
  }
}

}  // namespace path
}  // namespace NKestovaTessil20
