// The 32-bit registry view of 64-bit Windows: what WOW64 redirects, and where to.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/types.h"

namespace platform::recorded {

// Whether an open with `sam` reads the 32-bit view. KEY_WOW64_32KEY wins over
// KEY_WOW64_64KEY when both are given; with neither, the process's own view.
KPLATFORM_API bool Uses32BitView(REGSAM sam, bool processIs32Bit);

// `path` (root first: {HKEY_LOCAL_MACHINE, SOFTWARE, ...}) as the 32-bit view stores it.
// HKLM\SOFTWARE\X goes to HKLM\SOFTWARE\Wow6432Node\X except the keys that Windows 7
// shares between the views; HKLM\SOFTWARE\Classes is shared except CLSID, DirectShow,
// Interface, Media Type and MediaFoundation, which go to Classes\Wow6432Node. Paths
// that already name Wow6432Node, and everything outside HKLM\SOFTWARE, are unchanged.
// HKLM\SOFTWARE itself maps to HKLM\SOFTWARE\Wow6432Node.
KPLATFORM_API std::vector<std::u16string> To32BitView(const std::vector<std::u16string>& path);

}  // namespace platform::recorded
