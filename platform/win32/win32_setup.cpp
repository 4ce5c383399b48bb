// INF files (setupapi) and version resources (version.dll) of the live machine.
#include "platform/setup.h"
#include "platform/win32/live_families.h"

namespace {
// Our constants, taken before <windows.h> turns the same names into macros.
namespace ours {
constexpr platform::DWORD kInfStyleWin4 = platform::INF_STYLE_WIN4;
constexpr platform::LONG kErrorLineNotFound = platform::ERROR_LINE_NOT_FOUND;
constexpr platform::LONG kErrorSectionNotFound = platform::ERROR_SECTION_NOT_FOUND;
constexpr platform::LONG kErrorResourceTypeNotFound = platform::ERROR_RESOURCE_TYPE_NOT_FOUND;
}  // namespace ours
}  // namespace

// Windows last: several of our names are macros there.
#include <windows.h>

#include <setupapi.h>
#include <winver.h>

#include "platform/win32/win32_casts.h"

static_assert(ours::kInfStyleWin4 == INF_STYLE_WIN4, "INF style");
static_assert(ours::kErrorLineNotFound == static_cast<LONG>(ERROR_LINE_NOT_FOUND), "error");
static_assert(ours::kErrorSectionNotFound == static_cast<LONG>(ERROR_SECTION_NOT_FOUND), "error");
static_assert(ours::kErrorResourceTypeNotFound == ERROR_RESOURCE_TYPE_NOT_FOUND, "error");
static_assert(sizeof(platform::INFCONTEXT) == sizeof(::INFCONTEXT), "INFCONTEXT");
static_assert(offsetof(platform::INFCONTEXT, CurrentInf) == offsetof(::INFCONTEXT, CurrentInf),
              "INFCONTEXT::CurrentInf");
static_assert(offsetof(platform::INFCONTEXT, Section) == offsetof(::INFCONTEXT, Section),
              "INFCONTEXT::Section");
static_assert(offsetof(platform::INFCONTEXT, Line) == offsetof(::INFCONTEXT, Line),
              "INFCONTEXT::Line");

namespace platform::win32 {
namespace {

::PINFCONTEXT ToWin(INFCONTEXT* context) {
  return reinterpret_cast<::PINFCONTEXT>(context);
}

class LiveSetup final : public Setup {
 public:
  HINF SetupOpenInfFileA(const char* fileName, const char* infClass, DWORD infStyle,
                         UINT* errorLine) override {
    return ::SetupOpenInfFileA(fileName, infClass, infStyle, errorLine);
  }
  void SetupCloseInfFile(HINF inf) override { ::SetupCloseInfFile(inf); }
  BOOL SetupFindFirstLineA(HINF inf, const char* section, const char* key,
                           INFCONTEXT* context) override {
    return ::SetupFindFirstLineA(inf, section, key, ToWin(context));
  }
  LONG SetupGetLineCountA(HINF inf, const char* section) override {
    return ::SetupGetLineCountA(inf, section);
  }
  BOOL SetupGetLineByIndexA(HINF inf, const char* section, DWORD index,
                            INFCONTEXT* context) override {
    return ::SetupGetLineByIndexA(inf, section, index, ToWin(context));
  }
  BOOL SetupGetStringFieldA(INFCONTEXT* context, DWORD fieldIndex, char* buffer, DWORD bufferSize,
                            DWORD* requiredSize) override {
    return ::SetupGetStringFieldA(ToWin(context), fieldIndex, buffer, bufferSize,
                                  As<::DWORD>(requiredSize));
  }
  BOOL SetupGetLineTextA(INFCONTEXT* context, HINF inf, const char* section, const char* key,
                         char* buffer, DWORD bufferSize, DWORD* requiredSize) override {
    return ::SetupGetLineTextA(ToWin(context), inf, section, key, buffer, bufferSize,
                               As<::DWORD>(requiredSize));
  }

  DWORD GetFileVersionInfoSizeA(const char* fileName, DWORD* handle) override {
    return ::GetFileVersionInfoSizeA(fileName, As<::DWORD>(handle));
  }
  BOOL GetFileVersionInfoA(const char* fileName, DWORD handle, DWORD length, void* data) override {
    return ::GetFileVersionInfoA(fileName, handle, length, data);
  }
  BOOL VerQueryValueA(const void* block, const char* subBlock, void** buffer,
                      UINT* length) override {
    return ::VerQueryValueA(block, subBlock, buffer, length);
  }
};

}  // namespace

std::unique_ptr<Setup> MakeLiveSetup() {
  return std::make_unique<LiveSetup>();
}

}  // namespace platform::win32
