#include "collectors/os/page_file_info.h"

#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "common/constants.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

using platform::System;

const std::string kFileSize = "FileSize";
const std::string kKernelPrefix = "\\??\\";
// The kernel is asked in whole 64 KiB steps.
constexpr platform::ULONG kBufferStep = 65536;
// The kernel's answer for a few page files is far below this; a machine that keeps
// asking for more is not believed.
constexpr platform::ULONG kBufferLimit = 64u * 1024 * 1024;
// Windows keeps at most 16 page files, each answered as a 32-byte record and a name of at
// most 65,534 bytes with its NUL: 17 steps hold the largest answer even when the kernel
// reports no length, and one more covers a page file added between two calls.
constexpr int kMaxAttempts = 18;

platform::BOOL recordPageFile(void* context, platform::ENUM_PAGE_FILE_INFORMATION* info,
                              const char* fileName) {
  auto* table = static_cast<PageFileInfo::PageFileTable*>(context);
  if (info != nullptr && fileName != nullptr) table->emplace(fileName, info->TotalSize);
  return platform::TRUE;
}

// Name of one kernel entry, kept within the buffer the kernel filled. The collector takes
// the maximum length as the length; on well-formed data what follows the name is its NUL,
// so the name is cut there.
std::string entryName(System& system, const platform::SYSTEM_PAGEFILE_INFORMATION& entry,
                      const unsigned char* buffer, std::size_t bufferSize) {
  const auto* name = reinterpret_cast<const unsigned char*>(entry.PageFileName.Buffer);
  if (name < buffer || name >= buffer + bufferSize) return std::string();
  std::size_t bytes = entry.PageFileName.MaximumLength;
  const std::size_t available = static_cast<std::size_t>(buffer + bufferSize - name);
  if (bytes > available) bytes = available;
  const int wideLength = static_cast<int>(bytes / sizeof(platform::WCHAR));
  if (wideLength == 0) return std::string();
  std::vector<platform::WCHAR> wide(static_cast<std::size_t>(wideLength));
  std::memcpy(wide.data(), name, wide.size() * sizeof(platform::WCHAR));
  const int size = system.WideCharToMultiByte(platform::CP_ACP, 0, wide.data(), wideLength, nullptr,
                                              0, nullptr, nullptr);
  if (size <= 0) return std::string();
  std::string narrow(static_cast<std::size_t>(size), '\0');
  system.WideCharToMultiByte(platform::CP_ACP, 0, wide.data(), wideLength, &narrow[0], size,
                             nullptr, nullptr);
  return narrow.substr(0, narrow.find('\0'));
}

}  // namespace

PageFileInfo::PageFileInfo(boost::shared_ptr<NKestovaTessil20::ICIMClass> cls)
    : GetInfo(std::move(cls)) {}

std::uint64_t PageFileInfo::getCIMInstances() {
  System& system = platform::Machine::Current().system();
  const std::string className = getClass()->GetName();
  platform::HMODULE psapi = system.LoadLibraryA("psapi.dll");
  if (psapi == nullptr) {
    m_log->systemErrorText(system.GetLastError());  // made, not logged
    return 0;
  }

  PageFileTable table;
  getPagefileInfo(psapi, table);

  std::size_t pageSize = 0;
  if (system.GetProcAddress(psapi, "GetPerformanceInfo") == nullptr) {
    m_log->systemErrorText(system.GetLastError());
    platform::SYSTEM_INFO info{};
    system.GetSystemInfo(&info);
    pageSize = info.dwPageSize;
  } else {
    platform::PERFORMANCE_INFORMATION info{};
    if (system.GetPerformanceInfo(&info, sizeof info)) {
      pageSize = info.PageSize;
    } else {
      m_log->systemErrorText(system.GetLastError());
    }
  }

  std::uint64_t count = 0;
  try {
    count = buildCIMInstances(className, table, pageSize);
  } catch (const NKestovaTessil20::TTessilException& e) {
    m_log->logInfo("PageFileInfo::buildCIMInstances Encountered an error " +
                   kErrorGeneratingInstances + " " + std::to_string(e.GetStatusCode().GetCode()));
  }
  system.FreeLibrary(psapi);
  return count;
}

std::uint64_t PageFileInfo::buildCIMInstances(const std::string& className,
                                              const PageFileTable& table, std::size_t pageSize) {
  std::uint64_t count = 0;
  for (const auto& pageFile : table) {
    PropertyMap properties;
    properties[kPropCreationClassName] = NKestovaTessil20::TCIMValue(kClassPageFile);
    properties[kPropName] = NKestovaTessil20::TCIMValue(pageFile.first);
    // A size that 64 bits cannot hold is left out, as an unknown one is, rather than wrapped.
    const unsigned long long pages = pageFile.second;
    const unsigned long long bytes =
        pageSize != 0 && pages <= ULLONG_MAX / pageSize ? pages * pageSize : 0;
    if (bytes != 0) properties[kFileSize] = NKestovaTessil20::TCIMValue(bytes);
    boost::shared_ptr<NKestovaTessil20::ICIMInstance> instance;
    buildInstance(instance, properties, className);
    ++count;
  }
  return count;
}

void PageFileInfo::getPagefileInfo(platform::HMODULE psapi, PageFileTable& table) {
  System& system = platform::Machine::Current().system();
  if (system.GetProcAddress(psapi, "EnumPageFilesA") != nullptr) {
    system.EnumPageFilesA(&recordPageFile, &table);
    return;
  }
  m_log->logInfo(
      "PageFileInfo::getPagefileInfo"
      "cannot retrieve EnumPageFilesA Function from psapi.dll.");
  readFromKernel(table);
}

void PageFileInfo::readFromKernel(PageFileTable& table) {
  System& system = platform::Machine::Current().system();
  platform::HMODULE ntdll = system.GetModuleHandleA("ntdll.dll");
  if (ntdll == nullptr || system.GetProcAddress(ntdll, "ZwQuerySystemInformation") == nullptr) {
    return;
  }

  // 8-byte units keep the entries (which hold pointers) aligned.
  std::unique_ptr<std::uint64_t[]> storage;
  platform::ULONG size = kBufferStep;
  platform::NTSTATUS status = platform::STATUS_INFO_LENGTH_MISMATCH;
  for (int attempt = 1;; ++attempt) {
    storage.reset(new (std::nothrow) std::uint64_t[size / sizeof(std::uint64_t)]);
    if (!storage) return;
    platform::ULONG returned = 0;
    status = system.ZwQuerySystemInformation(platform::SystemPageFileInformation, storage.get(),
                                             size, &returned);
    if (status != platform::STATUS_INFO_LENGTH_MISMATCH) break;
    // A short buffer's answer is the length needed: ask for that, in whole steps, at once;
    // one step more when the kernel reports no length beyond what it was given.
    if (attempt == kMaxAttempts || size > kBufferLimit - kBufferStep || returned > kBufferLimit)
      return;
    const platform::ULONG needed = returned > size ? returned : size + 1;
    size = (needed + kBufferStep - 1) / kBufferStep * kBufferStep;
  }
  if (status != platform::STATUS_SUCCESS) return;

  const auto* buffer = reinterpret_cast<const unsigned char*>(storage.get());
  std::size_t offset = 0;
  while (offset + sizeof(platform::SYSTEM_PAGEFILE_INFORMATION) <= size) {
    platform::SYSTEM_PAGEFILE_INFORMATION entry;
    std::memcpy(&entry, buffer + offset, sizeof entry);
    std::string name = entryName(system, entry, buffer, size);
    const std::string::size_type prefix = name.find(kKernelPrefix);
    if (prefix != std::string::npos) name = name.substr(prefix + kKernelPrefix.size());
    table.emplace(name, entry.TotalSize);
    if (entry.NextEntryOffset == 0) break;
    offset += entry.NextEntryOffset;
  }
}

}  // namespace installedapps_col
