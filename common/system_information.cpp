#include "common/system_information.h"

#include <exception>
#include <memory>

#include "collectors/accounts/association_collectors.h"
#include "collectors/accounts/environment_variable_info.h"
#include "collectors/accounts/os_user_info.h"
#include "collectors/components/os_component_info.h"
#include "collectors/os/os_info.h"
#include "collectors/os/page_file_info.h"
#include "collectors/os/time_zone.h"
#include "collectors/software/installed_app_info.h"
#include "collectors/software/installed_fix_info.h"
#include "common/constants.h"
#include "platform/process.h"

namespace installedapps_col {
namespace {

// TESSIL_EXCLUDEAPPS configures the plug-in, so it is read from the process that runs it,
// not from the machine being inventoried. Absent and empty read alike; a value too long
// for the buffer is a value all the same.
bool excludeAppsSet() {
  const platform::DWORD size = 32767;
  std::unique_ptr<char[]> buffer(new char[size]);
  return platform::ProcessEnvironmentVariableA(kExcludeAppsVariable.c_str(), buffer.get(), size) !=
         0;
}

}  // namespace

SystemInformation::SystemInformation(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns)
    : m_log(LogMessage::instance()), m_namespace(std::move(ns)) {
  // Presence with any content is the switch; the value itself means nothing.
  m_installedApplicationsServed = !excludeAppsSet();
  if (m_installedApplicationsServed) {
    m_classTable[kClassInstalledApplication] = &SystemInformation::createInstalledAppInfo;
  }
  m_classTable[kClassInstalledFix] = &SystemInformation::createInstalledFixInfo;
  m_classTable[kClassOSComponent] = &SystemInformation::createOSComponentInfo;
  m_classTable[kClassOSBaseComponent] = &SystemInformation::createOSBaseComponent;
  m_classTable[kClassOSSubComponent] = &SystemInformation::createOSSubComponent;
  m_classTable[kClassPageFile] = &SystemInformation::createPageFileInfo;
  m_classTable[kClassOperatingSystem] = &SystemInformation::createOSInfo;
  m_classTable[kClassTimeZone] = &SystemInformation::createTimeZoneInfo;
  m_classTable[kClassAccount] = &SystemInformation::createOSUserInfo;
  // One factory for both: the collector reads the variables of the class it is given.
  m_classTable[kClassSystemEnvironmentVariable] = &SystemInformation::createEnvironmentVariableInfo;
  m_classTable[kClassUserEnvironmentVariable] = &SystemInformation::createEnvironmentVariableInfo;
  m_classTable[kClassOSEnvironmentVariable] = &SystemInformation::createOSEnvironmentVariable;
  m_classTable[kClassAccountOnSystem] = &SystemInformation::createAccountOnSystem;
  m_classTable[kClassCurrentAccountOnSystem] = &SystemInformation::createCurrentAccountOnSystem;
}

SystemInformation::~SystemInformation() = default;

bool SystemInformation::servesInstalledApplications() const {
  return m_installedApplicationsServed;
}

std::vector<std::string> SystemInformation::classNames() const {
  std::vector<std::string> names;
  for (const auto& entry : m_classTable) names.push_back(entry.first);
  return names;
}

std::uint64_t SystemInformation::collectClass(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  const std::string name = cls->GetName();
  const auto entry = m_classTable.find(name);
  if (entry == m_classTable.end()) return 0;
  try {
    boost::shared_ptr<GetInfo> collector = (this->*(entry->second))(cls);
    std::uint64_t count = 0;
    if (cls->IsAssociation()) {
      count = collector->getCIMAssociations(m_namespace);
    } else {
      count = collector->getCIMInstances();
    }
    collector.reset();
    return count;
  } catch (const std::exception& e) {
    m_log->logInfo(kExceptionCaught + kCollectingDataForClass + " " + name + " " + e.what());
  }
  return 0;
}

// These two hand out the collector through its base-class pointer.
boost::shared_ptr<GetInfo> SystemInformation::createInstalledAppInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<GetInfo>(static_cast<GetInfo*>(new InstalledAppInfo(cls)));
}

boost::shared_ptr<GetInfo> SystemInformation::createInstalledFixInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<GetInfo>(static_cast<GetInfo*>(new InstalledFixInfo(cls)));
}

boost::shared_ptr<GetInfo> SystemInformation::createPageFileInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<PageFileInfo>(new PageFileInfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSInfo>(new OSInfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createTimeZoneInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<TTimeZoneinfo>(new TTimeZoneinfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createEnvironmentVariableInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<EnvironmentVariableInfo>(new EnvironmentVariableInfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSComponentInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSComponentInfo>(new OSComponentInfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSBaseComponent(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSBaseComponent>(new OSBaseComponent(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSSubComponent(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSSubComponent>(new OSSubComponent(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSUserInfo(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSUserInfo>(new OSUserInfo(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createOSEnvironmentVariable(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<OSEnvironmentVariable>(new OSEnvironmentVariable(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createAccountOnSystem(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<AccountOnSystem>(new AccountOnSystem(cls));
}

boost::shared_ptr<GetInfo> SystemInformation::createCurrentAccountOnSystem(
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls) {
  return boost::shared_ptr<CurrentAccountOnSystem>(new CurrentAccountOnSystem(cls));
}

}  // namespace installedapps_col
