// iac reg query output. The command's source is compiled in here: it is a thin layer over
// kplatform, which this executable links.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "cli/reg_query.h"
#include "platform/recorded/recorded_registry.h"
#include "platform/types.h"

namespace {

const char kMachine[] =
    "Windows Registry Editor Version 5.00\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Demo]\n"
    "@=\"top\"\n"
    "\"Text\"=\"caf\xC3\xA9\"\n"
    "\"Count\"=dword:0000002a\n"
    "\"Blob\"=hex:de,ad,01\n"
    "\"List\"=hex(7):61,00,00,00,62,00,00,00,00,00\n"
    "\"Path\"=hex(2):25,00,54,00,25,00,00,00\n"
    "\"Big\"=hex(b):01,00,00,00,01,00,00,00\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Demo\\Child]\n"
    "\"Inner\"=\"x\"\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Demo\\Empty]\n";

}  // namespace

TEST(RegQuery, PrintsLikeWindows) {
  platform::recorded::RecordedRegistry reg;
  reg.loadRegFile("demo.reg", kMachine);
  const std::string demo = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Demo";
  const std::string values =
      "    (Default)    REG_SZ    top\n"
      "    Text    REG_SZ    caf\xC3\xA9\n"
      "    Count    REG_DWORD    0x2a\n"
      "    Blob    REG_BINARY    DEAD01\n"
      "    List    REG_MULTI_SZ    a\\0b\n"
      "    Path    REG_EXPAND_SZ    %T%\n"
      "    Big    REG_QWORD    0x100000001\n";
  const std::string child = demo + "\\Child\n    Inner    REG_SZ    x\n";
  const struct {
    const char* path;
    bool recursive;
    std::string expected;
  } cases[] = {
      {"HKLM\\SOFTWARE\\Demo", false,
       "\n" + demo + "\n" + values + "\n" + demo + "\\Child\n" + demo + "\\Empty\n\n"},
      {"HKLM\\SOFTWARE\\Demo", true,
       "\n" + demo + "\n" + values + "\n" + child + "\n" + demo + "\\Empty\n\n"},
      {"hkey_local_machine\\SOFTWARE\\Demo\\Child\\", true, "\n" + child + "\n"},
      {"HKLM\\SOFTWARE\\Demo\\Empty", false, "\n" + demo + "\\Empty\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    std::ostringstream out, err;
    EXPECT_EQ(iac::RunRegQuery(reg, c.path, c.recursive, out, err), 0);
    EXPECT_EQ(out.str(), c.expected);
    EXPECT_EQ(err.str(), "");
  }
  EXPECT_EQ(reg.openHandleCount(), 0u);
}

TEST(RegQuery, MissingKeyOrRoot) {
  platform::recorded::RecordedRegistry reg;
  const struct {
    const char* path;
    const char* message;
  } cases[] = {
      {"HKLM\\SOFTWARE\\Nothing",
       "ERROR: The system was unable to find the specified registry key or value.\n"},
      {"HKXX\\SOFTWARE", "ERROR: Invalid key name.\n"},
  };
  for (const auto& c : cases) {
    std::ostringstream out, err;
    EXPECT_EQ(iac::RunRegQuery(reg, c.path, false, out, err), 1);
    EXPECT_EQ(err.str(), c.message);
    EXPECT_EQ(out.str(), "");
  }
}

// A 32-bit reader under WOW64 sees HKLM\SOFTWARE\Wow6432Node by default; a view asked for
// holds for every key printed, sub-keys of /s included.
TEST(RegQuery, ViewsOfA32BitProcess) {
  platform::recorded::RecordedRegistry reg;
  reg.setProcessIs32Bit(true);
  reg.loadRegFile("views.reg",
                  "Windows Registry Editor Version 5.00\n"
                  "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool]\n"
                  "\"Bits\"=\"64\"\n"
                  "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\\Plugin64]\n"
                  "\"Bits\"=\"64\"\n"
                  "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Vendor\\Tool]\n"
                  "\"Bits\"=\"32\"\n"
                  "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Vendor\\Tool\\Plugin32]\n"
                  "\"Bits\"=\"32\"\n");
  const std::string top = "\nHKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\n";
  const struct {
    platform::REGSAM view;
    bool recursive;
    std::string expected;
  } cases[] = {
      {0, false,
       top +
           "    Bits    REG_SZ    32\n\nHKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\\Plugin32\n\n"},
      {platform::KEY_WOW64_32KEY, true,
       top + "    Bits    REG_SZ    32\n\nHKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\\Plugin32\n"
             "    Bits    REG_SZ    32\n\n"},
      {platform::KEY_WOW64_64KEY, false,
       top +
           "    Bits    REG_SZ    64\n\nHKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\\Plugin64\n\n"},
      {platform::KEY_WOW64_64KEY, true,
       top + "    Bits    REG_SZ    64\n\nHKEY_LOCAL_MACHINE\\SOFTWARE\\Vendor\\Tool\\Plugin64\n"
             "    Bits    REG_SZ    64\n\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("view " + std::to_string(c.view) + (c.recursive ? " /s" : ""));
    std::ostringstream out, err;
    EXPECT_EQ(
        iac::RunRegQuery(reg, "HKLM\\SOFTWARE\\Vendor\\Tool", c.recursive, out, err, 1252, c.view),
        0);
    EXPECT_EQ(out.str(), c.expected);
    EXPECT_EQ(err.str(), "");
  }
  EXPECT_EQ(reg.openHandleCount(), 0u);
}

namespace {

// A live registry that reg query cannot trust: every key holds the same sub-keys and any
// open answers that key again, as a loop of registry links does; the names may begin
// with a NUL (a key hidden from the Win32 calls) or exceed what the key's info reported.
class LoopRegistry : public platform::Registry {
 public:
  LoopRegistry(std::vector<std::string> names, platform::DWORD reportedLength)
      : names_(std::move(names)), reportedLength_(reportedLength) {}

  platform::LONG RegOpenKeyExA(platform::HKEY, const char*, platform::DWORD, platform::REGSAM,
                               platform::HKEY* result) override {
    *result = reinterpret_cast<platform::HKEY>(std::uintptr_t{0x1000});
    ++open_;
    return platform::ERROR_SUCCESS;
  }
  platform::LONG RegCloseKey(platform::HKEY) override {
    --open_;
    return platform::ERROR_SUCCESS;
  }
  platform::LONG RegQueryInfoKeyA(platform::HKEY, char*, platform::DWORD*, platform::DWORD*,
                                  platform::DWORD* subKeys, platform::DWORD* maxSubKeyLength,
                                  platform::DWORD*, platform::DWORD* values,
                                  platform::DWORD* maxValueNameLength,
                                  platform::DWORD* maxValueLength, platform::DWORD*,
                                  platform::FILETIME*) override {
    for (platform::DWORD* zero : {values, maxValueNameLength, maxValueLength}) {
      if (zero) *zero = 0;
    }
    if (subKeys) *subKeys = static_cast<platform::DWORD>(names_.size());
    if (maxSubKeyLength) *maxSubKeyLength = reportedLength_;
    return platform::ERROR_SUCCESS;
  }
  platform::LONG RegEnumKeyExA(platform::HKEY, platform::DWORD index, char* name,
                               platform::DWORD* nameLength, platform::DWORD*, char*,
                               platform::DWORD*, platform::FILETIME*) override {
    if (index >= names_.size()) return platform::ERROR_NO_MORE_ITEMS;
    const std::string& text = names_[index];
    if (text.size() >= *nameLength) return platform::ERROR_MORE_DATA;
    std::memcpy(name, text.c_str(), text.size() + 1);
    *nameLength = static_cast<platform::DWORD>(text.size());
    return platform::ERROR_SUCCESS;
  }
  platform::LONG RegEnumValueA(platform::HKEY, platform::DWORD, char*, platform::DWORD*,
                               platform::DWORD*, platform::DWORD*, platform::BYTE*,
                               platform::DWORD*) override {
    return platform::ERROR_NO_MORE_ITEMS;
  }
  platform::LONG RegQueryValueExA(platform::HKEY, const char*, platform::DWORD*, platform::DWORD*,
                                  platform::BYTE*, platform::DWORD*) override {
    return platform::ERROR_FILE_NOT_FOUND;
  }

  int open_ = 0;

 private:
  std::vector<std::string> names_;
  platform::DWORD reportedLength_;
};

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

}  // namespace

// /s opened each sub-key by its name as a C string: a name starting with NUL reopened the
// key itself and the recursion never ended. Such a key is listed but not entered, and a
// loop of links stops where Windows' 512 levels end. A name longer than the key reported
// is read with a larger buffer instead of ending the listing.
TEST(RegQuery, UntrustworthyNamesEndTheWalk) {
  const std::string hidden("\0x", 2);
  const std::string longName = "K" + std::string(600, 'x');
  const struct {
    const char* what;
    std::vector<std::string> names;
    platform::DWORD reportedLength;
    bool recursive;
    size_t keysPrinted;
  } cases[] = {
      {"hidden key, listed", {hidden, "k"}, 2, false, 3},
      {"hidden key and a loop, /s", {hidden, "k"}, 2, true, 511},
      {"name longer than reported", {longName, "Later"}, 5, false, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    LoopRegistry reg(c.names, c.reportedLength);
    std::ostringstream out, err;
    ASSERT_EQ(iac::RunRegQuery(reg, "HKLM\\SOFTWARE", c.recursive, out, err), 0);
    EXPECT_EQ(Count(out.str(), "HKEY_LOCAL_MACHINE\\SOFTWARE"), c.keysPrinted);
    EXPECT_EQ(reg.open_, 0);
    if (c.recursive) {
      EXPECT_EQ(out.str().find('\0'), std::string::npos);
    } else {
      EXPECT_NE(out.str().find("HKEY_LOCAL_MACHINE\\SOFTWARE\\" + c.names[1] + "\n"),
                std::string::npos)
          << out.str();
    }
  }
}
