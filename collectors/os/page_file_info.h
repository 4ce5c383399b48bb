// KestovaSG_PageFile: one instance per paging file, with its size in bytes.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "common/get_info.h"
#include "platform/types.h"

namespace installedapps_col {

class PageFileInfo : public GetInfo {
 public:
  explicit PageFileInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls);
  std::uint64_t getCIMInstances() override;

  // Page-file name -> total size in pages; the first entry for a name wins.
  using PageFileTable = std::map<std::string, std::size_t>;

  // From psapi's EnumPageFilesA, or else from ntdll's page-file information.
  void getPagefileInfo(platform::HMODULE psapi, PageFileTable& table);

 private:
  std::uint64_t buildCIMInstances(const std::string& className, const PageFileTable& table,
                                  std::size_t pageSize);
  void readFromKernel(PageFileTable& table);
};

}  // namespace installedapps_col
