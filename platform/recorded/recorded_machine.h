// A machine answered from recorded data: machine.json for every fact that is not registry,
// the registry as .reg exports and/or hive files, and files/ for files by Windows path.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/machine.h"

namespace platform::recorded {

class RecordedRegistry;
class RecordedSystem;
class RecordedPdh;
class RecordedNetApi;
class RecordedWmi;
class RecordedSetup;
class HiveFile;

class KPLATFORM_API RecordedMachine : public Machine {
 public:
  // A machine directory: machine.json (optional), registry/*.reg (loaded in name order),
  // hives/ (SOFTWARE, SYSTEM, NTUSER.DAT, BCD), files/<drive>/<path>. Throws
  // platform::RecordError naming the file (and field) that cannot be read.
  static std::shared_ptr<RecordedMachine> Load(const std::string& directory);
  // The same from memory: relative path with '/' -> content.
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

  // Where a machine's files come from: a folder, memory, or a Windows volume.
  struct Source {
    std::vector<std::string> names;  // relative paths as in a machine folder, sorted
    std::function<std::string(const std::string&)> read;
    // Files on disk (null from memory): hive files are mapped there.
    std::function<std::string(const std::string&)> diskPath;
    // Hive files opened otherwise (null: from diskPath, else from read).
    std::function<std::unique_ptr<HiveFile>(const std::string&)> openHive;
    // Files under files/ not among `names`, by FileSource key ("c/windows/inf/x.inf"),
    // looked for when a call first opens them (null: there are none).
    std::function<std::optional<std::string>(const std::string&)> findFile;
  };
  // A machine from any source; throws platform::RecordError as Load does.
  static std::shared_ptr<RecordedMachine> FromSource(const Source& source);

  struct Parts;

 private:
  explicit RecordedMachine(std::unique_ptr<Parts> parts);
  static std::shared_ptr<RecordedMachine> Build(const Source& source);
  std::unique_ptr<Parts> parts_;
};

}  // namespace platform::recorded
