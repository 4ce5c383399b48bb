// Records a machine, read only through its platform families, into a recorded-machine
// folder that RecordedMachine::Load reads back with the same answers.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/export.h"
#include "platform/machine.h"

namespace platform::capture {

// The folder given cannot take a capture (it exists and is not an empty folder).
class KPLATFORM_API CaptureRefused : public std::runtime_error {
 public:
  explicit CaptureRefused(const std::string& message) : std::runtime_error(message) {}
  ~CaptureRefused() override;
};

// Writes machine.json, registry/captured.reg and files/ into `directory`: first into a
// sibling `<directory>.tmp-XXXX`, renamed into place when complete, so that a failed
// capture leaves nothing half-written. A trailing separator names the same folder. Throws
// CaptureRefused for a `directory` that exists and is not an empty folder,
// std::runtime_error when writing fails.
KPLATFORM_API void CaptureMachine(Machine& machine, const std::string& directory);

}  // namespace platform::capture
