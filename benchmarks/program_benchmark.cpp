// Whole processes, from their start to their end.

#include <cstdlib>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {

void run(const char* program, const char* argument) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  char home[] = "HOME=/nowhere";
  char* environment[] = {home, nullptr};
  char* arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
  pid_t child = 0;
  int status = 1;
  if (posix_spawn(&child, program, &actions, nullptr, arguments, environment) != 0 ||
      waitpid(child, &status, 0) != child || status != 0) {
    std::abort();
  }
  posix_spawn_file_actions_destroy(&actions);
}

void maintenance_help(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_MAINTENANCE, "--help");
  }
}
BENCHMARK(maintenance_help)->Unit(benchmark::kMillisecond)->UseRealTime();

void maintenance_help_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    run(RAVOK_EMPTY_PROGRAM, nullptr);
  }
}
BENCHMARK(maintenance_help_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
