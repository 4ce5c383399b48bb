// Hive files read in place. Layout (all little-endian): a 4 KiB base block ("regf"), then
// bins ("hbin", multiples of 4 KiB) holding cells; a cell is a signed 32-bit size
// (negative while allocated) and its payload. Cell offsets count from the first bin.
#include "platform/recorded/hive_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "platform/recorded/little_endian.h"
#include "platform/recorded/record_error.h"

namespace platform::recorded {

namespace {

constexpr std::size_t kFirstBin = 0x1000;
constexpr std::size_t kPage = 0x1000;
constexpr std::size_t kBinHeader = 0x20;
// Windows stores data above this size in segments of this size ("big data").
constexpr std::size_t kBigDataSegment = 16344;

// Key records ("nk"), from the start of the payload.
constexpr std::size_t kKeyFlags = 0x02, kKeyTime = 0x04, kKeySubKeyCount = 0x14,
                      kKeySubKeyList = 0x1C, kKeyValueCount = 0x24, kKeyValueList = 0x28,
                      kKeyNameLength = 0x48, kKeyName = 0x4C;
constexpr unsigned kKeyCompressedName = 0x20;
// Value records ("vk").
constexpr std::size_t kValueNameLength = 0x02, kValueDataLength = 0x04, kValueData = 0x08,
                      kValueType = 0x0C, kValueFlags = 0x10, kValueName = 0x14;
constexpr unsigned kValueCompressedName = 0x01;
constexpr std::uint32_t kInlineData = 0x80000000u;

std::string Hex(std::size_t value) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  do {
    text.insert(text.begin(), digits[value & 15]);
    value >>= 4;
  } while (value != 0);
  return "0x" + text;
}

// Names are Latin-1 bytes when the record says "compressed" (the low bytes of UTF-16
// units), else UTF-16LE; an odd last byte of the latter belongs to no character.
// Sized once and filled: assigning from a byte range would build a temporary string.
void NameInto(std::u16string& name, const unsigned char* p, std::size_t bytes, bool compressed) {
  name.resize(compressed ? bytes : bytes / 2);
  if (compressed) {
    for (std::size_t i = 0; i < name.size(); ++i) name[i] = p[i];
  } else {
    for (std::size_t i = 0; i < name.size(); ++i) name[i] = Le16(p + 2 * i);
  }
}

std::u16string Name(const unsigned char* p, std::size_t bytes, bool compressed) {
  std::u16string name;
  NameInto(name, p, bytes, compressed);
  return name;
}

}  // namespace

std::unique_ptr<HiveFile> HiveFile::Open(const std::string& path) {
  std::unique_ptr<HiveFile> hive(new HiveFile());
#if !defined(_WIN32)
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw RecordError(path + ": not a readable registry hive (" + std::strerror(errno) + ")");
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    throw RecordError(path + ": not a readable registry hive (not a regular file)");
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size >= kFirstBin) {
    void* reserved = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved != MAP_FAILED) {
      // Huge pages would make each page read cost 2 MiB of memory.
      ::madvise(reserved, size, MADV_NOHUGEPAGE);
      hive->mapping_ = reserved;
      hive->data_ = static_cast<const unsigned char*>(reserved);
      hive->size_ = size;
      hive->loaded_.reset(new std::atomic<std::uint64_t>[size / kPage / 64 + 1]());
      hive->fd_ = fd;
    }
  }
  if (hive->fd_ < 0) {
    ::close(fd);
    if (size >= kFirstBin) {
      throw RecordError(path + ": not a readable registry hive (cannot reserve memory for it)");
    }
  }
#else
  std::ifstream in(path, std::ios::binary);
  if (!in) throw RecordError(path + ": not a readable registry hive (cannot open it)");
  auto bytes = std::make_shared<const std::string>(std::istreambuf_iterator<char>(in),
                                                   std::istreambuf_iterator<char>());
  hive->bytes_ = bytes;
  hive->data_ = reinterpret_cast<const unsigned char*>(bytes->data());
  hive->size_ = bytes->size();
#endif
  hive->check(path);
  return hive;
}

std::unique_ptr<HiveFile> HiveFile::FromBytes(std::string bytes, const std::string& name) {
  return FromShared(std::make_shared<const std::string>(std::move(bytes)), name);
}

std::unique_ptr<HiveFile> HiveFile::FromShared(std::shared_ptr<const std::string> bytes,
                                               const std::string& name) {
  std::unique_ptr<HiveFile> hive(new HiveFile());
  hive->bytes_ = std::move(bytes);
  hive->data_ = reinterpret_cast<const unsigned char*>(hive->bytes_->data());
  hive->size_ = hive->bytes_->size();
  hive->check(name);
  return hive;
}

HiveFile::~HiveFile() {
#if !defined(_WIN32)
  if (mapping_ != nullptr) ::munmap(mapping_, size_);
  if (fd_ >= 0) ::close(fd_);
#endif
}

const unsigned char* HiveFile::bytes(std::size_t at, std::size_t length) const {
  if (fd_ >= 0 && length > 0) {
    const std::size_t first = at / kPage, last = (at + length - 1) / kPage;
    for (std::size_t page = first; page <= last; ++page) {
      if (!(loaded_[page / 64].load(std::memory_order_acquire) & (std::uint64_t{1} << page % 64))) {
        readPages(page, last);
        break;
      }
    }
  }
  return data_ + at;
}

// A page that cannot be read (the file shrank, an I/O error) reads as zeros: its cells are
// then damage, reported as such, rather than a fault of the process as a mapping gives.
// Reads that follow one another through the file (a whole key tree, written in order) read
// ahead, in a window that doubles up to 128 KiB; scattered reads (one key) read a page.
void HiveFile::readPages(std::size_t first, std::size_t last) const {
#if !defined(_WIN32)
#ifdef MADV_POPULATE_WRITE
  constexpr int kPopulateWrite = MADV_POPULATE_WRITE;
#else
  constexpr int kPopulateWrite = 23;
#endif
  std::lock_guard<std::mutex> lock(readMutex_);
  const auto isLoaded = [this](std::size_t page) {
    return (loaded_[page / 64].load(std::memory_order_relaxed) >> page % 64) & 1;
  };
  constexpr std::size_t kMostAhead = 32;
  ahead_ = first == nextPage_ ? std::min(ahead_ * 2, kMostAhead) : 1;
  const std::size_t pages = (size_ + kPage - 1) / kPage;
  last = std::min(std::max(last, first + ahead_ - 1), pages - 1);
  auto* memory = static_cast<unsigned char*>(mapping_);
  for (std::size_t page = first; page <= last;) {
    if (isLoaded(page)) {
      ++page;
      continue;
    }
    std::size_t end = page + 1;  // a run of pages not read yet
    while (end <= last && !isLoaded(end)) ++end;
    const std::size_t start = page * kPage;
    const std::size_t want = std::min(end * kPage, size_) - start;
    // Pages of a longer run are made present in one call rather than by one fault each
    // as the read fills them (kernels before 5.14 refuse, and the faults happen as before).
    if (end - page > 1) ::madvise(memory + start, want, kPopulateWrite);
    std::size_t got = 0;
    while (got < want) {
      const ssize_t n =
          ::pread(fd_, memory + start + got, want - got, static_cast<off_t>(start + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    if (got < want) std::memset(memory + start + got, 0, want - got);
    for (; page < end; ++page) {
      loaded_[page / 64].fetch_or(std::uint64_t{1} << page % 64, std::memory_order_release);
    }
  }
  nextPage_ = last + 1;
#else
  (void)first;
  (void)last;
#endif
}

// What Windows checks before it uses a hive's primary file.
void HiveFile::check(const std::string& name) {
  auto refuse = [&name](const std::string& why) {
    throw RecordError(name + ": not a readable registry hive (" + why + ")");
  };
  if (size_ < kFirstBin) refuse("no \"regf\" header");
  const unsigned char* base = bytes(0, kFirstBin);
  if (std::memcmp(base, "regf", 4) != 0) refuse("no \"regf\" header");
  if (Le32(base + 0x14) != 1) refuse("format version " + std::to_string(Le32(base + 0x14)));
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < 0x1FC; i += 4) sum ^= Le32(base + i);
  if (sum == 0) sum = 1;
  if (sum == 0xFFFFFFFFu) sum = 0xFFFFFFFEu;
  if (sum != Le32(base + 0x1FC)) refuse("header checksum does not match");
  const std::size_t bins = Le32(base + 0x28);
  if (bins == 0 || bins % kPage != 0) refuse("bins size " + Hex(bins) + " is no multiple of 4 KiB");
  if (bins > size_ - kFirstBin) {
    refuse("the header says " + std::to_string(bins) + " bytes of bins, the file holds " +
           std::to_string(size_ - kFirstBin));
  }
  binsEnd_ = kFirstBin + bins;
  binOfPage_.assign(bins / kPage, 0);
  root_ = Le32(base + 0x24);
  Key key;
  const std::string fault = readKey(root_, key);
  if (!fault.empty()) refuse("root key: " + fault);
}

std::uint32_t HiveFile::binOf(std::size_t page) const {
  if (binOfPage_[page] != 0) return binOfPage_[page];
  // Down to the nearest page already known or holding a bin header.
  std::size_t q = page;
  std::uint32_t found = 1;
  for (;; --q) {
    if (binOfPage_[q] != 0) {
      found = binOfPage_[q];
      break;
    }
    const std::size_t start = kFirstBin + q * kPage;
    const unsigned char* header = bytes(start, kBinHeader);
    if (std::memcmp(header, "hbin", 4) == 0 && Le32(header + 4) == q * kPage) {
      const std::size_t size = Le32(header + 8);
      if (size >= kPage && size % kPage == 0 && size <= binsEnd_ - start) {
        found = static_cast<std::uint32_t>(q + 2);
      }
      break;
    }
    if (q == 0) break;
  }
  // The pages from there up lie in that bin while they are inside its end.
  for (std::size_t p = q; p <= page; ++p) {
    std::uint32_t bin = found;
    if (bin >= 2) {
      const std::size_t start = bin - 2;
      if (p >= start + Le32(bytes(kFirstBin + start * kPage + 8, 4)) / kPage) bin = 1;
    }
    binOfPage_[p] = bin;
  }
  return binOfPage_[page];
}

bool HiveFile::insideBin(std::size_t at, std::size_t length) const {
  const std::uint32_t bin = binOf((at - kFirstBin) / kPage);
  if (bin < 2) return false;
  const std::size_t start = kFirstBin + (bin - 2) * kPage;
  return at >= start + kBinHeader && at + length <= start + Le32(bytes(start + 8, 4));
}

const unsigned char* HiveFile::payload(std::uint32_t cell, std::size_t need, std::size_t* length,
                                       std::string& fault) const {
  const std::size_t at = kFirstBin + cell;
  if ((cell & 3) != 0 || at + 4 > binsEnd_) {
    fault = "cell " + Hex(cell) + " outside the bins";
    return nullptr;
  }
  const auto size = static_cast<std::int32_t>(Le32(bytes(at, 4)));
  const std::int64_t used = -static_cast<std::int64_t>(size);
  if (used < 4 || static_cast<std::uint64_t>(used) > binsEnd_ - at) {
    fault = "cell " + Hex(cell) + (size >= 0 ? " is free" : " has a bad size");
    return nullptr;
  }
  const auto total = static_cast<std::size_t>(used);
  if (total - 4 < need) {
    fault = "cell " + Hex(cell) + " is too short for its record";
    return nullptr;
  }
  if (!insideBin(at, total)) {
    fault = "cell " + Hex(cell) + " lies in no bin";
    return nullptr;
  }
  if (length) *length = total - 4;
  return bytes(at + 4, total - 4);
}

std::string HiveFile::readKey(std::uint32_t cell, Key& out, bool withName) const {
  std::string fault;
  std::size_t length = 0;
  const unsigned char* p = payload(cell, kKeyName, &length, fault);
  if (!p) return fault;
  if (p[0] != 'n' || p[1] != 'k') return "cell " + Hex(cell) + " is no key record";
  const std::size_t nameBytes = Le16(p + kKeyNameLength);
  if (kKeyName + nameBytes > length) return "key record " + Hex(cell) + ": name runs past its cell";
  if (withName) {
    out.name = Name(p + kKeyName, nameBytes, (Le16(p + kKeyFlags) & kKeyCompressedName) != 0);
  }
  out.lastWriteTime = Le64(p + kKeyTime);
  out.subKeyCount = Le32(p + kKeySubKeyCount);
  out.subKeyList = Le32(p + kKeySubKeyList);
  out.valueCount = Le32(p + kKeyValueCount);
  out.valueList = Le32(p + kKeyValueList);
  return {};
}

std::string HiveFile::listCells(std::uint32_t list, std::uint32_t declared, bool nested,
                                std::vector<std::uint32_t>& out) const {
  std::string fault;
  std::size_t length = 0;
  const unsigned char* p = payload(list, 4, &length, fault);
  if (!p) return "sub-key list: " + fault;
  const std::size_t count = Le16(p + 2);
  const bool hashed = p[0] == 'l' && (p[1] == 'f' || p[1] == 'h');
  const bool plain = p[0] == 'l' && p[1] == 'i';
  const bool index = p[0] == 'r' && p[1] == 'i';
  if (!hashed && !plain && !(index && !nested)) {
    return "sub-key list " + Hex(list) + " is no list";
  }
  const std::size_t stride = hashed ? 8 : 4;
  if (4 + count * stride > length) return "sub-key list " + Hex(list) + " runs past its cell";
  for (std::size_t i = 0; i < count && out.size() < declared; ++i) {
    const std::uint32_t entry = Le32(p + 4 + i * stride);
    if (index) {
      fault = listCells(entry, declared, true, out);
      if (!fault.empty()) return fault;
    } else {
      out.push_back(entry);
    }
  }
  return {};
}

std::string HiveFile::subKeyCells(const Key& key, std::vector<std::uint32_t>& out) const {
  out.clear();
  if (key.subKeyCount == 0) return {};
  const std::string fault = listCells(key.subKeyList, key.subKeyCount, false, out);
  if (!fault.empty()) return fault;
  if (out.size() != key.subKeyCount) {
    return "declares " + std::to_string(key.subKeyCount) + " sub-keys, its lists hold " +
           std::to_string(out.size());
  }
  return {};
}

std::string HiveFile::valueCells(const Key& key, std::vector<std::uint32_t>& out) const {
  out.clear();
  if (key.valueCount == 0) return {};
  std::string fault;
  // A value list is as long as its cell, which bounds the count a damaged key declares.
  const unsigned char* p = payload(key.valueList, std::size_t{4} * key.valueCount, nullptr, fault);
  if (!p) return "value list: " + fault;
  out.reserve(key.valueCount);
  for (std::size_t i = 0; i < key.valueCount; ++i) out.push_back(Le32(p + 4 * i));
  return {};
}

std::string HiveFile::readValue(std::uint32_t cell, RegValueParts& out) const {
  out.name.clear();
  out.type = REG_NONE;
  out.data.clear();
  std::string fault;
  std::size_t length = 0;
  const unsigned char* p = payload(cell, kValueName, &length, fault);
  if (!p) return fault;
  if (p[0] != 'v' || p[1] != 'k') return "cell " + Hex(cell) + " is no value record";
  const std::size_t nameBytes = Le16(p + kValueNameLength);
  if (kValueName + nameBytes > length) {
    return "value record " + Hex(cell) + ": name runs past its cell";
  }
  NameInto(out.name, p + kValueName, nameBytes,
           (Le16(p + kValueFlags) & kValueCompressedName) != 0);
  out.type = Le32(p + kValueType);
  const std::uint32_t declared = Le32(p + kValueDataLength);
  const std::size_t size = declared & ~kInlineData;
  if (declared & kInlineData) {
    // Up to four bytes live in the record, where the data's cell would be named.
    if (size > 4) return "value record " + Hex(cell) + ": inline data longer than 4 bytes";
    out.data.assign(p + kValueData, p + kValueData + size);
    return {};
  }
  if (size == 0) return {};
  if (size > kMaxValueSize) {
    return "larger than 16 MiB (" + std::to_string(size) + " bytes)";
  }
  const std::uint32_t dataCell = Le32(p + kValueData);
  std::size_t held = 0;
  const unsigned char* data = payload(dataCell, 0, &held, fault);
  if (!data) return "data: " + fault;
  if (size <= held) {
    out.data.assign(data, data + size);
    return {};
  }
  // Larger than its cell: a big-data record ("db") listing segments of 16,344 bytes.
  if (held < 8 || data[0] != 'd' || data[1] != 'b') {
    return "data of " + std::to_string(size) + " bytes in a cell of " + std::to_string(held);
  }
  const std::size_t segments = Le16(data + 2);
  const unsigned char* list = payload(Le32(data + 4), 4 * segments, nullptr, fault);
  if (!list) return "data segments: " + fault;
  out.data.reserve(size);
  for (std::size_t i = 0; i < segments && out.data.size() < size; ++i) {
    const std::size_t take = std::min(kBigDataSegment, size - out.data.size());
    const unsigned char* segment = payload(Le32(list + 4 * i), take, nullptr, fault);
    if (!segment) return "data segment " + std::to_string(i) + ": " + fault;
    out.data.insert(out.data.end(), segment, segment + take);
  }
  if (out.data.size() != size) {
    return "data segments hold " + std::to_string(out.data.size()) + " of " + std::to_string(size) +
           " bytes";
  }
  return {};
}

}  // namespace platform::recorded
