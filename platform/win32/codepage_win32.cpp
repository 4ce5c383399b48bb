// ANSI code pages through Windows itself, so a Windows build converts exactly as
// RegQueryValueExA does on that machine.
#ifdef _WIN32

#include <stdexcept>

#include "platform/recorded/codepage.h"

// <windows.h> after our headers: several of our names are macros there.
#include <windows.h>

namespace platform::recorded {

bool IsSupportedCodePage(unsigned codePage) {
  return IsValidCodePage(codePage) != 0;
}

std::string WideToAnsi(const std::u16string& wide, unsigned codePage) {
  if (!IsSupportedCodePage(codePage)) {
    throw std::invalid_argument("unsupported code page " + std::to_string(codePage));
  }
  if (wide.empty()) return {};
  const auto* in = reinterpret_cast<const wchar_t*>(wide.data());
  const int inLength = static_cast<int>(wide.size());
  const int size = WideCharToMultiByte(codePage, 0, in, inLength, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(codePage, 0, in, inLength, out.data(), size, nullptr, nullptr);
  return out;
}

std::u16string AnsiToWide(const std::string& narrow, unsigned codePage) {
  if (!IsSupportedCodePage(codePage)) {
    throw std::invalid_argument("unsupported code page " + std::to_string(codePage));
  }
  if (narrow.empty()) return {};
  const int inLength = static_cast<int>(narrow.size());
  const int size = MultiByteToWideChar(codePage, 0, narrow.data(), inLength, nullptr, 0);
  std::u16string out(static_cast<size_t>(size), u'\0');
  MultiByteToWideChar(codePage, 0, narrow.data(), inLength, reinterpret_cast<wchar_t*>(out.data()),
                      size);
  return out;
}

}  // namespace platform::recorded

#endif  // _WIN32
