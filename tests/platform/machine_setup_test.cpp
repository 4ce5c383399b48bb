// INF files and version resources of a recorded machine.
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/recorded/machine_inf.h"
#include "platform/recorded/machine_setup.h"
#include "platform/recorded/machine_version.h"
#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

const char kInfHeader[] = "[Version]\nSignature=\"$Windows NT$\"\n";

const char* kInf =
    "[Version]\r\n"
    "Signature = \"$Windows NT$\"\r\n"
    "[Components]\r\n"
    "NetOC = netoc.dll,NetOcSetupProc,netoc.inf,,7\r\n"
    "Games = ocgen.dll,OcEntry,games.inf,HIDE,7 ; comment\r\n"
    "[Optional Components]\r\n"
    "Freecell\r\n"
    "[freecell]\r\n"
    "OptionDesc = %fc_desc%\r\n"
    "Tip = \"A \"\"quoted\"\", comma\" , %missing% , 100%%\r\n"
    "Parent = games, \\\r\n"
    "         more\r\n"
    "[Strings]\r\n"
    "FC_DESC = \"Freecell game\"\r\n";

std::shared_ptr<RecordedMachine> WithInf(const char* text = kInf) {
  return RecordedMachine::FromFiles({{"files/C/WINDOWS/inf/test.inf", text}});
}

std::string Field(Setup& setup, INFCONTEXT* context, DWORD index) {
  char buffer[256] = "";
  return setup.SetupGetStringFieldA(context, index, buffer, sizeof buffer, nullptr) ? buffer
                                                                                    : "<none>";
}

TEST(MachineSetup, InfLinesFieldsAndStrings) {
  auto m = WithInf();
  platform::Setup& s = m->setup();
  HINF inf = s.SetupOpenInfFileA("c:\\windows\\INF\\test.inf", nullptr, INF_STYLE_WIN4, nullptr);
  ASSERT_NE(inf, INVALID_HANDLE_VALUE);
  INFCONTEXT ctx{};
  ASSERT_TRUE(s.SetupFindFirstLineA(inf, "FREECELL", "tip", &ctx));
  struct Case {
    DWORD field;
    const char* text;
  };
  const Case cases[] = {
      {0, "Tip"}, {1, "A \"quoted\", comma"}, {2, "%missing%"}, {3, "100%"}, {4, "<none>"}};
  for (const Case& c : cases) EXPECT_EQ(Field(s, &ctx, c.field), c.text) << c.field;

  char text[256];
  DWORD required = 0;
  ASSERT_TRUE(
      s.SetupGetLineTextA(nullptr, inf, "freecell", "optiondesc", text, sizeof text, &required));
  EXPECT_STREQ(text, "Freecell game");
  EXPECT_EQ(required, 14u);
  ASSERT_TRUE(s.SetupGetLineTextA(nullptr, inf, "freecell", "parent", text, sizeof text, nullptr));
  EXPECT_STREQ(text, "games,more");  // continued line, fields joined with ','
  EXPECT_FALSE(s.SetupGetLineTextA(nullptr, inf, "freecell", "parent", text, 5, &required));
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(required, 11u);

  // A line without a key: its text is the line; field 0 does not exist.
  ASSERT_TRUE(s.SetupFindFirstLineA(inf, "Optional Components", nullptr, &ctx));
  ASSERT_TRUE(s.SetupGetLineTextA(&ctx, nullptr, nullptr, nullptr, text, sizeof text, nullptr));
  EXPECT_STREQ(text, "Freecell");
  EXPECT_EQ(Field(s, &ctx, 0), "<none>");

  EXPECT_EQ(s.SetupGetLineCountA(inf, "components"), 2);
  EXPECT_EQ(s.SetupGetLineCountA(inf, "nothing"), -1);
  EXPECT_FALSE(s.SetupFindFirstLineA(inf, "Components", "nokey", &ctx));
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_LINE_NOT_FOUND));
  s.SetupCloseInfFile(inf);
}

TEST(MachineSetup, FailingCallsLeaveContextAndBufferAsTheyWere) {
  auto m = WithInf();
  platform::Setup& s = m->setup();
  HINF inf = s.SetupOpenInfFileA("C:\\WINDOWS\\inf\\test.inf", nullptr, INF_STYLE_WIN4, nullptr);
  ASSERT_NE(inf, INVALID_HANDLE_VALUE);
  // The component list is walked one index past its end; the last pass reads the context
  // that the failing call left, so the last line is read twice.
  const LONG count = s.SetupGetLineCountA(inf, "Components");
  INFCONTEXT ctx{};
  std::vector<std::string> infs;
  char hidden[256] = "", file[256] = "";
  std::vector<std::string> hiddenFlags;
  for (LONG i = 0; i <= count; ++i) {
    const BOOL found = s.SetupGetLineByIndexA(inf, "Components", static_cast<DWORD>(i), &ctx);
    EXPECT_EQ(found != 0, i < count);
    s.SetupGetStringFieldA(&ctx, 4, hidden, sizeof hidden, nullptr);
    s.SetupGetStringFieldA(&ctx, 3, file, sizeof file, nullptr);
    infs.push_back(file);
    hiddenFlags.push_back(hidden);
  }
  EXPECT_EQ(infs, (std::vector<std::string>{"netoc.inf", "games.inf", "games.inf"}));
  EXPECT_EQ(hiddenFlags, (std::vector<std::string>{"", "HIDE", "HIDE"}));

  // A field the line does not have: FALSE, ERROR_INVALID_PARAMETER, buffer untouched.
  char buffer[8] = "keep";
  EXPECT_FALSE(s.SetupGetStringFieldA(&ctx, 9, buffer, sizeof buffer, nullptr));
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_STREQ(buffer, "keep");
  DWORD required = 0;
  EXPECT_FALSE(s.SetupGetStringFieldA(&ctx, 1, buffer, 4, &required));
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(required, 10u);  // "ocgen.dll" and NUL
  s.SetupCloseInfFile(inf);
  EXPECT_EQ(m->recordedSetup().openInfCount(), 0u);
}

TEST(MachineSetup, OpeningInfFiles) {
  struct Case {
    const char* text;
    DWORD style;
    bool opens;
    LONG lastError;
  };
  const Case cases[] = {
      {kInf, INF_STYLE_WIN4, true, 0},
      {"[Version]\nSignature=$Chicago$\n", INF_STYLE_WIN4, true, 0},
      {"[Strings]\nx=1\n", INF_STYLE_WIN4, false, recorded::ERROR_WRONG_INF_STYLE},
      {"\xFF\xFE[\0V\0e\0r\0s\0i\0o\0n\0]\0\n\0S\0i\0g\0n\0a\0t\0u\0r\0e\0=\0$"
       "\0W\0i\0n\0d\0o\0w\0s\0 "
       "\0N\0T\0$\0",
       INF_STYLE_WIN4, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string bytes(c.text, c.text[0] == '\xFF' ? 66 : std::strlen(c.text));
    auto m = RecordedMachine::FromFiles({{"files/C/x.inf", bytes}});
    HINF inf = m->setup().SetupOpenInfFileA("C:\\x.inf", nullptr, c.style, nullptr);
    EXPECT_EQ(inf != INVALID_HANDLE_VALUE, c.opens);
    if (c.opens) {
      m->setup().SetupCloseInfFile(inf);
    } else {
      EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(c.lastError));
    }
  }
  auto m = WithInf();
  EXPECT_EQ(m->setup().SetupOpenInfFileA("C:\\WINDOWS\\inf\\sysoc.inf", nullptr, 2, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

// What a field reads as, and which line a key finds: the first [Strings] entry of a name
// (in any case) serves every reference; a line's key is compared after substitution; a field
// grows through references only up to SetupAPI's longest string.
TEST(MachineSetup, SubstitutionsAndKeysResolveAsSetupApiDoes) {
  const std::string big(3000, 'b'), written(5000, 'w');
  const std::string text = std::string(kInfHeader) +
                           "[S]\n%key% = by reference\nplain = first\nPLAIN = second\n"
                           "[F]\n"
                           "dup = %DUP%\ntwice = %big%%big%\nwritten = " +
                           written +
                           "%big%\nunknown = %nope%\n[Strings]\nkey = \"Keyed\"\n"
                           "dup = one\nDUP = two\nbig = " +
                           big + "\n";
  auto m = RecordedMachine::FromFiles({{"files/C/x.inf", text}});
  platform::Setup& s = m->setup();
  HINF inf = s.SetupOpenInfFileA("C:\\x.inf", nullptr, INF_STYLE_WIN4, nullptr);
  ASSERT_NE(inf, INVALID_HANDLE_VALUE);
  struct Case {
    const char* section;
    const char* key;
    std::string text;  // the line's text, or "<none>" when no line has the key
  };
  const Case cases[] = {
      {"S", "KEYED", "by reference"},
      {"S", "plain", "first"},
      {"S", "key", "<none>"},
      {"S", "second", "<none>"},
      {"F", "dup", "one"},
      {"F", "twice", (big + big).substr(0, recorded::kMaxSubstitutedLength)},
      {"F", "written", written + "bbbbb"},  // longer as written: cut at that length
      {"F", "unknown", "%nope%"},
      {"Nowhere", "dup", "<none>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.section) + "/" + c.key);
    INFCONTEXT context{};
    if (!s.SetupFindFirstLineA(inf, c.section, c.key, &context)) {
      EXPECT_EQ(c.text, "<none>");
      EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_LINE_NOT_FOUND));
      continue;
    }
    std::string line(8192, '\0');
    DWORD required = 0;
    ASSERT_TRUE(s.SetupGetLineTextA(&context, nullptr, nullptr, nullptr, line.data(),
                                    static_cast<DWORD>(line.size()), &required));
    EXPECT_EQ(line.c_str(), c.text);
    EXPECT_EQ(required, c.text.size() + 1);
  }
  s.SetupCloseInfFile(inf);
}

// A line ends at LF or CR LF alike, so a file reads the same once copied in text mode (as
// capture copies it). A quote left open ran to the line's end and kept the CR; a CR that
// no LF follows is text.
TEST(MachineSetup, CrLfEndsALineAsLfDoes) {
  struct Case {
    const char* key;
    const char* text;  // the line's text, fields joined with ','
  };
  const Case cases[] = {
      {"open", "runs to the end"}, {"quoted", "a ; b,c"},
      {"continued", "one,two"},    {"lone", "a\rb"},
      {"last", "no line end"},
  };
  for (const char* end : {"\n", "\r\n"}) {
    SCOPED_TRACE(end[0] == '\r' ? "CR LF" : "LF");
    const std::string text = std::string("[Version]") + end + "Signature=\"$Windows NT$\"" + end +
                             "[S]" + end + "open = \"runs to the end" + end +
                             "quoted = \"a ; b\" , c" + end + "continued = one, \\" + end + "two" +
                             end + "lone = \"a\rb\"" + end + "last = \"no line end";
    auto m = RecordedMachine::FromFiles({{"files/C/x.inf", text}});
    platform::Setup& s = m->setup();
    HINF inf = s.SetupOpenInfFileA("C:\\x.inf", nullptr, INF_STYLE_WIN4, nullptr);
    ASSERT_NE(inf, INVALID_HANDLE_VALUE);
    for (const Case& c : cases) {
      char line[256] = "<none>";
      s.SetupGetLineTextA(nullptr, inf, "S", c.key, line, sizeof line, nullptr);
      EXPECT_STREQ(line, c.text) << c.key;
    }
    s.SetupCloseInfFile(inf);
  }
}

// Looking a name up costs the same however many strings or lines the file holds: a linear
// scan of [Strings] per %reference% made a 280 KB sysoc.inf of 40,000 references and 40,000
// strings take 34 s to open, and a scan per key lookup made the component reader quadratic
// in a section's lines.
TEST(MachineSetup, LookupsDoNotGrowWithTheFile) {
  const int n = 40000;
  std::string references, strings, lines;
  for (int i = 0; i < n; ++i) references += "%k%", strings += "k=v\n", lines += "a=b\n";
  const std::string text = "[Version]\nSignature=\"$Windows NT$" + references +
                           "\"\n[R]\nr=" + references + "\n[X]\n" + lines + "[Strings]\n" + strings;
  auto m = RecordedMachine::FromFiles({{"files/C/x.inf", text}});
  platform::Setup& s = m->setup();
  const auto start = std::chrono::steady_clock::now();
  // The signature is read (n references) and found wrong.
  EXPECT_EQ(s.SetupOpenInfFileA("C:\\x.inf", nullptr, INF_STYLE_WIN4, nullptr),
            INVALID_HANDLE_VALUE);
  HINF inf = s.SetupOpenInfFileA("C:\\x.inf", nullptr, 0, nullptr);
  ASSERT_NE(inf, INVALID_HANDLE_VALUE);
  INFCONTEXT context{};
  std::string line(n + 1, '\0');
  ASSERT_TRUE(s.SetupGetLineTextA(nullptr, inf, "R", "r", line.data(), n + 1, nullptr));
  EXPECT_EQ(line, std::string(n, 'v') + '\0');
  for (int i = 0; i < n; ++i) ASSERT_FALSE(s.SetupFindFirstLineA(inf, "X", "missing", &context));
  const auto seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  s.SetupCloseInfFile(inf);
  EXPECT_LT(seconds, 5.0);
}

recorded::VersionFacts Facts() {
  recorded::VersionFacts f;
  f.strings = {{u"FileVersion", u"5.1.2600.5512 (xpsp.080413-2111)"},
               {u"FileDescription", u"Windows Backup Utility"},
               {u"CompanyName", u"Ã©crit"}};
  return f;
}

TEST(MachineSetup, VersionBlockRoundTrips) {
  const std::vector<BYTE> block = recorded::BuildVersionBlock(Facts());
  ASSERT_EQ(block.size() % 2, 0u);
  EXPECT_EQ(block[0] | (block[1] << 8), static_cast<int>(block.size()));
  recorded::VersionValue v;
  ASSERT_TRUE(recorded::FindVersionValue(block.data(), block.size(), "\\", &v));
  EXPECT_EQ(v.length, sizeof(recorded::VS_FIXEDFILEINFO));
  EXPECT_EQ(v.offset % 4, 0u);
  recorded::VS_FIXEDFILEINFO fixed;
  std::memcpy(&fixed, block.data() + v.offset, sizeof fixed);
  EXPECT_EQ(fixed.dwSignature, 0xFEEF04BDu);
  EXPECT_EQ(fixed.dwFileVersionMS, (5u << 16) | 1u);
  EXPECT_EQ(fixed.dwFileVersionLS, (2600u << 16) | 5512u);

  ASSERT_TRUE(
      recorded::FindVersionValue(block.data(), block.size(), "\\VarFileInfo\\Translation", &v));
  EXPECT_EQ(v.length, 4u);
  EXPECT_EQ(block[v.offset] | (block[v.offset + 1] << 8), 0x0409);
  EXPECT_EQ(block[v.offset + 2] | (block[v.offset + 3] << 8), 1200);

  ASSERT_TRUE(recorded::FindVersionValue(block.data(), block.size(),
                                         "\\StringFileInfo\\040904B0\\filedescription", &v));
  EXPECT_TRUE(v.isText);
  EXPECT_EQ(v.length, 23u);  // characters with the NUL
  EXPECT_EQ(v.offset % 4, 0u);
  EXPECT_FALSE(recorded::FindVersionValue(block.data(), block.size(),
                                          "\\StringFileInfo\\040904b0\\Nope", &v));

  // Every cut of the block is read without going past the cut (ASan watches the copy).
  for (std::size_t cut = 0; cut < block.size(); ++cut) {
    std::vector<BYTE> part(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(cut));
    recorded::FindVersionValue(part.data(), part.size(), "\\StringFileInfo\\040904b0\\CompanyName",
                               &v);
    recorded::FindVersionValue(part.data(), part.size(), "\\VarFileInfo\\Translation", &v);
  }
  std::vector<BYTE> lying = block;
  lying[0] = 0xFF, lying[1] = 0xFF;  // claims more than there is
  EXPECT_FALSE(recorded::FindVersionValue(lying.data(), lying.size(), "\\", &v));
}

// A version resource keeps its length in 16 bits: texts up to that limit read back whole,
// longer ones are refused when the machine loads rather than lost when read.
TEST(MachineSetup, VersionTextsFitTheSixteenBitBlock) {
  struct Case {
    std::size_t fileVersion, company;  // characters
    bool fits;
  };
  const Case cases[] = {{32600, 0, true}, {40000, 0, false}, {20000, 13000, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.fileVersion) + " + " + std::to_string(c.company));
    const std::string version = "1.2.3.4 " + std::string(c.fileVersion - 8, 'v');
    const std::string json = R"({"setup": {"versions": {"C:\\x.dll": {"fileVersion": ")" + version +
                             R"(", "strings": {"CompanyName": ")" + std::string(c.company, 'c') +
                             "\"}}}}}";
    recorded::VersionFacts facts;
    facts.strings = {{u"FileVersion", std::u16string(version.begin(), version.end())},
                     {u"CompanyName", std::u16string(c.company, u'c')}};
    if (!c.fits) {
      EXPECT_THROW(recorded::BuildVersionBlock(facts), std::length_error);
      try {
        RecordedMachine::FromFiles({{"machine.json", json}});
        ADD_FAILURE() << "loaded";
      } catch (const RecordError& e) {
        EXPECT_EQ(
            std::string(e.what()).rfind(
                "machine.json: setup.versions.C:\\x.dll: the version resource would take ", 0),
            0u)
            << e.what();
      }
      continue;
    }
    EXPECT_LE(recorded::BuildVersionBlock(facts).size(), recorded::kMaxVersionBlock);
    auto m = RecordedMachine::FromFiles({{"machine.json", json}});
    DWORD handle = 0;
    std::vector<BYTE> data(m->setup().GetFileVersionInfoSizeA("C:\\x.dll", &handle));
    ASSERT_TRUE(m->setup().GetFileVersionInfoA("C:\\x.dll", 0, static_cast<DWORD>(data.size()),
                                               data.data()));
    void* value = nullptr;
    UINT length = 0;
    ASSERT_TRUE(m->setup().VerQueryValueA(data.data(), "\\StringFileInfo\\040904b0\\FileVersion",
                                          &value, &length));
    EXPECT_EQ(static_cast<const char*>(value), version);
  }
}

TEST(MachineSetup, VersionCallsAsTheCollectorMakesThem) {
  auto m = RecordedMachine::Load(IA_SOURCE_DIR "/tests/fixtures/machines/xp-sp3");
  platform::Setup& s = m->setup();
  struct Case {
    const char* path;
    LONG lastError;  // 0: has a version
  };
  const Case cases[] = {{"C:\\WINDOWS\\system32\\setup\\OCGEN.DLL", 0},
                        {"C:\\WINDOWS\\system32\\setup\\plain.dll", ERROR_RESOURCE_TYPE_NOT_FOUND},
                        {"C:\\WINDOWS\\system32\\setup\\none.dll", ERROR_FILE_NOT_FOUND}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    DWORD handle = 7;
    const DWORD size = s.GetFileVersionInfoSizeA(c.path, &handle);
    EXPECT_EQ(handle, 0u);
    if (c.lastError) {
      EXPECT_EQ(size, 0u);
      EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(c.lastError));
      continue;
    }
    std::vector<BYTE> data(size);
    ASSERT_TRUE(s.GetFileVersionInfoA(c.path, 0, size, data.data()));
    void* value = nullptr;
    UINT length = 0;
    ASSERT_TRUE(s.VerQueryValueA(data.data(), "\\VarFileInfo\\Translation", &value, &length));
    const auto* pair = static_cast<const WORD*>(value);
    char sub[64];
    std::snprintf(sub, sizeof sub, "\\StringFileInfo\\%04x%04x\\FileVersion", pair[0], pair[1]);
    ASSERT_TRUE(s.VerQueryValueA(data.data(), sub, &value, &length));
    EXPECT_STREQ(static_cast<const char*>(value), "5.1.2600.5512 (xpsp.080413-2111)");
    EXPECT_EQ(length, 33u);
    // The answer stays inside the caller's buffer.
    EXPECT_GE(static_cast<BYTE*>(value), data.data());
    EXPECT_LT(static_cast<BYTE*>(value) + length, data.data() + data.size() + 1);

    // A buffer shorter than the block: the query stays inside it and fails.
    std::vector<BYTE> cut(40);
    ASSERT_TRUE(s.GetFileVersionInfoA(c.path, 0, static_cast<DWORD>(cut.size()), cut.data()));
    EXPECT_FALSE(s.VerQueryValueA(cut.data(), sub, &value, &length));
  }
}

}  // namespace
