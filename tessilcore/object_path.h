// Object paths (Class.Key1="v1",Key2=5): building, parsing and escaping. Internal.
#pragma once

#include <string>
#include <vector>

namespace NKestovaTessil20 {
namespace path {

struct TKey {
  std::string name;
  std::string text;  // unescaped value text
  bool quoted = true;
};

// "Class.A=\"x\",B=5" with the keys sorted by name (case-insensitive), or "Class=@" for a
// class without keys.
std::string Build(const std::string& className, std::vector<TKey> keys);

// Parses a path written as Build writes it (keys in any order, blanks not allowed).
// False when the text is not such a path.
bool Parse(const std::string& text, std::string& className, std::vector<TKey>& keys);

// `"` and `\` preceded by `\`, the whole in double quotes.
std::string Quote(const std::string& value);

bool IsIdentifier(const std::string& text);

// Byte-wise comparison after lower-casing ASCII letters; CIM names ignore case.
bool LessNoCase(const std::string& a, const std::string& b);
bool EqualNoCase(const std::string& a, const std::string& b);

}  // namespace path
}  // namespace NKestovaTessil20
