// Network management of a recorded machine: accounts (NetUserEnum level 3), logged-on users
// (NetWkstaUserEnum level 1) handed out in batches, and the current user's name.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/netapi.h"
#include "platform/recorded/machine_state.h"

namespace platform::recorded {

class Field;

constexpr NET_API_STATUS ERROR_INVALID_LEVEL = 124;
// usri3_logon_hours: one bit per hour of the week.
constexpr std::size_t kLogonHoursBytes = 21;

struct UserFacts {
  std::u16string name, password, homeDir, comment, scriptPath, fullName, usrComment, parms,
      workstations, logonServer, profile, homeDirDrive;
  bool hasPassword = false;
  DWORD passwordAge = 0, priv = 1, flags = 0x201, authFlags = 0, lastLogon = 0, lastLogoff = 0,
        acctExpires = 0xFFFFFFFFu, maxStorage = 0xFFFFFFFFu, unitsPerWeek = 168, badPwCount = 0,
        numLogons = 0, countryCode = 0, codePage = 0, userId = 0, primaryGroupId = 513,
        passwordExpired = 0;
  std::vector<BYTE> logonHours;  // empty: null pointer; else kLogonHoursBytes
};

struct LoggedOnFacts {
  std::u16string username, logonDomain, otherDomains, logonServer;
};

// How an enumeration is handed out: records per call (0: as many as the preferred length
// allows, at least one), and optionally a status that ends it after some batches.
struct Batching {
  bool recorded = false;
  DWORD batchSize = 0;
  std::optional<DWORD> failAfterBatches;
  NET_API_STATUS failStatus = 0;
};

struct NetFacts {
  std::optional<std::string> userName;  // ANSI
  Batching users;
  std::vector<UserFacts> userRecords;
  Batching loggedOn;
  std::vector<LoggedOnFacts> loggedOnRecords;
};

NetFacts ReadNetFacts(const Field& net, UINT codePage);

class KPLATFORM_API RecordedNetApi : public NetApi {
 public:
  RecordedNetApi(NetFacts facts, MachineState& state);
  ~RecordedNetApi() override;

  NET_API_STATUS NetUserEnum(const WCHAR* serverName, DWORD level, DWORD filter, BYTE** buffer,
                             DWORD preferredMaximumLength, DWORD* entriesRead, DWORD* totalEntries,
                             DWORD* resumeHandle) override;
  NET_API_STATUS NetWkstaUserEnum(const WCHAR* serverName, DWORD level, BYTE** buffer,
                                  DWORD preferredMaximumLength, DWORD* entriesRead,
                                  DWORD* totalEntries, DWORD* resumeHandle) override;
  NET_API_STATUS NetApiBufferFree(void* buffer) override;
  NET_API_STATUS NetApiBufferSize(void* buffer, DWORD* byteCount) override;
  BOOL GetUserNameA(char* buffer, DWORD* size) override;

  std::size_t outstandingBuffers() const { return buffers_.size(); }

 private:
  template <typename Record, typename Facts, typename Fill>
  NET_API_STATUS enumerate(const Batching& batching, const std::vector<Facts>& records,
                           DWORD* calls, Fill fill, BYTE** buffer, DWORD preferred,
                           DWORD* entriesRead, DWORD* totalEntries, DWORD* resumeHandle);

  NetFacts facts_;
  MachineState& state_;
  std::map<void*, std::size_t> buffers_;  // handed out, with their sizes
  DWORD userCalls_ = 0, loggedOnCalls_ = 0;
};

}  // namespace platform::recorded
