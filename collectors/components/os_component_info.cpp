#include "collectors/components/os_component_info.h"

#include <cstring>

#include "collectors/components/file_version.h"
#include "collectors/components/path_search.h"
#include "common/constants.h"
#include "platform/machine.h"
#include "registry/RegistryKeyEnum.h"

namespace installedapps_col {
namespace {

const std::string kSubcomponentsPath =
    "SOFTWARE\\MICROSOFT\\WINDOWS\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents";
const char kOptionalComponents[] = "optional components";
const std::string kVendor = "Microsoft Corporation";
const std::string kBackupProgram = "ntbackup.exe";
const std::string kGetCIMInstances = "OSComponentInfo::getCIMInstances ";
const std::string kMissingInf = " cannot be parsed because file does not exist. ";

const std::string kPropIdentifyingNumber = "IdentifyingNumber";
const std::string kPropVendor = "Vendor";
const std::string kPropVersion = "Version";
const std::string kPropDLLName = "DLLName";
const std::string kPropINFName = "INFName";
const std::string kPropTip = "Tip";
const std::string kPropParent = "Parent";
const std::string kPropComponentInstalled = "ComponentInstalled";
const std::string kPropHidden = "Hidden";

constexpr platform::UINT kPathBuffer = 256;
constexpr platform::DWORD kTextBuffer = 256;

// A directory from a call that answers its length: empty when the call failed or the
// buffer was too short for it.
std::string Directory(platform::UINT (platform::System::*call)(char*, platform::UINT)) {
  char buffer[kPathBuffer] = {};
  const platform::UINT length = (platform::Machine::Current().system().*call)(buffer, kPathBuffer);
  if (length == 0 || length >= kPathBuffer) return std::string();
  return std::string(buffer, strnlen(buffer, kPathBuffer));
}

// The text of a line's fields; empty when it cannot be read or does not fit.
std::string LineText(platform::INFCONTEXT& context) {
  char buffer[kTextBuffer] = {};
  if (!platform::Machine::Current().setup().SetupGetLineTextA(&context, nullptr, nullptr, nullptr,
                                                              buffer, kTextBuffer, nullptr))
    return std::string();
  return std::string(buffer, strnlen(buffer, kTextBuffer));
}

// The text of `key` in the section `section`; empty when the key is missing.
std::string KeyText(platform::HINF inf, const std::string& section, const char* key) {
  platform::INFCONTEXT context{};
  if (!platform::Machine::Current().setup().SetupFindFirstLineA(inf, section.c_str(), key,
                                                                &context))
    return std::string();
  return LineText(context);
}

// Leading decimal digits as an unsigned 32-bit number; beyond its range the largest one,
// no digits 0.
unsigned ParseUnsigned(const std::string& text) {
  std::size_t i = text.find_first_not_of(" \t");
  std::uint64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
    if (value > 0xFFFFFFFFu) return 0xFFFFFFFFu;
  }
  return static_cast<unsigned>(value);
}

}  // namespace

OSComponentInfo::OSComponentInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::vector<InfListEntry> OSComponentInfo::getINFFileList(const std::string& infDirectory) {
  return ReadINFFileList(infDirectory, *m_log);
}

unsigned OSComponentInfo::getInstalledState(const std::string& componentId) {
  const ValueNameTable table{{componentId, componentId}};
  const RegistryValueSet values = m_subcomponents ? m_subcomponents->read(table)
                                                  : ReadSelectedValues(kSubcomponentsPath, table);
  const auto found = values.find(componentId);
  if (found == values.end()) return 0;
  // Unsigned arithmetic: a recorded 4294967295 wraps to 0.
  return ParseUnsigned(found->second) + 1u;
}

std::string OSComponentInfo::getVersion(const std::string& path, std::string& description) {
  return ReadFileVersion(path, description);
}

std::string OSComponentInfo::findDllInSysPath(const std::string& name, std::string& description) {
  return FindOnPath(name, description);
}

std::string OSComponentInfo::setupDllVersion(const std::string& dllName) {
  const auto known = m_dllVersions.find(dllName);
  if (known != m_dllVersions.end()) return known->second;
  std::string description;
  std::string version;
  const std::string systemDirectory = Directory(&platform::System::GetSystemDirectoryA);
  if (!systemDirectory.empty()) {
    const std::string path = systemDirectory + "\\Setup\\" + dllName;
    version = getVersion(path, description);
    // A 32-bit process sees SysWOW64 there; the 64-bit setup DLL is behind redirection.
    if (version.empty()) WithoutFsRedirection([&] { version = getVersion(path, description); });
  }
  if (version.empty()) version = findDllInSysPath(dllName, description);
  m_dllVersions[dllName] = version;
  return version;
}

void OSComponentInfo::readComponents(const std::string& infPath, const InfListEntry& entry,
                                     std::vector<TextRecord>& records) {
  platform::Setup& setup = platform::Machine::Current().setup();
  const platform::HINF inf =
      setup.SetupOpenInfFileA(infPath.c_str(), nullptr, platform::INF_STYLE_WIN4, nullptr);
  if (inf == platform::INVALID_HANDLE_VALUE) {
    m_log->logInfo("OsComponentInfo::getInfo " + infPath + kMissingInf);
    return;
  }
  platform::INFCONTEXT context{};
  if (setup.SetupFindFirstLineA(inf, kOptionalComponents, nullptr, &context)) {
    const platform::LONG lines = setup.SetupGetLineCountA(inf, kOptionalComponents);
    for (platform::LONG index = 0; index < lines; ++index) {
      setup.SetupGetLineByIndexA(inf, kOptionalComponents, static_cast<platform::DWORD>(index),
                                 &context);
      const std::string id = LineText(context);
      TextRecord record;
      record[kPropProductName] = KeyText(inf, id, "optiondesc");
      record[kPropTip] = KeyText(inf, id, "tip");
      record[kPropParent] = KeyText(inf, id, "parent");
      const std::string version = setupDllVersion(entry.dllName);
      record[kPropIdentifyingNumber] = version;
      record[kPropVersion] = version;
      record[kPropVendor] = kVendor;
      record[kPropName] = id;
      record[kPropDLLName] = entry.dllName;
      record[kPropINFName] = infPath;
      if (!m_subcomponents) m_subcomponents.reset(new SelectedValueReader(kSubcomponentsPath));
      record[kPropComponentInstalled] = std::to_string(getInstalledState(id));
      record[kPropHidden] = entry.hidden;
      records.push_back(std::move(record));
    }
  }
  setup.SetupCloseInfFile(inf);
}

void OSComponentInfo::addBackupProgram(std::vector<TextRecord>& records) {
  const std::string baseName = kBackupProgram.substr(0, kBackupProgram.find(".exe"));
  std::string description;
  std::string version = findDllInSysPath(kBackupProgram, description);
  if (version.empty())
    WithoutFsRedirection([&] { version = findDllInSysPath(kBackupProgram, description); });
  if (version.empty()) return;
  m_log->logInfo("bpName = " + baseName + ". " + "version = " + version);
  TextRecord record;
  record[kPropIdentifyingNumber] = version;
  record[kPropProductName] = description;
  record[kPropVendor] = kVendor;
  record[kPropVersion] = version;
  record[kPropName] = baseName;
  record[kPropDLLName] = kBackupProgram;
  record[kPropComponentInstalled] = "2";
  records.push_back(std::move(record));
}

std::vector<TextRecord> OSComponentInfo::getInfo(const std::string& /*className*/) {
  std::vector<TextRecord> records;
  m_dllVersions.clear();
  m_subcomponents.reset();
  const std::string windowsDirectory = Directory(&platform::System::GetSystemWindowsDirectoryA);
  // Without the Windows directory there is no INF directory: read as a missing sysoc.inf.
  const std::string infDirectory = windowsDirectory.empty() ? "" : windowsDirectory + "\\inf";
  for (const InfListEntry& entry : getINFFileList(infDirectory))
    readComponents(infDirectory + "\\" + entry.infName, entry, records);
  m_subcomponents.reset();
  addBackupProgram(records);
  return records;
}

std::uint64_t OSComponentInfo::getCIMInstances() {
  std::uint64_t count = 0;
  try {
    const std::string className = getClass()->GetName();
    for (const TextRecord& record : getInfo(className)) {
      PropertyMap properties;
      properties.reserve(record.size());
      addCIMValues(properties, record);
      boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
      buildInstance(instance, std::move(properties), className);
      ++count;
    }
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo(kGetCIMInstances + kErrorGeneratingInstances + " " +
                   std::to_string(e.GetStatusCode().GetCode()));
  }
  return count;
}

}  // namespace installedapps_col
