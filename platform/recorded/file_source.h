// The recorded machine's files, by Windows path. files/C/WINDOWS/inf/sysoc.inf answers
// for C:\WINDOWS\inf\sysoc.inf; lookups ignore case, as Windows does.
#pragma once

#include <map>
#include <string>

#include "platform/export.h"

namespace platform::recorded {

class KPLATFORM_API FileSource {
 public:
  // `relative` is the path under files/, with '/' (or '\') between names.
  void add(const std::string& relative, std::string bytes);
  // The bytes of the file at a Windows path such as "C:\boot.ini"; null when absent.
  const std::string* find(const std::string& windowsPath) const;
  bool empty() const { return files_.empty(); }

  // "C:\WINDOWS\.\inf\..\boot.ini" -> "c/windows/boot.ini"; "" for a path that is not
  // absolute with a drive letter.
  static std::string Key(const std::string& windowsPath);

 private:
  std::map<std::string, std::string> files_;
};

}  // namespace platform::recorded
