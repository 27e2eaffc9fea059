#include "domain/paths.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::paths_test {
namespace {

constexpr const char* not_relative = "Path must be a safe relative path";
constexpr const char* unsafe_component = "Path contains an unsafe component";
constexpr const char* not_portable = "Path is not portable across supported platforms";
constexpr const char* reserved = "Path uses a reserved platform name";
constexpr const char* trailing = "Trailing path separator is not allowed";

// A path of exactly this many bytes, of components of at most 255.
std::string path_of(std::size_t bytes) {
  std::string path;
  while (path.size() + 255 < bytes) {
    path += std::string(127, 'a') + "/";
  }
  return path + std::string(bytes - path.size(), 'a');
}

void accepts(std::string_view path, bool portable) {
  EXPECT_NO_THROW(validate_relative_path(path, portable)) << path << (portable ? " (portable)" : "");
}

void refuses(std::string_view path, bool portable, const char* message) {
  EXPECT_FAILURE(validate_relative_path(path, portable), "unsafe_path", message)
      << path << (portable ? " (portable)" : "");
}

TEST(ValidateRelativePath, AcceptsOrdinaryPathsInBothModes) {
  for (const char* path : {"a", "a/b/c", ".hidden", "a b", "a..b", "...x", "\xc3\xa4/\xff", "com0", "console", "com10",
                           "lpt", "LPT0.txt", "a.con", "~", "-x"}) {
    accepts(path, true);
    accepts(path, false);
  }
}

TEST(ValidateRelativePath, BoundsTheWholePathAt4096Bytes) {
  ASSERT_EQ(path_of(4096).size(), 4096u);
  accepts(path_of(4096), true);
  refuses(path_of(4097), true, not_relative);
  refuses(path_of(4097), false, not_relative);
}

TEST(ValidateRelativePath, BoundsAComponentAt255Bytes) {
  accepts("x/" + std::string(255, 'a'), true);
  refuses("x/" + std::string(256, 'a'), true, unsafe_component);
  refuses(std::string(256, 'a') + "/x", false, unsafe_component);
}

TEST(ValidateRelativePath, RefusesWhatIsNotARelativePath) {
  for (const bool portable : {true, false}) {
    refuses("", portable, not_relative);
    refuses("/a", portable, not_relative);
    refuses("/", portable, not_relative);
    refuses("a\\b", portable, not_relative);
    refuses(std::string_view("a\0b", 3), portable, not_relative);
  }
}

TEST(ValidateRelativePath, RefusesUnsafeComponentsInBothModes) {
  for (const bool portable : {true, false}) {
    for (const char* path : {".", "..", "a/../b", "./a", "a/.", "a//b", "a:b", "c:", "a/b:stream"}) {
      refuses(path, portable, unsafe_component);
    }
  }
}

TEST(ValidateRelativePath, RefusesATrailingSeparatorInBothModes) {
  refuses("a/", true, trailing);
  refuses("a/b/", true, trailing);
  refuses("a/b/", false, trailing);
}

TEST(ValidateRelativePath, JudgesEachComponentInTurn) {
  refuses("con/", true, reserved);
  refuses("a?/..", true, not_portable);
  refuses("a/:/b?", true, unsafe_component);
  refuses("a//", true, unsafe_component);
}

TEST(ValidateRelativePath, RefusesNamesThatSomePlatformCannotHold) {
  for (const char* path : {"a?b", "a.", "a ", "a<b", "a>b", "a\"b", "a|b", "a*b", "a\x01", "a\x1f", "a\n", "d./b"}) {
    refuses(path, true, not_portable);
    accepts(path, false);
  }
  accepts("a\x7f", true);
}

TEST(ValidateRelativePath, RefusesReservedNamesOnlyWhenPortable) {
  for (const char* path :
       {"con", "CON.txt", "Lpt9.log", "aux.tar.gz", "nUl", "PRN", "com1", "COM9.x", "dir/con/file"}) {
    refuses(path, true, reserved);
    accepts(path, false);
  }
}

TEST(PathFromUtf8, KeepsTheBytesAndGivesThemBack) {
  EXPECT_EQ(path_from_utf8("a/\xff\xc3\xa4").native(), "a/\xff\xc3\xa4");
  EXPECT_EQ(path_utf8(path_from_utf8("a/\xff\xc3\xa4")), "a/\xff\xc3\xa4");
  EXPECT_EQ(path_utf8(path_from_utf8("")), "");
}

TEST(PathFromUtf8, RefusesANulByte) {
  EXPECT_FAILURE(path_from_utf8(std::string_view("a\0b", 3)), "unsafe_path", "Native path contains a NUL byte");
}

TEST(NativeLength, CountsBytes) {
  EXPECT_EQ(native_length(""), 0u);
  EXPECT_EQ(native_length("a/\xc3\xa4"), 4u);
  EXPECT_FAILURE(native_length(std::string_view("\0", 1)), "unsafe_path", "Native path contains a NUL byte");
}

}  // namespace
}  // namespace ravok::paths_test
