#include "platform/recorded/machine_version.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "platform/recorded/machine_text.h"

namespace platform::recorded {

namespace {

std::size_t Align4(std::size_t n) {
  return (n + 3) & ~std::size_t{3};
}

void PutWord(std::vector<BYTE>& out, std::size_t at, WORD v) {
  out[at] = static_cast<BYTE>(v & 0xFF);
  out[at + 1] = static_cast<BYTE>(v >> 8);
}

WORD GetWord(const BYTE* p) {
  return static_cast<WORD>(p[0] | (p[1] << 8));
}

// One node: wLength, wValueLength, wType, key with NUL, padding, value, padding, children.
// wLength counts up to the end of the last child, without the padding after the node.
std::vector<BYTE> Node(const std::u16string& key, const std::vector<BYTE>& value, WORD valueLength,
                       WORD type, const std::vector<std::vector<BYTE>>& children) {
  std::vector<BYTE> out(6);
  for (char16_t c : key + u'\0') {
    out.push_back(static_cast<BYTE>(c & 0xFF));
    out.push_back(static_cast<BYTE>(c >> 8));
  }
  out.resize(Align4(out.size()));
  out.insert(out.end(), value.begin(), value.end());
  for (const auto& child : children) {
    out.resize(Align4(out.size()));
    out.insert(out.end(), child.begin(), child.end());
  }
  PutWord(out, 0, static_cast<WORD>(out.size()));
  PutWord(out, 2, valueLength);
  PutWord(out, 4, type);
  return out;
}

std::vector<BYTE> TextValue(const std::u16string& text) {
  std::vector<BYTE> out;
  for (char16_t c : text + u'\0') {
    out.push_back(static_cast<BYTE>(c & 0xFF));
    out.push_back(static_cast<BYTE>(c >> 8));
  }
  return out;
}

// "5.1.2600.5512 (xpsp.080413-2111)" -> the four numbers.
void VersionNumbers(const std::u16string& text, DWORD* ms, DWORD* ls) {
  unsigned parts[4] = {0, 0, 0, 0};
  std::string narrow = WideToUtf8(text);
  for (char& c : narrow)
    if (c == ',') c = '.';
  std::sscanf(narrow.c_str(), "%u.%u.%u.%u", &parts[0], &parts[1], &parts[2], &parts[3]);
  *ms = (parts[0] & 0xFFFF) << 16 | (parts[1] & 0xFFFF);
  *ls = (parts[2] & 0xFFFF) << 16 | (parts[3] & 0xFFFF);
}

struct Parsed {
  std::size_t offset, end;  // node bounds
  WORD valueLength, type;
  std::u16string key;
  std::size_t valueOffset, childrenOffset;
};

bool ReadNode(const BYTE* base, std::size_t limit, std::size_t offset, Parsed* node) {
  if (offset > limit || limit - offset < 6) return false;
  const WORD length = GetWord(base + offset);
  if (length < 6 || length > limit - offset) return false;
  node->offset = offset;
  node->end = offset + length;
  node->valueLength = GetWord(base + offset + 2);
  node->type = GetWord(base + offset + 4);
  node->key.clear();
  std::size_t at = offset + 6;
  for (;; at += 2) {
    if (node->end - at < 2) return false;  // key without its NUL
    const char16_t c = GetWord(base + at);
    if (!c) break;
    node->key.push_back(c);
  }
  node->valueOffset = Align4(at + 2);
  const std::size_t valueBytes =
      node->type == 1 ? std::size_t{node->valueLength} * 2 : node->valueLength;
  if (node->valueOffset > node->end || node->end - node->valueOffset < valueBytes) {
    // A value that claims more than the node holds: take none of it.
    node->valueLength = 0;
    node->childrenOffset = std::min(node->end, node->valueOffset);
    return true;
  }
  node->childrenOffset = Align4(node->valueOffset + valueBytes);
  return true;
}

std::u16string Upper(std::u16string s) {
  for (auto& c : s)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  return s;
}

}  // namespace

std::vector<BYTE> BuildVersionBlock(const VersionFacts& facts) {
  VS_FIXEDFILEINFO fixed{};
  fixed.dwSignature = 0xFEEF04BDu;
  fixed.dwStrucVersion = 0x00010000u;
  for (const auto& [name, text] : facts.strings)
    if (name == u"FileVersion")
      VersionNumbers(text, &fixed.dwFileVersionMS, &fixed.dwFileVersionLS);
  fixed.dwProductVersionMS = fixed.dwFileVersionMS;
  fixed.dwProductVersionLS = fixed.dwFileVersionLS;
  fixed.dwFileFlagsMask = 0x3F;
  fixed.dwFileOS = 0x40004;  // VOS_NT_WINDOWS32
  fixed.dwFileType = 2;      // VFT_DLL
  std::vector<BYTE> fixedBytes(sizeof(fixed));
  std::memcpy(fixedBytes.data(), &fixed, sizeof(fixed));

  std::vector<std::vector<BYTE>> strings;
  for (const auto& [name, text] : facts.strings)
    strings.push_back(Node(name, TextValue(text), static_cast<WORD>(text.size() + 1), 1, {}));
  char table[9];
  std::snprintf(table, sizeof(table), "%04x%04x", facts.language, facts.codePage);
  std::vector<BYTE> stringTable = Node(Utf8ToWide(table), {}, 0, 1, strings);
  std::vector<BYTE> stringFileInfo = Node(u"StringFileInfo", {}, 0, 1, {stringTable});
  std::vector<BYTE> translation = {
      static_cast<BYTE>(facts.language & 0xFF), static_cast<BYTE>(facts.language >> 8),
      static_cast<BYTE>(facts.codePage & 0xFF), static_cast<BYTE>(facts.codePage >> 8)};
  std::vector<BYTE> var = Node(u"Translation", translation, 4, 0, {});
  std::vector<BYTE> varFileInfo = Node(u"VarFileInfo", {}, 0, 1, {var});
  std::vector<BYTE> block =
      Node(u"VS_VERSION_INFO", fixedBytes, sizeof(fixed), 0, {stringFileInfo, varFileInfo});
  // Every node lies inside the root, so a root that fits leaves no length wrapped.
  if (block.size() > kMaxVersionBlock)
    throw std::length_error("the version resource would take " + std::to_string(block.size()) +
                            " bytes; Windows keeps at most " + std::to_string(kMaxVersionBlock));
  return block;
}

bool FindVersionValue(const BYTE* block, std::size_t size, const std::string& subBlock,
                      VersionValue* value) {
  if (!block || !value) return false;
  Parsed node;
  if (!ReadNode(block, size, 0, &node) || node.key != u"VS_VERSION_INFO") return false;
  std::size_t pos = 0;
  while (pos < subBlock.size()) {
    while (pos < subBlock.size() && subBlock[pos] == '\\') ++pos;
    if (pos >= subBlock.size()) break;
    std::size_t next = subBlock.find('\\', pos);
    if (next == std::string::npos) next = subBlock.size();
    const std::u16string wanted = Upper(Utf8ToWide(subBlock.substr(pos, next - pos)));
    pos = next;
    bool found = false;
    Parsed child;
    for (std::size_t at = node.childrenOffset; at < node.end; at = Align4(child.end)) {
      if (!ReadNode(block, node.end, at, &child)) break;
      if (Upper(child.key) == wanted) {
        found = true;
        break;
      }
    }
    if (!found) return false;
    node = child;
  }
  value->offset = node.valueOffset;
  value->length = node.valueLength;
  value->isText = node.type == 1;
  return true;
}

}  // namespace platform::recorded
