// The image machine: hives from the volume, facts derived from them into the same record a
// machine folder's machine.json holds, files read from the volume as calls open them.
#include "platform/image/image_machine.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>

#include "platform/image/volume.h"
#include "platform/recorded/codepage.h"
#include "platform/recorded/hive_file.h"
#include "platform/recorded/little_endian.h"
#include "platform/recorded/machine_text.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_registry.h"
#include "platform/types.h"

namespace platform::image {

using recorded::HiveFile;
using recorded::Mount;
using recorded::RecordedMachine;
using recorded::RecordedRegistry;
using recorded::RegKey;
using recorded::RegValue;
using recorded::WideToUtf8;

namespace {

// A hive may be large (a workstation's SOFTWARE is up to a few hundred MB) but not larger
// than the registry quota Windows allowed; files the collectors open are small.
constexpr std::uint64_t kMaxHiveBytes = 2ull << 30;
constexpr std::uint64_t kMaxFileBytes = 256ull << 20;
constexpr UINT kPageSize = 4096;

// One hive of the volume, read once: the facts are derived from it, then the machine
// mounts it again over the same bytes (or maps the same file of a mounted volume).
struct ImageHive {
  std::string name;   // as in a machine folder: "hives/SOFTWARE"
  std::string label;  // in messages: where it is
  std::string local;  // a path to map, or empty
  std::shared_ptr<const std::string> bytes;

  std::unique_ptr<HiveFile> open() const {
    return local.empty() ? HiveFile::FromShared(bytes, label) : HiveFile::Open(local);
  }
};

std::optional<ImageHive> ReadHive(Volume& volume, const std::string& path,
                                  const std::string& name) {
  if (!volume.fileSize(path)) return std::nullopt;
  ImageHive hive{name, volume.describe() + ": " + path, volume.localPath(path), nullptr};
  if (hive.local.empty()) {
    std::optional<std::string> bytes = volume.readFile(path, kMaxHiveBytes);
    if (!bytes) throw RecordError(hive.label + ": cannot be read (or larger than 2 GiB)");
    hive.bytes = std::make_shared<const std::string>(std::move(*bytes));
  }
  return hive;
}

std::u16string U(const std::string& ascii) {
  return std::u16string(ascii.begin(), ascii.end());
}

// Values as Windows stores them.
std::optional<std::u16string> Text(const RegKey* key, const char* name) {
  const RegValue* value = key ? key->findValue(U(name)) : nullptr;
  if (!value || (value->type() != REG_SZ && value->type() != REG_EXPAND_SZ)) return std::nullopt;
  std::u16string text = recorded::Utf16FromBytes(value->data().data(), value->data().size());
  return text.substr(0, text.find(u'\0'));
}

std::optional<std::uint32_t> Dword(const RegKey* key, const char* name) {
  const RegValue* value = key ? key->findValue(U(name)) : nullptr;
  if (!value || value->type() != REG_DWORD || value->data().size() < 4) return std::nullopt;
  return recorded::Le32(value->data().data());
}

std::vector<std::u16string> Multi(const RegKey* key, const char* name) {
  std::vector<std::u16string> items;
  const RegValue* value = key ? key->findValue(U(name)) : nullptr;
  if (!value || value->type() != REG_MULTI_SZ) return items;
  const std::u16string text = recorded::Utf16FromBytes(value->data().data(), value->data().size());
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find(u'\0', start);
    if (end == std::u16string::npos) end = text.size();
    if (end == start) break;
    items.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return items;
}

std::string Utf8(const std::optional<std::u16string>& text) {
  return text ? WideToUtf8(*text) : std::string();
}

// The keys the facts come from, found as the registry calls find them (CurrentControlSet
// followed as Windows links it at boot).
class Hives {
 public:
  explicit Hives(const RecordedRegistry& registry) : registry_(registry) {}
  const RegKey* software(const char* path) const {
    return registry_.find(u"HKLM\\SOFTWARE\\" + U(path));
  }
  const RegKey* control(const char* path) const {
    return registry_.find(u"HKLM\\SYSTEM\\CurrentControlSet\\Control\\" + U(path));
  }
  const RegKey* user(const char* path) const {
    return registry_.find(u"HKEY_CURRENT_USER\\" + U(path));
  }

 private:
  const RecordedRegistry& registry_;
};

// GetProductInfo's numbers for the editions Windows names in EditionID (6.0 and later).
std::optional<std::uint32_t> ProductNumber(const std::u16string& edition) {
  static const std::map<std::string, std::uint32_t> numbers = {{"ULTIMATE", 0x01},
                                                               {"HOMEBASIC", 0x02},
                                                               {"HOMEPREMIUM", 0x03},
                                                               {"ENTERPRISE", 0x04},
                                                               {"HOMEBASICN", 0x05},
                                                               {"BUSINESS", 0x06},
                                                               {"SERVERSTANDARD", 0x07},
                                                               {"SERVERDATACENTER", 0x08},
                                                               {"SERVERSBSSTANDARD", 0x09},
                                                               {"SERVERENTERPRISE", 0x0A},
                                                               {"STARTER", 0x0B},
                                                               {"SERVERDATACENTERCORE", 0x0C},
                                                               {"SERVERSTANDARDCORE", 0x0D},
                                                               {"SERVERENTERPRISECORE", 0x0E},
                                                               {"SERVERENTERPRISEIA64", 0x0F},
                                                               {"BUSINESSN", 0x10},
                                                               {"SERVERWEB", 0x11},
                                                               {"SERVERHPC", 0x12},
                                                               {"SERVERHOMESTANDARD", 0x13},
                                                               {"SERVERSTORAGEEXPRESS", 0x14},
                                                               {"SERVERSTORAGESTANDARD", 0x15},
                                                               {"SERVERSTORAGEWORKGROUP", 0x16},
                                                               {"SERVERSTORAGEENTERPRISE", 0x17},
                                                               {"SERVERWINSB", 0x18},
                                                               {"SERVERSBSPREMIUM", 0x19},
                                                               {"HOMEPREMIUMN", 0x1A},
                                                               {"ENTERPRISEN", 0x1B},
                                                               {"ULTIMATEN", 0x1C},
                                                               {"SERVERWEBCORE", 0x1D},
                                                               {"SERVERFOUNDATION", 0x21},
                                                               {"SERVERHOMEPREMIUM", 0x22},
                                                               {"SERVERSTANDARDV", 0x24},
                                                               {"SERVERDATACENTERV", 0x25},
                                                               {"SERVERENTERPRISEV", 0x26},
                                                               {"STARTERN", 0x2F},
                                                               {"PROFESSIONAL", 0x30},
                                                               {"PROFESSIONALN", 0x31},
                                                               {"SERVERSOLUTION", 0x32},
                                                               {"STARTERE", 0x42},
                                                               {"HOMEBASICE", 0x43},
                                                               {"HOMEPREMIUME", 0x44},
                                                               {"PROFESSIONALE", 0x45},
                                                               {"ENTERPRISEE", 0x46},
                                                               {"ULTIMATEE", 0x47},
                                                               {"ENTERPRISEEVAL", 0x48},
                                                               {"EMBEDDED", 0x41},
                                                               {"CORE", 0x65},
                                                               {"COREN", 0x62},
                                                               {"CORECOUNTRYSPECIFIC", 0x63},
                                                               {"CORESINGLELANGUAGE", 0x64},
                                                               {"EDUCATION", 0x79},
                                                               {"EDUCATIONN", 0x7A},
                                                               {"ENTERPRISES", 0x7D},
                                                               {"ENTERPRISESN", 0x7E},
                                                               {"PROFESSIONALWORKSTATION", 0xA1},
                                                               {"PROFESSIONALWORKSTATIONN", 0xA2},
                                                               {"SERVERRDSH", 0xAF},
                                                               {"IOTENTERPRISE", 0xBC}};
  auto it = numbers.find(WideToUtf8(recorded::FoldName(edition)));
  if (it == numbers.end()) return std::nullopt;
  return it->second;
}

// VER_SUITE_* bits for the names ProductOptions\ProductSuite lists.
std::uint32_t SuiteMask(const std::vector<std::u16string>& suites) {
  static const std::map<std::string, std::uint32_t> bits = {{"SMALL BUSINESS", 0x0001},
                                                            {"ENTERPRISE", 0x0002},
                                                            {"BACKOFFICE", 0x0004},
                                                            {"COMMUNICATIONSERVER", 0x0008},
                                                            {"TERMINAL SERVER", 0x0010},
                                                            {"SMALL BUSINESS(RESTRICTED)", 0x0020},
                                                            {"EMBEDDEDNT", 0x0040},
                                                            {"DATACENTER", 0x0080},
                                                            {"PERSONAL", 0x0200},
                                                            {"BLADE", 0x0400},
                                                            {"EMBEDDED RESTRICTED", 0x0800},
                                                            {"SECURITY APPLIANCE", 0x1000},
                                                            {"STORAGE SERVER", 0x2000},
                                                            {"COMPUTE SERVER", 0x4000},
                                                            {"WH SERVER", 0x8000}};
  std::uint32_t mask = 0;
  for (const auto& suite : suites) {
    auto it = bits.find(WideToUtf8(recorded::FoldName(suite)));
    if (it != bits.end()) mask |= it->second;
  }
  return mask;
}

// A SYSTEMTIME rule (16 bytes) as machine.json holds it; null when a field is out of range.
nlohmann::json Rule(const RegKey* key, const char* name) {
  const RegValue* value = key ? key->findValue(U(name)) : nullptr;
  if (!value || value->data().size() < 16) return nullptr;
  auto word = [&](size_t i) { return value->data()[2 * i] | (value->data()[2 * i + 1] << 8); };
  const int month = word(1), dayOfWeek = word(2), day = word(3), hour = word(4), minute = word(5),
            second = word(6), ms = word(7);
  if (month > 12 || dayOfWeek > 6 || day > 31 || hour > 23 || minute > 59 || second > 59 ||
      ms > 999)
    return nullptr;
  return {{"year", word(0)}, {"month", month},   {"dayOfWeek", dayOfWeek}, {"day", day},
          {"hour", hour},    {"minute", minute}, {"second", second},       {"milliseconds", ms}};
}

// TIME_ZONE_INFORMATION holds 32 characters with the NUL.
std::string ZoneName(std::u16string name) {
  if (name.size() > 31) name.resize(31);
  return WideToUtf8(name);
}

nlohmann::json TimeZone(const Hives& hives) {
  const RegKey* zone = hives.control("TimeZoneInformation");
  const auto bias = Dword(zone, "Bias");
  if (!bias) return nullptr;
  auto minutes = [](std::optional<std::uint32_t> v) {
    return v ? static_cast<int>(static_cast<std::int32_t>(*v)) : 0;
  };
  // Vista and later keep "@tzres.dll,-112" here, which Windows resolves from the zone's
  // display resources; the zone's own key holds the same names in English.
  std::u16string standard = Text(zone, "StandardName").value_or(u"");
  std::u16string daylight = Text(zone, "DaylightName").value_or(u"");
  if (auto keyName = Text(zone, "TimeZoneKeyName")) {
    const RegKey* entry = hives.software(
        ("Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\" + WideToUtf8(*keyName)).c_str());
    if (!standard.empty() && standard[0] == u'@') standard = Text(entry, "Std").value_or(u"");
    if (!daylight.empty() && daylight[0] == u'@') daylight = Text(entry, "Dlt").value_or(u"");
  }
  nlohmann::json tz = {{"bias", minutes(bias)},
                       {"standardName", ZoneName(standard)},
                       {"standardBias", minutes(Dword(zone, "StandardBias"))},
                       {"daylightName", ZoneName(daylight)},
                       {"daylightBias", minutes(Dword(zone, "DaylightBias"))}};
  for (const auto& [field, value] :
       {std::pair<const char*, const char*>{"standardDate", "StandardStart"},
        {"daylightDate", "DaylightStart"}}) {
    nlohmann::json rule = Rule(zone, value);
    if (!rule.is_null()) tz[field] = rule;
  }
  for (const char* field : {"bias", "standardBias", "daylightBias"}) {
    if (tz[field].get<int>() < -1440 || tz[field].get<int>() > 1440) return nullptr;
  }
  return tz;
}

// %NAME% references replaced from `variables` (names ignore case); others stay.
std::string Expand(const std::string& text, const std::map<std::string, std::string>& variables) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const size_t close = text[i] == '%' ? text.find('%', i + 1) : std::string::npos;
    if (close != std::string::npos) {
      auto it = variables.find(recorded::Lower(text.substr(i + 1, close - i - 1)));
      if (it != variables.end()) {
        out += it->second;
        i = close + 1;
        continue;
      }
    }
    out += text[i++];
  }
  return out;
}

// A volume path for a Windows path on the Windows volume's drive: "C:\Users\x" -> "Users\x";
// nullopt for another drive.
std::optional<std::string> OnVolume(const std::string& windowsPath, char drive) {
  if (windowsPath.size() < 2 || windowsPath[1] != ':' ||
      std::toupper(static_cast<unsigned char>(windowsPath[0])) != drive)
    return std::nullopt;
  std::string rest = windowsPath.substr(2);
  rest.erase(0, rest.find_first_not_of("\\/"));
  return rest;
}

Mount MountOf(const std::string& name) {
  if (name == "hives/SOFTWARE") return Mount::Software;
  if (name == "hives/SYSTEM") return Mount::System;
  if (name == "hives/SAM") return Mount::Sam;
  if (name == "hives/NTUSER.DAT") return Mount::NtUser;
  return Mount::Bcd;
}

// When a hive was last written, as its header keeps it (a FILETIME); 0 when unknown.
std::uint64_t HeaderTime(const std::string& hive) {
  std::uint64_t time = 0;
  if (hive.size() < 0x14) return 0;
  for (int b = 7; b >= 0; --b) time = (time << 8) | static_cast<unsigned char>(hive[0x0C + b]);
  return time;
}

// FILETIME (100 ns since 1601) -> seconds since 1970; 0 for "never" and for times before.
std::uint32_t UnixTime(std::uint64_t filetime) {
  constexpr std::uint64_t k1970 = 116444736000000000ull;
  if (filetime <= k1970 || filetime >= 0x7FFFFFFFFFFFFFFFull) return 0;
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>((filetime - k1970) / 10000000, 0xFFFFFFFFu));
}

// The number at `at` of a record whose size the caller has checked.
std::uint32_t Get16(recorded::ValueBytes d, size_t at) {
  return recorded::Le16(d.data() + at);
}
std::uint32_t Get32(recorded::ValueBytes d, size_t at) {
  return recorded::Le32(d.data() + at);
}
std::uint64_t Get64(recorded::ValueBytes d, size_t at) {
  return recorded::Le64(d.data() + at);
}

// The local accounts NetUserEnum answers, from SAM\Domains\Account\Users: each account's
// F record (times, RID, control bits, counts) and V record (its texts, found through a
// table of offset and length pairs at its start). `now` (when the database was last
// written) stands in for the clock in password ages.
nlohmann::json Accounts(const recorded::RegistryTree& tree, std::uint64_t now) {
  // SAM's account-control bits and the UF_* bits NetUserEnum reports for them.
  static const std::pair<std::uint32_t, std::uint32_t> kControl[] = {
      {0x0001, 0x0002},  {0x0002, 0x0008},   {0x0004, 0x0020},  {0x0008, 0x0100},
      {0x0010, 0x0200},  {0x0040, 0x0800},   {0x0080, 0x1000},  {0x0100, 0x2000},
      {0x0200, 0x10000}, {0x0400, 0x0010},   {0x0800, 0x0080},  {0x1000, 0x40000},
      {0x2000, 0x80000}, {0x4000, 0x100000}, {0x8000, 0x200000}};
  nlohmann::json records = nlohmann::json::array();
  const RegKey* users = tree.find(u"HKLM\\SAM\\SAM\\Domains\\Account\\Users");
  for (size_t i = 0; users && i < users->subKeyCount(); ++i) {
    const RegKey& user = users->subKey(i);
    const RegValue* f = user.findValue(u"F");
    const RegValue* v = user.findValue(u"V");
    if (!f || !v || f->data().size() < 0x44 || v->data().size() < 0xCC) continue;
    // Text n of V: UTF-16 at 0xCC + its offset; empty when it lies outside the record.
    auto text = [v](size_t n) {
      const size_t offset = 0xCC + static_cast<size_t>(Get32(v->data(), n * 12));
      const size_t length = Get32(v->data(), n * 12 + 4);
      if (offset > v->data().size() || length > v->data().size() - offset) return std::string();
      return WideToUtf8(recorded::Utf16FromBytes(v->data().data() + offset, length));
    };
    const std::string name = text(1);
    if (name.empty()) continue;
    const std::uint32_t control = Get16(f->data(), 0x38);
    std::uint32_t flags = 0x0001;  // UF_SCRIPT, which NetUserEnum always reports
    for (const auto& [bit, uf] : kControl) {
      if (control & bit) flags |= uf;
    }
    char hexFlags[16];
    std::snprintf(hexFlags, sizeof hexFlags, "0x%x", flags);
    const std::uint32_t rid = Get32(f->data(), 0x30);
    const std::uint64_t passwordSet = Get64(f->data(), 0x18);
    const std::uint64_t expires = Get64(f->data(), 0x20);
    const std::uint64_t age =
        now > passwordSet && passwordSet != 0 ? (now - passwordSet) / 10000000 : 0;
    records.push_back(
        {{"name", name},
         {"fullName", text(2)},
         {"comment", text(3)},
         {"usrComment", text(4)},
         {"homeDir", text(6)},
         {"homeDirDrive", text(7)},
         {"scriptPath", text(8)},
         {"profile", text(9)},
         {"workstations", text(10)},
         {"flags", hexFlags},
         // The built-in administrator and guest by their RIDs; membership of
         // the Administrators alias is not read.
         {"priv", rid == 500   ? 2
                  : rid == 501 ? 0
                               : 1},
         {"userId", rid},
         {"primaryGroupId", Get32(f->data(), 0x34)},
         {"lastLogon", UnixTime(Get64(f->data(), 0x08))},
         {"passwordAge", std::min<std::uint64_t>(age, 0xFFFFFFFFu)},
         {"acctExpires",
          expires == 0 || expires >= 0x7FFFFFFFFFFFFFFFull ? 0xFFFFFFFFu : UnixTime(expires)},
         {"countryCode", Get16(f->data(), 0x3C)},
         {"codePage", Get16(f->data(), 0x3E)},
         {"badPwCount", Get16(f->data(), 0x40)},
         {"numLogons", Get16(f->data(), 0x42)}});
  }
  return records;
}

// A value an environment block can hold: a text under a name that is not empty and holds
// no '=' (the default value of a damaged key, or a crafted name, is not a variable).
bool IsVariable(const RegValue& value) {
  return (value.type() == REG_SZ || value.type() == REG_EXPAND_SZ) && !value.name().empty() &&
         value.name().find(u'=') == std::u16string::npos;
}

struct Profile {
  std::string name;        // the profile folder's name
  std::string path;        // Windows path of the profile folder
  std::string volumePath;  // of its NTUSER.DAT
  std::uint64_t written = 0;
};

std::vector<Profile> Profiles(const Hives& hives, Volume& volume, char drive,
                              const std::map<std::string, std::string>& variables) {
  std::vector<Profile> profiles;
  const RegKey* list = hives.software("Microsoft\\Windows NT\\CurrentVersion\\ProfileList");
  for (size_t i = 0; list && i < list->subKeyCount(); ++i) {
    const RegKey& entry = list->subKey(i);
    const std::string sid = WideToUtf8(entry.name());
    // The service accounts' profiles (S-1-5-18, -19, -20) are no one's desktop.
    if (sid == "S-1-5-18" || sid == "S-1-5-19" || sid == "S-1-5-20") continue;
    const std::string path = Expand(Utf8(Text(&entry, "ProfileImagePath")), variables);
    auto folder = OnVolume(path, drive);
    if (!folder || folder->empty()) continue;
    const std::string hive = *folder + "\\NTUSER.DAT";
    if (!volume.fileSize(hive)) continue;
    Profile profile{path.substr(path.find_last_of("\\/") + 1), path, hive, 0};
    // The hive's header keeps when it was last written.
    if (auto header = volume.readFile(hive, kMaxHiveBytes)) profile.written = HeaderTime(*header);
    profiles.push_back(std::move(profile));
  }
  return profiles;
}

}  // namespace

std::shared_ptr<RecordedMachine> LoadImage(const std::string& path, const ImageOptions& options) {
  std::vector<std::unique_ptr<Volume>> volumes = OpenVolumes(path);
  // The Windows volume first, chosen as OpenWindowsVolume chooses it; a disk often starts
  // with a boot or recovery partition.
  auto first = [&volumes](const char* directory) {
    for (auto& volume : volumes) {
      if (volume->isDirectory(directory)) {
        std::swap(volume, volumes.front());
        return true;
      }
    }
    return false;
  };
  if (!first("Windows\\System32\\config") && !first("Windows")) {
    OpenWindowsVolume(path);  // throws, saying what each partition was
    throw RecordError(path + ": no Windows volume");
  }
  return LoadVolumes(std::move(volumes), options);
}

std::shared_ptr<RecordedMachine> LoadVolumes(std::vector<std::unique_ptr<Volume>> volumes,
                                             const ImageOptions& options) {
  if (volumes.empty()) throw RecordError("no volume to read");
  Volume& windows = *volumes.front();
  const std::string where = windows.describe();

  std::vector<ImageHive> hives;
  for (const char* name : {"SOFTWARE", "SYSTEM"}) {
    auto hive = ReadHive(windows, std::string("Windows\\System32\\config\\") + name,
                         std::string("hives/") + name);
    if (!hive) throw RecordError(where + ": no Windows\\System32\\config\\" + name + " hive");
    hives.push_back(std::move(*hive));
  }
  // The boot store: on the boot partition (System Reserved) or the Windows volume.
  for (size_t i = 0; i < volumes.size(); ++i) {
    Volume& volume = *volumes[(i + 1) % volumes.size()];
    if (auto bcd = ReadHive(volume, "Boot\\BCD", "hives/BCD")) {
      hives.push_back(std::move(*bcd));
      break;
    }
  }

  // The accounts' database, when the volume has one (small: read as bytes, for its time).
  std::uint64_t samWritten = 0;
  if (auto sam = ReadHive(windows, "Windows\\System32\\config\\SAM", "hives/SAM")) {
    if (!sam->bytes) {
      auto bytes = windows.readFile("Windows\\System32\\config\\SAM", kMaxHiveBytes);
      if (bytes) {
        sam->bytes = std::make_shared<const std::string>(std::move(*bytes));
        sam->local.clear();
      }
    }
    if (sam->bytes) samWritten = HeaderTime(*sam->bytes);
    hives.push_back(std::move(*sam));
  }

  // The facts come from a registry of their own over the same hives.
  RecordedRegistry registry;
  for (const ImageHive& hive : hives)
    registry.loadHive(hive.open(), hive.label, MountOf(hive.name));
  Hives keys(registry);
  const RegKey* version = keys.software("Microsoft\\Windows NT\\CurrentVersion");
  std::string systemRoot = Utf8(Text(version, "SystemRoot"));
  if (systemRoot.size() < 3 || systemRoot[1] != ':') systemRoot = "C:\\Windows";
  const char drive = static_cast<char>(std::toupper(static_cast<unsigned char>(systemRoot[0])));
  const std::string systemDrive = std::string(1, drive) + ":";

  nlohmann::json system = nlohmann::json::object();
  const std::string computerName =
      Utf8(Text(keys.control("ComputerName\\ComputerName"), "ComputerName"));
  if (!computerName.empty()) system["computerName"] = computerName;

  const RegKey* nls = keys.control("Nls\\CodePage");
  if (auto acp = Text(nls, "ACP")) {
    const unsigned codePage =
        static_cast<unsigned>(std::strtoul(WideToUtf8(*acp).c_str(), nullptr, 10));
    if (!recorded::IsSupportedCodePage(codePage) || codePage == CP_UTF8) {
      throw RecordError(where + ": the volume's ANSI code page " + std::to_string(codePage) +
                        " (SYSTEM\\...\\Control\\Nls\\CodePage\\ACP) is not supported here");
    }
    system["codePage"] = codePage;
  }

  // Version: the numbers a process that declares support for the running Windows sees.
  unsigned major = 0, minor = 0;
  if (auto m = Dword(version, "CurrentMajorVersionNumber")) {
    major = *m;
    minor = Dword(version, "CurrentMinorVersionNumber").value_or(0);
  } else if (auto text = Text(version, "CurrentVersion")) {
    const std::string v = WideToUtf8(*text);
    major = static_cast<unsigned>(std::strtoul(v.c_str(), nullptr, 10));
    const size_t dot = v.find('.');
    if (dot != std::string::npos)
      minor = static_cast<unsigned>(std::strtoul(v.c_str() + dot + 1, nullptr, 10));
  }
  const RegKey* options_ = keys.control("ProductOptions");
  const std::string productType = Utf8(Text(options_, "ProductType"));
  const unsigned type = productType == "LanmanNT" ? 2 : productType == "ServerNT" ? 3 : 1;
  std::uint32_t suites = SuiteMask(Multi(options_, "ProductSuite"));
  // A workstation since XP runs Terminal Services for one session at a time.
  if (type == 1 && (major > 5 || (major == 5 && minor >= 1))) suites |= 0x0100;
  const std::uint32_t csd = Dword(keys.control("Windows"), "CSDVersion").value_or(0);
  if (major > 0) {
    std::optional<std::u16string> buildText = Text(version, "CurrentBuildNumber");
    if (!buildText) buildText = Text(version, "CurrentBuild");
    const std::string build = Utf8(buildText);
    std::string servicePack = Utf8(Text(version, "CSDVersion"));
    if (servicePack.size() > 127) servicePack.resize(127);
    system["version"] = {{"major", major},
                         {"minor", minor},
                         {"build", std::strtoul(build.c_str(), nullptr, 10) & 0xFFFFFFFFu},
                         {"platformId", 2},
                         {"servicePack", servicePack},
                         {"servicePackMajor", (csd >> 8) & 0xFF},
                         {"servicePackMinor", csd & 0xFF},
                         {"suiteMask", suites & 0xFFFF},
                         {"productType", type}};
    if (major >= 6) {
      if (auto edition = Text(version, "EditionID")) {
        if (auto number = ProductNumber(*edition)) system["productInfo"] = *number;
      }
    }
  }

  const RegKey* environment = keys.control("Session Manager\\Environment");
  const std::string architecture = Utf8(Text(environment, "PROCESSOR_ARCHITECTURE"));
  const unsigned arch = architecture == "AMD64"   ? 9
                        : architecture == "IA64"  ? 6
                        : architecture == "ARM64" ? 12
                                                  : 0;
  system["processor"] = {{"architecture", arch}, {"pageSize", arch == 6 ? 8192 : kPageSize}};
  system["isWow64Process"] = false;
  if (arch != 0) system["wow64FsRedirection"] = true;
  system["windowsDirectory"] = systemRoot;
  system["systemDirectory"] = systemRoot + "\\system32";

  // The system environment as a process of the machine starts with it.
  std::map<std::string, std::string> lower = {{"systemroot", systemRoot},
                                              {"systemdrive", systemDrive}};
  std::map<std::string, std::string> env = {{"SystemRoot", systemRoot},
                                            {"SystemDrive", systemDrive}};
  if (!computerName.empty()) env["COMPUTERNAME"] = computerName;
  const RegKey* current = keys.software("Microsoft\\Windows\\CurrentVersion");
  for (const auto& [name, value] :
       {std::pair<const char*, const char*>{"ProgramFiles", "ProgramFilesDir"},
        {"CommonProgramFiles", "CommonFilesDir"},
        {"ProgramFiles(x86)", "ProgramFilesDir (x86)"},
        {"CommonProgramFiles(x86)", "CommonFilesDir (x86)"}}) {
    if (auto text = Text(current, value)) env[name] = WideToUtf8(*text);
  }
  for (size_t i = 0; environment && i < environment->valueCount(); ++i) {
    const RegValue& value = environment->value(i);
    if (!IsVariable(value)) continue;
    std::u16string text = recorded::Utf16FromBytes(value.data().data(), value.data().size());
    env[WideToUtf8(value.name())] = WideToUtf8(text.substr(0, text.find(u'\0')));
  }
  auto expandAll = [&] {
    for (auto& [name, value] : env) lower[recorded::Lower(name)] = value;
    for (auto& [name, value] : env) value = Expand(value, lower);
    for (auto& [name, value] : env) lower[recorded::Lower(name)] = value;
  };
  expandAll();

  // The user whose hive is HKEY_CURRENT_USER.
  std::vector<Profile> profiles = Profiles(keys, windows, drive, lower);
  const Profile* chosen = nullptr;
  for (const Profile& profile : profiles) {
    if (options.user.empty() ? (!chosen || profile.written > chosen->written)
                             : recorded::Lower(profile.name) == recorded::Lower(options.user))
      chosen = &profile;
  }
  if (!options.user.empty() && !chosen) {
    std::string names;
    for (const Profile& p : profiles) names += (names.empty() ? "" : ", ") + p.name;
    throw RecordError(where + ": no profile named " + options.user +
                      " (profiles: " + (names.empty() ? "none" : names) + ")");
  }
  nlohmann::json net = nlohmann::json::object();
  if (chosen) {
    auto hive = ReadHive(windows, chosen->volumePath, "hives/NTUSER.DAT");
    if (hive) {
      registry.loadHive(hive->open(), hive->label, Mount::NtUser);
      hives.push_back(std::move(*hive));
    }
    net["userName"] = chosen->name;
    env["USERNAME"] = chosen->name;
    env["USERPROFILE"] = chosen->path;
    env["HOMEDRIVE"] = chosen->path.substr(0, 2);
    env["HOMEPATH"] = chosen->path.substr(2);
    const RegKey* folders =
        keys.user("Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders");
    if (auto appData = Text(folders, "AppData")) env["APPDATA"] = WideToUtf8(*appData);
    if (auto local = Text(folders, "Local AppData")) env["LOCALAPPDATA"] = WideToUtf8(*local);
    expandAll();
    // The user's own variables; Path is added to the system one, as at logon.
    const RegKey* userEnvironment = keys.user("Environment");
    for (size_t i = 0; userEnvironment && i < userEnvironment->valueCount(); ++i) {
      const RegValue& value = userEnvironment->value(i);
      if (!IsVariable(value)) continue;
      std::u16string text = recorded::Utf16FromBytes(value.data().data(), value.data().size());
      const std::string name = WideToUtf8(value.name());
      const std::string expanded = Expand(WideToUtf8(text.substr(0, text.find(u'\0'))), lower);
      std::string existing;
      for (auto it = env.begin(); it != env.end(); ++it) {
        if (recorded::Lower(it->first) == recorded::Lower(name)) {
          existing = it->second;
          env.erase(it);
          break;
        }
      }
      env[name] = recorded::Lower(name) == "path" && !existing.empty() ? existing + ";" + expanded
                                                                       : expanded;
    }
  }
  system["environment"] = env;

  // Page files: as Memory Management lists them, sized by their files on the volume.
  nlohmann::json pageFiles = nlohmann::json::array();
  for (const std::u16string& entry :
       Multi(keys.control("Session Manager\\Memory Management"), "PagingFiles")) {
    std::string name = WideToUtf8(entry.substr(0, entry.find(u' ')));
    if (name.size() > 1 && name[0] == '?') name[0] = drive;  // system-managed: the system drive
    auto file = OnVolume(name, drive);
    auto size = file ? windows.fileSize(*file) : std::nullopt;
    if (!size || pageFiles.size() == 16) continue;
    pageFiles.push_back({{"name", name},
                         {"totalSize", static_cast<std::uint32_t>(std::min<std::uint64_t>(
                                           *size / kPageSize, 0xFFFFFFFFu))},
                         {"inUse", 0},
                         {"peak", 0}});
  }
  system["pageFiles"] = pageFiles;
  system["psapi"] = {{"enumPageFiles", true}, {"performanceInfo", {{"error", 120}}}};
  system["ntQuerySystemInformation"] = true;
  const nlohmann::json zone = TimeZone(keys);
  if (!zone.is_null()) system["timeZone"] = zone;

  const nlohmann::json accounts = Accounts(registry.tree(), samWritten);
  if (!accounts.empty()) net["users"] = {{"records", accounts}};
  nlohmann::json facts = {{"description", "derived from the Windows volume " + where},
                          {"system", system}};
  if (!net.empty()) facts["net"] = net;

  RecordedMachine::Source source;
  source.names.push_back("machine.json");
  for (const ImageHive& hive : hives) source.names.push_back(hive.name);
  std::sort(source.names.begin(), source.names.end());
  const std::string json = facts.dump();
  source.read = [json](const std::string&) { return json; };
  auto shared = std::make_shared<std::vector<ImageHive>>(std::move(hives));
  source.openHive = [shared](const std::string& name) {
    for (const ImageHive& hive : *shared)
      if (hive.name == name) return hive.open();
    throw RecordError(name + ": not in the image");
  };
  std::shared_ptr<Volume> volume(std::move(volumes.front()));
  source.findFile = [volume, drive](const std::string& key) -> std::optional<std::string> {
    // Keys are "c/windows/inf/x.inf": files of the Windows volume's drive only.
    if (key.size() < 2 || key[0] != std::tolower(static_cast<unsigned char>(drive)) ||
        key[1] != '/')
      return std::nullopt;
    return volume->readFile(key.substr(2), kMaxFileBytes);
  };
  std::shared_ptr<RecordedMachine> machine = RecordedMachine::FromSource(source);
  // What deriving the facts found damaged is the machine's to report.
  for (std::string& damage : registry.tree().damage())
    machine->recordedRegistry().reportDamage(std::move(damage));
  return machine;
}

}  // namespace platform::image
