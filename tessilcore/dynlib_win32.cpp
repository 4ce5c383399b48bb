// Shared libraries through LoadLibraryA. The only host file that includes <windows.h>.
#ifdef _WIN32

#include <windows.h>

#include <string>

#include "tessilcore/dynlib.h"

namespace NKestovaTessil20 {
namespace dynlib {

void* Open(const std::string& path, std::string& error) {
  HMODULE library = LoadLibraryA(path.c_str());
  if (library == nullptr) {
    const DWORD code = GetLastError();
    char* text = nullptr;
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
    error = "error " + std::to_string(code);
    if (length != 0 && text != nullptr) {
      std::string message(text, length);
      while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
        message.pop_back();
      }
      error += ": " + message;
    }
    if (text != nullptr) LocalFree(text);
  }
  return reinterpret_cast<void*>(library);
}

void Close(void* library) {
  if (library != nullptr) FreeLibrary(reinterpret_cast<HMODULE>(library));
}

}  // namespace dynlib
}  // namespace NKestovaTessil20

#endif
