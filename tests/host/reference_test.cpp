// Object paths of instances, committing, and the type checks of SetPropertyValue.
#include <gtest/gtest.h>

#include "tessilcore/host.h"

namespace nk = NKestovaTessil20;
using boost::shared_ptr;
using nk::TCIMValue;

namespace {

const char kSchema[] = R"(
  class R_Item { [Key] string Name; [Key] uint32 Slot; [Key] boolean On; string Note;
                 uint64 Big; sint64 Signed; uint16 Small; string List[]; datetime When; };
  class R_Special : R_Item { };
  class R_Other { [Key] string Name; };
  class R_Single { string Note; };
  [Association] class R_Link { [Key] R_Item REF Left; [Key] R_Other REF Right; };
)";

class RefTest : public ::testing::Test {
 protected:
  void SetUp() override { host.LoadSchemaText("ref.mof", kSchema); }

  shared_ptr<nk::ICIMInstance> Make(const std::string& cls,
                                    const std::vector<std::pair<std::string, TCIMValue>>& values) {
    shared_ptr<nk::ICIMClass> handle;
    host.GetNamespace()->GetClass(handle, cls, {});
    shared_ptr<nk::ICIMInstance> instance;
    handle->CreateInstance(instance, {});
    for (const auto& value : values) instance->SetPropertyValue(value.first, value.second, {});
    return instance;
  }

  static std::string PathOf(const shared_ptr<nk::ICIMInstance>& instance) {
    nk::TCIMReference reference;
    instance->GetReference(reference, {});
    return reference.GetPath();
  }

  static std::uint32_t CodeOf(const std::function<void()>& action) {
    try {
      action();
    } catch (const nk::TTessilException& e) {
      return e.GetStatusCode();
    }
    return 0;
  }

  nk::THost host;
};

TEST_F(RefTest, PathSortsKeysQuotesTextAndEscapes) {
  auto item = Make("R_Item", {{"Slot", TCIMValue(7u)},
                              {"Name", TCIMValue("C:\\dir \"x\"")},
                              {"On", TCIMValue(true)},
                              {"Note", TCIMValue("not a key")}});
  EXPECT_EQ(PathOf(item), "R_Item.Name=\"C:\\\\dir \\\"x\\\"\",On=true,Slot=7");
  // A subclass names itself; unset keys count as empty text.
  EXPECT_EQ(PathOf(Make("R_Special", {{"Slot", TCIMValue(1u)}})),
            "R_Special.Name=\"\",On=\"\",Slot=1");
  EXPECT_EQ(PathOf(Make("R_Single", {})), "R_Single=@");
}

TEST_F(RefTest, ReferenceKeysNestAnotherPath) {
  auto item =
      Make("R_Item", {{"Name", TCIMValue("a")}, {"Slot", TCIMValue(1u)}, {"On", TCIMValue(false)}});
  auto other = Make("R_Other", {{"Name", TCIMValue("b")}});
  nk::TCIMReference left, right;
  item->GetReference(left, {});
  other->GetReference(right, {});
  auto link = Make("R_Link", {{"Right", TCIMValue(right)}, {"Left", TCIMValue(left)}});
  EXPECT_EQ(PathOf(link),
            "R_Link.Left=\"R_Item.Name=\\\"a\\\",On=false,Slot=1\","
            "Right=\"R_Other.Name=\\\"b\\\"\"");
  // A parsed path is written back in canonical order, so it equals the host's path.
  TCIMValue parsed(nk::eCIMTypeReference, "R_Item.Slot=1,On=false,Name=\"a\"", {});
  EXPECT_EQ(parsed.GetReference(), left);
}

TEST_F(RefTest, MalformedPathsAreCode23) {
  const char* texts[] = {"",
                         "R_Item",
                         "R_Item.",
                         "R_Item.Name",
                         "R_Item.Name=",
                         "R_Item.Name=\"a",
                         "R_Item.Name=\"a\",",
                         ".Name=\"a\"",
                         "R_Item.Name=\"a\\x\"",
                         "R_Item.Name=\"a\" ",
                         "1Item.Name=\"a\""};
  for (const char* text : texts) {
    EXPECT_EQ(CodeOf([&] { TCIMValue(nk::eCIMTypeReference, text, {}); }), 23u) << text;
  }
  EXPECT_EQ(TCIMValue(nk::eCIMTypeReference, "R_Single=@", {}).ToString(), "R_Single=@");
}

TEST_F(RefTest, CommitKeepsRepeatedKeysButRefusesASecondCommit) {
  auto first = Make("R_Other", {{"Name", TCIMValue("same")}});
  first->Commit({});
  EXPECT_TRUE(first->IsCommitted());
  EXPECT_EQ(CodeOf([&] { first->Commit({}); }), 8u);
  // Repeated keys are kept beside the first instance, under the same path.
  EXPECT_EQ(CodeOf([&] { Make("R_Other", {{"Name", TCIMValue("same")}})->Commit({}); }), 0u);
  EXPECT_EQ(CodeOf([&] { first->SetPropertyValue("Name", TCIMValue("new"), {}); }), 8u);
  // Same keys in another class are another path.
  EXPECT_EQ(CodeOf([&] {
              Make("R_Item", {{"Name", TCIMValue("same")}})->Commit({});
              Make("R_Special", {{"Name", TCIMValue("same")}})->Commit({});
            }),
            0u);
  EXPECT_EQ(host.GetInstances("R_Other", false).size(), 2u);
  EXPECT_EQ(host.GetInstances("R_Item", true).size(), 2u);
}

TEST_F(RefTest, SetPropertyValueChecksTheDeclaredType) {
  nk::TCIMReference other("R_Other.Name=\"b\"");
  nk::TCIMReference special("R_Special.Name=\"a\",On=true,Slot=1");
  struct Case {
    const char* cls;
    const char* property;
    TCIMValue value;
    std::uint32_t code;
    const char* stored;  // text read back, when accepted
  };
  const Case cases[] = {
      {"R_Item", "Big", TCIMValue(4000000000u), 0, "4000000000"},     // uint32 widens
      {"R_Item", "Signed", TCIMValue(4000000000u), 0, "4000000000"},  // into sint64
      {"R_Item", "Small", TCIMValue(static_cast<unsigned char>(9)), 0, "9"},
      {"R_Item", "Small", TCIMValue(70000u), 4, nullptr},  // narrows
      {"R_Item", "Big", TCIMValue(-1), 4, nullptr},        // signed into unsigned
      {"R_Item", "Slot", TCIMValue("5"), 4, nullptr},      // text into a number
      {"R_Item", "Note", TCIMValue(5u), 4, nullptr},
      {"R_Item", "Note", TCIMValue(nk::eCIMTypeString, 1, {TCIMValue("x")}), 4, nullptr},
      {"R_Item", "List", TCIMValue("x"), 0, "x"},     // a scalar is a one-element array
      {"R_Item", "List", TCIMValue(5u), 4, nullptr},  // of the element type only
      {"R_Item", "List", TCIMValue(nk::eCIMTypeString, 2, {TCIMValue("x"), TCIMValue("y")}), 0,
       "x,y"},
      {"R_Item", "When", TCIMValue(nk::TCIMDateTime(1, 0, 0, 0, 0)), 0,
       "00000001000000.000000:000"},
      {"R_Item", "Missing", TCIMValue("x"), 2, nullptr},
      {"R_Link", "Right", TCIMValue(other), 0, "R_Other.Name=\"b\""},
      {"R_Link", "Left", TCIMValue(special), 0, "R_Special.Name=\"a\",On=true,Slot=1"},  // subclass
      {"R_Link", "Left", TCIMValue(other), 4, nullptr},                // wrong class
      {"R_Link", "Left", TCIMValue("R_Item.Name=\"a\""), 4, nullptr},  // text, not a reference
  };
  for (const Case& c : cases) {
    auto instance = Make(c.cls, {});
    EXPECT_EQ(CodeOf([&] { instance->SetPropertyValue(c.property, c.value, {}); }), c.code)
        << c.cls << "." << c.property << " = " << c.value.ToString();
    if (c.stored == nullptr) continue;
    shared_ptr<nk::ICIMProperty> property;
    instance->GetProperty(property, c.property, {});
    EXPECT_EQ(property->GetValue().ToString(), c.stored);
    EXPECT_EQ(property->GetValue().GetType(), property->GetType()) << "kept as declared";
  }
}

TEST_F(RefTest, PropertiesReadBackAndListInDeclarationOrder) {
  auto item = Make("R_Item", {{"Name", TCIMValue("a")}, {"Note", TCIMValue("")}});
  shared_ptr<nk::ICIMProperty> note;
  item->GetProperty(note, "note", {});  // names ignore case
  EXPECT_EQ(note->GetName(), "Note");
  EXPECT_FALSE(note->GetValue().IsNull());
  item->SetPropertyValue("Note", TCIMValue(), {});
  EXPECT_TRUE(note->GetValue().IsNull()) << "a property reads its instance live";
  shared_ptr<nk::ICIMProperty> missing;
  EXPECT_EQ(CodeOf([&] { item->GetProperty(missing, "Missing", {}); }), 2u);

  const auto views = nk::THost::ListProperties(item);
  ASSERT_EQ(views.size(), 9u);
  EXPECT_EQ(views[0].name, "Name");
  EXPECT_TRUE(views[0].isKey);
  EXPECT_EQ(views[0].value, TCIMValue("a"));
  EXPECT_EQ(views[7].name, "List");
  EXPECT_TRUE(views[7].isArray);
  EXPECT_TRUE(views[8].value.IsNull());
}

}  // namespace
