// Recorded machines for the component tests, and a Setup that lists the files whose
// version is asked for (and can refuse a version query).
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "platform/recorded/recorded_machine.h"

namespace component_machine {

using Files = std::map<std::string, std::string>;

inline const std::string kInfHeader = "[Version]\nSignature=\"$Windows NT$\"\n";

// machine.json of a 64-bit process on C:\W with `path` as PATH, the extra `system` members
// and the `setup.versions` members given (JSON text without braces).
inline std::string MachineJson(const std::string& path, const std::string& versions,
                               const std::string& system = "") {
  return R"({"system": {"windowsDirectory": "C:\\W", "systemDirectory": "C:\\W\\system32",
      "environment": {"PATH": ")" +
         path + "\"}" + (system.empty() ? "" : ", " + system) + R"(},
      "setup": {"versions": {)" +
         versions + "}}}";
}

inline std::string Subcomponents(const std::string& values) {
  return "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\"
         "Windows\\CurrentVersion\\Setup\\Oc Manager\\Subcomponents]\n" +
         values;
}

class SpySetup : public platform::Setup {
 public:
  explicit SpySetup(platform::Setup& inner) : inner_(inner) {}
  std::vector<std::string> versionReads;     // GetFileVersionInfoSizeA, in order
  std::set<std::string> withoutTranslation;  // files whose Translation query fails

  platform::HINF SetupOpenInfFileA(const char* f, const char* c, platform::DWORD s,
                                   platform::UINT* e) override {
    return inner_.SetupOpenInfFileA(f, c, s, e);
  }
  void SetupCloseInfFile(platform::HINF inf) override { inner_.SetupCloseInfFile(inf); }
  platform::BOOL SetupFindFirstLineA(platform::HINF inf, const char* s, const char* k,
                                     platform::INFCONTEXT* c) override {
    return inner_.SetupFindFirstLineA(inf, s, k, c);
  }
  platform::LONG SetupGetLineCountA(platform::HINF inf, const char* s) override {
    return inner_.SetupGetLineCountA(inf, s);
  }
  platform::BOOL SetupGetLineByIndexA(platform::HINF inf, const char* s, platform::DWORD i,
                                      platform::INFCONTEXT* c) override {
    return inner_.SetupGetLineByIndexA(inf, s, i, c);
  }
  platform::BOOL SetupGetStringFieldA(platform::INFCONTEXT* c, platform::DWORD i, char* b,
                                      platform::DWORD n, platform::DWORD* r) override {
    return inner_.SetupGetStringFieldA(c, i, b, n, r);
  }
  platform::BOOL SetupGetLineTextA(platform::INFCONTEXT* c, platform::HINF inf, const char* s,
                                   const char* k, char* b, platform::DWORD n,
                                   platform::DWORD* r) override {
    return inner_.SetupGetLineTextA(c, inf, s, k, b, n, r);
  }
  platform::DWORD GetFileVersionInfoSizeA(const char* f, platform::DWORD* h) override {
    versionReads.push_back(f);
    last_ = f;
    return inner_.GetFileVersionInfoSizeA(f, h);
  }
  platform::BOOL GetFileVersionInfoA(const char* f, platform::DWORD h, platform::DWORD n,
                                     void* d) override {
    return inner_.GetFileVersionInfoA(f, h, n, d);
  }
  platform::BOOL VerQueryValueA(const void* block, const char* q, void** b,
                                platform::UINT* n) override {
    if (withoutTranslation.count(last_) && std::string(q) == "\\VarFileInfo\\Translation")
      return platform::FALSE;
    return inner_.VerQueryValueA(block, q, b, n);
  }

 private:
  platform::Setup& inner_;
  std::string last_;
};

class SpyMachine : public platform::Machine {
 public:
  explicit SpyMachine(std::shared_ptr<platform::Machine> inner)
      : inner_(std::move(inner)), spy(inner_->setup()) {}
  platform::Registry& registry() override { return inner_->registry(); }
  platform::System& system() override { return inner_->system(); }
  platform::Pdh& pdh() override { return inner_->pdh(); }
  platform::NetApi& net() override { return inner_->net(); }
  platform::Wmi& wmi() override { return inner_->wmi(); }
  platform::Setup& setup() override { return spy; }

 private:
  std::shared_ptr<platform::Machine> inner_;

 public:
  SpySetup spy;
};

// Installs a recorded machine behind a spy; answers the spy.
inline std::shared_ptr<SpyMachine> InstallSpied(const Files& files) {
  auto machine =
      std::make_shared<SpyMachine>(platform::recorded::RecordedMachine::FromFiles(files));
  platform::Machine::Install(machine);
  return machine;
}

}  // namespace component_machine
