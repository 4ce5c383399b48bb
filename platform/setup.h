// Setup-information files (setupapi) and version resources (version.dll).
#pragma once

#include "platform/types.h"

namespace platform {

using HINF = void*;
constexpr DWORD INF_STYLE_WIN4 = 0x00000002;

struct INFCONTEXT {
  void* Inf;
  void* CurrentInf;
  UINT Section;
  UINT Line;
};

class Setup {
 public:
  virtual ~Setup() = default;
  // INVALID_HANDLE_VALUE when the file cannot be opened (last error set).
  virtual HINF SetupOpenInfFileA(const char* fileName, const char* infClass, DWORD infStyle,
                                 UINT* errorLine) = 0;
  virtual void SetupCloseInfFile(HINF inf) = 0;
  // `key` null: the section's first line.
  virtual BOOL SetupFindFirstLineA(HINF inf, const char* section, const char* key,
                                   INFCONTEXT* context) = 0;
  virtual LONG SetupGetLineCountA(HINF inf, const char* section) = 0;
  virtual BOOL SetupGetLineByIndexA(HINF inf, const char* section, DWORD index,
                                    INFCONTEXT* context) = 0;
  // Field 0 is the key; fields count from 1. `requiredSize` in characters with the NUL.
  virtual BOOL SetupGetStringFieldA(INFCONTEXT* context, DWORD fieldIndex, char* buffer,
                                    DWORD bufferSize, DWORD* requiredSize) = 0;
  // With `context` null, the line is looked up by inf/section/key.
  virtual BOOL SetupGetLineTextA(INFCONTEXT* context, HINF inf, const char* section,
                                 const char* key, char* buffer, DWORD bufferSize,
                                 DWORD* requiredSize) = 0;

  virtual DWORD GetFileVersionInfoSizeA(const char* fileName, DWORD* handle) = 0;
  virtual BOOL GetFileVersionInfoA(const char* fileName, DWORD handle, DWORD length,
                                   void* data) = 0;
  // `buffer` points into `block`.
  virtual BOOL VerQueryValueA(const void* block, const char* subBlock, void** buffer,
                              UINT* length) = 0;
};

}  // namespace platform
