// Registry calls over the in-memory tree. Result codes and buffer rules follow what
// advapi32 does for the narrow calls (checked against Wine's conformance tests):
// a short buffer leaves the caller's buffers untouched and reports the size needed.
#include "platform/recorded/recorded_registry.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

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

// Windows looks only at the low 32 bits of a predefined key's handle.
bool PredefinedPath(HKEY handle, std::vector<std::u16string>& path) {
  const auto value = reinterpret_cast<std::uintptr_t>(handle);
  if (value < 0x80000000u) return false;
  switch (value & 0xFFFFFFFFu) {
    case 0x80000000u:
      path = {u"HKEY_LOCAL_MACHINE", u"SOFTWARE", u"Classes"};
      return true;
    case 0x80000001u:
      path = {u"HKEY_CURRENT_USER"};
      return true;
    case 0x80000002u:
      path = {u"HKEY_LOCAL_MACHINE"};
      return true;
    case 0x80000003u:
      path = {u"HKEY_USERS"};
      return true;
    case kHkeyCurrentConfig:
      path = {u"HKEY_LOCAL_MACHINE", u"SYSTEM", u"CurrentControlSet", u"Hardware Profiles",
              u"Current"};
      return true;
    default:
      return false;
  }
}

void SetFiletime(FILETIME* out, std::uint64_t time) {
  if (!out) return;
  out->dwLowDateTime = static_cast<DWORD>(time);
  out->dwHighDateTime = static_cast<DWORD>(time >> 32);
}

// Copies converted string data as RegQueryValueExA does: when the data lacks its final
// NUL and the buffer has room, one is added after it (not counted in the size).
void CopyData(const std::vector<BYTE>& bytes, DWORD type, BYTE* data, DWORD capacity) {
  if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
  if (IsStringType(type) && !bytes.empty() && bytes.size() < capacity && bytes.back() != 0) {
    data[bytes.size()] = 0;
  }
}

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
  ApplyRegFile(tree_, name, bytes, codePage_);
  findOpenKeysAgain();
}

void RecordedRegistry::loadHive(const std::string& path, Mount where) {
  LoadHiveFile(tree_, path, where);
  findOpenKeysAgain();
}

void RecordedRegistry::loadHive(std::unique_ptr<HiveFile> hive, const std::string& name,
                                Mount where) {
  MountHive(tree_, std::move(hive), name, where);
  findOpenKeysAgain();
}

// A load may move or remove keys that open handles point to; a removed key reads as empty.
void RecordedRegistry::findOpenKeysAgain() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : handles_) {
    std::vector<std::u16string> path = entry.second.path;
    const RegKey* key = walk(path);
    entry.second.key = key ? key : &EmptyKey();
  }
}

void RecordedRegistry::setCodePage(unsigned codePage) {
  if (!IsSupportedCodePage(codePage)) {
    throw std::invalid_argument("unsupported ANSI code page " + std::to_string(codePage));
  }
  codePage_ = codePage;
}

size_t RecordedRegistry::openHandleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return handles_.size();
}

bool RecordedRegistry::lookup(HKEY handle, OpenKey& out) const {
  if (PredefinedPath(handle, out.path)) {
    out.access = kKeyAllAccess;
    return true;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == handles_.end()) return false;
  out = it->second;
  return true;
}

const RegKey* RecordedRegistry::walk(std::vector<std::u16string>& path) const {
  const RegKey* key = path.empty() ? nullptr : tree_.root(path[0]);
  for (size_t i = 1; key && i < path.size(); ++i) {
    const RegKey* child = key->findSubKey(path[i]);
    // CurrentControlSet is a link that Windows makes at boot: Select\Current names the
    // control set (ControlSet001 when the record lacks Select).
    if (!child && i == 2 && NamesEqual(path[1], u"SYSTEM") &&
        NamesEqual(path[i], u"CurrentControlSet")) {
      DWORD current = 1;
      const RegKey* select = key->findSubKey(u"Select");
      const RegValue* value = select ? select->findValue(u"Current") : nullptr;
      if (value && value->type == REG_DWORD && value->data.size() >= 4) {
        std::memcpy(&current, value->data.data(), 4);
      }
      std::string digits = std::to_string(current);
      if (digits.size() < 3) digits.insert(0, 3 - digits.size(), '0');
      child = key->findSubKey(u"ControlSet" + std::u16string(digits.begin(), digits.end()));
    }
    if (child) path[i] = child->name();
    key = child;
  }
  return key;
}

const RegKey* RecordedRegistry::keyOf(HKEY handle, REGSAM need, LONG& status) const {
  OpenKey predefined;
  const RegKey* key = nullptr;
  REGSAM access = 0;
  if (PredefinedPath(handle, predefined.path)) {
    access = kKeyAllAccess;
  } else {
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
  if (key == nullptr) key = walk(predefined.path);
  return key ? key : &EmptyKey();  // a predefined key the record lacks reads as empty
}

std::string RecordedRegistry::narrow(const std::u16string& text) const {
  return WideToAnsi(text, codePage_);
}

std::vector<BYTE> RecordedRegistry::narrowData(const RegValue& value) const {
  if (!IsStringType(value.type)) return value.data;
  const std::string text = narrow(Utf16FromBytes(value.data.data(), value.data.size()));
  return std::vector<BYTE>(text.begin(), text.end());
}

LONG RecordedRegistry::RegOpenKeyExA(HKEY root, const char* subKey, DWORD /*options*/, REGSAM sam,
                                     HKEY* result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  OpenKey base;
  if (!lookup(root, base)) return ERROR_INVALID_HANDLE;
  std::vector<std::u16string> dummy;
  const bool predefined = PredefinedPath(root, dummy);
  if (!subKey && predefined) {
    *result = root;
    return ERROR_SUCCESS;
  }

  std::string sub = subKey ? subKey : "";
  if (!sub.empty() && sub[0] == '\\') {
    // NT refuses a leading separator, except below HKEY_CLASSES_ROOT (XP and later).
    if (reinterpret_cast<std::uintptr_t>(root) != 0x80000000u) return ERROR_BAD_PATHNAME;
    sub.erase(0, sub.find_first_not_of('\\') == std::string::npos ? sub.size()
                                                                  : sub.find_first_not_of('\\'));
  }
  std::vector<std::u16string> path = base.path;
  for (auto& part : SplitPath(AnsiToWide(sub, codePage_))) path.push_back(std::move(part));

  if (!sub.empty() && Uses32BitView(sam, processIs32Bit_)) {
    std::vector<std::u16string> redirected = To32BitView(path);
    std::vector<std::u16string> probe = redirected;
    // HKLM\SOFTWARE itself stays put on a record without a 32-bit view.
    if (path.size() != 2 || walk(probe)) path = std::move(redirected);
  }
  const RegKey* key = walk(path);
  if (!key) return ERROR_FILE_NOT_FOUND;

  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t handle = nextHandle_;
  nextHandle_ += 4;
  handles_[handle] = OpenKey{std::move(path), EffectiveAccess(sam), key};
  *result = reinterpret_cast<HKEY>(handle);
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegCloseKey(HKEY key) {
  std::vector<std::u16string> dummy;
  if (PredefinedPath(key, dummy)) return ERROR_SUCCESS;
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
    longestName = std::max(longestName, key->value(i).name.size());
    longestData = std::max(longestData, key->value(i).data.size());
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

  const RegKey& sub = key->subKey(index);
  const std::string text = narrow(sub.name());
  // The name and its NUL must fit; the length is then left as it was.
  if (text.size() >= *nameLength || (className && classLength && *classLength == 0)) {
    return ERROR_MORE_DATA;
  }
  std::memcpy(name, text.c_str(), text.size() + 1);
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
  const std::string text = narrow(value.name);
  const std::vector<BYTE> bytes = narrowData(value);
  if (type) *type = value.type;
  // Either part too small: neither buffer is written, the name length is left as it
  // was, and the data length says what the data needs.
  if (text.size() >= *nameLength || (data && bytes.size() > *dataLength)) {
    if (dataLength) *dataLength = static_cast<DWORD>(bytes.size());
    return ERROR_MORE_DATA;
  }
  std::memcpy(name, text.c_str(), text.size() + 1);
  *nameLength = static_cast<DWORD>(text.size());
  if (data) CopyData(bytes, value.type, data, *dataLength);
  if (dataLength) *dataLength = static_cast<DWORD>(bytes.size());
  return ERROR_SUCCESS;
}

LONG RecordedRegistry::RegQueryValueExA(HKEY handle, const char* valueName, DWORD* reserved,
                                        DWORD* type, BYTE* data, DWORD* dataLength) {
  if (reserved || (data && !dataLength)) return ERROR_INVALID_PARAMETER;
  LONG status;
  const RegKey* key = keyOf(handle, KEY_QUERY_VALUE, status);
  if (!key) return status;
  if (!data && dataLength) *dataLength = 0;

  const RegValue* value =
      key->findValue(valueName ? AnsiToWide(valueName, codePage_) : std::u16string());
  if (!value) return ERROR_FILE_NOT_FOUND;
  const std::vector<BYTE> bytes = narrowData(*value);
  status = ERROR_SUCCESS;
  if (data) {
    if (bytes.size() > *dataLength) {
      status = ERROR_MORE_DATA;  // nothing copied
    } else {
      CopyData(bytes, value->type, data, *dataLength);
    }
  }
  if (type) *type = value->type;
  if (dataLength) *dataLength = static_cast<DWORD>(bytes.size());
  return status;
}

}  // namespace platform::recorded
