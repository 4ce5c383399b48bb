// An NTFS file system at a byte range of an image file, read through libntfs-3g without
// mounting it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/image/volume.h"

namespace platform::image {

// The NTFS at [offset, offset + length) of the image file at `imagePath`, described by
// `description` in messages. Answers nullptr and puts the reason in `why` when it cannot be
// read as NTFS.
std::unique_ptr<Volume> OpenNtfsVolume(const std::string& imagePath, std::uint64_t offset,
                                       std::uint64_t length, const std::string& description,
                                       std::string& why);

}  // namespace platform::image
