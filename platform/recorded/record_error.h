// The one exception a recorded machine throws: its files cannot be read as a machine.
// Messages name the file (and the line, for text files) so a user can fix the record.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/export.h"

namespace platform {

class KPLATFORM_API RecordError : public std::runtime_error {
 public:
  explicit RecordError(const std::string& message) : std::runtime_error(message) {}
  // Out of line so that one vtable and type identity live in kplatform, and a catch in a
  // test or in iac matches what the library threw.
  ~RecordError() override;
};

}  // namespace platform
