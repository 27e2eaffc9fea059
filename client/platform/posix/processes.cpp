// What Linux and macOS share of starting programs.
#include <utility>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/file/descriptor.hpp"
#include "platform/os.hpp"

extern char** environ;

namespace ravok::os {
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

ProgramEnd run_program(std::vector<std::string> words) {
  SpawnActions actions;
  if (!actions.duplicate(STDERR_FILENO, STDOUT_FILENO)) {
    return ProgramEnd::not_prepared;
  }
  std::vector<char*> table;
  for (std::string& word : words) {
    table.push_back(word.data());
  }
  table.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawnp(&child, table.front(), actions.get(), nullptr, table.data(), environ) != 0) {
    return ProgramEnd::not_started;
  }
  int end = 0;
  const bool ended = retry_interrupted([&] { return waitpid(child, &end, 0); }) == child;
  return ended && WIFEXITED(end) && WEXITSTATUS(end) == 0 ? ProgramEnd::succeeded : ProgramEnd::failed;
}

}  // namespace ravok::os
