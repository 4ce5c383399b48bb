#include "collectors/software/product_instances.h"

#include <utility>

#include "common/constants.h"

namespace installedapps_col {

std::uint64_t BuildProductInstances(GetInfo& collector, const std::vector<TextRecord>& records,
                                    const std::string& className) {
  const NKestovaTessil20::TCIMValue systemId(NKestovaTessil20::TOSSpecific::GetMachineName());
  const NKestovaTessil20::TCIMValue collectionId{std::string()};
  std::uint64_t count = 0;
  for (const TextRecord& record : records) {
    PropertyMap properties;
    properties.reserve(record.size() + 2);
    collector.addCIMValues(properties, record);
    properties.emplace(kPropSystemID, systemId);
    properties.emplace(kPropCollectionID, collectionId);
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    collector.buildInstance(instance, std::move(properties), className);
    ++count;
  }
  return count;
}

}  // namespace installedapps_col
