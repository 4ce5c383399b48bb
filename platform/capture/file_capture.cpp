#include "platform/capture/file_capture.h"

#include <cstdio>
#include <istream>
#include <iterator>
#include <set>
#include <vector>

#include "platform/capture/ansi_text.h"

namespace platform::capture {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::streamsize kMaxFileBytes = 4 << 20;
constexpr LONG kMaxInfLines = 10000;

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
    if (length == 0 || length >= sizeof buffer) return;
    const std::string infDirectory = std::string(buffer, length) + "\\inf";
    length = s_.GetSystemDirectoryA(buffer, sizeof buffer);
    const std::string systemDirectory =
        length > 0 && length < sizeof buffer ? std::string(buffer, length) : std::string();

    const std::string master = infDirectory + "\\sysoc.inf";
    if (!copy(master)) return;
    std::set<std::string> dlls;
    HINF inf = setup_.SetupOpenInfFileA(master.c_str(), nullptr, INF_STYLE_WIN4, nullptr);
    if (inf == INVALID_HANDLE_VALUE) return;
    const LONG lines = setup_.SetupGetLineCountA(inf, "Components");
    for (LONG i = 0; i < lines && i < kMaxInfLines; ++i) {
      INFCONTEXT context{};
      if (!setup_.SetupGetLineByIndexA(inf, "Components", static_cast<DWORD>(i), &context))
        continue;
      const std::string dll = field(context, 1), componentInf = field(context, 3);
      if (!componentInf.empty()) copy(infDirectory + "\\" + componentInf);
      if (!dll.empty()) dlls.insert(dll);
    }
    setup_.SetupCloseInfFile(inf);
    for (const std::string& dll : dlls) {
      if (!systemDirectory.empty() && version(systemDirectory + "\\Setup\\" + dll)) continue;
      onPath(dll);
    }
    onPath("ntbackup.exe");
  }

  CapturedFiles result;

 private:
  std::string field(INFCONTEXT& context, DWORD index) {
    char text[256] = {};
    DWORD needed = 0;
    if (!setup_.SetupGetStringFieldA(&context, index, text, sizeof text, &needed)) return {};
    return text;
  }

  // Copies a file the machine opens as text; false when it cannot be opened.
  bool copy(const std::string& windowsPath) {
    const std::string key = relativePath(windowsPath);
    if (key.empty()) return false;
    if (result.files.count(key)) return true;
    std::unique_ptr<std::istream> in = s_.OpenTextFile(windowsPath);
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

  // The first PATH entry whose file has a version, as the component reader searches.
  void onPath(const std::string& name) {
    const char* path = s_.getenv("PATH");
    if (!path) return;
    const std::string list = path;
    size_t start = 0;
    for (;;) {
      const size_t end = list.find(';', start);
      if (version(list.substr(start, end - start) + "\\" + name)) return;
      if (end == std::string::npos) return;
      start = end + 1;
    }
  }

  // Records the file's version resource (null for a file without one); true when it has one.
  bool version(const std::string& windowsPath) {
    const std::string key = AnsiToUtf8(s_, windowsPath);
    if (relativePath(windowsPath).empty()) return false;
    if (result.versions.contains(key)) return !result.versions[key].is_null();
    DWORD handle = 0;
    const DWORD size = setup_.GetFileVersionInfoSizeA(windowsPath.c_str(), &handle);
    if (size == 0) {
      if (s_.GetLastError() == static_cast<DWORD>(ERROR_RESOURCE_TYPE_NOT_FOUND))
        result.versions[key] = nullptr;
      return false;
    }
    std::vector<BYTE> block(size);
    if (!setup_.GetFileVersionInfoA(windowsPath.c_str(), handle, size, block.data())) return false;
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
};

}  // namespace

CapturedFiles CaptureFiles(Machine& machine) {
  FileReader reader(machine);
  reader.bootFiles();
  reader.components();
  return std::move(reader.result);
}

}  // namespace platform::capture
