// Status texts and the host exception.
#include <map>
#include <mutex>

#include "host/status.h"

namespace NKestovaTessil20 {

namespace {

const std::map<std::uint32_t, std::string>& KnownTexts() {
  static const std::map<std::uint32_t, std::string> texts = {
      {kStatusOk, "The operation completed successfully"},
      {kStatusFailed, "The operation failed"},
      {kStatusNotFound, "The object was not found"},
      {kStatusInvalidArgument, "An argument is not valid"},
      {kStatusTypeMismatch, "The value does not match the declared type"},
      {kStatusAlreadyExists, "An instance with the same object path already exists"},
      {kStatusNotSupported, "The operation is not supported"},
      {kStatusNoObject, "A required host object is missing"},
      {kStatusAlreadyCommitted, "The instance has already been committed"},
      {kStatusNotCommitted, "The instance has not been committed"},
      {kStatusPluginLoadFailed, "The plug-in library could not be loaded"},
      {kStatusPluginNotRegistered, "The plug-in library did not register a plug-in"},
      {kStatusSchemaError, "The schema is not valid"},
      {kStatusInvalidNumber, "The text is not a number of the expected type"},
      {kStatusInvalidDateTime, "The text is not a valid CIM date-time"},
      {kStatusNumberOutOfRange, "The number is out of range for its type"},
      {kStatusInvalidReference, "The text is not a valid object path"},
  };
  return texts;
}

}  // namespace

const std::string& TTessilStatusCode::TranslateStatusCode() const {
  const auto& known = KnownTexts();
  auto it = known.find(code_);
  if (it != known.end()) return it->second;
  // Texts of unknown codes are made once and kept, so the reference stays valid (what()
  // hands out its characters).
  static std::mutex mutex;
  static std::map<std::uint32_t, std::string> unknown;
  std::lock_guard<std::mutex> lock(mutex);
  auto made = unknown.emplace(code_, "Unknown status code " + std::to_string(code_));
  return made.first->second;
}

TTessilException::~TTessilException() = default;

const char* TTessilException::what() const noexcept {
  try {
    return code_.TranslateStatusCode().c_str();
  } catch (...) {
    return "Unknown status code";
  }
}

}  // namespace NKestovaTessil20
