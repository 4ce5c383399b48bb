// One machine as the collectors see it, and the process-wide accessor through which they
// reach it (the way LevelDB code reaches Env::Default()).
#pragma once

#include <memory>

#include "platform/export.h"
#include "platform/netapi.h"
#include "platform/pdh.h"
#include "platform/registry.h"
#include "platform/setup.h"
#include "platform/system.h"
#include "platform/wmi.h"

namespace platform {

class KPLATFORM_API Machine {
 public:
  virtual ~Machine();
  virtual Registry& registry() = 0;
  virtual System& system() = 0;
  virtual Pdh& pdh() = 0;
  virtual NetApi& net() = 0;
  virtual Wmi& wmi() = 0;
  virtual Setup& setup() = 0;

  // The machine every collector reads. Until one is installed: the live machine on
  // Windows, elsewhere an empty recorded machine (every call fails as on a machine that
  // has nothing to report).
  static Machine& Current();
  // Replaces the current machine; answers the one it replaced (null for the default).
  static std::shared_ptr<Machine> Install(std::shared_ptr<Machine> machine);
};

}  // namespace platform
