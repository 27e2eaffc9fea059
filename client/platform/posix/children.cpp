// What Linux and macOS share of starting a child and of seeing it end.
#include <algorithm>
#include <array>
#include <csignal>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/os.hpp"
#include "platform/posix/native.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok::os {
namespace {

constexpr int first_descriptor = STDERR_FILENO + 1;
constexpr char go_on_byte = 1;
constexpr int not_started_code = 127;
constexpr std::uint64_t first_signal_code = 128;
constexpr std::uint64_t stopped_code = 1;

// Moves a descriptor off the standard streams and keeps it from other programs. Returns whether that worked.
bool protect_descriptor(Handle& handle) {
  if (handle.get() < first_descriptor) {
    handle = Handle(fcntl(handle.get(), F_DUPFD_CLOEXEC, first_descriptor));
  }
  return handle && fcntl(handle.get(), F_SETFD, FD_CLOEXEC) >= 0;
}

// All that a child needs, made before it is.
struct ChildStart {
  const char* image;
  char* const* arguments;
  char* const* environment;
  const char* directory;
  bool joined_output;
  bool own_group;
  InterruptPipe* interrupt;
  int report;
  int activation;
  int input;
  std::array<int, 4> kept;  // its descriptors besides the standard streams, ascending; -1 for one that it has not
  int descriptors;          // how many may be open
};

// From here to the start of the image, a child of a process with several threads may only make calls that are safe in a
// signal handler.

[[noreturn]] void report_and_end(int report) {
  const int number = errno;
  static_cast<void>(posix::retry_interrupted([&] { return ::write(report, &number, sizeof number); }) == 0);
  _exit(not_started_code);
}

// Besides what its parent holds, a child may have got the ends of channels that another thread was about to use. While
// they are open, that thread would wait for this child too.
void close_all_but_own(const ChildStart& child) {
  int first = first_descriptor;
  for (const int kept : child.kept) {
    posix::close_between(first, kept, child.descriptors);
    first = std::max(first, kept + 1);
  }
  posix::close_between(first, std::numeric_limits<int>::max(), child.descriptors);
}

bool is_activated(int activation) {
  char byte = 0;
  const bool read_one = posix::retry_interrupted([&] { return ::read(activation, &byte, 1); }) == 1;
  close(activation);
  return read_one && byte == go_on_byte;
}

// Gives the program an empty input and, where it is to be so, its standard error for its output.
bool set_streams(const ChildStart& child) {
  const bool set =
      posix::retry_interrupted([&] { return dup2(child.input, STDIN_FILENO); }) >= 0 &&
      (!child.joined_output || posix::retry_interrupted([] { return dup2(STDERR_FILENO, STDOUT_FILENO); }) >= 0);
  if (set) {
    close(child.input);
  }
  return set;
}

// A process outside its terminal's foreground would be stopped there for what it writes, where the terminal is set so,
// and for any change of its settings; and nobody would continue it. To read is a failure then.
bool goes_on_in_background() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGTTOU, &action, nullptr) == 0 && sigaction(SIGTTIN, &action, nullptr) == 0;
}

[[noreturn]] void become(const ChildStart& child) {
  close_all_but_own(child);
  if ((child.interrupt != nullptr && !child.interrupt->prepare_child()) ||
      (child.own_group && (setpgid(0, 0) != 0 || !goes_on_in_background()))) {
    report_and_end(child.report);
  }
  if (!is_activated(child.activation)) {
    _exit(not_started_code);
  }
  if (posix::retry_interrupted([&] { return chdir(child.directory); }) == 0 && set_streams(child)) {
    posix::retry_interrupted([&] { return execve(child.image, child.arguments, child.environment); });
  }
  report_and_end(child.report);
}

// A process that is gone needs no signal any more.
bool send_signal(std::int32_t child, int signal) { return kill(child, signal) == 0 || errno == ESRCH; }

}  // namespace

Channel open_start_channel() {
  int ends[2];
  return posix::open_pipe(ends) == 0 ? Channel{Handle(ends[0]), Handle(ends[1])} : Channel();
}

Channel open_activation_channel() {
  int ends[2];
  return posix::open_sockets(ends) == 0 ? Channel{Handle(ends[0]), Handle(ends[1])} : Channel();
}

bool protect_channel(Channel& channel) {
  return protect_descriptor(channel.parent) && protect_descriptor(channel.child) &&
         keep_quiet_when_reader_gone(channel.parent.get());
}

Handle open_empty_input() {
  Handle input(posix::retry_interrupted([] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }));
  return input && protect_descriptor(input) ? std::move(input) : Handle();
}

std::optional<std::int32_t> prepare_child(ChildProgram program, const Channel& start, const Channel& activation,
                                          const Handle& input) {
  const std::vector<char*> arguments = posix::pointers_to(program.arguments);
  const std::vector<char*> environment = posix::pointers_to(program.environment);
  ChildStart child = {
      .image = program.image.c_str(),
      .arguments = arguments.data(),
      .environment = environment.data(),
      .directory = program.directory.c_str(),
      .joined_output = program.joined_output,
      .own_group = program.own_group,
      .interrupt = program.interrupt,
      .report = start.child.get(),
      .activation = activation.child.get(),
      .input = input.get(),
      .kept = {start.child.get(), activation.child.get(), input.get(),
               program.interrupt != nullptr ? program.interrupt->reader() : -1},
      .descriptors = posix::descriptors_to_look_at(),
  };
  std::sort(child.kept.begin(), child.kept.end());
  const pid_t made = fork();
  if (made == 0) {
    become(child);
  }
  if (made < 0) {
    return std::nullopt;
  }
  if (program.own_group) {
    // The child does the same. Whoever is told of the child finds its group in place, whichever of the two is first.
    static_cast<void>(setpgid(made, made) == 0);
  }
  return made;
}

bool activate_child(const Handle& activation) {
  return posix::retry_interrupted(
             [&] { return send(activation.get(), &go_on_byte, sizeof go_on_byte, posix::quiet_sending()); }) == 1;
}

std::optional<Problem> start_problem(const Handle& start) {
  int number = 0;
  const ssize_t size = posix::retry_interrupted([&] { return ::read(start.get(), &number, sizeof number); });
  if (size < 0) {
    return std::nullopt;
  }
  if (size == 0) {
    return Problem();
  }
  return size == sizeof number && number != 0 ? posix::native_problem(number) : problem_of(Cause::other);
}

Result<std::optional<ChildEnd>> child_end(std::int32_t child) {
  int status = 0;
  const pid_t ended = posix::retry_interrupted([&] { return waitpid(child, &status, WNOHANG); });
  if (ended < 0) {
    return posix::last_problem();
  }
  if (ended == 0) {
    return std::optional<ChildEnd>();
  }
  if (WIFSIGNALED(status)) {
    return std::optional(ChildEnd{first_signal_code + static_cast<std::uint64_t>(WTERMSIG(status)), true});
  }
  const auto code = WIFEXITED(status) ? static_cast<std::uint64_t>(WEXITSTATUS(status)) : stopped_code;
  return std::optional(ChildEnd{code, false});
}

bool terminate_child(std::int32_t child) { return send_signal(child, SIGTERM); }

bool kill_child(std::int32_t child) { return send_signal(child, SIGKILL); }

void reap_child(std::int32_t child) {
  int status = 0;
  static_cast<void>(posix::retry_interrupted([&] { return waitpid(child, &status, 0); }) == child);
}

}  // namespace ravok::os
