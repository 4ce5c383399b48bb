// The narrow registry calls of a recorded machine, pinned to what Windows answers.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_registry.h"
#include "platform/recorded/registry_model.h"

using namespace platform;
using platform::recorded::RecordedRegistry;

namespace {

const char kMachine[] = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\App64]
"DisplayName"="Sixty-four"
"Version"=dword:0000000b
"Blob"=hex:01,02,03
"List"=hex(7):61,00,00,00,62,00,63,00,00,00,00,00
"Path"=hex(2):25,00,53,00,25,00,00,00
@="default"
"Bare"=hex(1):61,00,62,00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Zed]
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Alpha]

[HKEY_LOCAL_MACHINE\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\App32]
"DisplayName"="Thirty-two"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion]
"BuildLabEx"="64-bit view"
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB958644]
[HKEY_LOCAL_MACHINE\SOFTWARE\Wow6432Node\Microsoft\Windows NT\CurrentVersion]
"BuildLabEx"="32-bit view"

[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Installer\Products\P1]
[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\CLSID\{64}]
[HKEY_LOCAL_MACHINE\SOFTWARE\Classes\Wow6432Node\CLSID\{32}]
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Setup\Oc Manager\Subcomponents]
"iis"=dword:00000001

[HKEY_LOCAL_MACHINE\SYSTEM\Select]
"Current"=dword:00000002
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet001\Control\Session Manager\Environment]
"OS"="stale control set"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Environment]
"OS"="Windows_NT"

[HKEY_CURRENT_USER\Environment]
"TEMP"="C:\\Temp"
)";

const char kUninstall[] = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
const char kApp64[] = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App64";

std::unique_ptr<RecordedRegistry> Machine(unsigned codePage = 1252, bool wow64 = false,
                                          const std::string& text = kMachine) {
  auto reg = std::make_unique<RecordedRegistry>();
  reg->setCodePage(codePage);
  reg->setProcessIs32Bit(wow64);
  reg->loadRegFile("machine.reg", text);
  return reg;
}

HKEY Open(RecordedRegistry& reg, const char* path, REGSAM sam = KEY_READ) {
  HKEY key = nullptr;
  EXPECT_EQ(reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, sam, &key), ERROR_SUCCESS) << path;
  return key;
}

// What RegEnumKeyExA (or RegEnumValueA) lists under HKLM\`path`, in order.
std::vector<std::string> Enumerate(RecordedRegistry& reg, const std::string& path, bool values) {
  HKEY key = nullptr;
  std::vector<std::string> names;
  if (reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return {"<cannot open>"};
  }
  for (DWORD i = 0;; ++i) {
    char name[256];
    DWORD length = sizeof name;
    const LONG rc =
        values ? reg.RegEnumValueA(key, i, name, &length, nullptr, nullptr, nullptr, nullptr)
               : reg.RegEnumKeyExA(key, i, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (rc != ERROR_SUCCESS) break;
    names.emplace_back(name, length);
  }
  reg.RegCloseKey(key);
  return names;
}

std::string ReadString(RecordedRegistry& reg, HKEY key, const char* name) {
  char buffer[256] = {};
  DWORD size = sizeof buffer;
  if (reg.RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) !=
      ERROR_SUCCESS) {
    return "<unreadable>";
  }
  return buffer;
}

}  // namespace

TEST(RegistryOpen, ResultCodes) {
  const struct {
    HKEY root;
    const char* subKey;
    LONG expected;
  } cases[] = {
      {HKEY_LOCAL_MACHINE, kApp64, ERROR_SUCCESS},
      {HKEY_LOCAL_MACHINE, "software\\MICROSOFT\\windows\\currentversion\\UNINSTALL\\app64",
       ERROR_SUCCESS},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\",
       ERROR_SUCCESS},
      {HKEY_LOCAL_MACHINE, "SOFTWARE\\Missing", ERROR_FILE_NOT_FOUND},
      {HKEY_LOCAL_MACHINE, "\\SOFTWARE", recorded::ERROR_BAD_PATHNAME},
      {HKEY_LOCAL_MACHINE, "", ERROR_SUCCESS},
      {HKEY_CLASSES_ROOT, "Installer\\Products\\P1", ERROR_SUCCESS},
      {HKEY_CLASSES_ROOT, "\\Installer", ERROR_SUCCESS},  // XP and later allow it here
      {HKEY_CURRENT_USER, "Environment", ERROR_SUCCESS},
      {HKEY_USERS, "S-1-5-18", ERROR_FILE_NOT_FOUND},
      {nullptr, "SOFTWARE", ERROR_INVALID_HANDLE},
      {reinterpret_cast<HKEY>(0x1234), "SOFTWARE", ERROR_INVALID_HANDLE},
  };
  auto reg = Machine();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.subKey);
    HKEY key = reinterpret_cast<HKEY>(0x77);
    EXPECT_EQ(reg->RegOpenKeyExA(c.root, c.subKey, 0, KEY_READ, &key), c.expected);
    if (c.expected == ERROR_SUCCESS) {
      EXPECT_EQ(reg->RegCloseKey(key), ERROR_SUCCESS);
    } else {
      EXPECT_EQ(key, reinterpret_cast<HKEY>(0x77));  // left as it was
    }
  }
  EXPECT_EQ(reg->openHandleCount(), 0u);
}

TEST(RegistryOpen, HandlesLifeCycle) {
  auto reg = Machine();
  HKEY same = nullptr;
  EXPECT_EQ(reg->RegOpenKeyExA(HKEY_LOCAL_MACHINE, nullptr, 0, KEY_READ, &same), ERROR_SUCCESS);
  EXPECT_EQ(same, HKEY_LOCAL_MACHINE);  // a null sub-key of a predefined key is that key
  EXPECT_EQ(reg->RegOpenKeyExA(HKEY_LOCAL_MACHINE, kApp64, 0, KEY_READ, nullptr),
            ERROR_INVALID_PARAMETER);

  HKEY parent = Open(*reg, kUninstall);
  HKEY again = nullptr, child = nullptr;
  ASSERT_EQ(reg->RegOpenKeyExA(parent, "", 0, KEY_READ, &again), ERROR_SUCCESS);
  EXPECT_NE(again, parent);  // a new handle to the same key
  ASSERT_EQ(reg->RegOpenKeyExA(parent, "app64", 0, KEY_READ, &child), ERROR_SUCCESS);
  EXPECT_EQ(ReadString(*reg, child, "DisplayName"), "Sixty-four");
  EXPECT_EQ(reg->RegCloseKey(child), ERROR_SUCCESS);
  EXPECT_EQ(reg->RegCloseKey(again), ERROR_SUCCESS);
  EXPECT_EQ(reg->RegCloseKey(parent), ERROR_SUCCESS);

  // Every call refuses a closed handle.
  DWORD size = 0, count = 0;
  char name[16];
  DWORD nameLength = sizeof name;
  EXPECT_EQ(reg->RegCloseKey(child), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->RegCloseKey(nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->RegCloseKey(HKEY_LOCAL_MACHINE), ERROR_SUCCESS);
  EXPECT_EQ(reg->RegQueryValueExA(child, "DisplayName", nullptr, nullptr, nullptr, &size),
            ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->RegQueryInfoKeyA(child, nullptr, nullptr, nullptr, &count, nullptr, nullptr,
                                  nullptr, nullptr, nullptr, nullptr, nullptr),
            ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->RegEnumKeyExA(child, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
            ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->RegEnumValueA(child, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
            ERROR_INVALID_HANDLE);
  EXPECT_EQ(reg->openHandleCount(), 0u);
}

TEST(RegistryOpen, CurrentControlSetFollowsSelectCurrent) {
  auto reg = Machine();
  HKEY key = Open(*reg, "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment");
  EXPECT_EQ(ReadString(*reg, key, "OS"), "Windows_NT");
  reg->RegCloseKey(key);

  // An export that holds CurrentControlSet itself is read as it is.
  auto literal =
      Machine(1252, false,
              "Windows Registry Editor Version 5.00\n"
              "[HKEY_LOCAL_MACHINE\\SYSTEM\\Select]\n\"Current\"=dword:00000002\n"
              "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control]\n\"X\"=\"as is\"\n");
  key = Open(*literal, "SYSTEM\\CurrentControlSet\\Control");
  EXPECT_EQ(ReadString(*literal, key, "X"), "as is");
  literal->RegCloseKey(key);
}

// Names compare as Windows compares them, after upcasing each unit; the shortcut for two
// ASCII characters must agree with that for every pair.
TEST(RegistryNames, CompareAsUpcasedUnits) {
  std::vector<char16_t> units;
  for (char16_t c = 0; c < 0x500; ++c) units.push_back(c);
  for (char16_t c = 0xFF00; c < 0xFF80; ++c) units.push_back(c);
  size_t wrong = 0;
  for (char16_t x : units) {
    for (char16_t y : units) {
      const bool same = recorded::UpcaseChar(x) == recorded::UpcaseChar(y);
      const std::u16string a{u'k', x}, b{u'K', y};
      if (recorded::NamesEqual(a, b) != same && ++wrong <= 5) {
        ADD_FAILURE() << std::hex << "U+" << int(x) << " and U+" << int(y);
      }
    }
  }
  EXPECT_EQ(wrong, 0u);
}

// A load while handles are open: each handle finds its key again by path, a removed key
// reads as empty (and has no sub-keys), and one written back is found again.
TEST(RegistryOpen, HandlesOutliveLoads) {
  auto reg = Machine();
  HKEY app = Open(*reg, kApp64);
  HKEY control = Open(*reg, "SYSTEM\\CurrentControlSet\\Control");
  HKEY uninstall = Open(*reg, kUninstall);
  const std::string head = "Windows Registry Editor Version 5.00\n";
  const std::string appKey =
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App64]\n";
  const struct {
    std::string load;
    std::string name;  // of the app handle's DisplayName
    LONG openSub;      // opening "Session Manager" below the Control handle
    std::vector<std::string> uninstallKeys;
  } cases[] = {
      {head + appKey + "\"DisplayName\"=\"renamed\"\n",
       "renamed",
       ERROR_SUCCESS,
       {"Alpha", "App64", "Zed"}},
      {head +
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Aaa]\n",
       "renamed",
       ERROR_SUCCESS,
       {"Aaa", "Alpha", "App64", "Zed"}},
      {head + "[-" + appKey.substr(1) + "[-HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet002]\n",
       "<unreadable>",
       ERROR_FILE_NOT_FOUND,
       {"Aaa", "Alpha", "Zed"}},
      {head + appKey + "\"DisplayName\"=\"back\"\n" +
           "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet002\\Control\\Session Manager]\n",
       "back",
       ERROR_SUCCESS,
       {"Aaa", "Alpha", "App64", "Zed"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.load);
    reg->loadRegFile("later.reg", c.load);
    EXPECT_EQ(ReadString(*reg, app, "DisplayName"), c.name);
    HKEY sub = nullptr;
    EXPECT_EQ(reg->RegOpenKeyExA(control, "Session Manager", 0, KEY_READ, &sub), c.openSub);
    if (sub) reg->RegCloseKey(sub);
    std::vector<std::string> names;
    char name[64];
    DWORD length = sizeof name;
    for (DWORD i = 0; reg->RegEnumKeyExA(uninstall, i, name, &length, nullptr, nullptr, nullptr,
                                         nullptr) == ERROR_SUCCESS;
         ++i, length = sizeof name) {
      names.emplace_back(name, length);
    }
    EXPECT_EQ(names, c.uninstallKeys);
  }
  for (HKEY key : {app, control, uninstall}) EXPECT_EQ(reg->RegCloseKey(key), ERROR_SUCCESS);
  EXPECT_EQ(reg->openHandleCount(), 0u);
}

// 0x20019 is KEY_READ, 0x20119 adds KEY_WOW64_64KEY, 0x20219 adds KEY_WOW64_32KEY.
TEST(RegistryViews, AccessMasksOnBothReaders) {
  const std::string uninstall = kUninstall;
  const struct {
    bool wow64;
    REGSAM sam;
    std::string path;
    LONG expected;
  } cases[] = {
      {false, 0x20019, uninstall + "\\App64", ERROR_SUCCESS},
      {false, 0x20019, uninstall + "\\App32", ERROR_FILE_NOT_FOUND},
      {false, 0x20119, uninstall + "\\App64", ERROR_SUCCESS},
      {false, 0x20219, uninstall + "\\App32", ERROR_SUCCESS},
      {false, 0x20219, uninstall + "\\App64", ERROR_FILE_NOT_FOUND},
      {true, 0x20019, uninstall + "\\App32", ERROR_SUCCESS},
      {true, 0x20019, uninstall + "\\App64", ERROR_FILE_NOT_FOUND},
      {true, 0x20119, uninstall + "\\App64", ERROR_SUCCESS},
      {true, 0x20219, uninstall + "\\App32", ERROR_SUCCESS},
      {true, 0x20319, uninstall + "\\App32", ERROR_SUCCESS},  // 32 wins over 64
      // Explicit WOW6432Node paths read the same in every view.
      {false, 0x20019,
       "SOFTWARE\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App32",
       ERROR_SUCCESS},
      {true, 0x20019, "SOFTWARE\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App32",
       ERROR_SUCCESS},
      {true, 0x20219, "SOFTWARE\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App32",
       ERROR_SUCCESS},
      // The hot-fix key exists in the 64-bit view only.
      {true, 0x20019, "SOFTWARE\\MICROSOFT\\WINDOWS NT\\CurrentVersion\\HotFix",
       ERROR_FILE_NOT_FOUND},
      {true, 0x20119, "SOFTWARE\\MICROSOFT\\WINDOWS NT\\CurrentVersion\\HotFix", ERROR_SUCCESS},
      // Shared keys: Classes (but CLSID and friends), Setup.
      {true, 0x20019, "SOFTWARE\\Classes\\Installer\\Products\\P1", ERROR_SUCCESS},
      {true, 0x20019, "SOFTWARE\\Classes\\CLSID\\{32}", ERROR_SUCCESS},
      {true, 0x20019, "SOFTWARE\\Classes\\CLSID\\{64}", ERROR_FILE_NOT_FOUND},
      {false, 0x20019, "SOFTWARE\\Classes\\CLSID\\{64}", ERROR_SUCCESS},
      {true, 0x20019,
       "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents",
       ERROR_SUCCESS},
      // Outside HKLM\SOFTWARE nothing is redirected.
      {true, 0x20219, "SYSTEM\\CurrentControlSet\\Control", ERROR_SUCCESS},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE((c.wow64 ? "WOW64 " : "64-bit ") + std::to_string(c.sam) + " " + c.path);
    auto reg = Machine(1252, c.wow64);
    HKEY key = nullptr;
    EXPECT_EQ(reg->RegOpenKeyExA(HKEY_LOCAL_MACHINE, c.path.c_str(), 0, c.sam, &key), c.expected);
    if (key) reg->RegCloseKey(key);
  }
}

TEST(RegistryViews, SameNameReadsPerView) {
  for (bool wow64 : {false, true}) {
    auto reg = Machine(1252, wow64);
    const char* path = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
    HKEY own = Open(*reg, path, 0x20019), view64 = Open(*reg, path, 0x20119),
         view32 = Open(*reg, path, 0x20219);
    EXPECT_EQ(ReadString(*reg, own, "BuildLabEx"), wow64 ? "32-bit view" : "64-bit view");
    EXPECT_EQ(ReadString(*reg, view64, "BuildLabEx"), "64-bit view");
    EXPECT_EQ(ReadString(*reg, view32, "BuildLabEx"), "32-bit view");
    for (HKEY key : {own, view64, view32}) reg->RegCloseKey(key);
  }
}

TEST(RegistryAccess, RightsOfTheHandle) {
  auto reg = Machine();
  const struct {
    REGSAM sam;
    LONG query;
    LONG enumerate;
  } cases[] = {
      {KEY_READ, ERROR_SUCCESS, ERROR_SUCCESS},
      {KEY_QUERY_VALUE, ERROR_SUCCESS, ERROR_ACCESS_DENIED},
      {KEY_ENUMERATE_SUB_KEYS, ERROR_ACCESS_DENIED, ERROR_SUCCESS},
      {0x80000000u /* GENERIC_READ */, ERROR_SUCCESS, ERROR_SUCCESS},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sam);
    HKEY key = Open(*reg, kUninstall, c.sam);
    DWORD size = 0;
    char name[64];
    DWORD nameLength = sizeof name;
    EXPECT_EQ(reg->RegQueryValueExA(key, "", nullptr, nullptr, nullptr, &size),
              c.query == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : c.query);
    EXPECT_EQ(reg->RegEnumKeyExA(key, 0, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
              c.enumerate);
    reg->RegCloseKey(key);
  }
}

// RegQueryValueExA: a null buffer asks for the size; a short one gets ERROR_MORE_DATA with
// the size needed and is not written. Sizes count the stored terminating NULs.
TEST(RegistryQueryValue, SizesAndShortBuffers) {
  const struct {
    const char* name;
    int capacity;  // -1: null data pointer
    LONG rc;
    DWORD type;
    DWORD size;
    std::string data;
  } cases[] = {
      {"DisplayName", -1, ERROR_SUCCESS, REG_SZ, 11, ""},
      {"DisplayName", 11, ERROR_SUCCESS, REG_SZ, 11, std::string("Sixty-four\0", 11)},
      {"DisplayName", 10, ERROR_MORE_DATA, REG_SZ, 11, ""},
      {"DisplayName", 0, ERROR_MORE_DATA, REG_SZ, 11, ""},
      {"displayname", 64, ERROR_SUCCESS, REG_SZ, 11, std::string("Sixty-four\0", 11)},
      {"Version", 4, ERROR_SUCCESS, REG_DWORD, 4, std::string("\x0b\0\0\0", 4)},
      {"Version", 3, ERROR_MORE_DATA, REG_DWORD, 4, ""},
      {"Blob", 3, ERROR_SUCCESS, REG_BINARY, 3, "\x01\x02\x03"},
      {"Blob", 2, ERROR_MORE_DATA, REG_BINARY, 3, ""},
      {"List", 64, ERROR_SUCCESS, REG_MULTI_SZ, 6, std::string("a\0bc\0\0", 6)},
      {"Path", 64, ERROR_SUCCESS, REG_EXPAND_SZ, 4, std::string("%S%\0", 4)},
      {"", 64, ERROR_SUCCESS, REG_SZ, 8, std::string("default\0", 8)},
      {nullptr, 64, ERROR_SUCCESS, REG_SZ, 8, std::string("default\0", 8)},
      // Stored without a NUL: the size says so, and a roomy buffer still gets a NUL after.
      {"Bare", 64, ERROR_SUCCESS, REG_SZ, 2, std::string("ab\0", 3)},
      {"Missing", -1, ERROR_FILE_NOT_FOUND, 0xEEEE, 0, ""},
      {"Missing", 64, ERROR_FILE_NOT_FOUND, 0xEEEE, 64, ""},
  };
  auto reg = Machine();
  HKEY key = Open(*reg, kApp64);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name ? c.name : "(null)") + " capacity " +
                 std::to_string(c.capacity));
    std::string buffer(64, 'x');
    DWORD type = 0xEEEE;
    DWORD size = c.capacity < 0 ? 0xDEAD : static_cast<DWORD>(c.capacity);
    BYTE* data = c.capacity < 0 ? nullptr : reinterpret_cast<BYTE*>(buffer.data());
    EXPECT_EQ(reg->RegQueryValueExA(key, c.name, nullptr, &type, data, &size), c.rc);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(size, c.size);
    if (c.rc == ERROR_SUCCESS && data) {
      EXPECT_EQ(buffer.substr(0, c.data.size()), c.data);
    } else {
      EXPECT_EQ(buffer, std::string(64, 'x'));  // not written
    }
  }
  DWORD size = 4;
  DWORD reserved = 0;
  EXPECT_EQ(reg->RegQueryValueExA(key, "Version", nullptr, nullptr, reinterpret_cast<BYTE*>(&size),
                                  nullptr),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(reg->RegQueryValueExA(key, "Version", &reserved, nullptr, nullptr, &size),
            ERROR_INVALID_PARAMETER);
  reg->RegCloseKey(key);
}

// RegEnumValueA on "DisplayName" (11 characters, 11 data bytes): the name needs room for
// its NUL; either part too small leaves both buffers and the name length alone.
TEST(RegistryEnumValue, NameAndDataBuffers) {
  const struct {
    DWORD nameCapacity;
    int dataCapacity;  // -1: null data pointer
    LONG rc;
    DWORD nameLength;
    DWORD dataLength;
  } cases[] = {
      {20, 20, ERROR_SUCCESS, 11, 11},   {12, 11, ERROR_SUCCESS, 11, 11},
      {11, 20, ERROR_MORE_DATA, 11, 11}, {0, 20, ERROR_MORE_DATA, 0, 11},
      {12, 10, ERROR_MORE_DATA, 12, 11}, {2, 2, ERROR_MORE_DATA, 2, 11},
      {12, -1, ERROR_SUCCESS, 11, 11},
  };
  auto reg = Machine();
  HKEY key = Open(*reg, kApp64);
  for (const auto& c : cases) {
    SCOPED_TRACE("name " + std::to_string(c.nameCapacity) + " data " +
                 std::to_string(c.dataCapacity));
    std::string name(32, 'x'), data(32, 'x');
    DWORD nameLength = c.nameCapacity;
    DWORD dataLength = c.dataCapacity < 0 ? 0xDEAD : static_cast<DWORD>(c.dataCapacity);
    DWORD type = 0;
    BYTE* dataPtr = c.dataCapacity < 0 ? nullptr : reinterpret_cast<BYTE*>(data.data());
    EXPECT_EQ(
        reg->RegEnumValueA(key, 0, name.data(), &nameLength, nullptr, &type, dataPtr, &dataLength),
        c.rc);
    EXPECT_EQ(nameLength, c.nameLength);
    EXPECT_EQ(dataLength, c.dataLength);
    EXPECT_EQ(type, REG_SZ);
    if (c.rc == ERROR_SUCCESS) {
      EXPECT_STREQ(name.c_str(), "DisplayName");
      if (dataPtr) {
        EXPECT_STREQ(data.c_str(), "Sixty-four");
      }
    } else {
      EXPECT_EQ(name, std::string(32, 'x'));
      EXPECT_EQ(data, std::string(32, 'x'));
    }
  }
  // Values come in stored order; past the last one, ERROR_NO_MORE_ITEMS.
  const char* expected[] = {"DisplayName", "Version", "Blob", "List", "Path", "", "Bare"};
  DWORD index = 0;
  for (const char* want : expected) {
    char name[32];
    DWORD nameLength = sizeof name;
    ASSERT_EQ(
        reg->RegEnumValueA(key, index++, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
        ERROR_SUCCESS);
    EXPECT_STREQ(name, want);
  }
  char name[32];
  DWORD nameLength = sizeof name;
  EXPECT_EQ(reg->RegEnumValueA(key, index, name, &nameLength, nullptr, nullptr, nullptr, nullptr),
            ERROR_NO_MORE_ITEMS);
  reg->RegCloseKey(key);
}

TEST(RegistryEnumKey, OrderAndNameBuffer) {
  auto reg = Machine();
  HKEY key = Open(*reg, kUninstall);
  const struct {
    DWORD index;
    DWORD capacity;
    LONG rc;
    DWORD length;
    const char* name;
  } cases[] = {
      {0, 64, ERROR_SUCCESS, 5, "Alpha"},  // recorded as App64, Zed, Alpha
      {1, 6, ERROR_SUCCESS, 5, "App64"},
      {1, 5, ERROR_MORE_DATA, 5, nullptr},  // no room for the NUL; length left alone
      {1, 1, ERROR_MORE_DATA, 1, nullptr},
      {2, 64, ERROR_SUCCESS, 3, "Zed"},
      {3, 64, ERROR_NO_MORE_ITEMS, 64, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.index) + "/" + std::to_string(c.capacity));
    std::string name(64, 'x');
    DWORD length = c.capacity;
    EXPECT_EQ(
        reg->RegEnumKeyExA(key, c.index, name.data(), &length, nullptr, nullptr, nullptr, nullptr),
        c.rc);
    EXPECT_EQ(length, c.length);
    if (c.name) {
      EXPECT_STREQ(name.c_str(), c.name);
    } else {
      EXPECT_EQ(name, std::string(64, 'x'));
    }
  }
  reg->RegCloseKey(key);
}

// Key lines for sub-keys of HKLM\SOFTWARE\T, in the order given; "-name" removes one.
std::string SubKeysOfT(const std::vector<std::string>& names) {
  std::string text = "Windows Registry Editor Version 5.00\r\n\r\n";
  for (const std::string& name : names) {
    const bool remove = name[0] == '-';
    text += std::string(remove ? "[-" : "[") + "HKEY_LOCAL_MACHINE\\SOFTWARE\\T\\" +
            name.substr(remove ? 1 : 0) + "]\r\n";
  }
  return text;
}

// Windows lists sub-keys by their upper-cased names (so "_x" after "Z", "é" after "Ä"),
// however the export ordered them; values stay as written.
TEST(RegistryEnumKey, SubKeysInWindowsOrderValuesAsWritten) {
  const std::string values =
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n\"zeta\"=\"1\"\r\n\"Alpha\"=\"2\"\r\n\"_m\"=\"3\"\r\n"
      "@=\"4\"\r\n";
  const struct {
    const char* what;
    std::vector<std::string> exports;  // UTF-8, loaded in turn
    std::vector<std::string> subKeys;  // CP1252, as RegEnumKeyExA answers
    std::vector<std::string> values;
  } cases[] = {
      {"one export",
       {SubKeysOfT({"b", "A", "_x", "\xC3\xA9", "a1", "Z", "\xC3\x9F", "\xC3\xBF", "\xC3\x84"}) +
        values},
       {"A", "a1", "b", "Z", "_x", "\xC4", "\xE9", "\xDF", "\xFF"},
       {"zeta", "Alpha", "_m", ""}},
      {"a later export merges into a sorted key",
       {SubKeysOfT({"m", "C"}), SubKeysOfT({"a", "D", "c", "-M", "B"})},
       {"a", "B", "C", "D"},
       {}},
      {"parents made on the way", {SubKeysOfT({"z\\y", "y"})}, {"y", "z"}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RecordedRegistry reg;
    for (const std::string& text : c.exports) reg.loadRegFile("t.reg", text);
    EXPECT_EQ(Enumerate(reg, "SOFTWARE\\T", false), c.subKeys);
    EXPECT_EQ(Enumerate(reg, "SOFTWARE\\T", true), c.values);
  }
}

// Keys with many children are found through a name index; sorting must keep it right.
// Each kNN holds one sub-key of-kNN, so a lookup that lands on the wrong key shows.
TEST(RegistryEnumKey, SortedKeysAreStillFoundByName) {
  std::vector<std::string> written;
  for (int i = 39; i >= 0; --i) {
    const std::string name = (i < 10 ? "k0" : "k") + std::to_string(i);
    written.push_back(name + "\\of-" + name);
  }
  RecordedRegistry reg;
  reg.loadRegFile("first.reg", SubKeysOfT(written));
  reg.loadRegFile("second.reg", SubKeysOfT({"-k10", "j\\of-j"}));
  const std::vector<std::string> names = Enumerate(reg, "SOFTWARE\\T", false);
  ASSERT_EQ(names.size(), 40u);
  EXPECT_EQ(names.front(), "j");
  EXPECT_EQ(names[10], "k09");
  EXPECT_EQ(names[11], "k11");
  EXPECT_EQ(names.back(), "k39");
  for (const std::string& name : names) {
    std::string upper = name;
    for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    EXPECT_EQ(Enumerate(reg, "SOFTWARE\\T\\" + upper, false),
              std::vector<std::string>{"of-" + name});
  }
}

// Lengths as Windows reports them to narrow callers too: UTF-16 characters for names,
// stored bytes for data.
TEST(RegistryQueryInfo, CountsAndLongest) {
  auto reg = Machine();
  HKEY key = Open(*reg, kApp64);
  DWORD subKeys = 9, maxSub = 9, values = 0, maxName = 0, maxData = 0, classLength = 5;
  char className[8] = "x";
  EXPECT_EQ(reg->RegQueryInfoKeyA(key, className, &classLength, nullptr, &subKeys, &maxSub, nullptr,
                                  &values, &maxName, &maxData, nullptr, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(subKeys, 0u);
  EXPECT_EQ(maxSub, 0u);
  EXPECT_EQ(values, 7u);
  EXPECT_EQ(maxName, 11u);  // "DisplayName"
  EXPECT_EQ(maxData, 22u);  // "Sixty-four" and its NUL in UTF-16
  EXPECT_EQ(classLength, 0u);
  EXPECT_STREQ(className, "");
  reg->RegCloseKey(key);

  key = Open(*reg, kUninstall);
  EXPECT_EQ(reg->RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, &maxSub, nullptr,
                                  &values, nullptr, nullptr, nullptr, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(subKeys, 3u);
  EXPECT_EQ(maxSub, 5u);
  EXPECT_EQ(values, 0u);
  reg->RegCloseKey(key);
}

// A Cyrillic machine (CP1251) and a Japanese one (CP932): narrow calls hand out the
// machine's ANSI bytes and their sizes; names are looked up in that code page too.
TEST(RegistryCodePages, NarrowStringsInTheMachinesCodePage) {
  const char kText[] =
      "Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\n"
      "\"\xD0\x98\xD0\xBC\xD1\x8F\"=\"\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\"\n"  // Имя=Привет
      "\"JP\"=\"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\"\n"  // 日本語
      "\"Multi\"=hex(7):1f,04,00,00,4f,04,00,00,00,00\n";  // П, я
  const struct {
    unsigned codePage;
    const char* name;
    std::string data;
    DWORD type;
  } cases[] = {
      {1251, "\xC8\xEC\xFF", std::string("\xCF\xF0\xE8\xE2\xE5\xF2\0", 7), REG_SZ},
      {1251, "\xE8\xEC\xFF", std::string("\xCF\xF0\xE8\xE2\xE5\xF2\0", 7), REG_SZ},  // имя
      {1251, "Multi", std::string("\xCF\0\xFF\0\0", 5), REG_MULTI_SZ},
      {1252, "Multi", std::string("?\0?\0\0", 5), REG_MULTI_SZ},
      {1252, "JP", std::string("???\0", 4), REG_SZ},
      {932, "JP", std::string("\x93\xFA\x96\x7B\x8C\xEA\0", 7), REG_SZ},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.codePage) + " " + c.name);
    auto reg = Machine(c.codePage, false, kText);
    HKEY key = Open(*reg, "SOFTWARE\\T");
    DWORD type = 0, size = 0;
    ASSERT_EQ(reg->RegQueryValueExA(key, c.name, nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, c.data.size());
    std::string buffer(size, 'x');
    ASSERT_EQ(reg->RegQueryValueExA(key, c.name, nullptr, &type,
                                    reinterpret_cast<BYTE*>(buffer.data()), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(buffer, c.data);
    EXPECT_EQ(type, c.type);
    reg->RegCloseKey(key);
  }

  auto reg = Machine(1251, false, kText);
  HKEY key = Open(*reg, "SOFTWARE\\T");
  char name[16];
  DWORD nameLength = sizeof name, dataLength = 0, maxName = 0, maxData = 0;
  EXPECT_EQ(reg->RegEnumValueA(key, 0, name, &nameLength, nullptr, nullptr, nullptr, &dataLength),
            ERROR_SUCCESS);
  EXPECT_STREQ(name, "\xC8\xEC\xFF");
  EXPECT_EQ(dataLength, 7u);
  EXPECT_EQ(reg->RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr, &maxName, &maxData, nullptr, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(maxName, 5u);   // "Multi"
  EXPECT_EQ(maxData, 14u);  // Привет in UTF-16, not the 7 narrow bytes
  reg->RegCloseKey(key);

  EXPECT_THROW(reg->setCodePage(4242), std::invalid_argument);
}
