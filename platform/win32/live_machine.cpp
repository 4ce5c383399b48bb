// The live machine: the six families that call Windows.
#include "platform/win32/live_machine.h"

#include "platform/win32/live_families.h"

namespace platform::win32 {
namespace {

class LiveMachine final : public Machine {
 public:
  Registry& registry() override { return *registry_; }
  System& system() override { return *system_; }
  Pdh& pdh() override { return *pdh_; }
  NetApi& net() override { return *net_; }
  Wmi& wmi() override { return *wmi_; }
  Setup& setup() override { return *setup_; }

 private:
  std::unique_ptr<Registry> registry_ = MakeLiveRegistry();
  std::unique_ptr<System> system_ = MakeLiveSystem();
  std::unique_ptr<Pdh> pdh_ = MakeLivePdh();
  std::unique_ptr<NetApi> net_ = MakeLiveNetApi();
  std::unique_ptr<Wmi> wmi_ = MakeLiveWmi();
  std::unique_ptr<Setup> setup_ = MakeLiveSetup();
};

}  // namespace

std::shared_ptr<Machine> MakeLiveMachine() {
  return std::make_shared<LiveMachine>();
}

}  // namespace platform::win32
