// iac capture: a recorded machine captured through the seam answers as its source does.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "cli/app.h"
#include "collectors/components/os_component_info.h"
#include "common/log_message.h"
#include "platform/capture/capture.h"
#include "platform/machine.h"
#include "platform/recorded/recorded_machine.h"
#include "platform/recorded/reg_parser.h"
#include "plugin/component_machine.h"
#include "tessilcore/host.h"

namespace {

namespace fs = std::filesystem;
using platform::Machine;
using platform::recorded::RecordedMachine;

std::string Hex(const void* data, size_t size) {
  std::ostringstream text;
  for (size_t i = 0; i < size; ++i)
    text << std::hex << int(static_cast<const unsigned char*>(data)[i]) << ',';
  return text.str();
}

// Every key and value below `path`, as the A calls hand them out.
std::string DumpKey(Machine& m, platform::HKEY root, const std::string& path, bool subKeys) {
  platform::Registry& r = m.registry();
  platform::HKEY key = nullptr;
  if (r.RegOpenKeyExA(root, path.c_str(), 0, platform::KEY_READ, &key) != 0)
    return "missing " + path;
  std::ostringstream out;
  out << "[" << path << "]\n";
  char name[1024];
  std::vector<platform::BYTE> data(1 << 16);
  for (platform::DWORD i = 0;; ++i) {
    platform::DWORD nameLength = sizeof name,
                    dataLength = static_cast<platform::DWORD>(data.size()), type = 0;
    if (r.RegEnumValueA(key, i, name, &nameLength, nullptr, &type, data.data(), &dataLength) != 0)
      break;
    out << std::string(name, nameLength) << " " << type << " " << Hex(data.data(), dataLength)
        << "\n";
  }
  std::vector<std::string> children;
  for (platform::DWORD i = 0; subKeys; ++i) {
    platform::DWORD nameLength = sizeof name;
    if (r.RegEnumKeyExA(key, i, name, &nameLength, nullptr, nullptr, nullptr, nullptr) != 0) break;
    children.emplace_back(name, nameLength);
  }
  r.RegCloseKey(key);
  for (const std::string& child : children) out << DumpKey(m, root, path + "\\" + child, true);
  return out.str();
}

std::string Version(Machine& m) {
  platform::OSVERSIONINFOEXA v{};
  v.dwOSVersionInfoSize = sizeof v;
  if (!m.system().GetVersionExA(reinterpret_cast<platform::OSVERSIONINFOA*>(&v)))
    return "error " + std::to_string(m.system().GetLastError());
  platform::DWORD product = 0;
  platform::HMODULE kernel = m.system().GetModuleHandleA("kernel32");
  const bool hasProduct = kernel && m.system().GetProcAddress(kernel, "GetProductInfo");
  if (hasProduct) m.system().GetProductInfo(v.dwMajorVersion, v.dwMinorVersion, 0, 0, &product);
  return Hex(&v, sizeof v) + " product " + std::to_string(hasProduct) + "/" +
         std::to_string(product);
}

std::string Environment(Machine& m) {
  std::string out;
  for (const char* name :
       {"USERNAME", "USERPROFILE", "SystemDrive", "SystemRoot", "PATH", "windir"}) {
    const char* value = m.system().getenv(name);
    out += std::string(name) + "=" + (value ? value : "(unset)") + "\n";
  }
  return out;
}

std::string PageFiles(Machine& m) {
  std::string out;
  platform::HMODULE psapi = m.system().LoadLibraryA("psapi.dll");
  if (!psapi || !m.system().GetProcAddress(psapi, "EnumPageFilesA")) return "no psapi";
  auto callback = [](void* context, platform::ENUM_PAGE_FILE_INFORMATION* info, const char* name) {
    *static_cast<std::string*>(context) += std::string(name) + " " +
                                           std::to_string(info->TotalSize) + " " +
                                           std::to_string(info->PeakUsage) + "\n";
    return platform::TRUE;
  };
  const platform::BOOL ok = m.system().EnumPageFilesA(callback, &out);
  return out + (ok ? "ok" : "failed " + std::to_string(m.system().GetLastError()));
}

std::string Users(Machine& m) {
  std::string out;
  platform::DWORD resume = 0;
  platform::NET_API_STATUS status = 0;
  do {
    platform::BYTE* buffer = nullptr;
    platform::DWORD read = 0, total = 0;
    status = m.net().NetUserEnum(nullptr, 3, 0, &buffer, 100, &read, &total, &resume);
    for (platform::DWORD i = 0; buffer && i < read; ++i) {
      const auto& u = reinterpret_cast<platform::USER_INFO_3*>(buffer)[i];
      out += std::to_string(std::u16string(u.usri3_name).size()) + "/" +
             std::to_string(u.usri3_flags) + "/" + std::to_string(u.usri3_user_id) + "/" +
             std::to_string(u.usri3_last_logon) + ";";
    }
    if (buffer) m.net().NetApiBufferFree(buffer);
  } while (status == platform::ERROR_MORE_DATA);
  return out + " status " + std::to_string(status);
}

std::string Fixes(Machine& m) {
  platform::Wmi& w = m.wmi();
  w.CoInitializeEx(nullptr, platform::COINIT_MULTITHREADED);
  platform::IWbemLocator* locator = nullptr;
  platform::HRESULT hr = w.CoCreateWbemLocator(platform::CLSCTX_INPROC_SERVER, &locator);
  if (platform::FAILED(hr)) return "locator " + std::to_string(hr);
  platform::IWbemServices* services = nullptr;
  hr = locator->ConnectServer(u"ROOT\\CIMV2", nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                              &services);
  std::string out = "connect " + std::to_string(hr);
  platform::IEnumWbemClassObject* rows = nullptr;
  if (services && platform::SUCCEEDED(services->ExecQuery(
                      u"WQL", u"SELECT * FROM Win32_QuickFixEngineering", 0x30, nullptr, &rows))) {
    platform::IWbemClassObject* row = nullptr;
    platform::ULONG returned = 0;
    while (platform::SUCCEEDED(rows->Next(-1, 1, &row, &returned)) && returned == 1) {
      for (const char16_t* property :
           {u"HotFixID", u"InstallDate", u"InstalledOn", u"Description"}) {
        platform::VARIANT value;
        w.VariantInit(&value);
        const platform::HRESULT got = row->Get(property, 0, &value, nullptr, nullptr);
        out += " " + std::to_string(got) + ":" + std::to_string(value.vt);
        if (value.vt == platform::VT_BSTR)
          out += std::to_string(std::u16string(value.bstrVal).size());
        if (value.vt == platform::VT_DATE) out += std::to_string(value.date);
        w.VariantClear(&value);
      }
      row->Release();
    }
    rows->Release();
  }
  if (services) services->Release();
  locator->Release();
  w.CoUninitialize();
  return out;
}

std::string ComponentsInf(Machine& m) {
  platform::HINF inf = m.setup().SetupOpenInfFileA("C:\\Windows\\inf\\sysoc.inf", nullptr,
                                                   platform::INF_STYLE_WIN4, nullptr);
  if (inf == platform::INVALID_HANDLE_VALUE) return "none";
  std::string out;
  for (platform::DWORD i = 0; i < 3; ++i) {
    platform::INFCONTEXT context{};
    char text[256] = {};
    if (m.setup().SetupGetLineByIndexA(inf, "Components", i, &context) &&
        m.setup().SetupGetLineTextA(&context, nullptr, nullptr, nullptr, text, sizeof text,
                                    nullptr))
      out += std::string(text) + "\n";
  }
  m.setup().SetupCloseInfFile(inf);
  return out;
}

std::string FileVersion(Machine& m, const char* path) {
  platform::DWORD handle = 0;
  const platform::DWORD size = m.setup().GetFileVersionInfoSizeA(path, &handle);
  if (size == 0) return "error " + std::to_string(m.system().GetLastError());
  std::vector<char> block(size);
  void* value = nullptr;
  platform::UINT length = 0;
  if (!m.setup().GetFileVersionInfoA(path, handle, size, block.data()) ||
      !m.setup().VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &value, &length))
    return "no translation";
  const auto* pair = static_cast<const platform::WORD*>(value);
  char query[64];
  std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\FileVersion", pair[0], pair[1]);
  std::string out = std::to_string(pair[0]) + "/" + std::to_string(pair[1]);
  if (m.setup().VerQueryValueA(block.data(), query, &value, &length))
    out += static_cast<const char*>(value);
  return out;
}

// KestovaSG_OSComponent of a machine folder, collected in this process: every property of
// every instance, then the collector's log.
std::string Components(const fs::path& machine) {
  platform::Machine::Install(RecordedMachine::Load(machine.string()));
  NKestovaTessil20::THost& host = NKestovaTessil20::THost::Instance();
  host.Reset();
  host.LoadSchema();
  installedapps_col::LogMessage::setLoggingGate(&host);
  boost::shared_ptr<NKestovaTessil20::ICIMClass> cls;
  host.GetNamespace()->GetClass(cls, "KestovaSG_OSComponent", {});
  installedapps_col::OSComponentInfo(cls).getCIMInstances();
  std::string out;
  for (const auto& instance : host.GetInstances("KestovaSG_OSComponent", false)) {
    for (const auto& view : NKestovaTessil20::THost::ListProperties(instance)) {
      boost::shared_ptr<NKestovaTessil20::ICIMProperty> property;
      instance->GetProperty(property, view.name, {});
      const NKestovaTessil20::TCIMValue value = property->GetValue();
      out += view.name + "=" + (value.IsNull() ? "<unset>" : value.ToString()) + "|";
    }
    out += "\n";
  }
  for (const auto& record : host.GetLog()) out += record.message + "\n";
  installedapps_col::LogMessage::setLoggingGate(nullptr);
  host.Reset();
  platform::Machine::Install(nullptr);
  return out;
}

const platform::HKEY HKLM = platform::HKEY_LOCAL_MACHINE;
const std::vector<std::pair<std::string, std::function<std::string(Machine&)>>> kProbes = {
    {"version", Version},
    {"CurrentVersion",
     [](Machine& m) {
       return DumpKey(m, HKLM, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", false);
     }},
    {"Uninstall",
     [](Machine& m) {
       return DumpKey(m, HKLM, "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall", true);
     }},
    {"BCD", [](Machine& m) { return DumpKey(m, HKLM, "BCD00000000", true); }},
    {"system environment",
     [](Machine& m) {
       return DumpKey(m, HKLM, "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment",
                      true);
     }},
    {"user environment",
     [](Machine& m) { return DumpKey(m, platform::HKEY_CURRENT_USER, "Environment", true); }},
    {"process environment", Environment},
    {"page files", PageFiles},
    {"users", Users},
    {"fixes", Fixes},
    {"sysoc.inf", ComponentsInf},
    {"ocgen.dll",
     [](Machine& m) { return FileVersion(m, "C:\\Windows\\System32\\Setup\\ocgen.dll"); }},
    {"ntbackup.exe",
     [](Machine& m) {
       return FileVersion(m, "C:\\Program Files\\Windows NT\\ntbackup\\ntbackup.exe");
     }},
};

class CaptureTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    scratch = fs::temp_directory_path() / ("capture_test_" + std::to_string(::getpid()));
    fs::create_directories(scratch);
  }
  void TearDown() override {
    Machine::Install(nullptr);
    fs::remove_all(scratch);
  }
  int iac(std::vector<std::string> args, std::string* err = nullptr) {
    args.insert(args.begin(), "iac");
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    std::ostringstream out, errors;
    const int status = iac::run(static_cast<int>(argv.size()), argv.data(), out, errors);
    if (err) *err = errors.str();
    return status;
  }
  // Every class the plug-in serves, with the log at every level.
  static std::string collect(const fs::path& machine) {
    const std::string command = IA_BIN_DIR "/iac collect --machine '" + machine.string() +
                                "' --format json --log-level 4 2>&1";
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
    pclose(pipe);
    return out;
  }
  // Writes a machine folder below the scratch folder and captures it; answers the capture.
  fs::path captureOf(const std::map<std::string, std::string>& files) {
    const fs::path source = scratch / "source";
    for (const auto& [relative, bytes] : files) {
      fs::create_directories((source / relative).parent_path());
      std::ofstream(source / relative, std::ios::binary) << bytes;
    }
    std::string err;
    EXPECT_EQ(
        iac({"capture", "--machine", source.string(), "--out", (scratch / "out").string()}, &err),
        0)
        << err;
    return scratch / "out";
  }
  fs::path scratch;
};

TEST_P(CaptureTest, CaptureAnswersAsItsSource) {
  const fs::path source = fs::path(IA_SOURCE_DIR) / "examples" / "machines" / GetParam();
  const fs::path captured = scratch / "capture";
  std::string err;
  ASSERT_EQ(iac({"capture", "--machine", source.string(), "--out", captured.string()}, &err), 0)
      << err;
  auto original = RecordedMachine::Load(source.string());
  auto copy = RecordedMachine::Load(captured.string());
  for (const auto& [name, probe] : kProbes) EXPECT_EQ(probe(*copy), probe(*original)) << name;
  EXPECT_EQ(collect(captured), collect(source));
  EXPECT_EQ(Components(captured), Components(source));
  for (const fs::directory_entry& entry : fs::directory_iterator(scratch))
    EXPECT_EQ(entry.path().filename(), "capture") << "left behind";
}

INSTANTIATE_TEST_SUITE_P(ExampleMachines, CaptureTest,
                         ::testing::Values("server2003r2-x64", "server2008r2", "vista-sp2",
                                           "win7-sp1-x64", "winpe-6.0", "winpe-6.1", "xp-sp3"));

// A file as regedit and setup write UTF-16: little-endian with its byte-order mark.
std::string Utf16Export(const std::u16string& text) {
  std::string bytes = "\xFF\xFE";
  for (char16_t c : text) bytes += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
  return bytes;
}

const char kInfHeader[] = "[Version]\nSignature=\"$Windows NT$\"\n";

// Captures of component setups that the capture once lost: each is collected from its
// source and from its capture, which must agree, and must hold the instance named.
class ComponentCaptureTest : public CaptureTest {};

TEST_F(ComponentCaptureTest, ComponentsReplayAsTheirSource) {
  struct Case {
    const char* name;
    std::map<std::string, std::string> files;
    std::vector<std::string> mustShow;
  };
  const std::string wow64System =
      R"j("system": {"isWow64Process": true, "wow64FsRedirection": true,
          "windowsDirectory": "C:\\Windows", "systemDirectory": "C:\\Windows\\system32",
          "environment": {"PATH": "C:\\Windows\\system32;C:\\Tools"}})j";
  const std::vector<Case> cases = {
      {"no sysoc.inf, ntbackup.exe on PATH",
       {{"machine.json",
         R"j({"system": {"windowsDirectory": "C:\\Windows",
             "environment": {"PATH": "C:\\Windows;;C:\\Tools;"}},
             "setup": {"versions": {"C:\\Tools\\ntbackup.exe":
                 {"fileVersion": "5.1.2600.0 (xpclient)", "fileDescription": "Backup"}}}})j"}},
       {"Name=ntbackup|INFName=|IdentifyingNumber=5.1.2600.0|ProductName=Backup|"}},
      {"32-bit under WOW64, a setup DLL only behind redirection",
       {{"machine.json", "{" + wow64System + R"j(, "setup": {"versions": {
             "C:\\Windows\\system32\\Setup\\only64.dll": {"fileVersion": "6.4"},
             "C:\\Windows\\SysWOW64\\Setup\\both.dll": {"fileVersion": "3.2"},
             "C:\\Windows\\system32\\Setup\\both.dll": {"fileVersion": "6.4.1"},
             "C:\\Windows\\SysWOW64\\onpath.dll": {"fileVersion": "3.2.1"},
             "C:\\Windows\\system32\\ntbackup.exe": {"fileVersion": "6.4.2"}}}})j"},
        {"files/C/Windows/inf/sysoc.inf",
         std::string(kInfHeader) +
             "[Components]\nA=only64.dll,E,a.inf\nB=both.dll,E,b.inf\nC=onpath.dll,E,c.inf\n"},
        {"files/C/Windows/inf/a.inf", std::string(kInfHeader) + "[Optional Components]\nA\n"},
        {"files/C/Windows/inf/b.inf", std::string(kInfHeader) + "[Optional Components]\nB\n"},
        {"files/C/Windows/inf/c.inf", std::string(kInfHeader) + "[Optional Components]\nC\n"}},
       {"Name=A|INFName=C:\\Windows\\inf\\a.inf|IdentifyingNumber=6.4|",
        "Name=B|INFName=C:\\Windows\\inf\\b.inf|IdentifyingNumber=3.2|",
        "Name=C|INFName=C:\\Windows\\inf\\c.inf|IdentifyingNumber=3.2.1|",
        "Name=ntbackup|INFName=|IdentifyingNumber=6.4.2|"}},
      {"DLLs of lines without a component file are never looked for",
       {{"machine.json", R"j({"system": {"windowsDirectory": "C:\\Windows",
             "environment": {"PATH": "C:\\Tools"}}, "setup": {"versions": {
             "C:\\Tools\\unused.dll": {"fileVersion": "1.0"},
             "C:\\Tools\\kept.dll": {"fileVersion": "2.0"}}}})j"},
        {"files/C/Windows/inf/sysoc.inf",
         std::string(kInfHeader) +
             "[Components]\nU=unused.dll\nE=unused.dll,E,empty.inf\nK=kept.dll,E,k.inf\n"
             "L=\n"},
        {"files/C/Windows/inf/empty.inf", std::string(kInfHeader) + "[Optional Components]\n"},
        {"files/C/Windows/inf/k.inf", std::string(kInfHeader) + "[Optional Components]\nK\n"}},
       {"Name=K|INFName=C:\\Windows\\inf\\k.inf|IdentifyingNumber=2.0|"}},
      // U+0A0D is the bytes 0D 0A and U+1A00 holds 1A: a copy in text mode dropped the one
      // and stopped at the other, and the rest of the file no longer read as UTF-16.
      {"UTF-16 INF files holding CR LF and Ctrl-Z bytes inside characters",
       {{"machine.json", R"j({"system": {"windowsDirectory": "C:\\Windows",
             "environment": {"PATH": "C:\\Tools"}}, "setup": {"versions": {
             "C:\\Tools\\w.dll": {"fileVersion": "1.6"}}}})j"},
        {"files/C/Windows/inf/sysoc.inf",
         Utf16Export(u"; \u0A0D\u1A00\r\n[Version]\r\nSignature=\"$Windows NT$\"\r\n"
                     u"[Components]\r\nW=w.dll,E,w.inf\r\n")},
        {"files/C/Windows/inf/w.inf",
         Utf16Export(u"[Version]\r\nSignature=\"$Windows NT$\"\r\n; \u0A0D\u1A00\r\n"
                     u"[Optional Components]\r\nW\r\n")}},
       {"Name=W|INFName=C:\\Windows\\inf\\w.inf|IdentifyingNumber=1.6|"}},
  };
  for (const Case& c : cases) {
    fs::remove_all(scratch);
    fs::create_directories(scratch);
    const fs::path captured = captureOf(c.files);
    std::ifstream json(captured / "machine.json");
    const std::string facts((std::istreambuf_iterator<char>(json)), {});
    EXPECT_EQ(facts.find("unused.dll"), std::string::npos) << c.name;
    const std::string original = Components(scratch / "source");
    for (const std::string& shown : c.mustShow)
      EXPECT_NE(original.find(shown), std::string::npos) << c.name << ": " << shown;
    EXPECT_EQ(Components(captured), original) << c.name;
  }
}

// A setup DLL is looked for only where the component reader reads one: a sysoc.inf of
// 10,000 lines without component files and a PATH of 3,765 directories (as many as
// Windows' 32,767 characters hold) once made capture look each DLL up in each directory,
// 37.6 million lookups and 63 s. Those lines add no lookup now.
TEST_F(ComponentCaptureTest, LinesTheReaderSkipsAddNoLookups) {
  std::string path, components;
  for (int i = 0; i < 3765; ++i)
    path += (i ? ";C:\\\\p" : "C:\\\\p") + std::to_string(i);  // JSON-escaped
  for (int i = 0; i < 10000; ++i)
    components += "c" + std::to_string(i) + "=d" + std::to_string(i) + ".dll\n";
  const std::string json = R"j({"system": {"windowsDirectory": "C:\\WINDOWS",
      "systemDirectory": "C:\\WINDOWS\\system32", "environment": {"PATH": ")j" +
                           path + "\"}}}";
  std::vector<size_t> lookups;
  for (const bool withList : {false, true}) {
    std::map<std::string, std::string> files = {{"machine.json", json}};
    if (withList)
      files["files/C/WINDOWS/inf/sysoc.inf"] =
          std::string(kInfHeader) + "[Components]\n" + components;
    component_machine::SpyMachine machine(RecordedMachine::FromFiles(files));
    fs::remove_all(scratch / "out");
    platform::capture::CaptureMachine(machine, (scratch / "out").string());
    lookups.push_back(machine.spy.versionReads.size());
  }
  EXPECT_GE(lookups[0], 3765u);  // ntbackup.exe, on every PATH directory
  EXPECT_EQ(lookups[1], lookups[0]);
}

// The probes must see what they compare, or equal answers would prove nothing.
TEST(CaptureProbes, SeeTheFactsTheyCompare) {
  const std::string machines = std::string(IA_SOURCE_DIR) + "/examples/machines/";
  auto xp = RecordedMachine::Load(machines + "xp-sp3");
  auto win7 = RecordedMachine::Load(machines + "win7-sp1-x64");
  EXPECT_NE(DumpKey(*win7, HKLM, "BCD00000000", true).find("Element 7 "), std::string::npos);
  EXPECT_NE(PageFiles(*xp).find("C:\\pagefile.sys"), std::string::npos);
  EXPECT_NE(ComponentsInf(*win7).find("ocgen.dll"), std::string::npos);
  EXPECT_EQ(FileVersion(*win7, "C:\\Windows\\System32\\Setup\\ocgen.dll").find("error"),
            std::string::npos);
  // Hot-fix rows: a VT_BSTR HotFixID of 8 characters, and a VT_DATE InstallDate.
  const std::string fixes = Fixes(*win7);
  EXPECT_NE(fixes.find("connect 0 0:88"), std::string::npos) << fixes;  // HotFixID first
  EXPECT_NE(fixes.find(" 0:740611"), std::string::npos) << fixes;
  // A string that spans lines keeps its line break (this export has LF: "a").
  const std::string comments = DumpKey(*xp, HKLM,
                                       "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
                                       "{0A0CADCF-78DA-33C4-A350-CD51849B9702}.KB2416472",
                                       false);
  EXPECT_NE(comments.find("Comments 1 "), std::string::npos) << comments;
  EXPECT_NE(comments.find(",2e,a,49,"), std::string::npos) << comments;
}

// --out as people type it: a trailing separator names the folder itself (it once made the
// temporary folder inside the target and failed, leaving an empty target behind); anything
// but a new or empty folder is refused and left as it was.
TEST(CaptureOut, TrailingSeparatorsNameTheFolderAndOnlyEmptyFoldersAreTaken) {
  const fs::path scratch =
      fs::temp_directory_path() / ("capture_out_" + std::to_string(::getpid()));
  const fs::path source = scratch / "source";
  fs::create_directories(source);
  std::ofstream(source / "machine.json") << R"({"system": {"computerName": "OUTBOX"}})";
  enum Prepare { kNothing, kEmptyFolder, kFullFolder, kFile };
  struct Case {
    const char* out;
    Prepare prepare;
    int status;
  };
  const Case cases[] = {
      {"new", kNothing, 0},     {"new/", kNothing, 0},     {"new//", kNothing, 0},
      {"new/.", kNothing, 0},   {"a/b/new/", kNothing, 0}, {"new/", kEmptyFolder, 0},
      {"new/", kFullFolder, 2}, {"new", kFullFolder, 2},   {"new", kFile, 2},
      {"new/", kFile, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.out) + " prepared as " + std::to_string(c.prepare));
    const fs::path work = scratch / "work";
    fs::remove_all(work);
    fs::create_directories(work);
    if (c.prepare == kEmptyFolder || c.prepare == kFullFolder) fs::create_directory(work / "new");
    if (c.prepare == kFullFolder) std::ofstream(work / "new" / "keep.txt") << "mine";
    if (c.prepare == kFile) std::ofstream(work / "new") << "mine";
    const std::string out = (work / c.out).string();
    const char* argv[] = {"iac", "capture", "--machine", source.c_str(), "--out", out.c_str()};
    std::ostringstream stdout_, stderr_;
    ASSERT_EQ(iac::run(6, argv, stdout_, stderr_), c.status) << stderr_.str();
    const std::string top = fs::path(c.out).begin()->string();
    std::vector<std::string> left;
    for (const fs::directory_entry& entry : fs::directory_iterator(work))
      left.push_back(entry.path().filename().string());
    EXPECT_EQ(left, std::vector<std::string>{top}) << "nothing else is left beside it";
    if (c.status == 0) {
      auto captured = RecordedMachine::Load((work / c.out).string());
      char name[64] = {};
      platform::DWORD size = sizeof name;
      EXPECT_TRUE(captured->system().GetComputerNameA(name, &size));
      EXPECT_STREQ(name, "OUTBOX");
    } else if (c.prepare == kFullFolder) {
      EXPECT_NE(stderr_.str().find("not empty"), std::string::npos) << stderr_.str();
      EXPECT_TRUE(fs::exists(work / "new" / "keep.txt"));
    } else {
      EXPECT_NE(stderr_.str().find("not a folder"), std::string::npos) << stderr_.str();
      EXPECT_TRUE(fs::is_regular_file(work / "new"));
    }
  }
  platform::Machine::Install(nullptr);
  fs::remove_all(scratch);
}

// An account list laid out by hand in a buffer of exactly its size: one USER_INFO_3, then
// its pieces in the order given.
struct Piece {
  enum Kind { kName, kComment, kHours } kind;
  size_t length;  // characters of a text (a NUL follows when `ended`), bytes of logon hours
  bool ended = true;
};

class HandMadeAccounts : public platform::NetApi {
 public:
  std::vector<platform::BYTE> block;
  platform::DWORD read = 1;
  bool knowsSize = true;

  void lay(const std::vector<Piece>& pieces) {
    std::vector<size_t> at;
    size_t size = sizeof(platform::USER_INFO_3);
    for (const Piece& p : pieces) {
      at.push_back(size);
      size += p.kind == Piece::kHours ? p.length : 2 * (p.length + (p.ended ? 1 : 0));
    }
    block.assign(size, 0x78);  // 'x' bytes: never a NUL, in a text or after it
    platform::USER_INFO_3 user{};
    for (size_t i = 0; i < pieces.size(); ++i) {
      platform::BYTE* where = block.data() + at[i];
      if (pieces[i].kind == Piece::kHours) {
        user.usri3_logon_hours = where;
        continue;
      }
      for (size_t c = 0; c < pieces[i].length; ++c) where[2 * c] = 'a', where[2 * c + 1] = 0;
      if (pieces[i].ended) std::memset(where + 2 * pieces[i].length, 0, 2);
      (pieces[i].kind == Piece::kName ? user.usri3_name : user.usri3_comment) =
          reinterpret_cast<platform::WCHAR*>(where);
    }
    std::memcpy(block.data(), &user, sizeof user);
  }

  platform::NET_API_STATUS NetUserEnum(const platform::WCHAR*, platform::DWORD, platform::DWORD,
                                       platform::BYTE** buffer, platform::DWORD,
                                       platform::DWORD* entriesRead, platform::DWORD* total,
                                       platform::DWORD* resume) override {
    *buffer = block.data();
    *entriesRead = *total = read;
    if (resume) *resume = 0;
    return platform::NERR_Success;
  }
  platform::NET_API_STATUS NetWkstaUserEnum(const platform::WCHAR*, platform::DWORD,
                                            platform::BYTE** buffer, platform::DWORD,
                                            platform::DWORD* entriesRead, platform::DWORD*,
                                            platform::DWORD*) override {
    *buffer = nullptr;
    *entriesRead = 0;
    return platform::ERROR_CALL_NOT_IMPLEMENTED;
  }
  platform::NET_API_STATUS NetApiBufferFree(void*) override { return platform::NERR_Success; }
  platform::NET_API_STATUS NetApiBufferSize(void* buffer, platform::DWORD* size) override {
    if (!knowsSize) return platform::NetApi::NetApiBufferSize(buffer, size);
    *size = static_cast<platform::DWORD>(block.size());
    return platform::NERR_Success;
  }
  platform::BOOL GetUserNameA(char*, platform::DWORD*) override { return platform::FALSE; }
};

// A recorded machine with its registry or its NetApi replaced.
struct PatchedMachine : Machine {
  explicit PatchedMachine(std::shared_ptr<Machine> from) : base(std::move(from)) {}
  std::shared_ptr<Machine> base;
  platform::Registry* registryPatch = nullptr;
  platform::NetApi* netPatch = nullptr;
  platform::Registry& registry() override {
    return registryPatch ? *registryPatch : base->registry();
  }
  platform::System& system() override { return base->system(); }
  platform::Pdh& pdh() override { return base->pdh(); }
  platform::NetApi& net() override { return netPatch ? *netPatch : base->net(); }
  platform::Wmi& wmi() override { return base->wmi(); }
  platform::Setup& setup() override { return base->setup(); }
};

// Capture reads an account record only within the buffer it came in: a machine that hands
// out fewer logon-hour bytes than the 21 of the record, or a text without its NUL, once had
// the bytes after the buffer copied into machine.json.
TEST(CaptureAccounts, RecordsAreReadOnlyWithinTheirBuffer) {
  struct Case {
    const char* name;
    std::vector<Piece> pieces;
    platform::DWORD read;
    bool knowsSize;
    std::string expect;  // the records as name/comment/logon-hour count, or the error
  };
  const Piece name{Piece::kName, 3}, comment{Piece::kComment, 4}, hours{Piece::kHours, 21};
  const std::vector<Case> cases = {
      {"well-formed", {name, comment, hours}, 1, true, "aaa/aaaa/21;"},
      {"logon hours cut short by the end",
       {name, comment, {Piece::kHours, 20}},
       1,
       true,
       "aaa/aaaa/-;"},
      {"comment running out of the buffer",
       {name, hours, {Piece::kComment, 4, false}},
       1,
       true,
       "aaa/-/21;"},
      {"name running out of the buffer", {hours, {Piece::kName, 2, false}}, 1, true, "/-/21;"},
      {"more records counted than held", {name, comment, hours}, 3, true, "aaa/aaaa/21;"},
      {"size unknown", {name, comment, hours}, 1, false, "cannot tell the size"},
  };
  const fs::path scratch =
      fs::temp_directory_path() / ("capture_net_" + std::to_string(::getpid()));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(scratch);
    HandMadeAccounts accounts;
    accounts.lay(c.pieces);
    accounts.read = c.read;
    accounts.knowsSize = c.knowsSize;
    PatchedMachine machine(RecordedMachine::FromFiles({{"machine.json", "{}"}}));
    machine.netPatch = &accounts;
    try {
      platform::capture::CaptureMachine(machine, scratch.string());
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(c.expect), std::string::npos) << e.what();
      EXPECT_FALSE(fs::exists(scratch));
      continue;
    }
    std::ifstream in(scratch / "machine.json");
    const nlohmann::json facts = nlohmann::json::parse(in);
    std::string records;
    for (const auto& r : facts["net"]["users"]["records"]) {
      records += r["name"].get<std::string>() + "/" +
                 (r.contains("comment") ? r["comment"].get<std::string>() : "-") + "/" +
                 (r.contains("logonHours") ? std::to_string(r["logonHours"].size()) : "-") + ";";
    }
    EXPECT_EQ(records, c.expect);
    EXPECT_NO_THROW(RecordedMachine::Load(scratch.string()));
  }
  fs::remove_all(scratch);
}

const char kUninstall[] = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

class RegistryCaptureTest : public CaptureTest {};

// Key names as Windows allows them (any character but '\', up to 255) and value names with
// line breaks come back from a capture as they were. Written as they are, a line break or a
// ']' in a key name ended the key line: the rest of the name added values the machine never
// had, or the capture did not load.
TEST_F(RegistryCaptureTest, HostileNamesRoundTrip) {
  const std::vector<std::u16string> names = {
      u"App]\r\n\"UninstallString\"=\"evil.exe\"\r\n;",
      u"Line\r\nBreak",
      u"LF\nonly",
      u"CR\ronly",
      u"CR at the end\r",
      u"]",
      u"[bracketed]",
      u"-dash",
      u"  blanks  ",
      u"100%",
      u"%0A",
      u";semicolon",
      u"@",
      u"\"quoted\"",
      u"caf\u00e9",
      u"\ttab",
      std::u16string(255, u'n'),
  };
  std::u16string text = u"Windows Registry Editor Version 5.00\r\n\r\n";
  for (size_t i = 0; i < names.size(); ++i) {
    text += platform::recorded::kEscapedKeyLine;
    text += u"\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\" +
            platform::recorded::EscapeKeyName(names[i]) + u"]\r\n\"DisplayName\"=\"" +
            std::u16string(1, static_cast<char16_t>(u'a' + i)) + u"\"\r\n";
  }
  // Stored LF, CR LF and CR, as the parser reads line ends inside quotes.
  text += u"\"v\r\nLF\"=\"1\"\r\n\"v\r\r\nCRLF\"=\"2\"\r\n\"v\rCR\"=\"3\"\r\n";
  const fs::path captured = captureOf({{"registry/hostile.reg", Utf16Export(text)}});
  auto original = RecordedMachine::Load((scratch / "source").string());
  auto copy = RecordedMachine::Load(captured.string());
  const std::string source = DumpKey(*original, HKLM, kUninstall, true);
  EXPECT_EQ(DumpKey(*copy, HKLM, kUninstall, true), source);
  // The source holds what the test meant: every name, and the three value names.
  platform::HKEY key = nullptr;
  ASSERT_EQ(original->registry().RegOpenKeyExA(HKLM, kUninstall, 0, platform::KEY_READ, &key), 0);
  platform::DWORD keys = 0;
  original->registry().RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &keys, nullptr, nullptr,
                                        nullptr, nullptr, nullptr, nullptr, nullptr);
  original->registry().RegCloseKey(key);
  EXPECT_EQ(keys, names.size());
  for (const char* value : {"v\nLF 1 ", "v\r\nCRLF 1 ", "v\rCR 1 "})
    EXPECT_NE(source.find(value), std::string::npos) << value;
  EXPECT_NE(copy->registry().RegOpenKeyExA(HKLM, (std::string(kUninstall) + "\\App").c_str(), 0,
                                           platform::KEY_READ, &key),
            0);
}

// Lists, after a key's own sub-keys, names that no key opened by name through the A calls
// has: one holding a NUL (made through the native API), and those of a broken registry.
class ExtraNames : public platform::Registry {
 public:
  ExtraNames(platform::Registry& base, std::vector<std::string> extra)
      : base_(base), extra_(std::move(extra)) {}
  platform::LONG RegOpenKeyExA(platform::HKEY root, const char* path, platform::DWORD options,
                               platform::REGSAM sam, platform::HKEY* result) override {
    const platform::LONG status = base_.RegOpenKeyExA(root, path, options, sam, result);
    if (status == 0 && path && std::string(path) == kUninstall) listing_ = *result;
    return status;
  }
  platform::LONG RegCloseKey(platform::HKEY key) override {
    if (key == listing_) listing_ = nullptr;
    return base_.RegCloseKey(key);
  }
  platform::LONG RegQueryInfoKeyA(platform::HKEY key, char* c, platform::DWORD* cl,
                                  platform::DWORD* r, platform::DWORD* subKeys,
                                  platform::DWORD* msl, platform::DWORD* mcl,
                                  platform::DWORD* values, platform::DWORD* mvnl,
                                  platform::DWORD* mvl, platform::DWORD* sd,
                                  platform::FILETIME* t) override {
    return base_.RegQueryInfoKeyA(key, c, cl, r, subKeys, msl, mcl, values, mvnl, mvl, sd, t);
  }
  platform::LONG RegEnumKeyExA(platform::HKEY key, platform::DWORD index, char* name,
                               platform::DWORD* length, platform::DWORD* reserved, char* className,
                               platform::DWORD* classLength, platform::FILETIME* time) override {
    const platform::LONG status =
        base_.RegEnumKeyExA(key, index, name, length, reserved, className, classLength, time);
    platform::DWORD own = 0;
    if (status != platform::ERROR_NO_MORE_ITEMS || key != listing_ ||
        base_.RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &own, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr) != 0 ||
        index - own >= extra_.size())
      return status;
    const std::string& extra = extra_[index - own];
    if (*length <= extra.size())
      return *length = static_cast<platform::DWORD>(extra.size()), platform::ERROR_MORE_DATA;
    std::memcpy(name, extra.c_str(), extra.size() + 1);
    *length = static_cast<platform::DWORD>(extra.size());
    return 0;
  }
  platform::LONG RegEnumValueA(platform::HKEY key, platform::DWORD index, char* name,
                               platform::DWORD* nameLength, platform::DWORD* reserved,
                               platform::DWORD* type, platform::BYTE* data,
                               platform::DWORD* dataLength) override {
    return base_.RegEnumValueA(key, index, name, nameLength, reserved, type, data, dataLength);
  }
  platform::LONG RegQueryValueExA(platform::HKEY key, const char* valueName,
                                  platform::DWORD* reserved, platform::DWORD* type,
                                  platform::BYTE* data, platform::DWORD* dataLength) override {
    return base_.RegQueryValueExA(key, valueName, reserved, type, data, dataLength);
  }

 private:
  platform::Registry& base_;
  std::vector<std::string> extra_;
  platform::HKEY listing_ = nullptr;
};

// A sub-key that cannot be opened by its name is left out: opened by what its name holds
// before a NUL, "\0hidden" reopened the key itself (and was then written with the NUL,
// which no export may hold).
TEST_F(RegistryCaptureTest, SubKeysThatCannotBeOpenedByNameAreLeftOut) {
  const std::string source =
      std::string("Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\") +
      kUninstall + "\\Kept]\r\n\"DisplayName\"=\"Kept\"\r\n";
  fs::create_directories(scratch / "source" / "registry");
  std::ofstream(scratch / "source" / "registry" / "u.reg", std::ios::binary) << source;
  PatchedMachine machine(RecordedMachine::Load((scratch / "source").string()));
  ExtraNames extra(machine.base->registry(), {std::string("\0hidden", 7), std::string("x\0y", 3),
                                              "", "a\\b", std::string(256, 'n')});
  machine.registryPatch = &extra;
  platform::capture::CaptureMachine(machine, (scratch / "out").string());
  auto copy = RecordedMachine::Load((scratch / "out").string());
  EXPECT_EQ(DumpKey(*copy, HKLM, kUninstall, true), DumpKey(*machine.base, HKLM, kUninstall, true));
}

}  // namespace
