// A machine read from an offline Windows volume (a mounted directory or a disk image):
// the registry from the volume's hives, files from the volume, and every other platform
// fact derived from the hives where Windows itself keeps it. What an offline volume cannot
// tell (WMI, performance counters, the clock, logged-on users, memory) fails as the call
// fails on a machine that lacks it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/recorded/recorded_machine.h"

namespace platform::image {

class Volume;

struct ImageOptions {
  // The profile (its folder name under the profiles directory) whose NTUSER.DAT is
  // HKEY_CURRENT_USER; empty: the one written most recently.
  std::string user;
};

// Throws platform::RecordError naming the path and what is missing or unreadable.
KPLATFORM_API std::shared_ptr<recorded::RecordedMachine> LoadImage(
    const std::string& path, const ImageOptions& options = {});

// The same over volumes already open (the Windows one first; others may hold Boot\BCD).
KPLATFORM_API std::shared_ptr<recorded::RecordedMachine> LoadVolumes(
    std::vector<std::unique_ptr<Volume>> volumes, const ImageOptions& options = {});

}  // namespace platform::image
