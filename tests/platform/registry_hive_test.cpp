// Real hive files: every one opens, a damaged one is refused, control sets resolve; hives
// damaged to hold what no Windows key can are refused by name.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_registry.h"

using namespace platform;
using platform::recorded::HiveFilesSupported;
using platform::recorded::Mount;
using platform::recorded::RecordedRegistry;

namespace {

std::string HiveDir() {
  return std::string(IA_REALDATA_DIR) + "/hives";
}

Mount MountFor(const std::string& file) {
  if (file.find("NTUSER") != std::string::npos) return Mount::NtUser;
  if (file.find("BCD") != std::string::npos) return Mount::Bcd;
  if (file.find("SYSTEM") != std::string::npos) return Mount::System;
  return Mount::Software;
}

size_t CountKeys(const recorded::RegKey& key) {
  size_t n = 1;
  for (size_t i = 0; i < key.subKeyCount(); ++i) n += CountKeys(key.subKey(i));
  return n;
}

DWORD CountValues(Registry& reg, HKEY root, const char* path) {
  HKEY key = nullptr;
  if (reg.RegOpenKeyExA(root, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return 0xFFFFFFFF;
  DWORD values = 0, subKeys = 0;
  reg.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr,
                       nullptr, nullptr, nullptr);
  reg.RegCloseKey(key);
  return values;
}

}  // namespace

class RegistryHive : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HiveFilesSupported()) GTEST_SKIP() << "built without libhivex";
    if (!std::filesystem::is_directory(HiveDir())) GTEST_SKIP() << "no real data";
  }
};

TEST_F(RegistryHive, EveryHiveOpensButTheCorruptOne) {
  size_t opened = 0;
  for (const auto& entry : std::filesystem::directory_iterator(HiveDir())) {
    const std::string file = entry.path().filename().string();
    SCOPED_TRACE(file);
    RecordedRegistry reg;
    if (file == "corrupt-SYSTEM") {
      try {
        reg.loadHive(entry.path().string(), Mount::System);
        ADD_FAILURE() << "a damaged hive was accepted";
      } catch (const RecordError& e) {
        EXPECT_NE(std::string(e.what()).find(entry.path().string()), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("not a readable registry hive"), std::string::npos);
      }
      continue;
    }
    EXPECT_NO_THROW(reg.loadHive(entry.path().string(), MountFor(file)));
    ++opened;
  }
  EXPECT_EQ(opened, 7u);
}

TEST_F(RegistryHive, KeysWhereTheMachineHasThem) {
  const struct {
    const char* file;
    Mount mount;
    HKEY root;
    const char* path;
    DWORD values;  // expected value count
  } cases[] = {
      {"win7-SYSTEM", Mount::System, HKEY_LOCAL_MACHINE,
       "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", 17},
      {"win7-SYSTEM", Mount::System, HKEY_LOCAL_MACHINE,
       "system\\controlset001\\control\\session manager\\environment", 17},
      {"win10-NTUSER-apps.DAT", Mount::NtUser, HKEY_CURRENT_USER, "Environment", 6},
      {"win10-BCD", Mount::Bcd, HKEY_LOCAL_MACHINE,
       "BCD00000000\\Objects\\{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements\\24000001", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.path);
    RecordedRegistry reg;
    reg.loadHive(HiveDir() + "/" + c.file, c.mount);
    EXPECT_EQ(CountValues(reg, c.root, c.path), c.values);
  }
}

TEST_F(RegistryHive, UserUninstallEntriesEnumerate) {
  RecordedRegistry reg;
  reg.loadHive(HiveDir() + "/win10-NTUSER-apps.DAT", Mount::NtUser);
  HKEY key = nullptr;
  ASSERT_EQ(reg.RegOpenKeyExA(HKEY_CURRENT_USER,
                              "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall", 0,
                              KEY_READ, &key),
            ERROR_SUCCESS);
  DWORD count = 0;
  char name[256];
  for (;; ++count) {
    DWORD length = sizeof name;
    if (reg.RegEnumKeyExA(key, count, name, &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
  }
  EXPECT_EQ(count, 6u);
  reg.RegCloseKey(key);
}

// A hive already lists sub-keys in Windows' order ("LyncAddin" before "Lync_Secondary":
// upper-cased, '_' sorts after letters); keys merged from an export join that order.
TEST_F(RegistryHive, SubKeysKeepTheHivesOrder) {
  const char* const path = "Software\\Microsoft\\Tracing\\UcClient";
  const struct {
    const char* merge;  // an export loaded after the hive, or null
    std::vector<std::string> expected;
  } cases[] = {
      {nullptr, {"Lync", "LyncAddin", "Lync_Secondary"}},
      {"Windows Registry Editor Version 5.00\r\n\r\n"
       "[HKEY_CURRENT_USER\\Software\\Microsoft\\Tracing\\UcClient\\Lync_Primary]\r\n"
       "[HKEY_CURRENT_USER\\Software\\Microsoft\\Tracing\\UcClient\\lyncz]\r\n",
       {"Lync", "LyncAddin", "lyncz", "Lync_Primary", "Lync_Secondary"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.merge ? "merged" : "hive alone");
    RecordedRegistry reg;
    reg.loadHive(HiveDir() + "/win10-NTUSER-apps.DAT", Mount::NtUser);
    if (c.merge) reg.loadRegFile("merge.reg", c.merge);
    HKEY key = nullptr;
    ASSERT_EQ(reg.RegOpenKeyExA(HKEY_CURRENT_USER, path, 0, KEY_READ, &key), ERROR_SUCCESS);
    std::vector<std::string> names;
    char name[256];
    for (DWORD length = sizeof name;
         reg.RegEnumKeyExA(key, static_cast<DWORD>(names.size()), name, &length, nullptr, nullptr,
                           nullptr, nullptr) == ERROR_SUCCESS;
         length = sizeof name) {
      names.emplace_back(name, length);
    }
    EXPECT_EQ(names, c.expected);
    reg.RegCloseKey(key);
  }
}

TEST_F(RegistryHive, LargestHiveLoadsWhole) {
  RecordedRegistry reg;
  const auto start = std::chrono::steady_clock::now();
  reg.loadHive(HiveDir() + "/win10-1709-SYSTEM", Mount::System);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  RecordProperty("load_ms", static_cast<int>(elapsed.count()));
  const recorded::RegKey* system = reg.tree().find(u"HKEY_LOCAL_MACHINE\\SYSTEM");
  ASSERT_NE(system, nullptr);
  EXPECT_EQ(CountKeys(*system), 43211u);
}

namespace {

// tests/fixtures/hostile/parent-keys.hive is parent-keys.reg merged into the empty hive of
// the real data (hivexregedit --merge): HKLM\SOFTWARE\Parent with the 8-byte value Big
// and the sub-keys Later, Nx and a 255-character name. Each case damages one field of it,
// as the hostile records did.
constexpr size_t kFirstBin = 0x1000;  // cell offsets count from here
constexpr size_t kKeyName = 0x4C;     // from a key record's "nk"
constexpr size_t kKeyNameLength = 0x48;
constexpr size_t kKeySubKeyList = 0x1C;
constexpr size_t kValueName = 0x14;  // from a value record's "vk"
constexpr size_t kValueDataLength = 0x04;

std::uint32_t Get32(const std::string& bytes, size_t at) {
  std::uint32_t v = 0;
  for (size_t i = 4; i-- > 0;) v = (v << 8) | static_cast<unsigned char>(bytes.at(at + i));
  return v;
}

void Put(std::string& bytes, size_t at, std::uint32_t v, size_t width) {
  for (size_t i = 0; i < width; ++i) bytes.at(at + i) = static_cast<char>(v >> (8 * i));
}

size_t NameAt(const std::string& hive, const std::string& name) {
  const size_t at = hive.find(name);
  if (at == std::string::npos) throw std::runtime_error("fixture lacks " + name);
  return at;
}

}  // namespace

TEST(HostileHive, DamagedKeysAreRefusedNamingFileAndKey) {
  if (!HiveFilesSupported()) GTEST_SKIP() << "built without libhivex";
  std::ifstream in(IA_SOURCE_DIR "/tests/fixtures/hostile/parent-keys.hive", std::ios::binary);
  const std::string base((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(base.size(), 12288u);
  const std::string longName(255, 'L');
  const size_t nx = NameAt(base, "Nx");
  const size_t parentKey = NameAt(base, "Parent") - kKeyName;
  const size_t subKeys = kFirstBin + Get32(base, parentKey + kKeySubKeyList) + 4;  // "lh"
  const struct {
    const char* what;
    std::function<void(std::string&)> damage;
    const char* refusal;  // null: loads
  } cases[] = {
      {"as made: a 255-character name is the longest Windows allows", [](std::string&) {}, nullptr},
      {"name length 0", [&](std::string& h) { Put(h, nx - kKeyName + kKeyNameLength, 0, 2); },
       "(key HKEY_LOCAL_MACHINE\\SOFTWARE\\Parent: sub-key with an empty name: '')"},
      {"name starting with NUL (a C string reads it as empty)",
       [&](std::string& h) { h[nx] = '\0'; }, "sub-key with an empty name"},
      {"'\\' in a name", [&](std::string& h) { h[nx + 1] = '\\'; },
       "sub-key with a '\\' in its name: 'N\\'"},
      // The cell's last byte (padding) becomes the 256th character.
      {"256-character name",
       [&](std::string& h) {
         const size_t name = NameAt(h, longName);
         Put(h, name - kKeyName + kKeyNameLength, 256, 2);
         h[name + 255] = 'L';
       },
       "sub-key with a name longer than 255 characters: 'LLLL"},
      {"sub-key list naming its first key twice",
       [&](std::string& h) { Put(h, subKeys + 12, Get32(h, subKeys + 4), 4); },
       "(key HKEY_LOCAL_MACHINE\\SOFTWARE\\Parent\\Later: reached a second time"},
      {"value of 17 MiB",
       [&](std::string& h) {
         Put(h, NameAt(h, "Big") - kValueName + kValueDataLength, 17 << 20, 4);
       },
       "(key HKEY_LOCAL_MACHINE\\SOFTWARE\\Parent: value 'Big' larger than 16 MiB (17825792 "
       "bytes))"},
  };
  const std::string path = ::testing::TempDir() + "hostile-" + std::to_string(::getpid()) + ".hive";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string hive = base;
    c.damage(hive);
    std::ofstream(path, std::ios::binary) << hive;
    RecordedRegistry reg;
    try {
      reg.loadHive(path, Mount::Software);
      EXPECT_EQ(c.refusal, nullptr) << "loaded";
      const recorded::RegKey* parent = reg.tree().find(u"HKLM\\SOFTWARE\\Parent");
      ASSERT_NE(parent, nullptr);
      EXPECT_EQ(parent->subKeyCount(), 3u);
    } catch (const RecordError& e) {
      ASSERT_NE(c.refusal, nullptr) << e.what();
      const std::string message = e.what();
      EXPECT_EQ(message.rfind(path + ": not a registry hive Windows can hold (key ", 0), 0u)
          << message;
      EXPECT_NE(message.find(c.refusal), std::string::npos) << message;
    }
  }
  std::filesystem::remove(path);
}
