// platform::Registry answered from a recorded machine's registry (.reg exports and hive
// files), with the result codes, buffer rules and views of 64-bit Windows.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/export.h"
#include "platform/recorded/hive_registry.h"
#include "platform/recorded/registry_model.h"
#include "platform/registry.h"

namespace platform::recorded {

// A value's data as the narrow calls return it: strings converted to the code page (held
// in `converted`), other types as stored. ASCII strings are not converted ahead: `bytes`
// is then their UTF-16LE, narrowed as it is copied.
struct NarrowData {
  const BYTE* bytes = nullptr;
  size_t size = 0;  // as the caller gets it
  bool fromAscii = false;
  std::string converted;
};

// A key's or value's name as the narrow calls return it: an ASCII name is narrowed as it
// is copied (`wide`), any other converted to the code page first (`converted`). Listing a
// key of many thousands of names would otherwise convert each into a string of its own.
struct NarrowName {
  std::u16string_view wide;
  bool fromAscii = false;
  std::string converted;
  size_t size() const { return fromAscii ? wide.size() : converted.size(); }
  // The name and its NUL, size() + 1 bytes.
  void copyTo(char* out) const;
};

// Not in platform/types.h: only the recorded registry produces it.
constexpr LONG ERROR_BAD_PATHNAME = 161;

class KPLATFORM_API RecordedRegistry : public Registry {
 public:
  RecordedRegistry();
  ~RecordedRegistry() override;

  // Loading; not thread-safe against concurrent reads. Each throws platform::RecordError.
  // `name` names the export in messages; `bytes` is its content (UTF-16LE with BOM, UTF-8,
  // or REGEDIT4 text in the code page set below, so set the code page first).
  void loadRegFile(const std::string& name, const std::string& bytes);
  void loadHive(const std::string& path, Mount where);
  // A hive already open (read from an image, or from memory); `name` names it in reports.
  void loadHive(std::unique_ptr<HiveFile> hive, const std::string& name, Mount where);

  // The machine's ANSI code page (default 1252) that the narrow calls convert to.
  // Throws std::invalid_argument for a code page this build cannot convert.
  void setCodePage(unsigned codePage);
  unsigned codePage() const { return codePage_; }
  // True: the reader is a 32-bit process under WOW64, whose default view is the 32-bit one.
  void setProcessIs32Bit(bool is32Bit) { processIs32Bit_ = is32Bit; }
  bool processIs32Bit() const { return processIs32Bit_; }

  // The keys as recorded (no views, no CurrentControlSet link), for walking and tests.
  const RegistryTree& tree() const { return tree_; }
  // A key by its full path ("HKLM\SYSTEM\CurrentControlSet\Control", roots abbreviated
  // as RootPath allows) as the registry calls find it: SYSTEM\CurrentControlSet followed,
  // no views. Null when missing.
  const RegKey* find(const std::u16string& path) const;
  // Damage found elsewhere in the same files (another reader of them), reported with this
  // registry's own.
  void reportDamage(std::string what) { tree_.reportDamage(std::move(what)); }

  // Number of handles open now (predefined keys excluded); for leak checks.
  size_t openHandleCount() const;

  LONG RegOpenKeyExA(HKEY root, const char* subKey, DWORD options, REGSAM sam,
                     HKEY* result) override;
  LONG RegCloseKey(HKEY key) override;
  LONG RegQueryInfoKeyA(HKEY key, char* className, DWORD* classLength, DWORD* reserved,
                        DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* maxClassLength,
                        DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength,
                        DWORD* securityDescriptor, FILETIME* lastWriteTime) override;
  LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                     char* className, DWORD* classLength, FILETIME* lastWriteTime) override;
  LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                     DWORD* type, BYTE* data, DWORD* dataLength) override;
  LONG RegQueryValueExA(HKEY key, const char* valueName, DWORD* reserved, DWORD* type, BYTE* data,
                        DWORD* dataLength) override;

 private:
  struct OpenKey {
    REGSAM access = 0;
    // The key itself, found when the handle was opened: nothing changes the tree while
    // handles are open, so calls on the handle need not walk a path again. A key that a
    // load removed is an empty key, and `path` then holds where it was.
    const RegKey* key = nullptr;
    std::vector<std::u16string> path;  // as stored, root first; only while needed
  };
  template <typename Load>
  void reloadAround(Load&& load);
  void findOpenKeysAgain();
  // The key at a path as stored, root first, following SYSTEM\CurrentControlSet; null when
  // missing.
  const RegKey* resolve(const std::vector<std::u16string>& path) const;
  // The key `parts` below `key`, which is `depth` levels below its root.
  const RegKey* descend(const RegKey* key, size_t depth, const std::u16string_view* parts,
                        size_t count) const;
  const RegKey* keyOf(HKEY handle, REGSAM need, LONG& status) const;
  std::string narrow(std::u16string_view text) const;
  void narrowName(std::u16string_view name, NarrowName& out) const;
  void narrowData(const RegValue& value, NarrowData& out) const;

  RegistryTree tree_;
  unsigned codePage_;
  bool asciiKept_ = true;  // the code page keeps ASCII text as it is, both ways
  bool processIs32Bit_ = false;
  mutable std::mutex mutex_;
  std::map<std::uintptr_t, OpenKey> handles_;
  std::uintptr_t nextHandle_ = 0x1000;
};

}  // namespace platform::recorded
