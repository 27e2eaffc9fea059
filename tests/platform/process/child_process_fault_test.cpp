// What becomes of a child when the system refuses something.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/process/child_process.hpp"
#include "platform/process/process_operations.hpp"
#include "support/child_place.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/process_calls.hpp"

namespace ravok::child_process_fault_test {
namespace {

using std::chrono::milliseconds;
using testing::ChildPlace;
using testing::ChildStart;
using testing::console_start;
using testing::end_at_last;
using testing::end_of;
using testing::has_children;
using testing::ProcessCalls;
using testing::start_child;
using testing::StillClock;
using testing::wait_until_ended;
using testing::WrongCall;

class ChildFault : public ChildPlace {
 protected:
  // No start of a child goes well, and nothing of one stays behind.
  void expect_not_started(const ChildStart& start, const std::string& code, const std::string& message) const {
    const std::set<int> before = testing::open_descriptors();
    EXPECT_FAILURE(start_child(start), code, message);
    EXPECT_FALSE(has_children());
    EXPECT_EQ(testing::open_descriptors(), before);
    EXPECT_FALSE(was_run());
  }
  ChildStart plain() const { return {.arguments = describing()}; }
  ChildStart console() const { return console_start(describing()); }
};

TEST_F(ChildFault, AStartThatLacksSomethingMakesNoProcess) {
  struct Case {
    std::string call;
    WrongCall how;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"pipe2", {.number = EMFILE}, "Cannot allocate process-start channel"},
      {"fcntl F_SETFD", {.number = EBADF}, "Cannot protect process-start channel"},
      {"fcntl F_SETFD", {.number = EBADF, .calls_before = 1}, "Cannot protect process-start channel"},
      {"open", {.number = EMFILE}, "Cannot create game input stream"},
      {"fcntl F_SETFD", {.number = EBADF, .calls_before = 2}, "Cannot create game input stream"},
      {"socketpair", {.number = EMFILE}, "Cannot allocate process activation channel"},
      {"fcntl F_SETFD", {.number = EBADF, .calls_before = 3}, "Cannot protect process activation channel"},
      {"fcntl F_SETFD", {.number = EBADF, .calls_before = 4}, "Cannot protect process activation channel"},
      {"fork", {.number = EAGAIN}, "Cannot create game process"},
  };
  for (const Case& one : cases) {
    ProcessCalls calls;
    calls.fail(one.call, one.how);
    bool told = false;
    ChildStart start = plain();
    start.on_started = [&](std::uint64_t) { told = true; };
    expect_not_started(start, "process_start", one.message);
    EXPECT_FALSE(told);
    EXPECT_EQ(calls.count("fork"), one.call == "fork" ? 1 : 0) << one.message;
    EXPECT_EQ(calls.count("waitpid"), 0);
  }
}

TEST_F(ChildFault, AProcessThatCannotBeMadeLeavesNoInterruptPipe) {
  ProcessCalls calls;
  calls.fail("fork", {.number = ENOMEM});
  expect_not_started(console(), "process_start", "Cannot create game process");
}

TEST_F(ChildFault, AnInterruptPipeThatCannotBeMadeMakesNoProcess) {
  ProcessCalls calls;
  calls.fail("pipe2", {.number = EMFILE});
  expect_not_started(console(), "process_control", "Cannot create launcher interrupt pipe");
  EXPECT_EQ(calls.count("pipe2"), 1);
  EXPECT_EQ(calls.count("fork") + calls.count("socketpair"), 0);
}

TEST_F(ChildFault, AStreamThatCannotBeLeftMakesNoProcess) {
  const Handle before(fcntl(0, F_DUPFD_CLOEXEC, 10));
  close(0);
  std::optional<Error> failure;
  {
    ProcessCalls calls;
    calls.fail("fcntl F_DUPFD_CLOEXEC", {.number = EMFILE});
    failure = testing::failure_of([&] { start_child(plain()); });
  }
  dup2(before.get(), 0);
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->code, "process_start");
  EXPECT_STREQ(failure->what(), "Cannot protect process-start channel");
}

TEST_F(ChildFault, AChildThatIsNotToldToRunEndsWithoutRunning) {
  for (const ChildStart& start : {plain(), console()}) {
    ProcessCalls calls;
    calls.fail("send", {.number = ECONNRESET});
    expect_not_started(start, "process_start", "Cannot activate the prepared game");
    ASSERT_TRUE(calls.last_status().has_value());
    EXPECT_TRUE(WIFEXITED(*calls.last_status()));
    EXPECT_EQ(WEXITSTATUS(*calls.last_status()), 127);
  }
  ProcessCalls calls;
  calls.send_nothing();
  expect_not_started(plain(), "process_start", "Cannot activate the prepared game");
}

TEST_F(ChildFault, AChildThatDoesNotHearOfItsActivationEndsWithoutAReport) {
  ProcessCalls calls;
  calls.fail_there("read", {.number = EIO});
  std::unique_ptr<ChildProcess> child;
  const auto failure = testing::failure_of([&] { child = start_child(plain()); });
  if (failure) {
    // The child was quicker, and its parent could tell it nothing any more.
    EXPECT_EQ(failure->code, "process_start");
    EXPECT_STREQ(failure->what(), "Cannot activate the prepared game");
    ASSERT_TRUE(calls.last_status().has_value());
    EXPECT_TRUE(WIFEXITED(*calls.last_status()));
    EXPECT_EQ(WEXITSTATUS(*calls.last_status()), 127);
  } else {
    EXPECT_EQ(end_of(*child), 127u);
    EXPECT_FALSE(child->signalled());
  }
  EXPECT_FALSE(was_run());
}

TEST_F(ChildFault, AChildThatCannotBecomeItsImageIsReportedAndReaped) {
  for (const std::string call : {"fcntl F_GETFD", "setpgid", "chdir", "dup2", "execve"}) {
    ProcessCalls calls;
    calls.fail_there(call, {.number = EACCES});
    expect_not_started(console(), "process_start", "Cannot execute the installed game");
    ASSERT_TRUE(calls.last_status().has_value()) << call;
    EXPECT_TRUE(WIFEXITED(*calls.last_status())) << call;
    EXPECT_EQ(WEXITSTATUS(*calls.last_status()), 127) << call;
  }
  ProcessCalls calls;
  calls.fail_there("dup2", {.number = EBADF, .calls_before = 1});
  expect_not_started(plain(), "process_start", "Cannot execute the installed game");
}

TEST_F(ChildFault, AChildWhoseReportCannotBeReadIsKilled) {
  ProcessCalls calls;
  calls.fail_here("read", {.number = EIO});
  EXPECT_FAILURE(start_child({.arguments = {"stay", pipe()}}), "process_start", "Cannot execute the installed game");
  EXPECT_EQ(calls.count("kill"), 1);
  ASSERT_TRUE(calls.last_status().has_value());
  EXPECT_TRUE(WIFSIGNALED(*calls.last_status()));
}

TEST_F(ChildFault, AGroupThatItsParentCannotSetIsSetByTheChild) {
  ProcessCalls calls;
  calls.fail_here("setpgid", {.number = EACCES});
  const std::unique_ptr<ChildProcess> child = start_child(console());
  EXPECT_EQ(child->wait({}), 0u);
  EXPECT_EQ(described("group"), (std::vector<std::string>{std::to_string(child->pid())}));
}

TEST_F(ChildFault, AGroupIsInPlaceBeforeTheChildIsMadeKnown) {
  ProcessCalls calls;
  calls.fail_there("setpgid", {.number = EPERM});
  ChildStart start = console();
  pid_t group = 0;
  std::uint64_t told = 0;
  start.on_started = [&](std::uint64_t pid) {
    told = pid;
    group = getpgid(static_cast<pid_t>(pid));
  };
  EXPECT_FAILURE(start_child(start), "process_start", "Cannot execute the installed game");
  EXPECT_FALSE(was_run());
  EXPECT_EQ(static_cast<std::uint64_t>(group), told);
}

TEST_F(ChildFault, InterruptedCallsAreRepeated) {
  for (const std::string call : {"open", "send", "waitpid", "read", "chdir", "dup2", "execve"}) {
    ProcessCalls calls;
    calls.fail(call, {.number = EINTR, .times = 3});
    EXPECT_EQ(end_of(*start_child(plain())), 0u) << call;
    EXPECT_TRUE(was_run()) << call;
    std::filesystem::remove(description());
  }
}

TEST_F(ChildFault, AnInterruptedWaitForAChildThatIsNotRunGoesOn) {
  ProcessCalls calls;
  calls.fail("waitpid", {.number = EINTR, .times = 3});
  calls.fail_there("execve", {.number = ENOEXEC});
  expect_not_started(plain(), "process_start", "Cannot execute the installed game");
  EXPECT_EQ(calls.count("waitpid"), 4);
}

TEST_F(ChildFault, AChildThatTheSystemDoesNotKnowCannotBeInspected) {
  const std::unique_ptr<ChildProcess> child = start_child(console_start({"end", "5"}));
  wait_until_ended(child->pid());
  {
    ProcessCalls calls;
    calls.fail("waitpid", {.number = ECHILD});
    const char* const message = "Cannot inspect game process";
    EXPECT_FAILURE(child->poll(), "process_wait", message);
    EXPECT_FAILURE(child->wait({}), "process_wait", message);
    EXPECT_FAILURE(child->terminate(0), "process_wait", message);
    EXPECT_FAILURE(child->request_interrupt(), "process_wait", message);
    EXPECT_EQ(calls.count("kill"), 0);
  }
  EXPECT_EQ(child->poll(), 5u);
}

TEST_F(ChildFault, AStoppedStatusCountsAsTheCodeOne) {
  ProcessCalls calls;
  calls.answer_status(SIGSTOP << 8 | 0x7f);
  const std::unique_ptr<ChildProcess> child = start_child({});
  EXPECT_EQ(end_of(*child), 1u);
  EXPECT_FALSE(child->signalled());
}

TEST_F(ChildFault, AChildThatMayNotBeSignalledIsNotKnownToHaveEnded) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  for (const int before : {0, 1}) {
    ProcessCalls calls;
    calls.swallow_signals();
    calls.fail("kill", {.number = EPERM, .calls_before = before});
    const StillClock clock;
    EXPECT_FALSE(child->terminate(10));
    EXPECT_EQ(calls.count("kill"), before + 1);
    EXPECT_EQ(clock.slept(), milliseconds(before * 10));
  }
  end_at_last(*child);
}

TEST_F(ChildFault, AChildThatDoesNotEndIsGivenUp) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  for (const bool gone : {false, true}) {
    for (const std::uint64_t grace : {0u, 2000u}) {
      ProcessCalls calls;
      calls.swallow_signals();
      if (gone) {
        calls.fail("kill", {.number = ESRCH});
      }
      const StillClock clock;
      EXPECT_FALSE(child->terminate(grace));
      EXPECT_EQ(calls.count("kill"), 2);
      EXPECT_EQ(clock.slept(), milliseconds(grace + 500));
      EXPECT_EQ(clock.sleeps(), (grace + 500) / 5);
    }
  }
  EXPECT_FALSE(child->signalled());
  end_at_last(*child);
}

// --- Its report --------------------------------------------------------------------------------

// What a report of these bytes says.
std::optional<Problem> reported(const std::string& bytes) {
  os::Channel channel = os::open_start_channel();
  EXPECT_EQ(write(channel.child.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  channel.child.reset();
  return os::start_problem(channel.parent);
}

std::string bytes_of(int number) { return {reinterpret_cast<const char*>(&number), sizeof number}; }

TEST_F(ChildFault, AReportIsTheChildsOwnProblem) {
  const auto none = reported("");
  ASSERT_TRUE(none.has_value());
  EXPECT_FALSE(*none);
  const auto denied = reported(bytes_of(EACCES));
  ASSERT_TRUE(denied.has_value());
  EXPECT_TRUE(*denied == Cause::denied);
  EXPECT_EQ(denied->number, EACCES);
  for (const std::string& odd : {bytes_of(0), bytes_of(EACCES).substr(0, 2)}) {
    const auto other = reported(odd);
    ASSERT_TRUE(other.has_value());
    EXPECT_TRUE(*other == Cause::other);
  }
  EXPECT_FALSE(os::start_problem(Handle()).has_value());
}

}  // namespace
}  // namespace ravok::child_process_fault_test
