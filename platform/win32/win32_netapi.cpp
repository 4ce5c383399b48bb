// Network management of the live machine (netapi32) and the current user's name
// (advapi32).
#include "platform/netapi.h"
#include "platform/win32/live_families.h"

namespace {
// Our constants, taken before the lm*.h headers turn the same names into macros.
namespace ours {
constexpr platform::NET_API_STATUS kNerrSuccess = platform::NERR_Success;
constexpr platform::DWORD kMaxPreferredLength = platform::MAX_PREFERRED_LENGTH;
constexpr platform::DWORD kAccountDisable = platform::UF_ACCOUNTDISABLE;
constexpr platform::DWORD kPasswdNotReqd = platform::UF_PASSWD_NOTREQD;
constexpr platform::DWORD kPasswdCantChange = platform::UF_PASSWD_CANT_CHANGE;
constexpr platform::DWORD kPasswordExpired = platform::UF_PASSWORD_EXPIRED;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there. The lm*.h headers one by one:
// the umbrella <lm.h> clashes with <pdh.h> elsewhere in this library.
#include <windows.h>

#include <lmcons.h>

#include <lmaccess.h>
#include <lmapibuf.h>
#include <lmerr.h>
#include <lmwksta.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kNerrSuccess == NERR_Success, "status");
static_assert(ours::kMaxPreferredLength == MAX_PREFERRED_LENGTH, "length");
static_assert(ours::kAccountDisable == UF_ACCOUNTDISABLE, "account flag");
static_assert(ours::kPasswdNotReqd == UF_PASSWD_NOTREQD, "account flag");
static_assert(ours::kPasswdCantChange == UF_PASSWD_CANT_CHANGE, "account flag");
static_assert(ours::kPasswordExpired == UF_PASSWORD_EXPIRED, "account flag");

#define SAME_LAYOUT(type, field) \
  static_assert(offsetof(platform::type, field) == offsetof(::type, field), #type "::" #field)
static_assert(sizeof(platform::USER_INFO_3) == sizeof(::USER_INFO_3), "USER_INFO_3");
SAME_LAYOUT(USER_INFO_3, usri3_password_age);
SAME_LAYOUT(USER_INFO_3, usri3_comment);
SAME_LAYOUT(USER_INFO_3, usri3_flags);
SAME_LAYOUT(USER_INFO_3, usri3_full_name);
SAME_LAYOUT(USER_INFO_3, usri3_last_logon);
SAME_LAYOUT(USER_INFO_3, usri3_logon_hours);
SAME_LAYOUT(USER_INFO_3, usri3_country_code);
SAME_LAYOUT(USER_INFO_3, usri3_user_id);
SAME_LAYOUT(USER_INFO_3, usri3_profile);
SAME_LAYOUT(USER_INFO_3, usri3_password_expired);
static_assert(sizeof(platform::WKSTA_USER_INFO_1) == sizeof(::WKSTA_USER_INFO_1),
              "WKSTA_USER_INFO_1");
SAME_LAYOUT(WKSTA_USER_INFO_1, wkui1_logon_domain);
SAME_LAYOUT(WKSTA_USER_INFO_1, wkui1_logon_server);
#undef SAME_LAYOUT

namespace platform::win32 {
namespace {

class LiveNetApi final : public NetApi {
 public:
  NET_API_STATUS NetUserEnum(const WCHAR* serverName, DWORD level, DWORD filter, BYTE** buffer,
                             DWORD preferredMaximumLength, DWORD* entriesRead, DWORD* totalEntries,
                             DWORD* resumeHandle) override {
    return ::NetUserEnum(As<::WCHAR>(serverName), level, filter, buffer, preferredMaximumLength,
                         As<::DWORD>(entriesRead), As<::DWORD>(totalEntries),
                         As<::DWORD>(resumeHandle));
  }
  NET_API_STATUS NetWkstaUserEnum(const WCHAR* serverName, DWORD level, BYTE** buffer,
                                  DWORD preferredMaximumLength, DWORD* entriesRead,
                                  DWORD* totalEntries, DWORD* resumeHandle) override {
    // Declared with a writable server name, which it never writes.
    return ::NetWkstaUserEnum(const_cast<::LMSTR>(As<::WCHAR>(serverName)), level, buffer,
                              preferredMaximumLength, As<::DWORD>(entriesRead),
                              As<::DWORD>(totalEntries), As<::DWORD>(resumeHandle));
  }
  NET_API_STATUS NetApiBufferFree(void* buffer) override { return ::NetApiBufferFree(buffer); }
  NET_API_STATUS NetApiBufferSize(void* buffer, DWORD* byteCount) override {
    return ::NetApiBufferSize(buffer, As<::DWORD>(byteCount));
  }
  BOOL GetUserNameA(char* buffer, DWORD* size) override {
    return ::GetUserNameA(buffer, As<::DWORD>(size));
  }
};

}  // namespace

std::unique_ptr<NetApi> MakeLiveNetApi() {
  return std::make_unique<LiveNetApi>();
}

}  // namespace platform::win32
