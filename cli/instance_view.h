// A printable snapshot of committed instances: what every output format walks.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/tessil.h"

namespace iac {

struct PropertyView {
  std::string name;
  NKestovaTessil20::TCIMValue value;  // null when unset
  NKestovaTessil20::ECIMType type = NKestovaTessil20::eCIMTypeNone;
  bool isArray = false;
  bool isKey = false;
};

struct InstanceView {
  std::string className;
  std::string path;
  std::vector<PropertyView> properties;  // declaration order, inherited first
};

struct ClassView {
  std::string name;
  std::vector<InstanceView> instances;
};

// Text as the machine stores it (its ANSI code page) to UTF-8 for printing.
using TextEncoder = std::function<std::string(const std::string&)>;

// A class's properties in declaration order (inherited first), each with its declared
// type and no value: what every instance of the class is described against.
std::vector<PropertyView> describeClass(NKestovaTessil20::ICIMNamespace& ns,
                                        const std::string& className);

// `declared` is describeClass of the instance's class: asked once per class rather than
// for every instance, as a run can hold hundreds of thousands.
InstanceView describeInstance(const std::vector<PropertyView>& declared,
                              NKestovaTessil20::ICIMInstance& instance);

}  // namespace iac
