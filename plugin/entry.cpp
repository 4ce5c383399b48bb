// Module entry: the callbacks object is created and registered when the library loads.
#include "plugin/callbacks.h"

#if defined(_WIN32)

// The loader's entry routine, declared here with its Windows types spelled out (BOOL is
// int, DWORD is unsigned long) so that no <windows.h> is needed outside platform/.
extern "C" __declspec(dllexport) int __stdcall DllMain(void* module, unsigned long reason,
                                                       void* reserved) {
  (void)module;
  (void)reserved;
  return installedapps_col::installedAppsModuleEntry(reason);
}

#else

namespace {

// The ELF counterpart of process attach: runs once, when the host's dlopen maps us.
__attribute__((constructor)) void onLoad() {
  installedapps_col::installedAppsModuleEntry(1);
}

}  // namespace

#endif
