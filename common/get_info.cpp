#include "common/get_info.h"

#include <sstream>

#include "common/cim_datetime.h"
#include "common/constants.h"

namespace installedapps_col {

using NKestovaTessil20::ICIMClass;
using NKestovaTessil20::ICIMInstance;
using NKestovaTessil20::ICIMNamespace;
using NKestovaTessil20::ICIMProperty;
using NKestovaTessil20::ICIMPropertyDecl;
using NKestovaTessil20::TCIMDateTime;
using NKestovaTessil20::TCIMValue;
using NKestovaTessil20::TOptions;
using NKestovaTessil20::TTessilException;

CIMValueBuilder::CIMValueBuilder(boost::shared_ptr<ICIMClass> cls)
    : m_class(std::move(cls)), m_log(LogMessage::instance()) {}

CIMValueBuilder::~CIMValueBuilder() = default;

void CIMValueBuilder::getCIMValueForProperty(TCIMValue& result, const std::string& propertyName,
                                             const std::string& text) {
  result = TCIMValue();
  if (!m_class) return;
  try {
    boost::shared_ptr<const ICIMPropertyDecl> decl;
    m_class->GetPropertyDecl(decl, propertyName, TOptions());
    if (!decl) return;
    TCIMValue::TCIMType type;
    decl->GetType(type, TOptions());
    const bool isArray = decl->IsArray(TOptions());
    boost::shared_ptr<ICIMNamespace> ns;
    if (!isArray && type == NKestovaTessil20::eCIMTypeDateTime) {
      const TCIMDateTime date = dateTimeFromText(text, *m_log);
      if (!date.IsNull()) result = TCIMValue(date);
      return;
    }
    m_class->GetNamespace(ns, TOptions());
    if (!isArray) {
      result = TCIMValue(type, text, ns);
      return;
    }
    // One element per comma-separated piece, empty pieces dropped; the appended comma
    // makes the last piece count.
    const std::string pieces = text + ",";
    std::vector<TCIMValue> elements;
    std::string::size_type start = 0;
    for (std::string::size_type comma = pieces.find(','); comma != std::string::npos;
         start = comma + 1, comma = pieces.find(',', start)) {
      if (comma > start) elements.emplace_back(type, pieces.substr(start, comma - start), ns);
    }
    result.Set(type, static_cast<unsigned int>(elements.size()), elements);
  } catch (const TTessilException& e) {
    m_log->logInfo(kErrorProcessingProperty + " " + m_class->GetName() + ". " + propertyName +
                   "= " + text);
    m_log->logError(e.what());
    result = TCIMValue();
  }
}

GetInfo::GetInfo(boost::shared_ptr<ICIMClass> cls)
    : m_log(LogMessage::instance()), m_class(std::move(cls)) {}

GetInfo::~GetInfo() = default;

std::uint64_t GetInfo::getCIMInstances() {
  return 0;
}

std::uint64_t GetInfo::getCIMAssociations(boost::shared_ptr<ICIMNamespace> ns) {
  ns.reset();
  return 0;
}

boost::shared_ptr<ICIMClass> GetInfo::getClass() const {
  if (!m_class) throw TTessilException(NKestovaTessil20::kStatusNoObject);
  return m_class;
}

void GetInfo::buildInstance(boost::shared_ptr<ICIMInstance>& out, PropertyMap properties,
                            std::string className) {
  (void)className;  // the instance's class is the kept handle's
  getClass()->CreateInstance(out, TOptions());
  {
    std::vector<std::string> fixed;
    fixUpInstance(fixed, out, properties);
  }
  for (const auto& entry : properties) {
    boost::shared_ptr<ICIMProperty> property;
    out->GetProperty(property, entry.first, TOptions());
    if (!entry.second.IsNull()) out->SetPropertyValue(entry.first, entry.second, TOptions());
  }
  out->Commit(TOptions());
}

std::vector<std::string>& GetInfo::fixUpInstance(std::vector<std::string>& fixed,
                                                 boost::shared_ptr<ICIMInstance> instance,
                                                 const PropertyMap& properties) {
  boost::shared_ptr<ICIMClass> cls = getClass();
  // Kept between instances, so that listing the names does not grow a vector each time.
  std::vector<std::string>& declared = m_declaredNames;
  declared.clear();
  NKestovaTessil20::TAddKeyNamesToVectorCallback collect(declared);
  cls->EnumeratePropertyNames(collect, TOptions());
  for (const std::string& name : declared) {
    if (properties.count(name) != 0) continue;
    boost::shared_ptr<ICIMProperty> property;
    instance->GetProperty(property, name, TOptions());
    if (property->GetType() != NKestovaTessil20::eCIMTypeString) continue;
    m_log->logInfo("Fixing up instance ..." + cls->GetName() + " with property" + name);
    // The same entry whatever the property: the list only counts fixed properties.
    fixed.push_back(kPropProductName);
    instance->SetPropertyValue(name, TCIMValue(""), TOptions());
  }
  return fixed;
}

std::string GetInfo::toString(int value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

void GetInfo::getCIMValueForProperty(TCIMValue& result, const std::string& propertyName,
                                     const std::string& text) {
  CIMValueBuilder(m_class).getCIMValueForProperty(result, propertyName, text);
}

void GetInfo::addCIMValues(PropertyMap& properties, const TextRecord& record) {
  // A record is in name order, as a property map is: into an empty map each goes at the end.
  for (const auto& entry : record) {
    auto property = properties.emplace_hint(properties.end(), entry.first, TCIMValue());
    getCIMValueForProperty(property->second, entry.first, entry.second);
  }
}

TCIMDateTime GetInfo::getCIMDateTime(unsigned int secondsSince1970) {
  return dateTimeFromSeconds(secondsSince1970, *m_log);
}

TCIMDateTime GetInfo::getCIMDateTime(const std::string& text) {
  return dateTimeFromText(text, *m_log);
}

}  // namespace installedapps_col
