#include "domain/error.hpp"

#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::error_test {
namespace {

TEST(Error, CarriesCodeMessageAndHintsAsARunTimeError) {
  const Error error("unsafe_path", "Path is unsafe", {"Choose another folder"});
  const std::runtime_error& base = error;
  EXPECT_STREQ(base.what(), "Path is unsafe");
  EXPECT_EQ(error.code, "unsafe_path");
  EXPECT_EQ(error.details, std::vector<std::string>{"Choose another folder"});
}

TEST(Error, HasNoHintsUnlessGiven) { EXPECT_TRUE(Error("busy", "In use").details.empty()); }

TEST(Require, ReturnsWhenTheConditionHolds) { EXPECT_NO_THROW(require(true, "busy", "In use")); }

TEST(Require, ThrowsTheCodeAndTheMessage) { EXPECT_FAILURE(require(false, "busy", "In use"), "busy", "In use"); }

TEST(Require, HandsHintsOn) {
  EXPECT_NO_THROW(require(true, "busy", "In use", {"Wait"}));
  const auto failure = testing::failure_of([] { require(false, "busy", "In use", {"Wait", "Try again"}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->details, (std::vector<std::string>{"Wait", "Try again"}));
}

}  // namespace
}  // namespace ravok::error_test
