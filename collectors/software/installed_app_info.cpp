#include "collectors/software/installed_app_info.h"

#include <cctype>
#include <cstdint>
#include <sstream>

#include "collectors/software/hot_fix_names.h"
#include "collectors/software/product_instances.h"
#include "common/constants.h"
#include "registry/RegistryKeyEnum.h"
#include "registry/registrysubkeynames.h"

namespace installedapps_col {
namespace {

const std::string kHotfix = "Hotfix";
const std::string kGetCIMInstances = "InstalledAppInfo::getCIMInstances";

ValueNameTable InitialValueNames() {
  return {{kPropProductIdentifyingNumber, "Version"}, {kPropProductName, "DisplayName"},
          {kPropProductVersion, "DisplayVersion"},    {kPropProductInstallDate, "InstallDate"},
          {kPropProductVendor, "Publisher"},          {kPropCollectionID, "CollectionID"}};
}

std::string WithoutCharacters(const std::string& text, int (*test)(int)) {
  std::string kept;
  for (const char c : text) {
    if (!test(static_cast<unsigned char>(c))) kept += c;
  }
  return kept;
}

std::string PackedVersionText(std::int64_t major, std::uint32_t packed) {
  return std::to_string(major) + "." + std::to_string((packed >> 16) & 0xFF) + "." +
         std::to_string(packed & 0xFFFF);
}

// The installer keeps a product's version packed in a DWORD: major in the top byte, minor
// in the next, build in the low word. The text is read as a signed 32-bit number. A DWORD
// of 2^31 or more (major 128 and up) does not read so; it is decoded from its unsigned
// value. Any other text that is no number is left as found.
std::string UnpackedVersion(const std::string& text) {
  std::int32_t number = 0;
  std::istringstream stream(text);
  if (stream >> number) {
    return PackedVersionText(number >> 24, static_cast<std::uint32_t>(number));
  }
  unsigned long long wide = 0;
  std::istringstream unsignedStream(text);
  if (text.find('-') == std::string::npos && (unsignedStream >> wide) && wide <= 0xFFFFFFFFull) {
    const auto packed = static_cast<std::uint32_t>(wide);
    return PackedVersionText(packed >> 24, packed);
  }
  return text;
}

}  // namespace

InstalledAppInfo::InstalledAppInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)), m_hotFixMatcher(new HotFixNameMatcher) {
  m_hotFixKeyNames = EnumerateSubKeyNames(kHotFixPath);
  m_hotFixMatcher->add(kHotfix);
  for (const std::string& key : m_hotFixKeyNames) {
    const std::string fix =
        key.size() > kHotFixPath.size() ? key.substr(kHotFixPath.size() + 1) : std::string();
    if (!fix.empty()) m_hotFixMatcher->add(fix);
    m_hotFixMatcher->add(WithoutCharacters(fix, &isdigit) + " " + WithoutCharacters(fix, &isalpha));
  }
}

InstalledAppInfo::~InstalledAppInfo() = default;

bool InstalledAppInfo::isHotFixName(const std::string& productName) const {
  return m_hotFixMatcher->foundIn(productName);
}

bool InstalledAppInfo::isNewName(const TextRecord& record) {
  const auto name = record.find(kPropProductName);
  if (name == record.end() || name->second.empty()) return false;
  return m_seenNames.insert(name->second);
}

bool InstalledAppInfo::isApplication(const TextRecord& record) {
  return isNewName(record) && !isHotFixName(record.at(kPropProductName));
}

bool InstalledAppInfo::isFix(const TextRecord& record) {
  return isNewName(record) && isHotFixName(record.at(kPropProductName));
}

void InstalledAppInfo::getInfo(std::vector<TextRecord>& records, const std::string& className) {
  ValueNameTable valueNames = InitialValueNames();
  records.clear();
  const std::string sources[] = {kUninstallPath, kUninstallPathWow64, kInstallerProductsPath};
  for (const std::string& source : sources) {
    const bool installer = &source == &sources[2];
    if (installer) {
      valueNames[kPropProductVersion] = "Version";
      valueNames[kPropProductName] = "ProductName";
    }
    const std::vector<std::string> subKeys = EnumerateSubKeyNames(source);
    if (subKeys.empty()) {
      m_log->logInfo(kAppsNoSubKeys);
      continue;
    }
    m_seenNames.reserve(m_seenNames.size() + subKeys.size());
    // Each record is judged as soon as it is read, while it is still in the cache; the
    // judging reads nothing from the machine, so the calls are those of reading all first.
    for (const std::string& subKey : subKeys) {
      TextRecord record = ReadSelectedValues(subKey, valueNames);
      bool keep = true;
      if (className == kClassInstalledFix) {
        keep = isFix(record);
      } else if (className == kClassInstalledApplication) {
        keep = isApplication(record);
      }
      if (!keep) continue;
      if (installer) {
        auto version = record.find(kPropProductVersion);
        if (version != record.end() && !version->second.empty()) {
          version->second = UnpackedVersion(version->second);
        }
      }
      records.push_back(std::move(record));
    }
  }
  if (records.empty()) m_log->logInfo(kAppsNoList);
}

std::uint64_t InstalledAppInfo::getCIMInstances() {
  std::uint64_t count = 0;
  try {
    const std::string className = getClass()->GetName();
    std::vector<TextRecord> records;
    getInfo(records, className);
    count = BuildProductInstances(*this, records, className);
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo(kGetCIMInstances + kErrorGeneratingInstances + " " +
                   std::to_string(e.GetStatusCode().GetCode()));
  }
  return count;
}

}  // namespace installedapps_col
