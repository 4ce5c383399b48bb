// Boot configuration: which file wins, how its lines are read and logged, and what the
// boot store's display-order walk makes of small, real and hostile stores.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "collectors/os/os_configuration.h"
#include "plugin/frame_fixture.h"

namespace {

namespace fs = std::filesystem;
using installedapps_col::OSConfiguration;
using NKestovaTessil20::TCIMValue;
using Files = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

const std::string kObjects = "BCD00000000\\Objects\\";
const std::string kOrderKey = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements\\24000001";
const std::string kCollect = "3 Collecting Boot Configuration File Properties...";
const std::string kAttempt = "3 Exiting boot.ini info collection routine....2";
const std::string kDone = "3 Exiting boot.ini info collection routine....";
const std::string kNoFile = "0 Could not open Boot.ini file.";

std::string Id(char c) {
  return "{" + std::string(8, c) + "-aaaa-4aaa-8aaa-" + std::string(12, c) + "}";
}

// A REGEDIT4 export giving each key below HKLM\BCD00000000\Objects an "Element" of the
// type and ANSI bytes given.
std::string Store(const std::vector<std::tuple<std::string, int, std::string>>& elements) {
  static const char kDigits[] = "0123456789abcdef";
  std::string reg = "REGEDIT4\n";
  for (const auto& [key, type, bytes] : elements) {
    reg += "\n[HKEY_LOCAL_MACHINE\\" + kObjects + key + "]\n\"Element\"=hex(" +
           std::to_string(type) + "):";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const auto b = static_cast<unsigned char>(bytes[i]);
      reg += std::string(i ? "," : "") + kDigits[b >> 4] + kDigits[b & 15];
    }
    reg += "\n";
  }
  return reg;
}

// n identifiers as a display order: each with its NUL, and one NUL more.
std::string IdList(int n) {
  std::string list;
  for (int i = 0; i < n; ++i) list += Id(static_cast<char>('a' + i % 26)) + '\0';
  return list + '\0';
}

Lines Elements(const TCIMValue& value) {
  Lines out;
  for (const TCIMValue& e : value.GetElements()) out.push_back(e.GetString());
  return out;
}

class OSConfigurationTest : public FrameTest {
 protected:
  void TearDown() override {
    FrameTest::TearDown();
    if (!temp.empty()) fs::remove_all(temp);
  }

  static void Install(const Files& files) {
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(files));
  }

  // Every log record as "level message".
  Lines log() const {
    Lines out;
    for (const auto& r : host().GetLog()) out.push_back(std::to_string(r.level) + " " + r.message);
    return out;
  }

  // A machine folder whose hives/BCD is the real store `name`; false when it is absent.
  bool InstallRealStore(const std::string& name) {
    const fs::path store = fs::path(IA_REALDATA_DIR) / "hives" / name;
    if (!fs::exists(store)) return false;
    temp = fs::temp_directory_path() / ("os_configuration_" + std::to_string(::getpid()));
    fs::create_directories(temp / "hives");
    fs::create_symlink(store, temp / "hives" / "BCD");
    platform::Machine::Install(platform::recorded::RecordedMachine::Load(temp.string()));
    return true;
  }

  fs::path temp;
};

// Which boot.ini wins on small machines; the example machines' boot.ini and boot store are
// pinned end to end, through iac.
TEST_F(OSConfigurationTest, FileOrStoreGivesNameContentsAndLog) {
  const std::string drive = R"({"system": {"environment": {"SystemDrive": "D:"}}})";
  const std::string driveC = R"({"system": {"environment": {"SystemDrive": "C:"}}})";
  std::string alternating;  // 200 lines, every second one empty
  for (int i = 1; i <= 200; ++i) alternating += (i % 2 ? "line " + std::to_string(i) : "") + "\n";
  Lines odd;
  for (int i = 1; i < 150; i += 2) odd.push_back("line " + std::to_string(i));
  const struct Case {
    const char* name;
    Files files;
    const char* fileName;  // null: left out
    Lines contents;        // with a file name: the contents; without: none expected
    int attempts;
  } cases[] = {
      {"boot1.ini on the system drive",
       {{"machine.json", drive}, {"files/D/boot1.ini", "one\n"}, {"files/C/boot.ini", "c\n"}},
       "D:\\boot1.ini",
       {"one"},
       2},
      {"boot.ini only on D:",
       {{"machine.json", driveC}, {"files/D/boot.ini", "d"}},
       "D:\\boot.ini",
       {"d"},
       1},
      {"system drive unset",
       {{"files/C/boot1.ini", "x"}, {"files/E/boot.ini", "e\n\n"}},
       "E:\\boot.ini",
       {"e"},
       3},
      {"boot.ini before the store",
       {{"files/Z/boot.ini", "z"}, {"registry/bcd.reg", Store({{kOrderKey, 7, IdList(1)}})}},
       "Z:\\boot.ini",
       {"z"},
       1},
      {"empty lines count, 150 attempts",
       {{"files/C/boot.ini", alternating}},
       "C:\\boot.ini",
       odd,
       150},
      {"empty file", {{"files/C/boot.ini", ""}}, "C:\\boot.ini", {}, 1},
      {"neither", {{"files/C/boot2.ini", "x"}}, nullptr, {}, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Install(c.files);
    host().ClearLog();
    const installedapps_col::PropertyMap properties = OSConfiguration().getProperties();

    Lines expectedLog = {kCollect};
    if (c.fileName == nullptr) {
      EXPECT_TRUE(properties.empty());
      expectedLog = {kCollect, kNoFile, kCollect, kNoFile};
    } else {
      const TCIMValue& name = properties.at("BootConfigurationFileName");
      EXPECT_EQ(name.GetString(), c.fileName);
      EXPECT_FALSE(name.IsArray());
      const TCIMValue& contents = properties.at("BootConfigurationFileContents");
      EXPECT_TRUE(contents.IsArray());
      EXPECT_EQ(contents.GetType(), NKestovaTessil20::eCIMTypeString);
      EXPECT_EQ(Elements(contents), c.contents);
      expectedLog.push_back(kCollect);
      expectedLog.insert(expectedLog.end(), static_cast<std::size_t>(c.attempts), kAttempt);
      expectedLog.push_back(kDone);
    }
    EXPECT_EQ(log(), expectedLog);
  }
}

// The error mode stays 1 after every call but the one that reads the file's lines.
TEST_F(OSConfigurationTest, ModesAndErrorMode) {
  const struct Case {
    const char* name;
    Files files;
    int mode;
    bool null;
    unsigned errorModeAfter;
  } cases[] = {
      {"file, name", {{"files/C/boot.ini", "x"}}, 0, false, 1},
      {"file, lines", {{"files/C/boot.ini", "x"}}, 1, false, 0},
      {"file, other", {{"files/C/boot.ini", "x"}}, 2, true, 1},
      {"store, lines", {{"registry/bcd.reg", Store({{kOrderKey, 7, IdList(2)}})}}, 1, false, 1},
      {"store, other", {{"registry/bcd.reg", Store({{kOrderKey, 7, IdList(2)}})}}, -1, true, 1},
      {"nothing, lines", {}, 1, true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Files files = c.files;
    files["machine.json"] = R"({"system": {"errorMode": 32768}})";
    Install(files);
    EXPECT_EQ(OSConfiguration().getBootConfiguration(c.mode).IsNull(), c.null);
    EXPECT_EQ(platform::Machine::Current().system().SetErrorMode(0), c.errorModeAfter);
  }
}

TEST_F(OSConfigurationTest, UnexpandableSystemDriveLeavesBothOut) {
  // The fixture's fake System fails ExpandEnvironmentStringsA.
  EXPECT_TRUE(OSConfiguration().getProperties().empty());
  const std::string noDrive = "0 Could not find environmental variable systemroot.";
  EXPECT_EQ(log(), (Lines{kCollect, noDrive, kCollect, noDrive}));
  EXPECT_EQ(machine->fake.expandSizes, (std::vector<platform::DWORD>{254, 254}));
}

TEST_F(OSConfigurationTest, ElementReadsStayInTheirBuffer) {
  const std::string a = Id('a'), b = Id('b'), c = Id('c'), d = Id('d');
  const std::string noNul(8192, 'x');
  const struct Case {
    const char* name;
    int type;
    std::string bytes;
    std::string text;
  } cases[] = {
      {"string", 1, std::string("Windows 10\0junk", 15), "Windows 10"},
      {"expandable string", 2, std::string("%x%\0", 4), ""},
      {"binary", 3, "abc", ""},
      {"one id", 7, IdList(1), a},
      {"two ids", 7, IdList(2), a + b},
      {"three ids: the third read lands on B's NUL", 7, IdList(3), a + b + b},
      {"four ids", 7, IdList(4), a + b + b + b + "}"},
      {"five ids", 7, IdList(5), a + b + b + b + "}" + b + "}" + d.substr(36)},
      {"ids without the final NULs", 7, a + '\0' + b, a + b},
      {"odd-sized, not ids", 7, std::string("ab\0cd\0\0", 7), "ab"},
      {"empty list", 7, "", ""},
      {"8192 bytes, no NUL", 1, noNul, noNul},
      {"8193 bytes: more than the buffer", 1, noNul + '\0', ""},
      {"8193-byte list", 7, IdList(210) + "xx", ""},
  };
  std::vector<std::tuple<std::string, int, std::string>> store;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    store.emplace_back("k" + std::to_string(i), cases[i].type, cases[i].bytes);
  }
  Install({{"registry/bcd.reg", Store(store)}});
  OSConfiguration configuration;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].name);
    EXPECT_EQ(configuration.readBcdElement(kObjects + "k" + std::to_string(i)), cases[i].text);
  }
  EXPECT_EQ(configuration.readBcdElement(kObjects + "missing"), "");
}

// The walk's text grows with the square of the entries, and faster still on data without
// NULs; it is cut at 512 KiB.
TEST_F(OSConfigurationTest, LongListsStayBounded) {
  Install({{"registry/bcd.reg", Store({{"full", 7, IdList(200)},
                                       {"longest", 7, IdList(210)},
                                       {"no-nul", 7, std::string(8192, '{')}})}});
  OSConfiguration configuration;
  // The longest list of identifiers that fits the buffer is not cut.
  EXPECT_EQ(configuration.readBcdElement(kObjects + "longest").size(), 414219u);
  const std::string full = configuration.readBcdElement(kObjects + "full");
  EXPECT_EQ(full.size(), 375904u);
  EXPECT_EQ(full.substr(0, 3 * 38 + 39), Id('a') + Id('b') + Id('b') + Id('b') + "}");
  EXPECT_EQ(configuration.readBcdElement(kObjects + "no-nul"), std::string(512 * 1024, '{'));

  Install({{"registry/bcd.reg", Store({{kOrderKey, 7, IdList(200)}})}});
  const Lines summary = OSConfiguration().getBcdSummary();
  ASSERT_EQ(summary.size(), 19651u + 3);
  EXPECT_EQ(summary[0], "Installed OS :\n\n");
}

TEST_F(OSConfigurationTest, HostileStoreSummary) {
  platform::Machine::Install(platform::recorded::RecordedMachine::Load(
      IA_SOURCE_DIR "/tests/fixtures/machines/hostile-boot"));
  // {A}, then {B}{C} without a NUL between: the walk reads {B}{C}, then {C}.
  EXPECT_EQ(OSConfiguration().getBcdSummary(),
            (Lines{"Installed OS :Fixture OS A\n\n", "Installed OS :Fixture OS B\n\n",
                   "Installed OS :\n\n", "Installed OS :Fixture OS B\n\n", "Installed OS :\n\n",
                   "Installed OS :\n\n", "Windows Boot Manager: Fixture Boot Manager\n\n",
                   "Memory Test: \nLocation: \\boot\\memtest.exe\n\n",
                   "Windows Resume: \nLocation: \\hiberfil.sys\n\n"}));
}

// Longer lines come in pieces of 1023 characters, one attempt each; a line ends at its first
// NUL.
TEST_F(OSConfigurationTest, HostileAndLargeBootFiles) {
  const std::string piece(1023, 'L');
  Lines longLine(100, piece);  // 100 KiB: 100 pieces and 100 characters
  longLine.push_back(std::string(100, 'L'));
  longLine.push_back("after");
  std::string manyLines;  // 10 MiB of 99-character lines
  while (manyLines.size() < (10u << 20)) manyLines += std::string(99, 'M') + "\n";
  const struct Case {
    const char* name;
    std::string file;  // empty: the hostile-boot fixture
    Lines lines;
    std::size_t attempts;
  } cases[] = {
      {"fixture",
       "",
       {"[boot loader]", "time", std::string(1023, 'a'), std::string(1023, 'b'), "b",
        std::string(1023, 'c'), std::string(1023, 'c'), "tail"},
       10},
      {"100 KiB line", std::string(100 * 1024, 'L') + "\nafter\n", longLine, 103},
      {"10 MiB of lines", manyLines, Lines(150, std::string(99, 'M')), 150},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.file.empty()) {
      platform::Machine::Install(platform::recorded::RecordedMachine::Load(
          IA_SOURCE_DIR "/tests/fixtures/machines/hostile-boot"));
    } else {
      Install({{"files/C/boot.ini", c.file}});
    }
    host().ClearLog();
    EXPECT_EQ(Elements(OSConfiguration().getBootConfiguration(1)), c.lines);
    Lines expectedLog(c.attempts + 2, kAttempt);
    expectedLog.front() = kCollect;
    expectedLog.back() = kDone;
    EXPECT_EQ(log(), expectedLog);
  }
}

// Real stores, read in place. win10-BCD's boot manager lists one loader; the template
// has no display order, so only its three fixed paragraphs are made. Its firmware
// manager's order of four entries shows the walk on real data.
TEST_F(OSConfigurationTest, RealStores) {
  if (!InstallRealStore("win10-BCD")) GTEST_SKIP() << "no real BCD store";
  OSConfiguration configuration;
  const Lines win10 = {
      "Installed OS :Windows 10\n\n", "Windows Boot Manager: Windows Boot Manager\n\n",
      "Memory Test: Windows Memory Diagnostic\nLocation: \\EFI\\Microsoft\\Boot\\memtest.efi\n\n",
      "Windows Resume: Windows Resume Application\nLocation: \n\n"};
  EXPECT_EQ(configuration.getBcdSummary(), win10);
  EXPECT_EQ(configuration.getBootConfiguration(0).GetString(), "Windows Boot Manager");
  EXPECT_EQ(configuration.readBcdElement(
                kObjects + "{a5a30fa2-3d06-4e9f-b5f4-a01df9d1fcba}\\Elements\\24000001"),
            "{733b62de-f608-11eb-825c-c112f60133ab}{733b62e2-f608-11eb-825c-c112f60133ab}"
            "{733b62e2-f608-11eb-825c-c112f60133ab}{733b62e2-f608-11eb-825c-c112f60133ab}}");

  fs::remove_all(temp);
  if (!InstallRealStore("win11-BCD-Template")) GTEST_SKIP() << "no real BCD template";
  EXPECT_EQ(configuration.getBcdSummary(),
            (Lines{"Windows Boot Manager: Windows Boot Manager\n\n",
                   "Memory Test: \nLocation: \\boot\\memtest.exe\n\n",
                   "Windows Resume: \nLocation: \n\n"}));
  host().ClearLog();
  EXPECT_TRUE(configuration.getProperties().empty());
  EXPECT_EQ(log(), (Lines{kCollect, kNoFile, kCollect, kNoFile}));
}

}  // namespace
