#include "platform/recorded/machine_netapi.h"

#include <cstring>

#include "platform/recorded/machine_json.h"
#include "platform/recorded/machine_system.h"
#include "platform/recorded/machine_text.h"

namespace platform::recorded {

namespace {

// Strings after the records of one batch: measures on the first pass, copies on the second.
class StringArea {
 public:
  explicit StringArea(BYTE* at) : at_(at) {}
  WCHAR* put(const std::u16string& text) {
    used_ = (used_ + 1) & ~std::size_t{1};  // logon hours may leave an odd offset
    const std::size_t bytes = (text.size() + 1) * sizeof(WCHAR);
    WCHAR* where = at_ ? reinterpret_cast<WCHAR*>(at_ + used_) : nullptr;
    if (where) std::memcpy(where, text.c_str(), bytes);
    used_ += bytes;
    return where;
  }
  BYTE* bytes(const std::vector<BYTE>& data) {
    BYTE* where = at_ ? at_ + used_ : nullptr;
    if (where && !data.empty()) std::memcpy(where, data.data(), data.size());
    used_ += data.size();
    return data.empty() ? nullptr : where;
  }
  std::size_t used() const { return used_; }

 private:
  BYTE* at_;
  std::size_t used_ = 0;
};

void FillUser(const UserFacts& u, USER_INFO_3& r, StringArea& s) {
  r = USER_INFO_3{};
  r.usri3_name = s.put(u.name);
  r.usri3_password = u.hasPassword ? s.put(u.password) : nullptr;
  r.usri3_password_age = u.passwordAge;
  r.usri3_priv = u.priv;
  r.usri3_home_dir = s.put(u.homeDir);
  r.usri3_comment = s.put(u.comment);
  r.usri3_flags = u.flags;
  r.usri3_script_path = s.put(u.scriptPath);
  r.usri3_auth_flags = u.authFlags;
  r.usri3_full_name = s.put(u.fullName);
  r.usri3_usr_comment = s.put(u.usrComment);
  r.usri3_parms = s.put(u.parms);
  r.usri3_workstations = s.put(u.workstations);
  r.usri3_last_logon = u.lastLogon;
  r.usri3_last_logoff = u.lastLogoff;
  r.usri3_acct_expires = u.acctExpires;
  r.usri3_max_storage = u.maxStorage;
  r.usri3_units_per_week = u.unitsPerWeek;
  r.usri3_logon_hours = s.bytes(u.logonHours);
  r.usri3_bad_pw_count = u.badPwCount;
  r.usri3_num_logons = u.numLogons;
  r.usri3_logon_server = s.put(u.logonServer);
  r.usri3_country_code = u.countryCode;
  r.usri3_code_page = u.codePage;
  r.usri3_user_id = u.userId;
  r.usri3_primary_group_id = u.primaryGroupId;
  r.usri3_profile = s.put(u.profile);
  r.usri3_home_dir_drive = s.put(u.homeDirDrive);
  r.usri3_password_expired = u.passwordExpired;
}

void FillLoggedOn(const LoggedOnFacts& u, WKSTA_USER_INFO_1& r, StringArea& s) {
  r.wkui1_username = s.put(u.username);
  r.wkui1_logon_domain = s.put(u.logonDomain);
  r.wkui1_oth_domains = s.put(u.otherDomains);
  r.wkui1_logon_server = s.put(u.logonServer);
}

Batching ReadBatching(const Field& f) {
  Batching b;
  b.recorded = true;
  b.batchSize = static_cast<DWORD>(OptionalUnsigned(f["batchSize"]).value_or(0));
  Field fail = f["failAfterBatches"];
  if (fail.present()) {
    b.failAfterBatches = static_cast<DWORD>(fail.asUnsigned());
    b.failStatus = f["failStatus"].asCode();
  } else if (f["failStatus"].present()) {
    f["failStatus"].fail("needs failAfterBatches");
  }
  return b;
}

std::u16string Wide(const Field& f) {
  return f.present() ? Utf8ToWide(f.asString()) : u"";
}

}  // namespace

NetFacts ReadNetFacts(const Field& net, UINT codePage) {
  NetFacts n;
  net.expectKeys({"userName", "users", "loggedOn"});
  if (net["userName"].present())
    n.userName = WideToAnsi(Utf8ToWide(net["userName"].asString()), codePage);
  Field users = net["users"];
  if (users.present() && !users.isNull()) {
    users.expectKeys({"batchSize", "failAfterBatches", "failStatus", "records"});
    n.users = ReadBatching(users);
    for (const Field& r : users["records"].items()) {
      r.expectKeys({"name",           "password",    "passwordAge",  "priv",           "homeDir",
                    "comment",        "flags",       "scriptPath",   "authFlags",      "fullName",
                    "usrComment",     "parms",       "workstations", "lastLogon",      "lastLogoff",
                    "acctExpires",    "maxStorage",  "unitsPerWeek", "logonHours",     "badPwCount",
                    "numLogons",      "logonServer", "countryCode",  "codePage",       "userId",
                    "primaryGroupId", "profile",     "homeDirDrive", "passwordExpired"});
      UserFacts u;
      u.name = Utf8ToWide(r["name"].asString());
      u.hasPassword = r["password"].present();
      u.password = Wide(r["password"]);
      u.homeDir = Wide(r["homeDir"]);
      u.comment = Wide(r["comment"]);
      u.scriptPath = Wide(r["scriptPath"]);
      u.fullName = Wide(r["fullName"]);
      u.usrComment = Wide(r["usrComment"]);
      u.parms = Wide(r["parms"]);
      u.workstations = Wide(r["workstations"]);
      u.logonServer = r["logonServer"].present() ? Wide(r["logonServer"]) : u"\\\\*";
      u.profile = Wide(r["profile"]);
      u.homeDirDrive = Wide(r["homeDirDrive"]);
      auto d = [&](const char* key, DWORD fallback) {
        return r[key].present() ? r[key].asCode() : fallback;
      };
      u.passwordAge = d("passwordAge", u.passwordAge);
      u.priv = d("priv", u.priv);
      u.flags = d("flags", u.flags);
      u.authFlags = d("authFlags", u.authFlags);
      u.lastLogon = d("lastLogon", u.lastLogon);
      u.lastLogoff = d("lastLogoff", u.lastLogoff);
      u.acctExpires = d("acctExpires", u.acctExpires);
      u.maxStorage = d("maxStorage", u.maxStorage);
      u.unitsPerWeek = d("unitsPerWeek", u.unitsPerWeek);
      u.badPwCount = d("badPwCount", u.badPwCount);
      u.numLogons = d("numLogons", u.numLogons);
      u.countryCode = d("countryCode", u.countryCode);
      u.codePage = d("codePage", u.codePage);
      u.userId = d("userId", u.userId);
      u.primaryGroupId = d("primaryGroupId", u.primaryGroupId);
      u.passwordExpired = d("passwordExpired", u.passwordExpired);
      for (const Field& b : r["logonHours"].items())
        u.logonHours.push_back(static_cast<BYTE>(b.asUnsigned(255)));
      // Windows hands out 21 bytes or a null pointer; readers take the 21 on trust.
      if (!u.logonHours.empty() && u.logonHours.size() != kLogonHoursBytes)
        r["logonHours"].fail("expected 21 bytes (one bit per hour of the week), got " +
                             std::to_string(u.logonHours.size()));
      n.userRecords.push_back(std::move(u));
    }
  }
  Field logged = net["loggedOn"];
  if (logged.present() && !logged.isNull()) {
    logged.expectKeys({"batchSize", "failAfterBatches", "failStatus", "records"});
    n.loggedOn = ReadBatching(logged);
    for (const Field& r : logged["records"].items()) {
      r.expectKeys({"username", "logonDomain", "otherDomains", "logonServer"});
      n.loggedOnRecords.push_back({Utf8ToWide(r["username"].asString()), Wide(r["logonDomain"]),
                                   Wide(r["otherDomains"]), Wide(r["logonServer"])});
    }
  }
  return n;
}

RecordedNetApi::RecordedNetApi(NetFacts facts, MachineState& state)
    : facts_(std::move(facts)), state_(state) {}

RecordedNetApi::~RecordedNetApi() {
  for (const auto& handedOut : buffers_) delete[] static_cast<BYTE*>(handedOut.first);
}

template <typename Record, typename Facts, typename Fill>
NET_API_STATUS RecordedNetApi::enumerate(const Batching& batching,
                                         const std::vector<Facts>& records, DWORD* calls, Fill fill,
                                         BYTE** buffer, DWORD preferred, DWORD* entriesRead,
                                         DWORD* totalEntries, DWORD* resumeHandle) {
  if (!buffer || !entriesRead || !totalEntries) return ERROR_INVALID_PARAMETER;
  *buffer = nullptr;
  *entriesRead = 0;
  *totalEntries = 0;
  if (!batching.recorded) return kNotRecorded;
  const DWORD start = resumeHandle ? *resumeHandle : 0;
  if (start == 0) *calls = 0;  // a new enumeration
  if (start > records.size()) return ERROR_INVALID_PARAMETER;
  if (batching.failAfterBatches && *calls >= *batching.failAfterBatches) return batching.failStatus;
  ++*calls;

  // Records for this call: the recorded batch size, else as many as fit the preferred
  // length with their strings (at least one, as Windows always hands out one).
  std::size_t count = 0, bytes = 0;
  const std::size_t remaining = records.size() - start;
  while (count < remaining) {
    Record scratch{};
    StringArea measure(nullptr);
    fill(records[start + count], scratch, measure);
    const std::size_t more = sizeof(Record) + measure.used();
    if (batching.batchSize
            ? count >= batching.batchSize
            : (count > 0 && preferred != MAX_PREFERRED_LENGTH && bytes + more > preferred))
      break;
    bytes += more;
    ++count;
  }
  *totalEntries = static_cast<DWORD>(remaining);
  if (count > 0) {
    BYTE* block = new BYTE[bytes];
    std::memset(block, 0, bytes);
    auto* out = reinterpret_cast<Record*>(block);
    StringArea strings(block + count * sizeof(Record));
    for (std::size_t i = 0; i < count; ++i) fill(records[start + i], out[i], strings);
    buffers_.emplace(block, bytes);
    *buffer = block;
  }
  *entriesRead = static_cast<DWORD>(count);
  const std::size_t next = start + count;
  if (resumeHandle) *resumeHandle = next < records.size() ? static_cast<DWORD>(next) : 0;
  return next < records.size() ? static_cast<NET_API_STATUS>(ERROR_MORE_DATA) : NERR_Success;
}

NET_API_STATUS RecordedNetApi::NetUserEnum(const WCHAR*, DWORD level, DWORD, BYTE** buffer,
                                           DWORD preferred, DWORD* entriesRead, DWORD* totalEntries,
                                           DWORD* resumeHandle) {
  if (level != 3) return ERROR_INVALID_LEVEL;
  return enumerate<USER_INFO_3>(facts_.users, facts_.userRecords, &userCalls_, FillUser, buffer,
                                preferred, entriesRead, totalEntries, resumeHandle);
}

NET_API_STATUS RecordedNetApi::NetWkstaUserEnum(const WCHAR*, DWORD level, BYTE** buffer,
                                                DWORD preferred, DWORD* entriesRead,
                                                DWORD* totalEntries, DWORD* resumeHandle) {
  if (level != 1) return ERROR_INVALID_LEVEL;
  return enumerate<WKSTA_USER_INFO_1>(facts_.loggedOn, facts_.loggedOnRecords, &loggedOnCalls_,
                                      FillLoggedOn, buffer, preferred, entriesRead, totalEntries,
                                      resumeHandle);
}

NET_API_STATUS RecordedNetApi::NetApiBufferFree(void* buffer) {
  if (!buffer) return NERR_Success;
  if (buffers_.erase(buffer) == 0) return ERROR_INVALID_PARAMETER;
  delete[] static_cast<BYTE*>(buffer);
  return NERR_Success;
}

NET_API_STATUS RecordedNetApi::NetApiBufferSize(void* buffer, DWORD* byteCount) {
  const auto handedOut = buffers_.find(buffer);
  if (handedOut == buffers_.end() || !byteCount) return ERROR_INVALID_PARAMETER;
  *byteCount = static_cast<DWORD>(handedOut->second);
  return NERR_Success;
}

BOOL RecordedNetApi::GetUserNameA(char* buffer, DWORD* size) {
  if (!size) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (!facts_.userName) {
    state_.fail(kNotRecorded);
    return FALSE;
  }
  const std::string& name = *facts_.userName;
  if (!buffer || *size <= name.size()) {
    *size = static_cast<DWORD>(name.size() + 1);
    state_.fail(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  std::memcpy(buffer, name.c_str(), name.size() + 1);
  *size = static_cast<DWORD>(name.size() + 1);
  return TRUE;
}

}  // namespace platform::recorded
