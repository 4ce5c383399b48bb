// The synthetic machines of the benchmarks: each case written with its registry as .reg
// exports and as hive files gives one inventory, and holds the entries it is said to.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/iac_run.h"

namespace {

namespace fs = std::filesystem;

struct Case {
  const char* name;
  int entries;
  const char* classes;  // iac's --class options
  const char* counted;  // the class whose instances are counted
  std::size_t instances;
};

class SyntheticMachines : public ::testing::TestWithParam<Case> {};

// Apps: more than 1,024 entries per view, so the hive's Uninstall keys need an index of
// leaves. Components: four INF files of ten, the last read twice, then the backup program.
const Case kCases[] = {
    {"apps", 1100, "--class KestovaSG_InstalledApplication", "KestovaSG_InstalledApplication", 0},
    {"env", 40,
     "--class KestovaSG_SystemEnvironmentVariable --class KestovaSG_UserEnvironmentVariable",
     "KestovaSG_UserEnvironmentVariable", 40},
    {"components", 40, "--class KestovaSG_OSComponent", "KestovaSG_OSComponent", 51},
};

std::size_t Count(const nlohmann::json& document, const std::string& className) {
  std::size_t count = 0;
  for (const auto& instance : document["instances"]) count += instance["class"] == className;
  return count;
}

TEST_P(SyntheticMachines, RegExportsAndHivesGiveOneInventory) {
#ifndef IA_PYTHON3
  GTEST_SKIP() << "no python3";
#else
  const Case& c = GetParam();
  const fs::path root = fs::temp_directory_path() /
                        ("ia-synthetic-" + std::string(c.name) + "-" + std::to_string(::getpid()));
  std::string outputs[2];
  const char* forms[] = {"reg", "hive"};
  for (int i = 0; i < 2; ++i) {
    const fs::path folder = root / forms[i];
    const std::string command = std::string(IA_PYTHON3) + " " + IA_SOURCE_DIR +
                                "/scripts/gen-synthetic-machine.py --case " + c.name +
                                " --entries " + std::to_string(c.entries) + " --format " +
                                forms[i] + " --out " + folder.string();
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const IacOutput run = RunIac("collect --machine " + folder.string() + " " + c.classes +
                                 " --format json --log-level 4");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    outputs[i] = run.out;
  }
  fs::remove_all(root);
  EXPECT_TRUE(outputs[0] == outputs[1]) << "the .reg and hive forms differ";
  const std::size_t count = Count(nlohmann::json::parse(outputs[0]), c.counted);
  if (c.instances != 0) {
    EXPECT_EQ(count, c.instances);
  } else {
    EXPECT_GT(count, static_cast<std::size_t>(c.entries));  // both views, some names repeat
  }
#endif
}

INSTANTIATE_TEST_SUITE_P(Cases, SyntheticMachines, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
