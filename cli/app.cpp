#include "cli/app.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "cli/formats.h"
#include "cli/reg_query.h"
#include "cli/text.h"
#include "platform/capture/capture.h"
#include "platform/image/image_machine.h"
#include "platform/machine.h"
#include "platform/process.h"
#include "platform/recorded/machine_system.h"
#include "platform/recorded/recorded_machine.h"
#include "platform/recorded/recorded_registry.h"
#include "tessilcore/host.h"

namespace default_machine {
const std::map<std::string, std::string>& files();
}

namespace iac {
namespace {

using NKestovaTessil20::THost;
using NKestovaTessil20::TLogRecord;

#if defined(_WIN32)
const char* const kPluginFile = "\\installedapps.dll";
constexpr bool kLiveByDefault = true;
#else
const char* const kPluginFile = "/installedapps.so";
constexpr bool kLiveByDefault = false;
#endif

// A command line that cannot be carried out as given (exit status 2, like a parse error).
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct MachineOptions {
  std::string directory;
  std::string image;  // a mounted Windows volume or a disk image
  std::string user;   // with an image: the profile that is HKEY_CURRENT_USER
  bool live = false;
};

// --machine DIR | --image PATH [--user NAME] | --live, on each command that reads a machine.
void addMachineOptions(CLI::App* command, MachineOptions& options, const char* liveHelp) {
  CLI::Option* machine =
      command->add_option("--machine", options.directory, "A recorded machine's folder");
  machine->check(CLI::ExistingDirectory);
  CLI::Option* image = command->add_option(
      "--image", options.image,
      "A Windows volume: the folder it is mounted at, or a raw disk or partition image");
  image->check(CLI::ExistingPath)->excludes(machine);
  command
      ->add_option("--user", options.user,
                   "With --image: the profile whose hive is HKEY_CURRENT_USER (default: the "
                   "one written last)")
      ->needs(image);
  if (liveHelp) command->add_flag("--live", options.live, liveHelp)->excludes(machine, image);
}

struct CollectOptions {
  MachineOptions machine;
  std::vector<std::string> classes;
  std::string format = "table";
  unsigned int logLevel = 3;
  std::string logFile;
  std::string plugin;
};

// Installs the machine the command reads: a recorded one from a folder, the live one, or
// by default the live one on Windows and the compiled-in recording elsewhere.
void installMachine(const MachineOptions& options) {
  if (!options.directory.empty()) {
    platform::Machine::Install(platform::recorded::RecordedMachine::Load(options.directory));
  } else if (!options.image.empty()) {
    platform::Machine::Install(platform::image::LoadImage(options.image, {options.user}));
  } else if (options.live) {
    if (!kLiveByDefault) throw UsageError("--live needs Windows; use --machine DIR");
  } else if (!kLiveByDefault) {
    platform::Machine::Install(
        platform::recorded::RecordedMachine::FromFiles(default_machine::files()));
  }
}

std::string describeError(const std::exception& e) {
  if (const auto* host = dynamic_cast<const NKestovaTessil20::TTessilException*>(&e)) {
    if (!host->GetDetail().empty()) return std::string(e.what()) + ": " + host->GetDetail();
  }
  return e.what();
}

// The C runtime's assertion reports of a recorded machine, in the words Windows' runtime
// writes them to the standard error stream.
void reportAssertions(std::ostream& err) {
  const auto* recorded = dynamic_cast<const platform::recorded::RecordedSystem*>(
      &platform::Machine::Current().system());
  if (recorded == nullptr) return;
  for (const platform::recorded::AssertionReport& report : recorded->assertions()) {
    err << "Assertion failed: " << report.expression << ", file " << report.file << ", line "
        << report.line << "\n";
  }
}

// Keys and values of the machine's hive files found damaged while they were read: left
// out of what was shown, and said so.
void reportDamage(std::ostream& err) {
  const auto* registry = dynamic_cast<const platform::recorded::RecordedRegistry*>(
      &platform::Machine::Current().registry());
  if (registry == nullptr) return;
  for (const std::string& line : registry->tree().damage()) err << "iac: warning: " << line << "\n";
}

int collect(const CollectOptions& options, std::ostream& out, std::ostream& err) {
  Format format = Format::kTable;
  parseFormat(options.format, format);
  installMachine(options.machine);

  THost& host = THost::Instance();
  host.LoadSchema();
  host.LoadPlugin(options.plugin.empty() ? platform::ExecutableDirectory() + kPluginFile
                                         : options.plugin);
  host.InitPlugins();
  const std::vector<std::string> names =
      options.classes.empty() ? host.GetPluginClassNames() : options.classes;
  host.Query(names);

  std::vector<ClassView> classes;
  boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns = host.GetNamespace();
  for (const std::string& name : names) {
    ClassView view{name, {}};
    std::string declaredFor;
    std::vector<PropertyView> declared;
    for (const auto& instance : host.GetInstances(name, false)) {
      const std::string className = instance->GetInstanceClassName();
      if (className != declaredFor || view.instances.empty()) {
        declared = describeClass(*ns, className);
        declaredFor = className;
      }
      view.instances.push_back(describeInstance(declared, *instance));
    }
    classes.push_back(std::move(view));
  }
  host.DeInitPlugins();

  std::vector<TLogRecord> log;
  for (const TLogRecord& record : host.GetLog()) {
    if (record.level <= options.logLevel) log.push_back(record);
  }
  const TextEncoder encode = machineTextEncoder();
  const std::string rendered = render(format, classes, log, encode);
  if (!options.logFile.empty()) {
    std::ostringstream text;
    for (const TLogRecord& record : log)
      text << record.level << '\t' << encode(record.message) << '\n';
    std::ofstream file(options.logFile, std::ios::binary | std::ios::trunc);
    if (!(file << text.str()) || !file.flush()) {
      throw std::runtime_error("cannot write the log file " + options.logFile);
    }
  }
  out << rendered;
  reportAssertions(err);
  reportDamage(err);
  host.UnloadPlugins();
  return 0;
}

int listClasses(std::ostream& out) {
  THost& host = THost::Instance();
  host.LoadSchema();
  boost::shared_ptr<NKestovaTessil20::ICIMNamespace> ns = host.GetNamespace();
  std::ostringstream text;
  for (const std::string& name : host.GetClassNames()) {
    boost::shared_ptr<NKestovaTessil20::ICIMClass> cls;
    ns->GetClass(cls, name, {});
    text << name;
    const std::string super = cls->GetSuperClassName();
    if (!super.empty()) text << " : " << super;
    if (cls->IsAssociation()) text << "  [association]";
    text << "\n";
    std::vector<std::string> properties;
    NKestovaTessil20::TAddKeyNamesToVectorCallback collect(properties);
    cls->EnumeratePropertyNames(collect, {});
    for (const std::string& property : properties) {
      boost::shared_ptr<const NKestovaTessil20::ICIMPropertyDecl> decl;
      cls->GetPropertyDecl(decl, property, {});
      NKestovaTessil20::TCIMValue::TCIMType type;
      decl->GetType(type, {});
      std::string typeName = type == NKestovaTessil20::eCIMTypeReference
                                 ? decl->GetReferenceClass() + " ref"
                                 : type.ToString();
      if (decl->IsArray({})) typeName += "[]";
      text << "    " << typeName << " " << property << (decl->IsKey() ? "  [key]" : "") << "\n";
    }
    text << "\n";
  }
  out << text.str();
  return 0;
}

int regQuery(const MachineOptions& machine, const std::string& key,
             const std::vector<std::string>& switches, bool recursive, const std::string& view,
             std::ostream& out, std::ostream& err) {
  for (const std::string& option : switches) {
    if (option == "/s" || option == "/S") {
      recursive = true;
    } else {
      err << "iac: reg query: unknown switch '" << option << "' (only /s)\n";
      return 2;
    }
  }
  // As reg query's /reg:64 and /reg:32; without it, the view of the process iac stands for.
  const platform::REGSAM viewFlag = view == "64"   ? platform::KEY_WOW64_64KEY
                                    : view == "32" ? platform::KEY_WOW64_32KEY
                                                   : 0;
  installMachine(machine);
  std::ostringstream text;
  const int status = RunRegQuery(platform::Machine::Current().registry(), key, recursive, text, err,
                                 platform::Machine::Current().system().GetACP(), viewFlag);
  out << text.str();
  reportDamage(err);
  return status;
}

int capture(const MachineOptions& machine, const std::string& directory, std::ostream& out,
            std::ostream& err) {
  installMachine(machine);
  try {
    platform::capture::CaptureMachine(platform::Machine::Current(), directory);
  } catch (const platform::capture::CaptureRefused& e) {
    throw UsageError(std::string(e.what()) + "; give a new or empty folder");
  }
  out << "iac: captured the machine into " << directory << "\n";
  reportDamage(err);
  return 0;
}

}  // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app{"iac: inventories a Windows machine through the installed-application plug-in"};
  app.name("iac");
  app.require_subcommand(1);

  CollectOptions collectOptions;
  CLI::App* collectCommand = app.add_subcommand("collect", "Run one query and print the instances");
  addMachineOptions(collectCommand, collectOptions.machine, "Inventory this Windows machine");
  collectCommand->add_option("--class", collectOptions.classes,
                             "A class to collect (repeatable; default: every class served)");
  collectCommand->add_option("--format", collectOptions.format, "table, json, jsonl or mof")
      ->check(CLI::IsMember({"table", "json", "jsonl", "mof"}));
  collectCommand
      ->add_option("--log-level", collectOptions.logLevel,
                   "Keep log messages up to this level (0 errors .. 4 detail)")
      ->check(CLI::Range(0, 4));
  collectCommand->add_option("--log", collectOptions.logFile, "Write the kept log to this file");
  collectCommand->add_option("--plugin", collectOptions.plugin, "The plug-in library to load")
      ->check(CLI::ExistingFile);

  CLI::App* classesCommand = app.add_subcommand("classes", "List the schema's classes");

  MachineOptions regMachine;
  std::string regKey;
  std::vector<std::string> regSwitches;
  bool regRecursive = false;
  std::string regView;
  CLI::App* regCommand = app.add_subcommand("reg", "Look at a recorded machine's registry");
  regCommand->require_subcommand(1);
  CLI::App* queryCommand =
      regCommand->add_subcommand("query", "Print keys and values as Windows' reg query does");
  addMachineOptions(queryCommand, regMachine, nullptr);
  queryCommand->add_option("key", regKey, "A key such as HKLM\\SOFTWARE\\Microsoft")->required();
  queryCommand->add_option("switches", regSwitches, "/s: every sub-key too");
  queryCommand->add_flag("-s,--recursive", regRecursive, "Every sub-key too");
  queryCommand
      ->add_option("--view", regView,
                   "64 or 32: read that registry view (default: the process's own)")
      ->check(CLI::IsMember({"64", "32"}));

  MachineOptions captureMachine;
  std::string captureDirectory;
  CLI::App* captureCommand =
      app.add_subcommand("capture", "Record a machine into a recorded machine's folder");
  captureCommand->add_option("--out", captureDirectory, "The folder to write (new or empty)")
      ->required();
  addMachineOptions(captureCommand, captureMachine, "Record this Windows machine");

  // CLI11 would only say that a subcommand is required.
  if (argc > 1 && argv[1][0] != '-' && app.get_subcommands({}).size() > 0) {
    bool known = false;
    for (const CLI::App* command : app.get_subcommands({}))
      known = known || command->check_name(argv[1]);
    if (!known) {
      err << "iac: unknown command '" << argv[1]
          << "' (commands: collect, classes, reg, capture)\n";
      return 2;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream message, help;
    const int status = app.exit(e, help, message);
    out << help.str();
    err << message.str();
    return status == 0 ? 0 : 2;
  }

  try {
    if (collectCommand->parsed()) return collect(collectOptions, out, err);
    if (classesCommand->parsed()) return listClasses(out);
    if (captureCommand->parsed()) return capture(captureMachine, captureDirectory, out, err);
    if (queryCommand->parsed()) {
      return regQuery(regMachine, regKey, regSwitches, regRecursive, regView, out, err);
    }
  } catch (const UsageError& e) {
    err << "iac: " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    err << "iac: error: " << describeError(e) << "\n";
    return 1;
  }
  return 2;
}

}  // namespace iac
