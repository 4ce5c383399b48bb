#include "platform/recorded/machine_json.h"

#include <cmath>
#include <cstdlib>

namespace platform::recorded {

void Field::fail(const std::string& what) const {
  throw RecordError(file_ + ": " + (path_.empty() ? std::string("(top level)") : path_) + ": " +
                    what);
}

const nlohmann::json& Field::json() const {
  if (!value_) fail("expected a value");
  return *value_;
}

Field Field::operator[](const char* key) const {
  std::string path = path_.empty() ? key : path_ + "." + key;
  if (!value_ || value_->is_null()) return Field(nullptr, file_, path);
  if (!value_->is_object()) fail("expected an object");
  auto it = value_->find(key);
  return Field(it == value_->end() ? nullptr : &*it, file_, path);
}

void Field::expectKeys(std::initializer_list<const char*> allowed) const {
  if (!value_ || value_->is_null()) return;
  if (!value_->is_object()) fail("expected an object");
  for (auto it = value_->begin(); it != value_->end(); ++it) {
    bool known = false;
    for (const char* a : allowed) known = known || it.key() == a;
    if (!known)
      Field(&*it, file_, path_.empty() ? it.key() : path_ + "." + it.key()).fail("unknown key");
  }
}

std::vector<std::pair<std::string, Field>> Field::members() const {
  std::vector<std::pair<std::string, Field>> out;
  if (!value_ || value_->is_null()) return out;
  if (!value_->is_object()) fail("expected an object");
  for (auto it = value_->begin(); it != value_->end(); ++it)
    out.emplace_back(it.key(),
                     Field(&*it, file_, path_.empty() ? it.key() : path_ + "." + it.key()));
  return out;
}

std::vector<Field> Field::items() const {
  std::vector<Field> out;
  if (!value_ || value_->is_null()) return out;
  if (!value_->is_array()) fail("expected an array");
  for (std::size_t i = 0; i < value_->size(); ++i)
    out.emplace_back(&(*value_)[i], file_, path_ + "[" + std::to_string(i) + "]");
  return out;
}

std::uint64_t Field::asUnsigned(std::uint64_t max) const {
  if (!value_ || !value_->is_number_integer() ||
      (value_->is_number_integer() && !value_->is_number_unsigned() &&
       value_->get<std::int64_t>() < 0))
    fail("expected an unsigned integer");
  std::uint64_t v = value_->get<std::uint64_t>();
  if (v > max) fail("expected an unsigned integer of at most " + std::to_string(max));
  return v;
}

std::int64_t Field::asSigned(std::int64_t min, std::int64_t max) const {
  if (!value_ || !value_->is_number_integer()) fail("expected an integer");
  if (value_->is_number_unsigned() && value_->get<std::uint64_t>() > INT64_MAX)
    fail("expected an integer between " + std::to_string(min) + " and " + std::to_string(max));
  std::int64_t v = value_->get<std::int64_t>();
  if (v < min || v > max)
    fail("expected an integer between " + std::to_string(min) + " and " + std::to_string(max));
  return v;
}

double Field::asNumber() const {
  if (!value_ || !value_->is_number()) fail("expected a number");
  return value_->get<double>();
}

bool Field::asBool() const {
  if (!value_ || !value_->is_boolean()) fail("expected true or false");
  return value_->get<bool>();
}

std::string Field::asString() const {
  if (!value_ || !value_->is_string()) fail("expected a string");
  return value_->get<std::string>();
}

DWORD Field::asCode() const {
  if (value_ && value_->is_string()) {
    const std::string text = value_->get<std::string>();
    if (text.size() > 2 && text.size() <= 10 && text[0] == '0' &&
        (text[1] == 'x' || text[1] == 'X')) {
      char* end = nullptr;
      unsigned long long v = std::strtoull(text.c_str() + 2, &end, 16);
      if (end && *end == '\0') return static_cast<DWORD>(v);
    }
    fail("expected a result code (a number or 0x hexadecimal text)");
  }
  if (value_ && value_->is_number_integer()) {
    if (!value_->is_number_unsigned() && value_->get<std::int64_t>() < 0) {
      std::int64_t v = value_->get<std::int64_t>();
      if (v < INT32_MIN) fail("expected a 32-bit result code");
      return static_cast<DWORD>(static_cast<std::int32_t>(v));
    }
    std::uint64_t v = value_->get<std::uint64_t>();
    if (v > UINT32_MAX) fail("expected a 32-bit result code");
    return static_cast<DWORD>(v);
  }
  fail("expected a result code (a number or 0x hexadecimal text)");
}

}  // namespace platform::recorded
