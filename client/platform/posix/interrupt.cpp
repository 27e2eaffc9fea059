#include "platform/process/interrupt.hpp"

#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/os.hpp"
#include "platform/posix/native.hpp"
#include "platform/process/process.hpp"

namespace ravok {
namespace {

constexpr std::string_view control_code = "launcher_control";
constexpr std::string_view channel_version = "1:";
constexpr std::size_t maximum_channel_bytes = 32;
constexpr char request_byte = 1;

std::atomic<std::uint32_t> scope_owned{0};
// The descriptor that the owner of the scope reads, or -1.
std::atomic<int> listened{-1};
volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) { interrupted = 1; }

bool install_handler(int signal, struct sigaction* previous) {
  struct sigaction action {};
  action.sa_handler = interrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(signal, &action, previous) == 0;
}

// The number of an inherited descriptor. Only its canonical decimal form is accepted.
int channel_descriptor(std::string_view value) {
  require(value.starts_with(channel_version), control_code, "Launcher interrupt channel version is invalid");
  const std::string_view text = value.substr(channel_version.size());
  std::uint64_t number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  require(problem == std::errc() && end == text.data() + text.size() && std::to_string(number) == text &&
              number > STDERR_FILENO,
          control_code, "Launcher interrupt channel handle is invalid");
  require(number <= static_cast<std::uint64_t>(std::numeric_limits<int>::max()), control_code,
          "Launcher interrupt descriptor is invalid");
  return static_cast<int>(number);
}

void require_inherited_reader(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  struct stat status;
  require(flags >= 0 && fcntl(descriptor, F_GETFD) >= 0 && fstat(descriptor, &status) == 0 &&
              (flags & O_ACCMODE) == O_RDONLY && S_ISFIFO(status.st_mode),
          control_code, "Launcher interrupt reader must be an inherited read pipe");
}

void protect(int descriptor) {
  const int descriptor_flags = fcntl(descriptor, F_GETFD);
  const int flags = fcntl(descriptor, F_GETFL);
  require(fcntl(descriptor, F_SETFD, descriptor_flags | FD_CLOEXEC) >= 0 &&
              fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) >= 0,
          control_code, "Cannot protect launcher interrupt reader");
}

// Moves an end of the pipe off the standard descriptors, since no child accepts one of those as the channel.
Handle relocated(Handle end) {
  constexpr int first = STDERR_FILENO + 1;
  if (end.get() < first) {
    Handle moved(fcntl(end.get(), F_DUPFD_CLOEXEC, first));
    require(static_cast<bool>(moved), "process_control", "Cannot relocate launcher interrupt pipe");
    end = std::move(moved);
  }
  require(fcntl(end.get(), F_SETFD, FD_CLOEXEC) >= 0, "process_control", "Cannot protect launcher interrupt pipe");
  return end;
}

// Writes, and keeps the signal for a missing reader from this thread.
bool write_quietly(int descriptor, char byte) {
  sigset_t pipe_signal;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  if (pthread_sigmask(SIG_BLOCK, &pipe_signal, &before) != 0) {
    return false;
  }
  sigpending(&pending);
  const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
  const ssize_t count = posix::retry_interrupted([&] { return write(descriptor, &byte, 1); });
  if (count < 0 && errno == EPIPE && !was_pending) {
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE) == 1) {
      int taken = 0;
      sigwait(&pipe_signal, &taken);
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return count == 1;
}

}  // namespace

int posix::announced_reader() {
  try {
    const std::optional<std::string> value = process_environment(interrupt_reader_variable, maximum_channel_bytes);
    return value ? channel_descriptor(*value) : -1;
  } catch (const Error&) {
    // Whoever listens to it says what is wrong with it.
    return -1;
  }
}

class ConsoleInterrupt::State {
 public:
  State() = default;
  ~State() {
    if (!owner_) {
      if (reader_.get() == listened) {
        // The object that owns the scope still reads from it.
        static_cast<void>(reader_.release());
      }
      return;
    }
    if (installed_) {
      sigaction(SIGINT, &previous_, nullptr);
    }
    reader_.reset();
    listened = -1;
    scope_owned = 0;
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void attach_reader() {
    const std::optional<std::string> value = process_environment(interrupt_reader_variable, maximum_channel_bytes);
    if (!value) {
      return;
    }
    const int descriptor = channel_descriptor(*value);
    require_inherited_reader(descriptor);
    protect(descriptor);
    reader_ = Handle(descriptor);
  }

  void install() {
    std::uint32_t free = 0;
    require(scope_owned.compare_exchange_strong(free, 1), "signal",
            "Console cancellation handler is already installed");
    owner_ = true;
    interrupted = 0;
    listened = reader_.get();
    require(install_handler(SIGINT, &previous_), "signal", "Cannot enable safe cancellation from Ctrl+C");
    installed_ = true;
  }

  bool requested() {
    if (interrupted != 0) {
      return true;
    }
    if (!reader_) {
      return false;
    }
    char byte = 0;
    const ssize_t count = posix::retry_interrupted([&] { return read(reader_.get(), &byte, 1); });
    if (count == 0) {
      // The parent is gone, and has not asked to stop.
      reader_.reset();
      listened = -1;
      return false;
    }
    if (count < 0 && errno == EAGAIN) {
      return false;
    }
    require(count == 1, control_code, "Cannot read launcher interrupt channel");
    require(byte == request_byte, control_code, "Launcher interrupt channel request is invalid");
    interrupted = 1;
    return true;
  }

 private:
  bool owner_ = false;
  bool installed_ = false;
  Handle reader_;
  struct sigaction previous_ {};
};

ConsoleInterrupt::ConsoleInterrupt(bool attach_parent) : state_(std::make_unique<State>()) {
  if (attach_parent) {
    state_->attach_reader();
  }
  state_->install();
}

ConsoleInterrupt::~ConsoleInterrupt() = default;

bool ConsoleInterrupt::requested() const { return state_->requested(); }

bool ConsoleInterrupt::parent_reader_attached() { return listened >= 0; }

class TerminationSignals::State {
 public:
  State() {
    for (Replaced& one : replaced_) {
      const bool known = sigaction(one.signal, nullptr, &one.previous) == 0;
      if (known && one.previous.sa_handler == SIG_IGN) {
        continue;
      }
      one.installed = known && install_handler(one.signal, &one.previous);
      if (!one.installed) {
        restore();
        fail("signal", "Cannot enable safe cancellation from a termination signal");
      }
    }
  }
  ~State() { restore(); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

 private:
  struct Replaced {
    int signal;
    bool installed;
    struct sigaction previous;
  };

  void restore() {
    for (const Replaced& one : replaced_) {
      if (one.installed) {
        sigaction(one.signal, &one.previous, nullptr);
      }
    }
  }

  std::array<Replaced, 2> replaced_{Replaced{SIGTERM, false, {}}, Replaced{SIGHUP, false, {}}};
};

TerminationSignals::TerminationSignals() : state_(std::make_unique<State>()) {}

TerminationSignals::~TerminationSignals() = default;

class DeferredSignals::State {
 public:
  State() {
    sigset_t deferred;
    sigemptyset(&deferred);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&deferred, signal);
    }
    pthread_sigmask(SIG_BLOCK, &deferred, &previous_);
  }
  ~State() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

 private:
  sigset_t previous_{};
};

DeferredSignals::DeferredSignals() : state_(std::make_unique<State>()) {}

DeferredSignals::~DeferredSignals() = default;

InterruptPipe::InterruptPipe() {
  int ends[2];
  require(posix::open_pipe(ends) == 0, "process_control", "Cannot create launcher interrupt pipe");
  reader_ = Handle(ends[0]);
  writer_ = Handle(ends[1]);
  reader_ = relocated(std::move(reader_));
  writer_ = relocated(std::move(writer_));
  // A writer that cannot be told so writes with the signal kept off.
  static_cast<void>(os::keep_quiet_when_reader_gone(writer_.get()));
}

std::string InterruptPipe::child_environment() const {
  return std::string(channel_version) + std::to_string(reader_.get());
}

bool InterruptPipe::prepare_child() {
  writer_.reset();
  const int flags = fcntl(reader_.get(), F_GETFD);
  return flags >= 0 && fcntl(reader_.get(), F_SETFD, flags & ~FD_CLOEXEC) >= 0;
}

bool InterruptPipe::request() {
  if (!requested_ && writer_) {
    requested_ = write_quietly(writer_.get(), request_byte);
  }
  return requested_;
}

}  // namespace ravok
