// Operating-system components: the sysoc.inf walk, the component INF files, where setup
// DLL versions are looked for, installed states, the backup program, the records and log.
#include <algorithm>
#include <string>
#include <vector>

#include "collectors/components/os_component_info.h"
#include "plugin/component_machine.h"
#include "plugin/frame_fixture.h"

namespace {

using component_machine::Files;
using component_machine::InstallSpied;
using component_machine::kInfHeader;
using component_machine::MachineJson;
using component_machine::Subcomponents;
using installedapps_col::OSComponentInfo;
using Lines = std::vector<std::string>;
using NKestovaTessil20::ECIMType;

const std::string kNoComponents =
    "OsComponentInfo::getINFFileList Sysoc.inf File has no Component sections";
const std::string kClass = "KestovaSG_OSComponent";

class ComponentsTest : public FrameTest {
 protected:
  void install(const Files& files) {
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(files));
  }
  OSComponentInfo collector() { return OSComponentInfo(hostClass(kClass)); }

  // The committed instances, each as "property=value|..." over the properties named.
  Lines instances(const Lines& properties) {
    collector().getCIMInstances();
    Lines out;
    for (const auto& instance : host().GetInstances(kClass, false)) {
      std::string line;
      for (const std::string& name : properties) line += property(instance, name) + "|";
      out.push_back(line);
    }
    return out;
  }
};

TEST_F(ComponentsTest, TheComponentsListIsWalkedOnePastItsEndAndKeepsMissingFields) {
  const std::string big(1000, 'x');
  struct Case {
    const char* name;
    std::string components;  // the [Components] section's lines
    Lines entries;           // "inf|dll|hidden"
  } cases[] = {
      {"three lines, four passes",
       "A=a.dll,E,a.inf,HIDE,7\nB=b.dll,E,b.inf,,7\nC=c.dll,E,c.inf,,7\n",
       {"a.inf|a.dll|true", "b.inf|b.dll|false", "c.inf|c.dll|false", "c.inf|c.dll|false"}},
      {"empty third field: no entry; a missing fourth keeps HIDE",
       "A=a.dll,E,,HIDE\nB=b.dll,E,b.inf\n",
       {"b.inf|b.dll|true", "b.inf|b.dll|true"}},
      {"a line without fields three and four keeps both",
       "A=a.dll,E,a.inf,hide\nB=b.dll\n",
       {"a.inf|a.dll|true", "a.inf|b.dll|true", "a.inf|b.dll|true"}},
      {"fields of 1,000 characters do not fit and keep the text before",
       "A=a.dll,E,a.inf\nB=" + big + ",E," + big + "," + big + "\n",
       {"a.inf|a.dll|false", "a.inf|a.dll|false", "a.inf|a.dll|false"}},
      {"blanks around fields and a quoted name",
       "T=TsOc.dll, HydraOc, \"Ts Oc.inf\" ,hide,2\n",
       {"Ts Oc.inf|TsOc.dll|true", "Ts Oc.inf|TsOc.dll|true"}},
  };
  for (const Case& c : cases) {
    install({{"machine.json", MachineJson("", "")},
             {"files/C/W/inf/sysoc.inf", kInfHeader + "[Components]\n" + c.components}});
    Lines entries;
    for (const auto& e : collector().getINFFileList("C:\\W\\inf"))
      entries.push_back(e.infName + "|" + e.dllName + "|" + e.hidden);
    EXPECT_EQ(entries, c.entries) << c.name;
  }
}

TEST_F(ComponentsTest, WithoutAComponentsListOnlyTheBackupProgramIsReported) {
  const std::string backup = R"j("C:\\B\\ntbackup.exe": {"fileVersion": "5.1.2600.5512 (x)"})j";
  struct Case {
    const char* name;
    Files files;
  } cases[] = {
      {"no sysoc.inf", {}},
      {"no Components section", {{"files/C/W/inf/sysoc.inf", kInfHeader + "[Global]\nA=1\n"}}},
      {"an empty Components section", {{"files/C/W/inf/sysoc.inf", kInfHeader + "[Components]\n"}}},
      {"no Windows NT signature", {{"files/C/W/inf/sysoc.inf", "[Components]\nA=a,E,a.inf\n"}}},
      {"no Windows directory",
       {{"machine.json", R"({"system": {"environment": {"PATH": "C:\\B"}},
                            "setup": {"versions": {)" +
                             backup + "}}}"},
        {"files/C/W/inf/sysoc.inf", kInfHeader + "[Components]\nA=a,E,a.inf\n"}}},
  };
  for (Case& c : cases) {
    host().Reset();
    host().LoadSchema();
    host().ClearLog();
    c.files.emplace("machine.json", MachineJson("C:\\\\B", backup));
    install(c.files);
    EXPECT_EQ(instances({"Name", "Version"}), Lines{"ntbackup|5.1.2600.5512|"}) << c.name;
    EXPECT_EQ(messages(3)[0], kNoComponents) << c.name;
  }
}

TEST_F(ComponentsTest, VersionReader) {
  install({{"machine.json", MachineJson("", R"j(
      "C:\\v\\labelled.dll": {"fileVersion": "6.1.7601.17514 (win7sp1_rtm.101119-1850)",
                              "fileDescription": "Generic Setup"},
      "C:\\v\\plain.dll": {"fileVersion": "6.1.7600.16385", "fileDescription": "Fax"},
      "C:\\v\\german.dll": {"fileVersion": "5.1 beta", "language": 1031, "codePage": 1252},
      "C:\\v\\nameless.dll": {"fileDescription": "No version"},
      "C:\\v\\blank.dll": {"fileVersion": " 1.0", "fileDescription": "Leading blank"},
      "C:\\v\\long.dll": {"fileVersion": ")j" + std::string(10240, '9') +
                                                R"j( (label)"},
      "C:\\v\\none.dll": null)j")}});
  struct Case {
    const char* path;
    const char* expected;  // version|description
  } cases[] = {
      {"C:\\v\\labelled.dll", "6.1.7601.17514|Generic Setup"},
      {"C:\\v\\plain.dll", "6.1.7600.16385|Fax"},
      {"C:\\v\\german.dll", "5.1|"},  // 0407 04e4: the table its translation names
      {"C:\\v\\nameless.dll", "|No version"},
      {"C:\\v\\blank.dll", "|Leading blank"},
      {"C:\\v\\none.dll", "|"},
      {"C:\\v\\absent.dll", "|"},
  };
  for (const Case& c : cases) {
    std::string description = "stale";
    const std::string version = collector().getVersion(c.path, description);
    EXPECT_EQ(version + "|" + description, c.expected) << c.path;
  }
  std::string description;
  EXPECT_EQ(collector().getVersion("C:\\v\\long.dll", description), std::string(10240, '9'));

  // A resource whose translation cannot be read names no string table.
  auto spied = InstallSpied({{"machine.json", MachineJson("", R"(
      "C:\\v\\plain.dll": {"fileVersion": "6.1", "fileDescription": "Fax"})")}});
  spied->spy.withoutTranslation.insert("C:\\v\\plain.dll");
  description = "stale";
  EXPECT_EQ(collector().getVersion("C:\\v\\plain.dll", description), "");
  EXPECT_EQ(description, "");
}

TEST_F(ComponentsTest, PathIsSearchedLeftToRightAndItsLastPieceAlwaysTried) {
  const std::string versions = R"("C:\\A\\x.dll": null, "C:\\B\\x.dll": {"fileVersion": "2.0"},
                                  "C:\\C\\x.dll": {"fileVersion": "3.0"})";
  struct Case {
    const char* path;  // as JSON text
    const char* version;
    Lines reads;
  } cases[] = {
      {"C:\\\\A;C:\\\\B", "2.0", {"C:\\A\\x.dll", "C:\\B\\x.dll"}},
      {"C:\\\\C;C:\\\\B", "3.0", {"C:\\C\\x.dll"}},
      {"C:\\\\A;", "", {"C:\\A\\x.dll", "\\x.dll"}},
      {"C:\\\\A", "", {"C:\\A\\x.dll"}},
      {"", "", {"\\x.dll"}},
      {";C:\\\\A;;C:\\\\A;C:\\\\C", "3.0", {"\\x.dll", "C:\\A\\x.dll", "C:\\C\\x.dll"}},
  };
  for (const Case& c : cases) {
    auto spied = InstallSpied({{"machine.json", MachineJson(c.path, versions)}});
    std::string description;
    EXPECT_EQ(collector().findDllInSysPath("x.dll", description), c.version) << c.path;
    EXPECT_EQ(spied->spy.versionReads, c.reads) << c.path;
  }
}

TEST_F(ComponentsTest, InstalledStateIsTheSubcomponentsValuePlusOne) {
  install({{"registry/software.reg",
            Subcomponents("\"calc\"=dword:00000001\n\"paint\"=dword:00000000\n"
                          "\"text\"=\"7\"\n\"word\"=\"yes\"\n\"max\"=dword:ffffffff\n"
                          "\"huge\"=\"99999999999\"\n")}});
  struct Case {
    const char* id;
    unsigned state;
  } cases[] = {{"Calc", 2}, {"paint", 1}, {"Games", 0}, {"text", 8},
               {"word", 1}, {"max", 0},   {"huge", 0}};
  for (const Case& c : cases) EXPECT_EQ(collector().getInstalledState(c.id), c.state) << c.id;
}

// Each component's state is read from one opening of Subcomponents per run: a recorded key
// answers its sizes by walking its values, so sizing it per component was quadratic.
TEST_F(ComponentsTest, SubcomponentsIsOpenedOncePerRunAndClosed) {
  const std::string key =
      "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents";
  struct Case {
    const char* name;
    int files, perFile;
    bool withKey;
    unsigned opens;  // of Subcomponents
  } cases[] = {{"no components", 0, 0, true, 0},
               {"one component", 1, 1, true, 1},
               {"three files of forty", 3, 40, true, 1},
               {"no Subcomponents key", 2, 5, false, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string list = kInfHeader + "[Components]\n", values;
    Files files;
    for (int f = 0; f < c.files; ++f) {
      std::string inf = kInfHeader + "[Optional Components]\n";
      for (int i = 0; i < c.perFile; ++i) {
        const std::string id = "c" + std::to_string(f) + "_" + std::to_string(i);
        inf += id + "\n";
        values += "\"" + id + "\"=dword:0000000" + std::to_string(i % 2) + "\n";
      }
      list += "F" + std::to_string(f) + "=oc.dll,E,f" + std::to_string(f) + ".inf\n";
      files["files/C/W/inf/f" + std::to_string(f) + ".inf"] = inf;
    }
    files["files/C/W/inf/sysoc.inf"] = list;
    files["machine.json"] = MachineJson("", "");
    if (c.withKey) files["registry/software.reg"] = Subcomponents(values);
    auto spied = InstallSpied(files);
    const std::size_t earlier = host().GetInstances(kClass, false).size();
    Lines found = instances({"Name", "ComponentInstalled"});
    found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(earlier));
    const auto& registry = spied->registrySpy;
    EXPECT_EQ(std::count(registry.opened.begin(), registry.opened.end(), key), c.opens);
    EXPECT_LE(registry.sizeQueries, 1u);
    EXPECT_TRUE(registry.open.empty());
    // The states are those of reading each id on its own.
    for (const std::string& line : found) {
      const std::string id = line.substr(0, line.find('|'));
      EXPECT_EQ(line, id + "|" + std::to_string(collector().getInstalledState(id)) + "|");
    }
  }
}

TEST_F(ComponentsTest, SetupDllsAreLookedForInTheSetupFolderThenBehindRedirectionThenOnPath) {
  const std::string wow64 = R"("isWow64Process": true, "wow64FsRedirection": true)";
  struct Case {
    const char* name;
    std::string system;
    std::string versions;
    const char* version;
    Lines reads;  // of the component's DLL
  } cases[] = {
      {"in the Setup folder: PATH is never searched",
       R"("wow64FsRedirection": true)",
       R"("C:\\W\\system32\\Setup\\x.dll": {"fileVersion": "1.0"},
          "C:\\P\\x.dll": {"fileVersion": "9.9"})",
       "1.0",
       {"C:\\W\\system32\\Setup\\x.dll"}},
      {"a 32-bit process finds its SysWOW64 copy first",
       wow64,
       R"("C:\\W\\SysWOW64\\Setup\\x.dll": {"fileVersion": "3.2"},
          "C:\\W\\system32\\Setup\\x.dll": {"fileVersion": "6.4"})",
       "3.2",
       {"C:\\W\\system32\\Setup\\x.dll"}},
      {"only behind redirection: read again with it off",
       wow64,
       R"("C:\\W\\system32\\Setup\\x.dll": {"fileVersion": "6.4"})",
       "6.4",
       {"C:\\W\\system32\\Setup\\x.dll", "C:\\W\\system32\\Setup\\x.dll"}},
      {"redirection cannot be turned off",
       R"("isWow64Process": true,
         "wow64FsRedirection": {"error": 5})",
       R"("C:\\W\\system32\\Setup\\x.dll": {"fileVersion": "6.4"})",
       "",
       {"C:\\W\\system32\\Setup\\x.dll", "C:\\P\\x.dll"}},
      {"no redirection functions",
       R"("isWow64Process": true)",
       R"("C:\\W\\system32\\Setup\\x.dll": {"fileVersion": "6.4"})",
       "",
       {"C:\\W\\system32\\Setup\\x.dll", "C:\\P\\x.dll"}},
      {"on PATH",
       R"("wow64FsRedirection": true)",
       R"("C:\\P\\x.dll": {"fileVersion": "9.9"})",
       "9.9",
       {"C:\\W\\system32\\Setup\\x.dll", "C:\\W\\system32\\Setup\\x.dll", "C:\\P\\x.dll"}},
  };
  for (const Case& c : cases) {
    auto spied =
        InstallSpied({{"machine.json", MachineJson("C:\\\\P", c.versions, c.system)},
                      {"files/C/W/inf/sysoc.inf", kInfHeader + "[Components]\nX=x.dll,E,x.inf\n"},
                      {"files/C/W/inf/x.inf", kInfHeader + "[Optional Components]\nX\nY\n"}});
    const std::vector<installedapps_col::TextRecord> records = collector().getInfo(kClass);
    ASSERT_EQ(records.size(), 4u) << c.name;  // X, Y, X, Y
    for (const auto& record : records) EXPECT_EQ(record.at("Version"), c.version) << c.name;
    Lines reads;
    for (const std::string& read : spied->spy.versionReads)
      if (read.find("x.dll") != std::string::npos) reads.push_back(read);
    EXPECT_EQ(reads, c.reads) << c.name;
    // Redirection is back on afterwards.
    if (c.system == wow64) {
      std::string description;
      EXPECT_EQ(collector().getVersion("C:\\W\\system32\\Setup\\x.dll", description),
                c.reads.size() == 1 ? "3.2" : "")
          << c.name;
    }
  }
}

TEST_F(ComponentsTest, TheBackupProgramIsLookedForOnPathThenOnPathWithoutRedirection) {
  struct Case {
    const char* name;
    std::string system;
    std::string versions;
    Lines shown;
    Lines log;
  } cases[] = {
      {"on PATH",
       "",
       R"j("C:\\P\\ntbackup.exe": {"fileVersion": "5.1.2600.5512 (xpsp.080413-0852)",
                                   "fileDescription": "Backup Utility"})j",
       {"ntbackup|ntbackup.exe|Backup Utility|5.1.2600.5512|5.1.2600.5512|Microsoft "
        "Corporation|2|||<unset>|"},
       {kNoComponents, "bpName = ntbackup. version = 5.1.2600.5512"}},
      {"nowhere", R"("wow64FsRedirection": true)", "", {}, {kNoComponents}},
      {"a file without a version", "", R"("C:\\P\\ntbackup.exe": null)", {}, {kNoComponents}},
      {"only in the 64-bit system directory",
       R"("isWow64Process": true, "wow64FsRedirection": true)",
       R"("C:\\W\\system32\\ntbackup.exe": {"fileVersion": "5.2.3790.3959"})",
       {"ntbackup|ntbackup.exe||5.2.3790.3959|5.2.3790.3959|Microsoft Corporation|2|||<unset>|"},
       {kNoComponents, "bpName = ntbackup. version = 5.2.3790.3959"}},
  };
  for (const Case& c : cases) {
    host().Reset();
    host().LoadSchema();
    host().ClearLog();
    install({{"machine.json", MachineJson("C:\\\\W\\\\system32;C:\\\\P", c.versions, c.system)}});
    EXPECT_EQ(instances({"Name", "DLLName", "ProductName", "Version", "IdentifyingNumber", "Vendor",
                         "ComponentInstalled", "INFName", "Tip", "Hidden"}),
              c.shown)
        << c.name;
    Lines log = messages(3);
    log.resize(std::min(log.size(), c.log.size()));
    EXPECT_EQ(log, c.log) << c.name;
  }
}

const Lines kAll = {"Name",    "INFName", "IdentifyingNumber",  "ProductName", "Vendor", "Version",
                    "DLLName", "Tip",     "ComponentInstalled", "Hidden",      "Parent"};

TEST_F(ComponentsTest, RecordsAndLogOfOneSetup) {
  install({{"machine.json",
            MachineJson("C:\\\\P;", R"j("C:\\W\\system32\\Setup\\ocgen.dll": {"fileVersion":
            "6.1.7601.17514 (win7sp1_rtm.101119-1850)"},
            "C:\\P\\ntbackup.exe": {"fileVersion": "5.1.2600.5512", "fileDescription": "Backup"})j")},
           {"registry/software.reg", Subcomponents("\"games\"=dword:00000001\n")},
           {"files/C/W/inf/sysoc.inf",
            kInfHeader + "[Components]\nW=ocgen.dll,E,wbemoc.inf,hide\nG=ocgen.dll,E,games.inf\n"
                         "O=other.dll,E,other.inf\n"},
           {"files/C/W/inf/games.inf",
            kInfHeader + "[Optional Components]\nGames\nPinball\n[Games]\nOptionDesc=%G%\n"
                         "Tip=\"Games, and more\"\n[Pinball]\nOptionDesc=Pinball\nParent=games\n"
                         "[Strings]\nG=\"All Games\"\n"},
           {"files/C/W/inf/other.inf",
            kInfHeader + "[Optional Components]\nGames\n[Games]\nOptionDesc=Other Games\n"}});
  EXPECT_EQ(instances(kAll),
            (Lines{"Games|C:\\W\\inf\\games.inf|6.1.7601.17514|All Games|Microsoft "
                   "Corporation|6.1.7601.17514|ocgen.dll|Games, and more|2|true||",
                   "Pinball|C:\\W\\inf\\games.inf|6.1.7601.17514|Pinball|Microsoft "
                   "Corporation|6.1.7601.17514|ocgen.dll||0|true|games|",
                   "Games|C:\\W\\inf\\other.inf||Other Games|Microsoft "
                   "Corporation||other.dll||2|true||",
                   "Games|C:\\W\\inf\\other.inf||Other Games|Microsoft "
                   "Corporation||other.dll||2|true||",
                   "ntbackup||5.1.2600.5512|Backup|Microsoft "
                   "Corporation|5.1.2600.5512|ntbackup.exe||2|<unset>||"}));
  EXPECT_EQ(messages(3),
            (Lines{"OsComponentInfo::getInfo C:\\W\\inf\\wbemoc.inf cannot be parsed because "
                   "file does not exist. ",
                   "bpName = ntbackup. version = 5.1.2600.5512",
                   "Fixing up instance ...KestovaSG_OSComponent with propertyINFName",
                   "Fixing up instance ...KestovaSG_OSComponent with propertyTip",
                   "Fixing up instance ...KestovaSG_OSComponent with propertyParent"}));
  // The declared types: a number and a boolean.
  const auto instance = host().GetInstances(kClass, false)[0];
  boost::shared_ptr<NKestovaTessil20::ICIMProperty> handle;
  instance->GetProperty(handle, "ComponentInstalled", {});
  EXPECT_EQ(ECIMType(handle->GetValue().GetType()), NKestovaTessil20::eCIMTypeUInt32);
  instance->GetProperty(handle, "Hidden", {});
  EXPECT_EQ(ECIMType(handle->GetValue().GetType()), NKestovaTessil20::eCIMTypeBoolean);
}

TEST_F(ComponentsTest, HostErrorsAreLoggedAndEndTheRun) {
  install({});
  OSComponentInfo orphan{boost::shared_ptr<NKestovaTessil20::ICIMClass>()};
  EXPECT_EQ(orphan.getCIMInstances(), 0u);
  EXPECT_EQ(messages(3), Lines{"OSComponentInfo::getCIMInstances Encountered an error generating "
                               "CIM instances. Error Code: 7"});
}

TEST_F(ComponentsTest, ExampleMachines) {
  struct Case {
    const char* machine;
    std::size_t count;
    Lines some;  // Name|INFName|Version|Installed|Hidden|Parent|Tip
    Lines log;   // before the fix-up messages
  } cases[] = {
      {"win7-sp1-x64",
       28,
       {"NetOC|C:\\Windows\\inf\\netoc.inf|6.1.7600.16385|2|false||Contains a variety of "
        "specialized, network-related services and protocols|",
        "Fax|C:\\Windows\\inf\\fxsocm.inf|6.1.7600.16385|1|false||Sends and receives faxes, "
        "using fax devices|",
        "MSWordPad|C:\\Windows\\inf\\accessor.inf|6.1.7601.17514|2|true|AccessOpt||",
        "Pinball|C:\\Windows\\inf\\games.inf|6.1.7601.17514|1|true|games|The Pinball game|",
        "Games|C:\\Windows\\inf\\games.inf|6.1.7601.17514|0|true||Includes a variety of games "
        "for single and multiple players|",
        "ntbackup||5.1.2600.5512|2|<unset>|||"},
       {"OsComponentInfo::getInfo C:\\Windows\\inf\\wbemoc.inf cannot be parsed because file "
        "does not exist. ",
        "bpName = ntbackup. version = 5.1.2600.5512"}},
      {"xp-sp3",
       24,
       {"msmq|C:\\WINDOWS\\inf\\msmqocm.inf||1|false||Provides a communication infrastructure "
        "and a development tool for creating distributed messaging applications.|",
        "msnexplr|C:\\WINDOWS\\inf\\msnmsn.inf|6.1.0000.0000|2|false||MSN Explorer: a program "
        "for browsing the Web, e-mail and chat.|",
        "CommApps|C:\\WINDOWS\\inf\\accessor.inf|5.1.2600.5512|2|false|AccessUtil||",
        "zonegames|C:\\WINDOWS\\inf\\games.inf|5.1.2600.5512|2|false|Games|Play games with other "
        "people on the Internet.|"},
       {"OsComponentInfo::getInfo C:\\WINDOWS\\inf\\wbemoc.inf cannot be parsed because file "
        "does not exist. ",
        "OsComponentInfo::getInfo C:\\WINDOWS\\inf\\TsOc.inf cannot be parsed because file does "
        "not exist. ",
        "bpName = ntbackup. version = 5.1.2600.5512"}},
      {"server2003r2-x64",
       11,
       {"AccessUtil|C:\\WINDOWS\\inf\\accessor.inf|5.2.3790.3959|2|false||Includes Windows "
        "Accessories and Utilities for your computer.|",
        "DNS|C:\\WINDOWS\\inf\\netoc.inf|5.2.3790.4143|2|false|NetServices|Sets up a DNS server "
        "that answers query and update requests for DNS names.|",
        "Reminst|C:\\WINDOWS\\inf\\reminst.inf|5.2.3790.3959|1|true||Provides the ability to "
        "remotely install Windows on computers that support remote booting.|",
        "ntbackup||5.2.3790.3959|2|<unset>|||"},
       {"OsComponentInfo::getInfo C:\\WINDOWS\\inf\\wbemoc.inf cannot be parsed because file "
        "does not exist. ",
        "bpName = ntbackup. version = 5.2.3790.3959"}},
  };
  for (const Case& c : cases) {
    host().Reset();
    host().LoadSchema();
    host().ClearLog();
    platform::Machine::Install(platform::recorded::RecordedMachine::Load(
        std::string(IA_SOURCE_DIR) + "/examples/machines/" + c.machine));
    const Lines shown =
        instances({"Name", "INFName", "Version", "ComponentInstalled", "Hidden", "Parent", "Tip"});
    EXPECT_EQ(shown.size(), c.count) << c.machine;
    for (const std::string& line : c.some)
      EXPECT_NE(std::find(shown.begin(), shown.end(), line), shown.end())
          << c.machine << ": " << line;
    Lines log = messages(3);
    log.resize(std::min(log.size(), c.log.size()));
    EXPECT_EQ(log, c.log) << c.machine;
  }
}

}  // namespace
