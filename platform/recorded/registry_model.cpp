// In-memory registry keys and values.
#include "platform/recorded/registry_model.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/recorded/codepage.h"
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
static std::u16string_view NameOf(const RegValue& value) {
  return value.name();
}

std::unique_ptr<RegValue> RegValue::Make(std::u16string_view name, DWORD type, const BYTE* data,
                                         size_t size) {
  static_assert(sizeof(RegValue) % alignof(char16_t) == 0, "the name follows the record");
  auto* memory =
      static_cast<unsigned char*>(::operator new(sizeof(RegValue) + 2 * name.size() + size));
  std::unique_ptr<RegValue> value(new (memory) RegValue(type, name.size(), size));
  unsigned char* tail = memory + sizeof(RegValue);
  if (!name.empty()) std::memcpy(tail, name.data(), 2 * name.size());
  if (size != 0) std::memcpy(tail + 2 * name.size(), data, size);
  return value;
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

bool NamesEqual(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  // Names are nearly always asked for as they are spelled (listed, then opened).
  if (std::memcmp(a.data(), b.data(), a.size() * sizeof(char16_t)) == 0) return true;
  for (size_t i = 0; i < a.size(); ++i) {
    const char16_t x = a[i], y = b[i];
    if (x == y) continue;
    // Two ASCII characters match only as the two cases of one letter.
    if (x < 0x80 && y < 0x80) {
      const char16_t lower = x | 0x20;
      if ((x ^ y) != 0x20 || lower < u'a' || lower > u'z') return false;
    } else if (UpcaseChar(x) != UpcaseChar(y)) {
      return false;
    }
  }
  return true;
}

namespace {

// FNV-1a over the upper-cased UTF-16 units, so names that Windows holds equal hash alike.
// Names are ASCII as a rule: those characters are folded here rather than by a call each.
std::uint64_t FoldedHash(std::u16string_view name) {
  std::uint64_t hash = 14695981039346656037ull;
  for (char16_t c : name) {
    const char16_t folded = c >= 0x80                  ? UpcaseChar(c)
                            : (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 0x20)
                                                       : c;
    hash = (hash ^ folded) * 1099511628211ull;
  }
  return hash ^ (hash >> 32);
}

constexpr std::uint64_t kTagMask = 0xffffffff00000000ull;

}  // namespace

template <typename T>
size_t RegKey::NamedList<T>::hinted(std::u16string_view name) const {
  const size_t hint = next.load(std::memory_order_relaxed);
  if (hint < items.size() && items[hint] && NamesEqual(NameOf(*items[hint]), name)) {
    next.store(static_cast<std::uint32_t>(hint + 1), std::memory_order_relaxed);
    return hint;
  }
  return items.size();
}

template <typename T>
size_t RegKey::NamedList<T>::position(std::u16string_view name) const {
  if (const size_t hint = hinted(name); hint < items.size()) return hint;
  size_t found = items.size();
  if (slots.empty()) {
    for (size_t i = 0; i < items.size() && found == items.size(); ++i) {
      if (items[i] && NamesEqual(NameOf(*items[i]), name)) found = i;
    }
  } else {
    const size_t s = slotOf(FoldedHash(name), name);
    if (slots[s] != 0) found = static_cast<std::uint32_t>(slots[s]) - 1;
  }
  if (found < items.size())
    next.store(static_cast<std::uint32_t>(found + 1), std::memory_order_relaxed);
  return found;
}

// The table is at most half full, so a free slot ends every probe. Slots of removed
// items stay until the next rebuild and are stepped over.
template <typename T>
size_t RegKey::NamedList<T>::slotOf(std::uint64_t hash, std::u16string_view name) const {
  const size_t mask = slots.size() - 1;
  const std::uint64_t tag = hash & kTagMask;
  size_t s = hash & mask;
  for (; slots[s] != 0; s = (s + 1) & mask) {
    if ((slots[s] & kTagMask) != tag) continue;
    const size_t i = static_cast<std::uint32_t>(slots[s]) - 1;
    if (items[i] && NamesEqual(NameOf(*items[i]), name)) break;
  }
  return s;
}

template <typename T>
void RegKey::NamedList<T>::insertSlot(size_t position, std::uint64_t hash) {
  const size_t mask = slots.size() - 1;
  size_t s = hash & mask;
  while (slots[s] != 0) s = (s + 1) & mask;
  slots[s] = (hash & kTagMask) | static_cast<std::uint32_t>(position + 1);
}

template <typename T>
void RegKey::NamedList<T>::emptySlots(size_t capacity) {
  size_t size = 16;
  while (size < capacity * 2 + 2) size *= 2;
  slots.assign(size, 0);
}

template <typename T>
void RegKey::NamedList<T>::buildIndex(size_t capacity) {
  capacity = std::max(capacity, items.size());
  if (capacity <= kIndexThreshold) {
    slots.clear();
    slots.shrink_to_fit();
    return;
  }
  emptySlots(capacity);
  for (size_t i = 0; i < items.size(); ++i) {
    if (items[i]) insertSlot(i, FoldedHash(NameOf(*items[i])));
  }
}

template <typename T>
void RegKey::NamedList<T>::reserve(size_t more) {
  const size_t capacity = items.size() + more;
  items.reserve(capacity);
  if (capacity > kIndexThreshold && capacity * 2 + 2 > slots.size()) buildIndex(capacity);
}

template <typename T>
T* RegKey::NamedList<T>::find(std::u16string_view name) const {
  const size_t i = position(name);
  return i < items.size() ? items[i].get() : nullptr;
}

template <typename T>
void RegKey::NamedList<T>::add(std::unique_ptr<T> item) {
  items.push_back(std::move(item));
  added = true;
  if (items.size() * 2 + 2 > slots.size()) {
    buildIndex();
  } else {
    insertSlot(items.size() - 1, FoldedHash(NameOf(*items.back())));
  }
}

template <typename T>
template <typename Make>
T* RegKey::NamedList<T>::findOrAdd(std::u16string_view name, Make make, bool& made) {
  made = false;
  // Without an index, or with one that the addition rebuilds, as find() and add() do.
  if (slots.empty() || (items.size() + 1) * 2 + 2 > slots.size()) {
    const size_t at = position(name);
    if (at < items.size()) return items[at].get();
    add(make());
    made = true;
    return items.back().get();
  }
  if (const size_t hint = hinted(name); hint < items.size()) return items[hint].get();
  const std::uint64_t hash = FoldedHash(name);
  const size_t s = slotOf(hash, name);
  if (slots[s] != 0) {
    const size_t at = static_cast<std::uint32_t>(slots[s]) - 1;
    next.store(static_cast<std::uint32_t>(at + 1), std::memory_order_relaxed);
    return items[at].get();
  }
  // The probe ended at a free slot: the new item takes it, with no second hash or probe.
  items.push_back(make());
  added = true;
  slots[s] = (hash & kTagMask) | static_cast<std::uint32_t>(items.size());
  made = true;
  return items.back().get();
}

// Into an empty list with an index, the index is built in one pass over hashes taken
// first, asking for each slot a few items ahead: with many thousands of items every slot
// is a cache miss, and one after another they were most of loading a long value list.
template <typename T>
template <typename Merge>
void RegKey::NamedList<T>::addAll(std::vector<std::unique_ptr<T>>& more, Merge merge) {
  if (items.empty() && slots.empty() && more.size() <= kIndexThreshold) {
    // A short list (most keys' values): each name against those kept before it.
    items.reserve(more.size());
    for (auto& item : more) {
      size_t at = 0;
      while (at < items.size() && !NamesEqual(NameOf(*items[at]), NameOf(*item))) ++at;
      if (at < items.size()) {
        merge(items[at], item);
      } else {
        items.push_back(std::move(item));
      }
    }
    added = added || !items.empty();
    more.clear();
    return;
  }
  if (!items.empty()) {
    for (auto& item : more) {
      const size_t at = position(NameOf(*item));
      if (at < items.size()) {
        merge(items[at], item);
      } else {
        add(std::move(item));
      }
    }
    more.clear();
    return;
  }
  items.swap(more);
  more.clear();
  added = true;
  emptySlots(items.size());
  const size_t mask = slots.size() - 1;
  std::vector<std::uint64_t> hashes(items.size());
  for (size_t i = 0; i < items.size(); ++i) hashes[i] = FoldedHash(NameOf(*items[i]));
  constexpr size_t kAhead = 16;
  bool merged = false;
  for (size_t i = 0; i < items.size(); ++i) {
#if defined(__GNUC__)
    if (i + kAhead < items.size()) __builtin_prefetch(&slots[hashes[i + kAhead] & mask], 1);
#endif
    const size_t s = slotOf(hashes[i], NameOf(*items[i]));
    if (slots[s] != 0) {
      merge(items[static_cast<std::uint32_t>(slots[s]) - 1], items[i]);
      items[i].reset();
      merged = true;
    } else {
      slots[s] = (hashes[i] & kTagMask) | static_cast<std::uint32_t>(i + 1);
    }
  }
  if (merged) {
    items.erase(std::remove(items.begin(), items.end(), nullptr), items.end());
    buildIndex();
  }
}

template <typename T>
void RegKey::NamedList<T>::remove(std::u16string_view name) {
  const size_t i = position(name);
  if (i == items.size()) return;
  items[i].reset();
  holes = true;
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
  // Windows' hive index orders sub-keys by their upper-cased UTF-16 units. Folded names
  // are unique within a key, so stability only keeps the sort predictable. Lists usually
  // come in order already (a hive's, an export's), and are then left as they are.
  const auto foldedLess = [](const auto& a, const auto& b) {
    const std::u16string_view x = NameOf(*a), y = NameOf(*b);
    const size_t n = std::min(x.size(), y.size());
    for (size_t i = 0; i < n; ++i) {
      const char16_t p = UpcaseChar(x[i]), q = UpcaseChar(y[i]);
      if (p != q) return p < q;
    }
    return x.size() < y.size();
  };
  if (sort && !std::is_sorted(items.begin(), items.end(), foldedLess)) {
    std::stable_sort(items.begin(), items.end(), foldedLess);
    moved = true;
  }
  if (moved) buildIndex();
}

KeySource::~KeySource() = default;

RegKey::RegKey(std::u16string name) : name_(std::move(name)) {}
RegKey::~RegKey() = default;

const RegKey* RegKey::findSubKey(std::u16string_view name) const {
  need(KeySource::kSubKeys);
  return subKeys_.find(name);
}
RegKey* RegKey::findSubKey(std::u16string_view name) {
  need(KeySource::kSubKeys);
  return subKeys_.find(name);
}

RegKey& RegKey::ensureSubKey(const std::u16string& name, bool* added) {
  need(KeySource::kSubKeys);
  return addLoadedSubKey(name, added);
}

RegKey& RegKey::addLoadedSubKey(std::u16string name, bool* added) {
  bool made = false;
  RegKey* key = subKeys_.findOrAdd(
      name, [&name] { return std::make_unique<RegKey>(std::move(name)); }, made);
  if (made) key->parent_ = this;
  if (added) *added = made;
  return *key;
}

void RegKey::removeSubKey(const std::u16string& name) {
  need(KeySource::kSubKeys);
  subKeys_.remove(name);
}

const RegValue* RegKey::findValue(std::u16string_view name) const {
  need(KeySource::kValues);
  return values_.find(name);
}

void RegKey::setValue(const RegValueParts& value) {
  need(KeySource::kValues);
  addLoadedValue(value);
}

void RegKey::addLoadedValues(std::vector<std::unique_ptr<RegValue>>& values) {
  values_.addAll(values, [](std::unique_ptr<RegValue>& held, std::unique_ptr<RegValue>& value) {
    const ValueBytes data = value->data();
    held = RegValue::Make(held->name(), value->type(), data.data(), data.size());
  });
}

void RegKey::addLoadedValue(const RegValueParts& value) {
  const size_t at = values_.position(value.name);
  if (at < values_.items.size()) {
    std::unique_ptr<RegValue>& existing = values_.items[at];
    existing = RegValue::Make(existing->name(), value.type, value.data.data(), value.data.size());
    return;
  }
  values_.add(RegValue::Make(value));
}

void RegKey::removeValue(const std::u16string& name) {
  need(KeySource::kValues);
  values_.remove(name);
}

// Keys not loaded yet are left alone: loading puts them in order when it happens.
void RegKey::compact() {
  if (isLoaded(KeySource::kSubKeys)) {
    subKeys_.compact(true);
    for (auto& key : subKeys_.items) key->compact();
  }
  // Windows keeps values in the order they were written.
  if (isLoaded(KeySource::kValues)) values_.compact(false);
}

void RegKey::bindSource(KeySource* source, std::uint32_t cell) {
  source_ = source;
  cell_ = cell;
  pending_.store(KeySource::kSubKeys | KeySource::kValues | KeySource::kReadAhead,
                 std::memory_order_release);
}

void RegKey::readAheadSubKeys() const {
  if (!(pending_.load(std::memory_order_acquire) & KeySource::kReadAhead)) return;
  need(KeySource::kSubKeys);
  source_->readAhead(const_cast<RegKey&>(*this));
}

void RegKey::reserveLoadedSubKeys(size_t count) {
  subKeys_.reserve(count);
}

void RegKey::markLoaded(KeySource::Part part) {
  if (part == KeySource::kSubKeys) subKeys_.compact(true);
  pending_.fetch_and(~static_cast<unsigned>(part), std::memory_order_acq_rel);
}

bool RegKey::isLoaded(KeySource::Part part) const {
  return (pending_.load(std::memory_order_acquire) & part) == 0;
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

void RegistryTree::addSource(std::unique_ptr<KeySource> source) {
  sources_.push_back(std::move(source));
}

void RegistryTree::reportDamage(std::string what) {
  std::lock_guard<std::mutex> lock(damageMutex_);
  // Two readers of one file (an image's facts and its machine) find the same damage.
  if (std::find(damage_.begin(), damage_.end(), what) != damage_.end()) return;
  if (damage_.size() < 100) {
    damage_.push_back(std::move(what));
  } else {
    ++damageLeftOut_;
  }
}

std::vector<std::string> RegistryTree::damage() const {
  std::lock_guard<std::mutex> lock(damageMutex_);
  std::vector<std::string> all = damage_;
  if (damageLeftOut_ > 0) {
    all.push_back("... and " + std::to_string(damageLeftOut_) + " more damaged keys or values");
  }
  return all;
}

void RegistryTree::compact() {
  localMachine_.compact();
  currentUser_.compact();
  users_.compact();
}

const char* KeyNameFault(const std::u16string& name) {
  if (name.empty()) return "an empty name";
  if (name.size() > kMaxKeyNameLength) return "a name longer than 255 characters";
  if (name.find(u'\\') != std::u16string::npos) return "a '\\' in its name";
  // The registry calls end a name at its first NUL, so no caller could open the key.
  if (name.find(u'\0') != std::u16string::npos) return "a NUL character in its name";
  return nullptr;
}

std::string QuoteForMessage(const std::u16string& text) {
  std::u16string shown;
  for (size_t i = 0; i < text.size() && i < 40; ++i) {
    if (text[i] >= 0x20) {
      shown += text[i];
      continue;
    }
    const char* digits = "0123456789ABCDEF";
    shown += {u'\\', u'x', static_cast<char16_t>(digits[text[i] >> 4]),
              static_cast<char16_t>(digits[text[i] & 15])};
  }
  if (text.size() > 40) shown += u"...";
  return "'" + WideToUtf8(shown) + "'";
}

namespace {
// Beyond the names and data themselves: the object, its allocation, its place in the
// parent's list and index.
constexpr std::uint64_t kKeyOverhead = sizeof(RegKey) + 64;
constexpr std::uint64_t kValueOverhead = sizeof(RegValue) + 80;
constexpr std::uint64_t kBudgetFloor = 16u << 20;
constexpr std::uint64_t kBudgetPerSourceByte = 8;
}  // namespace

LoadBudget::LoadBudget(std::uint64_t sourceBytes)
    : limit_(kBudgetFloor + kBudgetPerSourceByte * sourceBytes) {}

bool LoadBudget::chargeKey(const std::u16string& name) {
  used_ += kKeyOverhead + 2 * name.size();
  return used_ <= limit_;
}

bool LoadBudget::chargeValue(const RegValueParts& value) {
  used_ += kValueOverhead + 2 * value.name.size() + value.data.size();
  return used_ <= limit_;
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
