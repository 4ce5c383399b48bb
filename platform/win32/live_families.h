// Factories of the live families, one per source file, so that only those files see
// <windows.h>.
#pragma once

#include <memory>

#include "platform/netapi.h"
#include "platform/pdh.h"
#include "platform/registry.h"
#include "platform/setup.h"
#include "platform/system.h"
#include "platform/wmi.h"

namespace platform::win32 {

std::unique_ptr<Registry> MakeLiveRegistry();
std::unique_ptr<System> MakeLiveSystem();
std::unique_ptr<Pdh> MakeLivePdh();
std::unique_ptr<NetApi> MakeLiveNetApi();
std::unique_ptr<Wmi> MakeLiveWmi();
std::unique_ptr<Setup> MakeLiveSetup();

}  // namespace platform::win32
