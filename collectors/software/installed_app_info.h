// KestovaSG_InstalledApplication: the products that the uninstall keys (both views) and
// the Windows Installer list, each product name once.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "collectors/software/name_set.h"
#include "common/get_info.h"

namespace installedapps_col {

class HotFixNameMatcher;

class InstalledAppInfo : public GetInfo {
 public:
  // Reads the HotFix key's sub-key names, once per collector.
  explicit InstalledAppInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  ~InstalledAppInfo() override;

  std::uint64_t getCIMInstances() override;

  // One record per product of the class `className` serves: applications for
  // KestovaSG_InstalledApplication, fixes for KestovaSG_InstalledFix, all for any other.
  void getInfo(std::vector<TextRecord>& records, const std::string& className);

  // A product name that names a hot fix: "Hotfix" in it, or a HotFix key name ("KB958644")
  // or its spaced form ("KB 958644").
  bool isHotFixName(const std::string& productName) const;

 private:
  // Both filters remember every new name first, so a name is delivered once whichever
  // test it passes.
  bool isNewName(const TextRecord& record);
  bool isApplication(const TextRecord& record);
  bool isFix(const TextRecord& record);

  NameSet m_seenNames;
  std::vector<std::string> m_hotFixKeyNames;
  std::unique_ptr<HotFixNameMatcher> m_hotFixMatcher;
};

}  // namespace installedapps_col
