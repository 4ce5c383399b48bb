// iac capture: a recorded machine captured through the seam answers as its source does.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "cli/app.h"
#include "platform/machine.h"
#include "platform/recorded/recorded_machine.h"

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
  static std::string collect(const fs::path& machine) {
    const std::string command = IA_BIN_DIR "/iac collect --machine '" + machine.string() +
                                "' --class KestovaSG_PageFile --format json 2>&1";
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
    pclose(pipe);
    return out;
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
  for (const fs::directory_entry& entry : fs::directory_iterator(scratch))
    EXPECT_EQ(entry.path().filename(), "capture") << "left behind";
}

INSTANTIATE_TEST_SUITE_P(ExampleMachines, CaptureTest,
                         ::testing::Values("server2003r2-x64", "server2008r2", "vista-sp2",
                                           "win7-sp1-x64", "winpe-6.0", "winpe-6.1", "xp-sp3"));

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

TEST(CaptureRefusal, ExistingNonEmptyFolderIsABadArgument) {
  const fs::path out =
      fs::temp_directory_path() / ("capture_refusal_" + std::to_string(::getpid()));
  fs::create_directories(out);
  std::ofstream(out / "keep.txt") << "mine";
  const std::string source = std::string(IA_SOURCE_DIR) + "/examples/machines/xp-sp3";
  const char* argv[] = {"iac", "capture", "--machine", source.c_str(), "--out", out.c_str()};
  std::ostringstream stdout_, stderr_;
  EXPECT_EQ(iac::run(6, argv, stdout_, stderr_), 2);
  EXPECT_NE(stderr_.str().find("not empty"), std::string::npos) << stderr_.str();
  EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 1);
  platform::Machine::Install(nullptr);
  fs::remove_all(out);
}

}  // namespace
