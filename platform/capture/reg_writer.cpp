#include "platform/capture/reg_writer.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "platform/capture/ansi_text.h"
#include "platform/recorded/reg_parser.h"
#include "platform/recorded/registry_model.h"

namespace platform::capture {
namespace {

struct Subtree {
  HKEY root;
  std::string path;
  bool withSubKeys;
};

// Both views are read as stored: the 64-bit view, and Wow6432Node by its own name.
constexpr REGSAM kAccess = KEY_READ | KEY_WOW64_64KEY;

std::u16string Ascii(const std::string& text) {
  return std::u16string(text.begin(), text.end());
}

// A quoted name or string. The parser reads a line end inside quotes as one LF, so an LF is
// written as a whole line end: a stored CR LF then reads back as CR and LF.
std::u16string Quoted(const std::u16string& text) {
  std::u16string out = u"\"";
  for (char16_t c : text) {
    if (c == u'\\' || c == u'"') out += u'\\';
    if (c == u'\n') out += u'\r';
    out += c;
  }
  return out + u"\"";
}

bool HasLineBreak(const std::u16string& name) {
  return name.find_first_of(u"\r\n") != std::u16string::npos;
}

std::string Utf16LeBytes(const std::u16string& text) {
  std::string bytes;
  bytes.reserve(text.size() * 2);
  for (char16_t c : text) {
    bytes += static_cast<char>(c & 0xFF);
    bytes += static_cast<char>(c >> 8);
  }
  return bytes;
}

// hex: data as regedit writes it, wrapped after about 80 columns.
std::u16string HexData(const std::u16string& prefix, const std::string& bytes) {
  std::u16string out = prefix;
  size_t column = out.size();
  char digits[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(bytes[i]));
    out += Ascii(digits);
    column += 2;
    if (i + 1 < bytes.size()) {
      out += u',';
      ++column;
      if (column > 76) {
        out += u"\\\r\n  ";
        column = 2;
      }
    }
  }
  return out;
}

class Exporter {
 public:
  Exporter(Registry& registry, System& system, const RegistryLimits& limits)
      : registry_(registry), system_(system), limits_(limits) {}

  // Reads `readPath` and writes it (and below) as `writePath`.
  void exportKey(HKEY root, const std::string& readPath, const std::string& writePath,
                 bool withSubKeys, unsigned depth = 0) {
    if (depth > limits_.maxDepth || keys_ >= limits_.maxKeys) return;
    HKEY key = nullptr;
    if (registry_.RegOpenKeyExA(root, readPath.c_str(), 0, kAccess, &key) != ERROR_SUCCESS) return;
    ++keys_;
    const std::u16string path = AnsiToWide(system_, writePath);
    // A line break would end the key line and start whatever the name holds next.
    const bool escape = HasLineBreak(path);
    if (escape) text_.append(recorded::kEscapedKeyLine).append(u"\r\n");
    text_ += root == HKEY_CURRENT_USER ? u"[HKEY_CURRENT_USER" : u"[HKEY_LOCAL_MACHINE";
    for (const std::u16string& name : recorded::SplitPath(path))
      text_.append(u"\\").append(escape ? recorded::EscapeKeyName(name) : name);
    text_ += u"]\r\n";
    writeValues(key);
    text_ += u"\r\n";
    std::vector<std::string> children = withSubKeys ? subKeys(key) : std::vector<std::string>();
    registry_.RegCloseKey(key);
    for (const std::string& child : children) {
      exportKey(root, readPath + "\\" + child, writePath + "\\" + child, true, depth + 1);
    }
  }

  std::string bytes() const { return "\xFF\xFE" + Utf16LeBytes(text_); }

 private:
  std::vector<std::string> subKeys(HKEY key) {
    std::vector<std::string> names;
    std::vector<char> name(1024);
    for (DWORD index = 0; keys_ + names.size() < limits_.maxKeys; ++index) {
      DWORD length = static_cast<DWORD>(name.size());
      const LONG status = registry_.RegEnumKeyExA(key, index, name.data(), &length, nullptr,
                                                  nullptr, nullptr, nullptr);
      if (status == ERROR_MORE_DATA && name.size() < 65536) {
        name.resize(name.size() * 2);
        --index;
        continue;
      }
      if (status != ERROR_SUCCESS) break;
      std::string child(name.data(), std::min<size_t>(length, name.size()));
      // Only a key that the A calls open by this name, and that a recorded machine can hold:
      // a name with a NUL (made through the native API) would open another key, often the
      // parent itself.
      const std::u16string wide = AnsiToWide(system_, child);
      if (child.find('\0') != std::string::npos || recorded::KeyNameFault(wide)) continue;
      names.push_back(std::move(child));
    }
    return names;
  }

  void writeValues(HKEY key) {
    std::vector<char> name(32768);
    std::vector<BYTE> data(4096);
    for (DWORD index = 0; values_ < limits_.maxValues; ++index) {
      DWORD nameLength = static_cast<DWORD>(name.size());
      DWORD dataLength = static_cast<DWORD>(data.size());
      DWORD type = 0;
      const LONG status = registry_.RegEnumValueA(key, index, name.data(), &nameLength, nullptr,
                                                  &type, data.data(), &dataLength);
      if (status == ERROR_MORE_DATA && dataLength > data.size() &&
          dataLength <= limits_.maxValueBytes) {
        data.resize(dataLength);
        --index;
        continue;
      }
      if (status == ERROR_MORE_DATA) continue;  // beyond the bound: left out
      if (status != ERROR_SUCCESS) break;
      ++values_;
      const std::string valueName(name.data(), nameLength);
      const std::string bytes(reinterpret_cast<const char*>(data.data()), dataLength);
      text_ += (valueName.empty() ? u"@" : Quoted(AnsiToWide(system_, valueName))) + u"=" +
               valueText(type, bytes) + u"\r\n";
    }
  }

  std::u16string valueText(DWORD type, const std::string& bytes) {
    if (type == REG_DWORD && bytes.size() == 4) {
      char digits[16];
      const DWORD value = static_cast<DWORD>(static_cast<unsigned char>(bytes[0])) |
                          static_cast<DWORD>(static_cast<unsigned char>(bytes[1])) << 8 |
                          static_cast<DWORD>(static_cast<unsigned char>(bytes[2])) << 16 |
                          static_cast<DWORD>(static_cast<unsigned char>(bytes[3])) << 24;
      std::snprintf(digits, sizeof digits, "dword:%08x", static_cast<unsigned>(value));
      return Ascii(digits);
    }
    if (type == REG_BINARY) return HexData(u"hex:", bytes);
    if (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ) {
      // The A calls hand out ANSI; the file holds what Windows stores, UTF-16.
      const std::u16string wide = AnsiToWide(system_, bytes);
      if (type == REG_SZ && !wide.empty() && wide.back() == u'\0') {
        const std::u16string body = wide.substr(0, wide.size() - 1);
        // A quoted string cannot carry line ends or NULs back unchanged.
        if (body.find_first_of(std::u16string(u"\r\n\0", 3)) == std::u16string::npos) {
          return Quoted(body);
        }
      }
      return HexData(u"hex(" + Ascii(std::to_string(type)) + u"):", Utf16LeBytes(wide));
    }
    char prefix[24];
    std::snprintf(prefix, sizeof prefix, "hex(%x):", static_cast<unsigned>(type));
    return HexData(Ascii(prefix), bytes);
  }

  Registry& registry_;
  System& system_;
  RegistryLimits limits_;
  std::u16string text_ = u"Windows Registry Editor Version 5.00\r\n\r\n";
  unsigned keys_ = 0;
  unsigned values_ = 0;
};

// The control set that CurrentControlSet stands for (Select\Current, else 1).
std::string CurrentControlSet(Registry& registry) {
  DWORD current = 1;
  HKEY key = nullptr;
  if (registry.RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\Select", 0, kAccess, &key) ==
      ERROR_SUCCESS) {
    DWORD value = 0, type = 0, size = sizeof value;
    if (registry.RegQueryValueExA(key, "Current", nullptr, &type, reinterpret_cast<BYTE*>(&value),
                                  &size) == ERROR_SUCCESS &&
        type == REG_DWORD && size == sizeof value && value > 0 && value < 1000) {
      current = value;
    }
    registry.RegCloseKey(key);
  }
  char name[24];
  std::snprintf(name, sizeof name, "ControlSet%03u", static_cast<unsigned>(current));
  return name;
}

}  // namespace

std::string ExportRegistry(Registry& registry, System& system, const RegistryLimits& limits) {
  const std::vector<Subtree> software = {
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall", true},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall",
       true},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Classes\\Installer\\Products", true},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Updates", true},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", false},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\HotFix", true},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\R2Setup", true},
      {HKEY_LOCAL_MACHINE,
       "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents", true},
      {HKEY_LOCAL_MACHINE, "SYSTEM\\Select", true},
      {HKEY_CURRENT_USER, "Environment", true},
      {HKEY_LOCAL_MACHINE, "BCD00000000", true},
  };
  Exporter exporter(registry, system, limits);
  for (const Subtree& tree : software) {
    exporter.exportKey(tree.root, tree.path, tree.path, tree.withSubKeys);
    // A 32-bit reader sees the 32-bit copy of SOFTWARE; it is read here by its own name.
    const std::string software = "SOFTWARE\\";
    if (tree.path.rfind(software, 0) == 0 && tree.path.find("Wow6432Node") == std::string::npos &&
        tree.path.find("Uninstall") == std::string::npos) {
      const std::string view32 = software + "Wow6432Node\\" + tree.path.substr(software.size());
      exporter.exportKey(tree.root, view32, view32, tree.withSubKeys);
    }
  }
  // Written under the control set they come from, so that Select resolves them again.
  const std::string controlSet = CurrentControlSet(registry);
  for (const char* key : {"Control\\Session Manager\\Environment", "Control\\MiniNT"}) {
    exporter.exportKey(HKEY_LOCAL_MACHINE, std::string("SYSTEM\\CurrentControlSet\\") + key,
                       "SYSTEM\\" + controlSet + "\\" + key, true);
  }
  return exporter.bytes();
}

}  // namespace platform::capture
