#include "publisher/path_pattern.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok {
namespace {

TEST(PathPattern, MatchesNamesAndTheWayToThem) {
  const struct {
    const char* pattern;
    const char* path;
    bool matches;
  } cases[] = {{"name", "name", true},
               {"name", "deep/er/name", true},
               {"name", "name/below", false},
               {"name", "names", false},
               {"*.o", ".o", true},
               {"*.o", "a/b.o", true},
               {"*.o", "a.o/b", false},
               {"a*b*c", "a-b-b-c", true},
               {"a*b*c", "a-c-b", false},
               {"a?", "ab", false},
               {"a?", "a?", true},
               {"[a]", "a", false},
               {"a/b", "a/b", true},
               {"a/b", "x/a/b", false},
               {"a/*", "a/b", true},
               {"a/*", "a/b/c", false},
               {"a/**", "a", false},
               {"a/**", "a/b/c", true},
               {"a/**/b", "a/b", true},
               {"a/**/b", "a/x/y/b", true},
               {"a/**/b", "a/x/bb", false},
               {"**/b", "b", true},
               {"**/b", "a/b", true},
               {"**/b/*/d", "b/x/b/c/d", true},
               {"**", "a/b", true},
               {"*", "a/b", true},
               {"a/**/b/**/c", "a/b/b/x/c/c", true},
               {"a/**/b/**/c", "a/x/c", false}};
  for (const auto& example : cases) {
    EXPECT_EQ(PathPattern(example.pattern).matches(example.path), example.matches)
        << example.pattern << " and " << example.path;
  }
}

TEST(PathPattern, RefusesWhatNoPathCanMatch) {
  for (const std::string pattern : {"", "/", "/a", "a/", "a//b", ".", "..", "./a", "a/../b"}) {
    EXPECT_FAILURE(PathPattern(pattern), "usage",
                   "A pattern is a relative path without empty names, \".\" and \"..\": " + pattern);
  }
  for (const std::string pattern : {"a**", "**a/b", "a/***"}) {
    EXPECT_FAILURE(PathPattern(pattern), "usage", "In a pattern, ** takes the place of a whole name: " + pattern);
  }
}

// Tried naively, this would take longer than anybody waits.
TEST(PathPattern, TakesNoLongerThanTheProductOfBothLengths) {
  std::string pattern;
  for (int i = 0; i < 40; ++i) {
    pattern += "*a";
  }
  EXPECT_FALSE(PathPattern(pattern + "*b").matches(std::string(255, 'a')));
}

}  // namespace
}  // namespace ravok
