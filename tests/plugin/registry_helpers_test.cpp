// The registry helpers every collector reads through: views, listing, reading, and the text
// each registry type becomes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "plugin/fake_machine.h"
#include "registry/RegistryKeyEnum.h"
#include "registry/registrysubkeynames.h"

namespace {

using namespace installedapps_col;
using platform::BOOL;
using platform::BYTE;
using platform::DWORD;
using platform::FALSE;
using platform::HKEY;
using platform::LONG;
using platform::REGSAM;
using platform::TRUE;

// Passes every call on, noting the access masks of opens and the name buffers of value
// enumeration.
class SpyRegistry : public platform::Registry {
 public:
  explicit SpyRegistry(platform::Registry& inner) : inner_(inner) {}
  std::vector<REGSAM> masks;
  std::vector<DWORD> valueNameBuffers;
  DWORD failEnumKeyAt = ~DWORD{0};  // the sub-key index whose RegEnumKeyExA fails

  LONG RegOpenKeyExA(HKEY root, const char* subKey, DWORD options, REGSAM sam,
                     HKEY* result) override {
    masks.push_back(sam);
    return inner_.RegOpenKeyExA(root, subKey, options, sam, result);
  }
  LONG RegCloseKey(HKEY key) override { return inner_.RegCloseKey(key); }
  LONG RegQueryInfoKeyA(HKEY key, char* c, DWORD* cl, DWORD* r, DWORD* sk, DWORD* msk, DWORD* mcl,
                        DWORD* v, DWORD* mvn, DWORD* mvl, DWORD* sd,
                        platform::FILETIME* t) override {
    return inner_.RegQueryInfoKeyA(key, c, cl, r, sk, msk, mcl, v, mvn, mvl, sd, t);
  }
  LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* length, DWORD* reserved, char* c,
                     DWORD* cl, platform::FILETIME* t) override {
    if (index == failEnumKeyAt) return platform::ERROR_MORE_DATA;
    return inner_.RegEnumKeyExA(key, index, name, length, reserved, c, cl, t);
  }
  LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* length, DWORD* reserved, DWORD* type,
                     BYTE* data, DWORD* dataLength) override {
    valueNameBuffers.push_back(*length);
    return inner_.RegEnumValueA(key, index, name, length, reserved, type, data, dataLength);
  }
  LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                        DWORD* length) override {
    return inner_.RegQueryValueExA(key, name, reserved, type, data, length);
  }

 private:
  platform::Registry& inner_;
};

class SpyMachine : public testing_machine::FakeMachine {
 public:
  std::unique_ptr<SpyRegistry> spy;
  platform::Registry& registry() override { return *spy; }
};

const char kRegistry[] = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\App]
"DisplayName"="App"
@="default"
"Empty"=""
"Blob"=hex:01,02
"Count"=dword:ffffffff
"List"=hex(7):78,00,00,00,79,00,00,00,00,00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Legacy]
"VersionMajor"=dword:00000003
"VersionMinor"=dword:0000000b
"DisplayVersion"=""

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\MajorOnly]
"VersionMajor"=dword:00000007

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\NoVersion]
"VersionMinor"=dword:00000001
"Binary"=hex:41,00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB1]
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\HotFix\KB2]
)";

class RegistryHelpersTest : public ::testing::Test {
 protected:
  void SetUp() override { load({{"registry/software.reg", kRegistry}}); }
  void TearDown() override { platform::Machine::Install(nullptr); }

  void load(const std::map<std::string, std::string>& files) {
    machine = std::make_shared<SpyMachine>();
    machine->backing = platform::recorded::RecordedMachine::FromFiles(files);
    machine->spy.reset(new SpyRegistry(machine->backing->registry()));
    machine->fake.has = [this](const std::string& what) {
      return what == "kernel32" || (what == "kernel32!IsWow64Process" && wow64Present);
    };
    platform::Machine::Install(machine);
  }

  std::shared_ptr<SpyMachine> machine;
  bool wow64Present = true;
};

const std::string kUninstall = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

std::string Text(const std::vector<BYTE>& bytes, DWORD type) {
  return RegistryDataToString(bytes.data(), type, static_cast<DWORD>(bytes.size()));
}

std::vector<BYTE> Bytes(const std::string& text) {
  return std::vector<BYTE>(text.begin(), text.end());
}

TEST_F(RegistryHelpersTest, DataOfEachTypeBecomesText) {
  struct Case {
    const char* what;
    std::string bytes;
    DWORD type;
    std::string text;
  } cases[] = {
      {"string to its NUL", std::string("abc\0def", 8), platform::REG_SZ, "abc"},
      {"string without NUL stays in its data", "abc", platform::REG_SZ, "abc"},
      {"largest DWORD", "\xff\xff\xff\xff", platform::REG_DWORD, "4294967295"},
      {"DWORD little-endian", std::string("\x2a\x01\0\0", 4), platform::REG_DWORD, "298"},
      {"DWORD of 8 bytes reads its first 4", std::string("\x01\0\0\0\x01\0\0\0", 8),
       platform::REG_DWORD, "1"},
      {"DWORD of 2 bytes reads what is there", "\x01\x01", platform::REG_DWORD, "257"},
      {"DWORD without data", "", platform::REG_DWORD, ""},
      {"list of three", std::string("a\0b\0c\0\0", 7), platform::REG_MULTI_SZ, "a b c"},
      {"list of one", std::string("x\0\0", 3), platform::REG_MULTI_SZ, "x"},
      {"list with words", std::string("ab\0cd\0\0", 7), platform::REG_MULTI_SZ, "ab cd"},
      // The search for the next NUL starts two bytes on: an empty string ends the text.
      {"list with an empty string", std::string("a\0\0c\0\0", 6), platform::REG_MULTI_SZ, "a "},
      // The last two bytes are never turned into blanks.
      {"list without final NULs", std::string("a\0b", 3), platform::REG_MULTI_SZ, "a"},
      {"list without any NUL", "ab", platform::REG_MULTI_SZ, "ab"},
      {"list of odd length", std::string("a\0b\0c", 5), platform::REG_MULTI_SZ, "a b"},
      {"binary", "AB", platform::REG_BINARY, ""},
      {"QWORD", std::string(8, '\x01'), 11, ""},
      {"none", "x", platform::REG_NONE, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(Text(Bytes(c.bytes), c.type), c.text) << c.what;
}

// Windows' expansion: the size needed with NUL, and a short buffer gets nothing.
DWORD Expand(const std::string& expanded, char* destination, DWORD size) {
  if (expanded.size() + 1 > size) return static_cast<DWORD>(expanded.size() + 1);
  std::memcpy(destination, expanded.c_str(), expanded.size() + 1);
  return static_cast<DWORD>(expanded.size() + 1);
}

TEST_F(RegistryHelpersTest, ExpandableStringsRetryOnceWithTheSizeAsked) {
  const std::string longText(400, 'x');
  struct Case {
    std::string expanded;
    bool fails;
    std::vector<DWORD> sizes;
    std::string text;
  } cases[] = {
      {"C:\\Windows\\x", false, {255}, "C:\\Windows\\x"},
      {std::string(254, 'y'), false, {255}, std::string(254, 'y')},
      {longText, false, {255, 401}, longText},
      {"", true, {255}, "%SystemRoot%\\x"},  // a failed expansion keeps the text
  };
  for (const Case& c : cases) {
    machine->fake.expandSizes.clear();
    machine->fake.expand = [&c](const char*, char* destination, DWORD size) -> DWORD {
      return c.fails ? 0 : Expand(c.expanded, destination, size);
    };
    EXPECT_EQ(Text(Bytes(std::string("%SystemRoot%\\x\0", 15)), platform::REG_EXPAND_SZ), c.text);
    EXPECT_EQ(machine->fake.expandSizes, c.sizes);
  }
}

TEST_F(RegistryHelpersTest, Wow64ReadsEveryKeyButUninstallInThe64BitView) {
  struct Case {
    const char* what;
    bool present;
    BOOL answer;
    BOOL result;
    std::string path;
    REGSAM mask;
  } cases[] = {
      {"hot fixes under WOW64", true, TRUE, TRUE,
       "SOFTWARE\\MICROSOFT\\WINDOWS NT\\CurrentVersion\\HotFix", 0x20119},
      {"uninstall under WOW64", true, TRUE, TRUE, kUninstall, 0x20019},
      {"the test is case-sensitive", true, TRUE, TRUE, "SOFTWARE\\x\\uninstall", 0x20119},
      {"64-bit process", true, FALSE, TRUE, "SOFTWARE\\x", 0x20019},
      {"the call fails", true, TRUE, FALSE, "SOFTWARE\\x", 0x20019},
      {"no such function", false, TRUE, TRUE, "SOFTWARE\\x", 0x20019},
  };
  for (const Case& c : cases) {
    wow64Present = c.present;
    machine->fake.isWow64 = [&c](BOOL* wow64) {
      *wow64 = c.answer;
      return c.result;
    };
    machine->spy->masks.clear();
    HKEY key = nullptr;
    OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, c.path);
    CloseRegistryKey(key);
    ASSERT_EQ(machine->spy->masks.size(), 1u) << c.what;
    EXPECT_EQ(machine->spy->masks[0], c.mask) << c.what;
  }
}

TEST_F(RegistryHelpersTest, Wow64IsAskedOnEveryOpen) {
  machine->fake.isWow64 = [](BOOL* wow64) {
    *wow64 = FALSE;
    return TRUE;
  };
  ReadKeyValues(kUninstall + "\\App");
  EnumerateSubKeyNames(kUninstall);
  EXPECT_EQ(machine->fake.isWow64Calls, 2);
}

TEST_F(RegistryHelpersTest, OpenAndCloseAnswerZeroOrOne) {
  HKEY key = nullptr;
  EXPECT_EQ(CloseRegistryKey(key), 1);
  EXPECT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, kUninstall + "\\Missing"), 1);
  EXPECT_EQ(key, nullptr);
  ASSERT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, kUninstall), 0);
  EXPECT_EQ(CloseRegistryKey(key), 0);
  EXPECT_EQ(CloseRegistryKey(key), 1);  // closed already: the registry refuses it
  EXPECT_TRUE(machine->fake.assertions.empty());
}

TEST_F(RegistryHelpersTest, SubKeysAreFullPathsInRegistryOrder) {
  EXPECT_EQ(EnumerateSubKeyNames(kUninstall),
            (std::vector<std::string>{kUninstall + "\\App", kUninstall + "\\Legacy",
                                      kUninstall + "\\MajorOnly", kUninstall + "\\NoVersion"}));
  EXPECT_TRUE(EnumerateSubKeyNames(kUninstall + "\\App").empty());
  EXPECT_TRUE(EnumerateSubKeyNames(kUninstall + "\\Missing").empty());
  EXPECT_TRUE(machine->fake.assertions.empty());
  // A call that fails leaves the entry empty, not the name before it.
  machine->spy->failEnumKeyAt = 2;
  EXPECT_EQ(EnumerateSubKeyNames(kUninstall),
            (std::vector<std::string>{kUninstall + "\\App", kUninstall + "\\Legacy",
                                      kUninstall + "\\", kUninstall + "\\NoVersion"}));
}

TEST_F(RegistryHelpersTest, AssertionsReportAndReturn) {
  DWORD count = 0, name = 0, data = 0;
  EXPECT_EQ(QueryKeyInfo(nullptr, count, name, data), 1);
  EXPECT_EQ(QueryKeyInfo(reinterpret_cast<HKEY>(0x7777), count, name, data), 1);
  const std::vector<std::string> listed = EnumerateSubKeyNames("");
  EXPECT_EQ(machine->fake.assertions,
            (std::vector<std::string>{"hKey != NULL RegistryKeyEnum:203",
                                      "apiRetCode == ERROR_SUCCESS RegistryKeyEnum:210",
                                      "registryKey.size() != 0x00 registrysubkeynames:66"}));
  // The listing goes on after its report: HKEY_LOCAL_MACHINE's own sub-keys.
  EXPECT_EQ(listed, std::vector<std::string>{"\\SOFTWARE"});
}

TEST_F(RegistryHelpersTest, ValuesWithNameAndTextAreListed) {
  EXPECT_EQ(ReadKeyValues(kUninstall + "\\App"),
            (RegistryValueSet{{"Count", "4294967295"}, {"DisplayName", "App"}, {"List", "x y"}}));
  EXPECT_TRUE(ReadKeyValues(kUninstall + "\\Missing").empty());
  EXPECT_TRUE(EnumerateValues(nullptr).empty());
  EXPECT_TRUE(machine->fake.assertions.empty());
}

// The name buffer starts one byte past the longest name and grows by a byte per index. A
// name longer in the ANSI code page than in characters fits only once the buffer has grown.
TEST_F(RegistryHelpersTest, ValueNameBufferGrowsByOneBytePerIndex) {
  load({{"machine.json", R"({"system": {"codePage": 932}})"},
        {"registry/r.reg",
         "Windows Registry Editor Version 5.00\n\n"
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Late]\n\"a\"=\"1\"\n\"b\"=\"2\"\n"
         "\"\xe5\x90\x8d\xe5\x89\x8d\"=\"3\"\n\n"
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Early]\n"
         "\"\xe5\x90\x8d\xe5\x89\x8d\"=\"3\"\n\"a\"=\"1\"\n\"b\"=\"2\"\n"}});
  EXPECT_EQ(ReadKeyValues("SOFTWARE\\Late").size(), 3u);
  EXPECT_EQ(machine->spy->valueNameBuffers, (std::vector<DWORD>{3, 4, 5}));
  EXPECT_EQ(ReadKeyValues("SOFTWARE\\Early").size(), 2u);
}

// Listed by name whatever the key's order; of two names that narrow to one ('?' for a
// character the code page lacks), the first enumerated.
TEST_F(RegistryHelpersTest, ValueListIsInNameOrderFirstOfEqualNamesKept) {
  load({{"registry/r.reg",
         "Windows Registry Editor Version 5.00\n\n"
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Env]\n\"b\"=\"2\"\n\"a\xe4\xb8\x80\"=\"first\"\n"
         "\"Z\"=\"upper\"\n\"a\xe4\xb8\x81\"=\"second\"\n\"a\"=\"1\"\n\"empty\"=\"\"\n"}});
  HKEY key = nullptr;
  ASSERT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, "SOFTWARE\\Env"), 0);
  const RegistryValueList list = EnumerateValueList(key);
  const RegistryValueList expected = {{"Z", "upper"}, {"a", "1"}, {"a?", "first"}, {"b", "2"}};
  EXPECT_EQ(list, expected);
  EXPECT_EQ(EnumerateValues(key), RegistryValueSet(expected.begin(), expected.end()));
  CloseRegistryKey(key);
}

// Names that share their first 8 or 16 bytes or more, names that begin others, bytes
// above 0x7F (after every ASCII one): listed in the order a map gives the narrowed names.
TEST_F(RegistryHelpersTest, ValueListOrderIsAMapsWhateverTheNames) {
  const std::vector<std::pair<std::string, std::string>> names = {
      // as written (UTF-8), as narrowed (code page 1252)
      {"SYS_ALPHA_000123_B", "SYS_ALPHA_000123_B"},
      {"SYS_ALPHA_000123", "SYS_ALPHA_000123"},
      {"SYS_ALPHA_000123_A", "SYS_ALPHA_000123_A"},
      {"SYS_ALPH", "SYS_ALPH"},
      {"SYS_ALPHA_00012", "SYS_ALPHA_00012"},
      {"SYS_\xc3\xa9", "SYS_\xe9"},
      {"SYS_z", "SYS_z"},
      {"SYS_ALPHA_000123_A_LONGER_STILL", "SYS_ALPHA_000123_A_LONGER_STILL"},
      {"sys", "sys"},
      {"SYS_ALPHB", "SYS_ALPHB"},
      {"\xc3\xa9t\xc3\xa9", "\xe9t\xe9"},
      {"A", "A"},
  };
  std::string text =
      "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Env]\n";
  std::map<std::string, std::string> expected;
  for (size_t i = 0; i < names.size(); ++i) {
    text += "\"" + names[i].first + "\"=\"" + std::to_string(i) + "\"\n";
    expected.emplace(names[i].second, std::to_string(i));
  }
  load({{"registry/r.reg", text}});
  HKEY key = nullptr;
  ASSERT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, "SOFTWARE\\Env"), 0);
  EXPECT_EQ(EnumerateValueList(key), RegistryValueList(expected.begin(), expected.end()));
  CloseRegistryKey(key);
}

// Enough values to fill several of the blocks their bytes are gathered in, and one text
// larger than a block: every name and text comes back whole, in name order.
TEST_F(RegistryHelpersTest, ValueListOfManyAndLargeValuesComesBackWhole) {
  std::string text =
      "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Env]\n";
  RegistryValueList expected;
  const std::string large(300 * 1024, 'x');
  for (int i = 3999; i >= 0; --i) {
    const std::string name = "VARIABLE_WITH_A_LONG_NAME_" + std::to_string(100000 + i);
    const std::string value = i == 2000 ? large : std::string(100, static_cast<char>('a' + i % 26));
    text += "\"" + name + "\"=\"" + value + "\"\n";
    expected.emplace_back(name, value);
  }
  std::sort(expected.begin(), expected.end());
  load({{"registry/r.reg", text}});
  HKEY key = nullptr;
  ASSERT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, "SOFTWARE\\Env"), 0);
  EXPECT_EQ(EnumerateValueList(key), expected);
  CloseRegistryKey(key);
}

TEST_F(RegistryHelpersTest, SelectedValuesWithTheVersionFallback) {
  const ValueNameTable table{
      {"Name", "DisplayName"}, {"Version", "DisplayVersion"}, {"Blob", "Binary"}, {"Default", ""}};
  struct Case {
    const char* key;
    RegistryValueSet values;
  } cases[] = {
      {"App", {{"Name", "App"}, {"Default", "default"}}},
      {"Legacy", {{"Version", "3.11"}}},
      {"MajorOnly", {{"Version", "7."}}},
      {"NoVersion", {}},
      {"Missing", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ReadSelectedValues(kUninstall + "\\" + c.key, table), c.values) << c.key;
  }
  EXPECT_TRUE(machine->fake.assertions.empty());
}

TEST_F(RegistryHelpersTest, AFailedReadLeavesTheTextAlone) {
  HKEY key = nullptr;
  ASSERT_EQ(OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, kUninstall + "\\App"), 0);
  std::string text = "before";
  EXPECT_EQ(ReadRegistryValue(key, "Missing", text, 64), 1);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(ReadRegistryValue(key, "DisplayName", text, 2), 1);  // too short for "App"
  EXPECT_EQ(text, "before");
  EXPECT_EQ(ReadRegistryValue(key, "DisplayName", text, 64), 0);
  EXPECT_EQ(text, "App");
  CloseRegistryKey(key);
}

}  // namespace
