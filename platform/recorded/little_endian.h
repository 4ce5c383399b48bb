// Little-endian numbers in the structures Windows writes to disk (hives, partition tables,
// PE files, SAM records). The caller has checked that the bytes are there.
#pragma once

#include <cstdint>

namespace platform::recorded {

inline std::uint16_t Le16(const unsigned char* p) {
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

inline std::uint32_t Le32(const unsigned char* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline std::uint64_t Le64(const unsigned char* p) {
  return Le32(p) | (static_cast<std::uint64_t>(Le32(p + 4)) << 32);
}

}  // namespace platform::recorded
