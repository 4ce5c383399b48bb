#include "cli/instance_view.h"

namespace iac {

using NKestovaTessil20::ICIMClass;
using NKestovaTessil20::ICIMProperty;
using NKestovaTessil20::ICIMPropertyDecl;
using NKestovaTessil20::TCIMReference;
using NKestovaTessil20::TCIMValue;
using NKestovaTessil20::TOptions;

InstanceView describeInstance(NKestovaTessil20::ICIMNamespace& ns,
                              NKestovaTessil20::ICIMInstance& instance) {
  InstanceView view;
  view.className = instance.GetInstanceClassName();
  TCIMReference reference;
  instance.GetReference(reference, TOptions());
  view.path = reference.GetPath();

  boost::shared_ptr<ICIMClass> cls;
  ns.GetClass(cls, view.className, TOptions());
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
    boost::shared_ptr<ICIMProperty> handle;
    instance.GetProperty(handle, name, TOptions());
    if (handle) property.value = handle->GetValue();
    view.properties.push_back(std::move(property));
  }
  return view;
}

}  // namespace iac
