// In-memory registry keys and values.
#include "platform/recorded/registry_model.h"

#include <algorithm>
#include <numeric>

#include "platform/recorded/record_error.h"

namespace platform {
RecordError::~RecordError() = default;
}  // namespace platform

namespace platform::recorded {

namespace {
constexpr size_t kIndexThreshold = 8;
}  // namespace

static const std::u16string& NameOf(const RegKey& key) {
  return key.name();
}
static const std::u16string& NameOf(const RegValue& value) {
  return value.name;
}

char16_t UpcaseChar(char16_t c) {
  if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 0x20) : c;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 0x20);
  if (c == 0xFF) return 0x178;
  // Latin Extended-A: upper case at even code points, lower case right after (mostly).
  if (c >= 0x100 && c <= 0x17F) {
    if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) {
      return (c & 1) ? c : static_cast<char16_t>(c - 1);
    }
    if (c == 0x131 || c == 0x138 || c == 0x149 || c == 0x17F) return c;
    return (c & 1) ? static_cast<char16_t>(c - 1) : c;
  }
  if (c >= 0x3B1 && c <= 0x3CB && c != 0x3C2) return static_cast<char16_t>(c - 0x20);
  if (c == 0x3C2) return 0x3A3;
  if (c >= 0x430 && c <= 0x44F) return static_cast<char16_t>(c - 0x20);
  if (c >= 0x450 && c <= 0x45F) return static_cast<char16_t>(c - 0x50);
  if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<char16_t>(c - 0x20);  // full-width
  return c;
}

std::u16string FoldName(const std::u16string& name) {
  std::u16string folded(name);
  for (auto& c : folded) c = UpcaseChar(c);
  return folded;
}

bool NamesEqual(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && UpcaseChar(a[i]) != UpcaseChar(b[i])) return false;
  }
  return true;
}

template <typename T>
T* RegKey::NamedList<T>::find(const std::u16string& name) const {
  if (!index.empty()) {
    auto it = index.find(FoldName(name));
    return it == index.end() ? nullptr : items[it->second].get();
  }
  for (const auto& item : items) {
    if (item && NamesEqual(NameOf(*item), name)) return item.get();
  }
  return nullptr;
}

template <typename T>
void RegKey::NamedList<T>::add(std::unique_ptr<T> item) {
  items.push_back(std::move(item));
  added = true;
  if (!index.empty()) {
    index.emplace(FoldName(NameOf(*items.back())), items.size() - 1);
  } else if (items.size() > kIndexThreshold) {
    for (size_t i = 0; i < items.size(); ++i) {
      if (items[i]) index.emplace(FoldName(NameOf(*items[i])), i);
    }
  }
}

template <typename T>
void RegKey::NamedList<T>::remove(const std::u16string& name) {
  if (!index.empty()) {
    auto it = index.find(FoldName(name));
    if (it == index.end()) return;
    items[it->second].reset();
    index.erase(it);
    holes = true;
    return;
  }
  for (auto& item : items) {
    if (item && NamesEqual(NameOf(*item), name)) {
      item.reset();
      holes = true;
      return;
    }
  }
}

template <typename T>
void RegKey::NamedList<T>::compact(bool sortByName) {
  const bool sort = sortByName && added;
  added = false;
  if (!holes && !sort) return;
  bool moved = holes;
  if (holes) {
    size_t kept = 0;
    for (auto& item : items) {
      if (item) items[kept++] = std::move(item);
    }
    items.resize(kept);
    holes = false;
  }
  if (!sort && index.empty()) return;

  std::vector<std::u16string> folded(items.size());
  for (size_t i = 0; i < items.size(); ++i) folded[i] = FoldName(NameOf(*items[i]));
  std::vector<size_t> order(items.size());
  std::iota(order.begin(), order.end(), size_t{0});
  // Windows' hive index orders sub-keys by their upper-cased UTF-16 units. Folded names
  // are unique within a key, so stability only keeps the sort predictable.
  if (sort && !std::is_sorted(folded.begin(), folded.end())) {
    std::stable_sort(order.begin(), order.end(),
                     [&folded](size_t a, size_t b) { return folded[a] < folded[b]; });
    std::vector<std::unique_ptr<T>> sorted;
    sorted.reserve(items.size());
    for (size_t i : order) sorted.push_back(std::move(items[i]));
    items = std::move(sorted);
    moved = true;
  }
  if (moved && !index.empty()) {
    index.clear();
    for (size_t i = 0; i < order.size(); ++i) index.emplace(std::move(folded[order[i]]), i);
  }
}

RegKey::RegKey(std::u16string name) : name_(std::move(name)) {}
RegKey::~RegKey() = default;

const RegKey* RegKey::findSubKey(const std::u16string& name) const {
  return subKeys_.find(name);
}
RegKey* RegKey::findSubKey(const std::u16string& name) {
  return subKeys_.find(name);
}

RegKey& RegKey::ensureSubKey(const std::u16string& name) {
  if (RegKey* existing = subKeys_.find(name)) return *existing;
  subKeys_.add(std::make_unique<RegKey>(name));
  return *subKeys_.items.back();
}

void RegKey::removeSubKey(const std::u16string& name) {
  subKeys_.remove(name);
}

const RegValue* RegKey::findValue(const std::u16string& name) const {
  return values_.find(name);
}

void RegKey::setValue(RegValue value) {
  if (RegValue* existing = values_.find(value.name)) {
    existing->type = value.type;
    existing->data = std::move(value.data);
    return;
  }
  values_.add(std::make_unique<RegValue>(std::move(value)));
}

void RegKey::removeValue(const std::u16string& name) {
  values_.remove(name);
}

void RegKey::compact() {
  subKeys_.compact(true);
  values_.compact(false);  // Windows keeps values in the order they were written
  for (auto& key : subKeys_.items) key->compact();
}

RegistryTree::RegistryTree()
    : localMachine_(u"HKEY_LOCAL_MACHINE"),
      currentUser_(u"HKEY_CURRENT_USER"),
      users_(u"HKEY_USERS") {}
RegistryTree::~RegistryTree() = default;

RegKey* RegistryTree::root(const std::u16string& fullName) {
  return const_cast<RegKey*>(static_cast<const RegistryTree*>(this)->root(fullName));
}

const RegKey* RegistryTree::root(const std::u16string& fullName) const {
  if (NamesEqual(fullName, localMachine_.name())) return &localMachine_;
  if (NamesEqual(fullName, currentUser_.name())) return &currentUser_;
  if (NamesEqual(fullName, users_.name())) return &users_;
  return nullptr;
}

const RegKey* RegistryTree::find(const std::u16string& path) const {
  std::vector<std::u16string> parts = SplitPath(path);
  if (parts.empty()) return nullptr;
  std::vector<std::u16string> full = RootPath(parts[0]);
  if (full.empty()) return nullptr;
  full.insert(full.end(), parts.begin() + 1, parts.end());
  const RegKey* key = root(full[0]);
  for (size_t i = 1; key && i < full.size(); ++i) key = key->findSubKey(full[i]);
  return key;
}

void RegistryTree::compact() {
  localMachine_.compact();
  currentUser_.compact();
  users_.compact();
}

std::vector<std::u16string> RootPath(const std::u16string& rootName) {
  if (NamesEqual(rootName, u"HKEY_LOCAL_MACHINE") || NamesEqual(rootName, u"HKLM")) {
    return {u"HKEY_LOCAL_MACHINE"};
  }
  if (NamesEqual(rootName, u"HKEY_CURRENT_USER") || NamesEqual(rootName, u"HKCU")) {
    return {u"HKEY_CURRENT_USER"};
  }
  if (NamesEqual(rootName, u"HKEY_USERS") || NamesEqual(rootName, u"HKU")) {
    return {u"HKEY_USERS"};
  }
  if (NamesEqual(rootName, u"HKEY_CLASSES_ROOT") || NamesEqual(rootName, u"HKCR")) {
    return {u"HKEY_LOCAL_MACHINE", u"SOFTWARE", u"Classes"};
  }
  return {};
}

std::vector<std::u16string> SplitPath(const std::u16string& path) {
  std::vector<std::u16string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find(u'\\', start);
    if (end == std::u16string::npos) end = path.size();
    if (end > start) parts.emplace_back(path, start, end - start);
    start = end + 1;
  }
  return parts;
}

std::vector<BYTE> Utf16Bytes(const std::u16string& text, bool withNul) {
  std::vector<BYTE> bytes;
  bytes.reserve(text.size() * 2 + 2);
  for (char16_t c : text) {
    bytes.push_back(static_cast<BYTE>(c & 0xFF));
    bytes.push_back(static_cast<BYTE>(c >> 8));
  }
  if (withNul) bytes.insert(bytes.end(), {0, 0});
  return bytes;
}

std::u16string Utf16FromBytes(const BYTE* data, size_t size) {
  std::u16string text(size / 2, u'\0');
  for (size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  }
  return text;
}

}  // namespace platform::recorded
