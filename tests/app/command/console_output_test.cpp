#include "app/command/console_output.hpp"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/failure.hpp"

namespace ravok::console_output_test {
namespace {

struct Said {
  std::string output;
  std::string errors;
};

Said said_by(const std::function<void()>& work) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  work();
  Said said;
  said.output = ::testing::internal::GetCapturedStdout();
  said.errors = ::testing::internal::GetCapturedStderr();
  return said;
}

// Ends this process with the code, where nothing more can be written to the descriptor.
[[noreturn]] void end_without_room(int descriptor, const std::function<int()>& work) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  if (full < 0 || dup2(full, descriptor) < 0) {
    std::_Exit(99);
  }
  std::_Exit(work());
}

TEST(PrintResult, WritesTheTextAsItIs) {
  for (const std::string& text :
       {std::string(), std::string("a line\n"), std::string("no end"), std::string("\x1b[31m"), std::string("a\0b", 3),
        std::string("\xff"), std::string(1'000'000, 'x')}) {
    const Said said = said_by([&] { print_result(text); });
    EXPECT_EQ(said.output, text);
    EXPECT_EQ(said.errors, "");
  }
}

TEST(PrintResult, SaysSoWhenNotAllOfItCouldBeWritten) {
  for (const std::string& text : {std::string("a line\n"), std::string(1'000'000, 'x')}) {
    EXPECT_EXIT(end_without_room(1,
                                 [&] {
                                   const auto refusal = testing::failure_of([&] { print_result(text); });
                                   std::fprintf(stderr, "%s: %s", refusal->code.c_str(), refusal->what());
                                   return 7;
                                 }),
                ::testing::ExitedWithCode(7), "^output_failed: Cannot write to standard output$");
  }
}

TEST(PrintNotice, WritesOneLineThatSteersNoTerminal) {
  const Said said = said_by([] {
    print_notice("words");
    print_notice("");
    print_notice("ä\x1b[31m\n\t\x7f\xff");
  });
  EXPECT_EQ(said.output, "");
  EXPECT_EQ(said.errors, "words\n\nä\\x1b[31m\\x0a\\x09\\x7f\\xff\n");
}

TEST(PrintNotice, IsLostWithoutRoomForIt) {
  EXPECT_EXIT(end_without_room(2,
                               [] {
                                 print_notice("words");
                                 return 7;
                               }),
              ::testing::ExitedWithCode(7), "^$");
}

TEST(TellFailure, SaysTheMessageAndReturnsTheExitCode) {
  for (const auto& [code, expected] : {std::pair("usage", 2), std::pair("cancelled", 4), std::pair("busy", 1)}) {
    const Said said = said_by([&, expected = expected, code = code] {
      EXPECT_EQ(tell_failure(Error(code, "What is wrong", {"a hint"}), false), expected);
    });
    EXPECT_EQ(said.output, "");
    EXPECT_EQ(said.errors, "What is wrong\n");
  }
}

TEST(TellFailure, SaysCodeAndMessageAsJsonToo) {
  const Said said =
      said_by([] { EXPECT_EQ(tell_failure(Error("usage", "Wrong: \"ä\" \x1b[31m", {"a hint"}), true), 2); });
  EXPECT_EQ(said.output,
            "{\"problem\":{\"code\":\"usage\",\"message\":\"Wrong: \\\"ä\\\" \\u001b[31m\"},\"schema_version\":1}\n");
  EXPECT_EQ(said.errors, "Wrong: \"ä\" \\x1b[31m\n");
}

TEST(TellFailure, EscapesAMessageThatJsonCannotHold) {
  const Said said = said_by([] { EXPECT_EQ(tell_failure(Error("file_read", "Cannot open \xff"), true), 1); });
  EXPECT_EQ(said.output,
            "{\"problem\":{\"code\":\"file_read\",\"message\":\"Cannot open \\\\xff\"},\"schema_version\":1}\n");
  EXPECT_EQ(said.errors, "Cannot open \\xff\n");
}

TEST(TellFailure, SaysWhatItCanWhereStandardOutputHasNoRoom) {
  EXPECT_EXIT(end_without_room(1, [] { return tell_failure(Error("cancelled", "Cancelled"), true); }),
              ::testing::ExitedWithCode(4), "^Cancelled\n$");
}

TEST(TellFailure, SaysWhatHasNoCodeInALineAlone) {
  const Said said = said_by([] { EXPECT_EQ(tell_failure(std::runtime_error("Something\x1b else")), 1); });
  EXPECT_EQ(said.output, "");
  EXPECT_EQ(said.errors, "Something\\x1b else\n");
}

}  // namespace
}  // namespace ravok::console_output_test
