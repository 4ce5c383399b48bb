// Runs, the run cache, deep enumeration and the plug-in manager, with an in-process plug-in.
#include <gtest/gtest.h>

#include "fake_plugin.h"

namespace nk = NKestovaTessil20;
using host_test::FakeLedger;
using host_test::FakePlugin;
using Names = std::vector<std::string>;

namespace {

class HostRun : public ::testing::Test {
 protected:
  void SetUp() override { host().Reset(); }
  void TearDown() override { host().Reset(); }
  static nk::THost& host() { return nk::THost::Instance(); }
  std::size_t Count(const std::string& cls, bool deep = false) {
    return host().GetInstances(cls, deep).size();
  }
  FakeLedger ledger;
};

TEST_F(HostRun, AssociationsCollectEachEndClassOnce) {
  new FakePlugin(ledger);
  host().Query({"KestovaSG_AccountOnSystem", "KestovaSG_CurrentAccountOnSystem"});
  EXPECT_EQ(ledger.queries,
            (std::vector<Names>{{"KestovaSG_AccountOnSystem", "KestovaSG_CurrentAccountOnSystem"},
                                {"KestovaSG_Account"}}));
  EXPECT_EQ(ledger.calls["KestovaSG_Account"], 1);
  EXPECT_EQ(ledger.calls.count("KestovaSG_ComputerSystem"), 0u) << "the host's own class";
  EXPECT_EQ(Count("KestovaSG_Account"), 2u);
  EXPECT_EQ(Count("KestovaSG_AccountOnSystem"), 2u);  // one computer system x two accounts
  EXPECT_EQ(Count("KestovaSG_CurrentAccountOnSystem"), 2u);
}

TEST_F(HostRun, PlainClassesFirstAndDeepEnumerationCollectsServedSubclasses) {
  new FakePlugin(ledger);
  host().Query({"KestovaSG_OSEnvironmentVariable", "KestovaSG_SystemEnvironmentVariable",
                "KestovaSG_NoSuchClass"});
  ASSERT_EQ(ledger.queries.size(), 3u);
  EXPECT_EQ(ledger.queries[0], (Names{"KestovaSG_SystemEnvironmentVariable",
                                      "KestovaSG_NoSuchClass", "KestovaSG_OSEnvironmentVariable"}));
  EXPECT_EQ(ledger.associationFlags[1], false) << "an unknown class is a plain stand-in";
  EXPECT_EQ(ledger.queries[1], (Names{"KestovaSG_OperatingSystem"}));
  // The base is nobody's; of its subclasses only the one not yet collected runs.
  EXPECT_EQ(ledger.queries[2], (Names{"KestovaSG_UserEnvironmentVariable"}));
  EXPECT_EQ(Count("KestovaSG_EnvironmentVariable", true), 4u);
  EXPECT_EQ(Count("KestovaSG_EnvironmentVariable", false), 0u);
  EXPECT_EQ(Count("KestovaSG_OSEnvironmentVariable"), 8u);  // 2 systems x 4 variables
  // A class without keys has one path; both of its instances are kept.
  EXPECT_EQ(Count("KestovaSG_NoSuchClass"), 2u);
  EXPECT_TRUE(ledger.errors.empty());
}

TEST_F(HostRun, EachQueryIsANewRunWithTheHostsComputerSystem) {
  new FakePlugin(ledger);
  for (int run = 1; run <= 2; ++run) {
    host().Query({"KestovaSG_Account"});
    EXPECT_EQ(ledger.calls["KestovaSG_Account"], run);
    EXPECT_EQ(Count("KestovaSG_Account"), 2u) << "the last run's instances are gone";
    const auto systems = host().GetInstances("KestovaSG_ComputerSystem", false);
    ASSERT_EQ(systems.size(), 1u);
    nk::TCIMReference reference;
    systems[0]->GetReference(reference, {});
    EXPECT_EQ(reference.GetPath(),
              "KestovaSG_ComputerSystem.CreationClassName="
              "\"KestovaSG_ComputerSystem\",Name=\"" +
                  nk::TOSSpecific::GetMachineName() + "\"");
  }
  EXPECT_EQ(nk::TCIMSchemaHelper::GetSystemCreationClassName(host().GetNamespace()),
            "KestovaSG_ComputerSystem");
  EXPECT_EQ(nk::TCIMSchemaHelper::GetSystemName(host().GetNamespace()),
            nk::TOSSpecific::GetMachineName());
}

TEST_F(HostRun, DeepEnumerationReportsSubclassesInCommitOrder) {
  auto commit = [&](const std::string& cls, const std::string& id) {
    boost::shared_ptr<nk::ICIMClass> handle;
    host().GetNamespace()->GetClass(handle, cls, {});
    boost::shared_ptr<nk::ICIMInstance> instance;
    handle->CreateInstance(instance, {});
    instance->SetPropertyValue("SettingID", nk::TCIMValue(id), {});
    instance->Commit({});
  };
  commit("KestovaSG_UserEnvironmentVariable", "u1");
  commit("KestovaSG_SystemEnvironmentVariable", "s1");
  commit("KestovaSG_EnvironmentVariable", "b1");
  commit("KestovaSG_UserEnvironmentVariable", "u2");

  boost::shared_ptr<nk::ICIMClass> base;
  host().GetNamespace()->GetClass(base, "KestovaSG_EnvironmentVariable", {});
  auto ids = [&](bool deep) {
    std::vector<boost::shared_ptr<nk::ICIMInstance>> found;
    nk::TAddToVectorCallback<nk::ICIMInstance> callback(found);
    base->EnumerateInstances(callback, deep, {});
    Names out;
    for (const auto& instance : found) {
      boost::shared_ptr<nk::ICIMProperty> id;
      instance->GetProperty(id, "SettingID", {});
      out.push_back(id->GetValue().ToString());
    }
    return out;
  };
  EXPECT_EQ(ids(true), (Names{"u1", "s1", "b1", "u2"}));
  EXPECT_EQ(ids(false), (Names{"b1"}));
  EXPECT_EQ(Count("KestovaSG_UserEnvironmentVariable", true), 2u);
}

TEST_F(HostRun, RegistrationFillsTheProviderFieldAndNamesServedClasses) {
  auto* plugin = new FakePlugin(ledger);
  ASSERT_NE(plugin->registered, nullptr);
  EXPECT_EQ(plugin->provider, static_cast<void*>(plugin->registered));
  EXPECT_EQ(host().GetPluginClassNames(),
            (Names{"KestovaSG_Account", "KestovaSG_SystemEnvironmentVariable",
                   "KestovaSG_UserEnvironmentVariable", "KestovaSG_OSComponent",
                   "KestovaSG_InstalledApplication", "KestovaSG_InstalledFix",
                   "KestovaSG_OperatingSystem", "KestovaSG_TimeZone", "KestovaSG_PageFile",
                   "KestovaSG_OSEnvironmentVariable", "KestovaSG_AccountOnSystem",
                   "KestovaSG_CurrentAccountOnSystem", "KestovaSG_OSBaseComponent",
                   "KestovaSG_OSSubComponent"}));
}

TEST_F(HostRun, AnotherPluginsClassesAreNotCollectedForIt) {
  new FakePlugin(ledger, "Some Other Collector");
  EXPECT_TRUE(host().GetPluginClassNames().empty());
  host().Query({"KestovaSG_AccountOnSystem"});
  // Asked at top level like every plug-in, but never for the association's ends.
  EXPECT_EQ(ledger.queries, (std::vector<Names>{{"KestovaSG_AccountOnSystem"}}));
}

TEST_F(HostRun, LifeCycleEndsWithDeInitAndDelete) {
  new FakePlugin(ledger);
  host().InitPlugins();
  host().InitPlugins();
  host().DeInitPlugins();
  host().InitPlugins();
  host().UnloadPlugins();
  EXPECT_EQ(ledger.lifecycle, (Names{"Init", "DeInit", "Init", "DeInit", "deleted"}));
  host().Query({"KestovaSG_Account"});
  EXPECT_TRUE(ledger.queries.empty());
}

TEST(PluginManager, IsTheHostsPluginManagerNamespace) {
  auto manager = nk::TRootObject::GetPluginManager();
  ASSERT_TRUE(boost::dynamic_pointer_cast<nk::TPluginManagerNamespace>(manager));
  boost::shared_ptr<nk::ICIMClass> cls;
  manager->GetClass(cls, "KestovaSG_PageFile", {});
  EXPECT_EQ(cls->GetName(), "KestovaSG_PageFile");
  boost::shared_ptr<nk::ICIMNamespace> ns;
  cls->GetNamespace(ns, {});
  EXPECT_EQ(ns, nk::THost::Instance().GetNamespace());
}

}  // namespace
