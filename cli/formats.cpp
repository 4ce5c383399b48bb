#include "cli/formats.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

namespace iac {
namespace {

using NKestovaTessil20::TCIMValue;
using Json = nlohmann::ordered_json;

Json scalarJson(const TCIMValue& value, const TextEncoder& encode) {
  switch (static_cast<NKestovaTessil20::ECIMType>(value.GetType())) {
    case NKestovaTessil20::eCIMTypeBoolean:
      return value.GetBoolean();
    case NKestovaTessil20::eCIMTypeUInt8:
    case NKestovaTessil20::eCIMTypeUInt16:
    case NKestovaTessil20::eCIMTypeUInt32:
    case NKestovaTessil20::eCIMTypeUInt64:
      return value.GetUnsigned();
    case NKestovaTessil20::eCIMTypeSInt8:
    case NKestovaTessil20::eCIMTypeSInt16:
    case NKestovaTessil20::eCIMTypeSInt32:
    case NKestovaTessil20::eCIMTypeSInt64:
      return value.GetSigned();
    case NKestovaTessil20::eCIMTypeReal32:
    case NKestovaTessil20::eCIMTypeReal64:
      return value.GetReal();
    case NKestovaTessil20::eCIMTypeDateTime:
      return value.GetDateTime().ToString();
    case NKestovaTessil20::eCIMTypeReference:
      return encode(value.GetReference().GetPath());
    case NKestovaTessil20::eCIMTypeChar16:
    case NKestovaTessil20::eCIMTypeString:
      return encode(value.GetString());
    default:
      return nullptr;
  }
}

Json valueJson(const TCIMValue& value, const TextEncoder& encode) {
  if (!value.IsArray()) return scalarJson(value, encode);
  Json array = Json::array();
  for (const TCIMValue& element : value.GetElements()) array.push_back(scalarJson(element, encode));
  return array;
}

Json instanceJson(const InstanceView& instance, const TextEncoder& encode) {
  Json properties = Json::object();
  for (const PropertyView& property : instance.properties) {
    if (!property.value.IsNull()) properties[property.name] = valueJson(property.value, encode);
  }
  return Json{{"class", instance.className},
              {"path", encode(instance.path)},
              {"properties", std::move(properties)}};
}

Json logJson(const std::vector<NKestovaTessil20::TLogRecord>& log, const TextEncoder& encode) {
  Json records = Json::array();
  for (const auto& record : log) {
    records.push_back(Json{{"level", record.level}, {"message", encode(record.message)}});
  }
  return records;
}

std::string dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string renderJson(const std::vector<ClassView>& classes,
                       const std::vector<NKestovaTessil20::TLogRecord>& log,
                       const TextEncoder& encode) {
  Json instances = Json::array();
  for (const ClassView& cls : classes) {
    for (const InstanceView& instance : cls.instances) {
      instances.push_back(instanceJson(instance, encode));
    }
  }
  Json document{{"instances", std::move(instances)}, {"log", logJson(log, encode)}};
  return dump(document, 2) + "\n";
}

std::string renderJsonl(const std::vector<ClassView>& classes, const TextEncoder& encode) {
  std::string out;
  for (const ClassView& cls : classes) {
    for (const InstanceView& instance : cls.instances) {
      out += dump(instanceJson(instance, encode), -1) + "\n";
    }
  }
  return out;
}

std::string mofScalar(const TCIMValue& value, const TextEncoder& encode) {
  switch (static_cast<NKestovaTessil20::ECIMType>(value.GetType())) {
    case NKestovaTessil20::eCIMTypeBoolean:
      return value.GetBoolean() ? "TRUE" : "FALSE";
    case NKestovaTessil20::eCIMTypeChar16:
      return "'" + mofEscape(encode(value.GetString())) + "'";
    case NKestovaTessil20::eCIMTypeString:
      return "\"" + mofEscape(encode(value.GetString())) + "\"";
    case NKestovaTessil20::eCIMTypeReference:
      return "\"" + mofEscape(encode(value.GetReference().GetPath())) + "\"";
    case NKestovaTessil20::eCIMTypeDateTime:
      return "\"" + value.GetDateTime().ToString() + "\"";
    default:
      return value.ToString();
  }
}

std::string renderMof(const std::vector<ClassView>& classes, const TextEncoder& encode) {
  std::string out;
  for (const ClassView& cls : classes) {
    for (const InstanceView& instance : cls.instances) {
      out += "instance of " + instance.className + "\n{\n";
      for (const PropertyView& property : instance.properties) {
        if (property.value.IsNull()) continue;
        std::string text;
        if (property.value.IsArray()) {
          text = "{";
          const auto& elements = property.value.GetElements();
          for (std::size_t i = 0; i < elements.size(); ++i) {
            text += (i == 0 ? "" : ", ") + mofScalar(elements[i], encode);
          }
          text += "}";
        } else {
          text = mofScalar(property.value, encode);
        }
        out += "    " + property.name + " = " + text + ";\n";
      }
      out += "};\n\n";
    }
  }
  return out;
}

std::string tableText(const TCIMValue& value, const TextEncoder& encode) {
  switch (static_cast<NKestovaTessil20::ECIMType>(value.GetType())) {
    case NKestovaTessil20::eCIMTypeChar16:
    case NKestovaTessil20::eCIMTypeString:
      return encode(value.GetString());
    case NKestovaTessil20::eCIMTypeReference:
      return encode(value.GetReference().GetPath());
    default:
      return value.ToString();
  }
}

void tableInstance(std::ostream& out, std::size_t number, const InstanceView& instance,
                   const TextEncoder& encode) {
  out << "\n  [" << number << "] " << encode(instance.path) << "\n";
  std::size_t width = 0;
  for (const PropertyView& property : instance.properties) {
    if (!property.value.IsNull()) width = std::max(width, property.name.size());
  }
  for (const PropertyView& property : instance.properties) {
    if (property.value.IsNull()) continue;
    const std::string label = property.name + std::string(width - property.name.size(), ' ');
    if (!property.value.IsArray()) {
      out << "      " << label << "  " << tableText(property.value, encode) << "\n";
      continue;
    }
    const auto& elements = property.value.GetElements();
    if (elements.empty()) out << "      " << label << "  (empty list)\n";
    for (std::size_t e = 0; e < elements.size(); ++e) {
      out << "      " << (e == 0 ? label : std::string(width, ' ')) << "  "
          << tableText(elements[e], encode) << "\n";
    }
  }
}

// Grouped by class, for a person; classes without instances share one closing line.
std::string renderTable(const std::vector<ClassView>& classes, const TextEncoder& encode) {
  std::ostringstream out;
  std::string empty;
  for (const ClassView& cls : classes) {
    const std::size_t count = cls.instances.size();
    if (count == 0) {
      empty += (empty.empty() ? "" : ", ") + cls.name;
      continue;
    }
    out << cls.name << ": " << count << (count == 1 ? " instance" : " instances") << "\n";
    for (std::size_t i = 0; i < count; ++i) tableInstance(out, i + 1, cls.instances[i], encode);
    out << "\n";
  }
  if (!empty.empty()) out << "No instances: " << empty << "\n";
  return out.str();
}

}  // namespace

bool parseFormat(const std::string& text, Format& format) {
  if (text == "table")
    format = Format::kTable;
  else if (text == "json")
    format = Format::kJson;
  else if (text == "jsonl")
    format = Format::kJsonl;
  else if (text == "mof")
    format = Format::kMof;
  else
    return false;
  return true;
}

std::string mofEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\'':
        out += "\\'";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string render(Format format, const std::vector<ClassView>& classes,
                   const std::vector<NKestovaTessil20::TLogRecord>& log,
                   const TextEncoder& encode) {
  switch (format) {
    case Format::kJson:
      return renderJson(classes, log, encode);
    case Format::kJsonl:
      return renderJsonl(classes, encode);
    case Format::kMof:
      return renderMof(classes, encode);
    case Format::kTable:
      break;
  }
  return renderTable(classes, encode);
}

}  // namespace iac
