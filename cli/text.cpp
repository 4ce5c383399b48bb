#include "cli/text.h"

#include <vector>

#include "platform/machine.h"

namespace iac {

std::string utf16ToUtf8(const std::u16string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;  // a lone surrogate
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

TextEncoder machineTextEncoder() {
  return [](const std::string& narrow) -> std::string {
    bool ascii = true;
    for (char c : narrow) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii || narrow.empty()) return narrow;
    platform::System& system = platform::Machine::Current().system();
    const int length = static_cast<int>(narrow.size());
    const int size =
        system.MultiByteToWideChar(platform::CP_ACP, 0, narrow.data(), length, nullptr, 0);
    if (size <= 0) return narrow;
    std::vector<platform::WCHAR> wide(static_cast<std::size_t>(size));
    system.MultiByteToWideChar(platform::CP_ACP, 0, narrow.data(), length, wide.data(), size);
    return utf16ToUtf8(std::u16string(wide.begin(), wide.end()));
  };
}

}  // namespace iac
