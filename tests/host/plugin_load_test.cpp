// Loading plug-in libraries from files, and what the host reports when that fails.
#include <gtest/gtest.h>

#include "tessilcore/host.h"

namespace nk = NKestovaTessil20;

namespace {

class PluginLoad : public ::testing::Test {
 protected:
  void SetUp() override { host().Reset(); }
  void TearDown() override { host().Reset(); }
  static nk::THost& host() { return nk::THost::Instance(); }

  static std::string Messages() {
    std::string all;
    for (const auto& record : host().GetLog()) all += record.message + "\n";
    return all;
  }
};

TEST_F(PluginLoad, FailuresNameTheFile) {
  struct Case {
    std::string path;
    std::uint32_t code;
  };
  const Case cases[] = {
      {"/nonexistent/libnothing.so", nk::kStatusPluginLoadFailed},
      {IA_SILENT_PLUGIN, nk::kStatusPluginNotRegistered},
  };
  for (const Case& c : cases) {
    try {
      host().LoadPlugin(c.path);
      ADD_FAILURE() << c.path << " loaded";
    } catch (const nk::TTessilException& e) {
      EXPECT_EQ(e.GetStatusCode(), c.code) << c.path;
      EXPECT_NE(e.GetDetail().find(c.path), std::string::npos) << e.GetDetail();
    }
  }
  EXPECT_TRUE(host().GetPluginClassNames().empty());
}

TEST_F(PluginLoad, LibraryRegistersWhileLoadingAndIsDeletedAtUnload) {
  host().LoadPlugin(IA_REGISTERING_PLUGIN);
  host().LoadPlugin(IA_REGISTERING_PLUGIN);  // loaded once already: no second plug-in
  EXPECT_EQ(host().GetPluginClassNames().size(), 14u);
  host().InitPlugins();
  host().Query({"KestovaSG_PageFile"});
  host().UnloadPlugins();
  EXPECT_EQ(Messages(),
            "fixture init\n"
            "fixture query KestovaSG_PageFile registered\n"
            "fixture deinit\n"
            "fixture deleted\n");
  EXPECT_TRUE(host().GetPluginClassNames().empty());
}

}  // namespace
