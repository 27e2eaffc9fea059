#include "app/install/system_failures.hpp"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::system_failures_test {
namespace {

TEST(WithSystemFailures, ReturnsWhatTheWorkReturns) {
  EXPECT_EQ(with_system_failures([] { return 7; }), 7);
}

TEST(WithSystemFailures, TellsAFailureOfTheFileSystemInItsOwnWords) {
  EXPECT_FAILURE(with_system_failures([]() -> int {
                   throw std::filesystem::filesystem_error("cannot look", "/place",
                                                           std::make_error_code(std::errc::permission_denied));
                 }),
                 "file_system", "filesystem error: cannot look: Permission denied [/place]");
}

TEST(WithSystemFailures, LeavesOtherFailuresAlone) {
  EXPECT_FAILURE(with_system_failures([]() -> int { fail("busy", "Later"); }), "busy", "Later");
  EXPECT_THROW(with_system_failures([]() -> int { throw std::length_error("long"); }), std::length_error);
}

}  // namespace
}  // namespace ravok::system_failures_test
