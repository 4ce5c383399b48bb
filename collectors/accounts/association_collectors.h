// The five association classes: each joins the instances the host holds of two classes
// (running their collectors when the host has not yet) by references to those instances.
#pragma once

#include <string>

#include "common/get_info.h"

namespace installedapps_col {

// KestovaSG_OSEnvironmentVariable: the operating system and every environment variable.
class OSEnvironmentVariable : public GetInfo {
 public:
  explicit OSEnvironmentVariable(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns) override;
};

// KestovaSG_AccountOnSystem: every computer system and every account.
class AccountOnSystem : public GetInfo {
 public:
  explicit AccountOnSystem(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns) override;
};

// KestovaSG_CurrentAccountOnSystem: each computer system and the first account of the user
// the collector runs as.
class CurrentAccountOnSystem : public GetInfo {
 public:
  explicit CurrentAccountOnSystem(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns) override;
};

// KestovaSG_OSBaseComponent: the operating system and its top-level components.
class OSBaseComponent : public GetInfo {
 public:
  explicit OSBaseComponent(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns) override;
};

// KestovaSG_OSSubComponent: each component with a parent, and that parent.
class OSSubComponent : public GetInfo {
 public:
  explicit OSSubComponent(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns) override;
};

}  // namespace installedapps_col
