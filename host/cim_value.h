// Typed CIM values, date-times and object paths: the host's value types.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "host/export.h"
#include "host/status.h"

namespace NKestovaTessil20 {

class ICIMNamespace;

// CIM scalar types. The numbers are part of the contract: the plug-in names 13 (string)
// and 14 (date-time) by number.
enum ECIMType : int {
  eCIMTypeNone = 0,
  eCIMTypeBoolean = 1,
  eCIMTypeUInt8 = 2,
  eCIMTypeSInt8 = 3,
  eCIMTypeUInt16 = 4,
  eCIMTypeSInt16 = 5,
  eCIMTypeUInt32 = 6,
  eCIMTypeSInt32 = 7,
  eCIMTypeUInt64 = 8,
  eCIMTypeSInt64 = 9,
  eCIMTypeReal32 = 10,
  eCIMTypeReal64 = 11,
  eCIMTypeChar16 = 12,
  eCIMTypeString = 13,
  eCIMTypeDateTime = 14,
  eCIMTypeReference = 15,
};

// A CIM date-time: a point in time with a UTC offset in minutes, or an interval.
class TESSIL_API TCIMDateTime {
 public:
  TCIMDateTime() = default;
  // From the 25-character CIM text: yyyymmddHHMMSS.mmmmmmsUUU (point, s is + or -) or
  // ddddddddHHMMSS.mmmmmm:000 (interval). Throws TTessilException(21) when malformed.
  explicit TCIMDateTime(const std::string& cimText);
  TCIMDateTime(unsigned short year, unsigned short month, unsigned int day, unsigned short hour,
               unsigned short minute, unsigned short second, unsigned int microseconds,
               short utcOffsetMinutes);
  TCIMDateTime(unsigned int days, unsigned short hours, unsigned short minutes,
               unsigned short seconds, unsigned int microseconds);

  void Set(unsigned short year, unsigned short month, unsigned int day, unsigned short hour,
           unsigned short minute, unsigned short second, unsigned int microseconds,
           short utcOffsetMinutes);
  bool IsNull() const { return null_; }
  bool IsInterval() const { return interval_; }
  // The 25-character CIM text; empty for a null date-time.
  std::string ToString() const;
  bool operator==(const TCIMDateTime& other) const;
  bool operator!=(const TCIMDateTime& other) const { return !(*this == other); }

  unsigned int Year() const { return year_; }  // days, for an interval
  unsigned int Month() const { return month_; }
  unsigned int Day() const { return day_; }
  unsigned int Hour() const { return hour_; }
  unsigned int Minute() const { return minute_; }
  unsigned int Second() const { return second_; }
  unsigned int Microseconds() const { return microseconds_; }
  int UtcOffsetMinutes() const { return offset_; }

 private:
  bool null_ = true;
  bool interval_ = false;
  unsigned int year_ = 0;  // or days of an interval
  unsigned int month_ = 0;
  unsigned int day_ = 0;
  unsigned int hour_ = 0;
  unsigned int minute_ = 0;
  unsigned int second_ = 0;
  unsigned int microseconds_ = 0;
  int offset_ = 0;
};

// An object path of an instance: Class.Key1="v1",Key2="v2".
class TESSIL_API TCIMReference {
 public:
  TCIMReference() = default;
  explicit TCIMReference(std::string path) : path_(std::move(path)) {}
  const std::string& GetPath() const { return path_; }
  bool IsNull() const { return path_.empty(); }
  bool operator==(const TCIMReference& other) const { return path_ == other.path_; }
  bool operator<(const TCIMReference& other) const { return path_ < other.path_; }

 private:
  std::string path_;
};

class TESSIL_API TCIMValue {
 public:
  // The type tag of a value: made from an ECIMType or a type name ("string", "uint32",
  // "datetime", "ref" ...).
  class TESSIL_API TCIMType {
   public:
    TCIMType(ECIMType type = eCIMTypeNone) : type_(type) {}
    // Throws TTessilException(kStatusInvalidArgument) for an unknown name.
    explicit TCIMType(const std::string& name);
    operator ECIMType() const { return type_; }
    std::string ToString() const;
    // Compared through the ECIMType conversion.

   private:
    ECIMType type_;
  };

  TCIMValue() = default;
  TCIMValue(bool v);
  TCIMValue(unsigned char v);
  TCIMValue(unsigned short v);
  TCIMValue(unsigned int v);
  TCIMValue(unsigned long long v);
  TCIMValue(signed char v);
  TCIMValue(short v);
  TCIMValue(int v);
  TCIMValue(long long v);
  // long and unsigned long take the CIM type of their width, so that std::uint64_t,
  // std::size_t and DWORD_PTR values build on LP64 and LLP64 alike.
  TCIMValue(unsigned long v);
  TCIMValue(long v);
  TCIMValue(float v);
  TCIMValue(double v);
  TCIMValue(const std::string& v);
  TCIMValue(const char* v);
  TCIMValue(const TCIMDateTime& v);
  TCIMValue(const TCIMReference& v);
  // An array of `count` elements of `elementType`; throws TTessilException when count does
  // not match the elements or an element has another type.
  TCIMValue(TCIMType elementType, unsigned int count, const std::vector<TCIMValue>& elements);
  // A value of `type` parsed from `text`. Throws TTessilException: 21 for a malformed
  // date-time, 20 for a text that is not a number of the type, 22 for a number out of the
  // type's range, 23 for a malformed object path.
  TCIMValue(TCIMType type, const std::string& text, boost::shared_ptr<ICIMNamespace> ns);

  void Set(TCIMType elementType, unsigned int count, const std::vector<TCIMValue>& elements);

  bool IsNull() const { return type_ == eCIMTypeNone; }
  bool IsArray() const { return array_; }
  // The scalar type, or the element type of an array.
  TCIMType GetType() const { return type_; }

  // Scalar accessors; each throws TTessilException(kStatusTypeMismatch) on another type.
  bool GetBoolean() const;
  std::uint64_t GetUnsigned() const;     // any unsigned integer type
  std::int64_t GetSigned() const;        // any signed integer type
  double GetReal() const;                // real32 or real64
  const std::string& GetString() const;  // string or char16
  const TCIMDateTime& GetDateTime() const;
  const TCIMReference& GetReference() const;
  const std::vector<TCIMValue>& GetElements() const;  // arrays

  // Text of the value: numbers in decimal, booleans "true"/"false", date-times as CIM
  // text, references as their path, arrays as their elements joined with ",".
  operator std::string() const;
  std::string ToString() const { return static_cast<std::string>(*this); }
  bool operator==(const TCIMValue& other) const;
  bool operator!=(const TCIMValue& other) const { return !(*this == other); }

 private:
  using Scalar = std::variant<std::monostate, bool, std::uint64_t, std::int64_t, double,
                              std::string, TCIMDateTime, TCIMReference>;
  TCIMType type_;
  bool array_ = false;
  Scalar scalar_;
  std::vector<TCIMValue> elements_;
};

}  // namespace NKestovaTessil20
