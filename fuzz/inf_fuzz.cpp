// INF files: a machine holding the input as C:\Windows\inf\x.inf, opened as the component
// reader opens INF files, then every line of every section walked: each field and the
// line's text, each with a short buffer first, and each key looked up again by name.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/recorded/machine_inf.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;

constexpr const char* kInfPath = "C:\\Windows\\inf\\x.inf";

// Reads one field or the line's text the way callers do: the size, then a buffer one
// short (which must be refused), then a buffer of exactly that size.
template <class Read>
std::string ReadText(Read read) {
  DWORD needed = 0;
  if (!read(nullptr, 0, &needed) || needed == 0) return std::string();
  std::vector<char> buffer(needed);
  if (needed > 1 && read(buffer.data(), needed - 1, nullptr))
    fuzz::Finding("a buffer one short of the size needed was accepted");
  if (!read(buffer.data(), needed, nullptr)) return std::string();
  return std::string(buffer.data());
}

void WalkSection(Setup& setup, HINF inf, const std::string& section) {
  const LONG count = setup.SetupGetLineCountA(inf, section.c_str());
  for (LONG i = 0; i < count; ++i) {
    INFCONTEXT context{};
    if (!setup.SetupGetLineByIndexA(inf, section.c_str(), static_cast<DWORD>(i), &context))
      fuzz::Finding("line " + std::to_string(i) + " of a section of " + std::to_string(count) +
                    " lines is missing");
    std::string key;
    for (DWORD field = 0;; ++field) {
      DWORD needed = 0;
      if (!setup.SetupGetStringFieldA(&context, field, nullptr, 0, &needed)) {
        if (field == 0) continue;  // a line without a key
        break;
      }
      const std::string text = ReadText([&](char* buffer, DWORD size, DWORD* required) {
        return setup.SetupGetStringFieldA(&context, field, buffer, size, required);
      });
      if (field == 0) key = text;
    }
    ReadText([&](char* buffer, DWORD size, DWORD* required) {
      return setup.SetupGetLineTextA(&context, nullptr, nullptr, nullptr, buffer, size, required);
    });
    if (!key.empty()) {
      INFCONTEXT found{};
      setup.SetupFindFirstLineA(inf, section.c_str(), key.c_str(), &found);
      ReadText([&](char* buffer, DWORD size, DWORD* required) {
        return setup.SetupGetLineTextA(nullptr, inf, section.c_str(), key.c_str(), buffer, size,
                                       required);
      });
    }
  }
  INFCONTEXT past{};
  if (count >= 0 &&
      setup.SetupGetLineByIndexA(inf, section.c_str(), static_cast<DWORD>(count), &past))
    fuzz::Finding("a line past the end of a section was found");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz::Bytes(data, size);
  // The sections to ask for: those the text names (the seam cannot list them) and those the
  // component reader asks for whatever the file holds.
  std::set<std::string> sections{"Version", "Strings", "Components", "Optional Components"};
  const recorded::InfFile names = recorded::InfFile::Parse(bytes);
  for (const auto& section : names.sections()) sections.insert(section.name);

  for (const char* codePage : {"1252", "932"}) {
    std::shared_ptr<recorded::RecordedMachine> machine;
    try {
      machine = recorded::RecordedMachine::FromFiles(
          {{"machine.json", std::string("{\"system\": {\"codePage\": ") + codePage + "}}"},
           {"files/C/Windows/inf/x.inf", bytes}});
    } catch (const std::exception&) {
      return 0;
    }
    Setup& setup = machine->setup();
    UINT errorLine = 0;
    HINF inf = setup.SetupOpenInfFileA(kInfPath, nullptr, INF_STYLE_WIN4, &errorLine);
    if (inf == INVALID_HANDLE_VALUE) continue;
    for (const std::string& section : sections) WalkSection(setup, inf, section);
    setup.SetupCloseInfFile(inf);
  }
  return 0;
}
