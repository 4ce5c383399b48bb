// PE layout: "MZ" with the offset of "PE\0\0" at 0x3C, the COFF header, the optional header
// (PE32 or PE32+) whose third data directory is the resource table, the section table that
// maps relative virtual addresses to file offsets; the resource table is a tree of
// directories (type, name, language) ending in data entries that give an address and size.
#include "platform/recorded/pe_version.h"

#include <algorithm>
#include <cstdint>

#include "platform/recorded/little_endian.h"
#include "platform/recorded/machine_version.h"

namespace platform::recorded {

namespace {

constexpr std::uint32_t kVersionType = 16;  // RT_VERSION
constexpr std::uint32_t kSubdirectory = 0x80000000u;

class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}
  bool has(std::size_t at, std::size_t length) const {
    return at <= bytes_.size() && length <= bytes_.size() - at;
  }
  std::uint32_t u16(std::size_t at) const { return Le16(at_(at)); }
  std::uint32_t u32(std::size_t at) const { return Le32(at_(at)); }
  const std::string& bytes() const { return bytes_; }

 private:
  const unsigned char* at_(std::size_t at) const {
    return reinterpret_cast<const unsigned char*>(bytes_.data()) + at;
  }
  const std::string& bytes_;
};

struct Section {
  std::uint32_t address, size, rawOffset, rawSize;
};

}  // namespace

std::optional<std::vector<BYTE>> VersionBlockFromPe(const std::string& file) {
  const Reader r(file);
  if (!r.has(0, 0x40) || file[0] != 'M' || file[1] != 'Z') return std::nullopt;
  const std::size_t pe = r.u32(0x3C);
  if (!r.has(pe, 24) || file.compare(pe, 4, std::string("PE\0\0", 4)) != 0) return std::nullopt;
  const std::size_t sections = r.u16(pe + 6);
  const std::size_t optionalSize = r.u16(pe + 20);
  const std::size_t optional = pe + 24;
  if (!r.has(optional, optionalSize) || optionalSize < 2) return std::nullopt;
  const std::uint32_t magic = r.u16(optional);
  const std::size_t countAt = magic == 0x20B ? 108 : magic == 0x10B ? 92 : 0;
  if (countAt == 0 || optionalSize < countAt + 4) return std::nullopt;
  const std::size_t directories = r.u32(optional + countAt);
  const std::size_t resourceEntry = countAt + 4 + 2 * 8;
  if (directories < 3 || optionalSize < resourceEntry + 8) return std::nullopt;
  const std::uint32_t resourceRva = r.u32(optional + resourceEntry);

  std::vector<Section> table;
  const std::size_t tableAt = optional + optionalSize;
  if (!r.has(tableAt, sections * 40)) return std::nullopt;
  for (std::size_t i = 0; i < sections; ++i) {
    const std::size_t s = tableAt + i * 40;
    table.push_back({r.u32(s + 12), r.u32(s + 8), r.u32(s + 20), r.u32(s + 16)});
  }
  // A file offset for `length` bytes at a relative virtual address, inside one section's
  // data in the file; nullopt otherwise.
  auto offsetOf = [&](std::uint32_t rva, std::size_t length) -> std::optional<std::size_t> {
    for (const Section& s : table) {
      if (rva < s.address) continue;
      const std::size_t into = rva - s.address;
      if (into >= std::max(s.size, s.rawSize) || length > s.rawSize || into > s.rawSize - length)
        continue;
      const std::size_t at = static_cast<std::size_t>(s.rawOffset) + into;
      if (r.has(at, length)) return at;
    }
    return std::nullopt;
  };

  // Down the three levels, each time to the first entry that fits (the type's by id).
  auto root = offsetOf(resourceRva, 16);
  if (!root) return std::nullopt;
  std::uint32_t directory = 0;  // offsets below count from the resource table's start
  for (int level = 0; level < 3; ++level) {
    auto at = offsetOf(resourceRva + directory, 16);
    if (!at) return std::nullopt;
    const std::size_t entries = r.u16(*at + 12) + r.u16(*at + 14);
    auto list = offsetOf(resourceRva + directory + 16, entries * 8);
    if (!list) return std::nullopt;
    std::optional<std::uint32_t> next;
    for (std::size_t i = 0; i < entries && !next; ++i) {
      const std::uint32_t id = r.u32(*list + i * 8), target = r.u32(*list + i * 8 + 4);
      if (level == 0 && id != kVersionType) continue;
      next = target;
    }
    if (!next) return std::nullopt;
    const bool isDirectory = (*next & kSubdirectory) != 0;
    if (isDirectory != (level < 2)) return std::nullopt;
    // Always deeper in the table than where it is named from, so no walk goes round.
    const std::uint32_t offset = *next & ~kSubdirectory;
    if (level < 2 && offset <= directory) return std::nullopt;
    directory = offset;
  }
  auto data = offsetOf(resourceRva + directory, 16);
  if (!data) return std::nullopt;
  const std::uint32_t size = r.u32(*data + 4);
  if (size < 6 || size > kMaxVersionBlock) return std::nullopt;
  auto block = offsetOf(r.u32(*data), size);
  if (!block) return std::nullopt;
  return std::vector<BYTE>(file.begin() + static_cast<std::ptrdiff_t>(*block),
                           file.begin() + static_cast<std::ptrdiff_t>(*block + size));
}

}  // namespace platform::recorded
