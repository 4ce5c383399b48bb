// The collector base: the class handle, the two entry points the dispatcher calls, and
// the one way every collector turns a property map into a committed host instance.
#pragma once

#include <boost/container/flat_map.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/log_message.h"
#include "host/tessil.h"

namespace installedapps_col {

// Sorted by name, as the collectors build and read them; flat, as one is built for every
// instance and holds a handful of entries.
using PropertyMap = boost::container::flat_map<std::string, NKestovaTessil20::TCIMValue>;
using TextRecord = boost::container::flat_map<std::string, std::string>;

// Text to a value of the type a class declares for a property. For collectors that are
// not GetInfo subclasses; GetInfo offers the same through its own handle.
class CIMValueBuilder {
 public:
  explicit CIMValueBuilder(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  virtual ~CIMValueBuilder();

  // Leaves `result` null when there is no class, the class does not declare the property,
  // or the text does not convert (that is logged).
  void getCIMValueForProperty(NKestovaTessil20::TCIMValue& result, const std::string& propertyName,
                              const std::string& text);

 private:
  boost::shared_ptr<NKestovaTessil20::ICIMClass> m_class;
  LogMessage* m_log;
};

class GetInfo {
 public:
  explicit GetInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  virtual ~GetInfo();

  // Plain collectors override this one.
  virtual std::uint64_t getCIMInstances();
  // Association collectors override this one.
  virtual std::uint64_t getCIMAssociations(boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns);

  // Throws TTessilException(7) when the collector holds no class.
  boost::shared_ptr<NKestovaTessil20::ICIMClass> getClass() const;

  // Creates an instance of the kept class, gives unset string properties "", sets every
  // non-null value of `properties` and commits the instance to the host.
  void buildInstance(boost::shared_ptr<NKestovaTessil20::ICIMInstance>& out, PropertyMap properties,
                     std::string className);

  // Sets "" on every declared string property that `properties` does not name; answers
  // one entry per property so fixed.
  std::vector<std::string>& fixUpInstance(
      std::vector<std::string>& fixed, boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance,
      const PropertyMap& properties);

  static std::string toString(int value);

  void getCIMValueForProperty(NKestovaTessil20::TCIMValue& result, const std::string& propertyName,
                              const std::string& text);
  // Each (property, text) pair of `record` into `properties`, as getCIMValueForProperty
  // makes it (null where the text does not convert).
  void addCIMValues(PropertyMap& properties, const TextRecord& record);

  NKestovaTessil20::TCIMDateTime getCIMDateTime(unsigned int secondsSince1970);
  NKestovaTessil20::TCIMDateTime getCIMDateTime(const std::string& text);

 protected:
  LogMessage* m_log;
  boost::shared_ptr<NKestovaTessil20::ICIMClass> m_class;

 private:
  std::vector<std::string> m_declaredNames;  // fixUpInstance's list, reused
};

}  // namespace installedapps_col
