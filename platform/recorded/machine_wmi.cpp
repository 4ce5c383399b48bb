#include "platform/recorded/machine_wmi.h"

#include <cmath>
#include <cstring>

#include "platform/recorded/machine_json.h"
#include "platform/recorded/machine_time.h"

namespace platform::recorded {

namespace {

constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT WBEM_E_INVALID_QUERY_TYPE = static_cast<HRESULT>(0x80041018u);
constexpr CIMTYPE CIM_SINT32 = 3, CIM_STRING = 8, CIM_BOOLEAN = 11, CIM_DATETIME = 101;
// 1970-01-01 as an OLE date.
constexpr double kUnixEpochOleDays = 25569.0;

const char* const kSteps[] = {"coInitializeEx", "coInitializeSecurity", "createLocator",
                              "connectServer",  "setProxyBlanket",      "execQuery"};

std::u16string Upper(std::u16string s) {
  for (auto& c : s)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  return s;
}

// The reference count every recorded WMI object keeps, as COM objects do; the machine
// counts live objects so that tests can see a leaked one.
template <class Interface>
class Counted : public Interface {
 public:
  explicit Counted(RecordedWmi& wmi) : wmi_(wmi) { wmi_.objectCreated(); }
  ULONG Release() override {
    const ULONG left = --refs_;
    if (left == 0) {
      wmi_.objectReleased();
      delete this;
    }
    return left;
  }

 protected:
  ~Counted() override = default;
  RecordedWmi& wmi_;

 private:
  ULONG refs_ = 1;
};

class ClassObject : public Counted<IWbemClassObject> {
 public:
  ClassObject(RecordedWmi& wmi, const WmiRow& row) : Counted(wmi), row_(row) {}
  HRESULT Get(const WCHAR* name, LONG, VARIANT* value, CIMTYPE* type, LONG* flavor) override {
    if (!name) return E_INVALIDARG;
    const std::string wanted = Lower(WideToUtf8(name));
    for (const auto& [key, v] : row_.properties) {
      if (Lower(key) != wanted) continue;
      if (value) {
        std::memset(value, 0, sizeof(*value));
        value->vt = v.vt;
        if (v.vt == VT_BSTR) value->bstrVal = wmi_.allocString(v.text);
        if (v.vt == VT_DATE) value->date = v.date;
        if (v.vt == VT_I4) value->lVal = v.number;
        if (v.vt == VT_BOOL) value->boolVal = v.flag ? -1 : 0;
      }
      if (type)
        *type = v.vt == VT_I4     ? CIM_SINT32
                : v.vt == VT_BOOL ? CIM_BOOLEAN
                : v.vt == VT_DATE ? CIM_DATETIME
                                  : CIM_STRING;
      if (flavor) *flavor = 0;
      return S_OK;
    }
    return WBEM_E_NOT_FOUND;
  }

 private:
  ~ClassObject() override = default;
  const WmiRow& row_;
};

class Enumerator : public Counted<IEnumWbemClassObject> {
 public:
  Enumerator(RecordedWmi& wmi, const std::vector<WmiRow>& rows) : Counted(wmi), rows_(rows) {}
  HRESULT Next(LONG, ULONG count, IWbemClassObject** objects, ULONG* returned) override {
    if (!objects || !returned) return E_INVALIDARG;
    ULONG n = 0;
    while (n < count && next_ < rows_.size()) objects[n++] = new ClassObject(wmi_, rows_[next_++]);
    *returned = n;
    return n == count ? S_OK : WBEM_S_FALSE;
  }

 private:
  ~Enumerator() override = default;
  const std::vector<WmiRow>& rows_;
  std::size_t next_ = 0;
};

class Services : public Counted<IWbemServices> {
 public:
  explicit Services(RecordedWmi& wmi) : Counted(wmi) {}
  HRESULT ExecQuery(const WCHAR* language, const WCHAR* query, LONG, void*,
                    IEnumWbemClassObject** result) override {
    if (!result) return E_POINTER;
    *result = nullptr;
    if (HRESULT hr = wmi_.step("execQuery")) return hr;
    if (!language || Upper(language) != u"WQL") return WBEM_E_INVALID_QUERY_TYPE;
    // Only "SELECT * FROM <class>".
    std::string q = WideToUtf8(query ? query : u"");
    std::vector<std::string> words;
    std::string word;
    for (char c : q + " ") {
      if (c == ' ' || c == '\t') {
        if (!word.empty()) words.push_back(word);
        word.clear();
      } else {
        word.push_back(c);
      }
    }
    if (words.size() != 4 || Lower(words[0]) != "select" || words[1] != "*" ||
        Lower(words[2]) != "from")
      return WBEM_E_INVALID_QUERY;
    auto it = wmi_.facts().classes.find(words[3]);
    if (it == wmi_.facts().classes.end()) return WBEM_E_INVALID_CLASS;
    *result = new Enumerator(wmi_, it->second);
    return S_OK;
  }

 private:
  ~Services() override = default;
};

class Locator : public Counted<IWbemLocator> {
 public:
  explicit Locator(RecordedWmi& wmi) : Counted(wmi) {}
  HRESULT ConnectServer(const WCHAR* resource, const WCHAR*, const WCHAR*, const WCHAR*, LONG,
                        const WCHAR*, void*, IWbemServices** services) override {
    if (!services) return E_POINTER;
    *services = nullptr;
    if (HRESULT hr = wmi_.step("connectServer")) return hr;
    std::u16string ns = Upper(resource ? resource : u"");
    if (ns != u"ROOT\\CIMV2" && ns != u"\\\\.\\ROOT\\CIMV2") return WBEM_E_INVALID_NAMESPACE;
    *services = new Services(wmi_);
    return S_OK;
  }

 private:
  ~Locator() override = default;
};

WmiValue ReadValue(const Field& f) {
  WmiValue v;
  if (f.isNull()) return v;
  const nlohmann::json& j = f.json();
  if (j.is_string()) {
    v.vt = VT_BSTR;
    v.text = Utf8ToWide(j.get<std::string>());
  } else if (j.is_boolean()) {
    v.vt = VT_BOOL;
    v.flag = j.get<bool>();
  } else if (j.is_number_integer()) {
    v.vt = VT_I4;
    v.number = static_cast<LONG>(f.asSigned());
  } else if (j.is_object()) {
    f.expectKeys({"date", "oleDate"});
    v.vt = VT_DATE;
    if (f["oleDate"].present()) {
      v.date = f["oleDate"].asNumber();
    } else {
      std::int64_t ms = 0;
      if (!ParseIsoTime(f["date"].asString(), &ms))
        f["date"].fail("expected a date such as 2010-03-15T10:30:00");
      v.date = OleDateFromUnixMillis(ms);
    }
  } else {
    f.fail("expected a string, integer, true/false, null, or {\"date\": ...} / {\"oleDate\": ...}");
  }
  return v;
}

}  // namespace

bool OleDateToSystemTime(DATE date, SYSTEMTIME* out) {
  // oleaut32 accepts years 100 to 9999.
  if (!out || !(date > -657435.0) || !(date < 2958466.0)) return false;
  // The integer part counts days (toward zero), the fraction is the time of that day, also
  // for dates before 1899-12-30: -1.25 is 1899-12-29 06:00.
  double whole = std::trunc(date);
  auto seconds = static_cast<std::int64_t>(std::llround(std::fabs(date - whole) * 86400.0));
  auto day = static_cast<std::int64_t>(whole) - static_cast<std::int64_t>(kUnixEpochOleDays);
  *out = ToSystemTime((day * 86400 + seconds) * 1000);
  return out->wYear <= 9999;
}

DATE OleDateFromUnixMillis(std::int64_t unixMillis) {
  const double days = static_cast<double>(unixMillis) / 86400000.0 + kUnixEpochOleDays;
  if (days >= 0) return days;
  // Before 1899-12-30 the time runs forward from the day's (negative) integer part.
  const double day = std::floor(days);
  return day - (days - day);
}

std::vector<WmiRow> ImportWmicList(const std::string& bytes) {
  std::string text;
  std::u16string wide;
  if (DecodeUtf16LeWithBom(bytes, wide)) {
    text = WideToUtf8(wide);
  } else {
    text = bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? bytes.substr(3) : bytes;
  }
  std::vector<WmiRow> rows;
  WmiRow current;
  std::size_t pos = 0;
  while (pos <= text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    std::size_t eq = line.find('=');
    if (line.empty() || eq == std::string::npos) {
      if (!current.properties.empty()) rows.push_back(std::move(current));
      current = WmiRow{};
      continue;
    }
    WmiValue v;
    if (eq + 1 < line.size()) {
      v.vt = VT_BSTR;
      v.text = Utf8ToWide(line.substr(eq + 1));
    }
    current.properties.emplace_back(line.substr(0, eq), v);
  }
  if (!current.properties.empty()) rows.push_back(std::move(current));
  return rows;
}

WmiFacts ReadWmiFacts(const Field& wmi,
                      const std::function<const std::string*(const std::string&)>& machineFile) {
  WmiFacts f;
  if (!wmi.present() || wmi.isNull()) return f;
  f.recorded = true;
  wmi.expectKeys({"steps", "classes"});
  Field steps = wmi["steps"];
  steps.expectKeys({kSteps[0], kSteps[1], kSteps[2], kSteps[3], kSteps[4], kSteps[5]});
  for (const auto& [name, code] : steps.members())
    f.steps[name] = static_cast<HRESULT>(code.asCode());
  for (const auto& [name, cls] : wmi["classes"].members()) {
    std::vector<WmiRow>& rows = f.classes[name];
    if (cls.isObject()) {
      cls.expectKeys({"wmic"});
      const std::string path = cls["wmic"].asString();
      const std::string* bytes = machineFile(path);
      if (!bytes) cls["wmic"].fail("cannot read " + path);
      rows = ImportWmicList(*bytes);
      continue;
    }
    for (const Field& r : cls.items()) {
      WmiRow row;
      for (const auto& [prop, value] : r.members())
        row.properties.emplace_back(prop, ReadValue(value));
      rows.push_back(std::move(row));
    }
  }
  return f;
}

RecordedWmi::RecordedWmi(WmiFacts facts) : facts_(std::move(facts)) {}

RecordedWmi::~RecordedWmi() {
  for (BSTR s : strings_) delete[] s;
}

HRESULT RecordedWmi::step(const char* name) const {
  auto it = facts_.steps.find(name);
  if (it != facts_.steps.end()) return it->second;
  // A machine without WMI has COM but no locator class.
  if (!facts_.recorded && std::strcmp(name, "createLocator") == 0) return REGDB_E_CLASSNOTREG;
  return S_OK;
}

HRESULT RecordedWmi::CoInitializeEx(void*, DWORD) {
  HRESULT hr = step("coInitializeEx");
  if (SUCCEEDED(hr)) {
    ++initialized_;
    if (initialized_ > 1 && hr == S_OK) hr = S_FALSE;  // already initialised on this thread
  }
  return hr;
}

HRESULT RecordedWmi::CoInitializeSecurity(void*, LONG, void*, void*, DWORD, DWORD, void*, DWORD,
                                          void*) {
  if (HRESULT hr = step("coInitializeSecurity")) return hr;
  if (securitySet_) return RPC_E_TOO_LATE;
  securitySet_ = true;
  return S_OK;
}

HRESULT RecordedWmi::CoCreateWbemLocator(DWORD, IWbemLocator** locator) {
  if (!locator) return E_POINTER;
  *locator = nullptr;
  if (HRESULT hr = step("createLocator")) return hr;
  *locator = new Locator(*this);
  return S_OK;
}

HRESULT RecordedWmi::CoSetProxyBlanket(IWbemServices* proxy, DWORD, DWORD, WCHAR*, DWORD, DWORD,
                                       void*, DWORD) {
  if (!proxy) return E_INVALIDARG;
  return step("setProxyBlanket");
}

void RecordedWmi::CoUninitialize() {
  if (initialized_ > 0) --initialized_;
}

void RecordedWmi::VariantInit(VARIANT* value) {
  if (!value) return;
  std::memset(value, 0, sizeof(*value));
  value->vt = VT_EMPTY;
}

HRESULT RecordedWmi::VariantClear(VARIANT* value) {
  if (!value) return E_INVALIDARG;
  if (value->vt == VT_BSTR && value->bstrVal) {
    if (strings_.erase(value->bstrVal) == 0) return E_INVALIDARG;
    delete[] value->bstrVal;
  }
  std::memset(value, 0, sizeof(*value));
  value->vt = VT_EMPTY;
  return S_OK;
}

INT RecordedWmi::VariantTimeToSystemTime(DATE time, SYSTEMTIME* systemTime) {
  return OleDateToSystemTime(time, systemTime) ? TRUE : FALSE;
}

BSTR RecordedWmi::allocString(const std::u16string& text) {
  BSTR s = new WCHAR[text.size() + 1];
  std::copy(text.begin(), text.end(), s);
  s[text.size()] = 0;
  strings_.insert(s);
  return s;
}

}  // namespace platform::recorded
