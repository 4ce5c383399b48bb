#include "collectors/components/inf_file_list.h"

#include <cstring>

#include "common/log_message.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

const char kMasterFile[] = "sysoc.inf";
const char kComponentsSection[] = "Components";
const std::string kNoComponents =
    "OsComponentInfo::getINFFileList Sysoc.inf File has no Component sections";

template <std::size_t N>
std::string Text(const char (&buffer)[N]) {
  return std::string(buffer, strnlen(buffer, N));
}

}  // namespace

std::vector<InfListEntry> ReadINFFileList(const std::string& infDirectory, LogMessage& log) {
  platform::Setup& setup = platform::Machine::Current().setup();
  std::vector<InfListEntry> list;
  const std::string master = infDirectory + "\\" + kMasterFile;
  // No directory: a rooted "\sysoc.inf" would be read from whatever drive is current.
  const platform::HINF inf =
      infDirectory.empty()
          ? platform::INVALID_HANDLE_VALUE
          : setup.SetupOpenInfFileA(master.c_str(), nullptr, platform::INF_STYLE_WIN4, nullptr);
  platform::INFCONTEXT context{};
  if (inf == platform::INVALID_HANDLE_VALUE ||
      !setup.SetupFindFirstLineA(inf, kComponentsSection, nullptr, &context)) {
    log.logInfo(kNoComponents);
    if (inf != platform::INVALID_HANDLE_VALUE) setup.SetupCloseInfFile(inf);
    return list;
  }

  // Kept across lines on purpose: a field that a line lacks keeps the previous line's text.
  char hide[256] = {};
  char infName[256] = {};
  char dllName[256] = {};
  const platform::LONG lines = setup.SetupGetLineCountA(inf, kComponentsSection);
  // One index past the last line: that call fails and leaves the context on the last line,
  // whose fields are read again.
  for (platform::LONG index = 0; index <= lines; ++index) {
    setup.SetupGetLineByIndexA(inf, kComponentsSection, static_cast<platform::DWORD>(index),
                               &context);
    setup.SetupGetStringFieldA(&context, 4, hide, sizeof hide, nullptr);
    setup.SetupGetStringFieldA(&context, 3, infName, sizeof infName, nullptr);
    setup.SetupGetStringFieldA(&context, 1, dllName, sizeof dllName, nullptr);
    if (infName[0] == '\0') continue;
    list.push_back(InfListEntry{Text(infName), Text(dllName), hide[0] != '\0' ? "true" : "false"});
  }
  setup.SetupCloseInfFile(inf);
  return list;
}

}  // namespace installedapps_col
