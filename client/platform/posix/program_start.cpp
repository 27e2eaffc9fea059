#include "platform/process/program_start.hpp"

#include <algorithm>
#include <csignal>
#include <initializer_list>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

#include "platform/posix/native.hpp"

namespace ravok {
namespace {

bool open_standard_streams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const int mode = descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY;
    // A new descriptor gets the lowest number that is free.
    if (fcntl(descriptor, F_GETFD) < 0 &&
        posix::retry_interrupted([&] { return open("/dev/null", mode); }) != descriptor) {
      return false;
    }
  }
  return true;
}

void go_on(int) {}

// Installs a handler instead of ignoring the signal: an ignored signal stays ignored in every program that this one
// starts or becomes.
bool go_on_after(int signal) {
  struct sigaction action {};
  if (sigaction(signal, nullptr, &action) != 0) {
    return false;
  }
  if (action.sa_handler == SIG_IGN) {
    return true;
  }
  action = {};
  action.sa_handler = go_on;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(signal, &action, nullptr) == 0;
}

// A program may inherit that this signal is ignored, and the system would then forget a child's end by itself.
bool hear_of_children() {
  struct sigaction action {};
  if (sigaction(SIGCHLD, nullptr, &action) != 0) {
    return false;
  }
  if (action.sa_handler != SIG_IGN) {
    return true;
  }
  action = {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGCHLD, &action, nullptr) == 0;
}

}  // namespace

bool start_program() {
  return open_standard_streams() && go_on_after(SIGPIPE) && go_on_after(SIGXFSZ) && hear_of_children();
}

void close_inherited_handles() {
  const int count = posix::descriptors_to_look_at();
  const int kept = posix::announced_reader();
  const int first = STDERR_FILENO + 1;
  posix::close_between(first, kept, count);
  posix::close_between(std::max(first, kept + 1), std::numeric_limits<int>::max(), count);
}

}  // namespace ravok
