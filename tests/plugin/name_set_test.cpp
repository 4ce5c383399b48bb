// The set of delivered product names answers as std::set would, through its growth.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "collectors/software/name_set.h"

namespace {

using installedapps_col::NameSet;

TEST(NameSet, AnswersAsAnOrderedSetThroughGrowth) {
  struct Case {
    const char* name;
    std::size_t reserved;  // before the first name
  } cases[] = {{"grows from empty", 0}, {"reserved too small", 5}, {"reserved for all", 30000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NameSet names;
    names.reserve(c.reserved);
    std::set<std::string> reference;
    // Every third name repeats one of the names before it; "" is a name like any other.
    for (unsigned i = 0; i < 30000; ++i) {
      const std::string name =
          i % 3 == 2 ? "App " + std::to_string(i * 7919 % (i + 1)) : "App " + std::to_string(i);
      ASSERT_EQ(names.insert(name), reference.insert(name).second) << name;
    }
    EXPECT_EQ(names.insert(""), true);
    EXPECT_EQ(names.insert(""), false);
    EXPECT_EQ(names.size(), reference.size() + 1);
  }
}

}  // namespace
