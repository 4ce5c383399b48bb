#include "collectors/accounts/os_user_info.h"

#include <algorithm>

#include "common/constants.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TCIMValue;
using platform::BYTE;
using platform::DWORD;
using platform::NET_API_STATUS;
using platform::WCHAR;

const std::string kPropUserID = "UserID";
const std::string kPropLastLogon = "LastLogon";
const std::string kPropHost = "Host";
const std::string kPropLocalityName = "LocalityName";
const std::string kPropDescriptions = "Descriptions";
const std::string kPropAccountEnabled = "AccountEnabled";
const std::string kPropRequiresPassword = "RequiresPassword";
const std::string kPropUserCanChangePassword = "UserCanChangePassword";
const std::string kPropPasswordExpired = "PasswordExpired";
const std::string kPropPasswordAge = "PasswordAge";
const std::string kPropHomeDirectory = "HomeDirectory";
const std::string kPropLogonServer = "LogonServer";
const std::string kPropDomain = "Domain";
const std::string kPropSystemCreationClassName = "SystemCreationClassName";
const std::string kPropSystemName = "SystemName";

// Entries of a logged-on row.
const std::string kRowDomain = "Domain";
const std::string kRowLogonServer = "LogonServer";

const std::string kErrorText =
    "OSUserInfo::getCIMInstances Encountered an error\t\t\t\t\t\t\t\t\tgenerating CIM instance. "
    "Error Code: ";

constexpr int kLogonNameLength = 200;
constexpr int kTextLength = 256;
// Small batches, so that the cap below is looked at often.
constexpr DWORD kUserBatchLength = 100;
constexpr std::size_t kUserCap = 16;
// A machine that keeps answering ERROR_MORE_DATA is not followed past this many records.
constexpr std::size_t kRecordLimit = 100000;
// GetUserNameA names have at most 256 characters; a larger size asked for is not believed.
constexpr DWORD kUserNameSizeLimit = 65536;

// At most `limit` UTF-16 units up to the first NUL, in the machine's ANSI code page. A
// longer text is cut before it is converted, so nothing past `limit` units is read; a
// surrogate pair cut in two leaves a half that the code page writes as '?'.
std::string Narrow(const WCHAR* wide, int limit) {
  if (wide == nullptr) return std::string();
  int length = 0;
  while (length < limit && wide[length] != 0) ++length;
  if (length == 0) return std::string();
  platform::System& system = platform::Machine::Current().system();
  const int size =
      system.WideCharToMultiByte(platform::CP_ACP, 0, wide, length, nullptr, 0, nullptr, nullptr);
  if (size <= 0) return std::string();
  std::string text(static_cast<std::size_t>(size), '\0');
  const int written = system.WideCharToMultiByte(platform::CP_ACP, 0, wide, length, &text[0], size,
                                                 nullptr, nullptr);
  if (written <= 0) return std::string();
  text.resize(static_cast<std::size_t>(written));
  return text;
}

std::string Environment(const char* name) {
  const char* value = platform::Machine::Current().system().getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

TCIMDateTime Interval(DWORD seconds) {
  return TCIMDateTime(seconds / 86400, static_cast<unsigned short>(seconds / 3600 % 24),
                      static_cast<unsigned short>(seconds / 60 % 60),
                      static_cast<unsigned short>(seconds % 60), 0);
}

// One enumeration, batch after batch while the machine answers ERROR_MORE_DATA and
// `more(examined)` allows; every record of a batch goes to `visit` and every buffer is
// released. A batch without records ends it: asked for again, it would come again.
template <typename Record, typename Call, typename Visit, typename More>
void Enumerate(Call call, Visit visit, More more) {
  platform::NetApi& net = platform::Machine::Current().net();
  std::size_t examined = 0;
  DWORD resume = 0;
  for (;;) {
    BYTE* buffer = nullptr;
    DWORD read = 0;
    DWORD total = 0;
    const NET_API_STATUS status = call(net, &buffer, &read, &total, &resume);
    const bool answered =
        status == platform::NERR_Success || status == DWORD{platform::ERROR_MORE_DATA};
    if (answered && buffer != nullptr) {
      const auto* records = reinterpret_cast<const Record*>(buffer);
      for (DWORD i = 0; i < read && examined < kRecordLimit; ++i, ++examined) visit(records[i]);
    }
    if (buffer != nullptr) net.NetApiBufferFree(buffer);
    if (status != DWORD{platform::ERROR_MORE_DATA} || buffer == nullptr || read == 0 ||
        examined >= kRecordLimit || !more(examined)) {
      return;
    }
  }
}

}  // namespace

OSUserInfo::OSUserInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t OSUserInfo::getCIMInstances() {
  std::uint64_t count = 0;
  try {
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls = getClass();
    const std::string className = cls->GetName();
    boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns;
    cls->GetNamespace(ns, {});
    PropertyMap keys;
    keys[kPropCreationClassName] = TCIMValue(className);
    keys[kPropSystemCreationClassName] =
        TCIMValue(NKestovaTessil20::TCIMSchemaHelper::GetSystemCreationClassName(ns));
    keys[kPropSystemName] = TCIMValue(NKestovaTessil20::TCIMSchemaHelper::GetSystemName(ns));
    for (PropertyMap& properties : getAccounts()) {
      properties.insert(keys.begin(), keys.end());
      boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
      buildInstance(instance, properties, className);
      ++count;
    }
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo(kErrorText + std::to_string(e.GetStatusCode().GetCode()));
  }
  return count;
}

OSUserInfo::LoggedOnTable OSUserInfo::getLoggedOnUsers() {
  LoggedOnTable table;
  Enumerate<platform::WKSTA_USER_INFO_1>(
      [](platform::NetApi& net, BYTE** buffer, DWORD* read, DWORD* total, DWORD* resume) {
        return net.NetWkstaUserEnum(nullptr, 1, buffer, platform::MAX_PREFERRED_LENGTH, read, total,
                                    resume);
      },
      [&table](const platform::WKSTA_USER_INFO_1& user) {
        const std::string name = Narrow(user.wkui1_username, kTextLength);
        if (table.count(name) != 0) return;  // a later session of the same user
        table[name] = {{kRowDomain, Narrow(user.wkui1_logon_domain, kTextLength)},
                       {kRowLogonServer, Narrow(user.wkui1_logon_server, kTextLength)}};
      },
      [](std::size_t) { return true; });
  return table;
}

std::vector<PropertyMap> OSUserInfo::getAccounts() {
  const LoggedOnTable loggedOn = getLoggedOnUsers();
  const std::string host = NKestovaTessil20::TOSSpecific::GetMachineName();
  std::vector<PropertyMap> accounts;
  std::string lastLogonServer;
  Enumerate<platform::USER_INFO_3>(
      [](platform::NetApi& net, BYTE** buffer, DWORD* read, DWORD* total, DWORD* resume) {
        return net.NetUserEnum(nullptr, 3, 0, buffer, kUserBatchLength, read, total, resume);
      },
      [&](const platform::USER_INFO_3& user) {
        const std::string logonName = Narrow(user.usri3_name, kLogonNameLength);
        const auto row = loggedOn.find(logonName);
        if (row == loggedOn.end()) return;
        accounts.push_back(accountProperties(user, logonName, host, row->second));
        lastLogonServer = row->second.at(kRowLogonServer);
      },
      // The cap is looked at between batches only: a batch begun is finished.
      [](std::size_t examined) { return examined < kUserCap; });

  const std::string userName = Environment("USERNAME");
  const TCIMValue current(userName);
  // Against Name, which is the full name where there is one: such a user is listed again.
  const bool listed = std::any_of(accounts.begin(), accounts.end(), [&](const PropertyMap& a) {
    const auto name = a.find(kPropName);
    return name != a.end() && name->second == current;
  });
  if (!listed) {
    PropertyMap properties;
    properties[kPropUserID] = current;
    properties[kPropName] = current;
    properties[kPropHomeDirectory] = TCIMValue(Environment("USERPROFILE"));
    properties[kPropDomain] = TCIMValue(Environment("USERDOMAIN"));
    // The server of the last account reported, not of this user's own session.
    if (loggedOn.count(userName) != 0) properties[kPropLogonServer] = TCIMValue(lastLogonServer);
    accounts.push_back(std::move(properties));
  }
  return accounts;
}

PropertyMap OSUserInfo::accountProperties(const platform::USER_INFO_3& user,
                                          const std::string& logonName, const std::string& host,
                                          const std::map<std::string, std::string>& loggedOn) {
  PropertyMap properties;
  properties[kPropUserID] = TCIMValue(logonName);
  const std::string fullName = Narrow(user.usri3_full_name, kTextLength);
  properties[kPropName] = TCIMValue(fullName.empty() ? logonName : fullName);
  if (user.usri3_last_logon != 0) {
    TCIMDateTime lastLogon;
    try {
      lastLogon = getCIMDateTime(static_cast<unsigned int>(user.usri3_last_logon));
    } catch (const NKestovaTessil20::TTessilException&) {
      // A zone offset the host cannot hold: no LastLogon rather than no account.
    }
    if (!lastLogon.IsNull()) properties[kPropLastLogon] = TCIMValue(lastLogon);
  }
  properties[kPropHost] = TCIMValue(host);
  properties[kPropLocalityName] = TCIMValue(std::to_string(user.usri3_country_code));
  properties[kPropDescriptions] = TCIMValue(Narrow(user.usri3_comment, kTextLength));
  const DWORD flags = user.usri3_flags;
  properties[kPropAccountEnabled] = TCIMValue((flags & platform::UF_ACCOUNTDISABLE) == 0);
  properties[kPropRequiresPassword] = TCIMValue((flags & platform::UF_PASSWD_NOTREQD) == 0);
  properties[kPropUserCanChangePassword] =
      TCIMValue((flags & platform::UF_PASSWD_CANT_CHANGE) == 0);
  properties[kPropPasswordExpired] = TCIMValue((flags & platform::UF_PASSWORD_EXPIRED) != 0);
  properties[kPropPasswordAge] = TCIMValue(Interval(user.usri3_password_age));
  properties[kPropHomeDirectory] = TCIMValue(Narrow(user.usri3_home_dir, kTextLength));
  properties[kPropLogonServer] = TCIMValue(loggedOn.at(kRowLogonServer));
  properties[kPropDomain] = TCIMValue(loggedOn.at(kRowDomain));
  return properties;
}

std::string OSUserInfo::getCurrentUserName() {
  platform::Machine& machine = platform::Machine::Current();
  DWORD size = 0;
  // An empty buffer first, to learn the size.
  if (machine.net().GetUserNameA(nullptr, &size) ||
      machine.system().GetLastError() != DWORD{platform::ERROR_INSUFFICIENT_BUFFER} || size == 0 ||
      size > kUserNameSizeLimit) {
    return std::string();
  }
  std::vector<char> name(size, '\0');
  if (!machine.net().GetUserNameA(name.data(), &size)) return std::string();
  return std::string(name.begin(), std::find(name.begin(), name.end(), '\0'));
}

}  // namespace installedapps_col
