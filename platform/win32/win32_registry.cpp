// Registry of the live machine: advapi32, handles and views as Windows gives them.
#include "platform/registry.h"
#include "platform/win32/live_families.h"

#include <cstdint>

namespace {
// Our constants, taken before <windows.h> turns the same names into macros.
namespace ours {
constexpr platform::LONG kErrorSuccess = platform::ERROR_SUCCESS;
constexpr platform::LONG kErrorFileNotFound = platform::ERROR_FILE_NOT_FOUND;
constexpr platform::LONG kErrorMoreData = platform::ERROR_MORE_DATA;
constexpr platform::LONG kErrorNoMoreItems = platform::ERROR_NO_MORE_ITEMS;
constexpr platform::REGSAM kKeyQueryValue = platform::KEY_QUERY_VALUE;
constexpr platform::REGSAM kKeyEnumerateSubKeys = platform::KEY_ENUMERATE_SUB_KEYS;
constexpr platform::REGSAM kKeyRead = platform::KEY_READ;
constexpr platform::REGSAM kKeyWow64Key64 = platform::KEY_WOW64_64KEY;
constexpr platform::REGSAM kKeyWow64Key32 = platform::KEY_WOW64_32KEY;
constexpr platform::DWORD kRegNone = platform::REG_NONE;
constexpr platform::DWORD kRegSz = platform::REG_SZ;
constexpr platform::DWORD kRegExpandSz = platform::REG_EXPAND_SZ;
constexpr platform::DWORD kRegBinary = platform::REG_BINARY;
constexpr platform::DWORD kRegDword = platform::REG_DWORD;
constexpr platform::DWORD kRegMultiSz = platform::REG_MULTI_SZ;
constexpr platform::DWORD kRegQword = platform::REG_QWORD;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there.
#include <windows.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kErrorSuccess == ERROR_SUCCESS, "error code");
static_assert(ours::kErrorFileNotFound == ERROR_FILE_NOT_FOUND, "error code");
static_assert(ours::kErrorMoreData == ERROR_MORE_DATA, "error code");
static_assert(ours::kErrorNoMoreItems == ERROR_NO_MORE_ITEMS, "error code");
static_assert(ours::kKeyQueryValue == KEY_QUERY_VALUE, "access mask");
static_assert(ours::kKeyEnumerateSubKeys == KEY_ENUMERATE_SUB_KEYS, "access mask");
static_assert(ours::kKeyRead == KEY_READ, "access mask");
static_assert(ours::kKeyWow64Key64 == KEY_WOW64_64KEY, "access mask");
static_assert(ours::kKeyWow64Key32 == KEY_WOW64_32KEY, "access mask");
static_assert(ours::kRegNone == REG_NONE && ours::kRegSz == REG_SZ, "value type");
static_assert(ours::kRegExpandSz == REG_EXPAND_SZ && ours::kRegBinary == REG_BINARY, "value type");
static_assert(ours::kRegDword == REG_DWORD && ours::kRegMultiSz == REG_MULTI_SZ, "value type");
static_assert(ours::kRegQword == REG_QWORD, "value type");
static_assert(sizeof(platform::FILETIME) == sizeof(::FILETIME), "FILETIME");

namespace platform::win32 {
namespace {

// Our predefined roots hold the 32-bit numbers (0x80000002 for HKLM); Windows' are those
// numbers sign-extended to pointer width. Opened keys are small handles and pass as they
// are.
::HKEY ToWin(HKEY key) {
  const auto value = reinterpret_cast<std::uintptr_t>(key);
  if (value >= 0x80000000u && value <= 0xFFFFFFFFu) {
    return reinterpret_cast<::HKEY>(static_cast<::LONG_PTR>(static_cast<::LONG>(value)));
  }
  return reinterpret_cast<::HKEY>(key);
}

class LiveRegistry final : public Registry {
 public:
  LONG RegOpenKeyExA(HKEY root, const char* subKey, DWORD options, REGSAM sam,
                     HKEY* result) override {
    return ::RegOpenKeyExA(ToWin(root), subKey, options, sam, reinterpret_cast<::HKEY*>(result));
  }
  LONG RegCloseKey(HKEY key) override { return ::RegCloseKey(ToWin(key)); }
  LONG RegQueryInfoKeyA(HKEY key, char* className, DWORD* classLength, DWORD* reserved,
                        DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* maxClassLength,
                        DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength,
                        DWORD* securityDescriptor, FILETIME* lastWriteTime) override {
    return ::RegQueryInfoKeyA(
        ToWin(key), className, As<::DWORD>(classLength), As<::DWORD>(reserved),
        As<::DWORD>(subKeys), As<::DWORD>(maxSubKeyLength), As<::DWORD>(maxClassLength),
        As<::DWORD>(values), As<::DWORD>(maxValueNameLength), As<::DWORD>(maxValueLength),
        As<::DWORD>(securityDescriptor), As<::FILETIME>(lastWriteTime));
  }
  LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                     char* className, DWORD* classLength, FILETIME* lastWriteTime) override {
    return ::RegEnumKeyExA(ToWin(key), index, name, As<::DWORD>(nameLength), As<::DWORD>(reserved),
                           className, As<::DWORD>(classLength), As<::FILETIME>(lastWriteTime));
  }
  LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                     DWORD* type, BYTE* data, DWORD* dataLength) override {
    return ::RegEnumValueA(ToWin(key), index, name, As<::DWORD>(nameLength), As<::DWORD>(reserved),
                           As<::DWORD>(type), data, As<::DWORD>(dataLength));
  }
  LONG RegQueryValueExA(HKEY key, const char* valueName, DWORD* reserved, DWORD* type, BYTE* data,
                        DWORD* dataLength) override {
    return ::RegQueryValueExA(ToWin(key), valueName, As<::DWORD>(reserved), As<::DWORD>(type), data,
                              As<::DWORD>(dataLength));
  }
};

}  // namespace

std::unique_ptr<Registry> MakeLiveRegistry() {
  return std::make_unique<LiveRegistry>();
}

}  // namespace platform::win32
