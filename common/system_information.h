// Turns one requested CIM class into one collector run, and keeps every collector's
// exceptions away from the host.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>

#include "common/get_info.h"
#include "common/log_message.h"
#include "host/tessil.h"

namespace installedapps_col {

class SystemInformation {
 public:
  explicit SystemInformation(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns);
  virtual ~SystemInformation();

  // Runs the collector for `cls`; answers its count, 0 for an unknown class or a failure.
  std::uint64_t collectClass(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);

  // The class names served in this query (the table's keys), for tests and tools.
  std::vector<std::string> classNames() const;

  // False while TESSIL_EXCLUDEAPPS holds a value: the installed-application class is then
  // left out of the table (its collector joins the table under this rule).
  bool servesInstalledApplications() const;

 private:
  using Factory = boost::shared_ptr<GetInfo> (SystemInformation::*)(
      boost::shared_ptr<NKestovaTessil20::ICIMClass>);

  boost::shared_ptr<GetInfo> createInstalledAppInfo(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createInstalledFixInfo(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createTimeZoneInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createEnvironmentVariableInfo(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSComponentInfo(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSBaseComponent(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSSubComponent(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSUserInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createOSEnvironmentVariable(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createAccountOnSystem(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createCurrentAccountOnSystem(
      boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  boost::shared_ptr<GetInfo> createPageFileInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);

  std::map<std::string, Factory> m_classTable;
  LogMessage* m_log;
  boost::shared_ptr<NKestovaTessil20::ICIMNamespace> m_namespace;
  bool m_installedApplicationsServed = true;
};

}  // namespace installedapps_col
