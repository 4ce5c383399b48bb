// Version resources: the input becomes one entry of machine.json's setup.versions (a header,
// then NUL-separated texts), whose block is then read as callers read it: the fixed record,
// the translation, and string values, from a buffer of the size asked for and from one cut
// to half of it; then through the component reader's own function. The raw input is also
// searched as a block itself, since the lookup must stay inside any bytes it is given.
//   input: language (2 bytes, LE), code page (2), machine code page (1: index into a short
//   list), then fileVersion \0 fileDescription \0 name \0 text \0 name \0 text ...
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "collectors/components/file_version.h"
#include "fuzz/fuzz_support.h"
#include "platform/machine.h"
#include "platform/recorded/machine_version.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;

constexpr const char* kDll = "C:\\WINDOWS\\system32\\setup\\x.dll";
constexpr unsigned kMachineCodePages[] = {1252, 932, 1251, 936};

struct Input {
  unsigned language = 0, codePage = 0, machineCodePage = 1252;
  std::vector<std::string> texts;
};

Input Split(const std::string& bytes) {
  Input in;
  if (bytes.size() < 5) return in;
  const auto byte = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  in.language = byte(0) | byte(1) << 8;
  in.codePage = byte(2) | byte(3) << 8;
  in.machineCodePage = kMachineCodePages[byte(4) % std::size(kMachineCodePages)];
  for (std::size_t start = 5; start <= bytes.size();) {
    std::size_t end = bytes.find('\0', start);
    if (end == std::string::npos) end = bytes.size();
    in.texts.push_back(bytes.substr(start, end - start));
    start = end + 1;
  }
  return in;
}

std::string MachineJson(const Input& in) {
  nlohmann::json entry = {{"language", in.language}, {"codePage", in.codePage}};
  if (in.texts.size() > 0) entry["fileVersion"] = in.texts[0];
  if (in.texts.size() > 1) entry["fileDescription"] = in.texts[1];
  nlohmann::json strings = nlohmann::json::object();
  for (std::size_t i = 2; i + 1 < in.texts.size(); i += 2) strings[in.texts[i]] = in.texts[i + 1];
  entry["strings"] = strings;
  const nlohmann::json machine = {{"system", {{"codePage", in.machineCodePage}}},
                                  {"setup", {{"versions", {{kDll, entry}}}}}};
  // Invalid UTF-8 in a text becomes U+FFFD: machine.json is UTF-8 by definition.
  return machine.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::vector<std::string> SubBlocks(const Input& in, unsigned language, unsigned codePage) {
  std::vector<std::string> queries{"\\", "\\VarFileInfo\\Translation", "\\StringFileInfo",
                                   "\\VarFileInfo\\"};
  char table[32];
  std::snprintf(table, sizeof table, "\\StringFileInfo\\%04x%04x\\", language & 0xFFFF,
                codePage & 0xFFFF);
  for (const char* name : {"FileVersion", "FileDescription", "CompanyName", "ProductName"})
    queries.push_back(table + std::string(name));
  for (std::size_t i = 2; i < in.texts.size(); i += 2) queries.push_back(table + in.texts[i]);
  return queries;
}

// Every answer is read whole, so that an answer reaching past its buffer shows.
void Query(Setup& setup, const std::vector<char>& block, const std::vector<std::string>& queries) {
  for (const std::string& query : queries) {
    void* value = nullptr;
    UINT length = 0;
    if (!setup.VerQueryValueA(block.data(), query.c_str(), &value, &length) || !value) continue;
    const char* first = static_cast<const char*>(value);
    const char* end = block.data() + block.size();
    if (first < block.data() || first > end || length > static_cast<std::size_t>(end - first))
      fuzz::Finding("VerQueryValueA answered outside the buffer for " + query);
    std::string copy(first, length);
  }
}

void ReadResource(Setup& setup, const Input& in) {
  DWORD handle = 0;
  const DWORD size = setup.GetFileVersionInfoSizeA(kDll, &handle);
  if (size == 0) return;
  for (const DWORD length : {size, size / 2}) {
    std::vector<char> block(length);
    if (block.empty() || !setup.GetFileVersionInfoA(kDll, handle, length, block.data())) continue;
    unsigned language = in.language, codePage = in.codePage;
    void* value = nullptr;
    UINT valueLength = 0;
    if (setup.VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &value, &valueLength) &&
        value && valueLength >= 4) {
      unsigned char translation[4];
      std::memcpy(translation, value, sizeof translation);
      language = translation[0] | translation[1] << 8;
      codePage = translation[2] | translation[3] << 8;
    }
    Query(setup, block, SubBlocks(in, language, codePage));
  }
}

void SearchRawBlock(const std::string& bytes, const Input& in) {
  const auto* block = reinterpret_cast<const BYTE*>(bytes.data());
  for (const std::string& query : SubBlocks(in, in.language, in.codePage)) {
    recorded::VersionValue value;
    if (!recorded::FindVersionValue(block, bytes.size(), query, &value)) continue;
    const std::size_t length = value.isText ? 2 * value.length : value.length;
    if (value.offset > bytes.size() || length > bytes.size() - value.offset)
      fuzz::Finding("FindVersionValue answered outside the block for " + query);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz::Bytes(data, size);
  const Input in = Split(bytes);
  SearchRawBlock(bytes, in);
  std::shared_ptr<recorded::RecordedMachine> machine;
  try {
    machine = recorded::RecordedMachine::FromFiles({{"machine.json", MachineJson(in)}});
  } catch (const std::exception&) {  // RecordError: refused
    return 0;
  }
  ReadResource(machine->setup(), in);
  Machine::Install(machine);
  std::string description;
  installedapps_col::ReadFileVersion(kDll, description);
  Machine::Install(nullptr);
  return 0;
}
