// Offline volumes: a Windows volume built from a machine's exports (hives written by
// scripts/reg2hive.py) reads as the same registry, and the facts Windows keeps in its hives
// come back through the platform calls.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "iac_run.h"
#include "platform/image/image_machine.h"
#include "platform/machine.h"
#include "platform/netapi.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace fs = std::filesystem;

namespace {

// A folder laid out as a Windows volume, its hives written from .reg exports.
class Volume {
 public:
  Volume() {
    static int volumes = 0;
    root = fs::temp_directory_path() /
           ("ia-volume-" + std::to_string(::getpid()) + "-" + std::to_string(volumes++));
    fs::remove_all(root);
    fs::create_directories(root / "Windows" / "System32" / "config");
  }
  ~Volume() { fs::remove_all(root); }

  // Writes the keys of `exports` below `key` as the hive at `path` (relative to the root).
  bool hive(const std::string& key, const std::string& path,
            const std::vector<std::string>& exports) const {
    fs::create_directories((root / path).parent_path());
    std::string command = std::string("python3 " IA_SOURCE_DIR "/scripts/reg2hive.py --root '") +
                          key + "' --out '" + (root / path).string() + "'";
    for (const std::string& e : exports) command += " '" + e + "'";
    return std::system(command.c_str()) == 0;
  }
  void file(const std::string& path, const std::string& bytes) const {
    fs::create_directories((root / path).parent_path());
    std::ofstream(root / path, std::ios::binary) << bytes;
  }
  fs::path root;
};

const char kExample[] = IA_SOURCE_DIR "/examples/machines/win7-sp1-x64";

std::vector<std::string> Exports(const std::string& machine) {
  std::vector<std::string> exports;
  for (const auto& entry : fs::directory_iterator(machine + "/registry"))
    exports.push_back(entry.path().string());
  return exports;
}

// An account's F and V records of the SAM hive, as regedit exports binary values.
std::string Hex(const std::string& bytes) {
  std::string out;
  char digits[4];
  for (unsigned char c : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", c);
    out += (out.empty() ? "" : ",") + std::string(digits);
  }
  return out;
}
void Put(std::string& b, size_t at, std::uint64_t v, size_t width) {
  if (b.size() < at + width) b.resize(at + width, '\0');
  for (size_t i = 0; i < width; ++i) b[at + i] = static_cast<char>(v >> (8 * i));
}
std::string SamAccount(std::uint32_t rid, std::uint32_t control, const std::u16string& name,
                       const std::u16string& fullName, std::uint32_t logons) {
  std::string f(0x50, '\0');
  Put(f, 0x08, 129000000000000000ull, 8);  // last logon, 2009-10-14
  Put(f, 0x18, 128900000000000000ull, 8);  // password set, 116 days before
  Put(f, 0x30, rid, 4);
  Put(f, 0x34, 513, 4);
  Put(f, 0x38, control, 2);
  Put(f, 0x3C, 48, 2);
  Put(f, 0x42, logons, 2);
  std::string v(0xCC, '\0'), texts;
  for (const auto& [slot, text] : {std::pair<size_t, std::u16string>{1, name}, {2, fullName}}) {
    Put(v, slot * 12, texts.size(), 4);
    Put(v, slot * 12 + 4, text.size() * 2, 4);
    for (char16_t c : text) texts += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
  }
  char key[96];
  std::snprintf(key, sizeof key, "[HKEY_LOCAL_MACHINE\\SAM\\SAM\\Domains\\Account\\Users\\%08X]\n",
                rid);
  return key + ("\"F\"=hex:" + Hex(f) + "\n\"V\"=hex:" + Hex(v + texts) + "\n");
}

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

// The example machine's registry, read through a volume of its hives, is the registry of
// the machine folder; so are the classes that only the registry feeds.
TEST(Image, VolumeOfAMachinesHivesReadsAsTheMachine) {
  Volume volume;
  const std::vector<std::string> exports = Exports(kExample);
  ASSERT_TRUE(
      volume.hive("HKEY_LOCAL_MACHINE\\SOFTWARE", "Windows/System32/config/SOFTWARE", exports));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\SYSTEM", "Windows/System32/config/system", exports));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\BCD00000000", "Boot/BCD", exports));
  fs::copy(std::string(kExample) + "/files/C", volume.root, fs::copy_options::recursive);
  const std::string image = "--image '" + volume.root.string() + "'";
  const std::string folder = std::string("--machine '") + kExample + "'";
  for (const char* key : {"HKLM\\SOFTWARE", "HKLM\\SYSTEM", "HKLM\\BCD00000000"}) {
    SCOPED_TRACE(key);
    const IacOutput fromImage = RunIac("reg query " + image + " '" + key + "' /s");
    EXPECT_EQ(fromImage.status, 0) << fromImage.err;
    EXPECT_TRUE(fromImage.out == RunIac("reg query " + folder + " '" + key + "' /s").out);
  }
#ifdef IA_NTFS_TREE
  // The same volume as an NTFS disk image (mkntfs, then the folders and files put in
  // without mounting) inventories as the folder does, every class.
  const fs::path disk = volume.root.string() + ".ntfs";
  fs::resize_file((std::ofstream(disk), disk), 16 << 20);
  std::string make = "mkntfs -F -Q -q '" + disk.string() +
                     "' >/dev/null 2>&1 && " IA_NTFS_TREE " '" + disk.string() + "'";
  std::vector<std::pair<fs::path, std::string>> files;
  for (auto it = fs::recursive_directory_iterator(volume.root);
       it != fs::recursive_directory_iterator(); ++it) {
    const std::string relative = fs::relative(it->path(), volume.root).generic_string();
    if (it->is_directory())
      make += " d '" + relative + "'";
    else
      files.emplace_back(it->path(), relative);
  }
  for (const auto& [local, relative] : files)
    make += " && ntfscp -f -q '" + disk.string() + "' '" + local.string() + "' '/" + relative +
            "' >/dev/null";
  if (std::system(("PATH=$PATH:/usr/sbin:/sbin; " + make).c_str()) == 0) {
    const IacOutput fromDisk =
        RunIac("collect --image '" + disk.string() + "' --format json --log-level 4");
    EXPECT_EQ(fromDisk.status, 0) << fromDisk.err;
    EXPECT_TRUE(fromDisk.out == RunIac("collect " + image + " --format json --log-level 4").out);
    EXPECT_NE(fromDisk.out.find("KestovaSG_InstalledApplication"), std::string::npos);
  } else {
    ADD_FAILURE() << "could not make the NTFS image: " << make;
  }
  // On an MBR disk whose first partition is a boot partition holding the boot store, the
  // Windows volume is the second; the inventory is the same.
  const fs::path boot = volume.root.string() + ".boot";
  fs::resize_file((std::ofstream(boot), boot), 4 << 20);
  const std::string makeBoot = "PATH=$PATH:/usr/sbin:/sbin; mkntfs -F -Q -q '" + boot.string() +
                               "' >/dev/null 2>&1 && " IA_NTFS_TREE " '" + boot.string() +
                               "' d Boot && ntfscp -f -q '" + boot.string() + "' '" +
                               (volume.root / "Boot/BCD").string() + "' /Boot/BCD >/dev/null";
  ASSERT_EQ(std::system(makeBoot.c_str()), 0);
  std::string mbr(1 << 20, '\0');
  const std::string parts[] = {ReadAll(boot), ReadAll(disk)};
  std::uint64_t at = mbr.size();
  for (int i = 0; i < 2; ++i) {
    Put(mbr, 0x1BE + 16 * i + 4, 0x07, 1);
    Put(mbr, 0x1BE + 16 * i + 8, at / 512, 4);
    Put(mbr, 0x1BE + 16 * i + 12, parts[i].size() / 512, 4);
    at += parts[i].size();
  }
  Put(mbr, 510, 0xAA55, 2);
  const fs::path mbrDisk = volume.root.string() + ".mbr";
  std::ofstream(mbrDisk, std::ios::binary) << mbr << parts[0] << parts[1];
  const IacOutput fromMbr =
      RunIac("collect --image '" + mbrDisk.string() + "' --format json --log-level 4");
  EXPECT_EQ(fromMbr.status, 0) << fromMbr.err;
  EXPECT_TRUE(fromMbr.out == RunIac("collect " + image + " --format json --log-level 4").out);
  fs::remove(boot);
  fs::remove(mbrDisk);
  fs::remove(disk);
#endif
  // Recorded as a folder (iac capture --image), the machine inventories as the image does.
  const fs::path recording = volume.root.string() + ".capture";
  const IacOutput capture = RunIac("capture " + image + " --out '" + recording.string() + "'");
  ASSERT_EQ(capture.status, 0) << capture.err;
  EXPECT_TRUE(
      RunIac("collect --machine '" + recording.string() + "' --format json --log-level 4").out ==
      RunIac("collect " + image + " --format json --log-level 4").out);
  fs::remove_all(recording);
  for (const char* name : {"KestovaSG_SystemEnvironmentVariable", "KestovaSG_OSSubComponent"}) {
    SCOPED_TRACE(name);
    const std::string query = std::string(" --class ") + name + " --format jsonl";
    const IacOutput fromImage = RunIac("collect " + image + query);
    EXPECT_EQ(fromImage.status, 0) << fromImage.err;
    EXPECT_TRUE(fromImage.out == RunIac("collect " + folder + query).out);
    EXPECT_NE(fromImage.out, "");
  }
}

// What Windows keeps in the hives reaches the calls that answer it on a running machine.
TEST(Image, FactsComeFromTheHives) {
  Volume volume;
  const std::string reg = (volume.root / "facts.reg").string();
  std::ofstream(reg) << R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion]
"CurrentVersion"="6.1"
"CurrentBuildNumber"="7601"
"CSDVersion"="Service Pack 1"
"EditionID"="Professional"
"SystemRoot"="D:\\WINDOWS"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Time Zones\W. Europe Standard Time]
"Std"="W. Europe Standard Time"
"Dlt"="W. Europe Daylight Time"

[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-21-1-1001]
"ProfileImagePath"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,44,00,72,00,69,00,76,00,\
  65,00,25,00,5c,00,55,00,73,00,65,00,72,00,73,00,5c,00,61,00,6e,00,6e,00,61,00,00,00
[HKEY_LOCAL_MACHINE\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-21-1-1002]
"ProfileImagePath"="D:\\Users\\ben"

[HKEY_LOCAL_MACHINE\SYSTEM\Select]
"Current"=dword:00000002
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\ComputerName\ComputerName]
"ComputerName"="OFFLINE-7"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\ProductOptions]
"ProductType"="WinNT"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Windows]
"CSDVersion"=dword:00000100
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Nls\CodePage]
"ACP"="1251"
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Environment]
"PROCESSOR_ARCHITECTURE"="AMD64"
@="no variable: the key's default value"
"A=B"="no variable: a name with '='"
"Path"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,52,00,6f,00,6f,00,74,00,25,00,\
  5c,00,73,00,79,00,73,00,74,00,65,00,6d,00,33,00,32,00,00,00
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\Session Manager\Memory Management]
"PagingFiles"=hex(7):3f,00,3a,00,5c,00,70,00,61,00,67,00,65,00,66,00,69,00,6c,00,65,00,\
  2e,00,73,00,79,00,73,00,00,00,45,00,3a,00,5c,00,70,00,2e,00,73,00,79,00,73,00,00,00,00,00
[HKEY_LOCAL_MACHINE\SYSTEM\ControlSet002\Control\TimeZoneInformation]
"Bias"=dword:ffffffc4
"StandardName"="@tzres.dll,-322"
"DaylightName"="@tzres.dll,-321"
"DaylightBias"=dword:ffffffc4
"StandardStart"=hex:00,00,0a,00,00,00,05,00,03,00,00,00,00,00,00,00
"DaylightStart"=hex:00,00,03,00,00,00,05,00,02,00,00,00,00,00,00,00
"TimeZoneKeyName"="W. Europe Standard Time"

[HKEY_CURRENT_USER\Environment]
"Path"="D:\\Tools"
)";
  ASSERT_TRUE(
      volume.hive("HKEY_LOCAL_MACHINE\\SOFTWARE", "Windows/System32/config/SOFTWARE", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\SYSTEM", "Windows/System32/config/SYSTEM", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_CURRENT_USER", "Users/anna/NTUSER.DAT", {reg}));
  ASSERT_TRUE(volume.hive("HKEY_CURRENT_USER", "Users/Ben/ntuser.dat", {}));
  volume.file("pagefile.sys", std::string(3 * 4096 + 100, '\0'));
  const std::string sam = (volume.root / "sam.reg").string();
  std::ofstream(sam) << "Windows Registry Editor Version 5.00\n\n"
                     << SamAccount(500, 0x0211, u"Administrator", u"", 3)
                     << SamAccount(1001, 0x0010, u"anna", u"Anna Horv\u00e1t", 211);
  ASSERT_TRUE(volume.hive("HKEY_LOCAL_MACHINE\\SAM", "Windows/System32/config/SAM", {sam}));

  for (const char* user : {"anna", "BEN"}) {
    SCOPED_TRACE(user);
    auto machine = platform::image::LoadImage(volume.root.string(), {user});
    platform::System& s = machine->system();
    char text[256] = {};
    platform::DWORD size = sizeof text;
    ASSERT_TRUE(s.GetComputerNameA(text, &size));
    EXPECT_STREQ(text, "OFFLINE-7");
    EXPECT_EQ(s.GetACP(), 1251u);
    platform::OSVERSIONINFOEXA version{};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(s.GetVersionExA(reinterpret_cast<platform::OSVERSIONINFOA*>(&version)));
    EXPECT_EQ(version.dwMajorVersion * 100 + version.dwMinorVersion, 601u);
    EXPECT_EQ(version.dwBuildNumber, 7601u);
    EXPECT_STREQ(version.szCSDVersion, "Service Pack 1");
    EXPECT_EQ(version.wServicePackMajor, 1);
    EXPECT_EQ(version.wProductType, 1);
    EXPECT_EQ(version.wSuiteMask, 0x100);
    platform::DWORD product = 0;
    ASSERT_TRUE(s.GetProductInfo(6, 1, 1, 0, &product));
    EXPECT_EQ(product, 0x30u);
    platform::TIME_ZONE_INFORMATION zone{};
    s.GetTimeZoneInformation(&zone);
    EXPECT_EQ(zone.Bias, -60);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(zone.DaylightName)),
              u"W. Europe Daylight Time");
    EXPECT_EQ(zone.StandardDate.wMonth, 10);
    EXPECT_EQ(s.getenv("A=B"), nullptr);
    const char* path = s.getenv("PATH");
    ASSERT_NE(path, nullptr);
    // Only anna's hive adds to Path; the user's own hive is HKEY_CURRENT_USER.
    EXPECT_STREQ(path, std::string(user) == "anna" ? "D:\\WINDOWS\\system32;D:\\Tools"
                                                   : "D:\\WINDOWS\\system32");
    size = sizeof text;
    EXPECT_GT(s.GetSystemWindowsDirectoryA(text, size), 0u);
    EXPECT_STREQ(text, "D:\\WINDOWS");
  }
  // The accounts of the SAM hive, as NetUserEnum hands them out.
  {
    auto machine = platform::image::LoadImage(volume.root.string());
    platform::BYTE* buffer = nullptr;
    platform::DWORD read = 0, total = 0, resume = 0;
    ASSERT_EQ(
        machine->net().NetUserEnum(nullptr, 3, 0, &buffer, 0xFFFFFFFF, &read, &total, &resume), 0u);
    ASSERT_EQ(read, 2u);
    const auto* users = reinterpret_cast<const platform::USER_INFO_3*>(buffer);
    auto text = [](const platform::WCHAR* w) {
      return std::u16string(reinterpret_cast<const char16_t*>(w));
    };
    EXPECT_EQ(text(users[0].usri3_name), u"Administrator");
    EXPECT_EQ(users[0].usri3_flags, 0x10203u);  // script, disabled, normal, no expiry
    EXPECT_EQ(users[0].usri3_priv, 2u);
    EXPECT_EQ(text(users[1].usri3_full_name), u"Anna Horv\u00e1t");
    EXPECT_EQ(users[1].usri3_user_id, 1001u);
    EXPECT_EQ(users[1].usri3_num_logons, 211u);
    EXPECT_EQ(users[1].usri3_country_code, 48u);
    EXPECT_EQ(users[1].usri3_last_logon, 1255526400u);
    EXPECT_EQ(machine->net().NetApiBufferFree(buffer), 0u);
  }

  // The page file of the system drive ("?:") is sized by its file; E: is on no volume here.
  platform::Machine::Install(platform::image::LoadImage(volume.root.string(), {"anna"}));
  const IacOutput pageFiles = RunIac("collect --image '" + volume.root.string() +
                                     "' --user anna --class KestovaSG_PageFile --format jsonl");
  EXPECT_NE(pageFiles.out.find("D:\\\\pagefile.sys"), std::string::npos) << pageFiles.out;
  EXPECT_EQ(pageFiles.out.find("E:"), std::string::npos);
  platform::Machine::Install(nullptr);

  const IacOutput unknown = RunIac("collect --image '" + volume.root.string() + "' --user carl");
  EXPECT_NE(unknown.status, 0);
  EXPECT_NE(unknown.err.find("no profile named carl (profiles: anna, ben)"), std::string::npos)
      << unknown.err;
}

// Real SYSTEM hives: the facts come from where the machine keeps them, and a damaged hive
// is read up to its damage, which is reported, never a refusal of the image or a crash.
TEST(Image, RealSystemHives) {
  const std::string hives = IA_REALDATA_DIR "/hives/";
  if (!fs::exists(hives + "win7-SYSTEM")) GTEST_SKIP() << "no real data";
  const struct {
    const char* system;
    const char* computerName;  // as the hive's current control set holds it
    bool damaged;
  } cases[] = {{"win7-SYSTEM", "WKS-WIN732BITA", false},
               {"win10-1709-SYSTEM", "DESKTOP-2KGM189", false},
               {"corrupt-SYSTEM", nullptr, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.system);
    Volume volume;
    ASSERT_TRUE(
        volume.hive("HKEY_LOCAL_MACHINE\\SOFTWARE", "Windows/System32/config/SOFTWARE", {}));
    fs::copy_file(hives + c.system, volume.root / "Windows/System32/config/SYSTEM");
    const IacOutput out = RunIac("collect --image '" + volume.root.string() +
                                 "' --class KestovaSG_OperatingSystem --format jsonl");
    EXPECT_EQ(out.status, 0) << out.err;
    EXPECT_EQ(out.err.find("damaged hive") != std::string::npos, c.damaged) << out.err;
    if (c.computerName) {
      auto machine = platform::image::LoadImage(volume.root.string());
      char name[64] = {};
      platform::DWORD size = sizeof name;
      ASSERT_TRUE(machine->system().GetComputerNameA(name, &size));
      EXPECT_STREQ(name, c.computerName);
      EXPECT_NE(machine->system().getenv("windir"), nullptr);
    }
  }
}
