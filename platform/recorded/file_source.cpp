#include "platform/recorded/file_source.h"

#include <fstream>
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
  std::lock_guard<std::mutex> lock(mutex_);
  files_[Join(Names(relative))] = Entry{std::string(), std::move(bytes), true, true};
}

void FileSource::addFile(const std::string& relative, std::string diskPath) {
  std::lock_guard<std::mutex> lock(mutex_);
  files_[Join(Names(relative))] = Entry{std::move(diskPath), std::string(), false, true};
}

void FileSource::setFallback(
    std::function<std::optional<std::string>(const std::string&)> fallback) {
  std::lock_guard<std::mutex> lock(mutex_);
  fallback_ = std::move(fallback);
}

const std::string* FileSource::find(const std::string& windowsPath) const {
  std::string key = Key(windowsPath);
  if (key.empty()) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(key);
  if (it == files_.end()) {
    if (!fallback_) return nullptr;
    std::optional<std::string> found = fallback_(key);
    it = files_
             .emplace(key, Entry{std::string(), found ? std::move(*found) : std::string(), true,
                                 found.has_value()})
             .first;
  }
  Entry& entry = it->second;
  if (!entry.read) {
    entry.read = true;
    std::ifstream in(entry.diskPath, std::ios::binary | std::ios::ate);
    const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : -1;
    try {
      entry.bytes.resize(size >= 0 ? static_cast<size_t>(size) : 0);
      in.seekg(0);
      entry.readable = size >= 0 && (size == 0 || in.read(&entry.bytes[0], size));
    } catch (const std::exception&) {  // larger than memory: as unreadable
      entry.readable = false;
    }
    if (!entry.readable) std::string().swap(entry.bytes);
  }
  return entry.readable ? &entry.bytes : nullptr;
}

}  // namespace platform::recorded
