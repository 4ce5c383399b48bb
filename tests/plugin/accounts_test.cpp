// Accounts on recorded and scripted machines: which accounts are reported, with which
// properties, and where damaged network answers stop.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "collectors/accounts/os_user_info.h"
#include "plugin/frame_fixture.h"

namespace {

using installedapps_col::OSUserInfo;
using installedapps_col::PropertyMap;
using namespace platform;

std::shared_ptr<Machine> Recorded(const std::string& net, const std::string& environment) {
  return recorded::RecordedMachine::FromFiles(
      {{"machine.json", R"({"system": {"computerName": "LAB", "crt": {"timezone": 0},
          "environment": )" +
                            environment + R"(}, "net": )" + net + "}"}});
}

// "UserID|Name|LogonServer|Domain|HomeDirectory" per account; "-" for a LogonServer not set.
std::vector<std::string> Brief(const std::vector<PropertyMap>& accounts) {
  std::vector<std::string> out;
  for (const PropertyMap& a : accounts) {
    const auto server = a.find("LogonServer");
    out.push_back(a.at("UserID").ToString() + "|" + a.at("Name").ToString() + "|" +
                  (server == a.end() ? "-" : server->second.ToString()) + "|" +
                  a.at("Domain").ToString() + "|" + a.at("HomeDirectory").ToString());
  }
  return out;
}

class AccountsTest : public FrameTest {
 protected:
  std::vector<PropertyMap> accounts() {
    return OSUserInfo(hostClass("KestovaSG_Account")).getAccounts();
  }
};

TEST_F(AccountsTest, WhoIsReported) {
  const std::string users = R"({"records": [{"name": "ann", "fullName": "Ann Lee"},
      {"name": "bob"}, {"name": ""}]})";
  const std::string home = R"("USERPROFILE": "C:\\Users\\x", "USERDOMAIN": "LAB")";
  struct Case {
    std::string loggedOn, environment;
    std::vector<std::string> expected;
  } cases[] = {
      // Nobody logged on: only the environment's account, without LogonServer.
      {"", R"({"USERNAME": "bob", )" + home + "}", {"bob|bob|-|LAB|C:\\Users\\x"}},
      // A full name that differs: listed twice, the second time with the LogonServer of the
      // last account reported. A second session of bob changes nothing.
      {R"({"username": "bob", "logonServer": "SB"}, {"username": "ann", "logonServer": "SA"},
          {"username": "bob", "logonServer": "SX"})",
       R"({"USERNAME": "ann", )" + home + "}",
       {"ann|Ann Lee|SA||", "bob|bob|SB||", "ann|ann|SB|LAB|C:\\Users\\x"}},
      // No full name: the logon name, which matches USERNAME exactly or not at all.
      {R"({"username": "bob", "logonServer": "SB"})", R"({"USERNAME": "bob"})", {"bob|bob|SB||"}},
      {R"({"username": "bob", "logonServer": "SB"})",
       R"({"USERNAME": "BOB"})",
       {"bob|bob|SB||", "BOB|BOB|-||"}},
      // USERNAME unset: the empty name, unless an account has it.
      {R"({"username": "ann"})", "{}", {"ann|Ann Lee|||", "||-||"}},
      {R"({"username": "", "logonServer": "S0"})", "{}", {"||S0||"}},
  };
  for (const Case& c : cases) {
    platform::Machine::Install(
        Recorded(R"({"users": )" + users + R"(, "loggedOn": {"records": [)" + c.loggedOn + "]}}",
                 c.environment));
    EXPECT_EQ(Brief(accounts()), c.expected) << c.loggedOn << " " << c.environment;
  }
}

TEST_F(AccountsTest, PropertiesOfAnEnumeratedAccount) {
  platform::Machine::Install(Recorded(
      R"({"users": {"records": [{"name": "zed", "fullName": "Zed", "comment": "c",
          "homeDir": "h", "flags": "0x00800002", "lastLogon": 0, "passwordAge": 0,
          "countryCode": 48}, {"name": "amy", "flags": "0x60", "lastLogon": 86400,
          "passwordAge": 90061}]}, "loggedOn": {"records": [{"username": "zed",
          "logonDomain": "D", "logonServer": "S"}, {"username": "amy"}]}})",
      R"({"USERNAME": "Zed"})"));
  const std::vector<PropertyMap> found = accounts();
  ASSERT_EQ(found.size(), 2u);
  std::string shown;
  for (const auto& p : found[0])
    shown += p.first + ":" + p.second.GetType().ToString() + "=" + p.second.ToString() + ";";
  EXPECT_EQ(shown,
            "AccountEnabled:boolean=false;Descriptions:string=c;Domain:string=D;HomeDirectory:"
            "string=h;Host:string=LAB;LocalityName:string=48;LogonServer:string=S;Name:string=Zed;"
            "PasswordAge:datetime=00000000000000.000000:000;PasswordExpired:boolean=true;"
            "RequiresPassword:boolean=true;UserCanChangePassword:boolean=true;UserID:string=zed;");
  EXPECT_EQ(found[1].at("LastLogon").ToString(), "19700102000000.000000+000");
  EXPECT_EQ(found[1].at("PasswordAge").ToString(), "00000001010101.000000:000");
  EXPECT_FALSE(found[1].at("RequiresPassword").GetBoolean());
  EXPECT_FALSE(found[1].at("UserCanChangePassword").GetBoolean());
}

// The cap is looked at between batches: with batches of 5 the 16th record's batch ends at 20.
TEST_F(AccountsTest, SixteenRecordsEndTheEnumerationAfterTheirBatch) {
  std::string users, sessions;
  for (int i = 100; i < 125; ++i) {
    users += R"({"name": "u)" + std::to_string(i) + R"(", "fullName": ""},)";
    sessions += R"({"username": "u)" + std::to_string(i) + R"("},)";
  }
  for (const auto& c :
       std::vector<std::pair<int, std::size_t>>{{5, 20}, {1, 16}, {0, 16}, {17, 17}}) {
    platform::Machine::Install(Recorded(R"({"users": {"batchSize": )" + std::to_string(c.first) +
                                            R"(, "records": [)" + users +
                                            R"({"name": "last"}]}, "loggedOn": {"records": [)" +
                                            sessions + R"({"username": "x"}]}})",
                                        R"({"USERNAME": "u100"})"));
    EXPECT_EQ(accounts().size(), c.second) << "batches of " << c.first;
  }
}

TEST_F(AccountsTest, DefaultMachine) {
  platform::Machine::Install(
      recorded::RecordedMachine::Load(IA_SOURCE_DIR "/examples/machines/win7-sp1-x64"));
  EXPECT_EQ(OSUserInfo(hostClass("KestovaSG_Account")).getCIMInstances(), 8u);
  const auto instances = host().GetInstances("KestovaSG_Account", false);
  std::vector<std::string> order;
  for (const auto& i : instances) {
    order.push_back(property(i, "UserID") + "|" + property(i, "Name") + "|" +
                    property(i, "LogonServer") + "|" + property(i, "LastLogon"));
  }
  // wzielinski is logged on but comes after the batch of the 16th account.
  EXPECT_EQ(order, (std::vector<std::string>{
                       "backup|backup|WKS-0142|20121106010000.000000+120",
                       "ewojcik|Ewa W\xF3jcik|WKS-0142|20121106100000.000000+120",
                       "jnowak|Jan Nowak|WKS-0142|20120101110000.000000+120",
                       "kiosk|Reception Kiosk|WKS-0142|20121106060000.000000+120",
                       "mkowalczyk|Marta Kowalczyk|WKS-0142|20121106080000.000000+120",
                       "pkrawczyk|Piotr Krawczyk|WKS-0142|20121105082000.000000+120",
                       "tkaminski|Tomasz Kaminski|\\\\WKS-0142|20121106101000.000000+120",
                       "mkowalczyk|mkowalczyk|\\\\WKS-0142|<unset>"}));
  std::string declared;
  for (const auto& view : NKestovaTessil20::THost::ListProperties(instances[7])) {
    declared += view.name + ":" + view.type.ToString() + "=" +
                (view.value.IsNull() ? "<unset>" : view.value.ToString()) + ";";
  }
  EXPECT_EQ(declared,
            "CreationClassName:string=KestovaSG_Account;SystemCreationClassName:string=KestovaSG_"
            "ComputerSystem;SystemName:string=WKS-0142;UserID:string=mkowalczyk;Name:string="
            "mkowalczyk;LastLogon:datetime=<unset>;Host:string=;LocalityName:string=;Descriptions:"
            "string=;AccountEnabled:boolean=<unset>;RequiresPassword:boolean=<unset>;"
            "UserCanChangePassword:boolean=<unset>;PasswordExpired:boolean=<unset>;PasswordAge:"
            "datetime=<unset>;HomeDirectory:string=C:\\Users\\mkowalczyk;LogonServer:string="
            "\\\\WKS-0142;Domain:string=WKS-0142;");
  EXPECT_EQ(OSUserInfo::getCurrentUserName(), "mkowalczyk");
}

TEST_F(AccountsTest, OtherExampleMachines) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"xp-sp3",
       {"Administrator|Administrator|LAB-XP3|LAB-XP3|",
        "labuser|Lab User|LAB-XP3|LAB-XP3|C:\\Lab"}},
      // The service account may not list sessions (access denied): nobody is logged on.
      {"server2003r2-x64", {"svc-inventory|svc-inventory|-||"}},
  };
  for (const auto& c : cases) {
    platform::Machine::Install(recorded::RecordedMachine::Load(
        std::string(IA_SOURCE_DIR "/examples/machines/") + c.first));
    EXPECT_EQ(Brief(accounts()), c.second) << c.first;
  }
}

TEST_F(AccountsTest, HostErrorIsLoggedWithItsCode) {
  platform::Machine::Install(Recorded(R"({"loggedOn": {"records": []}})", R"({"USERNAME": "x"})"));
  const std::string text =
      "OSUserInfo::getCIMInstances Encountered an error\t\t\t\t\t\t\t\t\tgenerating CIM instance. "
      "Error Code: ";
  // A class without the account's properties (2), and no class at all (7).
  EXPECT_EQ(OSUserInfo(hostClass("KestovaSG_PageFile")).getCIMInstances(), 0u);
  EXPECT_EQ(OSUserInfo(nullptr).getCIMInstances(), 0u);
  EXPECT_EQ(messages(3), (std::vector<std::string>{text + "2", text + "7"}));
}

TEST_F(AccountsTest, HostileMachineStaysWithinItsBounds) {
  platform::Machine::Install(
      recorded::RecordedMachine::Load(IA_SOURCE_DIR "/tests/fixtures/machines/hostile-accounts"));
  // Both enumerations end at their first ERROR_MORE_DATA without a buffer, before "never".
  // Names of 230 and 300 characters are keys of 230 and 256 characters in the logged-on
  // table but are looked up by their first 200, so only the 200-character one is found.
  const std::string n(200, 'N'), l(300, 'L');
  EXPECT_EQ(Brief(accounts()),
            (std::vector<std::string>{
                n + "|" + n + "|" + std::string(256, 'S') + "|" + std::string(256, 'D') + "|" +
                    std::string(256, 'H'),
                // A surrogate pair across the bound leaves a half the code page lacks.
                "wide|" + std::string(255, 'F') + "?|FIRST|HOSTILE|",
                l + "|" + l + "|-||"}));  // USERNAME is taken whole
  const PropertyMap first = accounts()[0];
  EXPECT_EQ(first.at("Descriptions").ToString(), std::string(256, 'C'));
  EXPECT_EQ(first.at("LastLogon").ToString(), "21060207062815.000000+000");
  EXPECT_EQ(first.at("PasswordAge").ToString(), "00049710062815.000000:000");
  EXPECT_EQ(OSUserInfo::getCurrentUserName(), l);
}

TEST_F(AccountsTest, TenThousandSessionsOfNamesAndOfOneName) {
  std::string sessions;
  for (int i = 0; i < 20000; ++i) {
    sessions += R"({"username": "s)" + std::to_string(i < 10000 ? i : 7) +
                R"(", "logonServer": ")" + std::to_string(i) + R"("},)";
  }
  platform::Machine::Install(Recorded(
      R"({"users": {"records": [{"name": "s7"}, {"name": "s9999"}, {"name": "s10000"}]},
          "loggedOn": {"batchSize": 3000, "records": [)" +
          sessions + R"({"username": "s7"}]}})",
      R"({"USERNAME": "s7"})"));
  OSUserInfo collector(hostClass("KestovaSG_Account"));
  EXPECT_EQ(collector.getLoggedOnUsers().size(), 10000u);
  EXPECT_EQ(Brief(collector.getAccounts()),
            (std::vector<std::string>{"s7|s7|7||", "s9999|s9999|9999||"}));
}

// Answers a script gives, for what a recorded machine cannot be made to say.
class ScriptedNet : public NetApi {
 public:
  // From the call's number: a status, a buffer and its count.
  using Script = std::function<NET_API_STATUS(int call, BYTE** buffer, DWORD* read)>;
  Script users, sessions;
  std::function<BOOL(int call, char* buffer, DWORD* size)> userName;
  int userCalls = 0, sessionCalls = 0, nameCalls = 0, outstanding = 0;

  NET_API_STATUS NetUserEnum(const WCHAR*, DWORD, DWORD, BYTE** buffer, DWORD, DWORD* read, DWORD*,
                             DWORD*) override {
    return hand(users, userCalls++, buffer, read);
  }
  NET_API_STATUS NetWkstaUserEnum(const WCHAR*, DWORD, BYTE** buffer, DWORD, DWORD* read, DWORD*,
                                  DWORD*) override {
    return hand(sessions, sessionCalls++, buffer, read);
  }
  NET_API_STATUS NetApiBufferFree(void*) override { return --outstanding, NERR_Success; }
  BOOL GetUserNameA(char* buffer, DWORD* size) override {
    return userName(nameCalls++, buffer, size);
  }

 private:
  NET_API_STATUS hand(Script& script, int call, BYTE** buffer, DWORD* read) {
    const NET_API_STATUS status = script(call, buffer, read);
    if (*buffer != nullptr) ++outstanding;
    return status;
  }
};

class ScriptedMachine : public Machine {
 public:
  std::shared_ptr<Machine> base = Recorded("{}", R"({"USERNAME": "ann"})");
  ScriptedNet scripted;
  Registry& registry() override { return base->registry(); }
  System& system() override { return base->system(); }
  Pdh& pdh() override { return base->pdh(); }
  NetApi& net() override { return scripted; }
  Wmi& wmi() override { return base->wmi(); }
  Setup& setup() override { return base->setup(); }
};

TEST_F(AccountsTest, ScriptedAnswersEndAndReleaseEveryBuffer) {
  static WCHAR ann[] = u"ann";
  static USER_INFO_3 users[2] = {};
  users[0].usri3_name = ann;  // users[1]: every string null
  static WKSTA_USER_INFO_1 sessions[2] = {{ann, nullptr, nullptr, nullptr}, {}};
  auto give = [](void* records, DWORD count, NET_API_STATUS status) {
    return [=](int, BYTE** buffer, DWORD* read) {
      *buffer = static_cast<BYTE*>(records);
      *read = count;
      return status;
    };
  };
  const NET_API_STATUS more = ERROR_MORE_DATA, done = NERR_Success;
  struct Case {
    const char* what;
    ScriptedNet::Script users, sessions;
    int userCalls, sessionCalls;
    std::vector<std::string> expected;
  } cases[] = {
      {"users: more for ever", give(users, 1, more), give(sessions, 1, done), 16, 1,
       std::vector<std::string>(16, "ann|ann|||")},
      {"sessions: more for ever",
       give(users, 1, done),
       give(sessions, 1, more),
       1,
       100000,
       {"ann|ann|||"}},
      {"a count without a buffer",
       give(nullptr, 5, more),
       give(nullptr, 5, more),
       1,
       1,
       {"ann|ann|-||"}},
      {"a buffer without a count",
       give(users, 0, more),
       give(sessions, 0, more),
       1,
       1,
       {"ann|ann|-||"}},
      {"a buffer with a failure", give(users, 1, 5), give(sessions, 1, 5), 1, 1, {"ann|ann|-||"}},
      {"null strings", give(users, 2, done), give(sessions, 2, done), 1, 1, {"ann|ann|||", "||||"}},
  };
  for (const Case& c : cases) {
    auto machine = std::make_shared<ScriptedMachine>();
    machine->scripted.users = c.users;
    machine->scripted.sessions = c.sessions;
    platform::Machine::Install(machine);
    EXPECT_EQ(Brief(accounts()), c.expected) << c.what;
    EXPECT_EQ(machine->scripted.userCalls, c.userCalls) << c.what;
    EXPECT_EQ(machine->scripted.sessionCalls, c.sessionCalls) << c.what;
    EXPECT_EQ(machine->scripted.outstanding, 0) << c.what;
  }
}

TEST_F(AccountsTest, CurrentUserNameFromTwoCalls) {
  struct Case {
    DWORD lastError, sizeAsked;
    BOOL second;
    std::string expected;
  } cases[] = {
      {ERROR_INSUFFICIENT_BUFFER, 5, TRUE, "ann"}, {5, 5, TRUE, ""},
      {ERROR_INSUFFICIENT_BUFFER, 0, TRUE, ""},    {ERROR_INSUFFICIENT_BUFFER, 1u << 20, TRUE, ""},
      {ERROR_INSUFFICIENT_BUFFER, 5, FALSE, ""},   {ERROR_INSUFFICIENT_BUFFER, 2, TRUE, "an"},
  };
  for (const Case& c : cases) {
    auto machine = std::make_shared<ScriptedMachine>();
    machine->scripted.userName = [&c, &machine](int call, char* buffer, DWORD* size) -> BOOL {
      if (call > 0) return std::memcpy(buffer, "ann", std::min<DWORD>(*size, 4)), c.second;
      machine->base->system().SetLastError(c.lastError);
      *size = c.sizeAsked;
      return FALSE;
    };
    platform::Machine::Install(machine);
    EXPECT_EQ(OSUserInfo::getCurrentUserName(), c.expected) << c.sizeAsked << " " << c.second;
  }
}

}  // namespace
