// iac end to end: the built command, its plug-in and the default recorded machine.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "cli/iac_run.h"

namespace {

namespace fs = std::filesystem;

class IacTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scratch = fs::temp_directory_path() /
              ("iac_test_" + std::to_string(::getpid()) + "_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(scratch);
  }
  void TearDown() override { fs::remove_all(scratch); }

  fs::path scratch;
};

TEST_F(IacTest, PageFilesOfTheDefaultMachineInNameOrder) {
  const IacOutput run = RunIac("collect --class KestovaSG_PageFile --format json");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  const auto& instances = document.at("instances");
  ASSERT_EQ(instances.size(), 2u);
  EXPECT_EQ(instances[0]["properties"]["Name"], "C:\\pagefile.sys");
  EXPECT_EQ(instances[1]["properties"]["Name"], "D:\\pagefile.sys");
  for (const auto& instance : instances) {
    EXPECT_EQ(instance["class"], "KestovaSG_PageFile");
    EXPECT_TRUE(instance["properties"]["FileSize"].is_number_unsigned());
    EXPECT_EQ(instance["path"].get<std::string>().rfind("KestovaSG_PageFile.", 0), 0u);
  }
  bool normalExit = false;
  for (const auto& record : document.at("log")) {
    EXPECT_TRUE(record["level"].is_number_unsigned());
    normalExit = normalExit || record["message"] == "Normal exit from plugin.";
  }
  EXPECT_TRUE(normalExit);
}

struct MachinePageFiles {
  const char* machine;
  const char* names;   // the Name of each page file, in order, joined by '|'
  bool throughKernel;  // psapi could not enumerate them
};

class IacMachineTest : public IacTest, public ::testing::WithParamInterface<MachinePageFiles> {};

TEST_P(IacMachineTest, PageFilesThroughEitherSource) {
  const MachinePageFiles& c = GetParam();
  const IacOutput run =
      RunIac(std::string("collect --class KestovaSG_PageFile --format json --machine ") +
             IA_SOURCE_DIR "/examples/machines/" + c.machine);
  ASSERT_EQ(run.status, 0) << run.err;
  const auto document = nlohmann::json::parse(run.out);
  std::string names;
  for (const auto& instance : document["instances"]) {
    names += (names.empty() ? "" : "|") + instance["properties"]["Name"].get<std::string>();
    EXPECT_GT(instance["properties"]["FileSize"].get<std::uint64_t>(), 0u);
  }
  EXPECT_EQ(names, c.names);
  const std::string fallback =
      "PageFileInfo::getPagefileInfocannot retrieve EnumPageFilesA Function from psapi.dll.";
  bool logged = false;
  for (const auto& record : document["log"]) logged = logged || record["message"] == fallback;
  EXPECT_EQ(logged, c.throughKernel);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, IacMachineTest,
    ::testing::Values(MachinePageFiles{"win7-sp1-x64", "C:\\pagefile.sys|D:\\pagefile.sys", false},
                      MachinePageFiles{"xp-sp3", "C:\\pagefile.sys", false},
                      MachinePageFiles{"winpe-6.1", "C:\\pagefile.sys", true},
                      MachinePageFiles{"vista-sp2", "", false}));

TEST_F(IacTest, EveryFormatRendersTheSameInstances) {
  const IacOutput table = RunIac("collect --class KestovaSG_PageFile");
  ASSERT_EQ(table.status, 0) << table.err;
  EXPECT_NE(table.out.find("KestovaSG_PageFile: 2 instances"), std::string::npos) << table.out;

  const IacOutput jsonl = RunIac("collect --class KestovaSG_PageFile --format jsonl");
  ASSERT_EQ(jsonl.status, 0) << jsonl.err;
  std::istringstream lines(jsonl.out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_EQ(nlohmann::json::parse(line)["class"], "KestovaSG_PageFile");
  }
  EXPECT_EQ(count, 2);

  const IacOutput mof = RunIac("collect --class KestovaSG_PageFile --format mof");
  ASSERT_EQ(mof.status, 0) << mof.err;
  EXPECT_EQ(mof.out.rfind("instance of KestovaSG_PageFile\n{\n", 0), 0u) << mof.out;
  EXPECT_NE(mof.out.find("    Name = \"C:\\\\pagefile.sys\";\n"), std::string::npos) << mof.out;
}

TEST_F(IacTest, UnknownClassIsNotAnError) {
  const IacOutput run = RunIac("collect --class KestovaSG_NoSuchClass --format json");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(nlohmann::json::parse(run.out)["instances"].empty());
  const IacOutput table =
      RunIac("collect --class KestovaSG_PageFile --class KestovaSG_NoSuchClass");
  ASSERT_EQ(table.status, 0) << table.err;
  EXPECT_NE(table.out.find("\nNo instances: KestovaSG_NoSuchClass\n"), std::string::npos)
      << table.out;
}

TEST_F(IacTest, LogFileKeepsMessagesUpToTheChosenLevel) {
  const fs::path log = scratch / "run.log";
  const IacOutput run =
      RunIac("collect --class KestovaSG_PageFile --log-level 3 --log " + log.string());
  ASSERT_EQ(run.status, 0) << run.err;
  std::ifstream in(log);
  const std::string text(std::istreambuf_iterator<char>(in), {});
  EXPECT_NE(text.find("3\tNormal exit from plugin.\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("\n4\t"), std::string::npos) << text;
}

struct BadInput {
  const char* args;
  int status;
  const char* mentions;  // in stderr
};

class IacBadInputTest : public IacTest, public ::testing::WithParamInterface<BadInput> {};

TEST_P(IacBadInputTest, ClearMessageNonZeroExitNothingPrinted) {
  const BadInput& c = GetParam();
  const IacOutput run = RunIac(c.args);
  EXPECT_EQ(run.status, c.status);
  EXPECT_NE(run.err.find(c.mentions), std::string::npos) << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
}

INSTANTIATE_TEST_SUITE_P(Cases, IacBadInputTest,
                         ::testing::Values(BadInput{"collect --format xml", 2, "--format"},
                                           BadInput{"collect --machine /nonexistent/machine", 2,
                                                    "/nonexistent/machine"},
                                           BadInput{"collect --log-level 9", 2, "--log-level"},
                                           BadInput{"collect --plugin /nonexistent/plugin.so", 2,
                                                    "/nonexistent/plugin.so"},
                                           BadInput{"frobnicate", 2, "frobnicate"},
                                           BadInput{"collect --live", 2, "--live needs Windows"},
                                           BadInput{"reg query --view 16 HKLM", 2, "--view"},
                                           BadInput{"", 2, "subcommand"}));

TEST_F(IacTest, BrokenMachineIsRefusedNamingTheFile) {
  std::ofstream(scratch / "machine.json") << "{ \"system\": 12 }";
  const IacOutput run = RunIac("collect --machine " + scratch.string());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("machine.json"), std::string::npos) << run.err;
  EXPECT_TRUE(run.out.empty());
}

TEST_F(IacTest, PluginThatIsNotAPluginIsRefusedNamingTheFile) {
  const fs::path fake = scratch / "notaplugin.so";
  std::ofstream(fake) << "not a shared library";
  const IacOutput run = RunIac("collect --plugin " + fake.string());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("notaplugin.so"), std::string::npos) << run.err;
}

TEST_F(IacTest, ClassesListsTheSchema) {
  const IacOutput run = RunIac("classes");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("KestovaSG_PageFile\n"), std::string::npos);
  EXPECT_NE(run.out.find("    uint64 FileSize\n"), std::string::npos);
  EXPECT_NE(run.out.find("KestovaSG_UserEnvironmentVariable : KestovaSG_EnvironmentVariable"),
            std::string::npos);
}

TEST_F(IacTest, RegQueryOfARealHiveThroughCurrentControlSet) {
  const fs::path hive = fs::path(IA_REALDATA_DIR) / "hives" / "win7-SYSTEM";
  if (!fs::exists(hive)) GTEST_SKIP() << "no real data at " << hive;
  fs::create_directories(scratch / "hives");
  fs::create_symlink(hive, scratch / "hives" / "SYSTEM");  // a linked hive is read in place
  const IacOutput run =
      RunIac("reg query --machine " + scratch.string() +
             " \"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment\"");
  ASSERT_EQ(run.status, 0) << run.err;
  int values = 0;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) values += line.rfind("    ", 0) == 0;
  EXPECT_EQ(values, 17) << run.out;
}

// A machine whose process is 32-bit under WOW64: the plain Uninstall path shows the
// Wow6432Node entries unless --view 64 asks for the 64-bit ones.
TEST_F(IacTest, RegQueryViews) {
  fs::create_directories(scratch / "machine" / "registry");
  std::ofstream(scratch / "machine" / "machine.json") << R"({"system": {"isWow64Process": true}})";
  std::ofstream(scratch / "machine" / "registry" / "uninstall.reg")
      << "Windows Registry Editor Version 5.00\r\n"
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\App64]\r\n"
         "\"DisplayName\"=\"Sixty-four\"\r\n"
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\"
         "Uninstall\\App32]\r\n"
         "\"DisplayName\"=\"Thirty-two\"\r\n";
  const std::string uninstall =
      "HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
  const std::string app32 = uninstall + "\\App32\n    DisplayName    REG_SZ    Thirty-two\n\n";
  const std::string app64 = uninstall + "\\App64\n    DisplayName    REG_SZ    Sixty-four\n\n";
  const struct {
    const char* options;
    std::string expected;
  } cases[] = {
      {"", "\n" + uninstall + "\n" + uninstall + "\\App32\n\n"},
      {"/s", "\n" + uninstall + "\n\n" + app32},
      {"--view 32 /s", "\n" + uninstall + "\n\n" + app32},
      {"--view 64", "\n" + uninstall + "\n" + uninstall + "\\App64\n\n"},
      {"/s --view=64", "\n" + uninstall + "\n\n" + app64},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    const IacOutput run =
        RunIac("reg query --machine " + (scratch / "machine").string() +
               " \"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\" " + c.options);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, c.expected);
  }
}

TEST_F(IacTest, RegQueryOfAMissingKeyFails) {
  const IacOutput run = RunIac("reg query \"HKLM\\SOFTWARE\\No\\Such\\Key\"");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("ERROR:"), std::string::npos) << run.err;
}

}  // namespace
