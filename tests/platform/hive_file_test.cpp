// The hive reader: the same keys, values and bytes as libhivex on every real hive; files
// that are no hive refused by name; damaged keys left out and reported, their siblings kept.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#ifdef IA_HAVE_HIVEX
#include "support/hivex_differ.h"
using ia_test::HivexDiffer;
#endif

#include "platform/recorded/codepage.h"
#include "platform/recorded/hive_file.h"
#include "platform/recorded/little_endian.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_registry.h"

using namespace platform;
using platform::recorded::HiveFile;
using platform::recorded::Mount;
using platform::recorded::RecordedRegistry;
using platform::recorded::RegKey;
using platform::recorded::RegValue;
using platform::recorded::WideToUtf8;

namespace {

std::string HiveDir() {
  return std::string(IA_REALDATA_DIR) + "/hives";
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Mount MountFor(const std::string& file) {
  if (file.find("NTUSER") != std::string::npos) return Mount::NtUser;
  if (file.find("BCD") != std::string::npos) return Mount::Bcd;
  if (file.find("SYSTEM") != std::string::npos) return Mount::System;
  return Mount::Software;
}

const RegKey& MountKey(const RecordedRegistry& reg, Mount where) {
  const RegKey* key = reg.tree().find(recorded::MountPath(where));
  if (!key) throw std::runtime_error("no mount key");
  return *key;
}

}  // namespace

TEST(HiveFile, ReadsEveryRealHiveAsLibhivexDoes) {
#ifndef IA_HAVE_HIVEX
  GTEST_SKIP() << "built without libhivex";
#else
  if (!std::filesystem::is_directory(HiveDir())) GTEST_SKIP() << "no real data";
  size_t hives = 0;
  for (const auto& entry : std::filesystem::directory_iterator(HiveDir())) {
    const std::string file = entry.path().filename().string();
    if (file == "corrupt-SYSTEM") continue;  // libhivex refuses it; see below
    SCOPED_TRACE(file);
    RecordedRegistry reg;
    reg.loadHive(entry.path().string(), MountFor(file));
    hive_h* hive = hivex_open(entry.path().c_str(), 0);
    ASSERT_NE(hive, nullptr);
    HivexDiffer differ(hive);
    EXPECT_EQ(differ.compare(hivex_root(hive), MountKey(reg, MountFor(file)), file), "");
    hivex_close(hive);
    EXPECT_EQ(reg.tree().damage(), std::vector<std::string>());
    RecordProperty(file + "_keys", static_cast<int>(differ.keys));
    EXPECT_GT(differ.keys, 0u);
    ++hives;
  }
  EXPECT_EQ(hives, 7u);
#endif
}

// The real damaged hive: its bins end after 100 KiB while its header claims 3.4 MB.
// libhivex refuses the whole file; Windows, and this reader, read what is sound and leave
// out what points past the damage.
TEST(HiveFile, DamagedRealHiveReadsUpToItsDamage) {
  const std::string path = HiveDir() + "/corrupt-SYSTEM";
  if (!std::filesystem::exists(path)) GTEST_SKIP() << "no real data";
  RecordedRegistry reg;
  reg.loadHive(path, Mount::System);
  std::function<size_t(const RegKey&)> count = [&](const RegKey& key) {
    size_t n = 1;
    for (size_t i = 0; i < key.subKeyCount(); ++i) n += count(key.subKey(i));
    return n;
  };
  EXPECT_GT(count(MountKey(reg, Mount::System)), 1000u);
  const std::vector<std::string> damage = reg.tree().damage();
  ASSERT_FALSE(damage.empty());
  for (const std::string& line : damage) {
    if (line.rfind("... and ", 0) == 0) continue;
    EXPECT_EQ(line.rfind(path + ": damaged hive, key HKEY_LOCAL_MACHINE\\", 0), 0u) << line;
  }
}

// A hive file that shrinks while it is open (another process truncates it): what lay past
// the new end reads as damage, not as a fault of the process. Pages already read stay.
TEST(HiveFile, FileCutWhileOpenReadsTheRestAsDamage) {
  const std::string source = HiveDir() + "/win7-NTUSER.DAT";
  if (!std::filesystem::exists(source)) GTEST_SKIP() << "no real data";
  const std::string path = ::testing::TempDir() + "/cut-NTUSER.DAT";
  std::filesystem::copy_file(source, path, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(path, std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  std::function<size_t(const RegKey&)> count = [&](const RegKey& key) {
    size_t n = 1 + key.valueCount();
    for (size_t i = 0; i < key.subKeyCount(); ++i) n += count(key.subKey(i));
    return n;
  };
  RecordedRegistry whole, cut;
  whole.loadHive(path, Mount::NtUser);
  cut.loadHive(path, Mount::NtUser);
  const size_t all = count(MountKey(whole, Mount::NtUser));
  std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
  const size_t kept = count(MountKey(cut, Mount::NtUser));
  EXPECT_GT(kept, 1u);
  EXPECT_LT(kept, all);
  EXPECT_FALSE(cut.tree().damage().empty());
  std::filesystem::remove(path);
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

// The header's checksum after a change to it, as Windows computes it.
void Resum(std::string& hive) {
  std::uint32_t sum = 0;
  for (size_t i = 0; i < 0x1FC; i += 4) sum ^= Get32(hive, i);
  Put(hive, 0x1FC, sum == 0 ? 1 : sum == 0xFFFFFFFFu ? 0xFFFFFFFEu : sum, 4);
}

std::string ParentKeys() {
  const std::string hive = ReadFile(IA_SOURCE_DIR "/tests/fixtures/hostile/parent-keys.hive");
  if (hive.size() != 12288u) throw std::runtime_error("fixture changed");
  return hive;
}

std::vector<std::string> Names(const RegKey& key) {
  std::vector<std::string> names;
  for (size_t i = 0; i < key.subKeyCount(); ++i) {
    names.push_back(WideToUtf8(key.subKey(i).name()).substr(0, 4));
  }
  return names;
}

}  // namespace

TEST(HiveFile, DamagedKeysAreLeftOutAndReportedByFileAndKey) {
  const std::string base = ParentKeys();
  const std::string longName(255, 'L');
  const size_t nx = NameAt(base, "Nx");
  const size_t parentKey = NameAt(base, "Parent") - kKeyName;
  const size_t subKeys = kFirstBin + Get32(base, parentKey + kKeySubKeyList) + 4;  // "lh"
  const std::vector<std::string> all = {"Late", "LLLL", "Nx"};
  const struct {
    const char* what;
    std::function<void(std::string&)> damage;
    std::vector<std::string> keys;  // Parent's sub-keys as read
    size_t values;                  // Parent's values as read
    const char* report;             // null: no damage reported
  } cases[] = {
      {"as made: a 255-character name is the longest Windows allows", [](std::string&) {}, all, 1,
       nullptr},
      {"name length 0",
       [&](std::string& h) { Put(h, nx - kKeyName + kKeyNameLength, 0, 2); },
       {"Late", "LLLL"},
       1,
       "key HKEY_LOCAL_MACHINE\\SOFTWARE\\Parent: sub-key with an empty name: '' (left out)"},
      // A C string reads it as empty: reg query /s would reopen the parent for it.
      {"name starting with NUL",
       [&](std::string& h) { h[nx] = '\0'; },
       {"Late", "LLLL"},
       1,
       "sub-key with a NUL character in its name: '\\x00x'"},
      {"'\\' in a name",
       [&](std::string& h) { h[nx + 1] = '\\'; },
       {"Late", "LLLL"},
       1,
       "sub-key with a '\\' in its name: 'N\\'"},
      // The cell's last byte (padding) becomes the 256th character.
      {"256-character name",
       [&](std::string& h) {
         const size_t name = NameAt(h, longName);
         Put(h, name - kKeyName + kKeyNameLength, 256, 2);
         h[name + 255] = 'L';
       },
       {"Late", "Nx"},
       1,
       "sub-key with a name longer than 255 characters: 'LLLL"},
      {"name running past its cell",
       [&](std::string& h) { Put(h, nx - kKeyName + kKeyNameLength, 0xFFFF, 2); },
       {"Late", "LLLL"},
       1,
       "name runs past its cell"},
      {"sub-key list naming its first key twice",
       [&](std::string& h) { Put(h, subKeys + 12, Get32(h, subKeys + 4), 4); },
       {"Late", "Nx"},
       1,
       "a sub-key reached a second time through the sub-key lists"},
      {"sub-key list naming the key itself",
       [&](std::string& h) {
         Put(h, subKeys + 4, static_cast<std::uint32_t>(parentKey - 4 - kFirstBin), 4);
       },
       {"LLLL", "Nx"},
       1,
       "a sub-key reached a second time"},
      {"sub-key list pointing past the file",
       [&](std::string& h) { Put(h, subKeys + 4, 0x7FFFFFF0, 4); },
       {"LLLL", "Nx"},
       1,
       "cell 0x7ffffff0 outside the bins"},
      {"sub-key count larger than the lists",
       [&](std::string& h) { Put(h, parentKey + 0x14, 5, 4); }, all, 1,
       "declares 5 sub-keys, its lists hold 3"},
      {"value of 17 MiB",
       [&](std::string& h) {
         Put(h, NameAt(h, "Big") - kValueName + kValueDataLength, 17 << 20, 4);
       },
       all, 0, "value 'Big' larger than 16 MiB (17825792 bytes) (left out)"},
      {"value count far beyond its list",
       [&](std::string& h) { Put(h, parentKey + 0x24, 0x40000000, 4); }, all, 0,
       "value list: cell"},
  };
  const std::string path = ::testing::TempDir() + "hostile-" + std::to_string(::getpid()) + ".hive";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string hive = base;
    c.damage(hive);
    std::ofstream(path, std::ios::binary) << hive;
    RecordedRegistry reg;
    reg.loadHive(path, Mount::Software);
    const RegKey* parent = reg.tree().find(u"HKLM\\SOFTWARE\\Parent");
    ASSERT_NE(parent, nullptr);
    EXPECT_EQ(Names(*parent), c.keys);
    EXPECT_EQ(parent->valueCount(), c.values);
    const std::vector<std::string> damage = reg.tree().damage();
    if (!c.report) {
      EXPECT_EQ(damage, std::vector<std::string>());
      continue;
    }
    ASSERT_EQ(damage.size(), 1u);
    EXPECT_EQ(
        damage[0].rfind(path + ": damaged hive, key HKEY_LOCAL_MACHINE\\SOFTWARE\\Parent: ", 0), 0u)
        << damage[0];
    EXPECT_NE(damage[0].find(c.report), std::string::npos) << damage[0];
  }
  std::filesystem::remove(path);
}

// tests/fixtures/hostile/duplicate-values.hive (scripts/synthetic_registry.py's writer):
// HKLM\SOFTWARE\Dup with the DWORDs V00 to V11 (each holding its number), Few with AAA,
// BBB and CCC (1, 2, 3). Renaming a value to another's name in other case makes one list name
// a value twice: it is read as one value, where the first stood and spelt as the first
// was, with the data of the last; in a long list (indexed as it loads) and a short one.
TEST(HiveFile, ValueNamedTwiceReadsAsOneWithTheLastData) {
  std::string hive = ReadFile(IA_SOURCE_DIR "/tests/fixtures/hostile/duplicate-values.hive");
  hive.replace(NameAt(hive, "V11"), 3, "v03");
  hive.replace(NameAt(hive, "V07"), 3, "v03");
  hive.replace(NameAt(hive, "CCC"), 3, "aaa");
  const std::string path =
      ::testing::TempDir() + "duplicates-" + std::to_string(::getpid()) + ".hive";
  std::ofstream(path, std::ios::binary) << hive;
  RecordedRegistry reg;
  reg.loadHive(path, Mount::Software);
  const struct {
    const char16_t* key;
    std::vector<std::string> names;  // as listed
    const char16_t* twice;           // looked up in other case
    std::uint32_t data;              // its data
  } cases[] = {
      {u"HKLM\\SOFTWARE\\Dup",
       {"V00", "V01", "V02", "V03", "V04", "V05", "V06", "V08", "V09", "V10"},
       u"v03",
       11},
      {u"HKLM\\SOFTWARE\\Few", {"AAA", "BBB"}, u"Aaa", 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.key));
    const RegKey* key = reg.tree().find(c.key);
    ASSERT_NE(key, nullptr);
    std::vector<std::string> names;
    for (size_t i = 0; i < key->valueCount(); ++i)
      names.push_back(WideToUtf8(key->value(i).name()));
    EXPECT_EQ(names, c.names);
    const RegValue* value = key->findValue(c.twice);
    ASSERT_NE(value, nullptr);
    ASSERT_EQ(value->data().size(), 4u);
    EXPECT_EQ(recorded::Le32(value->data().data()), c.data);
    for (size_t i = 0; i < key->valueCount(); ++i) {
      EXPECT_EQ(key->findValue(key->value(i).name()), &key->value(i));
    }
  }
  EXPECT_EQ(reg.tree().damage(), std::vector<std::string>());
  std::filesystem::remove(path);
}

// What is no hive at all is refused when the machine loads, naming the file and the fault.
TEST(HiveFile, FilesThatAreNoHiveAreRefused) {
  const std::string base = ParentKeys();
  const struct {
    const char* what;
    std::function<void(std::string&)> damage;
    const char* refusal;  // null: opens
  } cases[] = {
      {"as made", [](std::string&) {}, nullptr},
      {"too short for a header", [](std::string& h) { h.resize(100); }, "no \"regf\" header"},
      {"another format", [](std::string& h) { h[0] = 'R'; }, "no \"regf\" header"},
      {"version 2",
       [](std::string& h) {
         Put(h, 0x14, 2, 4);
         Resum(h);
       },
       "format version 2"},
      {"header changed, checksum not", [](std::string& h) { Put(h, 0x24, 0x40, 4); },
       "header checksum does not match"},
      {"bins larger than the file",
       [](std::string& h) {
         Put(h, 0x28, 0x10000, 4);
         Resum(h);
       },
       "the header says 65536 bytes of bins, the file holds 8192"},
      {"bins of no whole pages",
       [](std::string& h) {
         Put(h, 0x28, 0x1800, 4);
         Resum(h);
       },
       "bins size 0x1800 is no multiple of 4 KiB"},
      {"root in no cell",
       [](std::string& h) {
         Put(h, 0x24, 0x5000, 4);
         Resum(h);
       },
       "root key: cell 0x5000 outside the bins"},
      {"root cell a value",
       [&](std::string& h) {
         Put(h, 0x24, static_cast<std::uint32_t>(NameAt(h, "Big") - kValueName - 4 - kFirstBin), 4);
         Resum(h);
       },
       "root key: cell 0x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string hive = base;
    c.damage(hive);
    try {
      HiveFile::FromBytes(hive, "hives/SOFTWARE");
      EXPECT_EQ(c.refusal, nullptr) << "opened";
    } catch (const RecordError& e) {
      ASSERT_NE(c.refusal, nullptr) << e.what();
      const std::string message = e.what();
      EXPECT_EQ(message.rfind("hives/SOFTWARE: not a readable registry hive (", 0), 0u) << message;
      EXPECT_NE(message.find(c.refusal), std::string::npos) << message;
    }
  }
}
