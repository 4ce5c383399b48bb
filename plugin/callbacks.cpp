#include "plugin/callbacks.h"

#include <algorithm>
#include <boost/pointer_cast.hpp>
#include <functional>
#include <new>

#include "common/constants.h"
#include "common/system_information.h"

namespace installedapps_col {

using NKestovaTessil20::ICIMClass;
using NKestovaTessil20::ICIMNamespace;
using NKestovaTessil20::TPluginManagerNamespace;
using NKestovaTessil20::TRootObject;

TInstalledAppsCallbacks::TInstalledAppsCallbacks() : m_providerHandle(nullptr), m_log(nullptr) {
  {
    boost::shared_ptr<ICIMNamespace> manager = TRootObject::GetPluginManager();
    boost::shared_ptr<TPluginManagerNamespace> pluginManager =
        boost::dynamic_pointer_cast<TPluginManagerNamespace>(manager);
    // A manager of another kind trips the shared-pointer check ("px != 0") here.
    pluginManager->RegisterPlugin(this);
  }
  LogMessage::setLoggingGate(m_providerHandle);
  m_log = LogMessage::instance();
}

TInstalledAppsCallbacks::~TInstalledAppsCallbacks() = default;

void* TInstalledAppsCallbacks::Reserved() {
  return nullptr;
}

std::string TInstalledAppsCallbacks::GetName() {
  return kPluginName;
}

std::string TInstalledAppsCallbacks::GetVersion() {
  return kPluginVersion;
}

std::string TInstalledAppsCallbacks::GetFrameworkVersion() {
  return kPluginVersion;
}

void TInstalledAppsCallbacks::Release(NKestovaTessil20::IPluginCallbacks* object) {
  delete object;
}

void TInstalledAppsCallbacks::Init() {
  m_log->logInfo(kInitHeader + kInitMessage);
}

void TInstalledAppsCallbacks::DeInit() {
  m_log->logInfo(kDeInitHeader + kDeInitMessage);
}

std::uint64_t TInstalledAppsCallbacks::QueryInstances(
    boost::shared_ptr<ICIMNamespace> ns, std::vector<boost::shared_ptr<ICIMClass>>& classes) {
  {
    SystemInformation information(ns);
    std::for_each(classes.begin(), classes.end(),
                  std::bind(&SystemInformation::collectClass, &information, std::placeholders::_1));
    m_log->logInfo(kNormalExit);
  }
  ns.reset();
  return 0;
}

int installedAppsModuleEntry(unsigned long reason) {
  if (reason != 1) return 1;
  // The object lives until the host deletes it; the plug-in never does.
  return new (std::nothrow) TInstalledAppsCallbacks() != nullptr ? 1 : 0;
}

}  // namespace installedapps_col
