// The recorded machine's files, by Windows path. files/C/WINDOWS/inf/sysoc.inf answers
// for C:\WINDOWS\inf\sysoc.inf; lookups ignore case, as Windows does.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "platform/export.h"

namespace platform::recorded {

class KPLATFORM_API FileSource {
 public:
  // `relative` is the path under files/, with '/' (or '\') between names.
  void add(const std::string& relative, std::string bytes);
  // A file on disk, read when it is first asked for: a machine folder may hold far more
  // than the calls ever open.
  void addFile(const std::string& relative, std::string diskPath);
  // The bytes of the file at a Windows path such as "C:\boot.ini"; null when absent (or
  // when a file on disk can no longer be read).
  const std::string* find(const std::string& windowsPath) const;
  // Asked for a file not added, by key ("c/windows/inf/x.inf"), when a call first opens it
  // (a volume that is read as it is used); its answer is kept.
  void setFallback(std::function<std::optional<std::string>(const std::string&)> fallback);
  bool empty() const { return files_.empty(); }

  // "C:\WINDOWS\.\inf\..\boot.ini" -> "c/windows/boot.ini"; "" for a path that is not
  // absolute with a drive letter.
  static std::string Key(const std::string& windowsPath);

 private:
  struct Entry {
    std::string diskPath;  // empty: `bytes` were given
    std::string bytes;
    bool read = false;
    bool readable = true;
  };
  mutable std::mutex mutex_;  // guards the reading of files on disk
  mutable std::map<std::string, Entry> files_;
  std::function<std::optional<std::string>(const std::string&)> fallback_;
};

}  // namespace platform::recorded
