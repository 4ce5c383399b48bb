// A registry held in memory: keys with case-insensitive, case-preserving names, sub-keys
// in the order Windows enumerates them (by upper-cased name), values in the order they
// were written, value data as the raw bytes Windows stores (strings in UTF-16LE).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/export.h"
#include "platform/types.h"

namespace platform::recorded {

// Windows limits: deeper keys or longer names cannot exist on a real machine, and one
// registry call creates at most 32 missing levels of a path. Values can in principle be
// larger than 16 MiB, but no installer writes one and nothing a collector reads is; values
// of a few MiB do occur (installers' blobs), so they still load.
constexpr size_t kMaxKeyDepth = 512;
constexpr size_t kMaxKeyNameLength = 255;
constexpr size_t kMaxValueNameLength = 16383;
constexpr size_t kMaxValueSize = 16 * 1024 * 1024;
constexpr size_t kMaxLevelsCreatedAtOnce = 32;

// Why no Windows key can have this name (empty, longer than 255 characters, holding the
// path separator or a NUL character), as "a name longer than 255 characters"; null when one can.
KPLATFORM_API const char* KeyNameFault(const std::u16string& name);

// Windows compares registry names after upcasing each UTF-16 unit. This covers the
// scripts that registry names use in practice (Latin, Greek, Cyrillic); other
// characters compare exactly.
KPLATFORM_API char16_t UpcaseChar(char16_t c);
KPLATFORM_API std::u16string FoldName(const std::u16string& name);
KPLATFORM_API bool NamesEqual(std::u16string_view a, std::u16string_view b);

// The data of a value as a key holds it: the bytes, with what callers use of a vector.
class ValueBytes {
 public:
  ValueBytes(const BYTE* data, size_t size) : data_(data), size_(size) {}
  const BYTE* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const BYTE* begin() const { return data_; }
  const BYTE* end() const { return data_ + size_; }
  BYTE operator[](size_t index) const { return data_[index]; }

 private:
  const BYTE* data_;
  size_t size_;
};

// A value as a reader makes it, part by part, before a key takes it.
struct RegValueParts {
  std::u16string name;  // empty: the key's default value
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

// A value as a key keeps it: name, type and data in one allocation. A large hive holds
// millions of values, and a name string and a data vector of their own, two more
// allocations each, were much of the cost of reading one.
class KPLATFORM_API RegValue {
 public:
  static std::unique_ptr<RegValue> Make(std::u16string_view name, DWORD type, const BYTE* data,
                                        size_t size);
  static std::unique_ptr<RegValue> Make(const RegValueParts& parts) {
    return Make(parts.name, parts.type, parts.data.data(), parts.data.size());
  }
  RegValue(const RegValue&) = delete;
  RegValue& operator=(const RegValue&) = delete;
  static void operator delete(void* value) { ::operator delete(value); }

  // Empty: the key's default value.
  std::u16string_view name() const {
    return {reinterpret_cast<const char16_t*>(this + 1), nameLength_};
  }
  DWORD type() const { return type_; }
  ValueBytes data() const {
    return {reinterpret_cast<const BYTE*>(this + 1) + 2 * nameLength_, size_};
  }

 private:
  RegValue(DWORD type, size_t nameLength, size_t size)
      : type_(type), nameLength_(nameLength), size_(size) {}
  DWORD type_;
  size_t nameLength_;
  size_t size_;
};

class RegKey;

// Where the sub-keys and values of a key come from when they were not loaded with it: a
// hive file read on demand. The first call that needs a key's sub-keys (or values) has the
// source add them; a key is filled once, and may already hold keys and values of its own
// (a .reg export loaded before the hive), which the source merges with.
class KPLATFORM_API KeySource {
 public:
  enum Part : unsigned { kSubKeys = 1, kValues = 2, kReadAhead = 4 };
  virtual ~KeySource();
  // Adds `part` of `key` (with addLoaded* below) and then calls key.markLoaded(part); a
  // call for a part already loaded does nothing. Never throws: what cannot be read is
  // left out.
  virtual void load(RegKey& key, Part part) = 0;
  // Loads the values and sub-key lists of every sub-key of `key` (whose sub-keys are
  // loaded), one sub-key after another, then calls key.markLoaded(kReadAhead).
  virtual void readAhead(RegKey& key) = 0;
};

class KPLATFORM_API RegKey {
 public:
  explicit RegKey(std::u16string name);
  ~RegKey();
  RegKey(const RegKey&) = delete;
  RegKey& operator=(const RegKey&) = delete;

  const std::u16string& name() const { return name_; }
  // 100-ns intervals since 1601 (a FILETIME); 0 when the record has none.
  std::uint64_t lastWriteTime() const { return lastWriteTime_; }
  void setLastWriteTime(std::uint64_t time) { lastWriteTime_ = time; }

  // Index access is valid once compact() has run after the last addition or removal;
  // until then sub-keys come in the order they were added.
  size_t subKeyCount() const {
    need(KeySource::kSubKeys);
    return subKeys_.items.size();
  }
  const RegKey& subKey(size_t index) const {
    need(KeySource::kSubKeys);
    return *subKeys_.items[index];
  }
  const RegKey* findSubKey(std::u16string_view name) const;
  RegKey* findSubKey(std::u16string_view name);
  // The sub-key of that name, added when missing (then `*added` is set).
  RegKey& ensureSubKey(const std::u16string& name, bool* added = nullptr);
  void removeSubKey(const std::u16string& name);

  size_t valueCount() const {
    need(KeySource::kValues);
    return values_.items.size();
  }
  const RegValue& value(size_t index) const {
    need(KeySource::kValues);
    return *values_.items[index];
  }
  const RegValue* findValue(std::u16string_view name) const;
  // Replaces the type and data of a value of the same name in place (its name keeps the
  // spelling it had).
  void setValue(const RegValueParts& value);
  void removeValue(const std::u16string& name);

  // Drops the holes that removals leave and puts sub-keys added since the last call in
  // Windows' order, in this key and every key below that is loaded. Call it once loading
  // is done.
  void compact();

  // The key that holds this one; null for a root.
  const RegKey* parent() const { return parent_; }

  // Binds the key to `source`: its sub-keys and values are loaded from there on demand.
  // `cell` names the key within the source.
  void bindSource(KeySource* source, std::uint32_t cell);
  std::uint32_t sourceCell() const { return cell_; }
  bool isBound() const { return source_ != nullptr; }
  // For a KeySource while it fills this key: adds without asking the source again. A
  // sub-key of a name already held is answered instead of a new one (`*added` false).
  RegKey& addLoadedSubKey(std::u16string name, bool* added);
  void addLoadedValue(const RegValueParts& value);  // as setValue
  // Each as addLoadedValue would, in order; `values` is left empty.
  void addLoadedValues(std::vector<std::unique_ptr<RegValue>>& values);
  // Room for `count` more, so that a long list is not regrown (and reindexed) as it fills.
  void reserveLoadedSubKeys(size_t count);
  void markLoaded(KeySource::Part part);
  bool isLoaded(KeySource::Part part) const;
  bool boundTo(const KeySource* source) const { return source_ == source; }

  // Has the source read every sub-key's values and sub-key list now, together, if it has
  // not yet: for a key about to be listed and each of its sub-keys read. Read one by one
  // between the reader's own work, they lie scattered in memory among what the reader
  // makes, and reading a key of 100,000 sub-keys that way took half again as long.
  void readAheadSubKeys() const;

 private:
  void need(KeySource::Part part) const {
    if (pending_.load(std::memory_order_acquire) & part) {
      source_->load(const_cast<RegKey&>(*this), part);
    }
  }
  // Items in order, with a name index built once a list grows past a few entries, so
  // lookups stay cheap in keys with thousands of children. The index is an open-addressing
  // table of item positions (8 bytes a slot, hashed on the upper-cased name), as a key
  // with a million values must not cost a hash node and a name copy per value. Removal
  // leaves a null hole (and its slot) until compact(), so a long run of removals is not
  // quadratic; additions are sorted there too (when asked), once, rather than kept in
  // place one insertion at a time.
  template <typename T>
  struct NamedList {
    std::vector<std::unique_ptr<T>> items;
    // Empty: no index. Else 0 = free; otherwise the low half n means items[n - 1] and the
    // high half holds the high half of its name's hash, so that a probe reads the item
    // only when that matches: with many thousands of items each read is a cache miss.
    std::vector<std::uint64_t> slots;
    bool holes = false;
    bool added = false;  // since the last compact()
    // Where the next lookup looks first: callers often look names up in the order they
    // were listed (enumerate, then open each). Only a hint, so relaxed.
    mutable std::atomic<std::uint32_t> next{0};
    T* find(std::u16string_view name) const;
    size_t position(std::u16string_view name) const;  // items.size() when absent
    void add(std::unique_ptr<T> item);
    // The item named `name`; when there is none, `make()`'s, added (then `made` is set).
    // `name` is not read once make() has run, so make() may take the string it views.
    template <typename Make>
    T* findOrAdd(std::u16string_view name, Make make, bool& made);
    // Adds `more` in order. An item whose name one already held has is handed to
    // `merge(held, item)` instead of being added.
    template <typename Merge>
    void addAll(std::vector<std::unique_ptr<T>>& more, Merge merge);
    void remove(std::u16string_view name);
    void compact(bool sortByName);
    void reserve(size_t more);

   private:
    // The item after the one last found, when it is named `name` (callers often look
    // names up in the order they were listed); items.size() otherwise.
    size_t hinted(std::u16string_view name) const;
    // The slot of the item named `name` (hashed to `hash`), or the free slot that ends
    // its probe.
    size_t slotOf(std::uint64_t hash, std::u16string_view name) const;
    void insertSlot(size_t position, std::uint64_t hash);
    void emptySlots(size_t capacity);      // a table for `capacity` items, at most half full
    void buildIndex(size_t capacity = 0);  // slots for at least `capacity` items
  };

  std::u16string name_;
  std::uint64_t lastWriteTime_ = 0;
  const RegKey* parent_ = nullptr;
  KeySource* source_ = nullptr;
  std::uint32_t cell_ = 0;
  std::atomic<unsigned> pending_{0};  // KeySource::Part bits not loaded yet
  NamedList<RegKey> subKeys_;
  NamedList<RegValue> values_;
};

// The machine's registry: the HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER and HKEY_USERS trees.
class KPLATFORM_API RegistryTree {
 public:
  RegistryTree();
  ~RegistryTree();
  RegistryTree(const RegistryTree&) = delete;
  RegistryTree& operator=(const RegistryTree&) = delete;

  // By full name: HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER or HKEY_USERS; null otherwise.
  RegKey* root(const std::u16string& fullName);
  const RegKey* root(const std::u16string& fullName) const;

  // A key by its full path ("HKEY_LOCAL_MACHINE\SOFTWARE\X", roots may be abbreviated as
  // in RootPath), taken literally (no views, no CurrentControlSet); null when missing.
  const RegKey* find(const std::u16string& path) const;

  void compact();

  // Sources that keys of this tree are bound to; they live as long as the tree.
  void addSource(std::unique_ptr<KeySource> source);
  // What sources found damaged while loading keys (each "file: ..."), in the order found;
  // the first 100 are kept, then only counted.
  void reportDamage(std::string what);
  std::vector<std::string> damage() const;

 private:
  std::vector<std::unique_ptr<KeySource>> sources_;
  mutable std::mutex damageMutex_;
  std::vector<std::string> damage_;
  std::size_t damageLeftOut_ = 0;
  RegKey localMachine_;
  RegKey currentUser_;
  RegKey users_;
};

// Text from a registry file for an error message: quoted, in UTF-8, cut after 40
// characters so a hostile name cannot flood the message, control characters as \xNN.
KPLATFORM_API std::string QuoteForMessage(const std::u16string& text);

// What loading one file may add to the tree, so that memory stays proportional to the
// input whatever it holds: 16 MiB plus 8 bytes per byte of the source (a .reg file's text
// as UTF-16, the form the tree keeps; a hive file's size). Costs are estimates of what the
// tree allocates; a regedit export takes 2 to 3 bytes per byte.
class KPLATFORM_API LoadBudget {
 public:
  explicit LoadBudget(std::uint64_t sourceBytes);
  // False once the charges so far exceed the budget.
  bool chargeKey(const std::u16string& name);
  bool chargeValue(const RegValueParts& value);
  std::uint64_t limit() const { return limit_; }

 private:
  std::uint64_t limit_;
  std::uint64_t used_ = 0;
};

// The components of a root's own path: HKLM -> {HKEY_LOCAL_MACHINE}, HKEY_CLASSES_ROOT ->
// {HKEY_LOCAL_MACHINE, SOFTWARE, Classes} ... Empty for a name that is no root.
KPLATFORM_API std::vector<std::u16string> RootPath(const std::u16string& rootName);

// Splits at '\'; empty components (doubled or trailing separators) are dropped.
KPLATFORM_API std::vector<std::u16string> SplitPath(const std::u16string& path);

// Little helpers for data as Windows stores it.
KPLATFORM_API std::vector<BYTE> Utf16Bytes(const std::u16string& text, bool withNul = true);
KPLATFORM_API std::u16string Utf16FromBytes(const BYTE* data, size_t size);

}  // namespace platform::recorded
