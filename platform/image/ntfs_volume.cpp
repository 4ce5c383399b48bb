#include "platform/image/ntfs_volume.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>  // before the ntfs-3g headers, which call time() without including it
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <type_traits>

extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/types.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
// The library's own min and max macros would break std::min and std::max.
#undef min
#undef max

#include "platform/image/volume_path.h"
#include "platform/recorded/codepage.h"

namespace platform::image {

namespace {

// A directory listing longer than this is taken as a damaged index.
constexpr std::size_t kMaxEntries = 1u << 20;
constexpr u64 kNotFound = static_cast<u64>(-1);

// The library is loaded when the first NTFS image is opened, not linked: most runs read no
// image, and the plug-in module, which links this code, should not carry the library.
struct NtfsLibrary {
  decltype(&::ntfs_log_set_handler) log_set_handler;
  decltype(&::ntfs_log_handler_null) log_handler_null;
  decltype(&::ntfs_device_alloc) device_alloc;
  decltype(&::ntfs_device_free) device_free;
  decltype(&::ntfs_device_mount) device_mount;
  decltype(&::ntfs_umount) umount;
  decltype(&::ntfs_inode_open) inode_open;
  decltype(&::ntfs_inode_close) inode_close;
  decltype(&::ntfs_inode_lookup_by_name) inode_lookup_by_name;
  decltype(&::ntfs_readdir) readdir;
  decltype(&::ntfs_names_are_equal) names_are_equal;
  decltype(&::ntfs_attr_open) attr_open;
  decltype(&::ntfs_attr_close) attr_close;
  decltype(&::ntfs_attr_pread) attr_pread;
  ntfschar* unnamed;  // AT_UNNAMED: the library tells the unnamed stream by this address
};

// The loaded library (kept for the life of the process); null, with the reason in `why`,
// when it cannot be loaded.
const NtfsLibrary* Ntfs(std::string* why = nullptr) {
  static NtfsLibrary library;
  static bool loaded = false;
  static std::string failure;
  static std::once_flag once;
  std::call_once(once, [] {
    void* handle = ::dlopen(KPLATFORM_NTFS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* error = ::dlerror();
      failure = std::string("the NTFS library ") + KPLATFORM_NTFS_LIBRARY + " cannot be loaded (" +
                (error ? error : "unknown error") + ")";
      return;
    }
    bool complete = true;
    const auto bind = [&](auto& slot, const char* name) {
      slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(::dlsym(handle, name));
      if (slot == nullptr && complete) {
        complete = false;
        failure = std::string("the NTFS library ") + KPLATFORM_NTFS_LIBRARY + " lacks " + name;
      }
    };
    bind(library.log_set_handler, "ntfs_log_set_handler");
    bind(library.log_handler_null, "ntfs_log_handler_null");
    bind(library.device_alloc, "ntfs_device_alloc");
    bind(library.device_free, "ntfs_device_free");
    bind(library.device_mount, "ntfs_device_mount");
    bind(library.umount, "ntfs_umount");
    bind(library.inode_open, "ntfs_inode_open");
    bind(library.inode_close, "ntfs_inode_close");
    bind(library.inode_lookup_by_name, "ntfs_inode_lookup_by_name");
    bind(library.readdir, "ntfs_readdir");
    bind(library.names_are_equal, "ntfs_names_are_equal");
    bind(library.attr_open, "ntfs_attr_open");
    bind(library.attr_close, "ntfs_attr_close");
    bind(library.attr_pread, "ntfs_attr_pread");
    bind(library.unnamed, "AT_UNNAMED");
    if (!complete) return;
    // The library logs faults of damaged volumes on stderr; callers get them as answers.
    library.log_set_handler(library.log_handler_null);
    loaded = true;
  });
  if (!loaded && why != nullptr) *why = failure;
  return loaded ? &library : nullptr;
}

// The byte range of the image that the library sees as its whole device. Writes are refused
// whatever the mount flags say.
struct Range {
  int fd = -1;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  std::int64_t position = 0;
};

Range& RangeOf(struct ntfs_device* dev) {
  return *static_cast<Range*>(dev->d_private);
}

int DeviceOpen(struct ntfs_device* dev, int) {
  NDevSetOpen(dev);
  NDevSetReadOnly(dev);
  return 0;
}

int DeviceClose(struct ntfs_device* dev) {
  NDevClearOpen(dev);
  return 0;
}

s64 DeviceSeek(struct ntfs_device* dev, s64 offset, int whence) {
  Range& range = RangeOf(dev);
  s64 base = 0;
  if (whence == SEEK_CUR) base = range.position;
  if (whence == SEEK_END) base = static_cast<s64>(range.length);
  if (offset < -base) {
    errno = EINVAL;
    return -1;
  }
  range.position = base + offset;
  return range.position;
}

s64 DevicePread(struct ntfs_device* dev, void* buffer, s64 count, s64 offset) {
  const Range& range = RangeOf(dev);
  if (offset < 0 || count < 0) {
    errno = EINVAL;
    return -1;
  }
  if (static_cast<std::uint64_t>(offset) >= range.length) return 0;
  const std::uint64_t want =
      std::min<std::uint64_t>(static_cast<std::uint64_t>(count), range.length - offset);
  std::uint64_t done = 0;
  while (done < want) {
    const ssize_t got = ::pread(range.fd, static_cast<char*>(buffer) + done, want - done,
                                static_cast<off_t>(range.offset + offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return done > 0 ? static_cast<s64>(done) : -1;
    if (got == 0) break;
    done += static_cast<std::uint64_t>(got);
  }
  return static_cast<s64>(done);
}

s64 DeviceRead(struct ntfs_device* dev, void* buffer, s64 count) {
  const s64 got = DevicePread(dev, buffer, count, RangeOf(dev).position);
  if (got > 0) RangeOf(dev).position += got;
  return got;
}

s64 DeviceWrite(struct ntfs_device*, const void*, s64) {
  errno = EROFS;
  return -1;
}

s64 DevicePwrite(struct ntfs_device*, const void*, s64, s64) {
  errno = EROFS;
  return -1;
}

int DeviceSync(struct ntfs_device*) {
  return 0;
}

int DeviceStat(struct ntfs_device* dev, struct stat* buffer) {
  std::memset(buffer, 0, sizeof *buffer);
  buffer->st_mode = S_IFREG | 0444;
  buffer->st_size = static_cast<off_t>(RangeOf(dev).length);
  return 0;
}

int DeviceIoctl(struct ntfs_device*, unsigned long, void*) {
  errno = ENOTTY;
  return -1;
}

struct ntfs_device_operations kRangeOperations = {
    DeviceOpen,  DeviceClose,  DeviceSeek, DeviceRead, DeviceWrite,
    DevicePread, DevicePwrite, DeviceSync, DeviceStat, DeviceIoctl,
};

std::u16string FromNtfs(const ntfschar* name, int length) {
  std::u16string text(static_cast<std::size_t>(std::max(length, 0)), u'\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = le16_to_cpu(name[i]);
  return text;
}

std::vector<ntfschar> ToNtfs(const std::u16string& text) {
  std::vector<ntfschar> name(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) name[i] = cpu_to_le16(text[i]);
  return name;
}

struct InodeCloser {
  void operator()(ntfs_inode* inode) const { Ntfs()->inode_close(inode); }
};
using Inode = std::unique_ptr<ntfs_inode, InodeCloser>;

struct AttrCloser {
  void operator()(ntfs_attr* attr) const { Ntfs()->attr_close(attr); }
};
using Attr = std::unique_ptr<ntfs_attr, AttrCloser>;

bool IsDirectoryInode(const ntfs_inode* inode) {
  return (inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) != 0;
}

// What ntfs_readdir hands its callback, gathered for a lookup or a listing.
struct Scan {
  ntfs_volume* volume = nullptr;
  const std::vector<ntfschar>* wanted = nullptr;  // a lookup: the name sought
  u64 found = kNotFound;
  bool root = false;
  std::vector<std::string> names;  // a listing
};

int Collect(void* context, const ntfschar* name, const int length, const int type, const s64,
            const MFT_REF ref, const unsigned) {
  Scan& scan = *static_cast<Scan*>(context);
  const bool dots = (length == 1 || length == 2) && le16_to_cpu(name[0]) == u'.' &&
                    (length == 1 || le16_to_cpu(name[1]) == u'.');
  if (dots) return 0;
  if (scan.wanted != nullptr) {
    if (Ntfs()->names_are_equal(name, static_cast<std::size_t>(length), scan.wanted->data(),
                                scan.wanted->size(), IGNORE_CASE, scan.volume->upcase,
                                scan.volume->upcase_len)) {
      scan.found = ref;
      return 1;
    }
    return 0;
  }
  // Short 8.3 names duplicate a long one; the root's metadata files ($MFT...) are not
  // listed by Windows either.
  if (type == FILE_NAME_DOS || (scan.root && MREF(ref) < FILE_first_user)) return 0;
  if (scan.names.size() >= kMaxEntries) return 1;
  scan.names.push_back(recorded::WideToUtf8(FromNtfs(name, length)));
  return 0;
}

class NtfsVolume : public Volume {
 public:
  NtfsVolume(int fd, std::unique_ptr<Range> range, ntfs_volume* volume, std::string description)
      : fd_(fd), range_(std::move(range)), volume_(volume), description_(std::move(description)) {}

  ~NtfsVolume() override {
    Ntfs()->umount(volume_, FALSE);
    ::close(fd_);
  }

  bool isDirectory(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const Inode inode = open(path);
    return inode && IsDirectoryInode(inode.get());
  }

  std::optional<std::uint64_t> fileSize(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const Inode inode = open(path);
    if (!inode || IsDirectoryInode(inode.get())) return std::nullopt;
    const Attr data(Ntfs()->attr_open(inode.get(), AT_DATA, Ntfs()->unnamed, 0));
    if (!data || data->data_size < 0) return std::nullopt;
    return static_cast<std::uint64_t>(data->data_size);
  }

  std::optional<std::string> readFile(const std::string& path, std::uint64_t maxBytes) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const Inode inode = open(path);
    if (!inode || IsDirectoryInode(inode.get())) return std::nullopt;
    const Attr data(Ntfs()->attr_open(inode.get(), AT_DATA, Ntfs()->unnamed, 0));
    if (!data || data->data_size < 0 || static_cast<std::uint64_t>(data->data_size) > maxBytes) {
      return std::nullopt;
    }
    std::string bytes(static_cast<std::size_t>(data->data_size), '\0');
    s64 done = 0;
    while (done < data->data_size) {
      const s64 got = Ntfs()->attr_pread(data.get(), done, data->data_size - done, &bytes[done]);
      if (got <= 0) return std::nullopt;
      done += got;
    }
    return bytes;
  }

  std::vector<std::string> list(const std::string& directory) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const Inode inode = open(directory);
    if (!inode || !IsDirectoryInode(inode.get())) return {};
    Scan scan;
    scan.volume = volume_;
    scan.root = inode->mft_no == FILE_root;
    s64 position = 0;
    Ntfs()->readdir(inode.get(), &position, &scan, Collect);
    return scan.names;
  }

  std::string localPath(const std::string&) override { return {}; }

  std::string describe() const override { return description_; }

 private:
  // The inode at `path`, each name matched as Windows matches it: the index is searched
  // for the name as given, and when that misses (the library's own search ignores case only
  // for Win32 names) the directory is read and compared through the volume's $UpCase table.
  Inode open(const std::string& path) {
    const auto names = SplitVolumePath(path);
    if (!names) return nullptr;
    Inode current(Ntfs()->inode_open(volume_, FILE_root));
    for (const std::string& name : *names) {
      if (!current || !IsDirectoryInode(current.get())) return nullptr;
      const std::vector<ntfschar> wanted = ToNtfs(recorded::Utf8ToWide(name));
      if (wanted.empty() || wanted.size() > 255) return nullptr;
      u64 ref = Ntfs()->inode_lookup_by_name(current.get(), wanted.data(),
                                             static_cast<int>(wanted.size()));
      if (ref == kNotFound) {
        Scan scan;
        scan.volume = volume_;
        scan.wanted = &wanted;
        s64 position = 0;
        Ntfs()->readdir(current.get(), &position, &scan, Collect);
        ref = scan.found;
      }
      if (ref == kNotFound) return nullptr;
      current.reset(Ntfs()->inode_open(volume_, ref));
    }
    return current;
  }

  std::mutex mutex_;
  int fd_;
  std::unique_ptr<Range> range_;  // the device's private data, alive as long as the volume
  ntfs_volume* volume_;
  std::string description_;
};

}  // namespace

std::unique_ptr<Volume> OpenNtfsVolume(const std::string& imagePath, std::uint64_t offset,
                                       std::uint64_t length, const std::string& description,
                                       std::string& why) {
  if (Ntfs(&why) == nullptr) return nullptr;
  const int fd = ::open(imagePath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    why = std::strerror(errno);
    return nullptr;
  }
  auto range = std::make_unique<Range>();
  range->fd = fd;
  range->offset = offset;
  range->length = length;
  struct ntfs_device* device =
      Ntfs()->device_alloc(description.c_str(), 0, &kRangeOperations, range.get());
  if (device == nullptr) {
    why = std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  ntfs_volume* volume = Ntfs()->device_mount(device, NTFS_MNT_RDONLY);
  if (volume == nullptr) {
    why = errno != 0 ? std::strerror(errno) : "not an NTFS file system";
    Ntfs()->device_free(device);
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<NtfsVolume>(fd, std::move(range), volume, description);
}

}  // namespace platform::image
