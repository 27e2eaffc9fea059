#include "platform/process/child_process.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/process/process.hpp"
#include "support/child_place.hpp"
#include "support/clock_calls.hpp"
#include "support/failure.hpp"
#include "support/process_calls.hpp"
#include "support/with_environment.hpp"

namespace ravok::child_process_test {
namespace {

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
using testing::WithEnvironment;
using Texts = std::vector<std::string>;

constexpr const char* reader_variable = "RAVOK_LAUNCHER_INTERRUPT_READER";

// A standard stream of this process that goes to a file for as long as the object lives.
class Redirected {
 public:
  Redirected(int stream, const std::filesystem::path& file)
      : stream_(stream), before_(fcntl(stream, F_DUPFD_CLOEXEC, 10)) {
    const Handle opened(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    dup2(opened.get(), stream_);
  }
  ~Redirected() { dup2(before_.get(), stream_); }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

 private:
  int stream_;
  Handle before_;
};

// Closes standard streams of this process for as long as the object lives.
class WithoutStreams {
 public:
  explicit WithoutStreams(std::vector<int> streams) : streams_(std::move(streams)) {
    for (const int stream : streams_) {
      before_.emplace_back(fcntl(stream, F_DUPFD_CLOEXEC, 10));
    }
    for (const int stream : streams_) {
      close(stream);
    }
  }
  ~WithoutStreams() {
    for (std::size_t i = 0; i < streams_.size(); ++i) {
      dup2(before_[i].get(), streams_[i]);
    }
  }
  WithoutStreams(const WithoutStreams&) = delete;
  WithoutStreams& operator=(const WithoutStreams&) = delete;

 private:
  std::vector<int> streams_;
  std::vector<Handle> before_;
};

// A signal that arrives every 100 microseconds and interrupts every call that can be interrupted.
class SignalStorm {
 public:
  SignalStorm() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before_);
    const itimerval often = {{0, 100}, {0, 100}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~SignalStorm() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  struct sigaction before_ {};
};

class Child : public ChildPlace {
 protected:
  // The start is refused before there is any process or channel.
  void expect_refused(const ChildStart& start, const std::string& code, const std::string& message) const {
    const ProcessCalls calls;
    EXPECT_FAILURE(start_child(start), code, message);
    EXPECT_EQ(calls.count("fork") + calls.count("pipe") + calls.count("pipe2") + calls.count("socketpair"), 0);
  }
  // The child is made, cannot run, and is gone afterwards.
  void expect_not_executed(const ChildStart& start) const {
    const ProcessCalls calls;
    const std::optional<Error> failure = testing::failure_of([&] { start_child(start); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, "process_start");
    EXPECT_STREQ(failure->what(), "Cannot execute the installed game");
    EXPECT_EQ(failure->details, (Texts{"verify GAME", "repair GAME"}));
    EXPECT_EQ(calls.count("fork"), 1);
    ASSERT_TRUE(calls.last_status().has_value());
    EXPECT_TRUE(WIFEXITED(*calls.last_status()));
    EXPECT_EQ(WEXITSTATUS(*calls.last_status()), 127);
    EXPECT_FALSE(has_children());
  }
  std::filesystem::path executable(std::string_view name, std::string_view content) const {
    const std::filesystem::path path = root_.write(name, content);
    EXPECT_EQ(chmod(path.c_str(), 0700), 0);
    return path;
  }
};

// --- What is refused ---------------------------------------------------------------------------

TEST_F(Child, TakesNoHandles) {
  ChildStart start;
  start.handles = {7};
  expect_refused(start, "launch_handles", "Native handle inheritance is Windows-only");
  start.handles.assign(8, 7);
  expect_refused(start, "launch_handles", "Native handle inheritance is Windows-only");
  start.handles.assign(9, 7);
  start.image = "missing";
  expect_refused(start, "launch_handles", "Too many private native child handles");
}

TEST_F(Child, RunsAFileThatIsNoLink) {
  const std::filesystem::path image = RAVOK_CHILD_COMPANION;
  std::filesystem::create_symlink(image, root_ / "link");
  std::filesystem::create_symlink(root_ / "nothing", root_ / "dangling");
  for (const std::filesystem::path& bad :
       {root_ / "link", root_ / "link/", root_ / "dangling", image / "", root_ / "missing", root_.path(), pipe(),
        std::filesystem::path("/dev/null"), image.lexically_relative(std::filesystem::current_path()),
        std::filesystem::path(), std::filesystem::path(image.native() + std::string("\0x", 2))}) {
    expect_refused({.image = bad, .directory = "missing"}, "launch_executable",
                   "The installed game executable is missing or linked");
  }
}

TEST_F(Child, RunsInADirectoryThatIsNoLink) {
  std::filesystem::create_directory_symlink(root_.path(), root_ / "link");
  for (const std::filesystem::path& bad :
       {root_ / "link", root_ / "link/", root_ / "link//", root_ / "missing", std::filesystem::path("."), pipe(),
        std::filesystem::path(RAVOK_CHILD_COMPANION), std::filesystem::path(),
        std::filesystem::path(root_.path().native() + std::string("\0x", 2))}) {
    expect_refused({.arguments = Texts(65, "a"), .directory = bad}, "launch_directory",
                   "Game working directory is missing or linked");
  }
}

TEST_F(Child, TakesArgumentsWithinTheirBounds) {
  const auto with = [](Texts arguments) {
    return ChildStart{.arguments = std::move(arguments), .environment = {{"", ""}}};
  };
  Texts too_many(65, "a");
  too_many.back() = std::string("\0", 1);
  expect_refused(with(too_many), "argument_limit", "Too many launch arguments");
  for (const std::string& bad : {std::string(4097, 'a'), std::string("a\0", 2)}) {
    expect_refused(with({"a", bad}), "argument_limit", "Launch argument is invalid or too long");
  }
  Texts too_long(8, std::string(4096, 'a'));
  too_long.emplace_back("b");
  expect_refused(with(too_long), "argument_limit", "Launch arguments exceed the total bound");
}

TEST_F(Child, GetsArgumentsAtTheirBounds) {
  Texts most(64, "a");
  most[0] = "describe";
  most[1] = description();
  most[2] = std::string(4096, 'b');
  most[3] = "";
  for (std::size_t i = 4; i < 10; ++i) {
    most[i] = std::string(4096, static_cast<char>('c' + i));
  }
  std::size_t total = 0;
  for (const std::string& argument : most) {
    total += argument.size();
  }
  most.back() = std::string(32768 - (total - 1), 'z');
  EXPECT_EQ(end_of(*start_child({.arguments = most})), 0u);
  most.insert(most.begin(), RAVOK_CHILD_COMPANION);
  EXPECT_EQ(described("argument"), most);
}

TEST_F(Child, RefusesVariablesThatAreNone) {
  for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
           {"", "value"}, {"A=B", "value"}, {std::string("A\0B", 3), "value"}, {"A", std::string("b\0", 2)}}) {
    ChildStart start{.environment = {{key, value}}};
    start.control = ChildControl::interrupt;
    expect_refused(start, "argument_encoding", "Process environment entry is invalid");
  }
}

TEST_F(Child, TakesNoInterruptPipeFromItsEnvironment) {
  ChildStart start{.environment = {{reader_variable, "1:7"}}};
  start.control = ChildControl::interrupt;
  expect_refused(start, "process_control",
                 "Launcher interrupt authority cannot be supplied as an environment override");
}

TEST_F(Child, GetsAnInterruptPipeOnlyWithItsParentsOutputAndAGroupOfItsOwn) {
  for (const auto& [streams, group] :
       std::vector<std::pair<ChildStreams, ChildGroup>>{{ChildStreams::joined, ChildGroup::own},
                                                        {ChildStreams::inherited, ChildGroup::shared},
                                                        {ChildStreams::joined, ChildGroup::shared}}) {
    ChildStart start = console_start({"end", "0"});
    start.streams = streams;
    start.group = group;
    expect_refused(start, "process_control", "Only an isolated console launcher child receives interrupt control");
  }
}

// --- What it is started with -------------------------------------------------------------------

TEST_F(Child, HasItsImageItsArgumentsAndItsDirectory) {
  ChildStart start{.arguments = describing(), .directory = root_.directory("with space") / ""};
  start.arguments.insert(start.arguments.end(), {"a b", "", "$HOME", "\xff", "--"});
  const std::unique_ptr<ChildProcess> child = start_child(start);
  EXPECT_EQ(end_of(*child), 0u);
  start.arguments.insert(start.arguments.begin(), RAVOK_CHILD_COMPANION);
  EXPECT_EQ(described("argument"), start.arguments);
  EXPECT_EQ(described("directory"), (Texts{root_ / "with space"}));
  EXPECT_EQ(described("process"), (Texts{std::to_string(child->pid())}));
}

TEST_F(Child, IsInItsParentsGroupOrInItsOwn) {
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  EXPECT_EQ(described("group"), (Texts{std::to_string(getpgrp())}));
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = describing(), .group = ChildGroup::own});
  EXPECT_EQ(end_of(*child), 0u);
  EXPECT_EQ(described("group"), (Texts{std::to_string(child->pid())}));
}

// Otherwise its terminal could stop it for good.
TEST_F(Child, IgnoresInAGroupOfItsOwnWhatStopsAProgramInTheBackground) {
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  EXPECT_EQ(described("ignored"), Texts());
  EXPECT_EQ(end_of(*start_child({.arguments = describing(), .group = ChildGroup::own})), 0u);
  EXPECT_EQ(described("ignored"), (Texts{std::to_string(SIGTTOU), std::to_string(SIGTTIN)}));
}

TEST_F(Child, HasTheInheritedEnvironmentInItsOrderAndBehindItTheNewInKeyOrder) {
  const WithEnvironment first("RAVOK_TEST_1", "one");
  const WithEnvironment second("RAVOK_TEST_2", "two");
  const WithEnvironment third("RAVOK_TEST_3", "three=3");
  const WithEnvironment of_linux("LD_RAVOK_TEST", "1");
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  Texts expected = described("variable");
  EXPECT_EQ(std::erase(expected, "RAVOK_TEST_2=two"), 1u);
  EXPECT_EQ(std::count(expected.begin(), expected.end(), "RAVOK_TEST_3=three=3"), 1);
  EXPECT_EQ(std::count(expected.begin(), expected.end(), "LD_RAVOK_TEST=1"), 1);
  expected.insert(expected.end(), {"RAVOK_TEST_0=a=b", "RAVOK_TEST_2=other", "RAVOK_TEST_9="});
  EXPECT_EQ(
      end_of(*start_child({.arguments = describing(),
                           .environment = {{"RAVOK_TEST_9", ""}, {"RAVOK_TEST_2", "other"}, {"RAVOK_TEST_0", "a=b"}}})),
      0u);
  EXPECT_EQ(described("variable"), expected);
}

TEST_F(Child, CanBeKeptFromTheLoadersVariablesThatAreNotGivenToIt) {
  const WithEnvironment of_linux("LD_RAVOK_TEST", "1");
  const WithEnvironment of_macos("DYLD_X", "1");
  const WithEnvironment like_them("RAVOK_LD_X", "1");
  EXPECT_EQ(end_of(*start_child({.arguments = describing(), .mode = ChildEnvironment::kept})), 0u);
  Texts expected = described("variable");
  EXPECT_EQ(std::erase(expected, "LD_RAVOK_TEST=1"), 1u);
  EXPECT_EQ(std::erase(expected, "DYLD_X=1"), 1u);
  std::erase_if(expected, [](const std::string& variable) { return variable.starts_with("LD_"); });
  expected.emplace_back("DYLD_X=given");
  EXPECT_EQ(
      end_of(*start_child(
          {.arguments = describing(), .environment = {{"DYLD_X", "given"}}, .mode = ChildEnvironment::without_loader})),
      0u);
  EXPECT_EQ(described("variable"), expected);
  EXPECT_EQ(std::count(expected.begin(), expected.end(), "RAVOK_LD_X=1"), 1);
}

TEST_F(Child, NeverInheritsAnInterruptPipeOfItsParents) {
  const WithEnvironment inherited(reader_variable, "1:7");
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  for (const std::string& variable : described("variable")) {
    EXPECT_FALSE(variable.starts_with(reader_variable)) << variable;
  }
}

TEST_F(Child, SendsItsOutputToItsErrorsOrToItsParentsOutput) {
  {
    const Redirected output(1, root_ / "output");
    const Redirected errors(2, root_ / "errors");
    EXPECT_EQ(end_of(*start_child({.arguments = {"speak"}, .streams = ChildStreams::joined})), 0u);
  }
  EXPECT_EQ(root_.read("output"), "");
  EXPECT_EQ(root_.read("errors"), "to output\nto errors\n");
  {
    const Redirected output(1, root_ / "output");
    const Redirected errors(2, root_ / "errors");
    EXPECT_EQ(end_of(*start_child({.arguments = {"speak"}, .streams = ChildStreams::inherited})), 0u);
  }
  EXPECT_EQ(root_.read("output"), "to output\n");
  EXPECT_EQ(root_.read("errors"), "to output\nto errors\nto errors\n");
}

TEST_F(Child, HasAnEmptyInput) {
  const Handle input(open(root_.write("input", "x").c_str(), O_RDONLY | O_CLOEXEC));
  const Handle before(fcntl(0, F_DUPFD_CLOEXEC, 10));
  dup2(input.get(), 0);
  for (const ChildStreams streams : {ChildStreams::joined, ChildStreams::inherited}) {
    EXPECT_EQ(end_of(*start_child({.arguments = describing(), .streams = streams})), 0u);
    EXPECT_EQ(described("input"), (Texts{"0"}));
  }
  dup2(before.get(), 0);
}

// Descriptors of this process, every second of which programs inherit.
std::vector<Handle> many_descriptors() {
  std::vector<Handle> many;
  for (int i = 0; i < 100; ++i) {
    many.emplace_back(open("/dev/null", O_RDONLY | (i % 2 == 0 ? O_CLOEXEC : 0)));
  }
  return many;
}

TEST_F(Child, GetsNoDescriptorOfItsParentsButTheStreams) {
  const std::vector<Handle> many = many_descriptors();
  const std::unique_ptr<ChildProcess> other = start_child(console_start({"stay", pipe()}));
  wait_until_ready();
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  EXPECT_EQ(described("descriptor"), (Texts{"0", "1", "2"}));
  end_at_last(*other);
}

TEST_F(Child, GetsOnlyTheReaderOfItsInterruptPipeBesidesTheStreams) {
  const std::vector<Handle> many = many_descriptors();
  EXPECT_EQ(start_child(console_start(describing()))->wait({}), 0u);
  const std::string announcement = described("variable").back();
  const std::string label = std::string(reader_variable) + "=1:";
  ASSERT_TRUE(announcement.starts_with(label)) << announcement;
  EXPECT_EQ(described("descriptor"), (Texts{"0", "1", "2", announcement.substr(label.size())}));
}

TEST_F(Child, GetsNoDescriptorWhereTheSystemCannotKeepAllBackAtOnce) {
  const std::vector<Handle> many = many_descriptors();
  ProcessCalls calls;
  calls.fail("syscall", {.number = ENOSYS});
  EXPECT_EQ(end_of(*start_child({.arguments = describing()})), 0u);
  EXPECT_EQ(described("descriptor"), (Texts{"0", "1", "2"}));
}

TEST_F(Child, HasItsStreamsWhereItsParentLacksSome) {
  std::uint64_t code = 1;
  {
    const WithoutStreams without({0, 1});
    code = end_of(*start_child({.arguments = describing()}));
  }
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(described("descriptor"), (Texts{"0", "1", "2"}));
  EXPECT_EQ(described("input"), (Texts{"0"}));
}

TEST_F(Child, IsNotRunWithoutTheStreamThatItsOutputIsToJoin) {
  std::optional<Error> failure;
  {
    const WithoutStreams without({0, 1, 2});
    failure = testing::failure_of([&] { start_child({.arguments = describing()}); });
  }
  ASSERT_TRUE(failure.has_value());
  EXPECT_STREQ(failure->what(), "Cannot execute the installed game");
  EXPECT_FALSE(was_run());
}

// --- Its start ---------------------------------------------------------------------------------

TEST_F(Child, IsMadeKnownBeforeItRunsAnything) {
  std::uint64_t told = 0;
  const auto on_started = [&](std::uint64_t pid) {
    told = pid;
    EXPECT_FALSE(was_run());
    EXPECT_EQ(getpgid(static_cast<pid_t>(pid)), static_cast<pid_t>(pid));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe"), current_executable_path());
  };
  const std::unique_ptr<ChildProcess> child =
      start_child({.arguments = describing(), .on_started = on_started, .group = ChildGroup::own});
  EXPECT_EQ(told, child->pid());
  EXPECT_EQ(end_of(*child), 0u);
  EXPECT_TRUE(was_run());
}

TEST_F(Child, IsNeverRunWhenItCannotBeMadeKnown) {
  for (const ChildControl control : {ChildControl::none, ChildControl::interrupt}) {
    const ProcessCalls calls;
    ChildStart start = console_start(describing());
    start.control = control;
    start.on_started = [](std::uint64_t) { throw std::out_of_range("no place to note it"); };
    EXPECT_THROW(start_child(start), std::out_of_range);
    EXPECT_FALSE(was_run());
    EXPECT_FALSE(has_children());
    ASSERT_TRUE(calls.last_status().has_value());
    EXPECT_TRUE(WIFEXITED(*calls.last_status()));
    EXPECT_EQ(WEXITSTATUS(*calls.last_status()), 127);
  }
}

// The number of a process's descriptors, once it waits for something.
std::size_t descriptors_of_waiting(std::uint64_t pid) {
  const std::filesystem::path process = "/proc/" + std::to_string(pid);
  std::string status;
  do {
    std::ifstream file(process / "stat");
    std::getline(file, status);
  } while (status.find(") S ") == std::string::npos);
  const std::filesystem::directory_iterator descriptors(process / "fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

TEST_F(Child, HoldsNothingOfItsParentsWhileItWaitsToBeToldToRun) {
  for (const bool at_once : {true, false}) {
    const std::vector<Handle> many = many_descriptors();
    ProcessCalls calls;
    if (!at_once) {
      calls.fail("syscall", {.number = ENOSYS});
    }
    std::vector<std::size_t> counts;
    const auto count = [&](std::uint64_t pid) { counts.push_back(descriptors_of_waiting(pid)); };
    EXPECT_EQ(end_of(*start_child({.on_started = count})), 0u);
    ChildStart console = console_start({"end", "0"});
    console.on_started = count;
    EXPECT_EQ(end_of(*start_child(console)), 0u);
    // The streams, its own ends of two channels, the empty input, and its own end of the interrupt pipe.
    EXPECT_EQ(counts, (std::vector<std::size_t>{6, 7}));
  }
}

TEST_F(Child, IsNotHeldUpByAnotherThatAnotherThreadStarts) {
  for (int round = 0; round < 20; ++round) {
    std::latch both_wait(2);
    const auto refuse = [&](std::uint64_t) {
      both_wait.arrive_and_wait();
      throw std::out_of_range("no place to note it");
    };
    const auto start_refused = [&] { EXPECT_THROW(start_child({.on_started = refuse}), std::out_of_range); };
    std::thread other(start_refused);
    start_refused();
    other.join();
  }
}

TEST_F(Child, ThatIsGoneBeforeItIsToldToRunIsReported) {
  const auto on_started = [](std::uint64_t pid) {
    kill(static_cast<pid_t>(pid), SIGKILL);
    wait_until_ended(pid);
  };
  EXPECT_FAILURE(start_child({.arguments = describing(), .on_started = on_started}), "process_start",
                 "Cannot activate the prepared game");
  EXPECT_FALSE(has_children());
  EXPECT_FALSE(was_run());
}

TEST_F(Child, IsReportedAndGoneWhenItsImageCannotBeExecuted) {
  expect_not_executed({.image = root_.write("no permission", "#!/bin/sh\nexit 0\n")});
  expect_not_executed({.image = executable("no program", "")});
  expect_not_executed({.image = executable("no interpreter", "#!/nonexistent/interpreter\n")});
  ChildStart start = console_start({});
  start.image = root_ / "no program";
  expect_not_executed(start);
}

TEST_F(Child, ThatCannotEnterItsDirectoryIsReportedAndGone) {
  const std::filesystem::path directory = root_.directory("directory");
  expect_not_executed({.arguments = describing(), .directory = directory, .on_started = [&](std::uint64_t) {
                         std::filesystem::remove(directory);
                       }});
  EXPECT_FALSE(was_run());
}

// At a sanitizer's pace each start takes long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int many_starts = 100;
#else
constexpr int many_starts = 1000;
#endif

TEST_F(Child, IsStartedManyTimesWhileSignalsInterruptEveryCall) {
  const SignalStorm storm;
  const ChildStart plain{.arguments = {"end", "7"}};
  const ChildStart console = console_start({"end", "8"});
  const ChildStart broken{.image = executable("no program", "")};
  for (int i = 0; i < many_starts; ++i) {
    if (i % 10 == 0) {
      ASSERT_TRUE(
          testing::fails_with([&] { start_child(broken); }, "process_start", "Cannot execute the installed game"));
    } else if (i % 10 == 1) {
      ASSERT_EQ(start_child(console)->wait([] { return false; }), 8u);
    } else {
      ASSERT_EQ(end_of(*start_child(plain)), 7u);
    }
  }
}

TEST_F(Child, IsStartedByManyThreadsAtOnce) {
  std::array<std::thread, 4> threads;
  std::array<int, threads.size()> right{};
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i] = std::thread([&, i] {
      for (int round = 0; round < 50; ++round) {
        ChildProcess child(RAVOK_CHILD_COMPANION, {"end", std::to_string(i)}, "/", {}, ChildStreams::inherited,
                           ChildEnvironment::kept, {}, ChildGroup::own, ChildControl::interrupt);
        right[i] += child.wait({}) == i ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(right, (std::array<int, 4>{50, 50, 50, 50}));
}

// --- Its end -----------------------------------------------------------------------------------

TEST_F(Child, TellsItsExitCode) {
  for (const std::uint64_t code : {0u, 1u, 127u, 255u}) {
    const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"end", std::to_string(code)}});
    EXPECT_EQ(end_of(*child), code);
    EXPECT_EQ(child->poll(), code);
    EXPECT_FALSE(child->signalled());
  }
}

TEST_F(Child, TellsTheSignalThatEndedIt) {
  for (const int signal : {SIGKILL, SIGTERM, SIGUSR1}) {
    const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"die", std::to_string(signal)}});
    EXPECT_FALSE(child->signalled());
    EXPECT_EQ(end_of(*child), static_cast<std::uint64_t>(128 + signal));
    EXPECT_TRUE(child->signalled());
  }
}

TEST_F(Child, IsNotWaitedForByPoll) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  EXPECT_FALSE(child->poll().has_value());
  EXPECT_FALSE(child->notification_handle().has_value());
  end_at_last(*child);
}

TEST_F(Child, GoesOnWithoutItsOwner) {
  pid_t pid = 0;
  {
    const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
    pid = static_cast<pid_t>(child->pid());
    wait_until_ready();
  }
  EXPECT_EQ(kill(pid, 0), 0);
  EXPECT_EQ(kill(pid, SIGKILL), 0);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(Child, ThatHasEndedIsForgottenWithItsOwner) {
  const std::unique_ptr<ChildProcess> child = start_child({});
  wait_until_ended(child->pid());
  EXPECT_TRUE(has_children());
}

TEST_F(Child, IsTerminatedByThePoliteSignal) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  const ProcessCalls calls;
  const StillClock clock([&] { wait_until_ended(child->pid()); });
  EXPECT_TRUE(child->terminate(5));
  EXPECT_EQ(child->poll(), 143u);
  EXPECT_TRUE(child->signalled());
  EXPECT_EQ(calls.count("kill"), 1);
}

TEST_F(Child, ThatIgnoresThePoliteSignalIsKilledAfterItsGrace) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay-on", pipe()}});
  wait_until_ready();
  const ProcessCalls calls;
  std::size_t politely = 0;
  const StillClock clock([&] {
    if (calls.count("kill") == 1) {
      ++politely;
    } else {
      wait_until_ended(child->pid());
    }
  });
  EXPECT_TRUE(child->terminate(100));
  EXPECT_EQ(politely, 20u);
  EXPECT_EQ(child->poll(), 137u);
  EXPECT_TRUE(child->signalled());
  EXPECT_EQ(calls.count("kill"), 2);
}

TEST_F(Child, ThatIsStoppedStillRunsAndCanBeEnded) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  const auto pid = static_cast<pid_t>(child->pid());
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  ASSERT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
  EXPECT_FALSE(child->poll().has_value());
  const ProcessCalls calls;
  const StillClock clock([&] {
    if (calls.count("kill") == 2) {
      wait_until_ended(child->pid());
    }
  });
  EXPECT_TRUE(child->terminate(10));
  EXPECT_EQ(child->poll(), 137u);
}

TEST_F(Child, WithoutGraceIsKilledAtOnce) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay-on", pipe()}});
  wait_until_ready();
  const StillClock clock([&] { wait_until_ended(child->pid()); });
  EXPECT_TRUE(child->terminate(0));
  EXPECT_EQ(child->poll(), 137u);
  EXPECT_LE(clock.sleeps(), 1u);
}

TEST_F(Child, ThatHasEndedGetsNoSignal) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"end", "3"}});
  wait_until_ended(child->pid());
  const ProcessCalls calls;
  EXPECT_TRUE(child->terminate(2000));
  EXPECT_TRUE(child->terminate(0));
  EXPECT_EQ(calls.count("kill"), 0);
  EXPECT_EQ(child->poll(), 3u);
}

TEST_F(Child, HasAtMostTwoSecondsOfGrace) {
  const std::unique_ptr<ChildProcess> child = start_child({.arguments = {"stay", pipe()}});
  wait_until_ready();
  const ProcessCalls calls;
  EXPECT_FAILURE(child->terminate(2001), "process_wait", "Child termination grace must be bounded to two seconds");
  EXPECT_EQ(calls.count("kill"), 0);
  EXPECT_FALSE(child->poll().has_value());
  EXPECT_TRUE(child->terminate(2000));
  EXPECT_FAILURE(child->terminate(2001), "process_wait", "Child termination grace must be bounded to two seconds");
}

TEST_F(Child, ThatTheSystemForgetsByItselfCannotBeInspected) {
  std::signal(SIGCHLD, SIG_IGN);
  const std::unique_ptr<ChildProcess> child = start_child({});
  EXPECT_FAILURE(end_of(*child), "process_wait", "Cannot inspect game process");
  const ProcessCalls calls;
  EXPECT_FAILURE(child->terminate(0), "process_wait", "Cannot inspect game process");
  EXPECT_EQ(calls.count("kill"), 0);
  std::signal(SIGCHLD, SIG_DFL);
}

// --- Requests to stop --------------------------------------------------------------------------

TEST_F(Child, IsAskedToStopOnceAndWaitedFor) {
  const std::unique_ptr<ChildProcess> child = start_child(console_start({"listen", pipe()}));
  wait_until_ready();
  int asked = 0;
  EXPECT_EQ(child->wait([&] { return ++asked == 3; }), 42u);
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(child->wait({}), 42u);
  EXPECT_FALSE(child->signalled());
}

TEST_F(Child, TakesOneRequest) {
  const std::unique_ptr<ChildProcess> child = start_child(console_start({"listen", pipe()}));
  wait_until_ready();
  const auto pid = static_cast<pid_t>(child->pid());
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  ASSERT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
  EXPECT_TRUE(child->request_interrupt());
  EXPECT_TRUE(child->request_interrupt());
  ASSERT_EQ(kill(pid, SIGCONT), 0);
  int asked = 0;
  EXPECT_EQ(child->wait([&] { return ++asked > 0; }), 42u);
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(child->request_interrupt());
}

TEST_F(Child, LeavesItsParentOnlyTheWriterOfItsInterruptPipe) {
  const std::size_t before = testing::open_descriptors().size();
  const std::unique_ptr<ChildProcess> child = start_child(console_start({"listen", pipe()}));
  EXPECT_EQ(testing::open_descriptors().size(), before + 1);
  wait_until_ready();
  const auto pid = static_cast<pid_t>(child->pid());
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  wait_until_ended(child->pid());
  EXPECT_FALSE(child->request_interrupt());
  EXPECT_EQ(child->wait({}), 137u);
}

TEST_F(Child, WhoseOwnerIsGoneHearsThatNoRequestWillCome) {
  pid_t pid = 0;
  {
    const std::unique_ptr<ChildProcess> child = start_child(console_start({"listen", pipe()}));
    pid = static_cast<pid_t>(child->pid());
    wait_until_ready();
  }
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 43);
}

TEST_F(Child, WithoutAPipeTakesNoRequest) {
  const std::unique_ptr<ChildProcess> child =
      start_child({.arguments = {"stay", pipe()}, .streams = ChildStreams::inherited, .group = ChildGroup::own});
  wait_until_ready();
  EXPECT_FALSE(child->request_interrupt());
  EXPECT_FAILURE(child->wait([] { return true; }), "process_control",
                 "Interruptible waiting needs this owned child's private channel");
  EXPECT_FALSE(child->poll().has_value());
  end_at_last(*child);
  EXPECT_FAILURE(child->wait({}), "process_control", "Interruptible waiting needs this owned child's private channel");
}

}  // namespace
}  // namespace ravok::child_process_test
