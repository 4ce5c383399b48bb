// COM and WMI (ole32, oleaut32, wbemprox): the calls that read Win32_QuickFixEngineering.
#pragma once

#include "platform/types.h"

namespace platform {

using BSTR = WCHAR*;
using VARTYPE = std::uint16_t;
using CIMTYPE = LONG;
using DATE = double;  // OLE automation date: days since 1899-12-30

constexpr VARTYPE VT_EMPTY = 0;
constexpr VARTYPE VT_NULL = 1;
constexpr VARTYPE VT_I4 = 3;
constexpr VARTYPE VT_DATE = 7;
constexpr VARTYPE VT_BSTR = 8;
constexpr VARTYPE VT_BOOL = 11;

struct VARIANT {
  VARTYPE vt;
  WORD wReserved1;
  WORD wReserved2;
  WORD wReserved3;
  union {
    LONG lVal;
    DATE date;
    BSTR bstrVal;
    std::int16_t boolVal;
    LONGLONG llVal;
  };
};

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT WBEM_S_FALSE = 1;
constexpr HRESULT WBEM_S_TIMEDOUT = 0x40004;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);
constexpr HRESULT RPC_E_TOO_LATE = static_cast<HRESULT>(0x80010119u);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);
constexpr HRESULT WBEM_E_NOT_FOUND = static_cast<HRESULT>(0x80041002u);
constexpr HRESULT WBEM_E_INVALID_NAMESPACE = static_cast<HRESULT>(0x8004100Eu);
constexpr HRESULT WBEM_E_INVALID_CLASS = static_cast<HRESULT>(0x80041010u);
constexpr HRESULT WBEM_E_INVALID_QUERY = static_cast<HRESULT>(0x80041017u);

constexpr DWORD COINIT_MULTITHREADED = 0x0;
constexpr DWORD RPC_C_AUTHN_LEVEL_DEFAULT = 0;
constexpr DWORD RPC_C_AUTHN_LEVEL_CALL = 3;
constexpr DWORD RPC_C_IMP_LEVEL_IMPERSONATE = 3;
constexpr DWORD RPC_C_AUTHN_WINNT = 10;
constexpr DWORD RPC_C_AUTHZ_NONE = 0;
constexpr DWORD EOAC_NONE = 0;
constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;
constexpr LONG WBEM_FLAG_RETURN_IMMEDIATELY = 0x10;
constexpr LONG WBEM_FLAG_FORWARD_ONLY = 0x20;
constexpr LONG WBEM_INFINITE = -1;

inline bool FAILED(HRESULT hr) {
  return hr < 0;
}
inline bool SUCCEEDED(HRESULT hr) {
  return hr >= 0;
}

// The four WMI interfaces, reduced to the operations the collectors call. Objects are
// reference counted as in COM: Release frees the last reference.
class IWbemClassObject {
 public:
  virtual ULONG Release() = 0;
  // WBEM_E_NOT_FOUND for a property the class does not have; a property without a value
  // answers S_OK with VT_NULL.
  virtual HRESULT Get(const WCHAR* name, LONG flags, VARIANT* value, CIMTYPE* type,
                      LONG* flavor) = 0;

 protected:
  virtual ~IWbemClassObject() = default;
};

class IEnumWbemClassObject {
 public:
  virtual ULONG Release() = 0;
  // S_OK with `*returned` objects, WBEM_S_FALSE with fewer (0 at the end).
  virtual HRESULT Next(LONG timeout, ULONG count, IWbemClassObject** objects, ULONG* returned) = 0;

 protected:
  virtual ~IEnumWbemClassObject() = default;
};

class IWbemServices {
 public:
  virtual ULONG Release() = 0;
  virtual HRESULT ExecQuery(const WCHAR* language, const WCHAR* query, LONG flags, void* context,
                            IEnumWbemClassObject** result) = 0;

 protected:
  virtual ~IWbemServices() = default;
};

class IWbemLocator {
 public:
  virtual ULONG Release() = 0;
  virtual HRESULT ConnectServer(const WCHAR* networkResource, const WCHAR* user,
                                const WCHAR* password, const WCHAR* locale, LONG securityFlags,
                                const WCHAR* authority, void* context,
                                IWbemServices** services) = 0;

 protected:
  virtual ~IWbemLocator() = default;
};

class Wmi {
 public:
  virtual ~Wmi() = default;
  virtual HRESULT CoInitializeEx(void* reserved, DWORD coInit) = 0;
  virtual HRESULT CoInitializeSecurity(void* securityDescriptor, LONG authServiceCount,
                                       void* authServices, void* reserved1, DWORD authnLevel,
                                       DWORD impLevel, void* authList, DWORD capabilities,
                                       void* reserved3) = 0;
  // CoCreateInstance(CLSID_WbemLocator, NULL, clsContext, IID_IWbemLocator, ...).
  virtual HRESULT CoCreateWbemLocator(DWORD clsContext, IWbemLocator** locator) = 0;
  virtual HRESULT CoSetProxyBlanket(IWbemServices* proxy, DWORD authnService, DWORD authzService,
                                    WCHAR* serverPrincipalName, DWORD authnLevel, DWORD impLevel,
                                    void* authInfo, DWORD capabilities) = 0;
  virtual void CoUninitialize() = 0;
  virtual void VariantInit(VARIANT* value) = 0;
  virtual HRESULT VariantClear(VARIANT* value) = 0;
  // Answers TRUE on success.
  virtual INT VariantTimeToSystemTime(DATE time, SYSTEMTIME* systemTime) = 0;
};

}  // namespace platform
