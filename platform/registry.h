// Registry calls (advapi32), with Windows' arguments, buffer rules and result codes.
#pragma once

#include "platform/types.h"

namespace platform {

class Registry {
 public:
  virtual ~Registry() = default;
  // `sam` chooses the view: KEY_WOW64_64KEY / KEY_WOW64_32KEY, else the process's own.
  virtual LONG RegOpenKeyExA(HKEY root, const char* subKey, DWORD options, REGSAM sam,
                             HKEY* result) = 0;
  virtual LONG RegCloseKey(HKEY key) = 0;
  // Any out pointer may be null. Name lengths are in characters without the NUL, data
  // lengths in bytes.
  virtual LONG RegQueryInfoKeyA(HKEY key, char* className, DWORD* classLength, DWORD* reserved,
                                DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* maxClassLength,
                                DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength,
                                DWORD* securityDescriptor, FILETIME* lastWriteTime) = 0;
  // `nameLength`: in, the buffer's size in characters; out, the name's length without NUL.
  // ERROR_MORE_DATA when the name does not fit, ERROR_NO_MORE_ITEMS past the last key.
  virtual LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                             char* className, DWORD* classLength, FILETIME* lastWriteTime) = 0;
  // ERROR_MORE_DATA when the name or the data does not fit (`dataLength` then holds the
  // size needed), ERROR_NO_MORE_ITEMS past the last value.
  virtual LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                             DWORD* type, BYTE* data, DWORD* dataLength) = 0;
  // `valueName` null or "" reads the default value. With `data` null, `dataLength` gets
  // the size needed; with a short buffer, ERROR_MORE_DATA and the size needed.
  virtual LONG RegQueryValueExA(HKEY key, const char* valueName, DWORD* reserved, DWORD* type,
                                BYTE* data, DWORD* dataLength) = 0;
};

}  // namespace platform
