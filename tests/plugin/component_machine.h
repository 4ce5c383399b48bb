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

// Counts the registry calls that open, size and close keys; handles opened and not yet
// closed stay in `open`.
class SpyRegistry : public platform::Registry {
 public:
  explicit SpyRegistry(platform::Registry& inner) : inner_(inner) {}
  std::vector<std::string> opened;  // the paths, in order
  unsigned sizeQueries = 0;
  std::set<platform::HKEY> open;

  platform::LONG RegOpenKeyExA(platform::HKEY root, const char* path, platform::DWORD options,
                               platform::REGSAM sam, platform::HKEY* result) override {
    opened.push_back(path);
    const platform::LONG status = inner_.RegOpenKeyExA(root, path, options, sam, result);
    if (status == platform::ERROR_SUCCESS) open.insert(*result);
    return status;
  }
  platform::LONG RegCloseKey(platform::HKEY key) override {
    open.erase(key);
    return inner_.RegCloseKey(key);
  }
  platform::LONG RegQueryInfoKeyA(platform::HKEY k, char* c, platform::DWORD* cl,
                                  platform::DWORD* r, platform::DWORD* sk, platform::DWORD* msk,
                                  platform::DWORD* mcl, platform::DWORD* v, platform::DWORD* mvn,
                                  platform::DWORD* mvl, platform::DWORD* sd,
                                  platform::FILETIME* t) override {
    ++sizeQueries;
    return inner_.RegQueryInfoKeyA(k, c, cl, r, sk, msk, mcl, v, mvn, mvl, sd, t);
  }
  platform::LONG RegEnumKeyExA(platform::HKEY k, platform::DWORD i, char* n, platform::DWORD* l,
                               platform::DWORD* r, char* c, platform::DWORD* cl,
                               platform::FILETIME* t) override {
    return inner_.RegEnumKeyExA(k, i, n, l, r, c, cl, t);
  }
  platform::LONG RegEnumValueA(platform::HKEY k, platform::DWORD i, char* n, platform::DWORD* l,
                               platform::DWORD* r, platform::DWORD* t, platform::BYTE* d,
                               platform::DWORD* dl) override {
    return inner_.RegEnumValueA(k, i, n, l, r, t, d, dl);
  }
  platform::LONG RegQueryValueExA(platform::HKEY k, const char* n, platform::DWORD* r,
                                  platform::DWORD* t, platform::BYTE* d,
                                  platform::DWORD* l) override {
    return inner_.RegQueryValueExA(k, n, r, t, d, l);
  }

 private:
  platform::Registry& inner_;
};

class SpyMachine : public platform::Machine {
 public:
  explicit SpyMachine(std::shared_ptr<platform::Machine> inner)
      : inner_(std::move(inner)), spy(inner_->setup()), registrySpy(inner_->registry()) {}
  platform::Registry& registry() override { return registrySpy; }
  platform::System& system() override { return inner_->system(); }
  platform::Pdh& pdh() override { return inner_->pdh(); }
  platform::NetApi& net() override { return inner_->net(); }
  platform::Wmi& wmi() override { return inner_->wmi(); }
  platform::Setup& setup() override { return spy; }

 private:
  std::shared_ptr<platform::Machine> inner_;

 public:
  SpySetup spy;
  SpyRegistry registrySpy;
};

// Installs a recorded machine behind a spy; answers the spy.
inline std::shared_ptr<SpyMachine> InstallSpied(const Files& files) {
  auto machine =
      std::make_shared<SpyMachine>(platform::recorded::RecordedMachine::FromFiles(files));
  platform::Machine::Install(machine);
  return machine;
}

}  // namespace component_machine
