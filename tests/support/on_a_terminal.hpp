// A process on a terminal.
#pragma once

#include <array>
#include <cerrno>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace ravok::testing {

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

}  // namespace ravok::testing
