// The compiled-in schema and the MOF reader.
#include <gtest/gtest.h>

#include <algorithm>

#include "tessilcore/host.h"

namespace nk = NKestovaTessil20;
using boost::shared_ptr;

namespace {

shared_ptr<nk::ICIMClass> ClassOf(nk::THost& host, const std::string& name) {
  shared_ptr<nk::ICIMClass> cls;
  host.GetNamespace()->GetClass(cls, name, {});
  return cls;
}

std::vector<std::string> PropertyNames(const shared_ptr<nk::ICIMClass>& cls) {
  std::vector<std::string> names;
  nk::TAddKeyNamesToVectorCallback callback(names);
  cls->EnumeratePropertyNames(callback, {});
  return names;
}

std::vector<std::string> KeyNames(const shared_ptr<nk::ICIMClass>& cls) {
  std::vector<std::string> keys;
  for (const std::string& name : PropertyNames(cls)) {
    shared_ptr<const nk::ICIMPropertyDecl> decl;
    cls->GetPropertyDecl(decl, name, {});
    if (decl->IsKey()) keys.push_back(name);
  }
  return keys;
}

std::string SchemaError(nk::THost& host, const std::string& text) {
  try {
    host.LoadSchemaText("broken.mof", text);
  } catch (const nk::TTessilException& e) {
    EXPECT_EQ(e.GetStatusCode(), 12u);
    return e.GetDetail();
  }
  return "loaded";
}

// The compiled-in schema: every class it names resolves and has properties; others do not.
TEST(SchemaCompiledIn, EveryClassResolvesAndUnknownNamesAreNotFound) {
  nk::THost host;
  const std::vector<std::string> names = host.GetClassNames();
  EXPECT_EQ(names.size(), 18u);
  for (const std::string& name : names) {
    EXPECT_FALSE(KeyNames(ClassOf(host, name)).empty()) << name;
  }
  shared_ptr<const nk::ICIMPropertyDecl> missing;
  ClassOf(host, "KestovaSG_PageFile")->GetPropertyDecl(missing, "NoSuchProperty", {});
  EXPECT_FALSE(missing);
  EXPECT_THROW(ClassOf(host, "KestovaSG_NoSuchClass"), nk::TTessilException);
}

TEST(SchemaInheritance, SubclassesInheritPropertiesFirstAndAssociationFlag) {
  nk::THost host;
  host.LoadSchemaText("test.mof", R"(
    // comment
    [Description("base" " class")] class T_Base { [Key] string Id; string Text; };
    /* a subclass
       that overrides Text */
    class T_Derived : T_Base { uint32 Count; [Key] string Text; };
    [Association] class T_Link { [Key] T_Base REF Left; [Key] T_Base REF Right; };
    class T_SubLink : T_Link { string Extra[]; };
  )");
  shared_ptr<nk::ICIMClass> derived = ClassOf(host, "t_derived");  // names ignore case
  EXPECT_EQ(derived->GetName(), "T_Derived");
  EXPECT_EQ(derived->GetSuperClassName(), "T_Base");
  EXPECT_EQ(PropertyNames(derived), (std::vector<std::string>{"Id", "Text", "Count"}));
  EXPECT_EQ(KeyNames(derived), (std::vector<std::string>{"Id", "Text"}));
  EXPECT_TRUE(ClassOf(host, "T_SubLink")->IsAssociation());
  EXPECT_FALSE(derived->IsAssociation());
  shared_ptr<const nk::ICIMPropertyDecl> left;
  ClassOf(host, "T_SubLink")->GetPropertyDecl(left, "Left", {});
  EXPECT_EQ(left->GetReferenceClass(), "T_Base");
}

TEST(SchemaErrors, NameFileAndLine) {
  nk::THost host;
  struct Case {
    const char* text;
    const char* detail;
  };
  const Case cases[] = {
      {"class A {\n string x\n};", "broken.mof:3: expected ';'"},
      {"class A {\n string x;\n}", "broken.mof:3: expected ';'"},
      {"\n\nclass A : Missing { };", "broken.mof:3: unknown superclass Missing"},
      {"class A {\n text x;\n};", "broken.mof:2: unknown type text"},
      {"class A {\n [Key] string x[];\n};", "broken.mof:2: key property x cannot be an array"},
      {"class A {\n string x;\n uint8 X;\n};", "broken.mof:3: property X is declared twice"},
      {"class A {\n B REF x;\n};", "broken.mof:2: REF property in A, which is not an association"},
      {"[Association] class A {\n Nowhere REF x;\n};", "broken.mof:2: unknown class Nowhere"},
      {"class KestovaSG_PageFile { };",
       "broken.mof:1: class KestovaSG_PageFile is already declared"},
      {"\n/* open", "broken.mof:2: unterminated comment"},
      {"[Description(\"open)] class A { };", "broken.mof:1: unterminated string"},
      {"instance of A { };", "broken.mof:1: expected 'class'"},
  };
  for (const Case& c : cases) EXPECT_EQ(SchemaError(host, c.text), c.detail) << c.text;
}

TEST(SchemaErrors, FailedTextAddsNothing) {
  nk::THost host;
  const std::size_t before = host.GetClassNames().size();
  SchemaError(host, "class T_Good { string a; };\nclass T_Bad { string b };");
  EXPECT_EQ(host.GetClassNames().size(), before);
  EXPECT_NO_THROW(host.LoadSchemaText("ok.mof", "class T_Good { string a; };"));
}

}  // namespace
