#include "programs/started_program.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix/native.hpp"
#include "support/bytes_of.hpp"

namespace ravok::testing {
namespace {

constexpr std::size_t page = 4096;
constexpr std::array<int, 6> ending_signals = {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGXFSZ, SIGQUIT};

struct Pipe {
  Handle read_end;
  Handle write_end;
};

// Opens a pipe of which a program inherits only the ends that it is given.
Pipe open_pipe() {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("Cannot make a pipe for a test");
  }
  return {Handle(ends[0]), Handle(ends[1])};
}

// Fills a pipe of one page until it has room for so many bytes. Returns how many it put there.
std::size_t leave_room(int writer, std::size_t room) {
  const std::string filling(page - room, '.');
  if (fcntl(writer, F_SETPIPE_SZ, static_cast<int>(page)) != static_cast<int>(page) ||
      write(writer, filling.data(), filling.size()) != static_cast<ssize_t>(filling.size())) {
    throw std::runtime_error("Cannot fill a pipe of a test");
  }
  return filling.size();
}

std::string read_all(int reader) {
  std::string text;
  std::array<char, page> bytes;
  for (ssize_t count = 0;
       (count = posix::retry_interrupted([&] { return read(reader, bytes.data(), bytes.size()); })) > 0;) {
    text.append(bytes.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::vector<char*> table_of(std::vector<std::string>& texts) {
  std::vector<char*> table;
  for (std::string& text : texts) {
    table.push_back(text.data());
  }
  table.push_back(nullptr);
  return table;
}

bool set_limit(int resource, const std::optional<std::size_t>& limit) {
  const rlimit both = {limit.value_or(0), limit.value_or(0)};
  return !limit || setrlimit(static_cast<__rlimit_resource_t>(resource), &both) == 0;
}

// Opens the descriptors from 3 on, so many. `other` gets a number beyond them. Runs in the child.
bool leave_open(std::size_t count, Handle& other) {
  rlimit limit = {};
  if (count == 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return count == 0;
  }
  limit.rlim_cur = limit.rlim_max;
  const int first = STDERR_FILENO + 1;
  const int end = first + static_cast<int>(count);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return false;
  }
  other = Handle(fcntl(other.get(), F_DUPFD_CLOEXEC, end));
  bool left = static_cast<bool>(other);
  for (int descriptor = first; left && descriptor < end; ++descriptor) {
    left = dup2(STDERR_FILENO, descriptor) >= 0;
  }
  return left;
}

// Runs in the child.
bool prepare(const ProgramStart& start, int input, int output, int errors) {
  std::vector<int> signals(ending_signals.begin(), ending_signals.end());
  signals.insert(signals.end(), start.ignored.begin(), start.ignored.end());
  for (const int signal : signals) {
    const bool ignored = std::find(start.ignored.begin(), start.ignored.end(), signal) != start.ignored.end();
    if (std::signal(signal, ignored ? SIG_IGN : SIG_DFL) == SIG_ERR) {
      return false;
    }
  }
  sigset_t none;
  sigemptyset(&none);
  if (sigprocmask(SIG_SETMASK, &none, nullptr) != 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 ||
      dup2(errors, 2) < 0) {
    return false;
  }
  for (const int descriptor : start.closed) {
    close(descriptor);
  }
  return set_limit(RLIMIT_FSIZE, start.file_size_limit) && set_limit(RLIMIT_NOFILE, start.descriptor_limit);
}

}  // namespace

StartedProgram::StartedProgram(const ProgramStart& start) {
  const Handle input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Pipe output = open_pipe();
  Pipe errors = open_pipe();
  if (!start.output_is_read) {
    output.read_end.reset();
  }
  errors_path_ = start.errors_path;
  if (errors_path_.empty()) {
    filling_ = leave_room(errors.write_end.get(), start.error_room);
  } else {
    errors.write_end = Handle(open(errors_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  }
  std::vector<std::string> arguments = {start.program};
  arguments.insert(arguments.end(), start.arguments.begin(), start.arguments.end());
  std::vector<std::string> environment;
  for (const auto& [key, value] : start.environment) {
    environment.push_back(key + "=" + value);
  }
  const std::vector<char*> argument_table = table_of(arguments);
  const std::vector<char*> environment_table = table_of(environment);
  // The program's start closes it, and nothing is written into it then.
  Pipe running = open_pipe();
  child_ = fork();
  if (child_ == 0) {
    if (prepare(start, input.get(), output.write_end.get(), errors.write_end.get()) &&
        leave_open(start.inherited_descriptors, running.write_end)) {
      execve(start.program.c_str(), argument_table.data(), environment_table.data());
    }
    const char failed = 1;
    static_cast<void>(write(running.write_end.get(), &failed, sizeof failed) == 0);
    _exit(127);
  }
  if (child_ < 0) {
    throw std::runtime_error("Cannot start " + start.program);
  }
  running.write_end.reset();
  char failed = 0;
  if (posix::retry_interrupted([&] { return read(running.read_end.get(), &failed, sizeof failed); }) != 0) {
    wait();
    throw std::runtime_error("Cannot start " + start.program);
  }
  output_ = std::move(output.read_end);
  errors_ = std::move(errors.read_end);
}

StartedProgram::~StartedProgram() {
  if (!has_ended()) {
    kill(child_, SIGKILL);
    wait();
  }
}

bool StartedProgram::wait_until_full() {
  int waiting = 0;
  do {
    if (ioctl(errors_.get(), FIONREAD, &waiting) != 0) {
      throw std::runtime_error("Cannot look into a pipe of a test");
    }
  } while (waiting != static_cast<int>(page) && !has_ended());
  return waiting == static_cast<int>(page);
}

bool StartedProgram::catches(int signal) const {
  std::ifstream status("/proc/" + std::to_string(child_) + "/status");
  for (std::string key, value; status >> key && std::getline(status, value);) {
    if (key == "SigCgt:") {
      return (std::stoull(value, nullptr, 16) >> (signal - 1) & 1) != 0;
    }
  }
  return false;
}

void StartedProgram::send_signal(int signal) const { kill(child_, signal); }

bool StartedProgram::has_ended() {
  int status = 0;
  if (!end_ && posix::retry_interrupted([&] { return waitpid(child_, &status, WNOHANG); }) == child_) {
    end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  return end_.has_value();
}

std::string StartedProgram::output() { return output_ ? read_all(output_.get()) : std::string(); }

std::string StartedProgram::errors() {
  return errors_path_.empty() ? read_all(errors_.get()).substr(filling_) : bytes_of(errors_path_);
}

int StartedProgram::wait() {
  int status = 0;
  if (!end_ && posix::retry_interrupted([&] { return waitpid(child_, &status, 0); }) == child_) {
    end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  return end_.value_or(-1);
}

}  // namespace ravok::testing
