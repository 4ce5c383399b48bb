// Performance data helper (pdh.dll).
#pragma once

#include "platform/types.h"

namespace platform {

using PDH_HQUERY = struct PDH_HQUERY__*;
using PDH_HCOUNTER = struct PDH_HCOUNTER__*;

constexpr PDH_STATUS PDH_CSTATUS_VALID_DATA = 0;
constexpr PDH_STATUS PDH_CSTATUS_NEW_DATA = 1;
constexpr PDH_STATUS PDH_CSTATUS_NO_MACHINE = static_cast<PDH_STATUS>(0x800007D0u);
constexpr PDH_STATUS PDH_CSTATUS_NO_INSTANCE = static_cast<PDH_STATUS>(0x800007D1u);
constexpr PDH_STATUS PDH_MORE_DATA = static_cast<PDH_STATUS>(0x800007D2u);
constexpr PDH_STATUS PDH_CSTATUS_NO_OBJECT = static_cast<PDH_STATUS>(0xC0000BB8u);
constexpr PDH_STATUS PDH_CSTATUS_NO_COUNTER = static_cast<PDH_STATUS>(0xC0000BB9u);
constexpr PDH_STATUS PDH_CSTATUS_INVALID_DATA = static_cast<PDH_STATUS>(0xC0000BBAu);
constexpr PDH_STATUS PDH_MEMORY_ALLOCATION_FAILURE = static_cast<PDH_STATUS>(0xC0000BBBu);
constexpr PDH_STATUS PDH_INVALID_HANDLE = static_cast<PDH_STATUS>(0xC0000BBCu);
constexpr PDH_STATUS PDH_INVALID_ARGUMENT = static_cast<PDH_STATUS>(0xC0000BBDu);
constexpr PDH_STATUS PDH_CSTATUS_BAD_COUNTERNAME = static_cast<PDH_STATUS>(0xC0000BC0u);

constexpr DWORD PDH_FMT_LONG = 0x00000100;
constexpr DWORD PDH_FMT_DOUBLE = 0x00000200;
constexpr DWORD PDH_FMT_LARGE = 0x00000400;

struct PDH_COUNTER_PATH_ELEMENTS_A {
  char* szMachineName;
  char* szObjectName;
  char* szInstanceName;
  char* szParentInstance;
  DWORD dwInstanceIndex;
  char* szCounterName;
};

// The leading fields of PDH_COUNTER_INFO_A, as the collectors read them; the variable
// part (strings) follows in the caller's buffer.
struct PDH_COUNTER_INFO_A {
  DWORD dwLength;
  DWORD dwType;
  DWORD CVersion;
  DWORD CStatus;
  LONG lScale;
  LONG lDefaultScale;
  DWORD_PTR dwUserData;
  DWORD_PTR dwQueryUserData;
  char* szFullPath;
  char* szMachineName;
  char* szObjectName;
  char* szInstanceName;
  char* szParentInstance;
  DWORD dwInstanceIndex;
  char* szCounterName;
  char* szExplainText;
  DWORD DataBuffer[1];
};

struct PDH_FMT_COUNTERVALUE {
  DWORD CStatus;
  union {
    LONG longValue;
    double doubleValue;
    LONGLONG largeValue;
    const char* AnsiStringValue;
  };
};

class Pdh {
 public:
  virtual ~Pdh() = default;
  // `size` in bytes: in, the buffer's size; out, the size needed (PDH_MORE_DATA when the
  // buffer is too small).
  virtual PDH_STATUS PdhMakeCounterPathA(PDH_COUNTER_PATH_ELEMENTS_A* elements, char* path,
                                         DWORD* size, DWORD flags) = 0;
  virtual PDH_STATUS PdhOpenQueryA(const char* dataSource, DWORD_PTR userData,
                                   PDH_HQUERY* query) = 0;
  virtual PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* path, DWORD_PTR userData,
                                    PDH_HCOUNTER* counter) = 0;
  virtual PDH_STATUS PdhGetCounterInfoA(PDH_HCOUNTER counter, BOOLEAN retrieveExplainText,
                                        DWORD* size, PDH_COUNTER_INFO_A* info) = 0;
  virtual PDH_STATUS PdhCollectQueryData(PDH_HQUERY query) = 0;
  virtual PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, DWORD format, DWORD* type,
                                                 PDH_FMT_COUNTERVALUE* value) = 0;
  virtual PDH_STATUS PdhRemoveCounter(PDH_HCOUNTER counter) = 0;
  virtual PDH_STATUS PdhCloseQuery(PDH_HQUERY query) = 0;
};

}  // namespace platform
