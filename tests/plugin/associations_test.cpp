// The association classes: which pairs each joins, by references to the instances the host
// holds, on small recorded machines.
#include <string>
#include <vector>

#include "collectors/accounts/association_collectors.h"
#include "plugin/frame_fixture.h"

namespace {

const char kSysoc[] =
    "[Version]\nSignature=\"$Windows NT$\"\n\n[Components]\n"
    "One=ocgen.dll,OcEntry,one.inf,,7\nTwo=ocgen.dll,OcEntry,two.inf,,7\n";
const char kOneInf[] =
    "[Version]\nSignature=\"$Windows NT$\"\n\n[Optional Components]\nTop\nChild\nOrphan\nTwin\n\n"
    "[Top]\nOptionDesc=Top\n\n[Child]\nOptionDesc=Child\nParent=TOP\n\n"
    "[Orphan]\nOptionDesc=Orphan\nParent=Missing\n\n[Twin]\nOptionDesc=first twin\n";
const char kTwoInf[] =
    "[Version]\nSignature=\"$Windows NT$\"\n\n[Optional Components]\nTWIN\nKid\n\n"
    "[TWIN]\nOptionDesc=second twin\n\n[Kid]\nOptionDesc=Kid\nParent=twin\n";

// Three accounts logged on; "Ann" twice under two logon names.
const char kMachine[] = R"({"system": {"computerName": "BOX", "windowsDirectory": "C:\\Windows",
    "systemDirectory": "C:\\Windows\\system32",
    "environment": {"USERNAME": "ann", "USERPROFILE": "C:\\Users\\ann", "USERDOMAIN": "BOX"}},
  "net": {"userName": "ANN",
    "users": {"records": [{"name": "bob", "fullName": "Bob"}, {"name": "ann", "fullName": "Ann"},
                          {"name": "Ann2", "fullName": "ann"}]},
    "loggedOn": {"records": [{"username": "ann", "logonDomain": "BOX", "logonServer": "BOX"},
                             {"username": "bob", "logonDomain": "BOX", "logonServer": "BOX"}]}}})";

class AssociationsTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
        {{"machine.json", kMachine},
         {"files/C/Windows/inf/sysoc.inf", kSysoc},
         {"files/C/Windows/inf/one.inf", kOneInf},
         {"files/C/Windows/inf/two.inf", kTwoInf},
         {"registry/r.reg",
          "Windows Registry Editor Version 5.00\n\n"
          "[HKEY_CURRENT_USER\\Environment]\n\"A\"=\"1\"\n\"B\"=\"2\"\n"}}));
  }

  // Each association as "group -> part", with the key values that name the two ends.
  std::vector<std::string> pairs(const std::string& className, const std::string& group,
                                 const std::string& part, const std::string& key) {
    host().Query({className});
    std::vector<std::string> out;
    for (const auto& association : host().GetInstances(className, false)) {
      out.push_back(endKey(association, group, key) + " -> " + endKey(association, part, key));
    }
    return out;
  }

  // The value of `key` in the object path a reference property holds.
  static std::string endKey(const boost::shared_ptr<NKestovaTessil20::ICIMInstance>& instance,
                            const std::string& property, const std::string& key) {
    const std::string path = FrameTest::property(instance, property);
    std::string::size_type at = path.find("." + key + "=\"");
    if (at == std::string::npos) at = path.find("," + key + "=\"");
    if (at == std::string::npos) return path.substr(0, path.find('.'));
    const std::string::size_type start = at + key.size() + 3;
    return path.substr(start, path.find('"', start) - start);
  }
};

TEST_F(AssociationsTest, SubComponentsFindTheirParentIgnoringCase) {
  EXPECT_EQ(pairs("KestovaSG_OSSubComponent", "GroupComponent", "PartComponent", "Name"),
            (std::vector<std::string>{"Top -> Child", "Twin -> Kid", "Twin -> Kid"}));
  // The component list is walked one past its last line, so two.inf is read twice.
  EXPECT_EQ(messages(3).size(), 3u);  // the nested query's exit, the one message, the exit
  const std::vector<std::string> logged = messages(3);
  EXPECT_NE(std::find(logged.begin(), logged.end(),
                      "OSSubComponent::buildCIMAssociation During SoftwareFeatureComponent "
                      "Association can't find parent with ID Missing"),
            logged.end());
}

TEST_F(AssociationsTest, OnlyComponentsWithoutParentJoinTheSystem) {
  EXPECT_EQ(pairs("KestovaSG_OSBaseComponent", "GroupComponent", "PartComponent", "Name"),
            (std::vector<std::string>{"BOX -> Top", "BOX -> Twin", "BOX -> TWIN", "BOX -> TWIN"}));
}

TEST_F(AssociationsTest, AccountsJoinTheComputerSystem) {
  EXPECT_EQ(pairs("KestovaSG_AccountOnSystem", "GroupComponent", "PartComponent", "UserID"),
            (std::vector<std::string>{"KestovaSG_ComputerSystem -> bob",
                                      "KestovaSG_ComputerSystem -> ann",
                                      "KestovaSG_ComputerSystem -> ann"}));
  // GetUserNameA says "ANN": the first account whose UserID matches in any case.
  EXPECT_EQ(pairs("KestovaSG_CurrentAccountOnSystem", "GroupComponent", "PartComponent", "UserID"),
            (std::vector<std::string>{"KestovaSG_ComputerSystem -> ann"}));
}

TEST_F(AssociationsTest, EveryVariableJoinsTheOperatingSystem) {
  EXPECT_EQ(pairs("KestovaSG_OSEnvironmentVariable", "Element", "Setting", "SettingID"),
            (std::vector<std::string>{"KestovaSG_OperatingSystem -> A",
                                      "KestovaSG_OperatingSystem -> B"}));
}

TEST_F(AssociationsTest, NoAccountsNoAccountAssociations) {
  platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
      {{"machine.json", R"({"system": {"environment": {"USERNAME": "x"}}})"}}));
  // Only the environment's account, whose UserID "x" is not the (failing) current user's "".
  EXPECT_EQ(pairs("KestovaSG_AccountOnSystem", "GroupComponent", "PartComponent", "UserID").size(),
            1u);
  EXPECT_TRUE(pairs("KestovaSG_CurrentAccountOnSystem", "GroupComponent", "PartComponent", "UserID")
                  .empty());
}

TEST_F(AssociationsTest, ANullNamespaceIsTheRuntimesAssertion) {
  installedapps_col::OSSubComponent collector(hostClass("KestovaSG_OSSubComponent"));
  platform::Machine::Install(machine);
  EXPECT_EQ(collector.getCIMAssociations(nullptr), 0u);
  EXPECT_EQ(machine->fake.assertions,
            std::vector<std::string>{"px != 0 boost/smart_ptr/shared_ptr.hpp:728"});
}

}  // namespace
