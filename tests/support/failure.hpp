// How tests speak of failures: by code and by the whole message.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "domain/error.hpp"

namespace ravok::testing {

// Runs `work` and returns the failure that it ends with, if any. A failure of the standard library's file operations
// gets the code "file_system".
template <typename Work>
std::optional<Error> failure_of(Work work) {
  try {
    work();
  } catch (const Error& error) {
    return error;
  } catch (const std::filesystem::filesystem_error& problem) {
    return Error("file_system", problem.what());
  }
  return std::nullopt;
}

// Succeeds when `work` fails with exactly this code and this message.
template <typename Work>
::testing::AssertionResult fails_with(Work work, const std::string& code, const std::string& message) {
  const std::optional<Error> failure = failure_of(work);
  if (!failure) {
    return ::testing::AssertionFailure() << "no failure, where \"" << code << "\" was expected";
  }
  if (failure->code != code || failure->what() != message) {
    return ::testing::AssertionFailure() << "failed with \"" << failure->code << "\": " << failure->what()
                                         << "\nexpected    \"" << code << "\": " << message;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace ravok::testing

// The statement fails with this code and this whole message.
#define EXPECT_FAILURE(statement, code, message) \
  EXPECT_TRUE(::ravok::testing::fails_with([&] { static_cast<void>(statement); }, code, message))
