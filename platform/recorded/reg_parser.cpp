// regedit export parser. Works on the decoded UTF-16 text in one forward pass, so large
// exports parse in linear time.
#include "platform/recorded/reg_parser.h"

#include <cstdint>
#include <stdexcept>

#include "platform/recorded/codepage.h"
#include "platform/recorded/record_error.h"

namespace platform::recorded {

namespace {

const std::u16string kHeader5 = u"Windows Registry Editor Version 5.00";
const std::u16string kHeader4 = u"REGEDIT4";
const char kValueTooLarge[] = "value data larger than 16 MiB";

bool StartsWith(const std::string& s, const char* prefix) {
  return s.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

int HexDigit(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

std::u16string Trim(const std::u16string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (IsBlank(s[b]) || s[b] == u'\r')) ++b;
  while (e > b && (IsBlank(s[e - 1]) || s[e - 1] == u'\r')) --e;
  return s.substr(b, e - b);
}

// Parses 1 to `maxDigits` hex digits; false for anything else.
bool ParseHex(const std::u16string& s, size_t maxDigits, std::uint32_t& out) {
  if (s.empty() || s.size() > maxDigits) return false;
  out = 0;
  for (char16_t c : s) {
    const int d = HexDigit(c);
    if (d < 0) return false;
    out = (out << 4) | static_cast<std::uint32_t>(d);
  }
  return true;
}

std::u16string Decode(const std::string& name, const std::string& bytes, unsigned codePage) {
  std::u16string wide;
  if (DecodeUtf16LeWithBom(bytes, wide)) return wide;
  if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
      static_cast<unsigned char>(bytes[1]) == 0xFF) {
    std::u16string text((bytes.size() - 2) / 2, u'\0');
    for (size_t i = 0; i < text.size(); ++i) {
      text[i] = static_cast<char16_t>((static_cast<unsigned char>(bytes[2 + 2 * i]) << 8) |
                                      static_cast<unsigned char>(bytes[3 + 2 * i]));
    }
    return text;
  }
  if (StartsWith(bytes, "\xEF\xBB\xBF")) return Utf8ToWide(bytes.substr(3));
  if (StartsWith(bytes, "REGEDIT4")) {
    try {
      return AnsiToWide(bytes, codePage);
    } catch (const std::invalid_argument& e) {
      throw RecordError(name + ": " + e.what());
    }
  }
  return Utf8ToWide(bytes);
}

// "%XX" escapes of an escaped key line back into characters; false for a '%' without two
// hex digits.
bool UnescapeKeyName(std::u16string& name) {
  std::u16string out;
  for (size_t i = 0; i < name.size(); ++i) {
    if (name[i] != u'%') {
      out += name[i];
      continue;
    }
    const int high = i + 2 < name.size() ? HexDigit(name[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(name[i + 2]) : -1;
    if (low < 0) return false;
    out += static_cast<char16_t>(high * 16 + low);
    i += 2;
  }
  name = std::move(out);
  return true;
}

class Parser {
 public:
  Parser(RegistryTree& tree, const std::string& name, std::u16string text, unsigned codePage)
      : tree_(tree),
        name_(name),
        text_(std::move(text)),
        codePage_(codePage),
        budget_(2 * static_cast<std::uint64_t>(text_.size())) {}

  void run() {
    const std::u16string header = Trim(readLine());
    if (header == kHeader4) {
      regedit4_ = true;
    } else if (header != kHeader5) {
      fail(1, "not a registry export: the first line must be \"" + WideToUtf8(kHeader5) +
                  "\" or \"REGEDIT4\"");
    }
    while (pos_ < text_.size()) {
      while (pos_ < text_.size() && IsBlank(text_[pos_])) ++pos_;
      if (pos_ >= text_.size()) break;
      const char16_t c = text_[pos_];
      if (c == u';') {
        if (Trim(readLine()) == kEscapedKeyLine) escapedKey_ = true;
      } else if (c == u'\r' || c == u'\n') {
        readLine();
      } else if (c == u'[') {
        keyLine();
      } else if (c == u'"' || c == u'@') {
        valueLine();
      } else {
        const size_t at = line_;
        fail(at, "unexpected text " + QuoteForMessage(Trim(readLine())));
      }
    }
  }

 private:
  [[noreturn]] void fail(size_t line, const std::string& message) const {
    throw RecordError(name_ + ":" + std::to_string(line) + ": " + message);
  }

  // The rest of the physical line, without its "\n" or "\r\n"; moves past it.
  std::u16string readLine() {
    const size_t start = pos_;
    size_t end = text_.find(u'\n', pos_);
    if (end == std::u16string::npos) {
      pos_ = text_.size();
      end = text_.size();
    } else {
      pos_ = end + 1;
      ++line_;
    }
    if (end > start && text_[end - 1] == u'\r') --end;
    return text_.substr(start, end - start);
  }

  void keyLine() {
    const size_t at = line_;
    const std::u16string text = Trim(readLine());
    if (text.size() < 2 || text.back() != u']') fail(at, "key line without closing ']'");
    std::u16string path = text.substr(1, text.size() - 2);
    const bool remove = !path.empty() && path[0] == u'-';
    if (remove) path.erase(0, 1);
    std::vector<std::u16string> parts = SplitPath(path);
    if (escapedKey_) {
      escapedKey_ = false;
      for (auto& part : parts) {
        if (!UnescapeKeyName(part))
          fail(at, "escaped key name with a '%' not followed by two hex digits: " +
                       QuoteForMessage(part));
      }
    }
    if (parts.empty()) fail(at, "empty key name");
    std::vector<std::u16string> full = RootPath(parts[0]);
    if (full.empty()) fail(at, "unknown root key " + QuoteForMessage(parts[0]));
    full.insert(full.end(), parts.begin() + 1, parts.end());
    if (full.size() > kMaxKeyDepth) fail(at, "key nested deeper than 512 levels");
    for (const auto& part : full) {
      if (const char* fault = KeyNameFault(part)) {
        fail(at, std::string("key with ") + fault + ": " + QuoteForMessage(part));
      }
    }

    RegKey* key = tree_.root(full[0]);
    if (remove) {
      current_ = nullptr;
      inKey_ = true;  // values of a removed key are ignored, as regedit does
      for (size_t i = 1; key && i + 1 < full.size(); ++i) key = key->findSubKey(full[i]);
      if (key && full.size() > 1) key->removeSubKey(full.back());
      return;
    }
    size_t created = 0;
    for (size_t i = 1; i < full.size(); ++i) {
      bool added = false;
      key = &key->ensureSubKey(full[i], &added);
      if (!added) continue;
      // Checked as each key is made, so a refused file has not built much first.
      if (++created > kMaxLevelsCreatedAtOnce) {
        fail(at,
             "key line creating more than 32 missing levels at once, which Windows "
             "refuses in one call");
      }
      if (!budget_.chargeKey(full[i])) overBudget(at);
    }
    current_ = key;
    inKey_ = true;
  }

  [[noreturn]] void overBudget(size_t line) const {
    fail(line, "the keys and values up to here take more than " +
                   std::to_string(budget_.limit() >> 20) +
                   " MiB in memory (16 MiB and 8 bytes per byte of the text as UTF-16); no "
                   "registry export is that dense");
  }

  // A quoted string with \\ and \" escapes; may run over several lines, each line break
  // inside it becoming "\n" (regedit writes a stored "\r\n" as "\r" + its own line end).
  // `what` names it in the error for one longer than `maxLength` characters.
  std::u16string quoted(size_t startLine, size_t maxLength, const char* what) {
    std::u16string out;
    ++pos_;  // opening quote
    while (true) {
      if (pos_ >= text_.size()) fail(startLine, "string without closing '\"'");
      if (out.size() > maxLength) fail(startLine, what);
      const char16_t c = text_[pos_];
      if (c == u'"') {
        ++pos_;
        return out;
      }
      if (c == u'\\' && pos_ + 1 < text_.size() &&
          (text_[pos_ + 1] == u'\\' || text_[pos_ + 1] == u'"')) {
        out += text_[pos_ + 1];
        pos_ += 2;
        continue;
      }
      if (c == u'\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == u'\n') {
        out += u'\n';
        pos_ += 2;
        ++line_;
        continue;
      }
      if (c == u'\n') ++line_;
      out += c;
      ++pos_;
    }
  }

  void skipBlanks() {
    while (pos_ < text_.size() && IsBlank(text_[pos_])) ++pos_;
  }

  void expectLineEnd(size_t at) {
    const std::u16string rest = Trim(readLine());
    if (!rest.empty()) fail(at, "unexpected text after the value: " + QuoteForMessage(rest));
  }

  void valueLine() {
    const size_t at = line_;
    RegValueParts value;
    if (text_[pos_] == u'@') {
      ++pos_;
    } else {
      value.name = quoted(at, kMaxValueNameLength, "value name longer than 16,383 characters");
    }
    skipBlanks();
    if (pos_ >= text_.size() || text_[pos_] != u'=') fail(line_, "expected '=' after value name");
    ++pos_;
    skipBlanks();
    if (!inKey_) fail(at, "value outside a key");

    if (pos_ < text_.size() && text_[pos_] == u'"') {
      // With its NUL, as stored.
      const std::u16string data = quoted(at, kMaxValueSize / 2 - 1, kValueTooLarge);
      expectLineEnd(line_);
      value.type = REG_SZ;
      value.data = Utf16Bytes(data);
    } else if (pos_ < text_.size() && text_[pos_] == u'-') {
      ++pos_;
      expectLineEnd(at);
      if (current_) current_->removeValue(value.name);
      return;
    } else {
      typedData(value);
    }
    if (!budget_.chargeValue(value)) overBudget(at);
    if (current_) current_->setValue(value);
  }

  // dword:, hex: and hex(N): data.
  void typedData(RegValueParts& value) {
    const size_t at = line_;
    const size_t colon = text_.find(u':', pos_);
    const size_t eol = text_.find(u'\n', pos_);
    if (colon == std::u16string::npos || (eol != std::u16string::npos && colon > eol)) {
      fail(at, "unrecognised value data " + QuoteForMessage(Trim(readLine())));
    }
    std::u16string kind = Trim(text_.substr(pos_, colon - pos_));
    for (auto& c : kind) c = (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
    pos_ = colon + 1;

    if (kind == u"dword") {
      const std::u16string digits = Trim(readLine());
      std::uint32_t number = 0;
      if (!ParseHex(digits, 8, number)) fail(at, "bad dword value " + QuoteForMessage(digits));
      value.type = REG_DWORD;
      value.data = {static_cast<BYTE>(number), static_cast<BYTE>(number >> 8),
                    static_cast<BYTE>(number >> 16), static_cast<BYTE>(number >> 24)};
      return;
    }
    if (kind == u"hex") {
      value.type = REG_BINARY;
    } else if (kind.size() > 5 && kind.compare(0, 4, u"hex(") == 0 && kind.back() == u')') {
      std::uint32_t type = 0;
      const std::u16string digits = kind.substr(4, kind.size() - 5);
      if (!ParseHex(digits, 8, type)) fail(at, "bad value type " + QuoteForMessage(kind));
      value.type = type;
    } else {
      fail(at, "unrecognised value type " + QuoteForMessage(kind));
    }
    value.data = hexBytes(at);
    // REGEDIT4 wrote string types as the ANSI bytes; Windows stores UTF-16.
    if (regedit4_ &&
        (value.type == REG_SZ || value.type == REG_EXPAND_SZ || value.type == REG_MULTI_SZ)) {
      const std::string narrow(value.data.begin(), value.data.end());
      value.data = Utf16Bytes(AnsiToWide(narrow, codePage_), false);
      if (value.data.size() > kMaxValueSize) fail(at, kValueTooLarge);
    }
  }

  // Comma-separated bytes, continued on the next line after a trailing backslash.
  std::vector<BYTE> hexBytes(size_t startLine) {
    std::vector<BYTE> bytes;
    while (true) {
      const size_t at = line_;
      std::u16string segment = Trim(readLine());
      const bool more = !segment.empty() && segment.back() == u'\\';
      if (more) segment.pop_back();
      size_t start = 0;
      while (start < segment.size()) {
        size_t comma = segment.find(u',', start);
        const bool last = comma == std::u16string::npos;
        if (last) comma = segment.size();
        const std::u16string token = Trim(segment.substr(start, comma - start));
        std::uint32_t byte = 0;
        if (token.empty() && last) break;  // a trailing comma before the line end
        if (!ParseHex(token, 2, byte)) fail(at, "bad hex byte " + QuoteForMessage(token));
        bytes.push_back(static_cast<BYTE>(byte));
        if (bytes.size() > kMaxValueSize) fail(startLine, kValueTooLarge);
        start = comma + 1;
      }
      if (!more || pos_ >= text_.size()) return bytes;
      skipBlanks();
    }
  }

  RegistryTree& tree_;
  const std::string& name_;
  std::u16string text_;
  unsigned codePage_;
  size_t pos_ = 0;
  size_t line_ = 1;
  bool regedit4_ = false;
  bool inKey_ = false;
  bool escapedKey_ = false;  // the next key line is escaped
  RegKey* current_ = nullptr;
  LoadBudget budget_;
};

}  // namespace

const char16_t kEscapedKeyLine[] = u";%-escaped key";

std::u16string EscapeKeyName(const std::u16string& name) {
  std::u16string out;
  for (char16_t c : name) {
    if (c == u'%') {
      out += u"%25";
    } else if (c == u'\r') {
      out += u"%0D";
    } else if (c == u'\n') {
      out += u"%0A";
    } else {
      out += c;
    }
  }
  return out;
}

void ApplyRegFile(RegistryTree& tree, const std::string& name, const std::string& bytes,
                  unsigned ansiCodePage) {
  Parser parser(tree, name, Decode(name, bytes, ansiCodePage), ansiCodePage);
  try {
    parser.run();
  } catch (const std::invalid_argument& e) {  // an unsupported ANSI code page
    tree.compact();
    throw RecordError(name + ": " + e.what());
  } catch (...) {
    tree.compact();
    throw;
  }
  tree.compact();
}

}  // namespace platform::recorded
