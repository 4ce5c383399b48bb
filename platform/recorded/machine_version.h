// Version resources: the VS_VERSIONINFO block Windows keeps in a file (UTF-16 nodes, each
// 32-bit aligned: VS_FIXEDFILEINFO, StringFileInfo / StringTable / String, VarFileInfo /
// Var "Translation"), built from recorded texts and read back with bounds checks.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "platform/export.h"
#include "platform/types.h"

namespace platform::recorded {

struct VersionFacts {
  WORD language = 0x0409;
  WORD codePage = 1200;
  // Name -> text, in order; FileVersion also fills the fixed record's numbers.
  std::vector<std::pair<std::u16string, std::u16string>> strings;
};

struct VS_FIXEDFILEINFO {
  DWORD dwSignature;
  DWORD dwStrucVersion;
  DWORD dwFileVersionMS;
  DWORD dwFileVersionLS;
  DWORD dwProductVersionMS;
  DWORD dwProductVersionLS;
  DWORD dwFileFlagsMask;
  DWORD dwFileFlags;
  DWORD dwFileOS;
  DWORD dwFileType;
  DWORD dwFileSubtype;
  DWORD dwFileDateMS;
  DWORD dwFileDateLS;
};
static_assert(sizeof(VS_FIXEDFILEINFO) == 52, "VS_FIXEDFILEINFO layout");

// A node keeps its length in 16 bits, the root's included: no version resource is longer.
constexpr std::size_t kMaxVersionBlock = 0xFFFF;

// Throws std::length_error for texts that would take more than kMaxVersionBlock bytes.
KPLATFORM_API std::vector<BYTE> BuildVersionBlock(const VersionFacts& facts);

// The value at `subBlock` ("\", "\VarFileInfo\Translation", "\StringFileInfo\040904b0\Name")
// in `size` bytes at `block`. Never reads outside them; false when the path or the block is
// not there. `isText` tells a UTF-16 string value (length in characters with the NUL)
// from binary data (length in bytes).
struct VersionValue {
  std::size_t offset = 0;
  std::size_t length = 0;
  bool isText = false;
};
KPLATFORM_API bool FindVersionValue(const BYTE* block, std::size_t size,
                                    const std::string& subBlock, VersionValue* value);

}  // namespace platform::recorded
