// COM and WMI of the live machine: the real interfaces behind small adapters that speak
// our reduced ones.
#include "platform/win32/live_families.h"
#include "platform/wmi.h"

#include <cstring>
#include <vector>

namespace {
// Our constants, taken before <windows.h> turns the same names into macros.
namespace ours {
constexpr platform::HRESULT kSOk = platform::S_OK;
constexpr platform::HRESULT kSFalse = platform::S_FALSE;
constexpr platform::HRESULT kEFail = platform::E_FAIL;
constexpr platform::HRESULT kENotImpl = platform::E_NOTIMPL;
constexpr platform::HRESULT kEAccessDenied = platform::E_ACCESSDENIED;
constexpr platform::HRESULT kRpcETooLate = platform::RPC_E_TOO_LATE;
constexpr platform::HRESULT kRegdbEClassNotReg = platform::REGDB_E_CLASSNOTREG;
constexpr platform::HRESULT kWbemSFalse = platform::WBEM_S_FALSE;
constexpr platform::HRESULT kWbemSTimedOut = platform::WBEM_S_TIMEDOUT;
constexpr platform::HRESULT kWbemENotFound = platform::WBEM_E_NOT_FOUND;
constexpr platform::HRESULT kWbemEInvalidNamespace = platform::WBEM_E_INVALID_NAMESPACE;
constexpr platform::HRESULT kWbemEInvalidClass = platform::WBEM_E_INVALID_CLASS;
constexpr platform::HRESULT kWbemEInvalidQuery = platform::WBEM_E_INVALID_QUERY;
constexpr platform::DWORD kCoinitMultithreaded = platform::COINIT_MULTITHREADED;
constexpr platform::DWORD kAuthnLevelDefault = platform::RPC_C_AUTHN_LEVEL_DEFAULT;
constexpr platform::DWORD kAuthnLevelCall = platform::RPC_C_AUTHN_LEVEL_CALL;
constexpr platform::DWORD kImpLevelImpersonate = platform::RPC_C_IMP_LEVEL_IMPERSONATE;
constexpr platform::DWORD kAuthnWinNt = platform::RPC_C_AUTHN_WINNT;
constexpr platform::DWORD kAuthzNone = platform::RPC_C_AUTHZ_NONE;
constexpr platform::DWORD kEoacNone = platform::EOAC_NONE;
constexpr platform::DWORD kClsctxInprocServer = platform::CLSCTX_INPROC_SERVER;
constexpr platform::LONG kReturnImmediately = platform::WBEM_FLAG_RETURN_IMMEDIATELY;
constexpr platform::LONG kForwardOnly = platform::WBEM_FLAG_FORWARD_ONLY;
constexpr platform::LONG kInfinite = platform::WBEM_INFINITE;
constexpr platform::VARTYPE kVtEmpty = platform::VT_EMPTY;
constexpr platform::VARTYPE kVtNull = platform::VT_NULL;
constexpr platform::VARTYPE kVtI4 = platform::VT_I4;
constexpr platform::VARTYPE kVtDate = platform::VT_DATE;
constexpr platform::VARTYPE kVtBstr = platform::VT_BSTR;
constexpr platform::VARTYPE kVtBool = platform::VT_BOOL;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there.
#include <windows.h>

#include <objbase.h>
#include <oleauto.h>
#include <wbemidl.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kSOk == S_OK && ours::kSFalse == S_FALSE, "HRESULT");
static_assert(ours::kEFail == E_FAIL && ours::kENotImpl == E_NOTIMPL, "HRESULT");
static_assert(ours::kEAccessDenied == E_ACCESSDENIED, "HRESULT");
static_assert(ours::kRpcETooLate == RPC_E_TOO_LATE, "HRESULT");
static_assert(ours::kRegdbEClassNotReg == REGDB_E_CLASSNOTREG, "HRESULT");
static_assert(ours::kWbemSFalse == WBEM_S_FALSE && ours::kWbemSTimedOut == WBEM_S_TIMEDOUT,
              "WBEM status");
static_assert(ours::kWbemENotFound == static_cast<HRESULT>(WBEM_E_NOT_FOUND), "WBEM status");
static_assert(ours::kWbemEInvalidNamespace == static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE),
              "WBEM status");
static_assert(ours::kWbemEInvalidClass == static_cast<HRESULT>(WBEM_E_INVALID_CLASS),
              "WBEM status");
static_assert(ours::kWbemEInvalidQuery == static_cast<HRESULT>(WBEM_E_INVALID_QUERY),
              "WBEM status");
static_assert(ours::kCoinitMultithreaded == COINIT_MULTITHREADED, "COM apartment");
static_assert(ours::kAuthnLevelDefault == RPC_C_AUTHN_LEVEL_DEFAULT, "authentication");
static_assert(ours::kAuthnLevelCall == RPC_C_AUTHN_LEVEL_CALL, "authentication");
static_assert(ours::kImpLevelImpersonate == RPC_C_IMP_LEVEL_IMPERSONATE, "impersonation");
static_assert(ours::kAuthnWinNt == RPC_C_AUTHN_WINNT && ours::kAuthzNone == RPC_C_AUTHZ_NONE,
              "authentication");
static_assert(ours::kEoacNone == EOAC_NONE, "capabilities");
static_assert(ours::kClsctxInprocServer == CLSCTX_INPROC_SERVER, "class context");
static_assert(ours::kReturnImmediately == WBEM_FLAG_RETURN_IMMEDIATELY &&
                  ours::kForwardOnly == WBEM_FLAG_FORWARD_ONLY,
              "query flags");
static_assert(ours::kInfinite == static_cast<LONG>(WBEM_INFINITE), "timeout");
static_assert(ours::kVtEmpty == VT_EMPTY && ours::kVtNull == VT_NULL && ours::kVtI4 == VT_I4,
              "variant type");
static_assert(ours::kVtDate == VT_DATE && ours::kVtBstr == VT_BSTR && ours::kVtBool == VT_BOOL,
              "variant type");

// Windows' VARIANT also has room for a record (two pointers): 24 bytes on x64 against our
// 16. The leading part is laid out alike, so values cross the seam by copying that part
// through a full-size VARIANT; Windows never writes into a buffer of our size.
static_assert(sizeof(platform::VARIANT) == 16 && sizeof(::VARIANT) == 24, "VARIANT sizes");
static_assert(offsetof(platform::VARIANT, vt) == offsetof(::VARIANT, vt), "VARIANT::vt");
static_assert(offsetof(platform::VARIANT, lVal) == offsetof(::VARIANT, lVal), "VARIANT::lVal");
static_assert(offsetof(platform::VARIANT, date) == offsetof(::VARIANT, date), "VARIANT::date");
static_assert(offsetof(platform::VARIANT, bstrVal) == offsetof(::VARIANT, bstrVal),
              "VARIANT::bstrVal");
static_assert(offsetof(platform::VARIANT, boolVal) == offsetof(::VARIANT, boolVal),
              "VARIANT::boolVal");
static_assert(offsetof(platform::VARIANT, llVal) == offsetof(::VARIANT, llVal), "VARIANT::llVal");
static_assert(sizeof(platform::SYSTEMTIME) == sizeof(::SYSTEMTIME), "SYSTEMTIME");

namespace platform::win32 {
namespace {

::VARIANT ToWin(const VARIANT& value) {
  ::VARIANT wide;
  std::memset(&wide, 0, sizeof wide);
  std::memcpy(&wide, &value, sizeof value);
  return wide;
}

// A record variant does not fit our layout; it is cleared and answered as empty, as no
// property the collectors read has that type.
void FromWin(::VARIANT* wide, VARIANT* value) {
  if ((wide->vt & VT_TYPEMASK) == VT_RECORD) ::VariantClear(wide);
  std::memcpy(value, wide, sizeof *value);
}

// A BSTR made from our text for the length of one call; null stays null.
class Bstr {
 public:
  explicit Bstr(const WCHAR* text)
      : value_(text == nullptr ? nullptr : ::SysAllocString(As<::WCHAR>(text))),
        failed_(text != nullptr && value_ == nullptr) {}
  ~Bstr() { ::SysFreeString(value_); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  ::BSTR get() const { return value_; }
  bool failed() const { return failed_; }

 private:
  ::BSTR value_;
  bool failed_;
};

// Each adapter owns one reference to the real object: Release gives it back and ends
// the adapter.
template <typename Ours, typename Real>
class Adapter : public Ours {
 public:
  explicit Adapter(Real* real) : real_(real) {}
  ULONG Release() override {
    const ULONG left = real_->Release();
    delete this;
    return left;
  }
  Real* real() const { return real_; }

 protected:
  Real* const real_;
};

class ClassObject final : public Adapter<IWbemClassObject, ::IWbemClassObject> {
 public:
  using Adapter::Adapter;
  HRESULT Get(const WCHAR* name, LONG flags, VARIANT* value, CIMTYPE* type, LONG* flavor) override {
    ::VARIANT wide;
    ::VariantInit(&wide);
    ::CIMTYPE wideType = 0;
    long wideFlavor = 0;
    const HRESULT hr = real_->Get(As<::WCHAR>(name), flags, value ? &wide : nullptr,
                                  type ? &wideType : nullptr, flavor ? &wideFlavor : nullptr);
    if (SUCCEEDED(hr)) {
      if (value != nullptr) FromWin(&wide, value);
      if (type != nullptr) *type = wideType;
      if (flavor != nullptr) *flavor = wideFlavor;
    }
    return hr;
  }
};

class EnumClassObject final : public Adapter<IEnumWbemClassObject, ::IEnumWbemClassObject> {
 public:
  using Adapter::Adapter;
  HRESULT Next(LONG timeout, ULONG count, IWbemClassObject** objects, ULONG* returned) override {
    std::vector<::IWbemClassObject*> rows(count, nullptr);
    ::ULONG got = 0;
    const HRESULT hr = real_->Next(timeout, count, rows.data(), &got);
    for (::ULONG i = 0; i < got && i < count; ++i) objects[i] = new ClassObject(rows[i]);
    if (returned != nullptr) *returned = got;
    return hr;
  }
};

class Services final : public Adapter<IWbemServices, ::IWbemServices> {
 public:
  using Adapter::Adapter;
  HRESULT ExecQuery(const WCHAR* language, const WCHAR* query, LONG flags, void* context,
                    IEnumWbemClassObject** result) override {
    const Bstr wideLanguage(language);
    const Bstr wideQuery(query);
    if (wideLanguage.failed() || wideQuery.failed()) return E_OUTOFMEMORY;
    ::IEnumWbemClassObject* rows = nullptr;
    const HRESULT hr = real_->ExecQuery(wideLanguage.get(), wideQuery.get(), flags,
                                        static_cast<::IWbemContext*>(context), &rows);
    *result = rows != nullptr ? new EnumClassObject(rows) : nullptr;
    return hr;
  }
};

class Locator final : public Adapter<IWbemLocator, ::IWbemLocator> {
 public:
  using Adapter::Adapter;
  HRESULT ConnectServer(const WCHAR* networkResource, const WCHAR* user, const WCHAR* password,
                        const WCHAR* locale, LONG securityFlags, const WCHAR* authority,
                        void* context, IWbemServices** services) override {
    const Bstr wideResource(networkResource);
    const Bstr wideUser(user);
    const Bstr widePassword(password);
    const Bstr wideLocale(locale);
    const Bstr wideAuthority(authority);
    for (const Bstr* text : {&wideResource, &wideUser, &widePassword, &wideLocale, &wideAuthority})
      if (text->failed()) return E_OUTOFMEMORY;
    ::IWbemServices* real = nullptr;
    const HRESULT hr = real_->ConnectServer(wideResource.get(), wideUser.get(), widePassword.get(),
                                            wideLocale.get(), securityFlags, wideAuthority.get(),
                                            static_cast<::IWbemContext*>(context), &real);
    *services = real != nullptr ? new Services(real) : nullptr;
    return hr;
  }
};

class LiveWmi final : public Wmi {
 public:
  HRESULT CoInitializeEx(void* reserved, DWORD coInit) override {
    return ::CoInitializeEx(reserved, coInit);
  }
  HRESULT CoInitializeSecurity(void* securityDescriptor, LONG authServiceCount, void* authServices,
                               void* reserved1, DWORD authnLevel, DWORD impLevel, void* authList,
                               DWORD capabilities, void* reserved3) override {
    return ::CoInitializeSecurity(securityDescriptor, authServiceCount,
                                  static_cast<::SOLE_AUTHENTICATION_SERVICE*>(authServices),
                                  reserved1, authnLevel, impLevel, authList, capabilities,
                                  reserved3);
  }
  HRESULT CoCreateWbemLocator(DWORD clsContext, IWbemLocator** locator) override {
    ::IWbemLocator* real = nullptr;
    const HRESULT hr = ::CoCreateInstance(CLSID_WbemLocator, nullptr, clsContext, IID_IWbemLocator,
                                          reinterpret_cast<void**>(&real));
    *locator = real != nullptr ? new Locator(real) : nullptr;
    return hr;
  }
  HRESULT CoSetProxyBlanket(IWbemServices* proxy, DWORD authnService, DWORD authzService,
                            WCHAR* serverPrincipalName, DWORD authnLevel, DWORD impLevel,
                            void* authInfo, DWORD capabilities) override {
    // Only a proxy this machine handed out has a real object behind it.
    auto* services = dynamic_cast<Services*>(proxy);
    if (services == nullptr) return E_INVALIDARG;
    return ::CoSetProxyBlanket(services->real(), authnService, authzService,
                               As<::WCHAR>(serverPrincipalName), authnLevel, impLevel, authInfo,
                               capabilities);
  }
  void CoUninitialize() override { ::CoUninitialize(); }
  void VariantInit(VARIANT* value) override {
    ::VARIANT wide;
    ::VariantInit(&wide);
    FromWin(&wide, value);
  }
  HRESULT VariantClear(VARIANT* value) override {
    ::VARIANT wide = ToWin(*value);
    const HRESULT hr = ::VariantClear(&wide);
    FromWin(&wide, value);
    return hr;
  }
  INT VariantTimeToSystemTime(DATE time, SYSTEMTIME* systemTime) override {
    return ::VariantTimeToSystemTime(time, reinterpret_cast<::LPSYSTEMTIME>(systemTime));
  }
};

}  // namespace

std::unique_ptr<Wmi> MakeLiveWmi() {
  return std::make_unique<LiveWmi>();
}

}  // namespace platform::win32
