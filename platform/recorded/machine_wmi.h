// COM and WMI of a recorded machine: the result of each step, and the rows of each class
// with their variant types.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/recorded/machine_text.h"
#include "platform/wmi.h"

namespace platform::recorded {

class Field;

struct WmiValue {
  VARTYPE vt = VT_NULL;
  std::u16string text;  // VT_BSTR
  DATE date = 0;        // VT_DATE
  LONG number = 0;      // VT_I4
  bool flag = false;    // VT_BOOL
};

struct WmiRow {
  std::vector<std::pair<std::string, WmiValue>> properties;  // names as recorded
};

struct WmiFacts {
  bool recorded = false;
  std::map<std::string, HRESULT> steps;
  std::map<std::string, std::vector<WmiRow>, NoCaseLess> classes;
};

// Reads the "wmi" block; `machineFile` gives the bytes of a file of the machine directory
// (for rows imported from a wmic export), null when absent.
WmiFacts ReadWmiFacts(const Field& wmi,
                      const std::function<const std::string*(const std::string&)>& machineFile);

// Rows of a `wmic ... get /format:list` export (UTF-16 with BOM, or UTF-8): records apart by
// blank lines, Name=Value lines; an empty value is a property without a value (VT_NULL).
KPLATFORM_API std::vector<WmiRow> ImportWmicList(const std::string& bytes);

// OLE automation date <-> calendar, as oleaut32 converts (whole seconds).
KPLATFORM_API bool OleDateToSystemTime(DATE date, SYSTEMTIME* out);
KPLATFORM_API DATE OleDateFromUnixMillis(std::int64_t unixMillis);

class KPLATFORM_API RecordedWmi : public Wmi {
 public:
  explicit RecordedWmi(WmiFacts facts);
  ~RecordedWmi() override;

  HRESULT CoInitializeEx(void* reserved, DWORD coInit) override;
  HRESULT CoInitializeSecurity(void* securityDescriptor, LONG authServiceCount, void* authServices,
                               void* reserved1, DWORD authnLevel, DWORD impLevel, void* authList,
                               DWORD capabilities, void* reserved3) override;
  HRESULT CoCreateWbemLocator(DWORD clsContext, IWbemLocator** locator) override;
  HRESULT CoSetProxyBlanket(IWbemServices* proxy, DWORD authnService, DWORD authzService,
                            WCHAR* serverPrincipalName, DWORD authnLevel, DWORD impLevel,
                            void* authInfo, DWORD capabilities) override;
  void CoUninitialize() override;
  void VariantInit(VARIANT* value) override;
  HRESULT VariantClear(VARIANT* value) override;
  INT VariantTimeToSystemTime(DATE time, SYSTEMTIME* systemTime) override;

  // For tests: objects not yet released and strings not yet cleared.
  int liveObjects() const { return liveObjects_; }
  std::size_t liveStrings() const { return strings_.size(); }
  int initializeCount() const { return initialized_; }

  // Used by the objects handed out.
  HRESULT step(const char* name) const;
  const WmiFacts& facts() const { return facts_; }
  BSTR allocString(const std::u16string& text);
  void objectCreated() { ++liveObjects_; }
  void objectReleased() { --liveObjects_; }

 private:
  WmiFacts facts_;
  std::set<BSTR> strings_;
  int liveObjects_ = 0;
  int initialized_ = 0;
  bool securitySet_ = false;
};

}  // namespace platform::recorded
