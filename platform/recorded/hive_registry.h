// Registry hive files (the binary files Windows keeps its registry in), read with libhivex.
#pragma once

#include <string>

#include "platform/export.h"
#include "platform/recorded/registry_model.h"

namespace platform::recorded {

// Where a hive file goes: SOFTWARE -> HKLM\SOFTWARE, SYSTEM -> HKLM\SYSTEM,
// NTUSER.DAT -> HKEY_CURRENT_USER, BCD -> HKLM\BCD00000000.
enum class Mount { Software, System, NtUser, Bcd };

// The key path a mount fills, e.g. u"HKEY_LOCAL_MACHINE\\SOFTWARE".
KPLATFORM_API std::u16string MountPath(Mount where);

// False where the library is built without libhivex (the Windows build).
KPLATFORM_API bool HiveFilesSupported();

// Reads the whole hive into `tree` under `where`, merged with what is already there.
// Throws platform::RecordError naming the file when it cannot be read as a hive.
KPLATFORM_API void LoadHiveFile(RegistryTree& tree, const std::string& path, Mount where);

}  // namespace platform::recorded
