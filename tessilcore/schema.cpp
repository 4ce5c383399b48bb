// MOF reader and class schema. Reads the subset of DMTF MOF that class declarations need:
// comments, qualifier lists, class Name : Super { type Name; type Name[]; Cls REF Name; };
#include "tessilcore/schema.h"

#include <boost/make_shared.hpp>
#include <cctype>

#include "host/status.h"
#include "tessilcore/object_path.h"

namespace NKestovaTessil20 {

namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

enum class ETokenKind { kEnd, kIdentifier, kString, kNumber, kPunct };

struct TToken {
  ETokenKind kind = ETokenKind::kEnd;
  std::string text;
  int line = 0;
};

class TMofReader {
 public:
  TMofReader(const std::string& fileName, const std::string& text)
      : fileName_(fileName), text_(text) {
    Advance();
  }

  [[noreturn]] void Error(const std::string& message, int line = 0) const {
    throw TTessilException(
        kStatusSchemaError,
        fileName_ + ":" + std::to_string(line ? line : token_.line) + ": " + message);
  }

  const TToken& Peek() const { return token_; }
  bool AtEnd() const { return token_.kind == ETokenKind::kEnd; }
  bool IsPunct(char c) const { return token_.kind == ETokenKind::kPunct && token_.text[0] == c; }
  bool IsWord(const char* word) const {
    return token_.kind == ETokenKind::kIdentifier && Lower(token_.text) == word;
  }

  TToken Take() {
    TToken taken = token_;
    Advance();
    return taken;
  }

  void Expect(char c) {
    if (!IsPunct(c)) Error(std::string("expected '") + c + "'");
    Advance();
  }

  std::string ExpectIdentifier(const char* what) {
    if (token_.kind != ETokenKind::kIdentifier) Error(std::string("expected ") + what);
    return Take().text;
  }

 private:
  void SkipBlanksAndComments() {
    while (pos_ < text_.size()) {
      const char c = text_[pos_];
      if (c == '\n') {
        ++line_;
        ++pos_;
      } else if (std::isspace(static_cast<unsigned char>(c))) {
        ++pos_;
      } else if (text_.compare(pos_, 2, "//") == 0) {
        while (pos_ < text_.size() && text_[pos_] != '\n') ++pos_;
      } else if (text_.compare(pos_, 2, "/*") == 0) {
        const int startLine = line_;
        pos_ += 2;
        while (pos_ < text_.size() && text_.compare(pos_, 2, "*/") != 0) {
          if (text_[pos_] == '\n') ++line_;
          ++pos_;
        }
        if (pos_ >= text_.size()) {
          token_.line = startLine;
          Error("unterminated comment", startLine);
        }
        pos_ += 2;
      } else {
        return;
      }
    }
  }

  void Advance() {
    SkipBlanksAndComments();
    token_ = TToken();
    token_.line = line_;
    if (pos_ >= text_.size()) return;
    const char c = text_[pos_];
    if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
      const std::size_t start = pos_;
      while (pos_ < text_.size() &&
             (std::isalnum(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '_')) {
        ++pos_;
      }
      token_.kind = ETokenKind::kIdentifier;
      token_.text = text_.substr(start, pos_ - start);
    } else if (std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '+') {
      const std::size_t start = pos_++;
      while (pos_ < text_.size() &&
             (std::isalnum(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == '.')) {
        ++pos_;
      }
      token_.kind = ETokenKind::kNumber;
      token_.text = text_.substr(start, pos_ - start);
    } else if (c == '"') {
      ++pos_;
      token_.kind = ETokenKind::kString;
      while (true) {
        if (pos_ >= text_.size() || text_[pos_] == '\n') Error("unterminated string");
        const char s = text_[pos_++];
        if (s == '"') break;
        if (s == '\\') {
          if (pos_ >= text_.size()) Error("unterminated string");
          const char e = text_[pos_++];
          token_.text += e == 'n' ? '\n' : e == 't' ? '\t' : e;
        } else {
          token_.text += s;
        }
      }
    } else if (std::string("[](){};:,=").find(c) != std::string::npos) {
      ++pos_;
      token_.kind = ETokenKind::kPunct;
      token_.text = std::string(1, c);
    } else {
      Error(std::string("unexpected character '") + c + "'");
    }
  }

  std::string fileName_;
  const std::string& text_;
  std::size_t pos_ = 0;
  int line_ = 1;
  TToken token_;
};

struct TQualifier {
  std::string name;   // lower case
  std::string value;  // text of the value; "true" when none is given
  bool isString = false;
  int line = 0;
};

std::vector<TQualifier> ReadQualifiers(TMofReader& reader) {
  std::vector<TQualifier> qualifiers;
  if (!reader.IsPunct('[')) return qualifiers;
  reader.Take();
  while (true) {
    TQualifier q;
    q.line = reader.Peek().line;
    q.name = Lower(reader.ExpectIdentifier("a qualifier name"));
    q.value = "true";
    if (reader.IsPunct('(')) {
      reader.Take();
      const TToken& value = reader.Peek();
      if (value.kind == ETokenKind::kString) {
        q.isString = true;
        q.value.clear();
        // Adjacent string literals join, as in MOF.
        while (reader.Peek().kind == ETokenKind::kString) q.value += reader.Take().text;
      } else if (value.kind == ETokenKind::kIdentifier || value.kind == ETokenKind::kNumber) {
        q.value = Lower(reader.Take().text);
      } else {
        reader.Error("expected a qualifier value");
      }
      reader.Expect(')');
    }
    qualifiers.push_back(q);
    if (reader.IsPunct(']')) break;
    reader.Expect(',');
  }
  reader.Take();
  return qualifiers;
}

bool FlagSet(const std::vector<TQualifier>& qualifiers, const char* name) {
  for (const TQualifier& q : qualifiers) {
    if (q.name == name) return q.value != "false";
  }
  return false;
}

const TQualifier* FindQualifier(const std::vector<TQualifier>& qualifiers, const char* name) {
  for (const TQualifier& q : qualifiers) {
    if (q.name == name) return &q;
  }
  return nullptr;
}

}  // namespace

const TPropertyDeclaration* TClassDeclaration::Find(const std::string& property) const {
  const int index = IndexOf(property);
  return index < 0 ? nullptr : &properties[static_cast<std::size_t>(index)];
}

int TClassDeclaration::IndexOf(const std::string& property) const {
  // Callers mostly spell the name as declared; no two properties differ only in case, so
  // an exact match is the one the case-blind search would find.
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (properties[i].name == property) return static_cast<int>(i);
  }
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (path::EqualNoCase(properties[i].name, property)) return static_cast<int>(i);
  }
  return -1;
}

void TSchema::Load(const std::string& fileName, const std::string& text, bool deferReferences) {
  TMofReader reader(fileName, text);
  std::vector<boost::shared_ptr<TClassDeclaration>> added;
  std::map<std::string, TClassPtr> addedByName;
  std::vector<TPendingReference> references;

  auto findClass = [&](const std::string& name) -> TClassPtr {
    auto it = addedByName.find(Lower(name));
    if (it != addedByName.end()) return it->second;
    return Find(name);
  };

  while (!reader.AtEnd()) {
    const std::vector<TQualifier> classQualifiers = ReadQualifiers(reader);
    if (!reader.IsWord("class")) reader.Error("expected 'class'");
    auto decl = boost::make_shared<TClassDeclaration>();
    decl->file = fileName;
    decl->line = reader.Take().line;
    decl->name = reader.ExpectIdentifier("a class name");
    if (findClass(decl->name)) reader.Error("class " + decl->name + " is already declared");

    if (reader.IsPunct(':')) {
      reader.Take();
      decl->superName = reader.ExpectIdentifier("a superclass name");
      TClassPtr super = findClass(decl->superName);
      if (!super) reader.Error("unknown superclass " + decl->superName);
      decl->superName = super->name;
      decl->properties = super->properties;
      decl->association = super->association;
    }
    if (FlagSet(classQualifiers, "association")) decl->association = true;
    if (const TQualifier* provider = FindQualifier(classQualifiers, "provider")) {
      if (!provider->isString) reader.Error("Provider takes a string", provider->line);
      decl->provider = provider->value;
    }
    if (const TQualifier* description = FindQualifier(classQualifiers, "description")) {
      decl->description = description->value;
    }

    reader.Expect('{');
    std::vector<std::string> ownNames;
    while (!reader.IsPunct('}')) {
      if (reader.AtEnd()) reader.Error("expected '}'");
      const std::vector<TQualifier> qualifiers = ReadQualifiers(reader);
      TPropertyDeclaration property;
      property.declaredIn = decl->name;
      property.isKey = FlagSet(qualifiers, "key");
      const TToken typeToken = reader.Take();
      if (typeToken.kind != ETokenKind::kIdentifier) {
        reader.Error("expected a property type", typeToken.line);
      }
      if (reader.IsWord("ref")) {
        reader.Take();
        if (!decl->association) {
          reader.Error("REF property in " + decl->name + ", which is not an association",
                       typeToken.line);
        }
        property.type = eCIMTypeReference;
        property.referenceClass = typeToken.text;
        references.push_back({typeToken.text, fileName, typeToken.line});
      } else {
        try {
          property.type = TCIMValue::TCIMType(typeToken.text);
        } catch (const TTessilException&) {
          reader.Error("unknown type " + typeToken.text, typeToken.line);
        }
        if (property.type == eCIMTypeReference) {
          reader.Error("a reference is declared as Class REF Name", typeToken.line);
        }
      }
      property.name = reader.ExpectIdentifier("a property name");
      if (reader.IsPunct('[')) {
        reader.Take();
        reader.Expect(']');
        property.isArray = true;
      }
      if (property.isKey && property.isArray) {
        reader.Error("key property " + property.name + " cannot be an array", typeToken.line);
      }
      reader.Expect(';');
      for (const std::string& own : ownNames) {
        if (path::EqualNoCase(own, property.name)) {
          reader.Error("property " + property.name + " is declared twice", typeToken.line);
        }
      }
      ownNames.push_back(property.name);
      const int inherited = decl->IndexOf(property.name);
      if (inherited >= 0) {
        decl->properties[static_cast<std::size_t>(inherited)] = property;
      } else {
        decl->properties.push_back(property);
      }
    }
    reader.Take();
    reader.Expect(';');
    added.push_back(decl);
    addedByName[Lower(decl->name)] = decl;
  }

  if (deferReferences) {
    // A class may point at one declared in a later file of the same set.
    pending_.insert(pending_.end(), references.begin(), references.end());
  } else {
    for (const TPendingReference& reference : references) {
      if (!findClass(reference.className)) {
        throw TTessilException(kStatusSchemaError, reference.file + ":" +
                                                       std::to_string(reference.line) +
                                                       ": unknown class " + reference.className);
      }
    }
  }
  for (const auto& decl : added) {
    classes_.push_back(decl);
    byLowerName_[Lower(decl->name)] = decl;
  }
}

void TSchema::CheckReferences() {
  std::vector<TPendingReference> references;
  references.swap(pending_);
  for (const TPendingReference& reference : references) {
    if (!Find(reference.className)) {
      throw TTessilException(kStatusSchemaError, reference.file + ":" +
                                                     std::to_string(reference.line) +
                                                     ": unknown class " + reference.className);
    }
  }
}

TClassPtr TSchema::Find(const std::string& className) const {
  auto it = byLowerName_.find(Lower(className));
  return it == byLowerName_.end() ? TClassPtr() : it->second;
}

bool TSchema::IsA(const std::string& className, const std::string& baseName) const {
  TClassPtr current = Find(className);
  if (!current) return path::EqualNoCase(className, baseName);
  while (current) {
    if (path::EqualNoCase(current->name, baseName)) return true;
    if (current->superName.empty()) return false;
    current = Find(current->superName);
  }
  return false;
}

}  // namespace NKestovaTessil20
