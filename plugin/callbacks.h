// The plug-in's face toward the host: identity, life cycle and the query operation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/log_message.h"
#include "host/tessil.h"

namespace installedapps_col {

// Field layout is part of the host contract: the two interface table pointers, then the
// provider handle that the host fills in while RegisterPlugin runs, then the logger.
class TInstalledAppsCallbacks : public NKestovaTessil20::IPluginCallbacks,
                                public NKestovaTessil20::IPluginBasicQueryCallbacks {
 public:
  // Registers the new object with the host's plug-in manager.
  TInstalledAppsCallbacks();
  ~TInstalledAppsCallbacks() override;

  void* Reserved() override;
  std::string GetName() override;
  std::string GetVersion() override;
  std::string GetFrameworkVersion() override;
  void Release(NKestovaTessil20::IPluginCallbacks* object) override;
  void Init() override;
  void DeInit() override;

  std::uint64_t QueryInstances(
      boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns,
      std::vector<boost::shared_ptr<NKestovaTessil20::ICIMClass>>& classes) override;

  void* providerHandle() const { return m_providerHandle; }

 private:
  void* m_providerHandle;
  LogMessage* m_log;
};

// What the module's entry routine does for an operating-system notification: on process
// attach (1) it creates and registers the callbacks object; answers non-zero on success.
int installedAppsModuleEntry(unsigned long reason);

}  // namespace installedapps_col
