// Code-page conversions: what WideCharToMultiByte / MultiByteToWideChar answer.
#include <gtest/gtest.h>

#include "platform/recorded/codepage.h"

using namespace platform::recorded;

TEST(CodePage, WideToAnsi) {
  const struct {
    unsigned codePage;
    std::u16string wide;
    std::string ansi;
  } cases[] = {
      {1252, u"plain", "plain"},
      {1252, u"café €", "caf\xE9 \x80"},
      {1252, u"Привет", "??????"},  // not in the code page: '?', no best fit
      {1251, u"Привет", "\xCF\xF0\xE8\xE2\xE5\xF2"},
      {1251, u"Ёё№", "\xA8\xB8\xB9"},
      {932, u"日本語", "\x93\xFA\x96\x7B\x8C\xEA"},
      {932, u"ｱ", "\xB1"},  // half-width katakana: one byte
      {932, u"A\u00E9", "A?"},
      {1252, std::u16string(u"a\0b", 3), std::string("a\0b", 3)},
      {1252, u"\U0001F600", "??"},  // one '?' per UTF-16 unit
      {65001, u"é", "\xC3\xA9"},
      // EBCDIC, which WideCharToMultiByte takes too: not even ASCII keeps its bytes.
      {500, u"Az", "\xC1\xA9"},
      {1047, u"é", "\x51"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.codePage);
    EXPECT_EQ(WideToAnsi(c.wide, c.codePage), c.ansi);
  }
}

TEST(CodePage, AnsiToWide) {
  const struct {
    unsigned codePage;
    std::string ansi;
    std::u16string wide;
  } cases[] = {
      {1252, "caf\xE9 \x80", u"café €"},
      {1252, "\x81", u"\u0081"},  // unassigned byte: the C1 control of that value
      {1251, "\xCF\xF0\xE8\xE2\xE5\xF2", u"Привет"},
      {932, "\x93\xFA\x96\x7B\x8C\xEA", u"日本語"},
      {932, "a\x93", u"a\uFFFD"},  // a lead byte without its trail byte
      {500, "\x51\xC1", u"éA"},    // "QA" would be ASCII read as it is
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.codePage);
    EXPECT_EQ(AnsiToWide(c.ansi, c.codePage), c.wide);
  }
}

TEST(CodePage, Utf8BothWays) {
  const struct {
    std::u16string wide;
    std::string utf8;
  } cases[] = {
      {u"", ""},
      {u"Aé€", "A\xC3\xA9\xE2\x82\xAC"},
      {u"\U0001F600", "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(WideToUtf8(c.wide), c.utf8);
    EXPECT_EQ(Utf8ToWide(c.utf8), c.wide);
  }
  // Broken input on either side becomes U+FFFD, never a crash or a dropped tail.
  EXPECT_EQ(WideToUtf8(std::u16string(1, u'\xD800') + u"x"), "\xEF\xBF\xBDx");
  EXPECT_EQ(Utf8ToWide("\xC3"), u"\uFFFD");
  EXPECT_EQ(Utf8ToWide("\xE2\x82z"), u"\uFFFDz");
  EXPECT_EQ(Utf8ToWide("\xC0\xAF"), u"\uFFFD");  // overlong
}

TEST(CodePage, AnsiCodePagesOfWindows) {
  for (unsigned cp : {874u, 932u, 936u, 949u, 950u, 1250u, 1251u, 1252u, 1258u}) {
    EXPECT_TRUE(IsAnsiCodePage(cp)) << cp;
    EXPECT_TRUE(IsSupportedCodePage(cp)) << cp;
  }
  // OEM, EBCDIC and UTF-8 pages convert, but no system has one as its ANSI code page.
  for (unsigned cp : {0u, 437u, 500u, 850u, 930u, 1047u, 1249u, 1259u, 65001u})
    EXPECT_FALSE(IsAnsiCodePage(cp)) << cp;
  EXPECT_TRUE(IsSupportedCodePage(65001));
  EXPECT_FALSE(IsSupportedCodePage(4242));
  EXPECT_THROW(WideToAnsi(u"x", 4242), std::invalid_argument);
}
