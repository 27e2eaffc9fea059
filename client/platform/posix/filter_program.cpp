#include "platform/process/filter_program.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"

extern char** environ;

namespace ravok::os {
namespace {

constexpr int filter_tick = 20;     // milliseconds
constexpr int terminal_tick = 200;  // milliseconds
constexpr std::chrono::milliseconds end_tick{5};
constexpr std::chrono::milliseconds patience_after_request{2000};

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using UnnamedFile = std::unique_ptr<std::FILE, CloseFile>;

// Returns a file without a name that holds the bytes and is read from its beginning, or none. A pipe would do for most
// programs, but some ask for the size of what they are to sign, or open their input by its path.
UnnamedFile file_of(std::string_view bytes) {
  UnnamedFile file(std::tmpfile());
  const bool written = file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
                       std::fflush(file.get()) == 0 && lseek(fileno(file.get()), 0, SEEK_SET) == 0;
  return written ? std::move(file) : UnnamedFile();
}

class FilterStreams {
 public:
  FilterStreams() : initialized_(posix_spawn_file_actions_init(&actions_) == 0) {}
  ~FilterStreams() {
    if (initialized_) {
      posix_spawn_file_actions_destroy(&actions_);
    }
  }
  FilterStreams(const FilterStreams&) = delete;
  FilterStreams& operator=(const FilterStreams&) = delete;

  bool set(int input, int output) {
    return initialized_ && posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO) == 0 &&
           posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO) == 0;
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  bool initialized_;
};

// A program that was started. It is ended with this object, and forgotten.
class StartedFilter {
 public:
  explicit StartedFilter(pid_t child) : child_(child) {}
  ~StartedFilter() {
    if (!status_) {
      kill(child_, SIGKILL);
      int status = 0;
      static_cast<void>(posix::retry_interrupted([&] { return waitpid(child_, &status, 0); }) == child_);
    }
  }
  StartedFilter(const StartedFilter&) = delete;
  StartedFilter& operator=(const StartedFilter&) = delete;

  bool has_ended() {
    int status = 0;
    if (!status_ && posix::retry_interrupted([&] { return waitpid(child_, &status, WNOHANG); }) == child_) {
      status_ = status;
    }
    return status_.has_value();
  }

  void end() {
    if (has_ended()) {
      return;
    }
    kill(child_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + patience_after_request;
    while (!has_ended() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(end_tick);
    }
  }

  // How it ended by itself.
  void describe(FilterResult& result) const {
    int status = *status_;
    const bool exited = WIFEXITED(status);
    result.end = exited ? FilterEnd::exited : FilterEnd::signalled;
    result.code = static_cast<std::uint64_t>(exited ? WEXITSTATUS(status) : WTERMSIG(status));
  }

 private:
  const pid_t child_;
  std::optional<int> status_;
};

// What a program says. The pipe may stay open behind its end, in a program that it has left behind.
class FilterOutput {
 public:
  FilterOutput(Handle pipe, std::size_t limit) : pipe_(std::move(pipe)), limit_(limit) {}

  // Takes what is there. Returns whether more may come.
  bool take() {
    std::array<char, 4096> piece;
    while (pipe_ && !is_too_long()) {
      const ssize_t size = posix::retry_interrupted([&] { return ::read(pipe_.get(), piece.data(), piece.size()); });
      if (size < 0 && errno == EAGAIN) {
        return true;
      }
      if (size <= 0) {
        pipe_.reset();
        return false;
      }
      text_.append(piece.data(), static_cast<std::size_t>(size));
    }
    return static_cast<bool>(pipe_);
  }

  void wait_for_more() const {
    pollfd entry = {pipe_.get(), POLLIN, 0};
    static_cast<void>(::poll(&entry, 1, filter_tick) >= 0);
  }

  bool is_too_long() const { return text_.size() > limit_; }

  std::string text() const { return text_.substr(0, limit_); }

 private:
  Handle pipe_;
  const std::size_t limit_;
  std::string text_;
};

// Follows the program to its end, or ends it.
void follow(StartedFilter& child, FilterOutput& output, const std::function<bool()>& give_up, FilterResult& result) {
  while (true) {
    // Asked first: what the program has said before it ended is there then.
    const bool ended = child.has_ended();
    const bool open = output.take();
    if (output.is_too_long()) {
      child.end();
      result.end = FilterEnd::too_long;
      return;
    }
    if (ended) {
      child.describe(result);
      return;
    }
    if (give_up && give_up()) {
      child.end();
      result.end = FilterEnd::given_up;
      return;
    }
    if (open) {
      output.wait_for_more();
    } else {
      std::this_thread::sleep_for(end_tick);
    }
  }
}

// A terminal that does not show what is typed, for as long as the object lives. It stops no program meanwhile, since
// a shell would then go on with a terminal that shows nothing.
class HiddenTerminal {
 public:
  explicit HiddenTerminal(int terminal) : terminal_(terminal) {
    if (tcgetattr(terminal_, &before_) != 0) {
      return;
    }
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= ECHONL | ICANON | ISIG;
    hidden.c_cc[VSUSP] = _POSIX_VDISABLE;
    hidden.c_cc[VQUIT] = _POSIX_VDISABLE;
    changed_ = tcsetattr(terminal_, TCSAFLUSH, &hidden) == 0;
  }
  ~HiddenTerminal() {
    if (changed_) {
      static_cast<void>(tcsetattr(terminal_, TCSAFLUSH, &before_) == 0);
    }
  }
  HiddenTerminal(const HiddenTerminal&) = delete;
  HiddenTerminal& operator=(const HiddenTerminal&) = delete;

  bool changed() const { return changed_; }

 private:
  const int terminal_;
  termios before_{};
  bool changed_ = false;
};

HiddenInput read_line(int terminal, std::span<std::uint8_t> line, const std::function<bool()>& cancelled) {
  std::size_t size = 0;
  while (true) {
    pollfd entry = {terminal, POLLIN, 0};
    const int ready = ::poll(&entry, 1, terminal_tick);
    if (cancelled && cancelled()) {
      return {HiddenLine::cancelled, 0};
    }
    if (ready <= 0) {
      continue;
    }
    std::uint8_t byte = 0;
    const ssize_t read = posix::retry_interrupted([&] { return ::read(terminal, &byte, 1); });
    if (read < 0) {
      return {HiddenLine::failed, 0};
    }
    if (read == 0 || byte == '\n') {
      return {HiddenLine::read, size};
    }
    if (size == line.size()) {
      return {HiddenLine::too_long, 0};
    }
    line[size++] = byte;
  }
}

}  // namespace

FilterResult filter(std::vector<std::string> words, std::string_view input, std::size_t limit,
                    const std::function<bool()>& give_up) {
  FilterResult result;
  const UnnamedFile file = file_of(input);
  int ends[2];
  if (!file || posix::open_pipe(ends) != 0) {
    result.problem = posix::last_problem();
    return result;
  }
  Handle reader(ends[0]);
  Handle writer(ends[1]);
  FilterStreams streams;
  if (fcntl(reader.get(), F_SETFD, FD_CLOEXEC) < 0 || fcntl(writer.get(), F_SETFD, FD_CLOEXEC) < 0 ||
      fcntl(fileno(file.get()), F_SETFD, FD_CLOEXEC) < 0 || fcntl(reader.get(), F_SETFL, O_NONBLOCK) < 0 ||
      !streams.set(fileno(file.get()), writer.get())) {
    result.problem = posix::last_problem();
    return result;
  }
  const std::vector<char*> table = posix::pointers_to(words);
  pid_t made = 0;
  if (const int number = posix_spawnp(&made, table.front(), streams.get(), nullptr, table.data(), environ);
      number != 0) {
    result.end = FilterEnd::not_started;
    result.problem = posix::native_problem(number);
    return result;
  }
  StartedFilter child(made);
  writer.reset();
  FilterOutput output(std::move(reader), limit);
  follow(child, output, give_up, result);
  result.output = output.text();
  return result;
}

HiddenInput read_hidden_line(std::string_view prompt, std::span<std::uint8_t> line,
                             const std::function<bool()>& cancelled) {
  const Handle terminal(posix::retry_interrupted([] { return ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC); }));
  if (!terminal) {
    return {HiddenLine::no_terminal, 0};
  }
  const HiddenTerminal hidden(terminal.get());
  if (!hidden.changed() || posix::retry_interrupted([&] {
                             return ::write(terminal.get(), prompt.data(), prompt.size());
                           }) != static_cast<ssize_t>(prompt.size())) {
    return {HiddenLine::failed, 0};
  }
  return read_line(terminal.get(), line, cancelled);
}

}  // namespace ravok::os
