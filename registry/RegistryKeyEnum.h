// Registry reading for every collector: keys under HKEY_LOCAL_MACHINE opened in the view
// the collectors need, their values listed or read one by one, and registry data of any
// type turned into text. No handle leaves these functions open.
#pragma once

#include <boost/container/flat_map.hpp>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/types.h"

namespace installedapps_col {

// Value name (or, from ReadSelectedValues, property name) -> text; each name once.
// Flat: one is read for every entry of a key, and holds a handful of names.
using RegistryValueSet = boost::container::flat_map<std::string, std::string>;
// Property name -> the registry value that feeds it.
using ValueNameTable = std::map<std::string, std::string>;

// 0 on success, 1 when the key cannot be opened (`key` is then null). A 32-bit process on
// 64-bit Windows reads every key in the 64-bit view except the uninstall keys, which stay
// in its own view.
int OpenRegistryKey(platform::HKEY& key, platform::HKEY root, const std::string& path);

// 1 for a null handle (nothing closed), else 0 when the close succeeds, 1 when it fails.
int CloseRegistryKey(platform::HKEY& key);

// The number of values, the longest value name (characters, without NUL) and the longest
// value data (bytes). 0 on success, 1 on failure (after an assertion report).
int QueryKeyInfo(platform::HKEY key, platform::DWORD& valueCount,
                 platform::DWORD& maxValueNameLength, platform::DWORD& maxValueDataLength);

// Every value of `key` whose name and text are not empty. A null key gives nothing.
RegistryValueSet EnumerateValues(platform::HKEY key);

// The same entries as EnumerateValues, in its order (by name, of two equal names the one
// enumerated first), as a list; EnumerateValues is made from it.
using RegistryValueList = std::vector<std::pair<std::string, std::string>>;
RegistryValueList EnumerateValueList(platform::HKEY key);

// Reads `valueName` into a buffer of `bufferSize` bytes; on success `text` becomes its
// text, on failure `text` is left alone. 0 on success, 1 on failure.
int ReadRegistryValue(platform::HKEY key, const std::string& valueName, std::string& text,
                      platform::DWORD bufferSize);

// EnumerateValues of HKEY_LOCAL_MACHINE\path; empty when the key cannot be opened.
RegistryValueSet ReadKeyValues(const std::string& path);

// Property name -> text of the value the table names, for the values that have text; a
// missing "DisplayVersion" is made from "VersionMajor" and "VersionMinor".
RegistryValueSet ReadSelectedValues(const std::string& path, const ValueNameTable& table);

// ReadSelectedValues for many tables of one key: the key is opened and its sizes asked once,
// here, and it is closed when the reader goes. Each read answers as ReadSelectedValues
// would while the key does not change.
class SelectedValueReader {
 public:
  explicit SelectedValueReader(const std::string& path);
  ~SelectedValueReader();
  SelectedValueReader(const SelectedValueReader&) = delete;
  SelectedValueReader& operator=(const SelectedValueReader&) = delete;

  RegistryValueSet read(const ValueNameTable& table) const;

 private:
  platform::HKEY m_key = nullptr;  // null when the key cannot be opened
  platform::DWORD m_longestData = 0;
};

// Registry data as text: strings up to their NUL, expandable strings expanded, DWORDs in
// unsigned decimal, string lists joined with blanks; any other type gives "".
std::string RegistryDataToString(const platform::BYTE* data, platform::DWORD type,
                                 platform::DWORD size);

}  // namespace installedapps_col
