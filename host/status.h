// Host status codes and the host's exception.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "host/export.h"

namespace NKestovaTessil20 {

// Codes the host raises. The plug-in relies on 7 (missing host object) and 21 (malformed
// date-time); the rest are the host's own.
enum ETessilStatus : std::uint32_t {
  kStatusOk = 0,
  kStatusFailed = 1,
  kStatusNotFound = 2,
  kStatusInvalidArgument = 3,
  kStatusTypeMismatch = 4,
  kStatusAlreadyExists = 5,
  kStatusNotSupported = 6,
  kStatusNoObject = 7,
  kStatusAlreadyCommitted = 8,
  kStatusNotCommitted = 9,
  kStatusPluginLoadFailed = 10,
  kStatusPluginNotRegistered = 11,
  kStatusSchemaError = 12,
  kStatusInvalidNumber = 20,
  kStatusInvalidDateTime = 21,
  kStatusNumberOutOfRange = 22,
  kStatusInvalidReference = 23,
};

class TESSIL_API TTessilStatusCode {
 public:
  TTessilStatusCode(std::uint32_t code = kStatusOk) : code_(code) {}
  std::uint32_t GetCode() const { return code_; }
  operator std::uint32_t() const { return code_; }
  // The host's text for the code; stable for the life of the process.
  const std::string& TranslateStatusCode() const;

 private:
  std::uint32_t code_;
};

class TESSIL_API TTessilException : public std::exception {
 public:
  explicit TTessilException(TTessilStatusCode code) : code_(code) {}
  // Extra detail for people (a file and line, the offending text); what() stays the
  // host's translation of the code, which callers compare against.
  TTessilException(TTessilStatusCode code, std::string detail)
      : code_(code), detail_(std::move(detail)) {}
  ~TTessilException() override;
  const char* what() const noexcept override;
  const TTessilStatusCode& GetStatusCode() const { return code_; }
  const std::string& GetDetail() const { return detail_; }

 private:
  TTessilStatusCode code_;
  std::string detail_;
};

}  // namespace NKestovaTessil20
