// Version resources of component files, and reading them with WOW64 file-system
// redirection off.
#pragma once

#include <functional>
#include <string>

namespace installedapps_col {

// The FileVersion string of the file's version resource in its first translation, cut
// before its first blank (a build label follows the number there); `description` gets the
// FileDescription. Both are empty when the file, its resource, its translation or the
// string is missing.
std::string ReadFileVersion(const std::string& path, std::string& description);

// Runs `read` once with WOW64 file-system redirection off and turns it back on. Answers
// false, without running `read`, where redirection cannot be turned off (no WOW64, the
// functions missing, or the call refused).
bool WithoutFsRedirection(const std::function<void()>& read);

}  // namespace installedapps_col
