// Whole processes, from their start to their end.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace ravok::benchmarks {

// Runs a program, whose output goes nowhere, and waits for its success.
inline void run(const char* program, const std::vector<std::string>& arguments) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  char home[] = "HOME=/nowhere";
  char* environment[] = {home, nullptr};
  std::vector<char*> words = {const_cast<char*>(program)};
  for (const std::string& argument : arguments) {
    words.push_back(const_cast<char*>(argument.c_str()));
  }
  words.push_back(nullptr);
  pid_t child = 0;
  int status = 1;
  if (posix_spawn(&child, program, &actions, nullptr, words.data(), environment) != 0 ||
      waitpid(child, &status, 0) != child || status != 0) {
    std::abort();
  }
  posix_spawn_file_actions_destroy(&actions);
}

}  // namespace ravok::benchmarks
