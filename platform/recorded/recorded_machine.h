// A machine answered from recorded data: machine.json for every fact that is not registry,
// the registry as .reg exports and/or hive files, and files/ for files by Windows path.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/machine.h"

namespace platform::recorded {

class RecordedRegistry;
class RecordedSystem;
class RecordedPdh;
class RecordedNetApi;
class RecordedWmi;
class RecordedSetup;

class KPLATFORM_API RecordedMachine : public Machine {
 public:
  // A machine directory: machine.json (optional), registry/*.reg (loaded in name order),
  // hives/ (SOFTWARE, SYSTEM, NTUSER.DAT, BCD), files/<drive>/<path>. Throws
  // platform::RecordError naming the file (and field) that cannot be read.
  static std::shared_ptr<RecordedMachine> Load(const std::string& directory);
  // The same from memory: relative path with '/' -> content. Hive files are read only from
  // a directory; a hives/ entry here is refused.
  static std::shared_ptr<RecordedMachine> FromFiles(
      const std::map<std::string, std::string>& files);
  // A machine with nothing recorded: every call fails as Windows does when there is nothing.
  static std::shared_ptr<RecordedMachine> Empty();

  ~RecordedMachine() override;

  Registry& registry() override;
  System& system() override;
  Pdh& pdh() override;
  NetApi& net() override;
  Wmi& wmi() override;
  Setup& setup() override;

  // The concrete families, for tests and tools that look at what was recorded.
  RecordedRegistry& recordedRegistry();
  RecordedNetApi& recordedNet();
  RecordedWmi& recordedWmi();
  RecordedSetup& recordedSetup();
  RecordedPdh& recordedPdh();
  RecordedSystem& recordedSystem();

  struct Parts;
  struct Source;

 private:
  explicit RecordedMachine(std::unique_ptr<Parts> parts);
  static std::shared_ptr<RecordedMachine> Build(const Source& source);
  std::unique_ptr<Parts> parts_;
};

}  // namespace platform::recorded
