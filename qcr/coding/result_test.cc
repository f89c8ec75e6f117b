#include "qcr/coding/result.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace qcr {
namespace {

TEST(ErrText, OwnCodesHaveFixedTexts) {
  EXPECT_STREQ(errText(0), "");
  EXPECT_STREQ(errText(801), "Maximum number of retries reached");
  EXPECT_STREQ(errText(809), "Not enough QCR quorum nodes available");
  EXPECT_STREQ(errText(823),
               "Unable to reach any quorum node (Check your firewall or network settings)");
  EXPECT_STREQ(errText(826), "Min. release level does not support request");
  for (int code = 801; code <= 826; ++code) {
    EXPECT_STRNE(errText(code), strerror(code)) << code;
    EXPECT_GT(strlen(errText(code)), 0u) << code;
  }
}

TEST(ErrText, EveryOtherCodeFallsBackToStrerror) {
  const int codes[] = {-5, -1, 1, 22, 143, 214, 315, 720, 800, 827, 100000};
  std::vector<const char*> texts;
  for (int code : codes) texts.push_back(errText(code));
  for (size_t i = 0; i < texts.size(); ++i) {
    // Copied first: strerror may reuse its buffer. Earlier texts stay valid.
    const std::string expected = strerror(codes[i]);
    EXPECT_EQ(texts[i], expected) << codes[i];
  }
}

}  // namespace
}  // namespace qcr
