// Setup-information files and version resources of a recorded machine: INF files come from
// the recorded files, version resources from the "setup.versions" block of machine.json.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/export.h"
#include "platform/recorded/machine_inf.h"
#include "platform/recorded/machine_state.h"
#include "platform/recorded/machine_version.h"
#include "platform/setup.h"

namespace platform::recorded {

class Field;

constexpr LONG ERROR_WRONG_INF_STYLE = static_cast<LONG>(0xE0000100u);

struct SetupFacts {
  // By FileSource::Key of the Windows path; no value: the file exists without a version.
  std::map<std::string, std::optional<VersionFacts>> versions;
};

SetupFacts ReadSetupFacts(const Field& setup);

class KPLATFORM_API RecordedSetup : public Setup {
 public:
  RecordedSetup(SetupFacts facts, MachineState& state);
  ~RecordedSetup() override;

  HINF SetupOpenInfFileA(const char* fileName, const char* infClass, DWORD infStyle,
                         UINT* errorLine) override;
  void SetupCloseInfFile(HINF inf) override;
  BOOL SetupFindFirstLineA(HINF inf, const char* section, const char* key,
                           INFCONTEXT* context) override;
  LONG SetupGetLineCountA(HINF inf, const char* section) override;
  BOOL SetupGetLineByIndexA(HINF inf, const char* section, DWORD index,
                            INFCONTEXT* context) override;
  BOOL SetupGetStringFieldA(INFCONTEXT* context, DWORD fieldIndex, char* buffer, DWORD bufferSize,
                            DWORD* requiredSize) override;
  BOOL SetupGetLineTextA(INFCONTEXT* context, HINF inf, const char* section, const char* key,
                         char* buffer, DWORD bufferSize, DWORD* requiredSize) override;

  DWORD GetFileVersionInfoSizeA(const char* fileName, DWORD* handle) override;
  BOOL GetFileVersionInfoA(const char* fileName, DWORD handle, DWORD length, void* data) override;
  BOOL VerQueryValueA(const void* block, const char* subBlock, void** buffer,
                      UINT* length) override;

  std::size_t openInfCount() const { return infs_.size(); }

 private:
  InfFile* find(HINF inf) const;
  const InfLine* line(const INFCONTEXT* context, InfFile** file) const;
  // The version block of a file, null with the last error set when there is none.
  const std::vector<BYTE>* block(const char* fileName);

  SetupFacts facts_;
  MachineState& state_;
  std::set<std::unique_ptr<InfFile>> infs_;
  std::map<std::string, std::vector<BYTE>> blocks_;
  std::map<const void*, std::size_t> handedOut_;  // GetFileVersionInfoA buffers and sizes
};

}  // namespace platform::recorded
