#include "domain/display_text.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace ravok {
namespace {

TEST(IsDisplayable, KnowsEveryCharacterOfOneByte) {
  for (int code = 0; code < 128; ++code) {
    const std::string text = {'a', static_cast<char>(code), 'b'};
    const bool is_break = code == '\t' || code == '\n' || code == '\r';
    const bool is_shown = code >= 32 && code != 127;
    EXPECT_EQ(is_displayable(text, false), is_shown) << code;
    EXPECT_EQ(is_displayable(text, true), is_shown || is_break) << code;
  }
}

TEST(IsDisplayable, KnowsEveryControlCharacterOfTwoBytes) {
  for (int second = 0x80; second < 0xc0; ++second) {
    const std::string text = {'a', '\xc2', static_cast<char>(second), 'b'};
    EXPECT_EQ(is_displayable(text, false), second >= 0xa0) << second;
    EXPECT_EQ(is_displayable(text, true), second >= 0xa0) << second;
  }
}

TEST(IsDisplayable, FindsThemAtBothEnds) {
  for (const std::string_view text : {"\x07xy", "xy\x07", "\x7f", "\xc2\x85xy", "xy\xc2\x85"}) {
    EXPECT_FALSE(is_displayable(text, true)) << text;
  }
}

TEST(IsDisplayable, ShowsOtherCharactersThatHoldTheSameBytes) {
  for (const std::string_view text : {"", "\xc3\x85", "\xe2\x82\xac", "\xf0\x9f\x8e\xae", "\xc4\x80", "\xd0\x9f"}) {
    EXPECT_TRUE(is_displayable(text, false)) << text;
  }
}

TEST(IsDisplayable, JudgesNoLeadAlone) {
  EXPECT_TRUE(
      is_displayable("\xc2"
                     "a",
                     false));
}

TEST(IsDisplayable, ReadsNothingBehindTheText) { EXPECT_TRUE(is_displayable(std::string_view("a\xc2\x85", 2), false)); }

}  // namespace
}  // namespace ravok
