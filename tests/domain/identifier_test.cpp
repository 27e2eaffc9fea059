#include "domain/identifier.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::identifier_test {
namespace {

constexpr const char* form = "Game and build IDs use lower-case letters, digits, dots and hyphens";

TEST(ValidateIdentifier, AcceptsLowerCaseDigitsDotsAndHyphens) {
  for (const char* identifier : {"a", "game", "game-2.1", "0", "-", ".a", "game..x", "com0", "console"}) {
    EXPECT_NO_THROW(validate_identifier(identifier)) << identifier;
  }
}

TEST(ValidateIdentifier, AcceptsEightyBytesAndRefusesOneMore) {
  EXPECT_NO_THROW(validate_identifier(std::string(80, 'a')));
  EXPECT_FAILURE(validate_identifier(std::string(81, 'a')), "invalid_identity", form);
}

TEST(ValidateIdentifier, RefusesAnyOtherForm) {
  for (const char* identifier : {"", ".", "..", "Game", "a_b", "a/b", "a b", "a:b", "\xc3\xa4", "a\n"}) {
    EXPECT_FAILURE(validate_identifier(identifier), "invalid_identity", form) << identifier;
  }
  EXPECT_FAILURE(validate_identifier(std::string_view("a\0b", 3)), "invalid_identity", form);
}

TEST(ValidateIdentifier, RefusesNamesThatAPlatformReserves) {
  for (const char* identifier : {"con", "aux.tar", "nul", "prn.x", "com1", "lpt9.log"}) {
    EXPECT_FAILURE(validate_identifier(identifier), "unsafe_path", "Path uses a reserved platform name") << identifier;
  }
}

TEST(ValidateIdentifier, RefusesADotAtTheEnd) {
  EXPECT_FAILURE(validate_identifier("abc."), "unsafe_path", "Path is not portable across supported platforms");
  EXPECT_FAILURE(validate_identifier("game."), "unsafe_path", "Path is not portable across supported platforms");
}

}  // namespace
}  // namespace ravok::identifier_test
