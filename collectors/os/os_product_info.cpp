#include "collectors/os/os_product_info.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "common/constants.h"
#include "platform/machine.h"
#include "registry/RegistryKeyEnum.h"

namespace installedapps_col {
namespace {

using platform::DWORD;
using platform::OSVERSIONINFOEXA;

constexpr DWORD kNtPlatform = 2;
constexpr DWORD kWorkstation = 1;
constexpr platform::WORD kSmallBusiness = 0x0001;
constexpr platform::WORD kEnterprise = 0x0002;
constexpr platform::WORD kSmallBusinessRestricted = 0x0020;
constexpr platform::WORD kDatacenter = 0x0080;
constexpr platform::WORD kPersonal = 0x0200;
constexpr platform::WORD kBlade = 0x0400;

const std::string kVersionKey = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
const std::string kVersionKeyUpper = "SOFTWARE\\MICROSOFT\\WINDOWS NT\\CurrentVersion";
const std::string kR2SetupKey = "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\R2Setup";
const std::string kMiniNTKey = "SYSTEM\\CurrentControlSet\\Control\\MiniNT";
const std::string kNoServicePack = "No service packs installed";
const std::string kFixLevel = "FixLevel";
const std::string kCSDVersion = "CSDVersion";
constexpr DWORD kR2BufferSize = 1024;
// A value Windows can hold is far below this; a registry that keeps asking for more is
// not believed.
constexpr DWORD kValueLimit = 16u << 20;

const std::vector<std::pair<std::string, std::uint16_t>>& EditionCodes() {
  static const std::vector<std::pair<std::string, std::uint16_t>> codes = {
      {"unknown", 0},
      {"other", 1},
      {"Workstation 4.0", 2},
      {"Home Edition", 3},
      {"Professional", 4},
      {"Datacenter Edition", 5},
      {"Enterprise Edition", 6},
      {"Web Edition", 7},
      {"Standard Edition", 8},
      {"Datacenter Server", 9},
      {"Advanced Server", 10},
      {"Server", 11},
      {"Business Edition", 12},
      {"Small Business Edition", 13},
      {"Small Business Edition Restricted", 14},
      {"Home Premium Edition", 15},
      {"Ultimate Edition", 16},
      {"Professional Edition", 17},
      {"Home Basic Edition", 18},
      {"HPC Edition", 19},
  };
  return codes;
}

// The rows "0" and "1" can never match a "major.minor" text; 6.0 is decided by rules.
const std::vector<std::pair<std::string, std::uint16_t>>& OSTypeCodes() {
  static const std::vector<std::pair<std::string, std::uint16_t>> codes = {
      {"0", 0}, {"1", 1}, {"4.0", 18}, {"5.0", 58}, {"5.1", 67}, {"5.2", 69}, {"6.1", 82}};
  return codes;
}

std::string VersionText(const OSVERSIONINFOEXA& version) {
  return std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion);
}

// A string value of an open key read the way the PE test reads it: a buffer grown by the
// size the registry asks for plus 1024 bytes. Empty when it cannot be read.
std::string GrowingRead(platform::HKEY key, const char* name) {
  platform::Registry& registry = platform::Machine::Current().registry();
  std::unique_ptr<platform::BYTE[]> buffer(new platform::BYTE[1]);
  DWORD size = 0, type = 0;
  platform::LONG status = registry.RegQueryValueExA(key, name, nullptr, &type, buffer.get(), &size);
  while (status == platform::ERROR_MORE_DATA) {
    if (size > kValueLimit) return std::string();
    size += 1024;
    buffer.reset(new (std::nothrow) platform::BYTE[size]);
    if (!buffer) return std::string();
    const DWORD capacity = size;
    status = registry.RegQueryValueExA(key, name, nullptr, &type, buffer.get(), &size);
    if (size > capacity) size = capacity;
  }
  if (status != platform::ERROR_SUCCESS) return std::string();
  const char* text = reinterpret_cast<const char*>(buffer.get());
  const void* nul = std::memchr(text, '\0', size);
  return std::string(text, nul ? static_cast<const char*>(nul) - text : size);
}

}  // namespace

OSProductInfo::OSProductInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : m_class(std::move(cls)), m_log(LogMessage::instance()) {}

DWORD OSProductInfo::productType(const OSVERSIONINFOEXA& version) {
  platform::System& system = platform::Machine::Current().system();
  platform::HMODULE kernel = system.GetModuleHandleA("kernel32.dll");
  if (kernel == nullptr || system.GetProcAddress(kernel, "GetProductInfo") == nullptr) return 0;
  DWORD type = 0;
  system.GetProductInfo(version.dwMajorVersion, version.dwMinorVersion, 0, 0, &type);
  return type;
}

std::string OSProductInfo::getEditionName(const OSVERSIONINFOEXA& version) {
  std::string edition;
  if (version.dwPlatformId != kNtPlatform) return edition;
  const DWORD major = version.dwMajorVersion, minor = version.dwMinorVersion;
  const platform::WORD suite = version.wSuiteMask;
  if (version.wProductType == kWorkstation) {
    if (major == 6) edition = "Business Edition";  // always replaced below
    if (major == 4) {
      edition = "Workstation 4.0";
    } else {
      edition = (suite & kPersonal) ? "Home Edition" : "Professional";
    }
    if (major == 6 && minor == 1) {
      switch (productType(version)) {
        case 1:
          edition = "Ultimate Edition";
          break;
        case 2:
          edition = "Home Basic Edition";
          break;
        case 3:
          edition = "Home Premium Edition";
          break;
        case 4:
          edition = "Enterprise Edition";
          break;
        case 48:
          edition = "Professional Edition";
          break;
        default:
          break;
      }
    }
    return edition;
  }
  if (version.wProductType != 2 && version.wProductType != 3) return edition;
  if (major == 5 && minor == 2) {
    if (suite & kDatacenter) return "Datacenter Edition";
    if (suite & kEnterprise) return "Enterprise Edition";
    if (suite & kBlade) return "Web Edition";
    if (suite & kSmallBusiness) return "Small Business Edition";
    return "Standard Edition";
  }
  if (major == 5 && minor == 0) {
    if (suite & kDatacenter) return "Datacenter Server";
    if (suite & kEnterprise) return "Advanced Server";
    return "Server";
  }
  if (major == 6 && (minor == 0 || minor == 1)) {
    if (suite & kDatacenter) return "Datacenter Edition";
    if (suite & kEnterprise) return "Enterprise Edition";
    if (suite & kBlade) return "Web Edition";
    if (suite & kSmallBusiness) return "Small Business Edition";
    if (suite & kSmallBusinessRestricted) return "Small Business Edition Restricted";
    return productType(version) == 18 ? "HPC Edition" : "Standard Edition";
  }
  return edition;
}

std::uint16_t OSProductInfo::getOSSubType(const OSVERSIONINFOEXA& version) {
  const std::map<std::string, std::uint16_t> codes(EditionCodes().begin(), EditionCodes().end());
  const auto code = codes.find(getEditionName(version));
  return code == codes.end() ? 0 : code->second;
}

bool OSProductInfo::isWindowsPE() {
  platform::Registry& registry = platform::Machine::Current().registry();
  std::string buildLab, productName;
  platform::HKEY key = nullptr;
  if (registry.RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, kVersionKey.c_str(), 0,
                             platform::KEY_READ, &key) == platform::ERROR_SUCCESS) {
    buildLab = GrowingRead(key, "BuildLabEx");
    productName = GrowingRead(key, "ProductName");
    registry.RegCloseKey(key);
  }
  platform::OSVERSIONINFOA version{};
  version.dwOSVersionInfoSize = sizeof version;
  platform::Machine::Current().system().GetVersionExA(&version);
  return productName.find("Preinstallation") != std::string::npos &&
         (buildLab.find("win7") != std::string::npos || version.dwMajorVersion >= 6);
}

bool OSProductInfo::processorIs64Bit() {
  platform::SYSTEM_INFO info{};
  platform::Machine::Current().system().GetSystemInfo(&info);
  return info.wProcessorArchitecture == platform::PROCESSOR_ARCHITECTURE_IA64 ||
         info.wProcessorArchitecture == platform::PROCESSOR_ARCHITECTURE_AMD64;
}

// A 32-bit process under WOW64 runs on 64-bit Windows; any other process asks the processor.
bool OSProductInfo::is64Bit() {
  platform::System& system = platform::Machine::Current().system();
  platform::HMODULE kernel = system.GetModuleHandleA("kernel32");
  if (kernel != nullptr && system.GetProcAddress(kernel, "IsWow64Process") != nullptr) {
    platform::BOOL wow64 = platform::FALSE;
    if (system.IsWow64Process(system.GetCurrentProcess(), &wow64) && wow64 == 1) return true;
  }
  return processorIs64Bit();
}

bool OSProductInfo::hasR2Setup() {
  platform::HKEY key = nullptr;
  if (OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, kR2SetupKey) != 0) return false;
  platform::BYTE buffer[kR2BufferSize];
  DWORD size = kR2BufferSize, type = 0;
  const bool found =
      platform::Machine::Current().registry().RegQueryValueExA(
          key, "R2BuildNumber", nullptr, &type, buffer, &size) == platform::ERROR_SUCCESS;
  CloseRegistryKey(key);
  return found;
}

std::uint16_t OSProductInfo::getOSType(const OSVERSIONINFOEXA& version) {
  const std::string text = VersionText(version);
  std::uint16_t type = 0;
  for (const auto& row : OSTypeCodes()) {
    if (row.first == text) {
      type = row.second;
      break;
    }
  }
  const bool r2 = hasR2Setup();
  if (type == 69 && r2) type = 72;
  const DWORD major = version.dwMajorVersion, minor = version.dwMinorVersion;
  const bool workstation = version.wProductType == kWorkstation;
  if (major == 5 && minor == 2) {
    if (workstation) {
      type = 71;
    } else if (is64Bit()) {
      type = r2 ? 73 : 70;
    }
  } else if (major == 6 && minor == 0) {
    m_log->logInfo("Windows Vista detected.");
    if (!workstation) {
      m_log->logDebug("Windows Longhorn detected.");
      type = is64Bit() ? 77 : 76;
    } else {
      type = is64Bit() ? 75 : 74;
    }
    platform::HKEY key = nullptr;
    if (OpenRegistryKey(key, platform::HKEY_LOCAL_MACHINE, kMiniNTKey) == 0) {
      m_log->logInfo("MiniNT key found in registry, consider it as Windows PE.");
      type = processorIs64Bit() ? 80 : 79;
      CloseRegistryKey(key);
    }
  } else if (major == 6 && minor == 1) {
    if (!workstation) {
      type = 82;
    } else if (isWindowsPE()) {
      type = processorIs64Bit() ? 80 : 79;
    } else {
      type = 83;
    }
  }
  return type;
}

TextRecord OSProductInfo::getVersionProperties() {
  TextRecord properties;
  platform::System& system = platform::Machine::Current().system();
  OSVERSIONINFOEXA version{};
  version.dwOSVersionInfoSize = sizeof version;
  if (!system.GetVersionExA(reinterpret_cast<platform::OSVERSIONINFOA*>(&version))) {
    system.GetLastError();
    return properties;
  }
  const std::uint16_t type = getOSType(version);
  std::uint16_t subType = getOSSubType(version);
  // A 6.0 workstation that is neither a home nor a product-info edition is the business one.
  if ((type == 74 || type == 75) && subType == 4) subType = 12;
  properties["OSType"] = std::to_string(type);
  properties["OSSubType"] = std::to_string(subType);

  const std::string servicePack(version.szCSDVersion,
                                strnlen(version.szCSDVersion, sizeof version.szCSDVersion));
  const std::string fixLevel = servicePack.empty() ? kNoServicePack : servicePack;
  m_log->logDebug("Service Pack:" + servicePack);
  m_log->logDebug("Size of Fix Level:" + std::to_string(fixLevel.size()));
  // The lookup name and the inserted name differ: nothing here inserts "CSDVersion".
  const auto found = properties.find(kCSDVersion);
  if (found == properties.end()) {
    m_log->logDebug("Did not find fix level, adding property");
    properties[kFixLevel] = fixLevel;
  } else {
    m_log->logDebug("Found fix level, modifying property");
    found->second = fixLevel;
  }
  return properties;
}

TextRecord OSProductInfo::getRegistryProperties() {
  const ValueNameTable names = {{"ProductID", "ProductId"},
                                {"Version", "CurrentVersion"},
                                {"InstallDate", "InstallDate"},
                                {"RegisteredOwner", "RegisteredOwner"},
                                {"BuildID", "CurrentBuildNumber"}};
  return ReadSelectedValues(kVersionKeyUpper, names);
}

PropertyMap OSProductInfo::getProductProperties() {
  TextRecord texts = getRegistryProperties();
  const TextRecord version = getVersionProperties();
  texts.insert(version.begin(), version.end());
  texts.emplace(kPropProductVendor, "Microsoft Corporation");

  boost::shared_ptr<NKestovaTessil20::ICIMClass> osClass = m_class;
  if (m_class) {
    boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns;
    m_class->GetNamespace(ns, {});
    boost::shared_ptr<NKestovaTessil20::ICIMClass> found;
    if (ns) ns->GetClass(found, kClassOperatingSystem, {});
    if (found) osClass = found;
  }
  CIMValueBuilder builder(osClass);
  PropertyMap properties;
  for (const auto& entry : texts) {
    builder.getCIMValueForProperty(properties[entry.first], entry.first, entry.second);
  }
  return properties;
}

}  // namespace installedapps_col
