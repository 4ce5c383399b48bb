// Conversions between UTF-16 (how Windows stores registry strings), a machine's ANSI code
// page (what the narrow "A" calls hand out) and UTF-8 (what iac prints).
#pragma once

#include <string>
#include <string_view>

#include "platform/export.h"

namespace platform::recorded {

constexpr unsigned kDefaultAnsiCodePage = 1252;

// True when WideToAnsi / AnsiToWide can convert with this code page here.
KPLATFORM_API bool IsSupportedCodePage(unsigned codePage);
// True for the code pages Windows takes as a system's ANSI code page (what GetACP answers):
// Thai, the four East Asian double-byte pages and 1250 to 1258. All keep ASCII as it is,
// which narrow paths, names and separators rely on; EBCDIC and OEM pages never are one.
KPLATFORM_API bool IsAnsiCodePage(unsigned codePage);

// As WideCharToMultiByte does without flags: a character the code page lacks becomes '?'
// (no best-fit mapping). Throws std::invalid_argument for an unsupported code page.
KPLATFORM_API std::string WideToAnsi(const std::u16string& wide, unsigned codePage);
// As MultiByteToWideChar does without flags: an invalid byte sequence becomes U+FFFD.
KPLATFORM_API std::u16string AnsiToWide(const std::string& narrow, unsigned codePage);

// Unpaired surrogates and invalid UTF-8 become U+FFFD.
KPLATFORM_API std::string WideToUtf8(std::u16string_view wide);
KPLATFORM_API std::u16string Utf8ToWide(const std::string& utf8);

// A file's bytes that begin with the UTF-16LE byte-order mark (as regedit, wmic and
// setup files may be written), as UTF-16 without the mark; false for any other bytes.
KPLATFORM_API bool DecodeUtf16LeWithBom(const std::string& bytes, std::u16string& text);

}  // namespace platform::recorded
