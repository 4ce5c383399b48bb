// A registry hive file (the binary "regf" format Windows keeps its registry in), read in
// place: the file is mapped, and a key's cells are decoded only when the key is read, so
// opening one key of a 300 MB SOFTWARE hive touches a few pages of it. Every cell is
// checked against the file and its bin before it is used: hive files are untrusted input.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/recorded/registry_model.h"

namespace platform::recorded {

class KPLATFORM_API HiveFile {
 public:
  // Maps the file; throws platform::RecordError naming it when it is no hive (bad header,
  // checksum, sizes or root key).
  static std::unique_ptr<HiveFile> Open(const std::string& path);
  // The same over bytes in memory (tests, fuzzing); `name` names them in messages.
  static std::unique_ptr<HiveFile> FromBytes(std::string bytes, const std::string& name);
  // Bytes shared with other readers of the same hive (an image's hive mounted twice).
  static std::unique_ptr<HiveFile> FromShared(std::shared_ptr<const std::string> bytes,
                                              const std::string& name);
  ~HiveFile();
  HiveFile(const HiveFile&) = delete;
  HiveFile& operator=(const HiveFile&) = delete;

  std::uint32_t rootCell() const { return root_; }
  std::size_t size() const { return size_; }

  // A key record ("nk"): its name, time and where its lists are.
  struct Key {
    std::u16string name;
    std::uint64_t lastWriteTime = 0;
    std::uint32_t subKeyCount = 0;
    std::uint32_t subKeyList = 0;
    std::uint32_t valueCount = 0;
    std::uint32_t valueList = 0;
  };

  // Each call answers an empty text on success, else what is wrong, as "sub-key list at
  // 0x2f0 is not a list"; what was read before the fault stays in `out`.
  // Without `withName`, out.name is left as it was (a key already named needs only its
  // lists).
  std::string readKey(std::uint32_t cell, Key& out, bool withName = true) const;
  // The cells of the key's sub-keys, through lf, lh, li and ri lists, at most the count
  // its record declares.
  std::string subKeyCells(const Key& key, std::vector<std::uint32_t>& out) const;
  std::string valueCells(const Key& key, std::vector<std::uint32_t>& out) const;
  // A value record ("vk") with its data (inline, in one cell, or in big-data segments).
  std::string readValue(std::uint32_t cell, RegValueParts& out) const;

 private:
  HiveFile() = default;
  void check(const std::string& name);
  // The cell's payload (after its size field) when `cell` is an allocated cell of at
  // least `need` bytes inside one bin; null otherwise, with the reason in `fault`.
  const unsigned char* payload(std::uint32_t cell, std::size_t need, std::size_t* length,
                               std::string& fault) const;
  bool insideBin(std::size_t at, std::size_t length) const;
  std::string listCells(std::uint32_t list, std::uint32_t declared, bool nested,
                        std::vector<std::uint32_t>& out) const;

  // The bytes at `at`, read in first when the file is read by pages.
  const unsigned char* bytes(std::size_t at, std::size_t length) const;
  void readPages(std::size_t first, std::size_t last) const;

  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t binsEnd_ = 0;  // end of the last bin, as the header says
  std::uint32_t root_ = 0;
  std::shared_ptr<const std::string> bytes_;  // the file's bytes when held in memory whole
  // A file on disk is read a page at a time, when a cell there is first wanted, into
  // memory reserved for the whole file: a query pays for the pages it reads. (A mapping of
  // the file would do the same, but a fault on a mapped file maps the pages around it too,
  // 16 of them, which a query of one key pays for many times over.)
  void* mapping_ = nullptr;  // size_ bytes, reserved
  int fd_ = -1;
  std::unique_ptr<std::atomic<std::uint64_t>[]> loaded_;  // a bit per page read
  mutable std::mutex readMutex_;
  mutable std::size_t nextPage_ = 0;  // the page after the last read
  mutable std::size_t ahead_ = 1;     // pages read at once, while reads follow on
  // The bin of each page of the bins, found when a cell there is first read: 0 not looked
  // for yet, 1 in no bin, else 2 + the page its bin starts at. Each page is looked at once,
  // so finding bins costs at most one pass over the file whatever the cells point at.
  std::uint32_t binOf(std::size_t page) const;
  mutable std::vector<std::uint32_t> binOfPage_;
};

}  // namespace platform::recorded
