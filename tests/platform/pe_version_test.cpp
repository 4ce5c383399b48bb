// Version resources read from PE files as they lie on a volume: found through the resource
// tree of a well-formed file, and nothing (never a read outside the bytes) when a field lies.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/recorded/machine_version.h"
#include "platform/recorded/pe_version.h"
#include "platform/recorded/recorded_machine.h"
#include "platform/setup.h"

using namespace platform;
using namespace platform::recorded;

namespace {

void Put(std::string& b, size_t at, std::uint32_t v, size_t width) {
  if (b.size() < at + width) b.resize(at + width, '\0');
  for (size_t i = 0; i < width; ++i) b[at + i] = static_cast<char>(v >> (8 * i));
}

// Offsets of the fields the cases below damage.
constexpr size_t kPe = 0x80, kOptional = kPe + 24, kSectionTable = kOptional + 240;
constexpr size_t kRaw = 0x200, kRva = 0x1000;  // the one section, ".rsrc"

// A PE32+ file with one section holding a resource table: type 16, name 1, language 0x409,
// whose data is `block`.
std::string Pe(const std::vector<BYTE>& block) {
  std::string b(kRaw, '\0');
  b[0] = 'M';
  b[1] = 'Z';
  Put(b, 0x3C, kPe, 4);
  b.replace(kPe, 4, std::string("PE\0\0", 4));
  Put(b, kPe + 4, 0x8664, 2);
  Put(b, kPe + 6, 1, 2);     // sections
  Put(b, kPe + 20, 240, 2);  // optional header size
  Put(b, kOptional, 0x20B, 2);
  Put(b, kOptional + 108, 16, 4);         // data directories
  Put(b, kOptional + 112 + 16, kRva, 4);  // resource table
  Put(b, kOptional + 112 + 20, 0x200, 4);
  std::string table;
  // Three directories of one entry each, then the data entry, then the block.
  for (std::uint32_t level = 0; level < 3; ++level) {
    const size_t at = level * 24;
    Put(table, at + 14, 1, 2);
    Put(table, at + 16, level == 0 ? 16 : level == 1 ? 1 : 0x409, 4);
    Put(table, at + 20, level < 2 ? (0x80000000u | ((level + 1) * 24)) : 72, 4);
  }
  Put(table, 72, kRva + 88, 4);
  Put(table, 76, static_cast<std::uint32_t>(block.size()), 4);
  table.resize(88);
  table.append(block.begin(), block.end());
  table.resize((table.size() + 511) / 512 * 512, '\0');
  b.replace(kSectionTable, 8, ".rsrc\0\0\0", 8);
  Put(b, kSectionTable + 8, static_cast<std::uint32_t>(table.size()), 4);
  Put(b, kSectionTable + 12, kRva, 4);
  Put(b, kSectionTable + 16, static_cast<std::uint32_t>(table.size()), 4);
  Put(b, kSectionTable + 20, kRaw, 4);
  return b + table;
}

std::vector<BYTE> Block() {
  VersionFacts facts;
  facts.strings = {{u"FileVersion", u"6.1.7601.17514"}, {u"FileDescription", u"Backup"}};
  return BuildVersionBlock(facts);
}

}  // namespace

TEST(PeVersion, FoundWhereTheTreeSaysAndNowhereWhenAFieldLies) {
  const std::vector<BYTE> block = Block();
  const std::string good = Pe(block);
  const size_t table = kRaw;
  const struct {
    const char* what;
    std::function<void(std::string&)> damage;
    bool found;
  } cases[] = {
      {"as made", [](std::string&) {}, true},
      {"no MZ", [](std::string& b) { b[0] = 'X'; }, false},
      {"PE header past the end", [](std::string& b) { Put(b, 0x3C, 0xFFFFFFF0u, 4); }, false},
      {"PE32 magic with a PE32+ layout", [](std::string& b) { Put(b, kOptional, 0x10B, 2); },
       false},
      {"too few data directories", [](std::string& b) { Put(b, kOptional + 108, 2, 4); }, false},
      {"65,535 sections", [](std::string& b) { Put(b, kPe + 6, 0xFFFF, 2); }, false},
      // What is read still lies within the file.
      {"section claiming more data than the file holds",
       [](std::string& b) { Put(b, kSectionTable + 16, 0x7FFFFFFF, 4); }, true},
      {"section data starting past the end",
       [](std::string& b) { Put(b, kSectionTable + 20, 0x7FFFFF00, 4); }, false},
      {"resource table outside every section",
       [](std::string& b) { Put(b, kOptional + 112 + 16, 0x9000, 4); }, false},
      {"65,535 entries in the root", [&](std::string& b) { Put(b, table + 14, 0xFFFF, 2); }, false},
      {"no version type", [&](std::string& b) { Put(b, table + 16, 3, 4); }, false},
      {"a directory naming itself",
       [&](std::string& b) { Put(b, table + 24 + 20, 0x80000000u | 24, 4); }, false},
      {"a directory naming an earlier one",
       [&](std::string& b) { Put(b, table + 48 + 20, 0x80000000u, 4); }, false},
      {"data where a directory must be", [&](std::string& b) { Put(b, table + 20, 72, 4); }, false},
      {"data larger than a version block", [&](std::string& b) { Put(b, table + 76, 0x10000, 4); },
       false},
      {"data past the section", [&](std::string& b) { Put(b, table + 76, 0x4000, 4); }, false},
      {"data address before the section", [&](std::string& b) { Put(b, table + 72, 0x10, 4); },
       false},
      {"cut in the middle of the block",
       [&](std::string& b) { b.resize(table + 88 + block.size() / 2); }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string pe = good;
    c.damage(pe);
    const auto found = VersionBlockFromPe(pe);
    EXPECT_EQ(found.has_value(), c.found);
    if (found) {
      EXPECT_EQ(*found, block);
    }
  }
}

// A machine's own PE file answers GetFileVersionInfoA and VerQueryValueA with its resource.
TEST(PeVersion, AMachinesFileAnswersTheVersionCalls) {
  auto machine =
      RecordedMachine::FromFiles({{"files/C/Windows/system32/setup/backup.dll", Pe(Block())},
                                  {"files/C/Windows/system32/setup/plain.dll", "MZ only"}});
  platform::Setup& setup = machine->setup();
  DWORD handle = 0;
  const DWORD size =
      setup.GetFileVersionInfoSizeA("C:\\WINDOWS\\System32\\Setup\\BACKUP.DLL", &handle);
  ASSERT_GT(size, 0u);
  std::vector<BYTE> data(size);
  ASSERT_TRUE(
      setup.GetFileVersionInfoA("C:\\Windows\\system32\\setup\\backup.dll", 0, size, data.data()));
  void* text = nullptr;
  UINT length = 0;
  ASSERT_TRUE(
      setup.VerQueryValueA(data.data(), "\\StringFileInfo\\040904b0\\FileVersion", &text, &length));
  EXPECT_STREQ(static_cast<const char*>(text), "6.1.7601.17514");
  EXPECT_EQ(setup.GetFileVersionInfoSizeA("C:\\Windows\\system32\\setup\\plain.dll", &handle), 0u);
  EXPECT_EQ(machine->system().GetLastError(), 1813u);  // ERROR_RESOURCE_TYPE_NOT_FOUND
}
