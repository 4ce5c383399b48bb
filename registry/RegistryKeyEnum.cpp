#include "registry/RegistryKeyEnum.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <memory_resource>
#include <new>
#include <string_view>
#include <vector>

#include "platform/machine.h"

namespace installedapps_col {
namespace {

using platform::BYTE;
using platform::DWORD;
using platform::HKEY;

const char kSourceFile[] = "RegistryKeyEnum";
const std::string kUninstall = "Uninstall";
const std::string kDisplayVersion = "DisplayVersion";
const std::string kVersionMajor = "VersionMajor";
const std::string kVersionMinor = "VersionMinor";
constexpr DWORD kExpandBufferSize = 255;

// Asked anew on every open: the function is looked up at run time because Windows
// versions before XP SP2 do not have it.
bool RunsUnderWow64() {
  platform::System& system = platform::Machine::Current().system();
  platform::HMODULE kernel = system.GetModuleHandleA("kernel32");
  if (kernel == nullptr || system.GetProcAddress(kernel, "IsWow64Process") == nullptr) {
    return false;
  }
  platform::BOOL wow64 = platform::FALSE;
  if (!system.IsWow64Process(system.GetCurrentProcess(), &wow64)) return false;
  return wow64 != platform::FALSE;
}

// Fresh, uninitialised bytes for one registry read; null when the size cannot be had.
std::unique_ptr<BYTE[]> ReadBuffer(DWORD size) {
  return std::unique_ptr<BYTE[]>(new (std::nothrow) BYTE[size == 0 ? 1 : size]);
}

// The text of a string value: up to its NUL, or all of it when the data has none.
std::string StringData(const BYTE* data, DWORD size) {
  const char* text = reinterpret_cast<const char*>(data);
  const void* nul = std::memchr(text, '\0', size);
  return std::string(text, nul ? static_cast<const char*>(nul) - text : size);
}

std::string ExpandedString(const std::string& source) {
  platform::System& system = platform::Machine::Current().system();
  std::vector<char> buffer(kExpandBufferSize, '\0');
  DWORD result = system.ExpandEnvironmentStringsA(source.c_str(), buffer.data(), kExpandBufferSize);
  if (result > kExpandBufferSize) {
    std::vector<char> larger;
    try {
      larger.assign(result, '\0');
    } catch (const std::bad_alloc&) {
      return source;
    }
    buffer.swap(larger);
    result = system.ExpandEnvironmentStringsA(source.c_str(), buffer.data(),
                                              static_cast<DWORD>(buffer.size()));
  }
  if (result == 0) return source;
  return StringData(reinterpret_cast<const BYTE*>(buffer.data()),
                    static_cast<DWORD>(buffer.size()));
}

// Each separating NUL becomes a blank; the search for the next one starts two bytes on,
// and the last two bytes of the data are never touched, so a list ends where its double
// NUL is.
std::string JoinedStringList(const BYTE* data, DWORD size) {
  std::string list(reinterpret_cast<const char*>(data), size);
  const std::size_t end = size >= 2 ? size - 2 : 0;
  std::size_t nul = list.find('\0');
  while (nul != std::string::npos && nul < end) {
    list[nul] = ' ';
    nul = list.find('\0', nul + 2);
  }
  return list.substr(0, list.find('\0'));
}

// A DWORD is four little-endian bytes; shorter data gives the bytes it has, longer data
// its first four.
std::string DwordText(const BYTE* data, DWORD size) {
  if (size == 0) return std::string();
  std::uint32_t value = 0;
  for (DWORD i = 0; i < size && i < 4; ++i) value |= static_cast<std::uint32_t>(data[i]) << (8 * i);
  return std::to_string(value);
}

// The values of one key as they are read, their names and texts one after another in a
// monotonic buffer, then handed out in name order as a map orders names (bytes as
// unsigned), equal names in the order they came. A key can hold many thousands of values:
// sorting strings strewn over the heap, and then reading and freeing them in their new
// order, went to main memory for each one; the buffer is a few megabytes, and the strings
// handed out are made in the order they are used after. The sort runs on each name's
// first 16 bytes held as two integers, so that most comparisons read no name at all.
class ValuesInNameOrder {
 public:
  // `expected` is what the key says it holds; a key that claims absurdly many is taken at
  // its word only as far as a million.
  explicit ValuesInNameOrder(std::size_t expected) {
    entries_.reserve(std::min<std::size_t>(expected, 1 << 20));
  }

  void add(std::string_view name, std::string_view text) {
    entries_.push_back({Packed(name, 0), Packed(name, 8), keep(name), keep(text),
                        static_cast<std::uint32_t>(name.size()),
                        static_cast<std::uint32_t>(text.size()), entries_.size()});
  }

  // Sorted by name; of names that are equal, only the first to come.
  RegistryValueList take() {
    std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
      if (a.high != b.high) return a.high < b.high;
      if (a.low != b.low) return a.low < b.low;
      const int tail = a.nameView().compare(b.nameView());
      return tail != 0 ? tail < 0 : a.order < b.order;
    });
    RegistryValueList values;
    values.reserve(entries_.size());
    // In name order the blocks are read out of order: each entry is asked for a few ahead
    // of its turn, so that its read from memory overlaps the copying of those before it.
    constexpr std::size_t kAhead = 8;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (i + kAhead < entries_.size()) Prefetch(entries_[i + kAhead].name);
      const Entry& entry = entries_[i];
      if (!values.empty() && values.back().first == entry.nameView()) continue;
      values.emplace_back(std::string(entry.nameView()), std::string(entry.text, entry.textSize));
    }
    return values;
  }

 private:
  static constexpr std::size_t kFirstBlock = 64 * 1024;  // later blocks grow from there

  struct Entry {
    std::uint64_t high, low;
    const char* name;
    const char* text;
    std::uint32_t nameSize, textSize;  // each at most a DWORD of data
    std::size_t order;
    std::string_view nameView() const { return std::string_view(name, nameSize); }
  };

  static void Prefetch(const char* at) {
#if defined(__GNUC__)
    __builtin_prefetch(at);
#else
    (void)at;
#endif
  }

  // Names hold no NUL, so equal prefixes mean equal names up to 16 bytes.
  static std::uint64_t Packed(std::string_view name, std::size_t from) {
    std::uint64_t packed = 0;
    for (std::size_t i = from; i < from + 8; ++i) {
      packed = packed << 8 | (i < name.size() ? static_cast<unsigned char>(name[i]) : 0u);
    }
    return packed;
  }

  // A copy of `bytes` that stays where it is until this object goes.
  const char* keep(std::string_view bytes) {
    if (bytes.empty()) return "";
    auto* at = static_cast<char*>(bytes_.allocate(bytes.size(), 1));
    std::memcpy(at, bytes.data(), bytes.size());
    return at;
  }

  std::pmr::monotonic_buffer_resource bytes_{kFirstBlock};
  std::vector<Entry> entries_;
};

}  // namespace

int OpenRegistryKey(HKEY& key, HKEY root, const std::string& path) {
  platform::REGSAM access = platform::KEY_READ;
  if (RunsUnderWow64() && path.find(kUninstall) == std::string::npos) {
    access |= platform::KEY_WOW64_64KEY;
  }
  HKEY opened = nullptr;
  const platform::LONG status =
      platform::Machine::Current().registry().RegOpenKeyExA(root, path.c_str(), 0, access, &opened);
  key = status == platform::ERROR_SUCCESS ? opened : nullptr;
  return status == platform::ERROR_SUCCESS ? 0 : 1;
}

int CloseRegistryKey(HKEY& key) {
  if (key == nullptr) return 1;
  return platform::Machine::Current().registry().RegCloseKey(key) == platform::ERROR_SUCCESS ? 0
                                                                                             : 1;
}

int QueryKeyInfo(HKEY key, DWORD& valueCount, DWORD& maxValueNameLength,
                 DWORD& maxValueDataLength) {
  platform::System& system = platform::Machine::Current().system();
  if (key == nullptr) {
    system.crtAssert("hKey != NULL", kSourceFile, 203);
    return 1;
  }
  const platform::LONG apiRetCode = platform::Machine::Current().registry().RegQueryInfoKeyA(
      key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &valueCount, &maxValueNameLength,
      &maxValueDataLength, nullptr, nullptr);
  if (apiRetCode != platform::ERROR_SUCCESS) {
    system.crtAssert("apiRetCode == ERROR_SUCCESS", kSourceFile, 210);
    return 1;
  }
  return 0;
}

RegistryValueSet EnumerateValues(HKEY key) {
  RegistryValueList list = EnumerateValueList(key);
  // Already in order and unique: taken as it is, not sorted again.
  return RegistryValueSet(boost::container::ordered_unique_range,
                          std::make_move_iterator(list.begin()),
                          std::make_move_iterator(list.end()));
}

RegistryValueList EnumerateValueList(HKEY key) {
  if (key == nullptr) return {};
  DWORD count = 0, longestName = 0, longestData = 0;
  QueryKeyInfo(key, count, longestName, longestData);
  platform::Registry& registry = platform::Machine::Current().registry();
  // The name buffer grows by one byte per index; harmless, and kept. The bytes behind it
  // grow by doubling and are used again, as is the data buffer: a buffer made and freed
  // per value, soon larger than the allocator keeps at hand, cost more than the read.
  DWORD nameBufferSize = longestName;
  std::unique_ptr<char[]> name;
  std::size_t nameCapacity = 0;
  const std::unique_ptr<BYTE[]> data = ReadBuffer(longestData);
  ValuesInNameOrder read(count);
  for (DWORD index = 0; index < count; ++index) {
    ++nameBufferSize;
    if (nameBufferSize > nameCapacity) {
      const std::size_t capacity = std::max<std::size_t>(nameBufferSize, 2 * nameCapacity);
      name.reset(new (std::nothrow) char[capacity]);
      nameCapacity = name ? capacity : 0;
    }
    if (!name || !data) continue;
    DWORD nameSize = nameBufferSize, dataSize = longestData, type = platform::REG_NONE;
    const platform::LONG status = registry.RegEnumValueA(key, index, name.get(), &nameSize, nullptr,
                                                         &type, data.get(), &dataSize);
    if (status != platform::ERROR_SUCCESS || nameSize == 0 || name[0] == '\0') continue;
    if (dataSize > longestData) dataSize = longestData;
    const std::string text = RegistryDataToString(data.get(), type, dataSize);
    if (!text.empty())
      read.add(std::string_view(name.get(), strnlen(name.get(), nameBufferSize)), text);
  }
  // Two names can narrow to one (characters the code page lacks become '?'): the first
  // enumerated stays, as a map's emplace keeps it.
  return read.take();
}

int ReadRegistryValue(HKEY key, const std::string& valueName, std::string& text, DWORD bufferSize) {
  // Most values fit on the stack; this runs for every value of every entry.
  BYTE local[1024];
  std::unique_ptr<BYTE[]> heap;
  BYTE* data = local;
  if (bufferSize > sizeof local) {
    heap = ReadBuffer(bufferSize);
    if (!heap) return 1;
    data = heap.get();
  }
  DWORD size = bufferSize, type = platform::REG_NONE;
  const platform::LONG status = platform::Machine::Current().registry().RegQueryValueExA(
      key, valueName.c_str(), nullptr, &type, data, &size);
  if (status != platform::ERROR_SUCCESS) return 1;
  if (size > bufferSize) size = bufferSize;
  text = RegistryDataToString(data, type, size);
  return 0;
}

RegistryValueSet ReadKeyValues(const std::string& path) {
  HKEY key = nullptr;
  OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, path);
  RegistryValueSet values = EnumerateValues(key);
  CloseRegistryKey(key);
  return values;
}

RegistryValueSet ReadSelectedValues(const std::string& path, const ValueNameTable& table) {
  return SelectedValueReader(path).read(table);
}

SelectedValueReader::SelectedValueReader(const std::string& path) {
  if (OpenRegistryKey(m_key, platform::HKEY_LOCAL_MACHINE, path) != 0) return;
  DWORD count = 0, longestName = 0;
  QueryKeyInfo(m_key, count, longestName, m_longestData);
}

SelectedValueReader::~SelectedValueReader() {
  if (m_key != nullptr) CloseRegistryKey(m_key);
}

RegistryValueSet SelectedValueReader::read(const ValueNameTable& table) const {
  RegistryValueSet values;
  if (m_key == nullptr) return values;
  values.reserve(table.size());
  for (const auto& row : table) {
    std::string text;
    if (ReadRegistryValue(m_key, row.second, text, m_longestData) == 0 && !text.empty()) {
      values.emplace(row.first, std::move(text));
      continue;
    }
    if (row.second != kDisplayVersion) continue;
    std::string major, minor;
    ReadRegistryValue(m_key, kVersionMajor, major, m_longestData);
    ReadRegistryValue(m_key, kVersionMinor, minor, m_longestData);
    if (!major.empty()) values.emplace(row.first, major + "." + minor);
  }
  return values;
}

std::string RegistryDataToString(const BYTE* data, DWORD type, DWORD size) {
  if (data == nullptr) return std::string();
  switch (type) {
    case platform::REG_SZ:
      return StringData(data, size);
    case platform::REG_EXPAND_SZ:
      return ExpandedString(StringData(data, size));
    case platform::REG_DWORD:
      return DwordText(data, size);
    case platform::REG_MULTI_SZ:
      return JoinedStringList(data, size);
    default:
      return std::string();
  }
}

}  // namespace installedapps_col
