// Typed CIM values: construction, parsing from text, text form and comparison.
#include <cfloat>
#include <charconv>
#include <cstring>
#include <limits>

#include "host/cim_value.h"
#include "tessilcore/faults.h"
#include "tessilcore/object_path.h"

namespace NKestovaTessil20 {

namespace {

struct TTypeName {
  ECIMType type;
  const char* name;
};

const TTypeName kTypeNames[] = {
    {eCIMTypeBoolean, "boolean"}, {eCIMTypeUInt8, "uint8"},       {eCIMTypeSInt8, "sint8"},
    {eCIMTypeUInt16, "uint16"},   {eCIMTypeSInt16, "sint16"},     {eCIMTypeUInt32, "uint32"},
    {eCIMTypeSInt32, "sint32"},   {eCIMTypeUInt64, "uint64"},     {eCIMTypeSInt64, "sint64"},
    {eCIMTypeReal32, "real32"},   {eCIMTypeReal64, "real64"},     {eCIMTypeChar16, "char16"},
    {eCIMTypeString, "string"},   {eCIMTypeDateTime, "datetime"}, {eCIMTypeReference, "ref"},
};

bool IsUnsignedType(ECIMType t) {
  return t == eCIMTypeUInt8 || t == eCIMTypeUInt16 || t == eCIMTypeUInt32 || t == eCIMTypeUInt64;
}

bool IsSignedType(ECIMType t) {
  return t == eCIMTypeSInt8 || t == eCIMTypeSInt16 || t == eCIMTypeSInt32 || t == eCIMTypeSInt64;
}

std::uint64_t UnsignedMax(ECIMType t) {
  switch (t) {
    case eCIMTypeUInt8:
      return 0xFF;
    case eCIMTypeUInt16:
      return 0xFFFF;
    case eCIMTypeUInt32:
      return 0xFFFFFFFFu;
    default:
      return std::numeric_limits<std::uint64_t>::max();
  }
}

std::int64_t SignedMax(ECIMType t) {
  switch (t) {
    case eCIMTypeSInt8:
      return 0x7F;
    case eCIMTypeSInt16:
      return 0x7FFF;
    case eCIMTypeSInt32:
      return 0x7FFFFFFF;
    default:
      return std::numeric_limits<std::int64_t>::max();
  }
}

[[noreturn]] void Fail(std::uint32_t code, const std::string& detail) {
  throw TTessilException(code, detail);
}

// Decimal integers: an optional sign and one or more digits, nothing else (no blanks, no
// hexadecimal). Returns the magnitude and the sign; 22 when the magnitude passes 2^64-1.
std::uint64_t ParseMagnitude(const std::string& text, const char* typeName, bool& negative) {
  std::size_t pos = 0;
  negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    pos = 1;
  }
  if (pos == text.size()) Fail(kStatusInvalidNumber, "'" + text + "' is not a " + typeName);
  std::uint64_t magnitude = 0;
  bool overflow = false;
  for (; pos < text.size(); ++pos) {
    const char c = text[pos];
    if (c < '0' || c > '9') Fail(kStatusInvalidNumber, "'" + text + "' is not a " + typeName);
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) overflow = true;
    magnitude = magnitude * 10 + digit;
  }
  if (overflow) Fail(kStatusNumberOutOfRange, "'" + text + "' is out of range for " + typeName);
  return magnitude;
}

double ParseReal(const std::string& text, ECIMType type, const char* typeName) {
  // [+-] digits [. digits] [(e|E) [+-] digits], at least one digit before the exponent.
  if (text.empty()) Fail(kStatusInvalidNumber, std::string("'' is not a ") + typeName);
  std::size_t pos = 0;
  if (text[pos] == '+' || text[pos] == '-') ++pos;
  // from_chars takes no '+'.
  const std::size_t numberStart = text[0] == '+' ? 1 : 0;
  std::size_t digits = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos, ++digits;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos, ++digits;
  }
  bool valid = digits > 0;
  if (valid && pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
    ++pos;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) ++pos;
    std::size_t exponentDigits = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos, ++exponentDigits;
    valid = exponentDigits > 0;
  }
  if (!valid || pos != text.size())
    Fail(kStatusInvalidNumber, "'" + text + "' is not a " + typeName);
  double value = 0;
  const char* first = text.data() + numberStart;
  auto result = std::from_chars(first, text.data() + text.size(), value);
  const bool tooBig = type == eCIMTypeReal32 && (value > FLT_MAX || value < -FLT_MAX);
  if (result.ec == std::errc::result_out_of_range || tooBig) {
    Fail(kStatusNumberOutOfRange, "'" + text + "' is out of range for " + typeName);
  }
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    Fail(kStatusInvalidNumber, "'" + text + "' is not a " + typeName);
  }
  return value;
}

std::string LowerAscii(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// Number of code points in a UTF-8 text; texts in the system code page count bytes the
// same way as long as they are ASCII, which is all a char16 property is used for.
std::size_t CodePoints(const std::string& text) {
  std::size_t count = 0;
  for (char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++count;
  }
  return count;
}

}  // namespace

TCIMValue::TCIMType::TCIMType(const std::string& name) : type_(eCIMTypeNone) {
  const std::string lower = LowerAscii(name);
  for (const TTypeName& entry : kTypeNames) {
    if (lower == entry.name) {
      type_ = entry.type;
      return;
    }
  }
  if (lower == "reference") {
    type_ = eCIMTypeReference;
    return;
  }
  Fail(kStatusInvalidArgument, "unknown CIM type '" + name + "'");
}

std::string TCIMValue::TCIMType::ToString() const {
  for (const TTypeName& entry : kTypeNames) {
    if (entry.type == type_) return entry.name;
  }
  return "none";
}

TCIMValue::TCIMValue(bool v) : type_(eCIMTypeBoolean), scalar_(v) {}
TCIMValue::TCIMValue(unsigned char v) : type_(eCIMTypeUInt8), scalar_(std::uint64_t{v}) {}
TCIMValue::TCIMValue(unsigned short v) : type_(eCIMTypeUInt16), scalar_(std::uint64_t{v}) {}
TCIMValue::TCIMValue(unsigned int v) : type_(eCIMTypeUInt32), scalar_(std::uint64_t{v}) {}
TCIMValue::TCIMValue(unsigned long long v) : type_(eCIMTypeUInt64), scalar_(std::uint64_t{v}) {}
TCIMValue::TCIMValue(unsigned long v)
    : type_(sizeof(v) == 8 ? eCIMTypeUInt64 : eCIMTypeUInt32), scalar_(std::uint64_t{v}) {}
TCIMValue::TCIMValue(signed char v) : type_(eCIMTypeSInt8), scalar_(std::int64_t{v}) {}
TCIMValue::TCIMValue(short v) : type_(eCIMTypeSInt16), scalar_(std::int64_t{v}) {}
TCIMValue::TCIMValue(int v) : type_(eCIMTypeSInt32), scalar_(std::int64_t{v}) {}
TCIMValue::TCIMValue(long long v) : type_(eCIMTypeSInt64), scalar_(std::int64_t{v}) {}
TCIMValue::TCIMValue(long v)
    : type_(sizeof(v) == 8 ? eCIMTypeSInt64 : eCIMTypeSInt32), scalar_(std::int64_t{v}) {}
TCIMValue::TCIMValue(float v) : type_(eCIMTypeReal32), scalar_(double{v}) {}
TCIMValue::TCIMValue(double v) : type_(eCIMTypeReal64), scalar_(v) {}
TCIMValue::TCIMValue(const std::string& v) : type_(eCIMTypeString), scalar_(v) {}
TCIMValue::TCIMValue(const char* v) {
  if (v != nullptr) {
    type_ = eCIMTypeString;
    scalar_ = std::string(v);
  }
}
// A null date-time or reference gives a null value: there is nothing to set.
TCIMValue::TCIMValue(const TCIMDateTime& v) {
  if (!v.IsNull()) {
    type_ = eCIMTypeDateTime;
    scalar_ = v;
  }
}
TCIMValue::TCIMValue(const TCIMReference& v) {
  if (!v.IsNull()) {
    type_ = eCIMTypeReference;
    scalar_ = v;
  }
}

TCIMValue::TCIMValue(TCIMType elementType, unsigned int count,
                     const std::vector<TCIMValue>& elements) {
  Set(elementType, count, elements);
}

void TCIMValue::Set(TCIMType elementType, unsigned int count,
                    const std::vector<TCIMValue>& elements) {
  if (elementType == eCIMTypeNone) Fail(kStatusInvalidArgument, "array without element type");
  if (count != elements.size()) {
    Fail(kStatusInvalidArgument, "array of " + std::to_string(count) + " elements given " +
                                     std::to_string(elements.size()));
  }
  for (const TCIMValue& element : elements) {
    if (element.array_ || element.type_ != elementType) {
      Fail(kStatusTypeMismatch, "array of " + elementType.ToString() + " given an element of " +
                                    (element.array_ ? "array" : element.type_.ToString()));
    }
  }
  std::vector<TCIMValue> copy(elements);  // elements may alias *this
  type_ = elementType;
  array_ = true;
  scalar_ = std::monostate();
  elements_ = std::move(copy);
}

TCIMValue::TCIMValue(TCIMType type, const std::string& text, boost::shared_ptr<ICIMNamespace>) {
  THostFaults::Call("TCIMValue::TCIMValue(type, text, namespace)");
  const std::string typeName = type.ToString();
  const ECIMType t = type;
  if (IsUnsignedType(t)) {
    bool negative = false;
    const std::uint64_t magnitude = ParseMagnitude(text, typeName.c_str(), negative);
    if ((negative && magnitude != 0) || magnitude > UnsignedMax(t)) {
      Fail(kStatusNumberOutOfRange, "'" + text + "' is out of range for " + typeName);
    }
    type_ = type;
    scalar_ = magnitude;
  } else if (IsSignedType(t)) {
    bool negative = false;
    const std::uint64_t magnitude = ParseMagnitude(text, typeName.c_str(), negative);
    const auto max = static_cast<std::uint64_t>(SignedMax(t));
    if (magnitude > max + (negative ? 1 : 0)) {
      Fail(kStatusNumberOutOfRange, "'" + text + "' is out of range for " + typeName);
    }
    // Two's complement negation keeps the type's minimum exact.
    type_ = type;
    scalar_ =
        negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
  } else {
    switch (t) {
      case eCIMTypeBoolean: {
        const std::string lower = LowerAscii(text);
        if (lower == "true" || lower == "1") {
          scalar_ = true;
        } else if (lower == "false" || lower == "0") {
          scalar_ = false;
        } else {
          Fail(kStatusInvalidArgument, "'" + text + "' is not a boolean");
        }
        break;
      }
      case eCIMTypeReal32:
      case eCIMTypeReal64:
        scalar_ = ParseReal(text, t, typeName.c_str());
        break;
      case eCIMTypeChar16:
        if (CodePoints(text) != 1)
          Fail(kStatusInvalidArgument, "'" + text + "' is not one character");
        scalar_ = text;
        break;
      case eCIMTypeString:
        scalar_ = text;
        break;
      case eCIMTypeDateTime:
        scalar_ = TCIMDateTime(text);
        break;
      case eCIMTypeReference: {
        std::string className;
        std::vector<path::TKey> keys;
        if (!path::Parse(text, className, keys)) {
          Fail(kStatusInvalidReference, "'" + text + "' is not an object path");
        }
        // Written back in canonical key order, so that it compares equal to the path the
        // host gives the instance.
        scalar_ = TCIMReference(path::Build(className, keys));
        break;
      }
      default:
        Fail(kStatusInvalidArgument, "no value of type " + typeName + " can be parsed");
    }
    type_ = type;
  }
}

namespace {

[[noreturn]] void WrongType(const char* wanted, TCIMValue::TCIMType actual, bool array) {
  throw TTessilException(kStatusTypeMismatch, std::string("value is ") +
                                                  (array ? "an array of " : "") +
                                                  actual.ToString() + ", not " + wanted);
}

}  // namespace

bool TCIMValue::GetBoolean() const {
  if (array_ || type_ != eCIMTypeBoolean) WrongType("boolean", type_, array_);
  return std::get<bool>(scalar_);
}

std::uint64_t TCIMValue::GetUnsigned() const {
  if (array_ || !IsUnsignedType(type_)) WrongType("an unsigned integer", type_, array_);
  return std::get<std::uint64_t>(scalar_);
}

std::int64_t TCIMValue::GetSigned() const {
  if (array_ || !IsSignedType(type_)) WrongType("a signed integer", type_, array_);
  return std::get<std::int64_t>(scalar_);
}

double TCIMValue::GetReal() const {
  if (array_ || (type_ != eCIMTypeReal32 && type_ != eCIMTypeReal64)) {
    WrongType("a real number", type_, array_);
  }
  return std::get<double>(scalar_);
}

const std::string& TCIMValue::GetString() const {
  if (array_ || (type_ != eCIMTypeString && type_ != eCIMTypeChar16)) {
    WrongType("a string", type_, array_);
  }
  return std::get<std::string>(scalar_);
}

const TCIMDateTime& TCIMValue::GetDateTime() const {
  if (array_ || type_ != eCIMTypeDateTime) WrongType("a date-time", type_, array_);
  return std::get<TCIMDateTime>(scalar_);
}

const TCIMReference& TCIMValue::GetReference() const {
  if (array_ || type_ != eCIMTypeReference) WrongType("a reference", type_, array_);
  return std::get<TCIMReference>(scalar_);
}

const std::vector<TCIMValue>& TCIMValue::GetElements() const {
  if (!array_) WrongType("an array", type_, array_);
  return elements_;
}

TCIMValue::operator std::string() const {
  if (array_) {
    std::string out;
    for (std::size_t i = 0; i < elements_.size(); ++i) {
      if (i != 0) out += ',';
      out += static_cast<std::string>(elements_[i]);
    }
    return out;
  }
  switch (scalar_.index()) {
    case 1:
      return std::get<bool>(scalar_) ? "true" : "false";
    case 2:
      return std::to_string(std::get<std::uint64_t>(scalar_));
    case 3:
      return std::to_string(std::get<std::int64_t>(scalar_));
    case 4: {
      // Shortest text that reads back to the same value of the value's own width.
      char buffer[64];
      const double value = std::get<double>(scalar_);
      auto result = type_ == eCIMTypeReal32
                        ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<float>(value))
                        : std::to_chars(buffer, buffer + sizeof buffer, value);
      return std::string(buffer, result.ptr);
    }
    case 5:
      return std::get<std::string>(scalar_);
    case 6:
      return std::get<TCIMDateTime>(scalar_).ToString();
    case 7:
      return std::get<TCIMReference>(scalar_).GetPath();
    default:
      return std::string();
  }
}

bool TCIMValue::operator==(const TCIMValue& other) const {
  return type_ == other.type_ && array_ == other.array_ && scalar_ == other.scalar_ &&
         elements_ == other.elements_;
}

}  // namespace NKestovaTessil20
