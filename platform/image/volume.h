// A Windows volume read without Windows: a directory where it is mounted, or an NTFS file
// system inside a raw disk or partition image. Read-only; nothing is mounted.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"

namespace platform::image {

class KPLATFORM_API Volume {
 public:
  virtual ~Volume();

  // Paths are relative to the volume's root, names separated by '\' or '/', and matched
  // without regard to case, as Windows matches them ("windows\system32\CONFIG\software").
  // Each answers nullopt (or false, or empty) when the path does not lead to what is asked.
  virtual bool isDirectory(const std::string& path) = 0;
  virtual std::optional<std::uint64_t> fileSize(const std::string& path) = 0;
  // The whole file; nullopt when it is absent, unreadable or larger than `maxBytes`.
  virtual std::optional<std::string> readFile(const std::string& path, std::uint64_t maxBytes) = 0;
  // The names in a directory as stored (case kept); empty when it is none.
  virtual std::vector<std::string> list(const std::string& directory) = 0;
  // A path on this computer's file system where the file can be opened directly (a
  // mounted volume); empty when there is none (inside an image).
  virtual std::string localPath(const std::string& path) = 0;
  // For messages: "/mnt/win" or "disk.img, partition 2 (NTFS at byte 1048576)".
  virtual std::string describe() const = 0;
};

// The Windows volume at PATH: a directory holding a Windows directory, or an image file
// (an MBR or GPT disk, or a bare NTFS partition) whose NTFS volume with a Windows
// directory is taken. Throws platform::RecordError with a message that names PATH and says
// what was found instead.
KPLATFORM_API std::unique_ptr<Volume> OpenWindowsVolume(const std::string& path);

// Every volume of the image at PATH that can be read (each NTFS partition; for a directory,
// the directory itself), the Windows one among them: a boot partition may hold Boot\BCD.
KPLATFORM_API std::vector<std::unique_ptr<Volume>> OpenVolumes(const std::string& path);

}  // namespace platform::image
