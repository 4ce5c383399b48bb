// The host's object-model interfaces as the plug-in sees them. The order of the virtual
// operations in each interface is the order of the host's interface tables: operations
// the host adds go after the ones the plug-in calls, never between them.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <string>
#include <vector>

#include "host/cim_value.h"
#include "host/export.h"

namespace NKestovaTessil20 {

using boost::shared_ptr;

// Call options: an ordered map; the plug-in always passes an empty one.
using TOptions = std::map<std::string, std::string>;

class ICIMClass;
class ICIMInstance;
class ICIMProperty;
class ICIMPropertyDecl;

// Receives the objects an enumeration reports.
template <class T>
class ICIMObjectCallback {
 public:
  virtual ~ICIMObjectCallback() = default;
  virtual void Report(const shared_ptr<T>& object) = 0;
};

// Appends every reported object to a vector that it refers to.
template <class T>
class TAddToVectorCallback : public ICIMObjectCallback<T> {
 public:
  explicit TAddToVectorCallback(std::vector<shared_ptr<T>>& target) : target_(target) {}
  void Report(const shared_ptr<T>& object) override { target_.push_back(object); }

 private:
  std::vector<shared_ptr<T>>& target_;
};

// Receives the names an enumeration reports.
class ICIMNameCallback {
 public:
  virtual ~ICIMNameCallback() = default;
  virtual void Report(const std::string& name) = 0;
};

// Appends every reported name to a vector that it refers to.
class TAddKeyNamesToVectorCallback : public ICIMNameCallback {
 public:
  explicit TAddKeyNamesToVectorCallback(std::vector<std::string>& target) : target_(target) {}
  void Report(const std::string& name) override { target_.push_back(name); }

 private:
  std::vector<std::string>& target_;
};

class ICIMNamespace {
 public:
  virtual ~ICIMNamespace() = default;
  // Throws TTessilException(kStatusNotFound) when the namespace has no such class.
  virtual void GetClass(shared_ptr<ICIMClass>& out, const std::string& className,
                        const TOptions& options) = 0;
  // Host operations.
  virtual std::string GetNamespaceName() const = 0;
  virtual void EnumerateClassNames(ICIMNameCallback& callback, const TOptions& options) = 0;
};

class ICIMClass {
 public:
  virtual ~ICIMClass() = default;
  virtual std::string GetName() = 0;
  virtual void GetNamespace(shared_ptr<ICIMNamespace>& out, const TOptions& options) = 0;
  virtual bool IsAssociation() = 0;
  // Reports every property the class declares or inherits, the inherited ones first.
  virtual void EnumeratePropertyNames(TAddKeyNamesToVectorCallback& callback,
                                      const TOptions& options) = 0;
  // `out` is null when the class declares no such property.
  virtual void GetPropertyDecl(shared_ptr<const ICIMPropertyDecl>& out, const std::string& name,
                               const TOptions& options) = 0;
  virtual void CreateInstance(shared_ptr<ICIMInstance>& out, const TOptions& options) = 0;
  // Reports the committed instances of the class and, when deep, of its subclasses.
  virtual void EnumerateInstances(TAddToVectorCallback<ICIMInstance>& callback, bool deep,
                                  const TOptions& options) = 0;
  // Host operations.
  virtual std::string GetSuperClassName() = 0;
};

class ICIMPropertyDecl {
 public:
  virtual ~ICIMPropertyDecl() = default;
  // The declared type; for an array, its element type.
  virtual void GetType(TCIMValue::TCIMType& out, const TOptions& options) const = 0;
  virtual bool IsArray(const TOptions& options) const = 0;
  // Host operations.
  virtual std::string GetName() const = 0;
  virtual bool IsKey() const = 0;
  // The class name a reference property points at; empty for other types.
  virtual std::string GetReferenceClass() const = 0;
};

class ICIMInstance {
 public:
  virtual ~ICIMInstance() = default;
  // Hands the finished instance to the host. Throws when called twice.
  virtual void Commit(const TOptions& options) = 0;
  virtual void GetReference(TCIMReference& out, const TOptions& options) = 0;
  // Throws TTessilException(kStatusNotFound) when the class declares no such property.
  virtual void GetProperty(shared_ptr<ICIMProperty>& out, const std::string& name,
                           const TOptions& options) = 0;
  // Throws TTessilException(kStatusTypeMismatch) for a value that does not fit the
  // declared type, kStatusNotFound for an undeclared name.
  virtual void SetPropertyValue(const std::string& name, const TCIMValue& value,
                                const TOptions& options) = 0;
  // Host operations.
  virtual std::string GetInstanceClassName() const = 0;
  virtual bool IsCommitted() const = 0;
};

class ICIMProperty {
 public:
  virtual ~ICIMProperty() = default;
  virtual TCIMValue::TCIMType GetType() = 0;
  // Null while the property is unset.
  virtual TCIMValue GetValue() = 0;
  // Host operations.
  virtual std::string GetName() = 0;
  virtual bool IsArray() = 0;
};

class ILogger {
 public:
  virtual ~ILogger() = default;
  // Levels 0 (error) to 4 (debug).
  virtual void Log(unsigned int level, const std::string& message) = 0;
};

}  // namespace NKestovaTessil20
