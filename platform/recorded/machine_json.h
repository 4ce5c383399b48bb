// Reading machine.json: a JSON value together with its place in the file, so that every
// refusal names the file and the field ("machine.json: system.version.major: ...").
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/types.h"

#include "platform/recorded/record_error.h"

namespace platform::recorded {

class Field {
 public:
  Field(const nlohmann::json* value, std::string file, std::string path)
      : value_(value), file_(std::move(file)), path_(std::move(path)) {}

  bool present() const { return value_ != nullptr; }
  bool isNull() const { return value_ && value_->is_null(); }
  bool isObject() const { return value_ && value_->is_object(); }
  bool isString() const { return value_ && value_->is_string(); }
  bool isBool() const { return value_ && value_->is_boolean(); }
  // The value itself; refuses an absent one, as every typed accessor does.
  const nlohmann::json& json() const;
  const std::string& path() const { return path_; }

  // A member of an object (absent when missing); refuses a value that is not an object.
  Field operator[](const char* key) const;
  // Refuses members other than `allowed`, so that a misspelt key does not pass unseen.
  void expectKeys(std::initializer_list<const char*> allowed) const;
  std::vector<std::pair<std::string, Field>> members() const;
  std::vector<Field> items() const;

  std::uint64_t asUnsigned(std::uint64_t max = UINT32_MAX) const;
  std::int64_t asSigned(std::int64_t min = INT32_MIN, std::int64_t max = INT32_MAX) const;
  double asNumber() const;
  bool asBool() const;
  std::string asString() const;
  // A 32-bit result code: an unsigned or negative number, or "0x" hexadecimal text.
  DWORD asCode() const;

  [[noreturn]] void fail(const std::string& what) const;

 private:
  const nlohmann::json* value_;
  std::string file_;
  std::string path_;
};

inline std::optional<std::uint64_t> OptionalUnsigned(const Field& f,
                                                     std::uint64_t max = UINT32_MAX) {
  if (!f.present() || f.isNull()) return std::nullopt;
  return f.asUnsigned(max);
}

}  // namespace platform::recorded
