// What the families of one recorded machine share: the thread's last error (the collectors
// run on one thread), the ANSI code page, WOW64 redirection and the recorded files.
#pragma once

#include <string>

#include "platform/recorded/file_source.h"
#include "platform/types.h"

namespace platform::recorded {

struct MachineState {
  DWORD lastError = 0;
  UINT codePage = 1252;
  // A 32-bit process on 64-bit Windows: its system32 is SysWOW64 while redirection is on.
  bool wow64Process = false;
  bool redirectionDisabled = false;
  std::string windowsDirectory;
  FileSource files;

  // The path a file call really opens: system32 of a WOW64 process goes to SysWOW64.
  std::string redirect(const std::string& windowsPath) const;
  const std::string* file(const std::string& windowsPath) const {
    return files.find(redirect(windowsPath));
  }
  void fail(DWORD code) { lastError = code; }
};

}  // namespace platform::recorded
