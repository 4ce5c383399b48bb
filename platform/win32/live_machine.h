// The machine this process runs on, answered by Windows itself.
#pragma once

#include <memory>

#include "platform/export.h"
#include "platform/machine.h"

namespace platform::win32 {

// A machine whose every call goes to the real Win32 API. Cheap to make; the families it
// hands out hold no state except functions looked up at run time.
KPLATFORM_API std::shared_ptr<Machine> MakeLiveMachine();

}  // namespace platform::win32
