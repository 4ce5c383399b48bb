#include "collectors/software/installed_fix_info.h"

#include <cctype>
#include <unordered_set>

#include "collectors/software/product_instances.h"
#include "common/constants.h"
#include "registry/RegistryKeyEnum.h"
#include "registry/registrysubkeynames.h"

namespace installedapps_col {
namespace {

const std::string kGetCIMInstances = "InstalledFixInfo::getCIMInstances";
const std::string kFileList = "\\filelist";

std::string Lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

InstalledFixInfo::InstalledFixInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t InstalledFixInfo::getCIMInstances() {
  std::uint64_t count = 0;
  try {
    const std::string className = getClass()->GetName();
    std::vector<TextRecord> records;
    {
      WindowsFixInfo reader;
      reader.getInfo(records);
    }
    count = BuildProductInstances(*this, records, className);
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo(kGetCIMInstances + kErrorGeneratingInstances + " " +
                   std::to_string(e.GetStatusCode().GetCode()));
  }
  return count;
}

WindowsFixInfo::WindowsFixInfo()
    : m_valueNames{{kPropInstalledBy, "InstalledBy"},
                   {kPropProductInstallDate, "InstalledDate"},
                   {kPropProductName, "Description"},
                   {kPropProductVendor, "Publisher"},
                   {kPropProductVersion, "DisplayVersion"}},
      m_log(LogMessage::instance()) {}

WindowsFixInfo::~WindowsFixInfo() = default;

void WindowsFixInfo::getInfo(std::vector<TextRecord>& records) {
  records.clear();
  // Breadth first: each level maps a parent to the keys still to visit below it.
  std::map<std::string, std::vector<std::string>> level{{"", {kUpdatesPath}}};
  while (!level.empty()) {
    std::map<std::string, std::vector<std::string>> next;
    for (const auto& entry : level) {
      for (const std::string& key : entry.second) {
        std::vector<std::string> below = walkUpdateKey(key);
        if (!below.empty()) next[key] = std::move(below);
      }
    }
    level.swap(next);
  }

  getPropertiesFromWMI(records);
  if (records.empty()) {
    // Straight to the host's logger, whatever the plug-in's gate says. The text names WMI
    // although the registry is what follows.
    NKestovaTessil20::ILogger* logger = NKestovaTessil20::TRootObject::GetCoreLogger();
    if (logger != nullptr) logger->Log(3, kFixTryWmi);
    getPropertiesFromRegistry(records);
  }
}

std::vector<std::string> WindowsFixInfo::walkUpdateKey(const std::string& key) {
  std::vector<std::string> toVisit;
  const std::vector<std::string> subKeys = EnumerateSubKeyNames(key);
  const std::string fileList = Lowered(key + kFileList);
  for (const std::string& subKey : subKeys) {
    if (Lowered(subKey) == fileList) {
      m_fixKeys.push_back(key);
    } else {
      toVisit.push_back(subKey);
    }
  }
  if (subKeys.empty()) m_fixKeys.push_back(key);
  return toVisit;
}

void WindowsFixInfo::getPropertiesFromRegistry(std::vector<TextRecord>& records) {
  std::unordered_set<std::string> delivered;
  for (const std::string& key : m_fixKeys) {
    RegistryValueSet values = ReadKeyValues(key);
    const std::string::size_type separator = key.rfind('\\');
    if (separator != std::string::npos) {
      const RegistryValueSet entry =
          ReadKeyValues(kFixUninstallPath + "\\" + key.substr(separator + 1));
      values.insert(entry.begin(), entry.end());
    }
    TextRecord record = translateValueNames(values);
    const auto name = record.find(kPropProductName);
    if (name == record.end() || !delivered.insert(name->second).second) continue;
    records.push_back(std::move(record));
  }
}

TextRecord WindowsFixInfo::translateValueNames(const RegistryValueSet& values) const {
  if (m_valueNames.empty()) return values;
  TextRecord record;
  for (const auto& row : m_valueNames) {
    const auto value = values.find(row.second);
    if (value != values.end()) record[row.first] = value->second;
  }
  return record;
}

}  // namespace installedapps_col
