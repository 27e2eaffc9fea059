// What Linux and macOS share of starting programs.
#include <algorithm>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/os.hpp"
#include "platform/posix/native.hpp"
#include "platform/process/process_operations.hpp"

extern char** environ;

namespace ravok {

std::vector<char*> posix::pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> table;
  for (std::string& text : texts) {
    table.push_back(text.data());
  }
  table.push_back(nullptr);
  return table;
}

int posix::descriptors_to_look_at() {
  constexpr long most = 65536;
  const long limit = sysconf(_SC_OPEN_MAX);
  return static_cast<int>(limit < 0 ? most : std::min(limit, most));
}

void posix::close_between(int first, int end, int count) {
  if (first >= end || close_descriptors(static_cast<unsigned>(first), static_cast<unsigned>(end - 1))) {
    return;
  }
  for (int descriptor = first; descriptor < std::min(end, count); ++descriptor) {
    close(descriptor);
  }
}

namespace os {
namespace {

// The redirections of a process that is to be started.
class SpawnActions {
 public:
  SpawnActions() : initialized_(posix_spawn_file_actions_init(&actions_) == 0) {}
  ~SpawnActions() {
    if (initialized_) {
      posix_spawn_file_actions_destroy(&actions_);
    }
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  bool duplicate(int from, int to) {
    return initialized_ && posix_spawn_file_actions_adddup2(&actions_, from, to) == 0;
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  bool initialized_;
};

}  // namespace

std::vector<std::string> environment() {
  std::vector<std::string> variables;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    variables.emplace_back(*entry);
  }
  return variables;
}

bool remove_variable(const std::string& name) { return unsetenv(name.c_str()) == 0; }

std::uint64_t process_id() { return static_cast<std::uint64_t>(getpid()); }

bool is_terminal(int stream) { return isatty(stream) != 0; }

ReplacementProblem replace_program(const std::string& image, std::vector<std::string> arguments,
                                   std::vector<std::string> environment, const std::string& directory) {
  const std::vector<char*> argument_table = posix::pointers_to(arguments);
  const std::vector<char*> environment_table = posix::pointers_to(environment);
  // Held open, since it may have no path any more.
  const Handle before(posix::retry_interrupted([] { return ::open(".", posix::passage_flags()); }));
  if (posix::retry_interrupted([&] { return chdir(directory.c_str()); }) != 0) {
    return {true, posix::last_problem()};
  }
  execve(image.c_str(), argument_table.data(), environment_table.data());
  const Problem problem = posix::last_problem();
  // Back to the former directory. A process that may not enter that stays in this one.
  static_cast<void>(fchdir(before.get()) == 0);
  return {false, problem};
}

ProgramEnd run_program(std::vector<std::string> words) {
  SpawnActions actions;
  if (!actions.duplicate(STDERR_FILENO, STDOUT_FILENO)) {
    return ProgramEnd::not_prepared;
  }
  const std::vector<char*> table = posix::pointers_to(words);
  pid_t child = 0;
  if (posix_spawnp(&child, table.front(), actions.get(), nullptr, table.data(), environ) != 0) {
    return ProgramEnd::not_started;
  }
  int end = 0;
  const bool ended = posix::retry_interrupted([&] { return waitpid(child, &end, 0); }) == child;
  return ended && WIFEXITED(end) && WEXITSTATUS(end) == 0 ? ProgramEnd::succeeded : ProgramEnd::failed;
}

}  // namespace os

}  // namespace ravok
