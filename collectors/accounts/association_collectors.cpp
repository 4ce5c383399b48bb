#include "collectors/accounts/association_collectors.h"

#include <cctype>
#include <vector>

#include "collectors/accounts/os_user_info.h"
#include "common/constants.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::ICIMInstance;
using NKestovaTessil20::ICIMNamespace;
using NKestovaTessil20::TCIMReference;
using NKestovaTessil20::TCIMValue;
using Instances = std::vector<boost::shared_ptr<ICIMInstance>>;

const std::string kGroupComponent = "GroupComponent";
const std::string kPartComponent = "PartComponent";
const std::string kElement = "Element";
const std::string kSetting = "Setting";
const std::string kParent = "Parent";
const std::string kUserID = "UserID";
const std::string kNoParent =
    "OSSubComponent::buildCIMAssociation During SoftwareFeatureComponent Association can't find "
    "parent with ID ";

// Dereferencing a null handle is the runtime's shared-pointer assertion; the collector then
// has nothing to join.
bool NamespaceMissing(const boost::shared_ptr<ICIMNamespace>& ns) {
  if (ns) return false;
  platform::Machine::Current().system().crtAssert("px != 0", "boost/smart_ptr/shared_ptr.hpp", 728);
  return true;
}

// The instances the host holds of the class and its subclasses, running the collectors it
// has not run yet; none for a class the namespace does not know.
Instances Enumerate(const boost::shared_ptr<ICIMNamespace>& ns, const std::string& className) {
  Instances instances;
  boost::shared_ptr<NKestovaTessil20::ICIMClass> cls;
  try {
    ns->GetClass(cls, className, {});
  } catch (const NKestovaTessil20::TTessilException&) {
    return instances;
  }
  if (!cls) return instances;
  NKestovaTessil20::TAddToVectorCallback<ICIMInstance> collect(instances);
  cls->EnumerateInstances(collect, true, {});
  return instances;
}

TCIMValue ReferenceTo(const boost::shared_ptr<ICIMInstance>& instance) {
  TCIMReference reference;
  instance->GetReference(reference, {});
  return TCIMValue(reference);
}

std::string TextOf(const boost::shared_ptr<ICIMInstance>& instance, const std::string& name) {
  boost::shared_ptr<NKestovaTessil20::ICIMProperty> property;
  instance->GetProperty(property, name, {});
  const TCIMValue value = property->GetValue();
  return value.IsNull() ? std::string() : value.ToString();
}

std::string Lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

OSEnvironmentVariable::OSEnvironmentVariable(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t OSEnvironmentVariable::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  if (NamespaceMissing(ns)) return 0;
  const Instances variables = Enumerate(ns, kClassEnvironmentVariable);
  const Instances systems = Enumerate(ns, kClassOperatingSystem);
  std::uint64_t count = 0;
  for (const auto& system : systems) {
    const TCIMValue element = ReferenceTo(system);
    for (const auto& variable : variables) {
      boost::shared_ptr<ICIMInstance> association;
      buildInstance(association, {{kElement, element}, {kSetting, ReferenceTo(variable)}},
                    kClassOSEnvironmentVariable);
      ++count;
    }
  }
  return count;
}

AccountOnSystem::AccountOnSystem(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t AccountOnSystem::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  if (NamespaceMissing(ns)) return 0;
  const Instances accounts = Enumerate(ns, kClassAccount);
  const Instances systems = Enumerate(ns, kClassComputerSystem);
  std::uint64_t count = 0;
  for (const auto& system : systems) {
    const TCIMValue group = ReferenceTo(system);
    for (const auto& account : accounts) {
      boost::shared_ptr<ICIMInstance> association;
      buildInstance(association, {{kGroupComponent, group}, {kPartComponent, ReferenceTo(account)}},
                    kClassAccountOnSystem);
      ++count;
    }
  }
  return count;
}

CurrentAccountOnSystem::CurrentAccountOnSystem(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t CurrentAccountOnSystem::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  if (NamespaceMissing(ns)) return 0;
  const Instances accounts = Enumerate(ns, kClassAccount);
  const Instances systems = Enumerate(ns, kClassComputerSystem);
  const std::string user = Lowered(OSUserInfo::getCurrentUserName());
  std::uint64_t count = 0;
  for (const auto& system : systems) {
    const TCIMValue group = ReferenceTo(system);
    for (const auto& account : accounts) {
      if (Lowered(TextOf(account, kUserID)) != user) continue;
      boost::shared_ptr<ICIMInstance> association;
      buildInstance(association, {{kGroupComponent, group}, {kPartComponent, ReferenceTo(account)}},
                    kClassCurrentAccountOnSystem);
      ++count;
      break;
    }
  }
  return count;
}

OSBaseComponent::OSBaseComponent(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t OSBaseComponent::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  if (NamespaceMissing(ns)) return 0;
  const Instances components = Enumerate(ns, kClassOSComponent);
  const Instances systems = Enumerate(ns, kClassOperatingSystem);
  std::uint64_t count = 0;
  for (const auto& system : systems) {
    const TCIMValue group = ReferenceTo(system);
    for (const auto& component : components) {
      if (!TextOf(component, kParent).empty()) continue;
      boost::shared_ptr<ICIMInstance> association;
      buildInstance(association,
                    {{kGroupComponent, group}, {kPartComponent, ReferenceTo(component)}},
                    kClassOSBaseComponent);
      ++count;
    }
  }
  return count;
}

OSSubComponent::OSSubComponent(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t OSSubComponent::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  if (NamespaceMissing(ns)) return 0;
  const Instances components = Enumerate(ns, kClassOSComponent);
  std::uint64_t count = 0;
  for (const auto& child : components) {
    const std::string parentName = TextOf(child, kParent);
    if (parentName.empty()) continue;
    const std::string wanted = Lowered(parentName);
    boost::shared_ptr<ICIMInstance> parent;
    for (const auto& candidate : components) {
      if (Lowered(TextOf(candidate, kPropName)) == wanted) {
        parent = candidate;
        break;
      }
    }
    if (!parent) {
      m_log->logInfo(kNoParent + parentName);
      continue;
    }
    boost::shared_ptr<ICIMInstance> association;
    buildInstance(association,
                  {{kGroupComponent, ReferenceTo(parent)}, {kPartComponent, ReferenceTo(child)}},
                  kClassOSSubComponent);
    ++count;
  }
  return count;
}

}  // namespace installedapps_col
