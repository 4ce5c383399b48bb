#include "platform/capture/file_capture.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <istream>
#include <iterator>
#include <map>
#include <set>
#include <vector>

#include "platform/capture/ansi_text.h"

namespace platform::capture {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::streamsize kMaxFileBytes = 4 << 20;
constexpr LONG kMaxInfLines = 10000;

// Windows paths compare without regard to ASCII case.
bool SameText(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

class FileReader {
 public:
  explicit FileReader(Machine& machine) : s_(machine.system()), setup_(machine.setup()) {}

  void bootFiles() {
    const char* drive = s_.getenv("SystemDrive");
    if (drive) copy(std::string(drive) + "\\boot1.ini");
    for (char letter = 'C'; letter <= 'Z'; ++letter) copy(std::string(1, letter) + ":\\boot.ini");
  }

  void components() {
    char buffer[256];
    UINT length = s_.GetSystemWindowsDirectoryA(buffer, sizeof buffer);
    if (length > 0 && length < sizeof buffer) {
      const std::string infDirectory = std::string(buffer, length) + "\\inf";
      length = s_.GetSystemDirectoryA(buffer, sizeof buffer);
      const std::string systemDirectory =
          length > 0 && length < sizeof buffer ? std::string(buffer, length) : std::string();
      for (const std::string& dll : componentFiles(infDirectory)) {
        // The reader's order: the Setup folder as this process sees it, the same with
        // redirection off, then PATH.
        const std::string setupPath = systemDirectory + "\\Setup\\" + dll;
        if (!systemDirectory.empty() &&
            (version(setupPath, true) || (redirectionOff_ && version(setupPath, false))))
          continue;
        onPath(dll, true);
      }
    }
    // The backup program is looked for whether or not there is a component list.
    if (!onPath("ntbackup.exe", true) && redirectionOff_) onPath("ntbackup.exe", false);
  }

  // From here on files are read where they really are. A 32-bit reader on 64-bit Windows
  // finds system32\... in SysWOW64 while redirection is on, and in system32 once it turns
  // redirection off: with redirection off here, both are read and each is recorded under its
  // real path, which a recorded machine answers in the same two modes.
  void turnRedirectionOff() {
    HMODULE kernel = s_.GetModuleHandleA("kernel32");
    BOOL wow64 = FALSE;
    wow64_ = kernel && s_.GetProcAddress(kernel, "IsWow64Process") &&
             s_.IsWow64Process(s_.GetCurrentProcess(), &wow64) && wow64;
    if (kernel && s_.GetProcAddress(kernel, "Wow64DisableWow64FsRedirection") &&
        s_.GetProcAddress(kernel, "Wow64RevertWow64FsRedirection"))
      redirectionOff_ = s_.Wow64DisableWow64FsRedirection(&previousRedirection_) != FALSE;
    char buffer[1024];
    const UINT length = s_.GetSystemWindowsDirectoryA(buffer, sizeof buffer);
    if (length > 0 && length < sizeof buffer) windowsDirectory_.assign(buffer, length);
  }

  void restoreRedirection() {
    if (redirectionOff_) s_.Wow64RevertWow64FsRedirection(previousRedirection_);
    redirectionOff_ = false;
  }

  CapturedFiles result;

 private:
  // Copies sysoc.inf and the INF files it names; answers the setup DLLs whose version the
  // component reader looks for: those of lines whose INF file lists components, read as it
  // reads them (one index past the last line, a missing field keeping the line before's).
  // A DLL named on a line without such a file is never looked for, so neither is it here.
  std::set<std::string> componentFiles(const std::string& infDirectory) {
    std::set<std::string> dlls;
    const std::string master = infDirectory + "\\sysoc.inf";
    if (!copy(master)) return dlls;
    HINF inf = setup_.SetupOpenInfFileA(master.c_str(), nullptr, INF_STYLE_WIN4, nullptr);
    if (inf == INVALID_HANDLE_VALUE) return dlls;
    INFCONTEXT context{};
    if (setup_.SetupFindFirstLineA(inf, "Components", nullptr, &context)) {
      char infName[256] = {}, dllName[256] = {};
      const LONG lines = setup_.SetupGetLineCountA(inf, "Components");
      for (LONG i = 0; i <= lines && i <= kMaxInfLines; ++i) {
        setup_.SetupGetLineByIndexA(inf, "Components", static_cast<DWORD>(i), &context);
        setup_.SetupGetStringFieldA(&context, 3, infName, sizeof infName, nullptr);
        setup_.SetupGetStringFieldA(&context, 1, dllName, sizeof dllName, nullptr);
        const std::string componentInf(infName, strnlen(infName, sizeof infName));
        const std::string dll(dllName, strnlen(dllName, sizeof dllName));
        if (!componentInf.empty() && listsComponents(infDirectory + "\\" + componentInf) &&
            !dll.empty())
          dlls.insert(dll);
      }
    }
    setup_.SetupCloseInfFile(inf);
    return dlls;
  }

  // Copies a component INF file; true when it opens and lists optional components.
  bool listsComponents(const std::string& path) {
    const auto known = listsComponents_.find(path);
    if (known != listsComponents_.end()) return known->second;
    bool lists = false;
    if (copy(path)) {
      HINF inf = setup_.SetupOpenInfFileA(path.c_str(), nullptr, INF_STYLE_WIN4, nullptr);
      if (inf != INVALID_HANDLE_VALUE) {
        INFCONTEXT context{};
        lists = setup_.SetupFindFirstLineA(inf, "optional components", nullptr, &context) &&
                setup_.SetupGetLineCountA(inf, "optional components") > 0;
        setup_.SetupCloseInfFile(inf);
      }
    }
    return listsComponents_[path] = lists;
  }

  // Where a read of `path` lands: with redirection on, a 32-bit process on 64-bit Windows
  // reads <windows>\system32\... from <windows>\SysWOW64\....
  std::string landsAt(const std::string& path, bool redirected) const {
    if (!redirected || !wow64_ || windowsDirectory_.empty()) return path;
    const std::string system32 = windowsDirectory_ + "\\system32";
    if (path.size() < system32.size() || !SameText(path.substr(0, system32.size()), system32) ||
        (path.size() > system32.size() && path[system32.size()] != '\\' &&
         path[system32.size()] != '/'))
      return path;
    return windowsDirectory_ + "\\SysWOW64" + path.substr(system32.size());
  }

  // The path to open so as to read what lands at `target`: itself while redirection is off
  // here; else the path the reader gave, which this process's redirection takes there.
  std::string toOpen(const std::string& path, const std::string& target) const {
    return redirectionOff_ ? target : path;
  }

  // Copies a file's bytes as they are, where a reader with redirection on finds it; false
  // when it cannot be opened.
  bool copy(const std::string& readerPath) {
    const std::string windowsPath = landsAt(readerPath, true);
    const std::string key = relativePath(windowsPath);
    if (key.empty()) return false;
    if (result.files.count(key)) return true;
    std::unique_ptr<std::istream> in = s_.OpenBinaryFile(toOpen(readerPath, windowsPath));
    if (!in) return false;
    std::string bytes;
    char chunk[4096];
    while (in->read(chunk, sizeof chunk) || in->gcount() > 0) {
      bytes.append(chunk, static_cast<size_t>(in->gcount()));
      if (static_cast<std::streamsize>(bytes.size()) > kMaxFileBytes) return false;
    }
    result.files[key] = bytes;
    return true;
  }

  // "C:\WINDOWS\inf\x.inf" -> "files/C/WINDOWS/inf/x.inf"; "" for any other path.
  std::string relativePath(const std::string& windowsPath) {
    const std::string path = AnsiToUtf8(s_, windowsPath);
    if (path.size() < 3 || path[1] != ':' || (path[2] != '\\' && path[2] != '/')) return {};
    std::string key = "files/" + path.substr(0, 1);
    std::string name;
    for (size_t i = 2; i <= path.size(); ++i) {
      if (i == path.size() || path[i] == '\\' || path[i] == '/') {
        if (name == "..") return {};
        if (!name.empty() && name != ".") key += "/" + name;
        name.clear();
      } else {
        name += path[i];
      }
    }
    return key;
  }

  // The first PATH entry whose file has a version, as the component reader searches, with
  // redirection on or off; true when one was found.
  bool onPath(const std::string& name, bool redirected) {
    const char* path = s_.getenv("PATH");
    const std::string list = path ? path : "";
    // A directory named again answers as before (thousands of empty pieces are one "\").
    std::set<std::string> tried;
    size_t start = 0;
    for (;;) {
      const size_t end = list.find(';', start);
      const std::string directory =
          list.substr(start, end == std::string::npos ? end : end - start);
      if (tried.insert(directory).second && version(directory + "\\" + name, redirected))
        return true;
      if (end == std::string::npos) return false;
      start = end + 1;
    }
  }

  // Records the version resource (null for a file without one) of the file that a reader
  // of `readerPath` with redirection on or off reaches; true when it has one. A file that is
  // not there costs one call and leaves nothing behind: the PATH search makes one such
  // lookup per setup DLL and directory, and keeping each (or converting its path) made a
  // capture take many times the reader's time and memory.
  bool version(const std::string& readerPath, bool redirected) {
    const std::string windowsPath = landsAt(readerPath, redirected);
    const std::string opened = toOpen(readerPath, windowsPath);
    DWORD handle = 0;
    const DWORD size = setup_.GetFileVersionInfoSizeA(opened.c_str(), &handle);
    const bool withoutVersion =
        size == 0 && s_.GetLastError() == static_cast<DWORD>(ERROR_RESOURCE_TYPE_NOT_FOUND);
    if ((size == 0 && !withoutVersion) || relativePath(windowsPath).empty()) return false;
    const std::string key = AnsiToUtf8(s_, windowsPath);
    const auto known = recorded_.find(key);
    if (known != recorded_.end()) return known->second;
    if (withoutVersion) {
      result.versions[key] = nullptr;
      return recorded_[key] = false;
    }
    std::vector<BYTE> block(size);
    if (!setup_.GetFileVersionInfoA(opened.c_str(), handle, size, block.data())) return false;
    recorded_[key] = true;
    void* pointer = nullptr;
    UINT length = 0;
    if (!setup_.VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &pointer, &length) ||
        length < 4) {
      result.versions[key] = Json::object();
      return true;
    }
    const auto* pair = static_cast<const WORD*>(pointer);
    const WORD language = pair[0], codePage = pair[1];
    Json record{{"language", language}, {"codePage", codePage}};
    Json strings = Json::object();
    for (const char* name :
         {"FileVersion", "FileDescription", "CompanyName", "ProductName", "ProductVersion",
          "InternalName", "OriginalFilename", "LegalCopyright"}) {
      char query[64];
      std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\%s", language, codePage,
                    name);
      if (!setup_.VerQueryValueA(block.data(), query, &pointer, &length) || length == 0) continue;
      const std::string text = AnsiToUtf8(s_, static_cast<const char*>(pointer));
      if (name == std::string("FileVersion")) {
        record["fileVersion"] = text;
      } else if (name == std::string("FileDescription")) {
        record["fileDescription"] = text;
      } else {
        strings[name] = text;
      }
    }
    if (!strings.empty()) record["strings"] = strings;
    result.versions[key] = record;
    return true;
  }

  System& s_;
  Setup& setup_;
  bool wow64_ = false;           // a 32-bit process on 64-bit Windows
  bool redirectionOff_ = false;  // this capture turned file-system redirection off
  void* previousRedirection_ = nullptr;
  std::string windowsDirectory_;
  std::map<std::string, bool> recorded_;  // versions recorded, by path: true with a version
  std::map<std::string, bool> listsComponents_;
};

}  // namespace

CapturedFiles CaptureFiles(Machine& machine) {
  FileReader reader(machine);
  reader.turnRedirectionOff();
  try {
    reader.bootFiles();
    reader.components();
  } catch (...) {
    reader.restoreRedirection();
    throw;
  }
  reader.restoreRedirection();
  return std::move(reader.result);
}

}  // namespace platform::capture
