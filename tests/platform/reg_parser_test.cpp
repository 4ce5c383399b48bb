// The .reg parser: value kinds, encodings, removals, errors, real exports, hostile input.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/recorded/codepage.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/reg_parser.h"

using platform::BYTE;
using platform::RecordError;
using namespace platform::recorded;

namespace {

const std::string kHeader = "Windows Registry Editor Version 5.00\r\n\r\n";
const std::u16string kKey = u"HKEY_LOCAL_MACHINE\\SOFTWARE\\T";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string Utf16File(const std::u16string& text) {
  std::string bytes = "\xFF\xFE";
  for (char16_t c : text) {
    bytes += static_cast<char>(c & 0xFF);
    bytes += static_cast<char>(c >> 8);
  }
  return bytes;
}

size_t CountKeys(const RegKey& key) {
  size_t n = 1;
  for (size_t i = 0; i < key.subKeyCount(); ++i) n += CountKeys(key.subKey(i));
  return n;
}

std::string Bytes(platform::recorded::ValueBytes data) {
  return std::string(data.begin(), data.end());
}

std::string Wide(const std::string& ascii) {  // ASCII text as UTF-16LE bytes
  std::string out;
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

}  // namespace

TEST(RegParser, ValueKinds) {
  struct Case {
    const char* line;
    const char* name;
    platform::DWORD type;
    std::string data;
  };
  const Case cases[] = {
      {R"("s"="a\\b\"c")", "s", platform::REG_SZ, Wide("a\\b\"c") + std::string(2, '\0')},
      {R"("empty"="")", "empty", platform::REG_SZ, std::string(2, '\0')},
      {R"(@="def")", "", platform::REG_SZ, Wide("def") + std::string(2, '\0')},
      {R"("a=b"="x")", "a=b", platform::REG_SZ, Wide("x") + std::string(2, '\0')},
      {R"("d"=dword:0000000b)", "d", platform::REG_DWORD, std::string("\x0b\0\0\0", 4)},
      {R"("dmax"=dword:FFFFFFFF)", "dmax", platform::REG_DWORD, "\xFF\xFF\xFF\xFF"},
      {R"("b"=hex:de,AD,0f)", "b", platform::REG_BINARY, "\xDE\xAD\x0F"},
      {R"("nobytes"=hex:)", "nobytes", platform::REG_BINARY, ""},
      {R"("none"=hex(0):01)", "none", platform::REG_NONE, "\x01"},
      {R"("e"=hex(2):25,00,41,00,25,00,00,00)", "e", platform::REG_EXPAND_SZ,
       Wide("%A%") + std::string(2, '\0')},
      {R"("m"=hex(7):61,00,00,00,62,00,00,00,00,00)", "m", platform::REG_MULTI_SZ,
       std::string("a\0\0\0b\0\0\0\0\0", 10)},
      {R"("q"=hex(b):01,00,00,00,00,00,00,80)", "q", platform::REG_QWORD,
       std::string("\x01\0\0\0\0\0\0\x80", 8)},
      {"\"cont\"=hex:01,02,\\\r\n  03,\\\r\n  04", "cont", platform::REG_BINARY,
       "\x01\x02\x03\x04"},
      {"\"multi\"=\"one\r\r\ntwo\r\nthree\"", "multi", platform::REG_SZ,
       Wide("one\r\ntwo\nthree") + std::string(2, '\0')},
      {"\"  spaced\" = \"v\"  ", "  spaced", platform::REG_SZ, Wide("v") + std::string(2, '\0')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    RegistryTree tree;
    ApplyRegFile(tree, "t.reg", kHeader + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n" + c.line + "\r\n",
                 1252);
    const RegKey* key = tree.find(kKey);
    ASSERT_NE(key, nullptr);
    const RegValue* value = key->findValue(Utf8ToWide(c.name));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->type(), c.type);
    EXPECT_EQ(Bytes(value->data()), c.data);
  }
}

TEST(RegParser, RootsRemovalsAndOrder) {
  RegistryTree tree;
  ApplyRegFile(tree, "t.reg",
               kHeader +
                   "[HKEY_CLASSES_ROOT\\.txt]\n@=\"txtfile\"\n"
                   "[HKCU\\Environment]\n\"TEMP\"=\"t\"\n"
                   "[HKEY_USERS\\S-1-5-18]\n"
                   "[HKLM\\SOFTWARE\\Keep\\Zeta]\n[HKLM\\SOFTWARE\\Keep\\alpha]\n"
                   "[HKLM\\SOFTWARE\\Keep\\Gone\\Deep]\n"
                   "[HKLM\\SOFTWARE\\Keep]\n\"v1\"=\"1\"\n\"v2\"=\"2\"\n\"V1\"=-\n"
                   "[-HKLM\\SOFTWARE\\keep\\GONE]\n\"ignored\"=\"because the key is removed\"\n"
                   "[-HKLM\\SOFTWARE\\Never\\There]\n",
               1252);
  EXPECT_NE(tree.find(u"HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\.txt"), nullptr);
  EXPECT_NE(tree.find(u"HKEY_CURRENT_USER\\Environment"), nullptr);
  EXPECT_NE(tree.find(u"HKEY_USERS\\S-1-5-18"), nullptr);
  const RegKey* keep = tree.find(u"HKLM\\software\\KEEP");
  ASSERT_NE(keep, nullptr);
  EXPECT_EQ(keep->name(), u"Keep");    // case as first written
  ASSERT_EQ(keep->subKeyCount(), 2u);  // written Zeta, alpha; listed as Windows sorts them
  EXPECT_EQ(keep->subKey(0).name(), u"alpha");
  EXPECT_EQ(keep->subKey(1).name(), u"Zeta");
  ASSERT_EQ(keep->valueCount(), 1u);
  EXPECT_EQ(keep->value(0).name(), u"v2");
  EXPECT_EQ(tree.find(u"HKLM\\SOFTWARE\\Never"), nullptr);
}

TEST(RegParser, EncodingsAgree) {
  const std::u16string text =
      u"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n"
      u"\"Имя\"=\"Привет\"\r\n";
  const std::string utf8 = WideToUtf8(text);
  struct Case {
    const char* what;
    std::string bytes;
    unsigned codePage;
  };
  const Case cases[] = {
      {"UTF-16LE with BOM", Utf16File(text), 1252},
      {"UTF-8 with BOM", "\xEF\xBB\xBF" + utf8, 1252},
      {"UTF-8 without BOM", utf8, 1252},
      {"REGEDIT4 in CP1251",
       "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n\"\xC8\xEC\xFF\"="
       "\"\xCF\xF0\xE8\xE2\xE5\xF2\"\r\n",
       1251},
      {"REGEDIT4 hex(2) holds ANSI bytes",
       "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T]\r\n\"\xC8\xEC\xFF\"=hex(1):cf,f0,e8,e2,"
       "e5,f2,00\r\n",
       1251},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RegistryTree tree;
    ApplyRegFile(tree, "t.reg", c.bytes, c.codePage);
    const RegKey* key = tree.find(kKey);
    ASSERT_NE(key, nullptr);
    const RegValue* value = key->findValue(u"имя");  // case-insensitive in Cyrillic too
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->type(), platform::REG_SZ);
    EXPECT_EQ(Utf16FromBytes(value->data().data(), value->data().size()),
              std::u16string(u"Привет") + u'\0');
  }
}

TEST(RegParser, ErrorsNameFileAndLine) {
  const struct {
    std::string text;
    const char* message;
  } cases[] = {
      {"REGEDIT5\n", "Uninstall.reg:1: not a registry export"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"b\"=hex:01,zz\n", "Uninstall.reg:4: bad hex byte 'zz'"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"b\"=hex:01,\\\n  02,\\\n  123\n",
       "Uninstall.reg:6: bad hex byte '123'"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"d\"=dword:123456789\n", "Uninstall.reg:4: bad dword"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"d\"=dword:\n", "Uninstall.reg:4: bad dword"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"s\"=\"never closed\n\n",
       "Uninstall.reg:4: string without"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"s\"=\"a\" junk\n",
       "Uninstall.reg:4: unexpected text after"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"s\"=str:abc\n",
       "Uninstall.reg:4: unrecognised value type"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"s\"=hex(zz):00\n", "Uninstall.reg:4: bad value type"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\n\"s\" \"x\"\n", "Uninstall.reg:4: expected '='"},
      {kHeader + "\"s\"=\"x\"\n", "Uninstall.reg:3: value outside a key"},
      {kHeader + "[HKEY_NOWHERE\\T]\n", "Uninstall.reg:3: unknown root key 'HKEY_NOWHERE'"},
      {kHeader + "[HKLM\\SOFTWARE\\T\n", "Uninstall.reg:3: key line without closing ']'"},
      {kHeader + "[HKLM\\SOFTWARE\\T]\nnonsense\n", "Uninstall.reg:4: unexpected text 'nonsense'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    RegistryTree tree;
    try {
      ApplyRegFile(tree, "Uninstall.reg", c.text, 1252);
      ADD_FAILURE() << "accepted";
    } catch (const RecordError& e) {
      EXPECT_EQ(std::string(e.what()).rfind(c.message, 0), 0u) << e.what();
    }
  }
}

// Windows' own bounds, each at the limit and one past it. The NUL key is the 42-byte
// export that made reg query /s recurse without end; the 33 levels, the line pattern that
// took 125 bytes of memory per byte of the file.
TEST(RegParser, WhatWindowsCannotHoldIsRefused) {
  auto key = [](const std::string& path) { return kHeader + "[HKLM\\SOFTWARE\\" + path + "]\n"; };
  auto levels = [](size_t n) {  // n new keys below HKEY_LOCAL_MACHINE
    std::string path = kHeader + "[HKLM\\x";
    for (size_t i = 1; i < n; ++i) path += "\\k";
    return path + "]\n";
  };
  auto value = [](const std::string& line) {
    return kHeader + "[HKLM\\SOFTWARE\\T]\n" + line + "\n";
  };
  // A 511-level key made 30 levels a line, as an export that writes every key would.
  std::string stepwise = kHeader;
  std::string path = "HKLM\\SOFTWARE";
  for (size_t depth = 2; depth < 511; depth += 30) {
    for (size_t i = 0; i < 30 && depth + i < 511; ++i) path += "\\k";
    stepwise += "[" + path + "]\n";
  }
  std::string overHex = "\"b\"=hex:00";
  for (size_t i = 0; i < kMaxValueSize; ++i) overHex += ",00";
  const struct {
    const char* what;
    std::string text;
    const char* refusal;  // null: accepted
  } cases[] = {
      {"255-character key name", key(std::string(255, 'k')), nullptr},
      {"256-character key name", key(std::string(256, 'k')),
       "t.reg:3: key with a name longer than 255 characters: 'kkkk"},
      {"NUL in a key name",
       "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\" +
           std::string(1, '\0') + "x]\r\n",
       "t.reg:3: key with a NUL character in its name: '\\x00x'"},
      {"32 levels made by one line", levels(32), nullptr},
      {"33 levels made by one line", levels(33),
       "t.reg:3: key line creating more than 32 missing levels at once"},
      {"511 levels below HKLM, made in steps", stepwise + "[" + path + "\\last]\n", nullptr},
      {"512 levels below HKLM", stepwise + "[" + path + "\\last\\deeper]\n",
       "key nested deeper than 512 levels"},
      {"16,383-character value name", value("\"" + std::string(16383, 'v') + "\"=dword:1"),
       nullptr},
      {"16,384-character value name", value("\"" + std::string(16384, 'v') + "\"=dword:1"),
       "t.reg:4: value name longer than 16,383 characters"},
      {"string of 16 MiB with its NUL", value("\"s\"=\"" + std::string(8388607, 's') + "\""),
       nullptr},
      {"string two bytes over 16 MiB", value("\"s\"=\"" + std::string(8388608, 's') + "\""),
       "t.reg:4: value data larger than 16 MiB"},
      {"hex data one byte over 16 MiB", value(overHex), "t.reg:4: value data larger than 16 MiB"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RegistryTree tree;
    try {
      ApplyRegFile(tree, "t.reg", c.text, 1252);
      EXPECT_EQ(c.refusal, nullptr) << "accepted";
    } catch (const RecordError& e) {
      ASSERT_NE(c.refusal, nullptr) << e.what();
      EXPECT_NE(std::string(e.what()).find(c.refusal), std::string::npos) << e.what();
    }
  }
}

// Memory follows the file: lines that each make 31 one-letter keys are refused once
// they pass the file's allowance, long before their end; a dense but plausible export
// (150,000 short dword values) is not.
// A key name holding a line break has no plain key line: capture writes the key line
// %-escaped after a marker comment. The marker covers the next key line only; '%' elsewhere
// is a character like any other, and what an escape makes is checked as any name is.
TEST(RegParser, EscapedKeyLines) {
  const std::string mark = ";%-escaped key\r\n";
  struct Case {
    std::string lines;                  // after the header
    std::vector<std::u16string> under;  // the names below HKLM\SOFTWARE\T, as listed
    const char* error;                  // or the message
  };
  const Case cases[] = {
      {mark + "[HKLM\\SOFTWARE\\T\\Line%0D%0ABreak]\r\n", {u"Line\r\nBreak"}, nullptr},
      {"  " + mark + "[HKLM\\SOFTWARE\\T\\100%25%0a]\r\n", {u"100%\n"}, nullptr},
      {mark + "[HKLM\\SOFTWARE\\T\\a%41]\r\n[HKLM\\SOFTWARE\\T\\b%41]\r\n",
       {u"aA", u"b%41"},
       nullptr},
      {"[HKLM\\SOFTWARE\\T\\50%0A]\r\n; %-escaped key\r\n[HKLM\\SOFTWARE\\T\\%25]\r\n",
       {u"%25", u"50%0A"},
       nullptr},
      {mark + "[HKLM\\SOFTWARE\\T\\" + std::string(254, 'x') + "%0A]\r\n",
       {std::u16string(254, u'x') + u"\n"},
       nullptr},
      {mark + "[HKLM\\SOFTWARE\\T\\" + std::string(255, 'x') + "%0A]\r\n",
       {},
       "t.reg:5: key with a name longer than 255 characters"},
      {mark + "[HKLM\\SOFTWARE\\T\\bad%4]\r\n",
       {},
       "t.reg:5: escaped key name with a '%' not followed by two hex digits: 'bad%4'"},
      {mark + "[HKLM\\SOFTWARE\\T\\bad%zz]\r\n", {}, "t.reg:5: escaped key name with a '%'"},
      {mark + "[HKLM\\SOFTWARE\\T\\a%5Cb]\r\n", {}, "t.reg:5: key with a '\\' in its name"},
      {mark + "[HKLM\\SOFTWARE\\T\\a%00b]\r\n", {}, "t.reg:5: key with a NUL character"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines);
    RegistryTree tree;
    try {
      ApplyRegFile(tree, "t.reg", kHeader + "[HKLM\\SOFTWARE\\T]\r\n" + c.lines, 1252);
    } catch (const RecordError& e) {
      ASSERT_NE(c.error, nullptr) << e.what();
      EXPECT_EQ(std::string(e.what()).rfind(c.error, 0), 0u) << e.what();
      continue;
    }
    ASSERT_EQ(c.error, nullptr);
    const RegKey* key = tree.find(kKey);
    ASSERT_NE(key, nullptr);
    std::vector<std::u16string> under;
    for (size_t i = 0; i < key->subKeyCount(); ++i) under.push_back(key->subKey(i).name());
    EXPECT_EQ(under, c.under);
  }
}

TEST(RegParser, DenseFilesAreRefusedBeforeTheyGrow) {
  std::string tail;
  for (int i = 0; i < 30; ++i) tail += "\\k";
  std::string keys = kHeader;
  const int lines = 20000;
  for (int i = 0; i < lines; ++i) keys += "[HKLM\\S\\" + std::to_string(i) + tail + "]\n";
  RegistryTree tree;
  try {
    ApplyRegFile(tree, "dense.reg", keys, 1252);
    ADD_FAILURE() << "accepted";
  } catch (const RecordError& e) {
    const std::string message = e.what();
    EXPECT_NE(message.find("MiB in memory"), std::string::npos) << message;
    const size_t line = std::stoul(message.substr(message.find(':') + 1));
    EXPECT_LT(line, static_cast<size_t>(lines) / 2) << message;
  }

  std::string values = kHeader + "[HKLM\\SOFTWARE\\Values]\n";
  for (int i = 0; i < 150000; ++i) values += "\"v" + std::to_string(i) + "\"=dword:00000001\n";
  RegistryTree dense;
  ApplyRegFile(dense, "values.reg", values, 1252);
  EXPECT_EQ(dense.find(u"HKLM\\SOFTWARE\\Values")->valueCount(), 150000u);
}

// Names removed and written again in lists long enough to be indexed: the index steps
// over removed entries until loading ends, and comes back in Windows' order.
TEST(RegParser, RemovedNamesCanReturn) {
  std::string text = kHeader;
  for (int i = 0; i < 20; ++i) text += "[HKLM\\SOFTWARE\\L\\k" + std::to_string(i) + "]\n";
  text +=
      "[-HKLM\\SOFTWARE\\L\\K3]\n[-HKLM\\SOFTWARE\\L\\k7]\n[HKLM\\SOFTWARE\\L\\k3]\n\"v\"="
      "\"back\"\n";
  text += "[HKLM\\SOFTWARE\\L]\n";
  for (int i = 0; i < 20; ++i) text += "\"v" + std::to_string(i) + "\"=dword:1\n";
  text += "\"V3\"=-\n\"v19\"=-\n\"v3\"=dword:2\n";
  RegistryTree tree;
  ApplyRegFile(tree, "t.reg", text, 1252);
  const RegKey* list = tree.find(u"HKLM\\SOFTWARE\\L");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->subKeyCount(), 19u);
  EXPECT_EQ(list->subKey(0).name(), u"k0");
  EXPECT_EQ(list->subKey(1).name(), u"k1");
  EXPECT_EQ(list->subKey(2).name(), u"k10");  // by name, as Windows lists them
  EXPECT_EQ(list->findSubKey(u"k7"), nullptr);
  ASSERT_NE(list->findSubKey(u"K3"), nullptr);
  EXPECT_NE(list->findSubKey(u"K3")->findValue(u"v"), nullptr);
  ASSERT_EQ(list->valueCount(), 19u);
  EXPECT_EQ(list->value(3).name(), u"v4");  // values keep the order written
  EXPECT_EQ(list->value(18).name(), u"v3");
  EXPECT_EQ(list->findValue(u"V3")->data()[0], 2);
  EXPECT_EQ(list->findValue(u"v19"), nullptr);
}

// Every prefix and many corruptions of a small export: the parser either reads it or
// refuses it with a RecordError (the sanitizer build checks that it stays in bounds).
TEST(RegParser, HostileInputNeverCrashes) {
  const std::string sample = Utf16File(Utf8ToWide(
      kHeader +
      "[HKLM\\SOFTWARE\\T]\r\n@=\"d\"\r\n\"s\"=\"a\\\\\\\"b\r\nc\"\r\n\"h\"=hex(7):61,00,\\\r\n"
      "  00,00\r\n\"d\"=dword:1\r\n\"x\"=-\r\n[-HKLM\\SOFTWARE\\T]\r\n"));
  size_t refused = 0;
  auto attempt = [&](const std::string& bytes) {
    RegistryTree tree;
    try {
      ApplyRegFile(tree, "t.reg", bytes, 1252);
    } catch (const RecordError&) {
      ++refused;
    }
  };
  for (size_t n = 0; n <= sample.size(); ++n) attempt(sample.substr(0, n));
  unsigned seed = 12345;
  for (int i = 0; i < 3000; ++i) {
    std::string bytes = sample;
    for (int flips = 0; flips < 3; ++flips) {
      seed = seed * 1103515245 + 12345;
      const char pick[] = {'"', '\\', '\n', '\r', '[', ']', '=', ':', ',', '@', '-', '\0', 'z'};
      bytes[2 + (seed >> 8) % (bytes.size() - 2)] = pick[(seed >> 20) % sizeof(pick)];
    }
    attempt(bytes);
  }
  EXPECT_GT(refused, 0u);
}

// Many keys made and removed again, and one key with very many values: linear work.
TEST(RegParser, LargeInputStaysLinear) {
  std::string text = kHeader;
  for (int i = 0; i < 40000; ++i) text += "[HKLM\\SOFTWARE\\Many\\k" + std::to_string(i) + "]\n";
  for (int i = 0; i < 40000; ++i) text += "[-HKLM\\SOFTWARE\\Many\\k" + std::to_string(i) + "]\n";
  text += "[HKLM\\SOFTWARE\\Values]\n";
  for (int i = 0; i < 40000; ++i) text += "\"v" + std::to_string(i) + "\"=dword:1\n";
  const auto start = std::chrono::steady_clock::now();
  RegistryTree tree;
  ApplyRegFile(tree, "t.reg", text, 1252);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_EQ(tree.find(u"HKLM\\SOFTWARE\\Many")->subKeyCount(), 0u);
  EXPECT_EQ(tree.find(u"HKLM\\SOFTWARE\\Values")->valueCount(), 40000u);
}

TEST(RegParserRealData, EveryExportParses) {
  const std::filesystem::path dir = std::filesystem::path(IA_REALDATA_DIR) / "reg";
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no real data at " << dir;
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    SCOPED_TRACE(entry.path().string());
    RegistryTree tree;
    EXPECT_NO_THROW(ApplyRegFile(tree, entry.path().filename().string(),
                                 ReadFile(entry.path().string()), 1252));
    EXPECT_NE(tree.find(u"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall"), nullptr);
    ++files;
  }
  EXPECT_GE(files, 3u);
}

TEST(RegParserRealData, XpExportKeepsKeysAndMultiLineStrings) {
  const std::string path = std::string(IA_REALDATA_DIR) + "/reg/xp-Uninstall.reg";
  if (!std::filesystem::exists(path)) GTEST_SKIP() << "no real data at " << path;
  RegistryTree tree;
  ApplyRegFile(tree, "xp-Uninstall.reg", ReadFile(path), 1252);
  const RegKey* uninstall =
      tree.find(u"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall");
  ASSERT_NE(uninstall, nullptr);
  EXPECT_EQ(CountKeys(*uninstall), 536u);

  // Comments spanning three lines; the stored "\r\n" comes back whole.
  size_t multiLine = 0;
  for (size_t i = 0; i < uninstall->subKeyCount(); ++i) {
    const RegValue* comments = uninstall->subKey(i).findValue(u"Comments");
    if (!comments) continue;
    const std::u16string text = Utf16FromBytes(comments->data().data(), comments->data().size());
    if (text.find(u"Extended.\r\nIf you later install") != std::u16string::npos) {
      ++multiLine;
      EXPECT_NE(text.find(u"automatically.\r\nFor more information"), std::u16string::npos);
      EXPECT_EQ(text.back(), u'\0');
    }
  }
  EXPECT_GE(multiLine, 3u);
}

// A two-key excerpt of the XP export, kept in the tree so this runs without the real data.
TEST(RegParser, RegeditMultiLineExportExcerpt) {
  RegistryTree tree;
  ApplyRegFile(tree, "xp-multiline.reg",
               ReadFile(std::string(IA_SOURCE_DIR) + "/tests/fixtures/registry/xp-multiline.reg"),
               1252);
  const RegKey* fix = tree.find(
      u"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
      u"{0A0CADCF-78DA-33C4-A350-CD51849B9702}.KB2416472");
  ASSERT_NE(fix, nullptr);
  const RegValue* comments = fix->findValue(u"Comments");
  ASSERT_NE(comments, nullptr);
  EXPECT_EQ(
      Utf16FromBytes(comments->data().data(), comments->data().size()),
      std::u16string(u"This security update is for Microsoft .NET Framework 4 Extended.\r\n"
                     u"If you later install a more recent service pack, this security "
                     u"update will be uninstalled automatically.\r\n"
                     u"For more information, visit http://support.microsoft.com/kb/2416472.") +
          u'\0');
  const RegKey* wmp =
      tree.find(u"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\KB2378111_WM9");
  ASSERT_NE(wmp, nullptr);
  const RegValue* icon = wmp->findValue(u"DisplayIcon");
  ASSERT_NE(icon, nullptr);
  EXPECT_EQ(icon->type(), platform::REG_EXPAND_SZ);
  EXPECT_EQ(Utf16FromBytes(icon->data().data(), icon->data().size()),
            std::u16string(u"\"%ProgramFiles%\\windows media player\\wmplayer.exe\"") + u'\0');
}
