#include "domain/display_text.hpp"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace ravok::display_text_test {
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

TEST(ShownText, KeepsWhatATerminalMayShow) {
  for (const std::string_view text :
       {"", "Removed Ravok from /home/a b/.local/share/Ravok.", "C:\\x1b", "\xc2\xa0", "\xc3\x85", "\xdf\xbf",
        "\xe0\xa0\x80", "\xe2\x80\xa6", "\xe2\x80\xa9", "\xe2\x80\xaf", "\xe2\x81\xa5", "\xe2\x81\xaa", "\xed\x9f\xbf",
        "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(shown_text(text), text);
  }
}

TEST(ShownText, EscapesEveryControlCharacter) {
  for (int code = 0; code < 256; ++code) {
    std::array<char, 5> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(code));
    const bool is_shown = code >= 32 && code < 127;
    // A byte beyond ASCII is no character by itself.
    const std::string byte(1, static_cast<char>(code));
    EXPECT_EQ(shown_text("a" + byte + "b"), "a" + (is_shown ? byte : std::string(escape.data())) + "b") << code;
    if (code >= 0x80 && code < 0xA0) {
      EXPECT_EQ(shown_text("a\xc2" + byte + "b"), std::string("a\\xc2") + escape.data() + "b") << code;
    }
  }
}

TEST(ShownText, EscapesWhatTurnsTheDirectionOfWriting) {
  for (const int last : {0xaa, 0xab, 0xac, 0xad, 0xae}) {
    std::array<char, 5> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(last));
    EXPECT_EQ(shown_text(std::string("\xe2\x80") + static_cast<char>(last)), std::string("\\xe2\\x80") + escape.data());
  }
  for (const int last : {0xa6, 0xa7, 0xa8, 0xa9}) {
    std::array<char, 5> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(last));
    EXPECT_EQ(shown_text(std::string("\xe2\x81") + static_cast<char>(last)), std::string("\\xe2\\x81") + escape.data());
  }
}

TEST(ShownText, EscapesEachByteThatIsNoPartOfACharacter) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"\xc3", "\\xc3"},           // ends too early
      {"\xc3z", "\\xc3z"},         // goes on with something else
      {"\xe2\x82", "\\xe2\\x82"},  // the same of three bytes
      {"\xe2\x82z", "\\xe2\\x82z"},
      {"\xf0\x9f\x8e", "\\xf0\\x9f\\x8e"},  // and of four
      {"\xe2\xc3\xa4", "\\xe2\xc3\xa4"},    // a whole one follows
      {"\xc0\xaf", "\\xc0\\xaf"},           // longer than needed
      {"\xc1\xbf", "\\xc1\\xbf"},
      {"\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},
      {"\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},  // halves of a pair
      {"\xed\xbf\xbf", "\\xed\\xbf\\xbf"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last number
      {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"}};
  for (const auto& [text, shown] : cases) {
    EXPECT_EQ(shown_text(text), shown);
  }
}

TEST(ShownText, ReadsNothingBehindTheText) { EXPECT_EQ(shown_text(std::string_view("a\xc3\xa4", 2)), "a\\xc3"); }

TEST(ShownCount, NamesOneAndMore) {
  EXPECT_EQ(shown_count(0, "file"), "0 files");
  EXPECT_EQ(shown_count(1, "file"), "1 file");
  EXPECT_EQ(shown_count(2, "file"), "2 files");
}

TEST(ShownSize, TakesTheLargestUnitThatLeavesAWholeOne) {
  EXPECT_EQ(shown_size(0), "0 bytes");
  EXPECT_EQ(shown_size(1023), "1023 bytes");
  EXPECT_EQ(shown_size(1024), "1.0 KiB");
  EXPECT_EQ(shown_size(1536), "1.5 KiB");
  EXPECT_EQ(shown_size(314'572'800), "300.0 MiB");
  EXPECT_EQ(shown_size(std::uint64_t{1} << 40), "1.0 TiB");
  EXPECT_EQ(shown_size(std::uint64_t{1} << 52), "4096.0 TiB");
}

}  // namespace
}  // namespace ravok::display_text_test
