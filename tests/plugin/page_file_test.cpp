// Page files through psapi, and through the kernel's page-file information when psapi
// cannot enumerate them.
#include <cstring>
#include <set>

#include "plugin/frame_fixture.h"

namespace {

using platform::ULONG;

struct KernelEntry {
  std::u16string name;
  ULONG pages;
};

// Lays entries out as the kernel does: 32-byte records, each name right after its record,
// 8-byte aligned, names pointing into the caller's buffer.
platform::NTSTATUS writeEntries(const std::vector<KernelEntry>& entries, void* buffer, ULONG length,
                                ULONG* returned) {
  std::size_t needed = 0;
  for (const auto& e : entries) needed += (32 + (e.name.size() + 1) * 2 + 7) / 8 * 8;
  if (returned) *returned = static_cast<ULONG>(needed);
  if (needed > length) return platform::STATUS_INFO_LENGTH_MISMATCH;
  auto* base = static_cast<unsigned char*>(buffer);
  std::size_t offset = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const std::size_t size = (32 + (entries[i].name.size() + 1) * 2 + 7) / 8 * 8;
    platform::SYSTEM_PAGEFILE_INFORMATION record{};
    record.NextEntryOffset = i + 1 < entries.size() ? static_cast<ULONG>(size) : 0;
    record.TotalSize = entries[i].pages;
    auto* name = reinterpret_cast<platform::WCHAR*>(base + offset + 32);
    std::memcpy(name, entries[i].name.c_str(), (entries[i].name.size() + 1) * 2);
    record.PageFileName.Length = static_cast<platform::USHORT>(entries[i].name.size() * 2);
    record.PageFileName.MaximumLength =
        static_cast<platform::USHORT>(record.PageFileName.Length + 2);
    record.PageFileName.Buffer = name;
    std::memcpy(base + offset, &record, sizeof record);
    offset += size;
  }
  return platform::STATUS_SUCCESS;
}

class PageFileTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    present = {"psapi.dll", "psapi.dll!EnumPageFilesA", "psapi.dll!GetPerformanceInfo", "ntdll.dll",
               "ntdll.dll!ZwQuerySystemInformation"};
    machine->fake.has = [this](const std::string& name) { return present.count(name) != 0; };
    machine->fake.performanceInfo = [](platform::PERFORMANCE_INFORMATION* info) {
      info->PageSize = 4096;
      return platform::TRUE;
    };
    machine->fake.enumPageFiles = [this](platform::PENUM_PAGE_FILE_CALLBACKA callback,
                                         void* context) {
      for (const auto& file : psapiFiles) {
        platform::ENUM_PAGE_FILE_INFORMATION info{};
        info.cb = sizeof info;
        info.TotalSize = file.second;
        if (!callback(context, &info, file.first.c_str())) break;
      }
      return platform::TRUE;
    };
  }

  // (Name, FileSize) of every committed page file, in commit order.
  std::vector<std::pair<std::string, std::string>> collect() {
    host().Query({"KestovaSG_PageFile"});
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& instance : host().GetInstances("KestovaSG_PageFile", false)) {
      EXPECT_EQ(property(instance, "CreationClassName"), "KestovaSG_PageFile");
      out.emplace_back(property(instance, "Name"), property(instance, "FileSize"));
    }
    return out;
  }

  std::set<std::string> present;
  std::vector<std::pair<std::string, std::size_t>> psapiFiles;
};

using Files = std::vector<std::pair<std::string, std::string>>;

TEST_F(PageFileTest, ReportedInNameOrderWithBytes) {
  psapiFiles = {{"D:\\pagefile.sys", 262144},
                {"C:\\pagefile.sys", 131072},
                {"D:\\pagefile.sys", 5}};  // a repeated name keeps its first size
  EXPECT_EQ(collect(),
            (Files{{"C:\\pagefile.sys", "536870912"}, {"D:\\pagefile.sys", "1073741824"}}));
}

TEST_F(PageFileTest, PageSizeFromSystemInfoWhenPerformanceInfoIsMissing) {
  present.erase("psapi.dll!GetPerformanceInfo");
  machine->fake.pageSize = 8192;
  psapiFiles = {{"C:\\pagefile.sys", 2}};
  EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", "16384"}}));
}

TEST_F(PageFileTest, NoSizeWhenPerformanceInfoFailsOrTheFileIsEmpty) {
  psapiFiles = {{"C:\\pagefile.sys", 0}};
  EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", "<unset>"}}));
  machine->fake.performanceInfo = [](platform::PERFORMANCE_INFORMATION*) {
    return platform::FALSE;
  };
  psapiFiles = {{"C:\\pagefile.sys", 10}};
  EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", "<unset>"}}));
}

TEST_F(PageFileTest, NoPsapiNoInstancesNoMessages) {
  present.erase("psapi.dll");
  psapiFiles = {{"C:\\pagefile.sys", 10}};
  EXPECT_TRUE(collect().empty());
  for (const auto& record : host().GetLog()) {
    EXPECT_EQ(record.message.find("PageFileInfo"), std::string::npos) << record.message;
  }
}

TEST_F(PageFileTest, KernelFallbackStripsTheObjectPrefix) {
  present.erase("psapi.dll!EnumPageFilesA");
  machine->fake.pageFileInformation = [](void* buffer, ULONG length, ULONG* returned) {
    return writeEntries({{u"\\??\\D:\\pagefile.sys", 10},
                         {u"\\??\\C:\\pagefile.sys", 262144},
                         {u"E:\\plain.sys", 1}},
                        buffer, length, returned);
  };
  EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", "1073741824"},
                              {"D:\\pagefile.sys", "40960"},
                              {"E:\\plain.sys", "4096"}}));
  EXPECT_EQ(messages(3).front(),
            "PageFileInfo::getPagefileInfocannot retrieve EnumPageFilesA Function from psapi.dll.");
}

TEST_F(PageFileTest, KernelFallbackGrowsTheBufferBy64KiB) {
  present.erase("psapi.dll!EnumPageFilesA");
  std::vector<ULONG> lengths;
  machine->fake.pageFileInformation = [&lengths](void* buffer, ULONG length, ULONG* returned) {
    lengths.push_back(length);
    if (length < 3 * 65536) return platform::STATUS_INFO_LENGTH_MISMATCH;
    return writeEntries({{u"\\??\\C:\\pagefile.sys", 1}}, buffer, length, returned);
  };
  EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", "4096"}}));
  EXPECT_EQ(lengths, (std::vector<ULONG>{65536, 131072, 196608}));
}

TEST_F(PageFileTest, KernelFailureOrNoKernelFunctionLeavesNoInstances) {
  present.erase("psapi.dll!EnumPageFilesA");
  machine->fake.pageFileInformation = [](void*, ULONG, ULONG*) {
    return static_cast<platform::NTSTATUS>(0xC0000022u);
  };
  EXPECT_TRUE(collect().empty());
  present.erase("ntdll.dll!ZwQuerySystemInformation");
  EXPECT_TRUE(collect().empty());
  int psapiMessages = 0;
  for (const std::string& message : messages(3)) {
    psapiMessages += message.find("EnumPageFilesA") != std::string::npos;
  }
  EXPECT_EQ(psapiMessages, 2);
}

TEST_F(PageFileTest, HostileKernelAnswersStayInBounds) {
  present.erase("psapi.dll!EnumPageFilesA");
  machine->fake.pageFileInformation = [](void* buffer, ULONG length, ULONG* returned) {
    writeEntries({{u"\\??\\C:\\pagefile.sys", 1}, {u"D:\\x", 1}}, buffer, length, returned);
    auto* first = static_cast<platform::SYSTEM_PAGEFILE_INFORMATION*>(buffer);
    first->PageFileName.MaximumLength = 0xFFFF;  // runs past the buffer
    auto* second = reinterpret_cast<platform::SYSTEM_PAGEFILE_INFORMATION*>(
        static_cast<char*>(buffer) + first->NextEntryOffset);
    second->PageFileName.Buffer = reinterpret_cast<platform::WCHAR*>(&length);  // outside
    second->NextEntryOffset = 0x7FFFFFF0;                                       // far past the end
    return platform::STATUS_SUCCESS;
  };
  const Files files = collect();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].first, "");
  EXPECT_EQ(files[1].first, "C:\\pagefile.sys");
}

}  // namespace
