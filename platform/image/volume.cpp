#include "platform/image/volume.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/image/partition_table.h"
#include "platform/image/volume_path.h"
#include "platform/recorded/codepage.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/registry_model.h"

#ifdef KPLATFORM_NTFS
#include "platform/image/ntfs_volume.h"
#endif

namespace fs = std::filesystem;

namespace platform::image {

Volume::~Volume() = default;

namespace {

// Whether `path` is `root` or below it; both canonical.
bool Within(const fs::path& path, const fs::path& root) {
  auto p = path.begin();
  for (auto r = root.begin(); r != root.end(); ++r, ++p) {
    if (r->empty()) continue;  // the trailing "" of a root ending in a separator
    if (p == path.end() || *p != *r) return false;
  }
  return true;
}

// A volume mounted on this computer. Names are matched without regard to case even on a
// case-sensitive file system, and no path leads out of the root, whether by ".." or by a
// symbolic link.
class DirectoryVolume : public Volume {
 public:
  DirectoryVolume(fs::path root, std::string description)
      : root_(std::move(root)), description_(std::move(description)) {}

  bool isDirectory(const std::string& path) override {
    std::error_code error;
    const auto real = resolve(path);
    return real && fs::is_directory(*real, error);
  }

  std::optional<std::uint64_t> fileSize(const std::string& path) override {
    std::error_code error;
    const auto real = resolve(path);
    if (!real || !fs::is_regular_file(*real, error)) return std::nullopt;
    const std::uintmax_t size = fs::file_size(*real, error);
    if (error) return std::nullopt;
    return size;
  }

  std::optional<std::string> readFile(const std::string& path, std::uint64_t maxBytes) override {
    const auto size = fileSize(path);
    if (!size || *size > maxBytes) return std::nullopt;
    std::ifstream in(*resolve(path), std::ios::binary);
    if (!in) return std::nullopt;
    // Read one byte past the cap, so that a file that grew since is refused too.
    std::string bytes(static_cast<std::size_t>(std::min<std::uint64_t>(maxBytes, *size) + 1), '\0');
    in.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    const auto got = static_cast<std::uint64_t>(in.gcount());
    if (got > maxBytes) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
  }

  std::vector<std::string> list(const std::string& directory) override {
    std::vector<std::string> names;
    const auto real = resolve(directory);
    std::error_code error;
    if (!real || !fs::is_directory(*real, error)) return names;
    for (fs::directory_iterator it(*real, error), end; !error && it != end; it.increment(error)) {
      names.push_back(it->path().filename().u8string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string localPath(const std::string& path) override {
    const auto real = resolve(path);
    return real ? real->u8string() : std::string();
  }

  std::string describe() const override { return description_; }

 private:
  // The real path of `path`: each name taken as it is when it exists, otherwise the entry
  // whose name equals it without regard to case; symbolic links followed but never out of
  // the root.
  std::optional<fs::path> resolve(const std::string& path) const {
    const auto names = SplitVolumePath(path);
    if (!names) return std::nullopt;
    fs::path current = root_;
    std::error_code error;
    for (const std::string& name : *names) {
      fs::path next = current / fs::u8path(name);
      if (!fs::exists(fs::symlink_status(next, error))) {
        next.clear();
        const std::u16string wanted = recorded::Utf8ToWide(name);
        for (fs::directory_iterator it(current, error), end; !error && it != end;
             it.increment(error)) {
          if (recorded::NamesEqual(recorded::Utf8ToWide(it->path().filename().u8string()),
                                   wanted)) {
            next = it->path();
            break;
          }
        }
        if (next.empty()) return std::nullopt;
      }
      current = fs::canonical(next, error);
      if (error || !Within(current, root_)) return std::nullopt;
    }
    return current;
  }

  fs::path root_;  // canonical
  std::string description_;
};

std::string Joined(const std::vector<std::string>& items, std::size_t most) {
  std::string text;
  for (std::size_t i = 0; i < items.size() && i < most; ++i) {
    text += (i == 0 ? "" : ", ") + items[i];
  }
  if (items.size() > most) text += ", ...";
  return text;
}

// The volumes of an image file, and a line for each partition (and each fault of the
// table) for messages.
struct ImageVolumes {
  std::vector<std::unique_ptr<Volume>> volumes;
  std::vector<std::string> found;
};

#ifdef KPLATFORM_NTFS

ImageVolumes OpenImage(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  if (!in) throw RecordError(path + ": cannot be opened");
  in.seekg(0, std::ios::end);
  const auto end = in.tellg();
  if (end < 0) throw RecordError(path + ": cannot be read");
  const auto size = static_cast<std::uint64_t>(end);
  const ReadAt read = [&in](std::uint64_t offset, std::size_t count, std::uint8_t* out) {
    in.clear();
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(count));
    return in.gcount() == static_cast<std::streamsize>(count);
  };
  const PartitionTable table = ReadPartitionTable(read, size);
  ImageVolumes image;
  const std::string name = fs::u8path(path).filename().u8string();
  for (const Partition& partition : table.partitions) {
    const std::string where =
        partition.number == 0 ? name : name + ", partition " + std::to_string(partition.number);
    if (!partition.ntfs) {
      image.found.push_back("partition " + std::to_string(partition.number) + " (type " +
                            partition.type + ") is not NTFS");
      continue;
    }
    std::string why;
    auto volume =
        OpenNtfsVolume(path, partition.offset, partition.length,
                       where + " (NTFS at byte " + std::to_string(partition.offset) + ")", why);
    if (!volume) {
      image.found.push_back(where + ": an NTFS that cannot be read (" + why + ")");
      continue;
    }
    image.found.push_back(where + ": NTFS without a Windows directory");
    image.volumes.push_back(std::move(volume));
  }
  if (table.partitions.empty()) {
    image.found.push_back(table.scheme.empty() ? "no partition table"
                                               : table.scheme + " without partitions");
  }
  image.found.insert(image.found.end(), table.problems.begin(), table.problems.end());
  return image;
}

#else

ImageVolumes OpenImage(const std::string& path) {
  throw RecordError(path + ": image files cannot be read in this build");
}

#endif

enum class Kind { Directory, Image };

Kind KindOf(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(fs::u8path(path), error);
  if (!fs::exists(status)) throw RecordError(path + ": no such file or directory");
  if (fs::is_directory(status)) return Kind::Directory;
  if (fs::is_regular_file(status) || fs::is_block_file(status)) return Kind::Image;
  throw RecordError(path + ": neither a directory nor an image file");
}

std::unique_ptr<Volume> OpenDirectory(const std::string& path) {
  std::error_code error;
  fs::path root = fs::canonical(fs::u8path(path), error);
  if (error) throw RecordError(path + ": " + error.message());
  return std::make_unique<DirectoryVolume>(std::move(root), path);
}

}  // namespace

std::unique_ptr<Volume> OpenWindowsVolume(const std::string& path) {
  if (KindOf(path) == Kind::Directory) {
    auto volume = OpenDirectory(path);
    if (!volume->isDirectory("Windows")) {
      const std::vector<std::string> names = volume->list("");
      throw RecordError(path + ": no Windows directory here (found: " +
                        (names.empty() ? std::string("nothing") : Joined(names, 10)) + ")");
    }
    return volume;
  }
  ImageVolumes image = OpenImage(path);
  // A volume with the registry's folder wins over one with a bare Windows directory (a
  // leftover, or a partition that only holds a copy of it).
  for (const char* marker : {"Windows\\System32\\config", "Windows"}) {
    for (auto& volume : image.volumes) {
      if (volume->isDirectory(marker)) return std::move(volume);
    }
  }
  throw RecordError(
      path + ": no NTFS volume with a Windows directory (found: " + Joined(image.found, 10) + ")");
}

std::vector<std::unique_ptr<Volume>> OpenVolumes(const std::string& path) {
  std::vector<std::unique_ptr<Volume>> volumes;
  if (KindOf(path) == Kind::Directory) {
    volumes.push_back(OpenDirectory(path));
    return volumes;
  }
  return std::move(OpenImage(path).volumes);
}

}  // namespace platform::image
