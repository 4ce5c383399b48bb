// UTF-8 by hand (portable); ANSI code pages through iconv here, through the real Windows
// functions in codepage_win32.cpp.
#include "platform/recorded/codepage.h"

#include <map>
#include <stdexcept>

#ifndef _WIN32
#include <iconv.h>

#include <cerrno>
#endif

namespace platform::recorded {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
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

}  // namespace

std::string WideToUtf8(std::u16string_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    char32_t c = wide[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (wide[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

std::u16string Utf8ToWide(const std::string& utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    unsigned char b = p[i];
    char32_t c;
    size_t extra;
    char32_t min;
    if (b < 0x80) {
      out += static_cast<char16_t>(b);
      ++i;
      continue;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F, extra = 1, min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F, extra = 2, min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07, extra = 3, min = 0x10000;
    } else {
      out += kReplacement;
      ++i;
      continue;
    }
    size_t j = 1;
    for (; j <= extra && i + j < n && (p[i + j] & 0xC0) == 0x80; ++j) {
      c = (c << 6) | (p[i + j] & 0x3F);
    }
    if (j <= extra || c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      out += kReplacement;
      i += j;
      continue;
    }
    i += j;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

bool DecodeUtf16LeWithBom(const std::string& bytes, std::u16string& text) {
  if (bytes.size() < 2 || static_cast<unsigned char>(bytes[0]) != 0xFF ||
      static_cast<unsigned char>(bytes[1]) != 0xFE) {
    return false;
  }
  text.clear();
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    text.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                         (static_cast<unsigned char>(bytes[i + 1]) << 8)));
  }
  return true;
}

bool IsAnsiCodePage(unsigned codePage) {
  switch (codePage) {
    case 874:
    case 932:
    case 936:
    case 949:
    case 950:
      return true;
    default:
      return codePage >= 1250 && codePage <= 1258;
  }
}

#ifndef _WIN32

namespace {

// One converter per direction and code page, per thread (iconv_t keeps state).
class Converters {
 public:
  ~Converters() {
    for (auto& entry : map_) {
      if (entry.second != reinterpret_cast<iconv_t>(-1)) iconv_close(entry.second);
    }
  }
  // Null when iconv does not know the code page.
  iconv_t get(unsigned codePage, bool toAnsi) {
    const unsigned long long key = (static_cast<unsigned long long>(codePage) << 1) | toAnsi;
    auto it = map_.find(key);
    if (it == map_.end()) {
      const std::string name = "CP" + std::to_string(codePage);
      iconv_t cd =
          toAnsi ? iconv_open(name.c_str(), "UTF-16LE") : iconv_open("UTF-16LE", name.c_str());
      it = map_.emplace(key, cd).first;
    }
    if (it->second == reinterpret_cast<iconv_t>(-1)) return nullptr;
    iconv(it->second, nullptr, nullptr, nullptr, nullptr);  // reset shift state
    return it->second;
  }

 private:
  std::map<unsigned long long, iconv_t> map_;
};

iconv_t Converter(unsigned codePage, bool toAnsi) {
  thread_local Converters converters;
  return converters.get(codePage, toAnsi);
}

bool IsAscii(const std::string& s) {
  for (unsigned char c : s) {
    if (c >= 0x80) return false;
  }
  return true;
}

bool IsAscii(const std::u16string& s) {
  for (char16_t c : s) {
    if (c >= 0x80) return false;
  }
  return true;
}

bool IsDoubleByte(unsigned codePage) {
  return codePage == 932 || codePage == 936 || codePage == 949 || codePage == 950;
}

std::string WideToAnsiThrough(iconv_t cd, const std::u16string& wide) {
  std::string in(wide.size() * 2, '\0');
  for (size_t i = 0; i < wide.size(); ++i) {
    in[2 * i] = static_cast<char>(wide[i] & 0xFF);
    in[2 * i + 1] = static_cast<char>(wide[i] >> 8);
  }
  std::string out(wide.size() * 4 + 8, '\0');
  char* inPtr = in.data();
  size_t inLeft = in.size();
  char* outPtr = out.data();
  size_t outLeft = out.size();
  while (inLeft > 0) {
    if (iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) {
      const size_t used = out.size() - outLeft;
      out.resize(out.size() * 2);
      outPtr = out.data() + used;
      outLeft = out.size() - used;
      continue;
    }
    // A character the code page lacks, or a lone surrogate: one '?' per UTF-16 unit.
    if (outLeft == 0) {
      const size_t used = out.size();
      out.resize(out.size() * 2);
      outPtr = out.data() + used;
      outLeft = out.size() - used;
    }
    *outPtr++ = '?';
    --outLeft;
    const size_t skip = inLeft < 2 ? inLeft : 2;
    inPtr += skip;
    inLeft -= skip;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
  }
  out.resize(out.size() - outLeft);
  return out;
}

std::u16string AnsiToWideThrough(iconv_t cd, const std::string& narrow, unsigned codePage) {
  std::string in = narrow;
  std::string out(narrow.size() * 2 + 8, '\0');
  char* inPtr = in.data();
  size_t inLeft = in.size();
  char* outPtr = out.data();
  size_t outLeft = out.size();
  std::u16string result;
  auto flush = [&] {
    const size_t used = out.size() - outLeft;
    for (size_t i = 0; i + 1 < used; i += 2) {
      result += static_cast<char16_t>(static_cast<unsigned char>(out[i]) |
                                      (static_cast<unsigned char>(out[i + 1]) << 8));
    }
    outPtr = out.data();
    outLeft = out.size();
  };
  while (inLeft > 0) {
    const size_t rc = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
    flush();
    if (rc != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) continue;
    // Windows maps the unassigned bytes of its single-byte code pages to the C1 controls
    // of the same value; an invalid double-byte sequence becomes U+FFFD.
    const auto byte = static_cast<unsigned char>(*inPtr);
    result += IsDoubleByte(codePage) ? kReplacement : static_cast<char16_t>(byte);
    ++inPtr;
    --inLeft;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
  }
  return result;
}

// The converter; std::invalid_argument for a code page iconv does not know.
iconv_t Supported(unsigned codePage, bool toAnsi) {
  iconv_t cd = Converter(codePage, toAnsi);
  if (!cd || !Converter(codePage, !toAnsi))
    throw std::invalid_argument("unsupported code page " + std::to_string(codePage));
  return cd;
}

// Whether the code page keeps ASCII as it is both ways, so that ASCII text can skip iconv.
// Every ANSI code page does; EBCDIC pages, which WideCharToMultiByte also takes, do not.
bool KeepsAscii(unsigned codePage) {
  thread_local std::map<unsigned, bool> known;
  auto it = known.find(codePage);
  if (it != known.end()) return it->second;
  std::string narrow;
  for (char c = 1; c < 0x7F; ++c) narrow += c;
  narrow += '\x7F';
  const std::u16string wide(narrow.begin(), narrow.end());
  const bool keeps = WideToAnsiThrough(Supported(codePage, true), wide) == narrow &&
                     AnsiToWideThrough(Supported(codePage, false), narrow, codePage) == wide;
  known.emplace(codePage, keeps);
  return keeps;
}

}  // namespace

bool IsSupportedCodePage(unsigned codePage) {
  if (codePage == 65001) return true;
  return Converter(codePage, true) != nullptr && Converter(codePage, false) != nullptr;
}

std::string WideToAnsi(const std::u16string& wide, unsigned codePage) {
  if (codePage == 65001) return WideToUtf8(wide);
  if (IsAscii(wide) && KeepsAscii(codePage)) return std::string(wide.begin(), wide.end());
  return WideToAnsiThrough(Supported(codePage, true), wide);
}

std::u16string AnsiToWide(const std::string& narrow, unsigned codePage) {
  if (codePage == 65001) return Utf8ToWide(narrow);
  if (IsAscii(narrow) && KeepsAscii(codePage)) return std::u16string(narrow.begin(), narrow.end());
  return AnsiToWideThrough(Supported(codePage, false), narrow, codePage);
}

#endif  // !_WIN32

}  // namespace platform::recorded
