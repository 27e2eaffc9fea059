#include <array>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "platform/process/filter_program.hpp"

namespace ravok {
namespace {

// A process of its own whose terminal the test holds, and which ends with what `work` returns.
class OnATerminal {
 public:
  explicit OnATerminal(const std::function<int()>& work) : child_(forkpty(&terminal_, nullptr, nullptr, nullptr)) {
    if (child_ == 0) {
      _exit(work());
    }
  }
  ~OnATerminal() { close(terminal_); }
  OnATerminal(const OnATerminal&) = delete;
  OnATerminal& operator=(const OnATerminal&) = delete;

  void wait_for(std::string_view text) {
    while (shown_.find(text) == std::string::npos && read_more()) {
    }
  }

  void type(std::string_view text) const {
    EXPECT_EQ(write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  bool shows_typing() const {
    termios mode{};
    EXPECT_EQ(tcgetattr(terminal_, &mode), 0);
    return (mode.c_lflag & ECHO) != 0;
  }

  // Waits for the end and returns the exit code.
  int end() {
    while (read_more()) {
    }
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  const std::string& shown() const { return shown_; }

 private:
  bool read_more() {
    std::array<char, 256> piece;
    const ssize_t size = read(terminal_, piece.data(), piece.size());
    if (size > 0) {
      shown_.append(piece.data(), static_cast<std::size_t>(size));
    }
    return size > 0;
  }

  int terminal_ = -1;
  pid_t child_;
  std::string shown_;
};

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
