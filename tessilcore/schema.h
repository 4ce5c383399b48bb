// The class schema: declarations read from MOF text. Internal.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <string>
#include <vector>

#include "host/cim_value.h"

namespace NKestovaTessil20 {

struct TPropertyDeclaration {
  std::string name;
  TCIMValue::TCIMType type;
  bool isArray = false;
  bool isKey = false;
  std::string referenceClass;  // REF properties only
  std::string declaredIn;      // class that declares it
};

struct TClassDeclaration {
  std::string name;
  std::string superName;
  bool association = false;
  std::string provider;  // Provider("...") qualifier of this very class; not inherited
  std::string description;
  // Every property, the inherited ones first (an override keeps its ancestor's place).
  std::vector<TPropertyDeclaration> properties;
  std::string file;
  int line = 0;

  const TPropertyDeclaration* Find(const std::string& property) const;
  int IndexOf(const std::string& property) const;  // -1 when not declared
};

using TClassPtr = boost::shared_ptr<const TClassDeclaration>;

class TSchema {
 public:
  // Adds the classes of one MOF text, all or none. Throws TTessilException(12) whose detail
  // is "file:line: message". References to classes that are not known by the end of the
  // text are an error unless `deferReferences` (several files loaded as one set; then call
  // CheckReferences after the last one).
  void Load(const std::string& fileName, const std::string& text, bool deferReferences);
  void CheckReferences();

  TClassPtr Find(const std::string& className) const;  // null when unknown; ignores case
  const std::vector<TClassPtr>& Classes() const { return classes_; }  // declaration order
  // True when `className` is `baseName` or derives from it.
  bool IsA(const std::string& className, const std::string& baseName) const;

 private:
  struct TPendingReference {
    std::string className;
    std::string file;
    int line;
  };
  std::vector<TPendingReference> pending_;  // REF targets still to be checked
  std::vector<TClassPtr> classes_;
  std::map<std::string, TClassPtr> byLowerName_;
};

}  // namespace NKestovaTessil20
