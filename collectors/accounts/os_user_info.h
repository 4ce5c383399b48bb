// KestovaSG_Account: the local accounts that are logged on, and the user the host runs as.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/get_info.h"
#include "platform/netapi.h"

namespace installedapps_col {

class OSUserInfo : public GetInfo {
 public:
  explicit OSUserInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // User name -> {"Domain", "LogonServer"}; a name logged on more than once keeps the row
  // of its first session.
  using LoggedOnTable = std::map<std::string, std::map<std::string, std::string>>;
  LoggedOnTable getLoggedOnUsers();

  // One property set per logged-on local account, in enumeration order, then the user of
  // the environment unless an account's Name already equals USERNAME. Without the keys.
  std::vector<PropertyMap> getAccounts();

  // The name GetUserNameA reports; empty when it cannot be had.
  static std::string getCurrentUserName();

 private:
  PropertyMap accountProperties(const platform::USER_INFO_3& user, const std::string& logonName,
                                const std::string& host,
                                const std::map<std::string, std::string>& loggedOn);
};

}  // namespace installedapps_col
