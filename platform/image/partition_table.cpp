#include "platform/image/partition_table.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <set>

#include "platform/recorded/little_endian.h"

namespace platform::image {

namespace {

constexpr std::uint64_t kMbrSector = 512;
// A logical partition chain longer than this is taken as damaged (Windows' tools stop far
// earlier); it also bounds the work on a chain that loops through new offsets.
constexpr int kMaxLogical = 256;
// The entry array of a GPT is 16 KiB on every disk we know; a header claiming more than this
// is damaged.
constexpr std::uint64_t kMaxGptEntryBytes = 4u << 20;

using recorded::Le32;
using recorded::Le64;

std::string Hex(unsigned value, int digits) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%0*X", digits, value);
  return buffer;
}

// A GPT type GUID in its usual text form (the first three fields are little-endian).
std::string GuidText(const std::uint8_t* g) {
  std::string text = Hex(Le32(g), 8) + "-" + Hex(g[4] | g[5] << 8, 4) + "-" +
                     Hex(g[6] | g[7] << 8, 4) + "-" + Hex(g[8], 2) + Hex(g[9], 2) + "-";
  for (int i = 10; i < 16; ++i) text += Hex(g[i], 2);
  return text;
}

bool IsExtended(std::uint8_t type) {
  return type == 0x05 || type == 0x0F || type == 0x85;
}

class Reader {
 public:
  Reader(const ReadAt& read, std::uint64_t size, PartitionTable& table)
      : read_(read), size_(size), table_(table) {}

  void add(int number, std::uint64_t offset, std::uint64_t length, std::string type) {
    const std::string name = "partition " + std::to_string(number);
    if (length == 0) return;
    if (offset >= size_) {
      table_.problems.push_back(name + " starts past the image's end (byte " +
                                std::to_string(offset) + " of " + std::to_string(size_) + ")");
      return;
    }
    if (length > size_ - offset) {
      table_.problems.push_back(name + " ends past the image's end");
      length = size_ - offset;
    }
    Partition partition;
    partition.number = number;
    partition.offset = offset;
    partition.length = length;
    partition.type = std::move(type);
    std::array<std::uint8_t, 512> sector{};
    partition.ntfs = length >= sector.size() && read_(offset, sector.size(), sector.data()) &&
                     IsNtfsBootSector(sector.data());
    table_.partitions.push_back(std::move(partition));
  }

  bool sector(std::uint64_t offset, std::uint8_t* out, std::size_t count = kMbrSector) {
    return offset <= size_ && count <= size_ - offset && read_(offset, count, out);
  }

  // The logical partitions of the extended partition at [start, start + length).
  void logical(std::uint64_t start, std::uint64_t length) {
    std::set<std::uint64_t> seen;
    std::uint64_t ebr = start;
    for (int number = 5; number < 5 + kMaxLogical; ++number) {
      if (!seen.insert(ebr).second) {
        table_.problems.push_back("the logical partitions' chain loops");
        return;
      }
      std::array<std::uint8_t, kMbrSector> boot{};
      if (ebr - start >= length || !sector(ebr, boot.data()) || boot[510] != 0x55 ||
          boot[511] != 0xAA) {
        table_.problems.push_back("an extended boot record at byte " + std::to_string(ebr) +
                                  " cannot be read");
        return;
      }
      const std::uint8_t* first = boot.data() + 446;
      const std::uint8_t* next = first + 16;
      if (first[4] != 0) {
        add(number, ebr + Le32(first + 8) * kMbrSector, Le32(first + 12) * kMbrSector,
            "0x" + Hex(first[4], 2));
      }
      if (!IsExtended(next[4])) return;
      ebr = start + Le32(next + 8) * kMbrSector;
    }
    table_.problems.push_back("more than " + std::to_string(kMaxLogical) + " logical partitions");
  }

  void mbr(const std::uint8_t* boot) {
    table_.scheme = "MBR";
    for (int i = 0; i < 4; ++i) {
      const std::uint8_t* entry = boot + 446 + 16 * i;
      const std::uint8_t type = entry[4];
      const std::uint64_t offset = Le32(entry + 8) * kMbrSector;
      const std::uint64_t length = Le32(entry + 12) * kMbrSector;
      if (type == 0 || type == 0xEE) continue;
      if (IsExtended(type)) {
        logical(offset, length);
      } else {
        add(i + 1, offset, length, "0x" + Hex(type, 2));
      }
    }
  }

  // The GPT whose header is at byte `at` for sectors of `sectorSize` bytes; false when there
  // is none that checks out.
  bool gpt(std::uint64_t sectorSize, std::uint64_t at, std::string& fault) {
    std::vector<std::uint8_t> header(sectorSize);
    if (!sector(at, header.data(), header.size())) return false;
    if (std::memcmp(header.data(), "EFI PART", 8) != 0) return false;
    const std::uint32_t headerSize = Le32(&header[12]);
    if (headerSize < 92 || headerSize > sectorSize) {
      fault = "a GPT header has a size of " + std::to_string(headerSize);
      return false;
    }
    const std::uint32_t headerCrc = Le32(&header[16]);
    std::memset(&header[16], 0, 4);
    if (Crc32(header.data(), headerSize) != headerCrc) {
      fault = "a GPT header's checksum does not match";
      return false;
    }
    if (Le64(&header[24]) * sectorSize != at) {
      fault = "a GPT header is not where it says it is";
      return false;
    }
    const std::uint64_t entriesAt = Le64(&header[72]);
    const std::uint32_t count = Le32(&header[80]);
    const std::uint32_t entrySize = Le32(&header[84]);
    const std::uint64_t bytes = static_cast<std::uint64_t>(count) * entrySize;
    if (entrySize < 128 || entrySize % 8 != 0 || bytes > kMaxGptEntryBytes ||
        entriesAt > size_ / sectorSize) {
      fault = "a GPT header describes an impossible entry array";
      return false;
    }
    std::vector<std::uint8_t> entries(bytes);
    if (!sector(entriesAt * sectorSize, entries.data(), entries.size())) {
      fault = "a GPT entry array lies past the image's end";
      return false;
    }
    if (Crc32(entries.data(), entries.size()) != Le32(&header[88])) {
      fault = "a GPT entry array's checksum does not match";
      return false;
    }
    table_.scheme = "GPT";
    static const std::uint8_t kUnused[16] = {};
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint8_t* entry = &entries[static_cast<std::size_t>(i) * entrySize];
      if (std::memcmp(entry, kUnused, 16) == 0) continue;
      const std::uint64_t first = Le64(entry + 32);
      std::uint64_t last = Le64(entry + 40);
      const int number = static_cast<int>(i) + 1;
      const std::uint64_t sectors = size_ / sectorSize;
      if (last < first || first >= sectors) {
        table_.problems.push_back("partition " + std::to_string(number) +
                                  " lies outside the image");
        continue;
      }
      if (last >= sectors) {
        table_.problems.push_back("partition " + std::to_string(number) +
                                  " ends past the image's end");
        last = sectors - 1;
      }
      add(number, first * sectorSize, (last - first + 1) * sectorSize, GuidText(entry));
    }
    return true;
  }

 private:
  const ReadAt& read_;
  std::uint64_t size_;
  PartitionTable& table_;
};

}  // namespace

bool IsNtfsBootSector(const std::uint8_t* sector) {
  if (std::memcmp(sector + 3, "NTFS    ", 8) != 0) return false;
  const unsigned bytesPerSector = sector[11] | sector[12] << 8;
  return bytesPerSector >= 256 && bytesPerSector <= 4096 &&
         (bytesPerSector & (bytesPerSector - 1)) == 0 && sector[13] != 0;
}

std::uint32_t Crc32(const std::uint8_t* data, std::size_t size) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

PartitionTable ReadPartitionTable(const ReadAt& read, std::uint64_t size) {
  PartitionTable table;
  Reader reader(read, size, table);
  std::array<std::uint8_t, kMbrSector> boot{};
  if (!reader.sector(0, boot.data())) {
    table.problems.push_back("the image is shorter than one sector");
    return table;
  }
  if (IsNtfsBootSector(boot.data())) {
    table.scheme = "none";
    Partition whole;
    whole.offset = 0;
    whole.length = size;
    whole.ntfs = true;
    table.partitions.push_back(whole);
    return table;
  }
  if (boot[510] != 0x55 || boot[511] != 0xAA) {
    table.problems.push_back("neither a partition table nor an NTFS boot sector");
    return table;
  }
  bool protective = false;
  for (int i = 0; i < 4; ++i) protective = protective || boot[446 + 16 * i + 4] == 0xEE;
  if (protective) {
    // The primary header follows the MBR; the backup is in the disk's last sector. Disks of
    // 4 KiB sectors put both a sector further.
    for (std::uint64_t sectorSize : {std::uint64_t{512}, std::uint64_t{4096}}) {
      if (size < 2 * sectorSize) continue;
      for (std::uint64_t at : {sectorSize, (size / sectorSize - 1) * sectorSize}) {
        std::string fault;
        if (reader.gpt(sectorSize, at, fault)) return table;
        if (!fault.empty()) table.problems.push_back(fault);
      }
    }
    table.problems.push_back("a protective MBR without a readable GPT");
  }
  reader.mbr(boot.data());
  return table;
}

}  // namespace platform::image
