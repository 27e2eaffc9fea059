#include "platform/program_signing.hpp"

#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/descriptor.hpp"

extern char** environ;

namespace ravok {
namespace {

// Runs a program to its end, with its output among the messages, and returns whether it went well.
bool runs_well(std::vector<std::string> words) {
  std::vector<char*> table;
  for (std::string& word : words) {
    table.push_back(word.data());
  }
  table.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    return false;
  }
  pid_t child = 0;
  const bool started = posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO) == 0 &&
                       posix_spawn(&child, words.front().c_str(), &actions, nullptr, table.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  int end = 0;
  return started && retry_interrupted([&] { return waitpid(child, &end, 0); }) == child && WIFEXITED(end) &&
         WEXITSTATUS(end) == 0;
}

}  // namespace

void sign_program(const std::string& signer, const std::filesystem::path& program, const std::string& identity) {
  require(runs_well({signer, "--force", "--sign", identity, std::filesystem::absolute(program).native()}),
          "program_signature", "Cannot sign the program; what its signer said stands above");
}

}  // namespace ravok
