// Hive files mounted lazily: the mount key is bound to the hive's root, and each key's
// sub-keys and values are read from the mapped file the first time a call needs them, so
// a run pays for the keys it reads, not for the hive. A key is read once per run.
#include "platform/recorded/hive_registry.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform/recorded/hive_file.h"
#include "platform/recorded/record_error.h"

namespace platform::recorded {

namespace {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// A hive is a file of cells that point at each other, so a damaged or crafted one can
// make a key list the same child twice or its own ancestor, or point many values at one
// large cell. Each key cell is therefore read once (a second way to it is left out) and
// what is read is held to the file's size by a LoadBudget. What cannot be read is left
// out and reported on the tree, naming the file and the key.
class HiveSource : public KeySource {
 public:
  HiveSource(std::unique_ptr<HiveFile> file, std::string path, RegistryTree& tree)
      : file_(std::move(file)),
        path_(std::move(path)),
        tree_(tree),
        budget_(file_->size()),
        visited_(static_cast<std::uint64_t*>(std::calloc(file_->size() / 256 + 1, 8))) {
    if (!visited_) throw std::bad_alloc();
  }

  const HiveFile& file() const { return *file_; }

  // Marks a key cell (one read as a key, so inside the file) as reached; false when it
  // was reached before.
  bool visit(std::uint32_t cell) {
    const std::uint64_t bit = cell / 4;
    if (bit / 64 > file_->size() / 256) return false;
    std::uint64_t& word = visited_.get()[bit / 64];
    const std::uint64_t mask = std::uint64_t{1} << (bit % 64);
    if (word & mask) return false;
    word |= mask;
    return true;
  }

  void load(RegKey& key, Part part) override {
    std::lock_guard<std::mutex> lock(mutex_);
    fill(key, part);
  }

  void readAhead(RegKey& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (key.isLoaded(kReadAhead)) return;
    for (size_t i = 0; i < key.subKeyCount(); ++i) {
      RegKey& sub = const_cast<RegKey&>(key.subKey(i));
      if (!sub.boundTo(this)) continue;
      fill(sub, kValues | kSubKeys);
    }
    key.markLoaded(kReadAhead);
  }

 private:
  // Loads the `parts` (values before sub-keys) not loaded yet, from one read of the key.
  void fill(RegKey& key, unsigned parts) {
    if (key.isLoaded(kValues)) parts &= ~unsigned{kValues};
    if (key.isLoaded(kSubKeys)) parts &= ~unsigned{kSubKeys};
    if (parts == 0) return;
    HiveFile::Key record;
    const std::string fault = file_->readKey(key.sourceCell(), record, false);
    if (!fault.empty()) damaged(key, fault);
    for (const Part part : {kValues, kSubKeys}) {
      if (!(parts & part)) continue;
      if (fault.empty()) part == kSubKeys ? loadSubKeys(key, record) : loadValues(key, record);
      key.markLoaded(part);
    }
  }

  void loadSubKeys(RegKey& key, const HiveFile::Key& record) {
    size_t depth = 0;
    for (const RegKey* k = &key; k->parent(); k = k->parent()) ++depth;
    if (record.subKeyCount > 0 && depth >= kMaxKeyDepth) {
      return damaged(key, "keys nested deeper than 512 levels");
    }
    std::vector<std::uint32_t>& cells = cells_;
    const std::string listFault = file_->subKeyCells(record, cells);
    if (!listFault.empty()) damaged(key, listFault);
    key.reserveLoadedSubKeys(cells.size());
    for (std::uint32_t cell : cells) {
      HiveFile::Key child;
      const std::string fault = file_->readKey(cell, child);
      if (!fault.empty()) {
        damaged(key, "sub-key: " + fault);
        continue;
      }
      if (!visit(cell)) {
        damaged(key,
                "a sub-key reached a second time through the sub-key lists, but a key "
                "has one parent");
        continue;
      }
      // The kernel never makes such a key; regedit and the registry calls refuse the
      // name, and reg query would reopen the parent for an empty one.
      if (const char* nameFault = KeyNameFault(child.name)) {
        damaged(key, std::string("sub-key with ") + nameFault + ": " + QuoteForMessage(child.name));
        continue;
      }
      if (!budget_.chargeKey(child.name)) return overBudget(key);
      bool added = false;
      RegKey& sub = key.addLoadedSubKey(std::move(child.name), &added);
      if (!added && sub.isBound()) {
        damaged(key, "two sub-keys named " + QuoteForMessage(sub.name()));
        continue;
      }
      sub.setLastWriteTime(child.lastWriteTime);
      sub.bindSource(this, cell);
    }
  }

  void loadValues(RegKey& key, const HiveFile::Key& record) {
    std::vector<std::uint32_t>& cells = cells_;
    const std::string listFault = file_->valueCells(record, cells);
    if (!listFault.empty()) damaged(key, listFault);
    RegValueParts& value = value_;  // its buffers kept from one value to the next
    std::vector<std::unique_ptr<RegValue>>& made = made_;
    made.reserve(cells.size());
    for (std::uint32_t cell : cells) {
      const std::string fault = file_->readValue(cell, value);
      if (!fault.empty()) {
        damaged(key, "value " + QuoteForMessage(value.name) + " " + fault);
        continue;
      }
      if (value.name.size() > kMaxValueNameLength) {
        damaged(key, "value name longer than 16,383 characters: " + QuoteForMessage(value.name));
        continue;
      }
      if (!budget_.chargeValue(value)) {
        overBudget(key);
        break;
      }
      made.push_back(RegValue::Make(value));
    }
    key.addLoadedValues(made);
  }

  void overBudget(const RegKey& key) {
    damaged(key, "the keys and values read take more than " +
                     std::to_string(budget_.limit() >> 20) +
                     " MiB in memory (16 MiB and 8 bytes per byte of the file); the rest is "
                     "left out");
  }

  // "hives/SOFTWARE: damaged hive, key HKEY_LOCAL_MACHINE\SOFTWARE\X: what (left out)";
  // the key by its last few names.
  void damaged(const RegKey& key, const std::string& what) {
    std::vector<const RegKey*> chain;
    for (const RegKey* k = &key; k; k = k->parent()) chain.push_back(k);
    const size_t shown = 8;
    std::string name = ShownName(*chain.back());
    if (chain.size() > shown + 1) name += "\\...";
    for (size_t i = std::min(chain.size() - 1, shown); i-- > 0;) {
      name += "\\" + ShownName(*chain[i]);
    }
    tree_.reportDamage(path_ + ": damaged hive, key " + name + ": " + what + " (left out)");
  }

  static std::string ShownName(const RegKey& key) {
    const std::string quoted = QuoteForMessage(key.name());
    return quoted.substr(1, quoted.size() - 2);
  }

  std::unique_ptr<HiveFile> file_;
  std::string path_;
  RegistryTree& tree_;
  LoadBudget budget_;
  std::unique_ptr<std::uint64_t, FreeDeleter> visited_;  // a bit per 4-byte cell offset
  std::mutex mutex_;
  std::vector<std::uint32_t> cells_;             // the list being loaded, kept for its capacity
  RegValueParts value_;                          // the value being read, likewise
  std::vector<std::unique_ptr<RegValue>> made_;  // the values read, likewise
};

}  // namespace

bool HiveFilesSupported() {
  return true;
}

void LoadHiveFile(RegistryTree& tree, const std::string& path, Mount where) {
  MountHive(tree, HiveFile::Open(path), path, where);
}

void MountHive(RegistryTree& tree, std::unique_ptr<HiveFile> hive, const std::string& name,
               Mount where) {
  auto source = std::make_unique<HiveSource>(std::move(hive), name, tree);
  const std::vector<std::u16string> parts = SplitPath(MountPath(where));
  RegKey* key = tree.root(parts[0]);
  for (size_t i = 1; i < parts.size(); ++i) key = &key->ensureSubKey(parts[i]);
  if (key->isBound()) throw RecordError(name + ": a second hive for the same key");
  HiveFile::Key root;
  source->file().readKey(source->file().rootCell(), root);  // checked when the file opened
  source->visit(source->file().rootCell());
  key->setLastWriteTime(root.lastWriteTime);
  key->bindSource(source.get(), source->file().rootCell());
  tree.addSource(std::move(source));
}

}  // namespace platform::recorded
