#include "platform/capture/ansi_text.h"

#include <climits>

#include "platform/recorded/codepage.h"

namespace platform::capture {

std::u16string AnsiToWide(System& system, const std::string& ansi) {
  if (ansi.empty() || ansi.size() > INT_MAX) return {};
  const int length = static_cast<int>(ansi.size());
  const int needed = system.MultiByteToWideChar(CP_ACP, 0, ansi.data(), length, nullptr, 0);
  if (needed <= 0) return {};
  std::u16string wide(static_cast<size_t>(needed), u'\0');
  const int written =
      system.MultiByteToWideChar(CP_ACP, 0, ansi.data(), length, wide.data(), needed);
  wide.resize(written > 0 ? static_cast<size_t>(written) : 0);
  return wide;
}

std::string AnsiToUtf8(System& system, const std::string& ansi) {
  return recorded::WideToUtf8(AnsiToWide(system, ansi));
}

std::string WideToUtf8(const WCHAR* wide) {
  return wide ? recorded::WideToUtf8(std::u16string(wide)) : std::string();
}

}  // namespace platform::capture
