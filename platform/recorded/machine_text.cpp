#include "platform/recorded/machine_text.h"

namespace platform::recorded {

std::string WideToAnsiReportingDefault(const std::u16string& text, UINT codePage, bool* usedDefault,
                                       char defaultChar) {
  std::string whole = WideToAnsi(text, codePage);
  bool used = false;
  if (codePage != CP_UTF8 && whole.find('?') != std::string::npos) {
    // Convert character by character to tell a recorded '?' from a missing mapping.
    whole.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
      std::size_t n = (text[i] >= 0xD800 && text[i] < 0xDC00 && i + 1 < text.size()) ? 2 : 1;
      std::u16string one = text.substr(i, n);
      std::string out = WideToAnsi(one, codePage);
      if (out == "?" && one != u"?") {
        used = true;
        out = std::string(1, defaultChar);
      }
      whole += out;
      i += n - 1;
    }
  }
  if (usedDefault) *usedDefault = used;
  return whole;
}

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool EqualsNoCase(const std::string& a, const std::string& b) {
  return Lower(a) == Lower(b);
}

bool NoCaseLess::operator()(const std::string& a, const std::string& b) const {
  return Lower(a) < Lower(b);
}

}  // namespace platform::recorded
