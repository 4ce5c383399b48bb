// KestovaSG_OSComponent: the optional components that Windows component setup lists, with
// their setup DLL's version, installed state and parent; the backup program as one more.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "collectors/components/inf_file_list.h"
#include "common/get_info.h"
#include "registry/RegistryKeyEnum.h"

namespace installedapps_col {

class OSComponentInfo : public GetInfo {
 public:
  explicit OSComponentInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // One record per component of every listed INF file, then the backup program.
  std::vector<TextRecord> getInfo(const std::string& className);
  std::vector<InfListEntry> getINFFileList(const std::string& infDirectory);
  // The Subcomponents value of the id plus one: 0 unknown to setup, 1 not installed, 2
  // installed.
  unsigned getInstalledState(const std::string& componentId);
  std::string getVersion(const std::string& path, std::string& description);
  std::string findDllInSysPath(const std::string& name, std::string& description);

 private:
  // A setup DLL's version: the system directory's Setup folder, the same with WOW64
  // redirection off, then PATH.
  std::string setupDllVersion(const std::string& dllName);
  void readComponents(const std::string& infPath, const InfListEntry& entry,
                      std::vector<TextRecord>& records);
  void addBackupProgram(std::vector<TextRecord>& records);

  // Setup DLL name -> version: every component of a file, and a file listed again, names
  // the same DLL, whose search gives the same answer each time.
  std::map<std::string, std::string> m_dllVersions;
  // Subcomponents, open while getInfo reads the components: one open and one size query
  // per run instead of per component (a recorded key answers its sizes by walking every
  // value, which made a long component list quadratic).
  std::unique_ptr<SelectedValueReader> m_subcomponents;
};

}  // namespace installedapps_col
