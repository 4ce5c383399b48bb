// Namespace, classes, property declarations, instances and properties of the host.
#include <boost/make_shared.hpp>

#include "tessilcore/faults.h"
#include "tessilcore/host_impl.h"
#include "tessilcore/object_path.h"

namespace NKestovaTessil20 {

namespace {

class TPropertyDecl : public ICIMPropertyDecl {
 public:
  TPropertyDecl(TClassPtr owner, const TPropertyDeclaration* decl)
      : owner_(std::move(owner)), decl_(decl) {}
  void GetType(TCIMValue::TCIMType& out, const TOptions&) const override {
    THostFaults::Call("ICIMPropertyDecl::GetType");
    out = decl_->type;
  }
  bool IsArray(const TOptions&) const override {
    THostFaults::Call("ICIMPropertyDecl::IsArray");
    return decl_->isArray;
  }
  std::string GetName() const override { return decl_->name; }
  bool IsKey() const override { return decl_->isKey; }
  std::string GetReferenceClass() const override { return decl_->referenceClass; }

 private:
  TClassPtr owner_;  // keeps decl_ alive
  const TPropertyDeclaration* decl_;
};

class TProperty : public ICIMProperty {
 public:
  TProperty(boost::shared_ptr<TInstance> instance, std::size_t index)
      : instance_(std::move(instance)), index_(index) {}
  TCIMValue::TCIMType GetType() override {
    THostFaults::Call("ICIMProperty::GetType");
    return Decl().type;
  }
  TCIMValue GetValue() override {
    THostFaults::Call("ICIMProperty::GetValue");
    return instance_->Value(index_);
  }
  std::string GetName() override { return Decl().name; }
  bool IsArray() override { return Decl().isArray; }

 private:
  const TPropertyDeclaration& Decl() const { return instance_->Declaration()->properties[index_]; }
  boost::shared_ptr<TInstance> instance_;
  std::size_t index_;
};

bool IsUnsigned(ECIMType t) {
  return t == eCIMTypeUInt8 || t == eCIMTypeUInt16 || t == eCIMTypeUInt32 || t == eCIMTypeUInt64;
}

bool IsSigned(ECIMType t) {
  return t == eCIMTypeSInt8 || t == eCIMTypeSInt16 || t == eCIMTypeSInt32 || t == eCIMTypeSInt64;
}

int Width(ECIMType t) {
  switch (t) {
    case eCIMTypeUInt8:
    case eCIMTypeSInt8:
      return 8;
    case eCIMTypeUInt16:
    case eCIMTypeSInt16:
      return 16;
    case eCIMTypeUInt32:
    case eCIMTypeSInt32:
      return 32;
    default:
      return 64;
  }
}

TCIMValue MakeUnsigned(ECIMType t, std::uint64_t v) {
  switch (t) {
    case eCIMTypeUInt8:
      return TCIMValue(static_cast<unsigned char>(v));
    case eCIMTypeUInt16:
      return TCIMValue(static_cast<unsigned short>(v));
    case eCIMTypeUInt32:
      return TCIMValue(static_cast<unsigned int>(v));
    default:
      return TCIMValue(static_cast<unsigned long long>(v));
  }
}

TCIMValue MakeSigned(ECIMType t, std::int64_t v) {
  switch (t) {
    case eCIMTypeSInt8:
      return TCIMValue(static_cast<signed char>(v));
    case eCIMTypeSInt16:
      return TCIMValue(static_cast<short>(v));
    case eCIMTypeSInt32:
      return TCIMValue(static_cast<int>(v));
    default:
      return TCIMValue(static_cast<long long>(v));
  }
}

// The scalar `value` as a value of `target`, when every value of its type fits the
// target type: integers widen (uint32 into uint64 or sint64), real32 into real64, and a
// reference must point at the declared class or a subclass of it.
bool ConvertScalar(const TCIMValue& value, const TPropertyDeclaration& decl, const TSchema& schema,
                   TCIMValue& out) {
  const ECIMType from = value.GetType();
  const ECIMType to = decl.type;
  if (from == to && to != eCIMTypeReference) {
    out = value;
    return true;
  }
  if (IsUnsigned(from) && IsUnsigned(to) && Width(to) >= Width(from)) {
    out = MakeUnsigned(to, value.GetUnsigned());
    return true;
  }
  if (IsUnsigned(from) && IsSigned(to) && Width(to) > Width(from)) {
    out = MakeSigned(to, static_cast<std::int64_t>(value.GetUnsigned()));
    return true;
  }
  if (IsSigned(from) && IsSigned(to) && Width(to) >= Width(from)) {
    out = MakeSigned(to, value.GetSigned());
    return true;
  }
  if (from == eCIMTypeReal32 && to == eCIMTypeReal64) {
    out = TCIMValue(value.GetReal());
    return true;
  }
  if (from == eCIMTypeReference && to == eCIMTypeReference) {
    std::string target;
    std::vector<path::TKey> keys;
    if (!path::Parse(value.GetReference().GetPath(), target, keys)) return false;
    if (!schema.IsA(target, decl.referenceClass)) return false;
    out = value;
    return true;
  }
  return false;
}

}  // namespace

void TNamespace::GetClass(shared_ptr<ICIMClass>& out, const std::string& className,
                          const TOptions&) {
  THostFaults::Call("ICIMNamespace::GetClass");
  TClassPtr decl = host_->schema.Find(className);
  if (!decl) throw TTessilException(kStatusNotFound, "no class " + className);
  out = host_->MakeClass(decl);
}

void TNamespace::EnumerateClassNames(ICIMNameCallback& callback, const TOptions&) {
  for (const TClassPtr& decl : host_->schema.Classes()) callback.Report(decl->name);
}

std::string TClass::GetName() {
  THostFaults::Call("ICIMClass::GetName");
  return decl_->name;
}

bool TClass::IsAssociation() {
  THostFaults::Call("ICIMClass::IsAssociation");
  return decl_->association;
}

void TClass::GetNamespace(shared_ptr<ICIMNamespace>& out, const TOptions&) {
  THostFaults::Call("ICIMClass::GetNamespace");
  out = host_->ns;
}

void TClass::EnumeratePropertyNames(TAddKeyNamesToVectorCallback& callback, const TOptions&) {
  THostFaults::Call("ICIMClass::EnumeratePropertyNames");
  for (const TPropertyDeclaration& property : decl_->properties) callback.Report(property.name);
}

void TClass::GetPropertyDecl(shared_ptr<const ICIMPropertyDecl>& out, const std::string& name,
                             const TOptions&) {
  THostFaults::Call("ICIMClass::GetPropertyDecl");
  const TPropertyDeclaration* property = decl_->Find(name);
  if (property == nullptr) {
    out.reset();
    return;
  }
  const auto index = static_cast<std::size_t>(property - decl_->properties.data());
  std::lock_guard<std::mutex> lock(declsMutex_);
  if (!decls_[index]) decls_[index] = boost::make_shared<const TPropertyDecl>(decl_, property);
  out = decls_[index];
}

void TClass::CreateInstance(shared_ptr<ICIMInstance>& out, const TOptions&) {
  THostFaults::Call("ICIMClass::CreateInstance");
  out = boost::make_shared<TInstance>(host_, decl_);
}

void TClass::EnumerateInstances(TAddToVectorCallback<ICIMInstance>& callback, bool deep,
                                const TOptions&) {
  THostFaults::Call("ICIMClass::EnumerateInstances");
  host_->EnumerateInstances(decl_->name, deep, callback);
}

void TInstance::Commit(const TOptions&) {
  THostFaults::Call("ICIMInstance::Commit");
  if (committed_) {
    throw TTessilException(kStatusAlreadyCommitted, Path() + " is already committed");
  }
  host_->Commit(shared_from_this());
}

std::string TInstance::Path() const {
  std::vector<path::TKey> keys;
  for (std::size_t i = 0; i < values_.size(); ++i) {
    const TPropertyDeclaration& property = decl_->properties[i];
    if (!property.isKey) continue;
    path::TKey key;
    key.name = property.name;
    // An unset key counts as empty text, so that the path still names the instance.
    key.text = static_cast<std::string>(values_[i]);
    const ECIMType type = property.type;
    key.quoted = !(IsUnsigned(type) || IsSigned(type) || type == eCIMTypeBoolean ||
                   type == eCIMTypeReal32 || type == eCIMTypeReal64) ||
                 values_[i].IsNull();
    keys.push_back(key);
  }
  return path::Build(decl_->name, keys);
}

void TInstance::GetReference(TCIMReference& out, const TOptions&) {
  THostFaults::Call("ICIMInstance::GetReference");
  out = TCIMReference(Path());
}

void TInstance::GetProperty(shared_ptr<ICIMProperty>& out, const std::string& name,
                            const TOptions&) {
  THostFaults::Call("ICIMInstance::GetProperty");
  const int index = decl_->IndexOf(name);
  if (index < 0) {
    throw TTessilException(kStatusNotFound, decl_->name + " has no property " + name);
  }
  out = boost::make_shared<TProperty>(shared_from_this(), static_cast<std::size_t>(index));
}

void TInstance::SetPropertyValue(const std::string& name, const TCIMValue& value, const TOptions&) {
  THostFaults::Call("ICIMInstance::SetPropertyValue");
  const int index = decl_->IndexOf(name);
  if (index < 0) {
    throw TTessilException(kStatusNotFound, decl_->name + " has no property " + name);
  }
  if (committed_) {
    throw TTessilException(kStatusAlreadyCommitted,
                           "cannot change " + name + " of committed " + Path());
  }
  const TPropertyDeclaration& decl = decl_->properties[static_cast<std::size_t>(index)];
  TCIMValue& slot = values_[static_cast<std::size_t>(index)];
  if (value.IsNull()) {
    slot = value;  // null: unsets the property
    return;
  }
  // Built only for the exception: this runs for every property of every instance.
  const auto mismatch = [&] {
    return TTessilException(kStatusTypeMismatch,
                            decl_->name + "." + decl.name + " is " + decl.type.ToString() +
                                (decl.isArray ? "[]" : "") + ", the value " +
                                value.GetType().ToString() + (value.IsArray() ? "[]" : ""));
  };
  if (value.IsArray() && !decl.isArray) throw mismatch();
  if (!decl.isArray) {
    TCIMValue converted;
    if (!ConvertScalar(value, decl, host_->schema, converted)) throw mismatch();
    slot = std::move(converted);
    return;
  }
  // A scalar given to an array property is its one element: the instance fix-up sets ""
  // on every unset string property, string arrays included.
  const std::vector<TCIMValue> given =
      value.IsArray() ? value.GetElements() : std::vector<TCIMValue>{value};
  std::vector<TCIMValue> elements;
  for (const TCIMValue& element : given) {
    TCIMValue converted;
    if (!ConvertScalar(element, decl, host_->schema, converted)) throw mismatch();
    elements.push_back(converted);
  }
  slot = TCIMValue(decl.type, static_cast<unsigned int>(elements.size()), elements);
}

std::vector<TPropertyView> THost::ListProperties(const shared_ptr<ICIMInstance>& instance) {
  std::vector<TPropertyView> views;
  auto* own = dynamic_cast<TInstance*>(instance.get());
  if (own == nullptr) return views;
  const auto& properties = own->Declaration()->properties;
  for (std::size_t i = 0; i < properties.size(); ++i) {
    const TPropertyDeclaration& p = properties[i];
    views.push_back({p.name, own->Value(i), p.type, p.isArray, p.isKey, p.referenceClass});
  }
  return views;
}

}  // namespace NKestovaTessil20
