// The instances of installed products and fixes, from their text records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/get_info.h"

namespace installedapps_col {

// Converts each record's texts to the class's declared types, adds SystemID (the machine's
// name) and an empty CollectionID where the record has none, and commits one instance per
// record through `collector`. Answers the number of instances; host errors propagate.
std::uint64_t BuildProductInstances(GetInfo& collector, const std::vector<TextRecord>& records,
                                    const std::string& className);

}  // namespace installedapps_col
