#include "tuf/target_pattern.hpp"

#include <cstddef>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/pattern_model.hpp"

namespace ravok::target_pattern_test {
namespace {

constexpr const char* too_long = "Delegation pattern exceeds path limit";

std::string repeated(std::string_view text, std::size_t times) {
  std::string result;
  for (std::size_t i = 0; i < times; ++i) {
    result += text;
  }
  return result;
}

void expect(std::string_view pattern, std::initializer_list<std::string_view> matching,
            std::initializer_list<std::string_view> others) {
  for (const std::string_view path : matching) {
    EXPECT_TRUE(path_pattern_matches(pattern, path)) << pattern << " " << path;
  }
  for (const std::string_view path : others) {
    EXPECT_FALSE(path_pattern_matches(pattern, path)) << pattern << " " << path;
  }
}

// Compares with the model for every path over the letters that has at most this length.
void expect_as_in_the_model(const std::string& pattern, std::string_view letters, std::size_t length,
                            const std::string& path = {}) {
  EXPECT_EQ(path_pattern_matches(pattern, path), testing::model_pattern_matches(pattern, path))
      << "\"" << pattern << "\" \"" << path << "\"";
  if (path.size() < length) {
    for (const char letter : letters) {
      expect_as_in_the_model(pattern, letters, length, path + letter);
    }
  }
}

TEST(TargetPattern, StandsForItselfByteByByte) {
  expect("games/a", {"games/a"}, {"", "games", "games/", "games/ab", "Games/a", "games/A", "xgames/a", "games/a/"});
  expect("", {""}, {"a", "/", " "});
  expect("a\\*", {"a\\", "a\\bc"}, {"a*"});
  expect("{a,b}", {"{a,b}"}, {"a", "b"});
  expect("Zoë", {"Zoë"}, {"Zoe", "zoë"});
  expect(".a", {".a"}, {"a"});
}

TEST(TargetPattern, HasRunsWithinAName) {
  expect("games/*", {"games/a", "games/", "games/.hidden", "games/a.b*"},
         {"games/a/b", "games", "games/a/", "a/games/b"});
  expect("games/*/b", {"games/a/b", "games//b"}, {"games/b", "games/a/c/b", "games/a/b/"});
  expect("*", {"", "a", "abc", "."}, {"/", "a/b", "a/", "/a"});
  expect("**", {"", "a"}, {"a/b"});
  expect("*/*", {"/", "a/", "/b", "a/b"}, {"", "a", "a/b/c"});
  expect("*a", {"a", "aa", "ba", "aaaaaba"}, {"", "ab", "a/a", "b/a"});
  expect("a*b*c", {"abc", "abcbc", "axxbxxc", "abbc"}, {"ac", "ab/c", "abcd", "a/bc", "acb"});
}

TEST(TargetPattern, HasSingleBytesWithinAName) {
  expect("?", {"a", "?", "*", "\xff", std::string_view("\0", 1)}, {"", "/", "ab"});
  expect("a?c", {"abc", "a.c"}, {"ac", "a/c", "abbc"});
  expect("??", {"ë"}, {"a", "/a", "a/"});
  expect("?*", {"a", "ab"}, {"", "/", "a/"});
  expect("*?", {"a", "ab"}, {"", "/", "/a"});
}

TEST(TargetPattern, HasClasses) {
  expect("[a-c]x", {"ax", "bx", "cx"}, {"dx", "x", "/x", "-x", "Bx", "abx", "[a-c]x"});
  expect("[!a-c]x", {"dx", "-x", "!x", "Ax"}, {"ax", "bx", "cx", "/x", "x"});
  expect("[^a-c]x", {"dx", "^x", "!x"}, {"bx", "/x"});
  expect("[abc]", {"a", "b", "c"}, {"d", "", "abc", "[", "]"});
  expect("[a!]", {"a", "!"}, {"b"});
  expect("[a^]", {"a", "^"}, {"b"});
  expect("[!!]", {"a", "^"}, {"!", "/"});
  expect("[!^]", {"a", "!"}, {"^", "/"});
  expect("[a][b][c]", {"abc"}, {"ab", "abcd"});
  expect("[*?[]", {"*", "?", "["}, {"a", "]", ""});
  expect("[a-c]*[0-9]", {"a1", "cxx9"}, {"a", "d1", "a/1", "a1x"});
}

TEST(TargetPattern, EndsAClassAtTheFirstBracketThatIsNotItsFirstByte) {
  expect("[]a]", {"]", "a"}, {"", "[", "[]a]", "]a"});
  expect("[]]", {"]"}, {"[", "[]]", ""});
  expect("[]-a]", {"]", "^", "_", "`", "a"}, {"\\", "b", "-"});
  expect("[a]]", {"a]"}, {"a", "]"});
  expect("[!]", {"a", "!", "]"}, {"/", "", "aa"});
  expect("[^]", {"a", "^"}, {"/", ""});
  expect("[!]a]", {"xa]", "]a]"}, {"x", "]", "/a]"});
}

TEST(TargetPattern, TakesABracketWithoutItsEndForItself) {
  expect("[abc", {"[abc"}, {"a", "b", "[", "abc"});
  expect("[", {"["}, {"", "a"});
  expect("[]", {"[]"}, {"]", "[", ""});
  expect("[[a]", {"[", "a"}, {"[a", "[[a]"});
  expect("x[*", {"x[", "x[abc"}, {"x", "xa"});
  expect("[a-", {"[a-"}, {"a"});
  expect("]", {"]"}, {"", "["});
  expect("]a[", {"]a["}, {"a"});
  expect("[a][b", {"a[b"}, {"ab"});
}

TEST(TargetPattern, TakesADashWithoutAByteOnBothSidesForItself) {
  expect("[a-]", {"a", "-"}, {"b"});
  expect("[-a]", {"a", "-"}, {"b"});
  expect("[-]", {"-"}, {"a"});
  expect("[--]", {"-"}, {"a", "."});
  expect("[---]", {"-"}, {"a", "."});
  expect("[--0]", {"-", ".", "0"}, {"/", "1", ","});
  expect("[a-c-e]", {"a", "b", "c", "-", "e"}, {"d"});
  expect("[!-a]", {"b"}, {"a", "-", "/"});
  expect("[!a-]", {"b"}, {"a", "-", "/"});
}

TEST(TargetPattern, OrdersARangeByTheValuesOfItsBytes) {
  expect("[a-a]", {"a"}, {"b", "-"});
  expect("[c-a]", {}, {"a", "b", "c", "-"});
  expect("[!c-a]", {"a", "b", "-"}, {"/"});
  expect("[A-z]", {"A", "Z", "^", "a", "z"}, {"@", "{"});
  expect("[\x80-\xff]", {"\x80", "\xc3", "\xff"}, {"\x7f", "a"});
  expect("[a-\xff]", {"a", "z", "\x80", "\xff"}, {"`"});
  expect("[\xff-a]", {}, {"a", "\xff", "b"});
  expect(std::string_view("[\0-\x1f]", 5), {std::string_view("\0", 1), "\x1f"}, {" ", "a"});
}

TEST(TargetPattern, NeverHasASlashInAClass) {
  for (const std::string_view pattern : {"[/]", "[.-0]", "[!a]", "[^a]", "[!]", "[a/b]", "[!-.0-\xff]"}) {
    expect(pattern, {}, {"/"});
  }
  expect("[.-0]", {".", "0"}, {"1"});
  expect("a[/]b", {}, {"a/b", "ab"});
  expect("[!/]", {"a"}, {"/"});
}

TEST(TargetPattern, AgreesWithTheModelOnEveryShortPattern) {
  constexpr std::string_view elements = "ab/*?[]-!";
  std::size_t patterns = 0;
  std::string pattern;
  const auto go_on = [&](const auto& self) -> void {
    ++patterns;
    expect_as_in_the_model(pattern, "ab/-]", 3);
    if (pattern.size() < 4) {
      for (const char element : elements) {
        pattern.push_back(element);
        self(self);
        pattern.pop_back();
      }
    }
  };
  go_on(go_on);
  EXPECT_EQ(patterns, 7381u);
}

TEST(TargetPattern, AgreesWithTheModelOnLongPaths) {
  std::mt19937 random(7);
  const auto one_of = [&](std::string_view letters) { return letters[random() % letters.size()]; };
  std::size_t matched = 0;
  for (int i = 0; i < 20'000; ++i) {
    // Longer than a word of 64 places, so that runs and steps go from one to the next.
    std::string path;
    while (path.size() < 50 + random() % 100) {
      path += one_of("aaaaab/");
    }
    std::string pattern = path;
    for (std::size_t change = 0; change < 6; ++change) {
      const std::size_t at = random() % pattern.size();
      switch (random() % 4) {
        case 0:
          pattern[at] = '?';
          break;
        case 1:
          pattern.replace(at, random() % 40, change < 3 ? "*" : "");
          break;
        case 2:
          pattern.replace(at, 1, "[!b]");
          break;
        default:
          pattern.replace(at, 1, "[ab]");
      }
      pattern += pattern.empty() ? "a" : "";
    }
    const bool expected = testing::model_pattern_matches(pattern, path);
    matched += expected ? 1 : 0;
    ASSERT_EQ(path_pattern_matches(pattern, path), expected) << pattern << "\n" << path;
  }
  // Both answers are common enough to mean something.
  EXPECT_GT(matched, 500u);
  EXPECT_LT(matched, 19'500u);
}

TEST(TargetPattern, ReachesOverEveryWordOfALongPath) {
  for (const std::size_t size : {62u, 63u, 64u, 65u, 127u, 128u, 129u, 4094u, 4095u, 4096u}) {
    const std::string path(size, 'a');
    for (const std::string_view pattern : {"*", "a*", "*a", "**", "a*a", "*?*"}) {
      EXPECT_TRUE(path_pattern_matches(pattern, path)) << pattern << " " << size;
    }
    EXPECT_TRUE(path_pattern_matches(path, path)) << size;
    EXPECT_TRUE(path_pattern_matches("?" + path.substr(1), path)) << size;
    EXPECT_FALSE(path_pattern_matches("?" + path.substr(1), path.substr(1) + "b")) << size;
    EXPECT_FALSE(path_pattern_matches("?" + path.substr(1), path.substr(1))) << size;
    EXPECT_FALSE(path_pattern_matches("?" + path.substr(2), path)) << size;
    EXPECT_TRUE(path_pattern_matches(std::string(size, '?'), path)) << size;
    EXPECT_FALSE(path_pattern_matches(std::string(size - 1, '?'), path)) << size;
    EXPECT_FALSE(path_pattern_matches("*b", path)) << size;
    std::string divided = path;
    divided[size / 2] = '/';
    EXPECT_FALSE(path_pattern_matches("*", divided)) << size;
    EXPECT_TRUE(path_pattern_matches("*/*", divided)) << size;
    EXPECT_FALSE(path_pattern_matches("*/", divided)) << size;
  }
}

TEST(TargetPattern, HasABoundOfBytes) {
  const std::string longest(4096, 'a');
  const std::string longer(4097, 'a');
  EXPECT_TRUE(path_pattern_matches(longest, longest));
  EXPECT_TRUE(path_pattern_matches(std::string(4096, '*'), longest));
  EXPECT_FAILURE(path_pattern_matches(longer, "a"), "size_limit", too_long);
  EXPECT_FAILURE(path_pattern_matches("a", longer), "size_limit", too_long);
  EXPECT_FAILURE(path_pattern_matches("", longer), "size_limit", too_long);
  EXPECT_FAILURE(path_pattern_matches(std::string(4097, '*'), ""), "size_limit", too_long);
}

// Each of these would keep a matcher that goes back busy for longer than the test may run.
TEST(TargetPattern, AnswersSoonWhateverThePattern) {
  const std::string path(4096, 'a');
  EXPECT_FALSE(path_pattern_matches(repeated("*a", 2047) + "*b", path));
  EXPECT_TRUE(path_pattern_matches(repeated("*a", 2048), path));
  EXPECT_FALSE(path_pattern_matches(repeated("*?", 2047) + "*b", path));
  EXPECT_FALSE(path_pattern_matches(repeated("*[a]", 1023) + "*b", path));
  EXPECT_FALSE(path_pattern_matches("*" + repeated("a", 2000) + "*b", path));
  EXPECT_FALSE(path_pattern_matches(std::string(4096, '['), path));
  EXPECT_TRUE(path_pattern_matches(std::string(4096, '['), std::string(4096, '[')));
  EXPECT_TRUE(path_pattern_matches("*[" + repeated("a-z", 1364) + "]", path));
}

}  // namespace
}  // namespace ravok::target_pattern_test
