#include "platform/file/problem.hpp"

#include <gtest/gtest.h>

namespace ravok::problem_test {
namespace {

TEST(IsNotEmpty, KnowsBothAnswersOfSystems) {
  EXPECT_TRUE(is_not_empty(problem_of(Cause::not_empty)));
  EXPECT_TRUE(is_not_empty(problem_of(Cause::exists)));
  EXPECT_FALSE(is_not_empty(problem_of(Cause::missing)));
  EXPECT_FALSE(is_not_empty(Problem()));
}

}  // namespace
}  // namespace ravok::problem_test
