// Registry hive files (the binary files Windows keeps its registry in), mounted into a
// recorded registry and read as keys are asked for.
#pragma once

#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/recorded/registry_model.h"

namespace platform::recorded {

// Where a hive file goes: SOFTWARE -> HKLM\SOFTWARE, SYSTEM -> HKLM\SYSTEM,
// NTUSER.DAT -> HKEY_CURRENT_USER, BCD -> HKLM\BCD00000000, SAM -> HKLM\SAM.
enum class Mount { Software, System, NtUser, Bcd, Sam };

// The key path a mount fills, e.g. u"HKEY_LOCAL_MACHINE\\SOFTWARE".
KPLATFORM_API std::u16string MountPath(Mount where);

// True: every build reads hive files (kept for callers that predate that).
KPLATFORM_API bool HiveFilesSupported();

// Mounts the hive under `where`, merged with what is already there; keys are read from the
// file when first asked for, and what is found damaged then is left out and reported with
// RegistryTree::reportDamage. Throws platform::RecordError naming the file when it is no
// hive at all (header, checksum, sizes, root key) or a second hive for the same place.
KPLATFORM_API void LoadHiveFile(RegistryTree& tree, const std::string& path, Mount where);

class HiveFile;
// The same for a hive already open (e.g. over bytes in memory); `name` names it in reports.
KPLATFORM_API void MountHive(RegistryTree& tree, std::unique_ptr<HiveFile> hive,
                             const std::string& name, Mount where);

}  // namespace platform::recorded
