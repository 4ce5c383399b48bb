// Test helper: makes directories and files inside an NTFS file system image without mounting
// it (mkntfs makes the file system; ntfscp cannot make directories).
//   ntfs_tree IMAGE d PATH | f PATH TEXT | r PATH SIZE ...
// d makes a directory, f a file holding TEXT, r a file of SIZE bytes 'x'. Parents must exist.
#include <sys/stat.h>
#include <time.h>  // before the ntfs-3g headers, which use time() without it

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/types.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}

namespace {

int Fail(const std::string& what) {
  std::perror(what.c_str());
  return 1;
}

// Creates the last name of `path` in its parent, which must exist.
ntfs_inode* Create(ntfs_volume* vol, const std::string& path, mode_t type) {
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "/" : "/" + path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  ntfs_inode* dir = ntfs_pathname_to_inode(vol, nullptr, parent.c_str());
  if (dir == nullptr) return nullptr;
  ntfschar* uname = nullptr;
  const int len = ntfs_mbstoucs(name.c_str(), &uname);
  ntfs_inode* ni = len > 0 ? ntfs_create(dir, const_cpu_to_le32(0), uname, len, type) : nullptr;
  std::free(uname);
  ntfs_inode_close(dir);
  return ni;
}

bool Write(ntfs_inode* ni, const std::string& bytes) {
  ntfs_attr* na = ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0);
  if (na == nullptr) return false;
  const s64 done = ntfs_attr_pwrite(na, 0, static_cast<s64>(bytes.size()), bytes.data());
  ntfs_attr_close(na);
  return done == static_cast<s64>(bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: ntfs_tree IMAGE (d PATH | f PATH TEXT | r PATH SIZE)...\n");
    return 2;
  }
  ntfs_volume* vol = ntfs_mount(argv[1], NTFS_MNT_NONE);
  if (vol == nullptr) return Fail(argv[1]);
  int status = 0;
  for (int i = 2; i < argc && status == 0; ++i) {
    const std::string op = argv[i];
    const bool withData = op != "d";
    if (i + (withData ? 2 : 1) >= argc) {
      std::fprintf(stderr, "ntfs_tree: %s needs its arguments\n", op.c_str());
      status = 2;
      break;
    }
    const std::string path = argv[++i];
    ntfs_inode* ni = Create(vol, path, withData ? S_IFREG : S_IFDIR);
    if (ni == nullptr) {
      status = Fail(path);
      break;
    }
    if (withData) {
      const std::string arg = argv[++i];
      const std::string bytes =
          op == "r" ? std::string(std::strtoull(arg.c_str(), nullptr, 10), 'x') : arg;
      if (!Write(ni, bytes)) status = Fail(path);
    }
    if (ntfs_inode_close(ni) != 0 && status == 0) status = Fail(path);
  }
  if (ntfs_umount(vol, FALSE) != 0 && status == 0) status = Fail("unmount");
  return status;
}
