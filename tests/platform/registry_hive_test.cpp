// Real hive files through the registry calls: keys where the machine has them, control
// sets, Windows' sub-key order, merging with exports.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_registry.h"
#include "platform/recorded/registry_model.h"

using namespace platform;
using platform::recorded::HiveFilesSupported;
using platform::recorded::Mount;
using platform::recorded::RecordedRegistry;

namespace {

std::string HiveDir() {
  return std::string(IA_REALDATA_DIR) + "/hives";
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

TEST_F(RegistryHive, LargestHiveReadsWhole) {
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

// Listing a hive key of 256 sub-keys or more from the start reads every sub-key's values
// and sub-key list with it, as they are read next as a rule; a shorter key, or a long one
// only passed through on the way to another, stays unread until asked.
TEST_F(RegistryHive, ListingALongKeyReadsItsSubKeysAhead) {
  RecordedRegistry reg;
  reg.loadHive(HiveDir() + "/win10-1709-SYSTEM", Mount::System);
  const auto subKeysRead = [&](const char* path) {
    const recorded::RegKey* key = reg.tree().find(u"HKEY_LOCAL_MACHINE\\SYSTEM\\" +
                                                  std::u16string(path, path + std::strlen(path)));
    size_t read = 0;
    for (size_t i = 0; key && i < key->subKeyCount(); ++i) {
      read += key->subKey(i).isLoaded(recorded::KeySource::kValues) &&
              key->subKey(i).isLoaded(recorded::KeySource::kSubKeys);
    }
    return std::make_pair(read, key ? key->subKeyCount() : 0);
  };
  const auto list = [&](const char* path) {
    HKEY key = nullptr;
    ASSERT_EQ(reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), ERROR_SUCCESS);
    char name[256];
    DWORD length = sizeof name;
    EXPECT_EQ(reg.RegEnumKeyExA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    reg.RegCloseKey(key);
  };
  HKEY tcpip = nullptr;
  ASSERT_EQ(reg.RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\ControlSet001\\Services\\Tcpip", 0,
                              KEY_READ, &tcpip),
            ERROR_SUCCESS);
  reg.RegCloseKey(tcpip);
  EXPECT_EQ(subKeysRead("ControlSet001\\Services").first, 0u);  // passed through
  list("SYSTEM\\ControlSet001\\Control");
  const auto control = subKeysRead("ControlSet001\\Control");
  EXPECT_LT(control.second, 256u);
  EXPECT_EQ(control.first, 0u);
  list("SYSTEM\\ControlSet001\\Services");
  const auto services = subKeysRead("ControlSet001\\Services");
  EXPECT_GE(services.second, 256u);
  EXPECT_EQ(services.first, services.second);
  EXPECT_EQ(reg.tree().damage(), std::vector<std::string>());
}
