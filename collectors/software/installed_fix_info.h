// KestovaSG_InstalledFix: the operating system's hot fixes, from WMI or else the registry.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/get_info.h"

namespace installedapps_col {

class InstalledFixInfo : public GetInfo {
 public:
  explicit InstalledFixInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;
};

// Reads the fixes: Win32_QuickFixEngineering first, and only when WMI yields no row, the
// fix keys below SOFTWARE\Microsoft\Updates completed from their uninstall entries.
class WindowsFixInfo {
 public:
  WindowsFixInfo();
  virtual ~WindowsFixInfo();

  void getInfo(std::vector<TextRecord>& records);
  std::vector<TextRecord>& getPropertiesFromWMI(std::vector<TextRecord>& records);
  void getPropertiesFromRegistry(std::vector<TextRecord>& records);

  // Records `key` as a fix key when it has a "filelist" sub-key (any case) or none at
  // all; answers the other sub-keys, still to be walked.
  std::vector<std::string> walkUpdateKey(const std::string& key);

  // Property -> text for each table row whose registry value `values` holds.
  TextRecord translateValueNames(const TextRecord& values) const;

  const std::vector<std::string>& fixKeys() const { return m_fixKeys; }

 private:
  std::vector<std::string> m_fixKeys;
  std::map<std::string, std::string> m_valueNames;
  LogMessage* m_log;
};

}  // namespace installedapps_col
