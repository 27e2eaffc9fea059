#include "platform/process/interrupt.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix/native.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace {

// What the next test wants to fail: one command of fcntl, or any call of the others.
std::optional<int> failing_command;
bool pipe_fails = false;
bool sigaction_fails = false;
std::optional<int> failing_signal;

}  // namespace

extern "C" {

int __real_fcntl(int descriptor, int command, ...);
int __wrap_fcntl(int descriptor, int command, ...) {
  va_list rest;
  va_start(rest, command);
  const int argument = va_arg(rest, int);
  va_end(rest);
  if (failing_command == command) {
    errno = EMFILE;
    return -1;
  }
  return __real_fcntl(descriptor, command, argument);
}

int __real_pipe2(int* ends, int flags);
int __wrap_pipe2(int* ends, int flags) {
  if (pipe_fails) {
    errno = EMFILE;
    return -1;
  }
  return __real_pipe2(ends, flags);
}

int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* before);
int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* before) {
  if (sigaction_fails || (failing_signal == signal && action != nullptr)) {
    errno = EINVAL;
    return -1;
  }
  return __real_sigaction(signal, action, before);
}

}  // extern "C"

namespace ravok {
namespace {

using testing::TemporaryRoot;
using testing::WithEnvironment;

constexpr const char* variable = "RAVOK_LAUNCHER_INTERRUPT_READER";
constexpr const char* code = "launcher_control";
constexpr const char* no_version = "Launcher interrupt channel version is invalid";
constexpr const char* no_handle = "Launcher interrupt channel handle is invalid";
constexpr const char* no_descriptor = "Launcher interrupt descriptor is invalid";
constexpr const char* no_reader = "Launcher interrupt reader must be an inherited read pipe";

int written_by_handler = 0;
void other_handler(int) { written_by_handler = 1; }

bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

struct sigaction action_of(int signal) {
  struct sigaction action {};
  EXPECT_EQ(sigaction(signal, nullptr, &action), 0);
  return action;
}

// Gives a signal another handler for as long as it lives.
class WithHandler {
 public:
  WithHandler(int signal, void (*handler)(int)) : signal_(signal) {
    struct sigaction action {};
    action.sa_handler = handler;
    EXPECT_EQ(sigaction(signal, &action, &before_), 0);
  }
  ~WithHandler() { EXPECT_EQ(sigaction(signal_, &before_, nullptr), 0); }
  WithHandler(const WithHandler&) = delete;
  WithHandler& operator=(const WithHandler&) = delete;

 private:
  int signal_;
  struct sigaction before_ {};
};

bool is_pending(int signal) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

bool is_blocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

int descriptors() {
  int count = 0;
  for (int i = 0; i < 256; ++i) {
    count += is_open(i) ? 1 : 0;
  }
  return count;
}

// Returns how many open descriptors a program would inherit.
int inheritable() {
  int count = 0;
  for (int i = 0; i < 256; ++i) {
    count += is_open(i) && (fcntl(i, F_GETFD) & FD_CLOEXEC) == 0 ? 1 : 0;
  }
  return count;
}

int reader_of(const InterruptPipe& pipe) { return std::stoi(pipe.child_environment().substr(2)); }

// Returns up to 16 bytes that wait in a pipe.
std::string waiting_in(int reader) {
  EXPECT_EQ(fcntl(reader, F_SETFL, fcntl(reader, F_GETFL) | O_NONBLOCK), 0);
  std::array<char, 16> bytes{};
  const ssize_t count = read(reader, bytes.data(), bytes.size());
  return count > 0 ? std::string(bytes.data(), static_cast<std::size_t>(count)) : std::string();
}

// A pipe as a parent would hand it down: the channel owns the read end from the moment it attaches.
class Channel {
 public:
  Channel() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    reader = ends[0];
    writer = Handle(ends[1]);
  }
  std::string value() const { return "1:" + std::to_string(reader); }
  void send(const std::string& bytes) const {
    EXPECT_EQ(write(writer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  int reader = -1;
  Handle writer;
};

void expect_refused(const std::string& value, const std::string& message) {
  const WithEnvironment announced(variable, value);
  const int before = descriptors();
  EXPECT_FAILURE(ConsoleInterrupt(true), code, message) << value;
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(action_of(SIGINT).sa_handler, SIG_DFL);
  // The next object can be made.
  const ConsoleInterrupt next(false);
  EXPECT_FALSE(next.requested());
}

TEST(ConsoleInterrupt, TurnsASignalIntoALastingRequest) {
  const ConsoleInterrupt interrupt(false);
  EXPECT_FALSE(interrupt.requested());
  EXPECT_EQ(raise(SIGINT), 0);
  EXPECT_TRUE(interrupt.requested());
  EXPECT_TRUE(interrupt.requested());
}

TEST(ConsoleInterrupt, BeginsWithoutTheRequestOfAnEarlierOne) {
  {
    const ConsoleInterrupt interrupt(false);
    EXPECT_EQ(raise(SIGINT), 0);
    EXPECT_TRUE(interrupt.requested());
  }
  EXPECT_FALSE(ConsoleInterrupt(false).requested());
}

TEST(ConsoleInterrupt, RestartsTheCallsThatASignalMeets) {
  const ConsoleInterrupt interrupt(false);
  const struct sigaction action = action_of(SIGINT);
  constexpr auto restart = static_cast<unsigned>(SA_RESTART);
  constexpr auto others = static_cast<unsigned>(SA_RESETHAND | SA_NODEFER | SA_SIGINFO);
  EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & (restart | others), restart);
  for (int signal = 1; signal < 32; ++signal) {
    EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
  }
}

TEST(ConsoleInterrupt, PutsTheFormerActionBack) {
  struct sigaction other {};
  other.sa_handler = other_handler;
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGINT, &other, &before), 0);
  { const ConsoleInterrupt interrupt(false); }
  EXPECT_EQ(raise(SIGINT), 0);
  EXPECT_EQ(written_by_handler, 1);
  ASSERT_EQ(sigaction(SIGINT, &before, nullptr), 0);
}

TEST(ConsoleInterrupt, IsTheOnlyOne) {
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  const ConsoleInterrupt first(true);
  for (const bool attach : {false, true}) {
    EXPECT_FAILURE(ConsoleInterrupt(attach), "signal", "Console cancellation handler is already installed");
    EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_TRUE(is_open(channel.reader));
    EXPECT_FALSE(first.requested());
  }
  channel.send("\1");
  EXPECT_TRUE(first.requested());
}

TEST(ConsoleInterrupt, LeavesAFirstOneWithoutAParentAsItIs) {
  const ConsoleInterrupt first(false);
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  EXPECT_FAILURE(ConsoleInterrupt(true), "signal", "Console cancellation handler is already installed");
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_EQ(raise(SIGINT), 0);
  EXPECT_TRUE(first.requested());
  EXPECT_FALSE(is_open(channel.reader));
}

TEST(ConsoleInterrupt, SaysSoWhenTheHandlerCannotBeInstalled) {
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  sigaction_fails = true;
  EXPECT_FAILURE(ConsoleInterrupt(true), "signal", "Cannot enable safe cancellation from Ctrl+C");
  sigaction_fails = false;
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_FALSE(is_open(channel.reader));
  EXPECT_EQ(action_of(SIGINT).sa_handler, SIG_DFL);
  EXPECT_FALSE(ConsoleInterrupt(false).requested());
}

TEST(ConsoleInterrupt, AttachesToNothingThatIsNotAnnounced) {
  const WithEnvironment announced(variable, std::nullopt);
  const ConsoleInterrupt interrupt(true);
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_FALSE(interrupt.requested());
}

TEST(ConsoleInterrupt, LeavesTheChannelAloneUnlessToldToAttach) {
  const Channel channel;
  channel.send("\1");
  const WithEnvironment announced(variable, channel.value());
  {
    const ConsoleInterrupt interrupt(false);
    EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_FALSE(interrupt.requested());
  }
  EXPECT_TRUE(is_open(channel.reader));
  EXPECT_EQ(waiting_in(channel.reader), "\1");
  close(channel.reader);
}

TEST(ConsoleInterrupt, HearsTheParentsRequestForGood) {
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  {
    const ConsoleInterrupt interrupt(true);
    EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_EQ(fcntl(channel.reader, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(channel.reader, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_FALSE(interrupt.requested());
    EXPECT_FALSE(interrupt.requested());
    channel.send("\1");
    EXPECT_TRUE(interrupt.requested());
    EXPECT_TRUE(interrupt.requested());
    EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
  }
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_FALSE(is_open(channel.reader));
}

TEST(ConsoleInterrupt, HearsTheRequestOfAParentThatHasGoneSince) {
  Channel channel;
  const WithEnvironment announced(variable, channel.value());
  const ConsoleInterrupt interrupt(true);
  channel.send("\1");
  channel.writer.reset();
  EXPECT_TRUE(interrupt.requested());
}

TEST(ConsoleInterrupt, TakesTheEndOfAParentForNoRequest) {
  Channel channel;
  const WithEnvironment announced(variable, channel.value());
  const ConsoleInterrupt interrupt(true);
  channel.writer.reset();
  EXPECT_FALSE(interrupt.requested());
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_FALSE(is_open(channel.reader));
  EXPECT_FALSE(interrupt.requested());
  EXPECT_EQ(raise(SIGINT), 0);
  EXPECT_TRUE(interrupt.requested());
}

TEST(ConsoleInterrupt, AsksTheSignalBeforeTheChannel) {
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  const ConsoleInterrupt interrupt(true);
  channel.send("\2");
  EXPECT_EQ(raise(SIGINT), 0);
  EXPECT_TRUE(interrupt.requested());
}

TEST(ConsoleInterrupt, RefusesARequestThatIsNone) {
  for (const char byte : {'\0', '\2', '1', '\xff'}) {
    const Channel channel;
    const WithEnvironment announced(variable, channel.value());
    const ConsoleInterrupt interrupt(true);
    channel.send(std::string(1, byte));
    EXPECT_FAILURE(interrupt.requested(), code, "Launcher interrupt channel request is invalid");
    EXPECT_FALSE(interrupt.requested());
  }
}

TEST(ConsoleInterrupt, SaysSoWhenTheChannelCannotBeRead) {
  const Channel channel;
  const WithEnvironment announced(variable, channel.value());
  const ConsoleInterrupt interrupt(true);
  close(channel.reader);
  EXPECT_FAILURE(interrupt.requested(), code, "Cannot read launcher interrupt channel");
}

TEST(ConsoleInterrupt, RefusesAnAnnouncementOfAnotherVersion) {
  for (const char* value : {"2:7", "", "1", ":7", "7", "01:7", "1;7", " 1:7"}) {
    expect_refused(value, no_version);
  }
}

TEST(ConsoleInterrupt, RefusesANumberThatIsNotInItsOneForm) {
  for (const char* value : {"1:", "1:007", "1:+7", "1:-7", "1:7x", "1: 7", "1:7 ", "1:0x7", "1:0", "1:1", "1:2",
                            "1:99999999999999999999"}) {
    expect_refused(value, no_handle);
  }
}

TEST(ConsoleInterrupt, RefusesANumberBeyondADescriptor) {
  for (const char* value : {"1:2147483648", "1:4294967303", "1:18446744073709551615"}) {
    expect_refused(value, no_descriptor);
  }
  expect_refused("1:2147483647", no_reader);
}

TEST(ConsoleInterrupt, ReadsNoAnnouncementBeyondItsBound) {
  {
    const WithEnvironment announced(variable, "1:" + std::string(30, '7'));
    EXPECT_FAILURE(ConsoleInterrupt(true), code, no_handle);
  }
  const WithEnvironment announced(variable, "1:" + std::string(31, '7'));
  EXPECT_FAILURE(ConsoleInterrupt(true), "environment_limit", "Native process text exceeds its byte bound");
}

TEST(ConsoleInterrupt, RefusesWhatIsNotTheReadEndOfAPipe) {
  const TemporaryRoot root;
  ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
  const Channel channel;
  const Handle file(open(root.write("file", "\1").c_str(), O_RDONLY | O_CLOEXEC));
  const Handle directory(open(root.path().c_str(), O_RDONLY | O_CLOEXEC));
  const Handle both(open((root / "fifo").c_str(), O_RDWR | O_CLOEXEC));
  for (const int wrong : {file.get(), directory.get(), both.get(), channel.writer.get()}) {
    expect_refused("1:" + std::to_string(wrong), no_reader);
    EXPECT_EQ(fcntl(wrong, F_GETFL) & O_NONBLOCK, 0);
  }
  close(channel.reader);
  expect_refused(channel.value(), no_reader);
}

TEST(ConsoleInterrupt, SaysSoWhenTheReaderCannotBeProtected) {
  for (const int command : {F_SETFD, F_SETFL}) {
    const Channel channel;
    const WithEnvironment announced(variable, channel.value());
    failing_command = command;
    EXPECT_FAILURE(ConsoleInterrupt(true), code, "Cannot protect launcher interrupt reader");
    failing_command.reset();
    EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_EQ(action_of(SIGINT).sa_handler, SIG_DFL);
    close(channel.reader);
  }
}

TEST(TerminationSignals, AreRequestsOfTheInterruptThatIsThere) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    const WithHandler usual(signal, SIG_DFL);
    const ConsoleInterrupt interrupt(false);
    const TerminationSignals termination;
    EXPECT_FALSE(interrupt.requested());
    EXPECT_EQ(raise(signal), 0);
    EXPECT_TRUE(interrupt.requested());
    EXPECT_TRUE(interrupt.requested());
  }
}

TEST(TerminationSignals, RestartTheCallsThatTheyMeet) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    const WithHandler usual(signal, SIG_DFL);
    const TerminationSignals termination;
    const struct sigaction action = action_of(signal);
    constexpr auto others = static_cast<unsigned>(SA_RESETHAND | SA_NODEFER | SA_SIGINFO);
    constexpr auto restart = static_cast<unsigned>(SA_RESTART);
    EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & (restart | others), restart);
  }
}

TEST(TerminationSignals, PutTheFormerActionsBack) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    const WithHandler other(signal, other_handler);
    { const TerminationSignals termination; }
    EXPECT_EQ(action_of(signal).sa_handler, other_handler);
  }
}

TEST(TerminationSignals, StayIgnoredWhereTheyWere) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    const WithHandler ignored(signal, SIG_IGN);
    {
      const ConsoleInterrupt interrupt(false);
      const TerminationSignals termination;
      EXPECT_EQ(raise(signal), 0);
      EXPECT_FALSE(interrupt.requested());
    }
    EXPECT_EQ(action_of(signal).sa_handler, SIG_IGN);
  }
}

TEST(TerminationSignals, SayWhenTheyCannotBeTaken) {
  const WithHandler usual_term(SIGTERM, SIG_DFL);
  const WithHandler usual_hup(SIGHUP, SIG_DFL);
  for (const int signal : {SIGTERM, SIGHUP}) {
    failing_signal = signal;
    EXPECT_FAILURE(TerminationSignals(), "signal", "Cannot enable safe cancellation from a termination signal");
    failing_signal.reset();
    EXPECT_EQ(action_of(SIGTERM).sa_handler, SIG_DFL);
    EXPECT_EQ(action_of(SIGHUP).sa_handler, SIG_DFL);
  }
}

TEST(DeferredSignals, ComeWhenTheObjectGoes) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const WithHandler usual(signal, SIG_DFL);
    const ConsoleInterrupt interrupt(false);
    const TerminationSignals termination;
    {
      const DeferredSignals deferred;
      EXPECT_EQ(raise(signal), 0);
      EXPECT_FALSE(interrupt.requested());
    }
    EXPECT_TRUE(interrupt.requested());
  }
}

TEST(DeferredSignals, StayAwayWhereTheyWereKeptAwayBefore) {
  const ConsoleInterrupt interrupt(false);
  const DeferredSignals outer;
  {
    const DeferredSignals inner;
    EXPECT_EQ(raise(SIGINT), 0);
  }
  EXPECT_FALSE(interrupt.requested());
}

TEST(StartProgram, SaysSoWhenTheSignalsOfFailedWritesCannotBeTaken) {
  sigaction_fails = true;
  EXPECT_FALSE(start_program());
  sigaction_fails = false;
}

TEST(StartProgram, SaysSoWhenTheEndsOfChildrenStayUnknown) {
  const WithHandler ignored(SIGCHLD, SIG_IGN);
  const WithHandler usual_pipe(SIGPIPE, SIG_DFL);
  const WithHandler usual_size(SIGXFSZ, SIG_DFL);
  failing_signal = SIGCHLD;
  EXPECT_FALSE(start_program());
  failing_signal.reset();
  EXPECT_EQ(action_of(SIGCHLD).sa_handler, SIG_IGN);
}

TEST(InterruptPipe, KeepsBothEndsFromOtherPrograms) {
  const int before = descriptors();
  const int inherited = inheritable();
  {
    const InterruptPipe pipe;
    const int reader = reader_of(pipe);
    EXPECT_EQ(pipe.child_environment(), "1:" + std::to_string(reader));
    EXPECT_EQ(fcntl(reader, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(descriptors(), before + 2);
    EXPECT_EQ(inheritable(), inherited);
  }
  EXPECT_EQ(descriptors(), before);
}

TEST(InterruptPipe, KeepsClearOfTheStandardDescriptors) {
  const Handle input(dup(STDIN_FILENO));
  const Handle errors(dup(STDERR_FILENO));
  close(STDIN_FILENO);
  close(STDERR_FILENO);
  int reader = 0;
  bool clear = false;
  bool sent = false;
  {
    InterruptPipe pipe;
    reader = reader_of(pipe);
    clear = !is_open(STDIN_FILENO) && !is_open(STDERR_FILENO);
    sent = pipe.request();
  }
  dup2(input.get(), STDIN_FILENO);
  dup2(errors.get(), STDERR_FILENO);
  EXPECT_GT(reader, STDERR_FILENO);
  EXPECT_TRUE(clear);
  EXPECT_TRUE(sent);
}

TEST(InterruptPipe, SaysSoWhenItCannotBeMade) {
  const int before = descriptors();
  pipe_fails = true;
  EXPECT_FAILURE(InterruptPipe(), "process_control", "Cannot create launcher interrupt pipe");
  pipe_fails = false;
  failing_command = F_SETFD;
  EXPECT_FAILURE(InterruptPipe(), "process_control", "Cannot protect launcher interrupt pipe");
  failing_command.reset();
  EXPECT_EQ(descriptors(), before);
}

TEST(InterruptPipe, SaysSoWhenItCannotBeMoved) {
  const int before = descriptors();
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  failing_command = F_DUPFD_CLOEXEC;
  EXPECT_FAILURE(InterruptPipe(), "process_control", "Cannot relocate launcher interrupt pipe");
  failing_command.reset();
  EXPECT_FALSE(is_open(STDIN_FILENO));
  dup2(input, STDIN_FILENO);
  close(input);
  EXPECT_EQ(descriptors(), before);
}

TEST(InterruptPipe, SendsOneByteHoweverOftenItIsAsked) {
  InterruptPipe pipe;
  EXPECT_TRUE(pipe.request());
  EXPECT_TRUE(pipe.request());
  EXPECT_EQ(waiting_in(reader_of(pipe)), "\1");
  EXPECT_TRUE(pipe.request());
  EXPECT_EQ(waiting_in(reader_of(pipe)), "");
}

TEST(InterruptPipe, StaysDeliveredAfterTheChildIsGone) {
  InterruptPipe pipe;
  EXPECT_TRUE(pipe.request());
  pipe.close_reader();
  EXPECT_TRUE(pipe.request());
}

TEST(InterruptPipe, SendsNothingToAChildThatIsGoneAndRaisesNoSignal) {
  InterruptPipe pipe;
  pipe.close_reader();
  EXPECT_EQ(action_of(SIGPIPE).sa_handler, SIG_DFL);
  EXPECT_FALSE(pipe.request());
  EXPECT_FALSE(is_pending(SIGPIPE));
  EXPECT_FALSE(is_blocked(SIGPIPE));
  EXPECT_FALSE(pipe.request());
}

TEST(InterruptPipe, LeavesAPendingSignalPending) {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigset_t before;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &pipe_signal, &before), 0);
  ASSERT_EQ(raise(SIGPIPE), 0);
  InterruptPipe pipe;
  pipe.close_reader();
  EXPECT_FALSE(pipe.request());
  EXPECT_TRUE(is_pending(SIGPIPE));
  EXPECT_TRUE(is_blocked(SIGPIPE));
  int taken = 0;
  EXPECT_EQ(sigwait(&pipe_signal, &taken), 0);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

TEST(InterruptPipe, KeepsASignalBlockedThatWasBlocked) {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigset_t before;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &pipe_signal, &before), 0);
  InterruptPipe pipe;
  pipe.close_reader();
  EXPECT_FALSE(pipe.request());
  EXPECT_FALSE(is_pending(SIGPIPE));
  EXPECT_TRUE(is_blocked(SIGPIPE));
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

TEST(InterruptPipe, GivesTheChildTheReadEndAlone) {
  InterruptPipe pipe;
  const int reader = reader_of(pipe);
  const int before = descriptors();
  EXPECT_TRUE(pipe.prepare_child());
  EXPECT_EQ(fcntl(reader, F_GETFD), 0);
  EXPECT_EQ(descriptors(), before - 1);
  EXPECT_FALSE(pipe.request());
}

TEST(InterruptPipe, TellsWhenTheChildCannotHaveIt) {
  for (const int command : {F_GETFD, F_SETFD}) {
    InterruptPipe pipe;
    failing_command = command;
    EXPECT_FALSE(pipe.prepare_child());
    failing_command.reset();
  }
  InterruptPipe closed;
  closed.close_reader();
  EXPECT_FALSE(closed.prepare_child());
}

// The work of a child that listens to the pipe; returns its exit code. It asks once, writes a byte to say that it has,
// and asks again and again until it gets the request or its parent has ended.
int listen_in_child(InterruptPipe& pipe, int ready) {
  const WithEnvironment announced(variable, pipe.child_environment());
  if (!pipe.prepare_child()) {
    return 10;
  }
  const ConsoleInterrupt interrupt(true);
  if (interrupt.requested() || write(ready, "r", 1) != 1) {
    return 11;
  }
  while (ConsoleInterrupt::parent_reader_attached()) {
    if (interrupt.requested()) {
      return 4;
    }
  }
  return interrupt.requested() ? 12 : 0;
}

// Returns the exit code of a child that heard the request or, without one, the end of the channel.
int child_end(bool request) {
  std::optional<InterruptPipe> pipe(std::in_place);
  std::array<int, 2> ready{};
  EXPECT_EQ(::pipe(ready.data()), 0);
  const Handle ready_reader(ready[0]);
  Handle ready_writer(ready[1]);
  const pid_t child = fork();
  if (child == 0) {
    _exit(listen_in_child(*pipe, ready_writer.get()));
  }
  pipe->close_reader();
  ready_writer.reset();
  char byte = 0;
  EXPECT_EQ(posix::retry_interrupted([&] { return read(ready_reader.get(), &byte, 1); }), 1);
  if (request) {
    EXPECT_TRUE(pipe->request());
  } else {
    pipe.reset();
  }
  int status = 0;
  EXPECT_EQ(posix::retry_interrupted([&] { return waitpid(child, &status, 0); }), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(InterruptPipe, ReachesTheChild) { EXPECT_EQ(child_end(true), 4); }

TEST(InterruptPipe, LetsTheChildGoOnWhenTheParentEnds) { EXPECT_EQ(child_end(false), 0); }

}  // namespace
}  // namespace ravok
