// iac reg query. Goes through platform::Registry rather than the recorded tree so that it
// shows a live Windows registry the same way, and exercises the calls the collectors use.
#include "cli/reg_query.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "platform/recorded/codepage.h"

namespace iac {

namespace {

using platform::BYTE;
using platform::DWORD;
using platform::HKEY;
using platform::LONG;
using platform::recorded::AnsiToWide;
using platform::recorded::Utf8ToWide;
using platform::recorded::WideToAnsi;
using platform::recorded::WideToUtf8;

// Windows' own bounds: 512 levels of keys, names of 16,383 characters (value names; key
// names stop at 255), up to two bytes each in a double-byte code page.
constexpr size_t kMaxDepth = 512;
constexpr size_t kMaxNameBuffer = 2 * 16383 + 2;
constexpr unsigned kMaxRetries = 8;

const char kNotFound[] =
    "ERROR: The system was unable to find the specified registry key or value.";

struct Root {
  const char* shortName;
  const char* longName;
  HKEY key;
};

const char* TypeName(DWORD type) {
  static const char* const names[] = {"REG_NONE",
                                      "REG_SZ",
                                      "REG_EXPAND_SZ",
                                      "REG_BINARY",
                                      "REG_DWORD",
                                      "REG_DWORD_BIG_ENDIAN",
                                      "REG_LINK",
                                      "REG_MULTI_SZ",
                                      "REG_RESOURCE_LIST",
                                      "REG_FULL_RESOURCE_DESCRIPTOR",
                                      "REG_RESOURCE_REQUIREMENTS_LIST",
                                      "REG_QWORD"};
  return type < sizeof(names) / sizeof(names[0]) ? names[type] : "REG_UNKNOWN";
}

class Query {
 public:
  Query(platform::Registry& reg, std::ostream& out, unsigned codePage, platform::REGSAM access)
      : reg_(reg), out_(out), codePage_(codePage), access_(access) {}

  std::string utf8(const std::string& ansi) const {
    return WideToUtf8(AnsiToWide(ansi, codePage_));
  }

  std::string format(DWORD type, const std::vector<BYTE>& data) const {
    const std::string raw(data.begin(), data.end());
    char number[32];
    switch (type) {
      case platform::REG_SZ:
      case platform::REG_EXPAND_SZ:
        return utf8(raw.substr(0, raw.find('\0')));
      case platform::REG_MULTI_SZ: {
        std::string joined;
        size_t start = 0;
        while (start < raw.size()) {
          size_t end = raw.find('\0', start);
          if (end == std::string::npos) end = raw.size();
          if (end == start) break;  // the empty string that ends the list
          if (start > 0) joined += "\\0";
          joined += utf8(raw.substr(start, end - start));
          start = end + 1;
        }
        return joined;
      }
      case platform::REG_DWORD:
      case platform::REG_DWORD_BIG_ENDIAN:
        if (data.size() == 4) {
          const DWORD v = type == platform::REG_DWORD
                              ? data[0] | data[1] << 8 | data[2] << 16 | DWORD{data[3]} << 24
                              : data[3] | data[2] << 8 | data[1] << 16 | DWORD{data[0]} << 24;
          std::snprintf(number, sizeof number, "0x%x", v);
          return number;
        }
        break;
      case platform::REG_QWORD:
        if (data.size() == 8) {
          unsigned long long v = 0;
          for (size_t i = 8; i-- > 0;) v = (v << 8) | data[i];
          std::snprintf(number, sizeof number, "0x%llx", v);
          return number;
        }
        break;
      default:
        break;
    }
    std::string hex;
    for (BYTE b : data) {
      std::snprintf(number, sizeof number, "%02X", b);
      hex += number;
    }
    return hex;
  }

  // `depth` counts the levels of `path` below its root.
  void key(HKEY key, const std::string& path, bool recursive, size_t depth) {
    out_ << path << "\n";
    DWORD subKeys = 0, values = 0, maxSubKey = 0, maxName = 0, maxData = 0;
    reg_.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, nullptr, &values,
                          &maxName, &maxData, nullptr, nullptr);
    // Lengths come as UTF-16 counts; a double-byte code page needs up to twice as many.
    std::vector<char> name(maxName * 2 + 2);
    std::vector<BYTE> data(maxData + 2);
    DWORD printed = 0;
    unsigned retries = 0;
    for (DWORD i = 0;; ++i) {
      DWORD nameLength = static_cast<DWORD>(name.size());
      DWORD dataLength = static_cast<DWORD>(data.size());
      DWORD type = 0;
      const LONG rc = reg_.RegEnumValueA(key, i, name.data(), &nameLength, nullptr, &type,
                                         data.data(), &dataLength);
      // Grow to what the value needs; a live key may change under us, so give up on a
      // value that still does not fit after a few tries.
      if (rc == platform::ERROR_MORE_DATA && ++retries <= kMaxRetries) {
        name.resize(std::min(name.size() * 2, kMaxNameBuffer));
        data.resize(std::max<size_t>(data.size(), dataLength));
        --i;
        continue;
      }
      if (rc == platform::ERROR_MORE_DATA) {
        retries = 0;
        continue;
      }
      retries = 0;
      if (rc != platform::ERROR_SUCCESS) break;
      const std::string shown =
          nameLength ? utf8(std::string(name.data(), nameLength)) : std::string("(Default)");
      out_ << "    " << shown << "    " << TypeName(type) << "    "
           << format(type, std::vector<BYTE>(data.begin(), data.begin() + dataLength)) << "\n";
      ++printed;
    }
    if (printed || recursive) out_ << "\n";

    std::vector<char> subName(std::max<size_t>(maxSubKey * 2 + 2, 512));
    DWORD listed = 0;
    for (DWORD i = 0;; ++i) {
      DWORD length = static_cast<DWORD>(subName.size());
      const LONG rc =
          reg_.RegEnumKeyExA(key, i, subName.data(), &length, nullptr, nullptr, nullptr, nullptr);
      // A name longer than the key said: grow, and past any name Windows allows, skip it
      // rather than end the listing there.
      if (rc == platform::ERROR_MORE_DATA && subName.size() < kMaxNameBuffer) {
        subName.resize(std::min(subName.size() * 2, kMaxNameBuffer));
        --i;
        continue;
      }
      if (rc == platform::ERROR_MORE_DATA) continue;
      if (rc != platform::ERROR_SUCCESS) break;
      const std::string subPath = path + "\\" + utf8(std::string(subName.data(), length));
      if (recursive) {
        // A name that stops at a NUL before its end would reopen another key (the key
        // itself, for a leading NUL) and recurse without end; such a key cannot be opened
        // by its name. Below 512 levels nothing can exist, so a loop of registry links
        // ends there too.
        if (std::strlen(subName.data()) != length || depth + 1 >= kMaxDepth) continue;
        HKEY sub = nullptr;
        // A sub-key opened without the view flag would fall back to the process's view.
        if (reg_.RegOpenKeyExA(key, subName.data(), 0, access_, &sub) == platform::ERROR_SUCCESS) {
          this->key(sub, subPath, true, depth + 1);
          reg_.RegCloseKey(sub);
        }
      } else {
        out_ << subPath << "\n";
        ++listed;
      }
    }
    if (listed) out_ << "\n";
  }

 private:
  platform::Registry& reg_;
  std::ostream& out_;
  unsigned codePage_;
  platform::REGSAM access_;
};

}  // namespace

int RunRegQuery(platform::Registry& reg, const std::string& keyPath, bool recursive,
                std::ostream& out, std::ostream& err, unsigned codePage, platform::REGSAM view) {
  const Root roots[] = {
      {"HKLM", "HKEY_LOCAL_MACHINE", platform::HKEY_LOCAL_MACHINE},
      {"HKCU", "HKEY_CURRENT_USER", platform::HKEY_CURRENT_USER},
      {"HKCR", "HKEY_CLASSES_ROOT", platform::HKEY_CLASSES_ROOT},
      {"HKU", "HKEY_USERS", platform::HKEY_USERS},
  };
  std::string path = keyPath;
  while (!path.empty() && path.back() == '\\') path.pop_back();
  const size_t slash = path.find('\\');
  std::string rootName = path.substr(0, slash);
  for (auto& c : rootName) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const std::string rest = slash == std::string::npos ? std::string() : path.substr(slash + 1);

  const Root* root = nullptr;
  for (const auto& r : roots) {
    if (rootName == r.shortName || rootName == r.longName) root = &r;
  }
  if (!root) {
    err << "ERROR: Invalid key name.\n";
    return 1;
  }
  HKEY key = nullptr;
  std::string ansi;
  try {
    ansi = WideToAnsi(Utf8ToWide(rest), codePage);
  } catch (const std::invalid_argument&) {
    ansi = rest;
  }
  const platform::REGSAM access = platform::KEY_READ | view;
  if (reg.RegOpenKeyExA(root->key, ansi.c_str(), 0, access, &key) != platform::ERROR_SUCCESS) {
    err << kNotFound << "\n";
    return 1;
  }
  out << "\n";
  const std::string shown = rest.empty() ? root->longName : root->longName + ("\\" + rest);
  size_t depth = 0;
  for (char c : shown) depth += c == '\\';
  Query(reg, out, codePage, access).key(key, shown, recursive, depth);
  reg.RegCloseKey(key);
  return 0;
}

}  // namespace iac
