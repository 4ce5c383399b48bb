// Network management (netapi32) and the current user's name (advapi32).
#pragma once

#include "platform/types.h"

namespace platform {

constexpr DWORD MAX_PREFERRED_LENGTH = 0xFFFFFFFFu;
constexpr DWORD UF_ACCOUNTDISABLE = 0x0002;
constexpr DWORD UF_PASSWD_NOTREQD = 0x0020;
constexpr DWORD UF_PASSWD_CANT_CHANGE = 0x0040;
constexpr DWORD UF_PASSWORD_EXPIRED = 0x00800000;

struct USER_INFO_3 {
  WCHAR* usri3_name;
  WCHAR* usri3_password;
  DWORD usri3_password_age;
  DWORD usri3_priv;
  WCHAR* usri3_home_dir;
  WCHAR* usri3_comment;
  DWORD usri3_flags;
  WCHAR* usri3_script_path;
  DWORD usri3_auth_flags;
  WCHAR* usri3_full_name;
  WCHAR* usri3_usr_comment;
  WCHAR* usri3_parms;
  WCHAR* usri3_workstations;
  DWORD usri3_last_logon;
  DWORD usri3_last_logoff;
  DWORD usri3_acct_expires;
  DWORD usri3_max_storage;
  DWORD usri3_units_per_week;
  BYTE* usri3_logon_hours;
  DWORD usri3_bad_pw_count;
  DWORD usri3_num_logons;
  WCHAR* usri3_logon_server;
  DWORD usri3_country_code;
  DWORD usri3_code_page;
  DWORD usri3_user_id;
  DWORD usri3_primary_group_id;
  WCHAR* usri3_profile;
  WCHAR* usri3_home_dir_drive;
  DWORD usri3_password_expired;
};

struct WKSTA_USER_INFO_1 {
  WCHAR* wkui1_username;
  WCHAR* wkui1_logon_domain;
  WCHAR* wkui1_oth_domains;
  WCHAR* wkui1_logon_server;
};

class NetApi {
 public:
  virtual ~NetApi() = default;
  // Batches of records in one buffer (strings inside it), released with NetApiBufferFree.
  // NERR_Success for the last batch, ERROR_MORE_DATA while more follow.
  virtual NET_API_STATUS NetUserEnum(const WCHAR* serverName, DWORD level, DWORD filter,
                                     BYTE** buffer, DWORD preferredMaximumLength,
                                     DWORD* entriesRead, DWORD* totalEntries,
                                     DWORD* resumeHandle) = 0;
  virtual NET_API_STATUS NetWkstaUserEnum(const WCHAR* serverName, DWORD level, BYTE** buffer,
                                          DWORD preferredMaximumLength, DWORD* entriesRead,
                                          DWORD* totalEntries, DWORD* resumeHandle) = 0;
  virtual NET_API_STATUS NetApiBufferFree(void* buffer) = 0;
  // The size in bytes of a buffer handed out above: what its records point at lies inside
  // it, so a reader can check a pointer before following it. A family that keeps no sizes
  // (a test's scripted answers) does not implement it.
  virtual NET_API_STATUS NetApiBufferSize(void* buffer, DWORD* byteCount) {
    (void)buffer;
    (void)byteCount;
    return ERROR_CALL_NOT_IMPLEMENTED;
  }
  // `size` in characters including the NUL; ERROR_INSUFFICIENT_BUFFER (last error) with
  // the size needed when the buffer is too small.
  virtual BOOL GetUserNameA(char* buffer, DWORD* size) = 0;
};

}  // namespace platform
