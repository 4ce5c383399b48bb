#include "cli/instance_view.h"

namespace iac {

using NKestovaTessil20::ICIMClass;
using NKestovaTessil20::ICIMProperty;
using NKestovaTessil20::ICIMPropertyDecl;
using NKestovaTessil20::TCIMReference;
using NKestovaTessil20::TCIMValue;
using NKestovaTessil20::TOptions;

std::vector<PropertyView> describeClass(NKestovaTessil20::ICIMNamespace& ns,
                                        const std::string& className) {
  std::vector<PropertyView> properties;
  boost::shared_ptr<ICIMClass> cls;
  ns.GetClass(cls, className, TOptions());
  if (!cls) return properties;
  std::vector<std::string> names;
  NKestovaTessil20::TAddKeyNamesToVectorCallback collect(names);
  cls->EnumeratePropertyNames(collect, TOptions());
  for (const std::string& name : names) {
    PropertyView property;
    property.name = name;
    boost::shared_ptr<const ICIMPropertyDecl> decl;
    cls->GetPropertyDecl(decl, name, TOptions());
    if (decl) {
      TCIMValue::TCIMType type;
      decl->GetType(type, TOptions());
      property.type = type;
      property.isArray = decl->IsArray(TOptions());
      property.isKey = decl->IsKey();
    }
    properties.push_back(std::move(property));
  }
  return properties;
}

InstanceView describeInstance(const std::vector<PropertyView>& declared,
                              NKestovaTessil20::ICIMInstance& instance) {
  InstanceView view;
  view.className = instance.GetInstanceClassName();
  TCIMReference reference;
  instance.GetReference(reference, TOptions());
  view.path = reference.GetPath();
  view.properties = declared;
  for (PropertyView& property : view.properties) {
    boost::shared_ptr<ICIMProperty> handle;
    instance.GetProperty(handle, property.name, TOptions());
    if (handle) property.value = handle->GetValue();
  }
  return view;
}

}  // namespace iac
