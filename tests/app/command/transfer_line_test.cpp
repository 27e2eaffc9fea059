#include "app/command/transfer_line.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/file/handle.hpp"

namespace ravok::transfer_line_test {
namespace {

// Returns what a terminal receives while it is the stream for errors.
std::string seen_on_a_terminal(const std::function<void()>& work) {
  const Handle terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal || grantpt(terminal.get()) != 0 || unlockpt(terminal.get()) != 0) {
    throw std::runtime_error("Cannot make a terminal for a test");
  }
  const Handle screen(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  const Handle before(dup(2));
  if (!screen || !before || dup2(screen.get(), 2) < 0) {
    throw std::runtime_error("Cannot use a terminal in a test");
  }
  work();
  std::fputs(".", stderr);  // so that there is something to read
  dup2(before.get(), 2);
  std::string seen;
  std::array<char, 256> bytes;
  while (!seen.ends_with('.')) {
    const ssize_t count = read(terminal.get(), bytes.data(), bytes.size());
    if (count <= 0) {
      break;
    }
    seen.append(bytes.data(), static_cast<std::size_t>(count));
  }
  return seen;
}

TEST(TransferText, NamesTheWorkAndBothSizes) {
  EXPECT_EQ(transfer_text("Checking the launcher", 0, 0), "Checking the launcher…");
  EXPECT_EQ(transfer_text("Downloading the launcher", 0, 314'572'800),
            "Downloading the launcher… 0 bytes of 300.0 MiB");
  EXPECT_EQ(transfer_text("Downloading the launcher", 1'572'864, 314'572'800),
            "Downloading the launcher… 1.5 MiB of 300.0 MiB");
}

TEST(TransferLine, StaysOneLineOnATerminalAndLeavesNothing) {
  EXPECT_EQ(seen_on_a_terminal([] {
              TransferLine line(true);
              line.begin("Looking");
              line.show(0, 1024);
              line.show(512, 1024);
              line.show(512, 1024);
            }),
            "\rLooking…\x1b[K\rLooking… 0 bytes of 1.0 KiB\x1b[K\rLooking… 512 bytes of 1.0 KiB\x1b[K\r\x1b[K.");
}

TEST(TransferLine, SaysNothingWhereItIsNotWanted) {
  EXPECT_EQ(seen_on_a_terminal([] {
              TransferLine line(false);
              line.begin("Looking");
              line.show(1, 2);
            }),
            ".");
}

TEST(TransferLine, SaysNothingWhereThereIsNoTerminal) {
  ::testing::internal::CaptureStderr();
  {
    TransferLine line(true);
    line.begin("Looking");
    line.show(1, 2);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace ravok::transfer_line_test
