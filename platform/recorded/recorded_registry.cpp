// Registry calls over the in-memory tree. Result codes and buffer rules follow what
// advapi32 does for the narrow calls (checked against Wine's conformance tests):
// a short buffer leaves the caller's buffers untouched and reports the size needed.
#include "platform/recorded/recorded_registry.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <boost/container/small_vector.hpp>

#include "platform/recorded/codepage.h"
#include "platform/recorded/hive_file.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/reg_parser.h"
#include "platform/recorded/registry_views.h"

namespace platform::recorded {

namespace {

constexpr REGSAM kKeyAllAccess = 0xF003F;
constexpr REGSAM kGenericRead = 0x80000000;
constexpr REGSAM kGenericAll = 0x10000000;
constexpr REGSAM kMaximumAllowed = 0x02000000;
constexpr std::uintptr_t kHkeyCurrentConfig = 0x80000005;

bool IsStringType(DWORD type) {
  return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

REGSAM EffectiveAccess(REGSAM sam) {
  REGSAM access = sam & kKeyAllAccess;
  if (sam & kGenericRead) access |= KEY_READ;
  if (sam & (kGenericAll | kMaximumAllowed)) access |= kKeyAllAccess;
  return access;
}

// The path of a predefined key, as stored; null for any other handle. Windows looks only
// at the low 32 bits of a predefined key's handle.
const std::vector<std::u16string>* PredefinedPath(HKEY handle) {
  static const std::vector<std::u16string> kClassesRoot = {u"HKEY_LOCAL_MACHINE", u"SOFTWARE",
                                                           u"Classes"};
  static const std::vector<std::u16string> kCurrentUser = {u"HKEY_CURRENT_USER"};
  static const std::vector<std::u16string> kLocalMachine = {u"HKEY_LOCAL_MACHINE"};
  static const std::vector<std::u16string> kUsers = {u"HKEY_USERS"};
  static const std::vector<std::u16string> kCurrentConfig = {
      u"HKEY_LOCAL_MACHINE", u"SYSTEM", u"CurrentControlSet", u"Hardware Profiles", u"Current"};
  const auto value = reinterpret_cast<std::uintptr_t>(handle);
  if (value < 0x80000000u) return nullptr;
  switch (value & 0xFFFFFFFFu) {
    case 0x80000000u:
      return &kClassesRoot;
    case 0x80000001u:
      return &kCurrentUser;
    case 0x80000002u:
      return &kLocalMachine;
    case 0x80000003u:
      return &kUsers;
    case kHkeyCurrentConfig:
      return &kCurrentConfig;
    default:
      return nullptr;
  }
}

// The names from the root down to `key`, as stored.
std::vector<std::u16string> PathOf(const RegKey& key) {
  std::vector<std::u16string> path;
  for (const RegKey* k = &key; k; k = k->parent()) path.push_back(k->name());
  std::reverse(path.begin(), path.end());
  return path;
}

size_t DepthOf(const RegKey& key) {
  size_t depth = 0;
  for (const RegKey* k = key.parent(); k; k = k->parent()) ++depth;
  return depth;
}

void SetFiletime(FILETIME* out, std::uint64_t time) {
  if (!out) return;
  out->dwLowDateTime = static_cast<DWORD>(time);
  out->dwHighDateTime = static_cast<DWORD>(time >> 32);
}

// Copies converted string data as RegQueryValueExA does: when the data lacks its final
// NUL and the buffer has room, one is added after it (not counted in the size).
void CopyData(const NarrowData& bytes, DWORD type, BYTE* data, DWORD capacity) {
  if (bytes.size == 0) return;
  if (bytes.fromAscii) {
    for (size_t i = 0; i < bytes.size; ++i) data[i] = bytes.bytes[2 * i];
  } else {
    std::memcpy(data, bytes.bytes, bytes.size);
  }
  if (IsStringType(type) && bytes.size < capacity && data[bytes.size - 1] != 0) {
    data[bytes.size] = 0;
  }
}

// Text of a call's argument in UTF-16: ASCII (the usual case) widened into `local`,
// anything else converted into `heap`.
template <size_t N>
std::u16string_view Widened(std::string_view text, bool asciiKept, unsigned codePage,
                            char16_t (&local)[N], std::u16string& heap) {
  if (asciiKept && text.size() <= N && std::all_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x80;
      })) {
    std::copy(text.begin(), text.end(), local);
    return std::u16string_view(local, text.size());
  }
  heap = AnsiToWide(std::string(text), codePage);
  return heap;
}

// Listing a key of at least this many sub-keys reads theirs ahead (RegKey::readAheadSubKeys).
constexpr size_t kReadAheadSubKeys = 256;

const RegKey& EmptyKey() {
  static const RegKey empty(u"");
  return empty;
}

}  // namespace

std::u16string MountPath(Mount where) {
  switch (where) {
    case Mount::Software:
      return u"HKEY_LOCAL_MACHINE\\SOFTWARE";
    case Mount::System:
      return u"HKEY_LOCAL_MACHINE\\SYSTEM";
    case Mount::NtUser:
      return u"HKEY_CURRENT_USER";
    case Mount::Bcd:
      return u"HKEY_LOCAL_MACHINE\\BCD00000000";
    case Mount::Sam:
      return u"HKEY_LOCAL_MACHINE\\SAM";
  }
  return u"HKEY_LOCAL_MACHINE";
}

RecordedRegistry::RecordedRegistry() : codePage_(kDefaultAnsiCodePage) {}
RecordedRegistry::~RecordedRegistry() = default;

void RecordedRegistry::loadRegFile(const std::string& name, const std::string& bytes) {
  reloadAround([&] { ApplyRegFile(tree_, name, bytes, codePage_); });
}

void RecordedRegistry::loadHive(const std::string& path, Mount where) {
  reloadAround([&] { LoadHiveFile(tree_, path, where); });
}

void RecordedRegistry::loadHive(std::unique_ptr<HiveFile> hive, const std::string& name,
                                Mount where) {
  reloadAround([&] { MountHive(tree_, std::move(hive), name, where); });
}

// A load may move or remove keys that open handles point to: each handle keeps its path
// while the tree changes and finds its key again after; a removed key reads as empty.
template <typename Load>
void RecordedRegistry::reloadAround(Load&& load) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : handles_) {
      if (entry.second.key != &EmptyKey()) entry.second.path = PathOf(*entry.second.key);
    }
  }
  try {
    load();
  } catch (...) {
    findOpenKeysAgain();
    throw;
  }
  findOpenKeysAgain();
}

void RecordedRegistry::findOpenKeysAgain() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : handles_) {
    OpenKey& open = entry.second;
    if (const RegKey* key = resolve(open.path)) {
      open.key = key;
      open.path.clear();
    } else {
      open.key = &EmptyKey();
    }
  }
}

void RecordedRegistry::setCodePage(unsigned codePage) {
  if (!IsSupportedCodePage(codePage)) {
    throw std::invalid_argument("unsupported ANSI code page " + std::to_string(codePage));
  }
  codePage_ = codePage;
  // Every ANSI code page keeps ASCII as it is; others (EBCDIC) are asked.
  std::string ascii;
  for (int c = 1; c < 0x80; ++c) ascii += static_cast<char>(c);
  asciiKept_ = codePage == 65001 || IsAnsiCodePage(codePage) ||
               (WideToAnsi(std::u16string(ascii.begin(), ascii.end()), codePage) == ascii &&
                AnsiToWide(ascii, codePage) == std::u16string(ascii.begin(), ascii.end()));
}

size_t RecordedRegistry::openHandleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return handles_.size();
}

const RegKey* RecordedRegistry::find(const std::u16string& path) const {
  const std::vector<std::u16string> parts = SplitPath(path);
  if (parts.empty()) return nullptr;
  std::vector<std::u16string> full = RootPath(parts[0]);
  full.insert(full.end(), parts.begin() + 1, parts.end());
  return resolve(full);
}

const RegKey* RecordedRegistry::resolve(const std::vector<std::u16string>& path) const {
  const RegKey* key = path.empty() ? nullptr : tree_.root(path[0]);
  const std::vector<std::u16string_view> parts(path.begin() + (path.empty() ? 0 : 1), path.end());
  return descend(key, 0, parts.data(), parts.size());
}

const RegKey* RecordedRegistry::descend(const RegKey* key, size_t depth,
                                        const std::u16string_view* parts, size_t count) const {
  for (size_t i = 0; key && i < count; ++i, ++depth) {
    const RegKey* child = key->findSubKey(parts[i]);
    // CurrentControlSet is a link that Windows makes at boot: Select\Current names the
    // control set (ControlSet001 when the record lacks Select).
    if (!child && depth == 1 && NamesEqual(key->name(), u"SYSTEM") &&
        NamesEqual(parts[i], u"CurrentControlSet")) {
      DWORD current = 1;
      const RegKey* select = key->findSubKey(u"Select");
      const RegValue* value = select ? select->findValue(u"Current") : nullptr;
      if (value && value->type() == REG_DWORD && value->data().size() >= 4) {
        std::memcpy(&current, value->data().data(), 4);
      }
      std::string digits = std::to_string(current);
      if (digits.size() < 3) digits.insert(0, 3 - digits.size(), '0');
      child = key->findSubKey(u"ControlSet" + std::u16string(digits.begin(), digits.end()));
    }
    key = child;
  }
  return key;
}

const RegKey* RecordedRegistry::keyOf(HKEY handle, REGSAM need, LONG& status) const {
  const std::vector<std::u16string>* predefined = PredefinedPath(handle);
  const RegKey* key = nullptr;
  REGSAM access = kKeyAllAccess;
  if (!predefined) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == handles_.end()) {
      status = ERROR_INVALID_HANDLE;
      return nullptr;
    }
    access = it->second.access;
    key = it->second.key;
  }
  if ((access & need) != need) {
    status = ERROR_ACCESS_DENIED;
    return nullptr;
  }
  status = ERROR_SUCCESS;
  if (predefined) key = resolve(*predefined);
  return key ? key : &EmptyKey();  // a predefined key the record lacks reads as empty
}

std::string RecordedRegistry::narrow(std::u16string_view text) const {
  if (asciiKept_ && std::all_of(text.begin(), text.end(), [](char16_t c) { return c < 0x80; })) {
    return std::string(text.begin(), text.end());
  }
  return WideToAnsi(std::u16string(text), codePage_);
}

void NarrowName::copyTo(char* out) const {
  if (fromAscii) {
    for (size_t i = 0; i < wide.size(); ++i) out[i] = static_cast<char>(wide[i]);
    out[wide.size()] = '\0';
  } else {
    std::memcpy(out, converted.c_str(), converted.size() + 1);
  }
}

void RecordedRegistry::narrowName(std::u16string_view name, NarrowName& out) const {
  out.wide = name;
  out.fromAscii =
      asciiKept_ && std::all_of(name.begin(), name.end(), [](char16_t c) { return c < 0x80; });
  if (!out.fromAscii) out.converted = narrow(name);
}

void RecordedRegistry::narrowData(const RegValue& value, NarrowData& out) const {
  out.bytes = value.data().data();
  out.size = value.data().size();
  if (!IsStringType(value.type())) return;
  // Strings are stored as UTF-16LE; an odd last byte is no character and is dropped.
  const size_t units = value.data().size() / 2;
  const BYTE* data = value.data().data();
  bool ascii = asciiKept_;
  for (size_t i = 0; ascii && i < units; ++i) ascii = data[2 * i] < 0x80 && data[2 * i + 1] == 0;
  if (ascii) {
    out.size = units;
    out.fromAscii = true;
    return;
  }
  out.converted = narrow(Utf16FromBytes(data, value.data().size()));
  out.bytes = reinterpret_cast<const BYTE*>(out.converted.data());
  out.size = out.converted.size();
}

LONG RecordedRegistry::RegOpenKeyExA(HKEY root, const char* subKey, DWORD /*options*/, REGSAM sam,
                                     HKEY* result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  const std::vector<std::u16string>* predefined = PredefinedPath(root);
  const RegKey* base = nullptr;
  std::vector<std::u16string> basePath;  // only needed for the 32-bit view
  if (predefined) {
    if (!subKey) {
      *result = root;
      return ERROR_SUCCESS;
    }
    base = resolve(*predefined);
  } else {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(reinterpret_cast<std::uintptr_t>(root));
    if (it == handles_.end()) return ERROR_INVALID_HANDLE;
    if (it->second.key != &EmptyKey()) {
      base = it->second.key;
    } else {
      basePath = it->second.path;  // the key went away with a load
    }
  }

  std::string_view sub = subKey ? subKey : "";
  if (!sub.empty() && sub[0] == '\\') {
    // NT refuses a leading separator, except below HKEY_CLASSES_ROOT (XP and later).
    if (reinterpret_cast<std::uintptr_t>(root) != 0x80000000u) return ERROR_BAD_PATHNAME;
    sub.remove_prefix(std::min(sub.find_first_not_of('\\'), sub.size()));
  }
  char16_t local[512];
  std::u16string heap;
  const std::u16string_view wide = Widened(sub, asciiKept_, codePage_, local, heap);
  boost::container::small_vector<std::u16string_view, 16> parts;
  for (size_t start = 0; start <= wide.size();) {
    const size_t end = std::min(wide.find(u'\\', start), wide.size());
    if (end > start) parts.emplace_back(wide.data() + start, end - start);
    start = end + 1;
  }

  const RegKey* key = nullptr;
  if (!sub.empty() && Uses32BitView(sam, processIs32Bit_)) {
    // The redirection rules are written for whole paths.
    std::vector<std::u16string> path = predefined ? *predefined : base ? PathOf(*base) : basePath;
    for (const auto part : parts) path.emplace_back(part);
    std::vector<std::u16string> redirected = To32BitView(path);
    // HKLM\SOFTWARE itself stays put on a record without a 32-bit view.
    if (path.size() != 2 || resolve(redirected)) path = std::move(redirected);
    key = resolve(path);
  } else if (base) {
    key = descend(base, DepthOf(*base), parts.data(), parts.size());
  }
  if (!key) return ERROR_FILE_NOT_FOUND;

  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t handle = nextHandle_;
  nextHandle_ += 4;
  handles_.emplace_hint(handles_.end(), handle, OpenKey{EffectiveAccess(sam), key, {}});
  *result = reinterpret_cast<HKEY>(handle);
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegCloseKey(HKEY key) {
  if (PredefinedPath(key)) return ERROR_SUCCESS;
  std::lock_guard<std::mutex> lock(mutex_);
  return handles_.erase(reinterpret_cast<std::uintptr_t>(key)) ? ERROR_SUCCESS
                                                               : ERROR_INVALID_HANDLE;
}

LONG RecordedRegistry::RegQueryInfoKeyA(HKEY handle, char* className, DWORD* classLength,
                                        DWORD* reserved, DWORD* subKeys, DWORD* maxSubKeyLength,
                                        DWORD* maxClassLength, DWORD* values,
                                        DWORD* maxValueNameLength, DWORD* maxValueLength,
                                        DWORD* securityDescriptor, FILETIME* lastWriteTime) {
  if (reserved || (className && !classLength)) return ERROR_INVALID_PARAMETER;
  LONG status;
  const RegKey* key = keyOf(handle, KEY_QUERY_VALUE, status);
  if (!key) return status;

  // Lengths are those of the stored UTF-16 names, in characters, as Windows reports them
  // to narrow callers too; data lengths are the stored sizes in bytes.
  size_t longestKey = 0, longestName = 0, longestData = 0;
  for (size_t i = 0; i < key->subKeyCount(); ++i) {
    longestKey = std::max(longestKey, key->subKey(i).name().size());
  }
  for (size_t i = 0; i < key->valueCount(); ++i) {
    longestName = std::max(longestName, key->value(i).name().size());
    longestData = std::max(longestData, key->value(i).data().size());
  }
  if (className && *classLength > 0) className[0] = '\0';
  if (classLength) *classLength = 0;
  if (subKeys) *subKeys = static_cast<DWORD>(key->subKeyCount());
  if (maxSubKeyLength) *maxSubKeyLength = static_cast<DWORD>(longestKey);
  if (maxClassLength) *maxClassLength = 0;
  if (values) *values = static_cast<DWORD>(key->valueCount());
  if (maxValueNameLength) *maxValueNameLength = static_cast<DWORD>(longestName);
  if (maxValueLength) *maxValueLength = static_cast<DWORD>(longestData);
  if (securityDescriptor) *securityDescriptor = 0;
  SetFiletime(lastWriteTime, key->lastWriteTime());
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegEnumKeyExA(HKEY handle, DWORD index, char* name, DWORD* nameLength,
                                     DWORD* reserved, char* className, DWORD* classLength,
                                     FILETIME* lastWriteTime) {
  LONG status;
  const RegKey* key = keyOf(handle, KEY_ENUMERATE_SUB_KEYS, status);
  if (!key) return status;
  if (reserved || !name || !nameLength) return ERROR_INVALID_PARAMETER;
  if (index >= key->subKeyCount()) return ERROR_NO_MORE_ITEMS;
  // Who lists a long key from the start reads its sub-keys next, as a rule (the uninstall
  // keys, the installer's products).
  if (index == 0 && key->subKeyCount() >= kReadAheadSubKeys) key->readAheadSubKeys();

  const RegKey& sub = key->subKey(index);
  NarrowName text;
  narrowName(sub.name(), text);
  // The name and its NUL must fit; the length is then left as it was.
  if (text.size() >= *nameLength || (className && classLength && *classLength == 0)) {
    return ERROR_MORE_DATA;
  }
  text.copyTo(name);
  *nameLength = static_cast<DWORD>(text.size());
  if (className && classLength) className[0] = '\0';
  if (classLength) *classLength = 0;
  SetFiletime(lastWriteTime, sub.lastWriteTime());
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegEnumValueA(HKEY handle, DWORD index, char* name, DWORD* nameLength,
                                     DWORD* reserved, DWORD* type, BYTE* data, DWORD* dataLength) {
  LONG status;
  const RegKey* key = keyOf(handle, KEY_QUERY_VALUE, status);
  if (!key) return status;
  if (reserved || !name || !nameLength || (data && !dataLength)) {
    return ERROR_INVALID_PARAMETER;
  }
  if (index >= key->valueCount()) return ERROR_NO_MORE_ITEMS;

  const RegValue& value = key->value(index);
  NarrowName text;
  narrowName(value.name(), text);
  NarrowData bytes;
  narrowData(value, bytes);
  if (type) *type = value.type();
  // Either part too small: neither buffer is written, the name length is left as it
  // was, and the data length says what the data needs.
  if (text.size() >= *nameLength || (data && bytes.size > *dataLength)) {
    if (dataLength) *dataLength = static_cast<DWORD>(bytes.size);
    return ERROR_MORE_DATA;
  }
  text.copyTo(name);
  *nameLength = static_cast<DWORD>(text.size());
  if (data) CopyData(bytes, value.type(), data, *dataLength);
  if (dataLength) *dataLength = static_cast<DWORD>(bytes.size);
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegQueryValueExA(HKEY handle, const char* valueName, DWORD* reserved,
                                        DWORD* type, BYTE* data, DWORD* dataLength) {
  if (reserved || (data && !dataLength)) return ERROR_INVALID_PARAMETER;
  LONG status;
  const RegKey* key = keyOf(handle, KEY_QUERY_VALUE, status);
  if (!key) return status;
  if (!data && dataLength) *dataLength = 0;

  char16_t local[64];
  std::u16string heap;
  const RegValue* value =
      key->findValue(Widened(valueName ? valueName : "", asciiKept_, codePage_, local, heap));
  if (!value) return ERROR_FILE_NOT_FOUND;
  NarrowData bytes;
  narrowData(*value, bytes);
  status = ERROR_SUCCESS;
  if (data) {
    if (bytes.size > *dataLength) {
      status = ERROR_MORE_DATA;  // nothing copied
    } else {
      CopyData(bytes, value->type(), data, *dataLength);
    }
  }
  if (type) *type = value->type();
  if (dataLength) *dataLength = static_cast<DWORD>(bytes.size);
  return status;
}

}  // namespace platform::recorded
