// Reads regedit exports ("Windows Registry Editor Version 5.00" in UTF-16LE or UTF-8, and
// "REGEDIT4" in the machine's ANSI code page) into a registry tree.
#pragma once

#include <string>

#include "platform/export.h"
#include "platform/recorded/registry_model.h"

namespace platform::recorded {

// Applies the export to `tree` as regedit would import it: keys and values are added or
// replaced, "[-key]" removes a key with everything below it, "name"=- removes a value.
// `name` is the file's name in messages; REGEDIT4 text is decoded with `ansiCodePage`.
// Throws platform::RecordError "name:line: what" on malformed input; the tree may then
// hold what came before the error.
KPLATFORM_API void ApplyRegFile(RegistryTree& tree, const std::string& name,
                                const std::string& bytes, unsigned ansiCodePage);

// A key line holds no line break, yet a key name may. Such a key is written as the comment
// line kEscapedKeyLine, then its key line with "%" followed by two hex digits standing for
// that character in every name of the path ("%0D", "%0A", "%25" for CR, LF and '%'). Other
// readers take the comment as a comment and the names as written, so nothing is injected.
KPLATFORM_API extern const char16_t kEscapedKeyLine[];
// `name` in that form.
KPLATFORM_API std::u16string EscapeKeyName(const std::u16string& name);

}  // namespace platform::recorded
