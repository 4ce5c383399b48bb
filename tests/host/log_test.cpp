// The core logger and the status texts.
#include <gtest/gtest.h>

#include <set>

#include "tessilcore/host.h"

namespace nk = NKestovaTessil20;

namespace {

TEST(LogCore, KeepsEveryRecordInOrder) {
  nk::THost& host = nk::THost::Instance();
  host.Reset();
  nk::ILogger* logger = nk::TRootObject::GetCoreLogger();
  ASSERT_NE(logger, nullptr);
  logger->Log(3, "second");
  host.ClearLog();
  logger->Log(3, "first");
  logger->Log(0, "then an error");
  logger->Log(3, "first");
  ASSERT_EQ(host.GetLog().size(), 3u);
  EXPECT_EQ(host.GetLog()[0].message, "first");
  EXPECT_EQ(host.GetLog()[1].level, 0u);
  EXPECT_EQ(host.GetLog()[1].message, "then an error");
  EXPECT_EQ(host.GetLog()[2].message, "first");
  host.Reset();
  EXPECT_TRUE(host.GetLog().empty());
}

TEST(HostStatus, EveryCodeHasItsOwnStableText) {
  const std::uint32_t codes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 20, 21, 22, 23};
  std::set<std::string> texts;
  for (std::uint32_t code : codes) {
    const std::string& text = nk::TTessilStatusCode(code).TranslateStatusCode();
    EXPECT_EQ(text.find("Unknown"), std::string::npos) << code;
    EXPECT_EQ(&text, &nk::TTessilStatusCode(code).TranslateStatusCode()) << "same object";
    texts.insert(text);
  }
  EXPECT_EQ(texts.size(), std::size(codes));
  EXPECT_EQ(nk::TTessilStatusCode(999).TranslateStatusCode(), "Unknown status code 999");
}

TEST(HostStatus, ExceptionTextIsTheTranslationAndCopiesKeepDetail) {
  const nk::TTessilException original(nk::kStatusNoObject, "detail");
  const nk::TTessilException copy = original;  // NOLINT: copy is the point
  EXPECT_STREQ(copy.what(), nk::TTessilStatusCode(7).TranslateStatusCode().c_str());
  EXPECT_EQ(copy.GetStatusCode(), 7u);
  EXPECT_EQ(copy.GetDetail(), "detail");
  EXPECT_STREQ(nk::TTessilException(12345).what(), "Unknown status code 12345");
}

}  // namespace
