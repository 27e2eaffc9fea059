#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/process/filter_program.hpp"
#include "support/on_a_terminal.hpp"

namespace ravok {
namespace {

using testing::OnATerminal;

// Reads a line of at most 8 bytes and returns how that ended, or 9 for another line than "secret".
int ask(const std::function<bool()>& cancelled) {
  std::array<std::uint8_t, 8> line{};
  const os::HiddenInput input = os::read_hidden_line("Word: ", line, cancelled);
  const std::string text(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(input.size));
  return input.end == os::HiddenLine::read && text != "secret" ? 9 : static_cast<int>(input.end);
}

int code_of(os::HiddenLine end) { return static_cast<int>(end); }

TEST(HiddenLine, IsReadFromTheTerminalAndNotShown) {
  OnATerminal program([] { return ask({}); });
  program.wait_for("Word: ");
  EXPECT_FALSE(program.shows_typing());
  program.type("secret\n");
  EXPECT_EQ(program.end(), code_of(os::HiddenLine::read));
  EXPECT_EQ(program.shown(), "Word: \r\n");
}

TEST(HiddenLine, LeavesATerminalThatShowsWhatIsTyped) {
  OnATerminal program([] {
    const int code = ask([] { return true; });
    return write(STDOUT_FILENO, "after", 5) == 5 && getchar() == 'x' ? code : 8;
  });
  program.wait_for("after");
  EXPECT_TRUE(program.shows_typing());
  program.type("x\n");
  EXPECT_EQ(program.end(), code_of(os::HiddenLine::cancelled));
}

TEST(HiddenLine, IsRefusedWhenItIsTooLong) {
  OnATerminal program([] { return ask({}); });
  program.wait_for("Word: ");
  program.type("far too long\n");
  EXPECT_EQ(program.end(), code_of(os::HiddenLine::too_long));
}

TEST(HiddenLine, NeedsATerminal) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(setsid() < 0 ? 8 : ask({}));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), code_of(os::HiddenLine::no_terminal));
}

}  // namespace
}  // namespace ravok
