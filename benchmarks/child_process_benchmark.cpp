#include <cstdlib>
#include <filesystem>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/process/child_process.hpp"

extern char** environ;

namespace {

void must(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Waits for the end of a child that nobody has reaped, so that polling does not count.
void wait_until_ended(pid_t child) {
  siginfo_t end;
  must(waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT) == 0);
}

void start_child(benchmark::State& state) {
  const std::filesystem::path image = RAVOK_EMPTY_PROGRAM;
  for (auto _ : state) {
    ravok::ChildProcess child(image, {}, "/", {});
    wait_until_ended(static_cast<pid_t>(child.pid()));
    must(child.poll() == 0u);
  }
}
BENCHMARK(start_child)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same program with the same streams beside the same two channels: a pipe that ends when the program runs, and a
// pair of sockets.
void start_child_yardstick(benchmark::State& state) {
  char* const arguments[] = {const_cast<char*>(RAVOK_EMPTY_PROGRAM), nullptr};
  for (auto _ : state) {
    int report[2];
    int activation[2];
    must(pipe2(report, O_CLOEXEC) == 0);
    must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, activation) == 0);
    posix_spawn_file_actions_t actions;
    must(posix_spawn_file_actions_init(&actions) == 0 &&
         posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
         posix_spawn_file_actions_adddup2(&actions, 2, 1) == 0);
    pid_t child = 0;
    must(posix_spawn(&child, RAVOK_EMPTY_PROGRAM, &actions, nullptr, arguments, environ) == 0);
    posix_spawn_file_actions_destroy(&actions);
    close(report[1]);
    close(activation[1]);
    const char go_on = 1;
    static_cast<void>(send(activation[0], &go_on, 1, MSG_NOSIGNAL) == 1);
    close(activation[0]);
    char ended = 0;
    must(read(report[0], &ended, 1) == 0);
    close(report[0]);
    wait_until_ended(child);
    int status = 1;
    must(waitpid(child, &status, 0) == child && status == 0);
  }
}
BENCHMARK(start_child_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
