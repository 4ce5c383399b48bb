#include "platform/recorded/file_source.h"

#include <vector>

#include "platform/recorded/machine_text.h"

namespace platform::recorded {

namespace {

// Splits at '/' and '\', drops "." and empty names, resolves "..".
std::vector<std::string> Names(const std::string& path) {
  std::vector<std::string> names;
  std::string current;
  auto flush = [&] {
    if (current == "..") {
      if (names.size() > 1) names.pop_back();  // never above the drive
    } else if (!current.empty() && current != ".") {
      names.push_back(Lower(current));
    }
    current.clear();
  };
  for (char c : path) {
    if (c == '/' || c == '\\') {
      flush();
    } else {
      current.push_back(c);
    }
  }
  flush();
  return names;
}

std::string Join(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) out += (out.empty() ? "" : "/") + n;
  return out;
}

}  // namespace

std::string FileSource::Key(const std::string& windowsPath) {
  if (windowsPath.size() < 3 || windowsPath[1] != ':' ||
      (windowsPath[2] != '\\' && windowsPath[2] != '/'))
    return "";
  char drive = windowsPath[0];
  if (!((drive >= 'A' && drive <= 'Z') || (drive >= 'a' && drive <= 'z'))) return "";
  std::vector<std::string> names = Names(std::string(1, drive) + windowsPath.substr(2));
  return Join(names);
}

void FileSource::add(const std::string& relative, std::string bytes) {
  files_[Join(Names(relative))] = std::move(bytes);
}

const std::string* FileSource::find(const std::string& windowsPath) const {
  std::string key = Key(windowsPath);
  if (key.empty()) return nullptr;
  auto it = files_.find(key);
  return it == files_.end() ? nullptr : &it->second;
}

}  // namespace platform::recorded
