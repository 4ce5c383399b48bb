// Page files through psapi, and through the kernel's page-file information when psapi
// cannot enumerate them.
#include <cstring>
#include <functional>
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

TEST_F(PageFileTest, SizeThat64BitsCannotHoldIsLeftOut) {
  struct Case {
    std::size_t pages, pageSize;
    const char* fileSize;
  };
  const Case cases[] = {
      {3, std::size_t{1} << 63, "<unset>"},
      {2, std::size_t{1} << 63, "<unset>"},  // wraps to exactly 0
      {1, std::size_t{1} << 63, "9223372036854775808"},
      {std::size_t{1} << 51, 8192, "<unset>"},
      {(std::size_t{1} << 51) - 1, 8192, "18446744073709543424"},
      {0xFFFFFFFF, 4096, "17592186040320"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.pages) + " x " + std::to_string(c.pageSize));
    machine->fake.performanceInfo = [&c](platform::PERFORMANCE_INFORMATION* info) {
      info->PageSize = c.pageSize;
      return platform::TRUE;
    };
    psapiFiles = {{"C:\\pagefile.sys", c.pages}};
    EXPECT_EQ(collect(), (Files{{"C:\\pagefile.sys", c.fileSize}}));
  }
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

// The kernel is asked in 64 KiB steps: at once for the length a short buffer's answer
// reports, one step more when it reports none that helps, and never past what Windows can
// answer or a kernel that will not be satisfied.
TEST_F(PageFileTest, KernelFallbackAsksForTheLengthNeeded) {
  present.erase("psapi.dll!EnumPageFilesA");
  constexpr ULONG kStep = 65536;
  constexpr ULONG kNever = 0xFFFFFFFF;
  auto steps = [](ULONG first, ULONG last) {
    std::vector<ULONG> lengths;
    for (ULONG n = first; n <= last; ++n) lengths.push_back(n * kStep);
    return lengths;
  };
  struct Case {
    const char* what;
    std::function<ULONG(ULONG length)> need;
    std::function<ULONG(ULONG length, ULONG need)> reported;
    std::vector<ULONG> lengths;
  };
  const auto exact = [](ULONG, ULONG need) { return need; };
  const auto none = [](ULONG, ULONG) { return ULONG{0}; };
  const Case cases[] = {
      {"no length", [](ULONG) { return 3 * kStep; }, none, steps(1, 3)},
      {"the length needed", [](ULONG) { return ULONG{200000}; }, exact, {kStep, 4 * kStep}},
      {"less than it was given", [](ULONG) { return ULONG{140000}; },
       [](ULONG, ULONG) { return ULONG{10}; }, steps(1, 3)},
      // 16 page files, each a record and a name of 32,766 units with its NUL, 8-byte aligned.
      {"the largest answer", [](ULONG) { return ULONG{16 * 65568}; }, exact, {kStep, 17 * kStep}},
      {"more than is believed", [](ULONG) { return kNever; }, exact, {kStep}},
      {"never enough, no length", [](ULONG) { return kNever; }, none, steps(1, 18)},
      {"a page file more on every call", [](ULONG length) { return length + 1; }, exact,
       steps(1, 18)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<ULONG> lengths;
    machine->fake.pageFileInformation = [&](void* buffer, ULONG length, ULONG* returned) {
      lengths.push_back(length);
      const ULONG need = c.need(length);
      if (length < need) {
        *returned = c.reported(length, need);
        return platform::STATUS_INFO_LENGTH_MISMATCH;
      }
      return writeEntries({{u"\\??\\C:\\pagefile.sys", 1}}, buffer, length, returned);
    };
    const Files files = collect();
    EXPECT_EQ(lengths, c.lengths);
    EXPECT_EQ(files.size(), c.need(c.lengths.back()) <= c.lengths.back() ? 1u : 0u);
  }
}

// The recorded kernel answers as Windows does, with the length needed: 16 page files with
// 32,000-character names take two calls, not one per 64 KiB.
TEST_F(PageFileTest, KernelFallbackOnLongRecordedNames) {
  present.erase("psapi.dll!EnumPageFilesA");
  std::string pageFiles;
  for (int i = 0; i < 16; ++i) {
    pageFiles += std::string(i ? "," : "") + R"({"name": "C:\\p)" + std::to_string(i) +
                 R"(.sys", "kernelName": "\\??\\C:\\)" + std::string(32000, 'x') +
                 std::to_string(i) + R"(", "totalSize": 1})";
  }
  auto recorded = platform::recorded::RecordedMachine::FromFiles(
      {{"machine.json",
        R"({"system": {"pageFiles": [)" + pageFiles + R"(], "ntQuerySystemInformation": true}})"}});
  std::vector<ULONG> lengths;
  machine->fake.pageFileInformation = [&](void* buffer, ULONG length, ULONG* returned) {
    lengths.push_back(length);
    return recorded->system().ZwQuerySystemInformation(platform::SystemPageFileInformation, buffer,
                                                       length, returned);
  };
  const Files files = collect();
  ASSERT_EQ(files.size(), 16u);
  EXPECT_EQ(files[0].first, "C:\\" + std::string(32000, 'x') + "0");
  EXPECT_EQ(lengths, (std::vector<ULONG>{65536, 16 * 65536}));
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
