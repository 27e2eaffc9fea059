#include "support/companion.hpp"

#include <array>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix/native.hpp"

namespace ravok::testing {
namespace {

struct Pipe {
  Handle read_end;
  Handle write_end;
};

// Opens a pipe of which a program inherits only the ends that it is given.
Pipe open_pipe() {
  std::array<int, 2> ends;
  if (pipe(ends.data()) != 0) {
    throw std::runtime_error("Cannot make a pipe for a test");
  }
  Pipe made{Handle(ends[0]), Handle(ends[1])};
  for (const int end : ends) {
    if (fcntl(end, F_SETFD, FD_CLOEXEC) != 0) {
      throw std::runtime_error("Cannot guard a pipe of a test");
    }
  }
  return made;
}

}  // namespace

Companion::Companion(const std::string& program, const std::vector<std::string>& arguments) {
  Pipe to_child = open_pipe();
  Pipe from_child = open_pipe();
  std::vector<std::string> texts = {program};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> table;
  for (std::string& text : texts) {
    table.push_back(text.data());
  }
  table.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to_child.read_end.get(), 0);
  posix_spawn_file_actions_adddup2(&actions, from_child.write_end.get(), 1);
  const int problem = posix_spawn(&child_, program.c_str(), &actions, nullptr, table.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (problem != 0) {
    throw std::runtime_error("Cannot start " + program);
  }
  input_ = std::move(to_child.write_end);
  output_ = std::move(from_child.read_end);
}

Companion::~Companion() {
  if (!ended_) {
    send_signal(SIGKILL);
    wait();
  }
}

std::string Companion::read_line() {
  std::string line;
  char next = 0;
  while (posix::retry_interrupted([&] { return read(output_.get(), &next, 1); }) == 1 && next != '\n') {
    line += next;
  }
  return line;
}

void Companion::send_signal(int signal) const { kill(child_, signal); }

bool Companion::has_ended() {
  int status = 0;
  if (!ended_ && posix::retry_interrupted([&] { return waitpid(child_, &status, WNOHANG); }) == child_) {
    keep_end(status);
  }
  return ended_;
}

int Companion::wait() {
  int status = 0;
  if (!ended_ && posix::retry_interrupted([&] { return waitpid(child_, &status, 0); }) == child_) {
    keep_end(status);
  }
  return end_;
}

void Companion::keep_end(int status) {
  ended_ = true;
  end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace ravok::testing
