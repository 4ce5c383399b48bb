// The partitions of a raw disk image: an MBR (primary, extended and logical partitions), a
// GPT, or no table at all when the image is itself an NTFS partition. Reads through a
// callback so that the bytes may come from a file or from memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/export.h"

namespace platform::image {

// Reads `count` bytes at `offset` into `out`; false when they are not all there.
using ReadAt = std::function<bool(std::uint64_t offset, std::size_t count, std::uint8_t* out)>;

struct Partition {
  int number = 0;  // 1-4 primary, 5 on logical (MBR); the entry's index + 1 (GPT); 0 bare
  std::uint64_t offset = 0;
  std::uint64_t length = 0;  // cut to the image's end
  std::string type;          // "0x07", a GPT type GUID, or "" for a bare file system
  bool ntfs = false;         // its first sector is an NTFS boot sector
};

struct PartitionTable {
  std::string scheme;  // "MBR", "GPT", "none" (a bare file system) or "" (nothing known)
  std::vector<Partition> partitions;
  // What was wrong but left the rest readable: entries past the end, a looping chain, a
  // damaged primary GPT header. For messages.
  std::vector<std::string> problems;
};

// The partitions of an image of `size` bytes. Never throws for bad bytes.
KPLATFORM_API PartitionTable ReadPartitionTable(const ReadAt& read, std::uint64_t size);

// Whether the 512 bytes at `sector` are an NTFS boot sector (OEM id "NTFS    ", sane sector
// and cluster sizes).
KPLATFORM_API bool IsNtfsBootSector(const std::uint8_t* sector);

// CRC-32 as GPT headers and entry arrays carry it (the zlib polynomial).
KPLATFORM_API std::uint32_t Crc32(const std::uint8_t* data, std::size_t size);

}  // namespace platform::image
