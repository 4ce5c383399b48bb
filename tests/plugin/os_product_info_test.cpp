// Which Windows a machine runs: type and edition numbers from version, suite, product type,
// product info, WOW64, processor and the R2, MiniNT and PE markers in the registry.
#include <cstring>
#include <string>
#include <vector>

#include "collectors/os/os_product_info.h"
#include "plugin/frame_fixture.h"

namespace {

using installedapps_col::OSProductInfo;

struct Case {
  const char* what;
  // "major minor platform productType suiteMask"
  int major, minor, platformId, productType, suite;
  const char* extra;     // more of the "system" block: productInfo, isWow64Process, processor
  const char* registry;  // .reg lines after the header
  int osType, osSubType;
};

const char kR2[] =
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\R2Setup]\n"
    "\"R2BuildNumber\"=dword:00000ac3\n";
const char kMiniNT[] = "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\MiniNT]\n";
const char kPE[] =
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion]\n"
    "\"ProductName\"=\"Windows 7 Preinstallation Environment\"\n"
    "\"BuildLabEx\"=\"7600.16385.x86fre.win7_rtm.090713-1255\"\n";

const Case kCases[] = {
    {"NT 4 workstation", 4, 0, 2, 1, 0, "", "", 18, 2},
    {"2000 server", 5, 0, 2, 3, 0, "", "", 58, 11},
    {"2000 datacenter", 5, 0, 2, 3, 0x80, "", "", 58, 9},
    {"2000 advanced server", 5, 0, 2, 2, 0x02, "", "", 58, 10},
    {"XP professional", 5, 1, 2, 1, 0x100, "", "", 67, 4},
    {"XP home", 5, 1, 2, 1, 0x300, "", "", 67, 3},
    {"9x is not NT", 4, 10, 1, 1, 0, "", "", 0, 0},
    {"2003 standard 32-bit", 5, 2, 2, 3, 0, R"("isWow64Process": false)", "", 69, 8},
    {"2003 R2 32-bit", 5, 2, 2, 3, 0, R"("isWow64Process": false)", kR2, 72, 8},
    {"2003 under WOW64", 5, 2, 2, 3, 0x02, R"("isWow64Process": true)", "", 70, 6},
    {"2003 R2 under WOW64", 5, 2, 2, 3, 0x80, R"("isWow64Process": true)", kR2, 73, 5},
    {"2003 x64 process asks the processor", 5, 2, 2, 3, 0x400,
     R"("isWow64Process": false, "processor": {"architecture": 9})", "", 70, 7},
    {"2003 without IsWow64Process", 5, 2, 2, 3, 0x01, R"("processor": {"architecture": 6})", kR2,
     73, 13},
    {"XP x64 workstation", 5, 2, 2, 1, 0, R"("isWow64Process": true)", kR2, 71, 4},
    {"Vista business", 6, 0, 2, 1, 0x100, R"("productInfo": 6)", "", 74, 12},
    {"Vista home 64-bit", 6, 0, 2, 1, 0x300, R"("isWow64Process": true)", "", 75, 3},
    {"Vista PE keeps Professional", 6, 0, 2, 1, 0, R"("processor": {"architecture": 0})", kMiniNT,
     79, 4},
    {"Vista PE x64", 6, 0, 2, 1, 0, R"("processor": {"architecture": 9})", kMiniNT, 80, 4},
    {"2008 server", 6, 0, 2, 3, 0, "", "", 76, 8},
    {"2008 x64 small business restricted", 6, 0, 2, 3, 0x20, R"("processor": {"architecture": 9})",
     "", 77, 14},
    {"2008 HPC", 6, 0, 2, 3, 0, R"("productInfo": 18)", "", 76, 19},
    {"2008 R2 datacenter wins over HPC", 6, 1, 2, 3, 0x80, R"("productInfo": 18)", "", 82, 5},
    {"2008 R2 small business", 6, 1, 2, 2, 0x01, "", "", 82, 13},
    {"7 ultimate", 6, 1, 2, 1, 0, R"("productInfo": 1)", "", 83, 16},
    {"7 home basic", 6, 1, 2, 1, 0, R"("productInfo": 2)", "", 83, 18},
    {"7 home premium", 6, 1, 2, 1, 0x200, R"("productInfo": 3)", "", 83, 15},
    {"7 enterprise", 6, 1, 2, 1, 0, R"("productInfo": 4)", "", 83, 6},
    {"7 professional", 6, 1, 2, 1, 0, R"("productInfo": 48)", "", 83, 17},
    {"7 business product stays Professional", 6, 1, 2, 1, 0, R"("productInfo": 6)", "", 83, 4},
    {"7 without GetProductInfo", 6, 1, 2, 1, 0x200, "", "", 83, 3},
    {"7 PE", 6, 1, 2, 1, 0, R"("processor": {"architecture": 0})", kPE, 79, 4},
    {"7 PE x64", 6, 1, 2, 1, 0, R"("processor": {"architecture": 9})", kPE, 80, 4},
    // Past 6.1 there is no type; a workstation still gets the suite-mask edition.
    {"8 workstation", 6, 2, 2, 1, 0, R"("productInfo": 48)", "", 0, 4},
    {"2012 server", 6, 2, 2, 3, 0x80, "", "", 0, 0},
    {"10 workstation", 10, 0, 2, 1, 0, "", "", 0, 4},
    {"no product type", 6, 1, 2, 0, 0, "", "", 82, 0},
};

class OSProductInfoTest : public FrameTest {
 protected:
  void install(const Case& c, const std::string& servicePack = "") {
    std::string system = R"({"system": {"version": {"major": )" + std::to_string(c.major) +
                         R"(, "minor": )" + std::to_string(c.minor) +
                         R"(, "build": 1000, "platformId": )" + std::to_string(c.platformId) +
                         R"(, "servicePack": ")" + servicePack + R"(", "suiteMask": )" +
                         std::to_string(c.suite) + R"(, "productType": )" +
                         std::to_string(c.productType) + "}";
    if (*c.extra) system += std::string(", ") + c.extra;
    system += "}}";
    platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
        {{"machine.json", system},
         {"registry/r.reg",
          std::string("Windows Registry Editor Version 5.00\n\n") + c.registry}}));
  }
};

TEST_F(OSProductInfoTest, TypeAndEditionOfEachWindows) {
  for (const Case& c : kCases) {
    install(c);
    OSProductInfo info(hostClass("KestovaSG_OperatingSystem"));
    const installedapps_col::TextRecord properties = info.getVersionProperties();
    EXPECT_EQ(properties.at("OSType"), std::to_string(c.osType)) << c.what;
    EXPECT_EQ(properties.at("OSSubType"), std::to_string(c.osSubType)) << c.what;
  }
}

TEST_F(OSProductInfoTest, ServicePackAndItsLogLines) {
  struct Pack {
    std::string text, fixLevel;
  } packs[] = {{"", "No service packs installed"},
               {"Service Pack 2", "Service Pack 2"},
               {std::string(127, 'p'), std::string(127, 'p')}};
  for (const Pack& p : packs) {
    install(kCases[4], p.text);
    host().ClearLog();
    OSProductInfo info(hostClass("KestovaSG_OperatingSystem"));
    EXPECT_EQ(info.getVersionProperties().at("FixLevel"), p.fixLevel);
    EXPECT_EQ(messages(4),
              (std::vector<std::string>{"Service Pack:" + p.text,
                                        "Size of Fix Level:" + std::to_string(p.fixLevel.size()),
                                        "Did not find fix level, adding property"}));
  }
}

// A live machine can fill all 128 bytes of the service-pack text.
TEST_F(OSProductInfoTest, AServicePackTextWithoutItsNul) {
  machine->fake.version = [](platform::OSVERSIONINFOA* info) {
    if (info->dwOSVersionInfoSize != sizeof(platform::OSVERSIONINFOEXA)) return platform::FALSE;
    auto* version = reinterpret_cast<platform::OSVERSIONINFOEXA*>(info);
    version->dwMajorVersion = 5;
    version->dwMinorVersion = 1;
    version->dwPlatformId = 2;
    version->wProductType = 1;
    std::memset(version->szCSDVersion, 'S', sizeof version->szCSDVersion);
    version->wServicePackMajor = 0x4141;
    return platform::TRUE;
  };
  OSProductInfo info(hostClass("KestovaSG_OperatingSystem"));
  EXPECT_EQ(info.getVersionProperties().at("FixLevel"), std::string(128, 'S'));
  EXPECT_EQ(messages(4)[1], "Size of Fix Level:128");
}

TEST_F(OSProductInfoTest, VistaAndLonghornMessages) {
  install(kCases[19]);  // 2008 x64
  OSProductInfo(hostClass("KestovaSG_OperatingSystem")).getVersionProperties();
  EXPECT_EQ(messages(3), std::vector<std::string>{"Windows Vista detected."});
  EXPECT_EQ(messages(4)[0], "Windows Longhorn detected.");
  host().ClearLog();
  install(kCases[16]);  // Vista PE
  OSProductInfo(hostClass("KestovaSG_OperatingSystem")).getVersionProperties();
  EXPECT_EQ(messages(3),
            (std::vector<std::string>{"Windows Vista detected.",
                                      "MiniNT key found in registry, consider it as Windows PE."}));
}

TEST_F(OSProductInfoTest, ProductPropertiesMergeRegistryVersionAndVendor) {
  std::string system = R"({"system": {"version": {"major": 6, "minor": 1, "build": 7601,
      "platformId": 2, "servicePack": "Service Pack 1", "suiteMask": 256, "productType": 1},
      "productInfo": 48}})";
  platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
      {{"machine.json", system},
       {"registry/r.reg",
        "Windows Registry Editor Version 5.00\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion]\n"
        "\"ProductId\"=\"00371-OEM-8992671-00524\"\n\"CurrentVersion\"=\"6.1\"\n"
        "\"InstallDate\"=dword:4d6f4a2b\n\"RegisteredOwner\"=\"WKS\"\n"
        "\"CurrentBuildNumber\"=\"7601\"\n\"CSDVersion\"=\"ignored\"\n"}}));
  OSProductInfo info(hostClass("KestovaSG_OperatingSystem"));
  const installedapps_col::PropertyMap properties = info.getProductProperties();
  std::vector<std::string> shown;
  for (const auto& entry : properties) shown.push_back(entry.first + "=" + entry.second.ToString());
  EXPECT_EQ(shown,
            (std::vector<std::string>{
                "BuildID=7601", "FixLevel=Service Pack 1", "InstallDate=1299139115", "OSSubType=17",
                "OSType=83", "ProductID=00371-OEM-8992671-00524",
                "ProductVendor=Microsoft Corporation", "RegisteredOwner=WKS", "Version=6.1"}));
  EXPECT_EQ(properties.at("OSType").GetType(), NKestovaTessil20::eCIMTypeUInt16);
  EXPECT_EQ(properties.at("InstallDate").GetType(), NKestovaTessil20::eCIMTypeUInt32);
}

TEST_F(OSProductInfoTest, AFailingVersionCallLeavesOnlyRegistryAndVendor) {
  platform::Machine::Install(platform::recorded::RecordedMachine::FromFiles(
      {{"machine.json", R"({"system": {"version": {"error": 87}}})"}}));
  OSProductInfo info(hostClass("KestovaSG_OperatingSystem"));
  EXPECT_TRUE(info.getVersionProperties().empty());
  const installedapps_col::PropertyMap properties = info.getProductProperties();
  ASSERT_EQ(properties.size(), 1u);
  EXPECT_EQ(properties.at("ProductVendor").ToString(), "Microsoft Corporation");
}

}  // namespace
