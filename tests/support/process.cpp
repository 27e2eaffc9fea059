#include "support/process.hpp"

#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temporary_root.hpp"

namespace ravok::testing {
namespace {

std::vector<char*> table_of(std::vector<std::string>& texts) {
  std::vector<char*> table;
  for (std::string& text : texts) {
    table.push_back(text.data());
  }
  table.push_back(nullptr);
  return table;
}

}  // namespace

ProgramResult run_program(const ProgramRun& run) {
  const TemporaryRoot root;
  const std::string output = run.output_path.empty() ? std::string(root / "output") : run.output_path;
  const std::string errors = root / "errors";

  std::vector<std::string> arguments = {run.program};
  arguments.insert(arguments.end(), run.arguments.begin(), run.arguments.end());
  std::vector<std::string> environment;
  for (const auto& [key, value] : run.environment) {
    environment.push_back(key + "=" + value);
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT, 0600);
  pid_t child = 0;
  const int problem = posix_spawn(&child, run.program.c_str(), &actions, nullptr, table_of(arguments).data(),
                                  table_of(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (problem != 0) {
    throw std::runtime_error("Cannot start " + run.program);
  }

  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  ProgramResult result;
  if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  result.output = run.output_path.empty() ? root.read("output") : std::string();
  result.errors = root.read("errors");
  return result;
}

}  // namespace ravok::testing
